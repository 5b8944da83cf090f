#include "tests/fuzz/world.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace world {

namespace {

struct Fault {
  int Error = 0;  // 0: none
  int Successes = 0;
};
std::array<Fault, static_cast<std::size_t>(Call::Count)> faults;
bool faultUsed;

// The sanitizers start a program that names the functions of a stack. It has to be started before
// the calls that this takes are simulated. Absent in a build without them.
extern "C" [[gnu::weak]] void __sanitizer_symbolize_pc(void* pc, const char* format, char* text,
                                                       std::size_t size);

void StartSymbolizer() {
  static bool started;
  char text[256];
  if (!started && __sanitizer_symbolize_pc)
    __sanitizer_symbolize_pc(__builtin_return_address(0), "%f", text, sizeof text);
  started = true;
}

constexpr int kFirst = 3;  // the numbers below are the test's own streams
constexpr pid_t kFirstChild = 50000;

}  // namespace

State state;

bool Fails(Call call);  // for the calls themselves

bool Fails(Call call) {
  Fault& fault = faults[static_cast<std::size_t>(call)];
  if (fault.Error == 0 || fault.Successes-- > 0) return false;
  errno = fault.Error;
  fault = {};
  faultUsed = true;
  if (state.OnOutcome) state.OnOutcome(call, -1, -1, errno);
  return true;
}

void LetFail(Call call, int error, int successes) {
  faults[static_cast<std::size_t>(call)] = {error, successes};
}

void ForgetFaults() {
  faults = {};
  faultUsed = false;
}

bool AnyFaultUsed() { return faultUsed; }

void Begin() {
  for (int fd = kFirst; fd <= state.Highest; ++fd) At(fd) = {};
  state.Highest = kFirst - 1;
  static_cast<Beginning&>(state) = {};
  BeginQuiet();
  state.Active = true;
}

void BeginQuiet() {
  StartSymbolizer();
  state.Dead.clear();
  state.LastChild = kFirstChild;
  ForgetFaults();
  state.Quiet = true;
  state.ShowLog = std::getenv("LUMO_FUZZ_LOG") != nullptr;
}

void End() {
  state.Active = false;
  state.Quiet = false;
}

int Open(Kind kind) {
  for (int fd = kFirst; fd < state.Limit && fd < FD_SETSIZE; ++fd) {
    if (At(fd).What != Kind::None) continue;
    At(fd) = {};
    At(fd).What = kind;
    At(fd).Serial = ++state.LastSerial;
    if (fd > state.Highest) state.Highest = fd;
    return fd;
  }
  errno = EMFILE;
  return -1;
}

bool IsOpen(int fd) { return fd >= kFirst && fd < FD_SETSIZE && At(fd).What != Kind::None; }

bool IsAlive(pid_t pid) { return pid <= 0 || !state.Dead.contains(pid); }

void Signal(int number) {
  if (state.Handlers[number]) state.Handlers[number](number);
}

void Violated(const char* format, ...) {
  End();
  std::fputs("VIOLATED: ", stderr);
  std::va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputs("\n", stderr);
  std::abort();
}

}  // namespace world
