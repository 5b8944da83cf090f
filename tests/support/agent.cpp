#include "tests/support/agent.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

#include "tests/support/client.h"
#include "tests/support/management.h"
#include "tests/support/text.h"

namespace test {
namespace {

int RandomExchangeId() {
  std::random_device random;
  return std::uniform_int_distribution<int>(10000, 999999)(random);
}

// The exit status, or minus the signal; nothing when the process lives on.
std::optional<int> ReapNow(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, WNOHANG) != pid) return std::nullopt;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::optional<int> ReapWithin(pid_t pid, Milliseconds timeout) {
  std::optional<int> status;
  WaitFor([&] { return (status = ReapNow(pid)).has_value(); }, timeout);
  return status;
}

// The process that listens on a socket; -1: none. Finds a daemon that a failed test has not met.
pid_t ListenerOf(const std::string& path) {
  const int fd = ConnectRaw(path);
  ucred peer{};
  socklen_t size = sizeof peer;
  const bool found = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
  if (fd >= 0) close(fd);
  return found && peer.pid != getpid() ? peer.pid : -1;
}

void RedirectTo(const char* path, int descriptor) {
  const int file = open(path, O_WRONLY | O_CREAT | O_APPEND, 0600);
  dup2(file, descriptor);
  close(file);
}

std::optional<LogLine> ParseLogLine(const std::string& line) {
  static const std::string kPrefix = "lumo_tcp:";
  if (line.rfind(kPrefix, 0) != 0) return std::nullopt;
  LogLine parsed;
  char module[64] = "";
  int length = 0;
  if (std::sscanf(line.c_str(), "lumo_tcp:[%d] %63[^:]:%d %ld|%n", &parsed.Level, module,
                  &parsed.Line, &parsed.Clock, &length) == 4 &&
      length > 0) {
    parsed.Module = module;
    parsed.Module.erase(0, parsed.Module.find_first_not_of(' '));
    parsed.Text = line.substr(static_cast<std::size_t>(length));
  } else {
    parsed = LogLine{};
    parsed.Text = line.substr(kPrefix.size());
  }
  return parsed;
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
  std::string name = std::filesystem::temp_directory_path() / "lumo-XXXXXX";
  if (!mkdtemp(name.data())) throw std::runtime_error("no temporary directory can be made");
  path_ = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void WriteFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string AgentProgram() {
  const char* const path = std::getenv("LUMO_TCP");
#ifdef LUMO_TCP_PATH
  return path ? path : LUMO_TCP_PATH;
#else
  return path ? path : "lumo_tcp";
#endif
}

// Everything that the new process needs, put together before the fork.
struct Agent::CommandLine {
  std::vector<std::string> Arguments, Environment;
  std::vector<char*> Argv, Envp;

  void Finish() {
    for (std::string& text : Arguments) Argv.push_back(text.data());
    for (std::string& text : Environment) Envp.push_back(text.data());
    Argv.push_back(nullptr);
    Envp.push_back(nullptr);
  }
};

Agent::Agent() : program_(AgentProgram()), exchangeId_(RandomExchangeId()) {
  AdoptOrphans();
  for (const char* folder : {"tmp", "home", "work"})
    std::filesystem::create_directory(folder_.Path() / folder);
  workingDirectory_ = folder_.Path() / "work";
  environment_["TAVRIN_TMP"] = folder_.Path() / "tmp";
  environment_["HOME"] = folder_.Path() / "home";
  environment_["PATH"] = folder_.Path() / "home";
  if (const char* const level = std::getenv("TEST_LOG_LEVEL")) LogLevel(level);
  Nodetab("NOWHERE REZ\n");
}

Agent::~Agent() {
  if (pid_ <= 0 && SocketFolder() == folder_.Path() / "tmp") pid_ = ListenerOf(SocketPath());
  if (Running() && std::getenv("LUMO_STOP_AGENTS")) StopGently();
  if (Running()) Kill();
  CloseControl();
  KillParent();
  ReportSanitizer();
}

// What has been closed is served before: it must not be open any more.
std::optional<int> Agent::StopGently() {
  Thaw(pid_);
  for (int trip = 0; trip < 2 && control_; ++trip) lumo::AskManagement(*control_, 100, 0, {}, 1000);
  kill(pid_, SIGTERM);
  KillParent();  // its children become ours
  const std::optional<int> status = ReapWithin(pid_, kPatience);
  if (status) child_ = pid_ = -1;
  return status;
}

Agent& Agent::Nodetab(const std::string& text) {
  WriteFile(NodetabPath(), text);
  return *this;
}

Agent& Agent::WithoutNodetab() {
  std::filesystem::remove(NodetabPath());
  passNodetab_ = false;
  return *this;
}

Agent& Agent::Options(const std::vector<std::string>& arguments) {
  options_.insert(options_.end(), arguments.begin(), arguments.end());
  return *this;
}

Agent& Agent::Program(const std::string& path) {
  program_ = path;
  return *this;
}

Agent& Agent::Environment(const std::string& name, const std::string& value) {
  environment_[name] = value;
  return *this;
}

Agent& Agent::Without(const std::string& name) {
  environment_.erase(name);
  return *this;
}

Agent& Agent::ExchangeId(int id) {
  exchangeId_ = id;
  return *this;
}

Agent& Agent::WithoutExchangeOption() {
  passExchangeId_ = false;
  return *this;
}

Agent& Agent::UnderOwnParent() {
  ownParent_ = true;
  return *this;
}

Agent& Agent::Limit(__rlimit_resource resource, rlim_t value) {
  limits_.emplace_back(resource, value);
  return *this;
}

Agent& Agent::LogInto(int descriptor) {
  logDescriptor_ = descriptor;
  return *this;
}

Agent& Agent::Blocking(int signal) {
  blocked_.insert(signal);
  return *this;
}

Agent& Agent::ClosedDescriptor(int number) {
  closed_.insert(number);
  return *this;
}

Agent& Agent::WorkingDirectory(const std::filesystem::path& path) {
  workingDirectory_ = path;
  return *this;
}

// A small environment of our own: the machine's must not change a test. Only what steers a
// sanitizer, a coverage run or a mutant is handed on.
std::map<std::string, std::string> Agent::FullEnvironment() const {
  std::map<std::string, std::string> full = environment_;
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "GCOV_PREFIX",
                           "GCOV_PREFIX_STRIP", "LLVM_PROFILE_FILE", "LUMO_MUTANTS"}) {
    if (const char* const value = std::getenv(name)) full[name] = value;
  }
  return full;
}

