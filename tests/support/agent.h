// A running agent with a directory, an exchange id, a node table and a log of its own.
//
// A test looks like this:
//
//   TEST_F(AgentTest, ARequestReachesItsNodeAndTheAnswerItsClient) {  // agent_test.h: agent_
//     test::Node node;                                   // a stand-in server on a port of its own
//     test::Client client = StartWithClient(node.Line("SRV1"));  // when the agent's loop serves
//     const lumo::Message request = client.Send("SRV1", "select 1");
//     const lumo::Message received = node.ExpectFirstRequest();
//     EXPECT_EQ(received.Strings[0], "select 1");
//     node.Answer(received, "one row");
//     EXPECT_EQ(client.ExpectAnswer(request).Strings[0], "one row");
//   }
//
// * agent.Tick() is one tick of the 2-second timer, carried out when it returns, and nothing else:
// it
//   asks nothing of the agent. A real tick comes when 2 seconds have passed since the last one, so
//   that a quick sequence of Tick() is exact.
// * agent.Barrier() returns when the agent has served everything that had come before.
// * agent.Trace() switches the call trace on; agent.Logged(level, module, text) looks for a line.
// * A local kernel greets inside the agent's connect: with -CONNECTONLOAD and such a node use
//   Spawn(), kernel.Accept(), WaitUntilReady() in place of Start().
// * A run that ends by itself (help, ping, a failing start) is Run(), or Spawn() and Wait().
// * agent.InOnePass([&] { ... }) stops the agent in its wait while events come, so that one pass of
//   its loop finds them together.
// * TEST_LOG_LEVEL, in the environment of the tests, is the DBC_LOG of every agent whose test does
//   not ask for a level of its own; ctest runs the tests at 0 and at 15. With LUMO_STOP_AGENTS
//   agents are stopped in order at the end of their test: who is killed tells nothing any more.
//   LivingProcess and DeadPid() are task names of other processes; text.h looks at texts.
// * The destructor ends the agent and removes the directory. A sanitizer's report in the log fails
//   the test.
#pragma once
#include <sys/resource.h>
#include <sys/types.h>

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/connection.h"
#include "tests/support/process.h"
#include "tests/support/wait.h"

namespace test {

// An empty directory, removed with everything in it by the destructor.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

std::string ReadFile(const std::filesystem::path& path);  // empty when there is none
void WriteFile(const std::filesystem::path& path, const std::string& text);

// The agent's program, from LUMO_TCP or from the build.
std::string AgentProgram();

struct LogLine {
  int Level = 0;  // 0 stands for 0 and 1: their lines carry no header
  std::string Module;
  int Line = 0;
  long Clock = 0;
  std::string Text;
};

class Agent {
 public:
  Agent();
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Before the start. Without a call there is a table with one node that cannot be reached.
  Agent& Nodetab(const std::string& text);
  Agent& WithoutNodetab();  // neither the option nor a file
  Agent& Option(const std::string& argument) { return Options({argument}); }
  Agent& Options(const std::vector<std::string>& arguments);
  Agent& Program(const std::string& path);  // argv[0] and what is run
  Agent& Environment(const std::string& name, const std::string& value);
  Agent& Without(const std::string& name);  // not in the environment
  Agent& LogLevel(const std::string& value) { return Environment("DBC_LOG", value); }
  Agent& Trace() { return LogLevel("15"); }
  Agent& ExchangeId(int id);       // in place of a random one
  Agent& WithoutExchangeOption();  // no -M: the test sets NET_MBX or nothing
  Agent& UnderOwnParent();         // the agent's parent is a process of its own; see KillParent
  Agent& LogInto(int descriptor);  // in place of the file that Log() reads
  Agent& Limit(__rlimit_resource resource, rlim_t value);
  Agent& Blocking(int signal);          // the caller had blocked the signal
  Agent& ClosedDescriptor(int number);  // the caller had closed a standard stream
  Agent& WorkingDirectory(const std::filesystem::path& path);

  // Foreground: adds -NODAEMON and waits until the agent answers. A failure fails the test.
  bool Start();
  // Background: runs the command, waits until it returns 0, and finds the agent.
  bool StartDaemon();
  // The two halves of Start; Spawn adds no option. WaitUntilReady opens the control connection,
  // which stays open until the end and serves Barrier.
  void Spawn();
  bool WaitUntilReady(Milliseconds timeout = kPatience);
  // Waits for the process that was started: its exit status, or minus the signal that ended it.
  std::optional<int> Wait(Milliseconds timeout = kPatience);
  // Spawn and Wait; the test fails when the run does not end.
  int Run();

  pid_t Pid() const { return pid_; }
  void Barrier();
  void Tick();
  void Ticks(int count);
  void Signal(int signal) const;
  // What the events bring is found by one pass of the agent's loop. What came before must have been
  // served: answered, or followed by a barrier. What a node sends is there as soon as it Arrived().
  template <class Events>
  void InOnePass(Events events) {
    FreezeInWait(pid_);
    events();
    Thaw(pid_);
  }
  // SIGTERM, and the exit status of the agent; a daemon's too.
  int Stop(int signal = 15);
  // The same when what has been closed by the test is closed by the agent, too.
  std::optional<int> StopGently();
  void Kill();        // SIGKILL, and waits
  void KillParent();  // with UnderOwnParent
  bool Running() const;

  // The control connection, for management commands.
  lumo::Connection& Control();
  void CloseControl() { control_.reset(); }

  std::string Log() const { return ReadFile(LogPath()); }
  std::string Results() const;  // what level 0 tells, whatever else is told beside
  std::string Stdout() const { return ReadFile(folder_.Path() / "stdout"); }
  std::vector<LogLine> LogLines() const;
  // Lines of a level whose text is exactly this; the module may be empty: any.
  int CountLogged(int level, const std::string& module, const std::string& text) const;
  bool Logged(int level, const std::string& module, const std::string& text) const {
    return CountLogged(level, module, text) > 0;
  }
  bool LogContains(const std::string& text) const { return Log().find(text) != std::string::npos; }
  bool WaitForLog(const std::string& text, Milliseconds timeout = kPatience) const;

  const std::filesystem::path& Folder() const { return folder_.Path(); }
  std::filesystem::path NodetabPath() const { return folder_.Path() / "nodetab"; }
  std::filesystem::path LogPath() const { return folder_.Path() / "log"; }
  std::filesystem::path SocketFolder() const;  // TAVRIN_TMP as this agent understands it
  // The socket of this agent, or of a local kernel with an exchange number in the same directory.
  std::string SocketPath() const { return SocketPath(exchangeId_); }
  std::string SocketPath(int exchangeId) const;
  int ExchangeId() const { return exchangeId_; }

 private:
  struct CommandLine;
  [[noreturn]] void Execute(const CommandLine& command) const;
  std::map<std::string, std::string> FullEnvironment() const;
  bool OpenControl();
  void ReportSanitizer();

  TemporaryDirectory folder_;
  std::vector<std::string> options_;
  std::map<std::string, std::string> environment_;
  std::vector<std::pair<__rlimit_resource, rlim_t>> limits_;
  std::set<int> blocked_, closed_;
  std::filesystem::path workingDirectory_;
  std::string program_;
  int exchangeId_, logDescriptor_ = -1;
  bool passNodetab_ = true, passExchangeId_ = true, ownParent_ = false, sanitizerReported_ = false;
  pid_t child_ = -1;   // started by us, not reaped yet
  pid_t pid_ = -1;     // of the agent, as soon as it is known
  pid_t parent_ = -1;  // of the agent, with ownParent_
  std::optional<lumo::Connection> control_;
};

}  // namespace test
