// The log and the entry and exit trace. Every named operation takes its caller's module and line
// first, starts with ENTER() and leaves with LEAVE(value, "word"); a plain return leaves with
// "SUCCESS".
#pragma once
#include "core/dbc.h"

enum : int {
  kLogResult = 0,   // what the operator must always see
  kLogDefault = 1,  // changes of the default link
  kLogError = 2,    // errors of the agent's own work
  kLogDriver = 3,   // failed system calls inside the drivers
  kLogDetail = 4,
  kLogTrace = 15,  // the call trace and all detail lines
};

// Writes one line to standard error when level <= LogLevel; returns 0. Keeps errno: codes given to
// clients must not depend on the trace level.
[[gnu::format(printf, 4, 5)]] int log(const char* file, int line, int level, const char* format,
                                      ...);

// The same for a signal handler, with the text complete up to an optional number: formats without
// the C library and writes once.
void LogFromHandler(const char* file, int line, const char* text, const int* number = nullptr);

// Prints to standard output at once: a caller that reads a pipe sees the text.
[[gnu::format(printf, 1, 2)]] void PrintText(const char* format, ...);

// Neither stream holds the agent up: one that takes nothing is waited for once, for a second at
// most; then its lines are dropped, without waiting, until it takes some again, and a line says how
// many were lost.

// Lines of the log that nobody took.
std::uint64_t LinesLost();

// Reads DBC_LOG into LogLevel; returns 0.
int ReadDbcLogLevel();

// Formats into a static buffer, overwritten by the next call. Keeps errno.
[[gnu::format(printf, 1, 2)]] const char* TraceText(const char* format, ...);
[[gnu::cold]] void TraceEnter(const char* module, int line, const char* function,
                              const char* callerFile, int callerLine, const char* detail);
[[gnu::cold]] void TraceLeave(const char* module, int line, const char* function, const char* word);

inline bool Tracing() { return g_DbcI.LogLevel >= kLogTrace; }

#define HERE Module, __LINE__  // each source: static constexpr char Module[] = "link";
#define LOG(level, ...) (g_DbcI.LogLevel >= (level) ? log(HERE, (level), __VA_ARGS__) : 0)
#define TEXT(...) (Tracing() ? TraceText(__VA_ARGS__) : "")
#define ENTER(...) TraceScope traceScope(HERE, __func__, file, line __VA_OPT__(, TEXT(__VA_ARGS__)))
#define LEAVE(value, word) traceScope.Leave(__LINE__, (value), (word))

// What an operation's helper found out: the status to return and the word to leave with.
struct Outcome {
  int Status = 0;
  const char* Word = "SUCCESS";
};

// Holds constants only, handed to the writers by value, so that it takes no storage: with the
// trace off an operation costs one comparison at entry and one at exit.
class TraceScope {
 public:
  TraceScope(const char* module, int line, const char* function, const char* callerFile,
             int callerLine, const char* detail = "")
      : module_(module), function_(function), line_(line) {
    if (Tracing()) [[unlikely]]
      TraceEnter(module, line, function, callerFile, callerLine, detail);
  }
  ~TraceScope() {
    if (!left_ && Tracing()) [[unlikely]]
      TraceLeave(module_, line_, function_, "SUCCESS");
  }
  TraceScope(const TraceScope&) = delete;
  TraceScope& operator=(const TraceScope&) = delete;

  template <class T>
  T Leave(int line, T value, const char* word) {
    if (Tracing()) [[unlikely]]
      TraceLeave(module_, line, function_, word);
    left_ = true;
    return value;
  }

 private:
  const char* const module_;
  const char* const function_;
  const int line_;
  bool left_ = false;
};
