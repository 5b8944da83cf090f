// Linked into the agent and the unit tests of the coverage build, with _exit and signal wrapped:
// processes that end without the library's exit, as the reader child of a LOCALI link does, leave
// their counts too.
#include <csignal>

extern "C" {
void __gcov_dump();
[[noreturn]] void __real__exit(int status);
sighandler_t __real_signal(int number, sighandler_t handler);

// A signal must not come in the middle: its handler would wait for this dump for ever.
[[noreturn]] void __wrap__exit(int status) {
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);
  __gcov_dump();
  __real__exit(status);
}

static void DumpAndEnd(int number) {
  __gcov_dump();
  __real_signal(number, SIG_DFL);
  std::raise(number);  // blocked until this handler returns
}

sighandler_t __wrap_signal(int number, sighandler_t handler) {
  const bool ends = number == SIGTERM && handler == SIG_DFL;
  return __real_signal(number, ends ? DumpAndEnd : handler);
}
}