void Agent::Execute(const CommandLine& command) const {
  sigset_t mask;
  sigemptyset(&mask);
  for (const int signal : blocked_) sigaddset(&mask, signal);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  setpgid(0, 0);  // what an agent in error sends to its group does not reach the tests
  if (chdir(workingDirectory_.c_str()) != 0) _exit(126);
  const int null = open("/dev/null", O_RDONLY);
  dup2(null, 0);
  close(null);
  RedirectTo((folder_.Path() / "stdout").c_str(), 1);
  if (logDescriptor_ < 0)
    RedirectTo(LogPath().c_str(), 2);
  else
    dup2(logDescriptor_, 2);
  for (const int descriptor : closed_) close(descriptor);
  // What the test itself was started with counts against a limit, for the program loader too.
  if (!limits_.empty()) close_range(3, ~0U, 0);
  for (const auto& [resource, value] : limits_) {
    const rlimit limit{value, value};
    setrlimit(resource, &limit);
  }
  execve(program_.c_str(), command.Argv.data(), command.Envp.data());
  _exit(127);
}

void Agent::Spawn() {
  CommandLine command;
  command.Arguments = {program_};
  if (passExchangeId_) {
    command.Arguments.insert(command.Arguments.end(), {"-M", std::to_string(exchangeId_)});
  }
  if (passNodetab_) command.Arguments.insert(command.Arguments.end(), {"-NODETAB", NodetabPath()});
  command.Arguments.insert(command.Arguments.end(), options_.begin(), options_.end());
  for (const auto& [name, value] : FullEnvironment())
    command.Environment.push_back(name + "=" + value);
  command.Finish();

  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (ownParent_ && fork() != 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) pause();
    }
    if (!ownParent_) prctl(PR_SET_PDEATHSIG, SIGKILL);
    Execute(command);
  }
  (ownParent_ ? parent_ : child_) = child;
  pid_ = child_;
}

bool Agent::OpenControl() {
  control_ = lumo::Connection::Open(SocketPath(), nullptr, static_cast<int>(kPatience.count()));
  if (control_) pid_ = control_->AgentPid();
  return control_.has_value();
}

bool Agent::WaitUntilReady(Milliseconds timeout) {
  std::optional<int> ended;
  const bool done = WaitFor(
      [&] {
        if (OpenControl()) return true;
        if (child_ > 0) ended = ReapNow(child_);
        return ended.has_value();
      },
      timeout);
  if (ended) child_ = pid_ = -1;
  if (done && !ended) {
    if (child_ < 0) child_ = pid_;
    return true;
  }
  ADD_FAILURE() << "the agent does not answer"
                << (ended ? "; it ended with " + std::to_string(*ended) : "") << "\n"
                << Stdout() << Log();
  return false;
}

bool Agent::Start() {
  options_.insert(options_.begin(), "-NODAEMON");  // the last one may lack its value
  Spawn();
  return WaitUntilReady();
}

