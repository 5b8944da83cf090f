#include "core/trace.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t kLineSize = 2048;  // longer lines go out in pieces

void WriteAll(const char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t written = write(STDERR_FILENO, bytes, count);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // nobody reads the log: go on without it
    bytes += written;
    count -= static_cast<std::size_t>(written);
  }
}

int FormatHeader(char* line, const char* file, int lineNumber, int level) {
  if (level <= kLogDefault) return std::snprintf(line, kLineSize, "lumo_tcp:");
  return std::snprintf(line, kLineSize, "lumo_tcp:[%2d] %10s:%4d %10lld|", level, file, lineNumber,
                       static_cast<long long>(std::time(nullptr)));
}

// Appends text; the caller's line always has room for what a handler writes.
char* AppendText(char* at, const char* text) {
  while (*text != '\0') *at++ = *text++;
  return at;
}

// Appends a number, right-aligned in `width` columns.
char* AppendNumber(char* at, long long number, int width) {
  char digits[24];
  int count = 0;
  unsigned long long rest = number < 0 ? 0ULL - static_cast<unsigned long long>(number)
                                       : static_cast<unsigned long long>(number);
  do digits[count++] = static_cast<char>('0' + rest % 10);
  while ((rest /= 10) != 0);
  if (number < 0) digits[count++] = '-';
  for (int pad = count; pad < width; ++pad) *at++ = ' ';
  while (count > 0) *at++ = digits[--count];
  return at;
}

}  // namespace

int log(const char* file, int line, int level, const char* format, ...) {
  if (g_DbcI.LogLevel < level) return 0;
  const int savedErrno = errno;
  char text[kLineSize];
  const int header = FormatHeader(text, file, line, level);
  const std::size_t room = kLineSize - static_cast<std::size_t>(header);
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text + header, room, format, arguments);
  va_end(arguments);
  if (length >= 0 && static_cast<std::size_t>(length) < room) {
    text[header + length] = '\n';
    WriteAll(text, static_cast<std::size_t>(header) + static_cast<std::size_t>(length) + 1);
  } else {
    WriteAll(text, static_cast<std::size_t>(header));
    va_start(arguments, format);
    vdprintf(STDERR_FILENO, format, arguments);
    va_end(arguments);
    WriteAll("\n", 1);
  }
  errno = savedErrno;
  return 0;
}

void LogFromHandler(const char* file, int line, const char* text, const int* number) {
  if (g_DbcI.LogLevel < kLogTrace) return;
  const int savedErrno = errno;
  char out[256];
  char* at = AppendText(out, "lumo_tcp:[15] ");
  for (std::size_t pad = std::strlen(file); pad < 10; ++pad) *at++ = ' ';
  at = AppendText(at, file);
  *at++ = ':';
  at = AppendNumber(at, line, 4);
  *at++ = ' ';
  at = AppendNumber(at, std::time(nullptr), 10);
  *at++ = '|';
  at = AppendText(at, text);
  if (number) at = AppendNumber(at, *number, 0);
  *at++ = '\n';
  WriteAll(out, static_cast<std::size_t>(at - out));
  errno = savedErrno;
}

int ReadDbcLogLevel() {
  g_DbcI.LogLevel = 0;
  const char* const value = std::getenv("DBC_LOG");
  if (value) g_DbcI.LogLevel = static_cast<std::uint8_t>(std::strtol(value, nullptr, 0) & 0xFF);
  return 0;
}

const char* TraceText(const char* format, ...) {
  static char text[kLineSize];
  const int savedErrno = errno;
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  errno = savedErrno;
  return text;
}

void TraceEnter(const char* module, int line, const char* function, const char* callerFile,
                int callerLine, const char* detail) {
  log(module, line, kLogTrace, "'%s' Call from %s:%d %s", function, callerFile, callerLine, detail);
}

void TraceLeave(const char* module, int line, const char* function, const char* word) {
  log(module, line, kLogTrace, "'%s' Leave %s", function, word);
}
