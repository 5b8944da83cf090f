#include "core/trace.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr std::size_t kLineSize = 4096;
constexpr int kPatience = 1000;  // milliseconds

std::int64_t MillisecondsNow() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * std::int64_t{1000} + now.tv_nsec / 1000000;
}

// A stream whose reader may be slow, or gone.
struct Sink {
  const int Fd;
  volatile std::sig_atomic_t Stuck;  // it takes nothing; what comes is dropped
  volatile std::sig_atomic_t Lost;   // lines dropped since
};
volatile std::sig_atomic_t linesLost;  // of the log, all together
Sink logSink = {STDERR_FILENO, 0, 0};
Sink textSink = {STDOUT_FILENO, 0, 0};

// Whether the stream takes something now, or within so many milliseconds. A stop request ends the
// wait; other signals do not.
bool Takes(const Sink& sink, int milliseconds) {
  pollfd stream = {.fd = sink.Fd, .events = POLLOUT, .revents = 0};
  const std::int64_t end = MillisecondsNow() + milliseconds;
  for (;;) {
    const int ready = poll(&stream, 1, milliseconds);
    if (ready >= 0 || errno != EINTR) return ready != 0;  // a failure shows when writing
    if (Stopping()) return false;
    milliseconds = static_cast<int>(std::max<std::int64_t>(end - MillisecondsNow(), 0));
  }
}

// Writes in pieces that a pipe with room takes at once. False: the stream takes no more.
bool WriteAll(Sink& sink, const char* bytes, std::size_t count, int patience) {
  while (count > 0) {
    if (!Takes(sink, patience)) return false;
    const ssize_t written = write(sink.Fd, bytes, std::min(count, std::size_t{PIPE_BUF}));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EAGAIN) return false;
    if (written <= 0) return true;  // there is no reader: go on without
    bytes += written;
    count -= static_cast<std::size_t>(written);
  }
  return true;
}

// Takes note of a line that is lost.
void Lose(Sink& sink) {
  sink.Stuck = 1;
  sink.Lost = sink.Lost + 1;
  if (&sink == &logSink) linesLost = linesLost + 1;
}

// Puts what tells of the lost lines in front of the line, as far as there is room: one call, since
// a small pipe takes only one.
std::size_t TellLost(Sink& sink, char* text, const char* line, std::size_t count) {
  const int head = std::snprintf(text, kLineSize, "lumo_tcp:%d lines were lost: nobody read them\n",
                                 static_cast<int>(sink.Lost));
  sink.Stuck = 0;
  sink.Lost = 0;
  const std::size_t length = static_cast<std::size_t>(head);
  const std::size_t fits = std::min(count, kLineSize - length);
  std::memcpy(text + length, line, fits);
  return length + fits;
}

// The agent waits once for a stream that takes nothing; from then on, until it takes something
// again, lines are dropped.
void WriteLine(Sink& sink, const char* line, std::size_t count) {
  char text[kLineSize];
  if (sink.Stuck) {
    if (!Takes(sink, 0)) return Lose(sink);
    count = TellLost(sink, text, line, count);
    line = text;
  }
  if (!WriteAll(sink, line, count, Stopping() ? 0 : kPatience)) Lose(sink);
}

// Formats behind what is in `line` already (kLineSize bytes) and writes it; a text that is longer
// needs memory for once, and is cut without.
[[gnu::format(printf, 4, 0)]] void FormatAndWrite(Sink& sink, char* line, int header,
                                                  const char* format, std::va_list arguments,
                                                  const char* end) {
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(line + header, kLineSize - static_cast<std::size_t>(header),
                                    format, arguments);
  const std::size_t size = static_cast<std::size_t>(header + std::max(length, 0));
  char* const longer = size + 1 < kLineSize ? nullptr : static_cast<char*>(std::malloc(size + 2));
  char* const text = longer ? longer : line;
  if (longer) {
    std::memcpy(longer, line, static_cast<std::size_t>(header));
    std::vsnprintf(longer + header, size + 1 - static_cast<std::size_t>(header), format, again);
  }
  va_end(again);
  std::size_t count = std::min(size, longer ? size : kLineSize - 2);
  if (*end != '\0') text[count++] = *end;
  WriteLine(sink, text, count);
  std::free(longer);
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
  std::va_list arguments;
  va_start(arguments, format);
  FormatAndWrite(logSink, text, header, format, arguments, "\n");
  va_end(arguments);
  errno = savedErrno;
  return 0;
}

void PrintText(const char* format, ...) {
  const int savedErrno = errno;
  char text[kLineSize];
  std::va_list arguments;
  va_start(arguments, format);
  FormatAndWrite(textSink, text, 0, format, arguments, "");
  va_end(arguments);
  errno = savedErrno;
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
  // It may have come in the middle of another line: here nothing is waited for.
  if (logSink.Stuck || !WriteAll(logSink, out, static_cast<std::size_t>(at - out), 0))
    Lose(logSink);
  errno = savedErrno;
}

std::uint64_t LinesLost() { return static_cast<std::uint64_t>(linesLost); }

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