bool Agent::StartDaemon() {
  Spawn();
  const std::optional<int> status = Wait();
  if (status != 0) {
    ADD_FAILURE() << "the starting command returned " << status.value_or(-1) << "\n" << Log();
    return false;
  }
  if (!OpenControl()) {
    ADD_FAILURE() << "no agent answers after the start\n" << Stdout() << Log();
    return false;
  }
  child_ = pid_;
  return true;
}

std::optional<int> Agent::Wait(Milliseconds timeout) {
  const std::optional<int> status = ReapWithin(child_, timeout);
  if (status) child_ = pid_ = -1;
  return status;
}

int Agent::Run() {
  Spawn();
  const std::optional<int> status = Wait();
  if (status) {
    ReportSanitizer();
    return *status;
  }
  ADD_FAILURE() << "the run does not end\n" << Stdout() << Log();
  Kill();
  return -1000;
}

lumo::Connection& Agent::Control() {
  if (!control_ && !OpenControl()) throw std::runtime_error("no agent answers");
  return *control_;
}

// Two round trips: the first may be served in a pass that had begun before the events in question,
// the second not.
void Agent::Barrier() {
  const int patience = static_cast<int>(kPatience.count());
  for (int trip = 0; trip < 2; ++trip) {
    if (lumo::AskManagement(Control(), 100, 0, {}, patience)) continue;
    ADD_FAILURE() << "the agent does not answer any more\n" << Log();
    return;
  }
}

// A barrier's requests would make further passes of the loop, and carry out what the tick forgot.
void Agent::Tick() {
  Signal(SIGALRM);
  if (WaitFor([&] { return RestsAfter(pid_, SIGALRM) || !Running(); }) && Running()) return;
  ADD_FAILURE() << "the agent does not come to rest after a tick\n" << Log();
}

void Agent::Ticks(int count) {
  for (int tick = 0; tick < count && !testing::Test::HasFailure(); ++tick) Tick();
}

void Agent::Signal(int signal) const {
  ASSERT_GT(pid_, 0);
  kill(pid_, signal);
}

int Agent::Stop(int signal) {
  if (pid_ <= 0) {
    ADD_FAILURE() << "no agent runs";
    return -1000;
  }
  Signal(signal);
  KillParent();  // its children become ours
  const std::optional<int> status = Wait();
  CloseControl();
  if (!status) {
    ADD_FAILURE() << "the agent does not stop\n" << Log();
    Kill();
    return -1000;
  }
  ReportSanitizer();
  return *status;
}

void Agent::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  KillParent();
  ReapWithin(pid_, kPatience);
  child_ = pid_ = -1;
}

void Agent::KillParent() {
  if (parent_ <= 0) return;
  kill(parent_, SIGKILL);
  ReapWithin(parent_, kPatience);
  parent_ = -1;
}

bool Agent::Running() const { return ProcessRuns(pid_); }

void Agent::ReportSanitizer() {
  if (sanitizerReported_) return;
  for (const char* mark : {"ERROR: AddressSanitizer", "runtime error:", "LeakSanitizer"}) {
    if (!LogContains(mark)) continue;
    sanitizerReported_ = true;
    ADD_FAILURE() << "a sanitizer reports:\n" << Log();
    return;
  }
}

std::vector<LogLine> Agent::LogLines() const {
  std::vector<LogLine> lines;
  std::istringstream text(Log());
  for (std::string line; std::getline(text, line);) {
    if (const std::optional<LogLine> parsed = ParseLogLine(line)) lines.push_back(*parsed);
  }
  return lines;
}

// Lines of the levels 0 and 1 have no header. A text may have several lines.
std::string Agent::Results() const {
  static const char kOthers[] =
      "lumo_tcp:(\\[.*|(Set link|New default link|Try connect link|Disconnect link) .*"
      "|Full connect circle .*|Link [^ ]+ +connected)";
  std::string results;
  bool told = false;
  std::istringstream text(Log());
  for (std::string line; std::getline(text, line);) {
    if (line.rfind("lumo_tcp:", 0) == 0) told = !Matches(line, kOthers);
    if (told) results += line + "\n";
  }
  return results;
}

int Agent::CountLogged(int level, const std::string& module, const std::string& text) const {
  int count = 0;
  for (const LogLine& line : LogLines()) {
    const int shown = level == 1 ? 0 : level;
    if (line.Level == shown && (module.empty() || line.Module == module) && line.Text == text)
      ++count;
  }
  return count;
}

bool Agent::WaitForLog(const std::string& text, Milliseconds timeout) const {
  return WaitFor([&] { return LogContains(text); }, timeout);
}

std::filesystem::path Agent::SocketFolder() const {
  const auto set = environment_.find("TAVRIN_TMP");
  if (set == environment_.end() || set->second.size() + 28 >= 256) return "/tmp/tavrin";
  return set->second;
}

std::string Agent::SocketPath(int exchangeId) const {
  return SocketFolder() / ("tavrin." + std::to_string(exchangeId));
}

}  // namespace test
