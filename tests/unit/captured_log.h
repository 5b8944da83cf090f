// What is written to a standard stream, and the agent's log as texts to be compared in one piece.
#pragma once
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "core/trace.h"

using Texts = std::vector<std::string>;

// Collects what is written to a descriptor (1 or 2) until it goes out of scope.
class CapturedStream {
 public:
  explicit CapturedStream(int fd) : fd_(fd), saved_(dup(fd)), memory_(memfd_create("stream", 0)) {
    std::fflush(nullptr);
    dup2(memory_, fd_);
  }
  ~CapturedStream() {
    std::fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
    close(memory_);
  }
  CapturedStream(const CapturedStream&) = delete;
  CapturedStream& operator=(const CapturedStream&) = delete;

  std::string Text() const {
    std::fflush(nullptr);
    std::string text;
    char part[4096];
    for (ssize_t count;
         (count = pread(memory_, part, sizeof part, static_cast<off_t>(text.size()))) > 0;)
      text.append(part, static_cast<std::size_t>(count));
    return text;
  }
  bool Contains(const std::string& text) const { return Text().find(text) != std::string::npos; }

 private:
  const int fd_;
  const int saved_;
  const int memory_;
};
class CapturedStderr : public CapturedStream {
 public:
  CapturedStderr() : CapturedStream(STDERR_FILENO) {}
};
class CapturedStdout : public CapturedStream {
 public:
  CapturedStdout() : CapturedStream(STDOUT_FILENO) {}
};

// The lines of a log with their headers taken off. A line of level 0 or 1 comes as its text, one
// with a header as "LEVEL MODULE|text".
inline Texts LogTexts(const std::string& log) {
  static const std::string kPrefix = "lumo_tcp:";
  Texts texts;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    char module[32] = "";
    int level, number, length = 0;
    long clock;
    std::sscanf(line.c_str(), "lumo_tcp:[%d] %31[^:]:%d %ld|%n", &level, module, &number, &clock,
                &length);
    if (length > 0)
      texts.push_back(std::to_string(level) + " " +
                      (module + std::string(module).find_first_not_of(' ')) + "|" +
                      line.substr(static_cast<std::size_t>(length)));
    else
      texts.push_back(line.substr(line.rfind(kPrefix, 0) == 0 ? kPrefix.size() : 0));
  }
  return texts;
}

// Those of the lines that begin with one of the prefixes.
inline Texts Beginning(const Texts& lines, const Texts& prefixes) {
  Texts chosen;
  for (const std::string& line : lines) {
    for (const std::string& prefix : prefixes) {
      if (line.rfind(prefix, 0) != 0) continue;
      chosen.push_back(line);
      break;
    }
  }
  return chosen;
}

// The agent's log, written at this level for as long as it lives.
class CapturedLog : public CapturedStderr {
 public:
  explicit CapturedLog(int level = kLogTrace) : before_(g_DbcI.LogLevel) {
    g_DbcI.LogLevel = static_cast<std::uint8_t>(level);
  }
  ~CapturedLog() { g_DbcI.LogLevel = before_; }

  Texts Lines() const { return LogTexts(Text()); }
  int Count(const std::string& line) const {
    const Texts lines = Lines();
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
  }
  void ExpectOnce(const std::string& line) const { EXPECT_EQ(Count(line), 1) << line << Shown(); }
  // Each line is there, where it stands first behind those before it.
  void ExpectInOrder(const Texts& expected) const {
    const Texts lines = Lines();
    auto place = lines.begin();
    for (const std::string& line : expected) {
      const auto first = std::find(lines.begin(), lines.end(), line);
      ASSERT_NE(first, lines.end()) << line << Shown();
      EXPECT_GE(first, place) << line << Shown();
      place = first + 1;
    }
  }

 private:
  std::string Shown() const { return "\nin the log:\n" + Text(); }
  const std::uint8_t before_;
};

// The lines of the trace while `action` runs.
template <class Action>
Texts Traced(Action action) {
  const CapturedLog log;
  action();
  return log.Lines();
}
