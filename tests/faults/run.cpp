#include "tests/faults/run.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "tests/support/client.h"
#include "tests/support/management.h"

namespace faults {
namespace {

constexpr test::Milliseconds kPiece{20};
constexpr test::Milliseconds kAfterFault{5000};  // an answer that is not there by then is lost
constexpr test::Milliseconds kAfterLoss{150};    // or by then, when the agent says that it is
constexpr int kAttempts = 6;                     // a node has to serve within so many

std::vector<pid_t> ChildrenOf(pid_t pid) {
  const std::string id = std::to_string(pid);
  std::ifstream file("/proc/" + id + "/task/" + id + "/children");
  return {std::istream_iterator<pid_t>(file), {}};
}

}  // namespace

SharedControl::SharedControl() {
  const int fd = open(Path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ftruncate(fd, sizeof(Control)) != 0) throw std::runtime_error("no control file");
  void* const memory = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory == MAP_FAILED) throw std::runtime_error("the control file cannot be mapped");
  control_ = static_cast<Control*>(memory);
}

SharedControl::~SharedControl() { munmap(control_, sizeof(Control)); }

void SharedControl::Clear() {
  const std::uint32_t used = std::min(control_->PathCount.load(), kPathsMax);
  for (std::uint32_t i = 0; i < used; ++i) control_->Paths[i].Ready = 0;
  control_->PathCount = 0;
  for (Fault& fault : control_->Faults) {
    fault.Armed = 0;
    fault.Fired = 0;
  }
}

bool App::Open() {
  connection_ = lumo::Connection::Open(agent_.SocketPath(), nullptr, 3000);
  return IsOpen();
}

lumo::Message App::Request(const std::string& node, const std::string& text) {
  lumo::Message request;
  request.TaskName = taskName_;
  request.Node = node;
  request.Strings[0] = text;
  request.SetTrailerTaskName(taskName_);
  request.SetAstInd(++lastTag_);
  unanswered_.insert(lastTag_);
  return request;
}

std::string App::Frame(const lumo::Message& request) {
  return lumo::Encode(request, lumo::Lengths::Client);
}

std::optional<std::string> App::Receive(test::Milliseconds timeout) {
  if (!connection_) return std::nullopt;
  return connection_->ReceiveFrame(static_cast<int>(timeout.count()));
}

std::optional<lumo::Message> App::ReceiveAnswer(std::uint16_t tag, test::Milliseconds timeout,
                                                bool* stray) {
  if (const auto kept = kept_.extract(tag)) return kept.mapped();
  const std::optional<std::string> frame = Receive(timeout);
  const std::optional<lumo::Message> answer = frame ? lumo::Decode(*frame) : std::nullopt;
  if (!answer) return std::nullopt;
  if (unanswered_.erase(answer->AstInd()) == 0) *stray = true;
  if (answer->AstInd() == tag) return answer;
  kept_.emplace(answer->AstInd(), *answer);
  return std::nullopt;
}

Run::Run(const Scenario& scenario, Nodes& nodes, SharedControl& control,
         const std::vector<Site>& sites, const std::string& program)
    : scenario_(scenario), nodes_(nodes), control_(control), sites_(sites) {
  agent_.Program(program)
      .Environment("TAVRIN_TMP", nodes.Directory())
      .Environment(kControlVariable, control.Path())
      .LogLevel("3")
      .Options(scenario.Options)
      .Nodetab(scenario.Table(nodes));
  for (const auto& [name, value] : scenario.Environment) agent_.Environment(name, value);
  if (scenario.ClosedStream >= 0) agent_.ClosedDescriptor(scenario.ClosedStream);
  if (!scenario.BesideAnother) return;
  other_.Program(program)
      .Environment("TAVRIN_TMP", nodes.Directory())
      .ExchangeId(agent_.ExchangeId())
      .Nodetab(scenario.Table(nodes));
}

App Run::NewApp(std::int32_t taskName) {
  App app(agent_, taskName ? taskName : getpid());
  if (!app.Open() && Alive() && !app.Open()) Find("no connection is accepted");
  return app;
}

bool Run::Alive() {
  if (outcome_.Ended) return false;
  if (const std::optional<int> status = agent_.Wait(test::Milliseconds(0))) {
    outcome_.Ended = status;
    return false;
  }
  return true;
}

void Run::Barrier() {
  for (int attempt = 0; attempt < 2 && Alive(); ++attempt) {
    try {
      if (lumo::AskManagement(agent_.Control(), 100, 0, {}, 3000)) return;
    } catch (const std::runtime_error&) {  // no connection
    }
    agent_.CloseControl();  // a fault may have cost this connection
  }
  if (!test::WaitFor([&] { return !Alive(); }, test::Milliseconds(1000)))
    Find("the agent does not answer");
}

void Run::Tick() {
  if (!Alive()) return;
  agent_.Signal(SIGALRM);
  Barrier();
  Barrier();
}

pid_t Run::Reader() const {
  const std::vector<pid_t> children = ChildrenOf(agent_.Pid());
  return children.empty() ? 0 : children.front();
}

bool Run::WaitForProvoked() {
  return test::WaitFor([&] { return control_->Faults[0].Fired || control_->Faults[1].Fired; },
                       test::Milliseconds(3000));
}

bool Run::WaitForPath(Call call, const std::string& function) {
  return test::WaitFor(
      [&] {
        const std::uint32_t count = std::min(control_->PathCount.load(), kPathsMax);
        for (std::uint32_t i = 0; i < count; ++i) {
          const PathRecord& path = control_->Paths[i];
          if (!path.Ready || path.Call != static_cast<std::uint32_t>(call)) continue;
          for (const Site& site : sites_) {
            if (site.Return == path.Path.Frames[0] && site.At.Function == function) return true;
          }
        }
        return false;
      },
      test::Milliseconds(3000));
}

void Run::ExpectNoMore(App& app) {
  if (app.IsOpen() && app.Receive(test::Milliseconds(0))) Find("an answer that nobody asked for");
}

void Run::Provoke(Call call, const std::string& function, int error) {
  int slot = 0;
  while (slot < kTested && control_->Faults[slot].Armed) ++slot;
  if (slot == kTested) throw std::runtime_error("too much is provoked");
  Fault& fault = control_->Faults[slot];
  fault.Fired = 0;
  fault.Skip = 0;
  fault.Call = static_cast<std::uint32_t>(call);
  fault.Variants = 0;
  fault.Error = error;
  fault.Perform = 0;
  for (const Site& site : sites_) {
    if (site.Kind == call && site.At.Function == function && fault.Variants < kVariants)
      fault.Paths[fault.Variants++] = {.Depth = 1, .Frames = {site.Return}};
  }
  if (fault.Variants == 0) throw std::runtime_error("there is no such call in " + function);
  fault.Armed = 1;
}

lumo::Message Run::Send(App& app, const std::string& node, const std::string& text) {
  if (!app.IsOpen()) app.Open();
  const lumo::Message request = app.Request(node, text);
  app.Send(request);
  return request;
}

// The agent has said that an answer did not go out.
bool Run::AnswerWasLost() const {
  for (const char* const text :
       {"Send to client fail", "The message wasn't send to client", "PutMsgToClient failed",
        "AddClientPidIntoList failed", "Skip the message"}) {
    if (agent_.LogContains(text)) return true;
  }
  return false;
}

// Looks in short pieces, so that the end of the agent and an answer that was lost are noticed.
std::string Run::Receive(App& app, const lumo::Message& request, const std::string& text) {
  const auto deadline = test::Clock::now() + test::kPatience;
  std::optional<test::Clock::time_point> fired;
  while (test::Clock::now() < deadline) {
    bool stray = false;
    const auto answer = app.ReceiveAnswer(request.AstInd(), kPiece, &stray);
    if (stray) Find("an answer that no request waits for");
    if (answer) {
      if (answer->CodErr != 0)
        return std::to_string(answer->CodErr) + "/" + std::to_string(answer->SysErr);
      const bool right =
          text == "large" ? answer->Strings[0].size() == kLargeAnswer : answer->Strings[0] == text;
      if (!right) Find("a wrong answer");
      return "right";
    }
    if (!Alive()) return "end";
    if (!app.IsOpen()) return "closed";
    if (!fired && control_->Faults[kTested].Fired) fired = test::Clock::now();
    if (fired && test::Clock::now() - *fired > (AnswerWasLost() ? kAfterLoss : kAfterFault))
      return "nothing";
  }
  if (!control_->Faults[kTested].Fired) Find("no answer without a fault");
  return "nothing";
}

void Run::Expect(App& app, const lumo::Message& request, const std::string& text,
                 const std::string& label) {
  Tell(label, Receive(app, request, text));
}

bool Run::Ask(App& app, const std::string& node, const std::string& text,
              const std::string& label) {
  if (!Alive()) return false;
  const std::string shown = label.empty() ? (node.empty() ? "default" : node) : label;
  Expect(app, Send(app, node, text), text, shown);
  return Alive();
}

void Run::Manage(App& app, std::uint16_t command, const std::string& argument,
                 const std::string& label) {
  if (!Alive()) return;
  if (!app.IsOpen()) app.Open();
  lumo::Message request = lumo::ManagementRequest(command, 0, argument);
  request.SetAstInd(app.Request({}, {}).AstInd());
  app.Send(request);
  const auto deadline = test::Clock::now() + test::kPatience;
  while (app.IsOpen() && Alive() && test::Clock::now() < deadline) {
    const std::optional<std::string> frame = app.Receive(kPiece);
    const auto answer = frame ? lumo::DecodeManagementAnswer(*frame) : std::nullopt;
    if (answer) return Tell(label, "result " + std::to_string(answer->Result));
    if (control_->Faults[kTested].Fired &&
        test::Clock::now() > deadline - test::kPatience + kAfterFault)
      break;
  }
  Tell(label, app.IsOpen() ? "nothing" : "closed");
}

bool Run::AgentAnswers() {
  try {
    agent_.Control();
  } catch (const std::runtime_error&) {
    return false;
  }
  return scenario_.Kind == Scenario::Foreground || agent_.WaitUntilReady();
}

// Started when the loop serves; false: the agent has ended, or no agent came of the command. A
// daemon that has ended is a child of ours, as its parent has gone.
bool Run::Start() {
  if (scenario_.Kind == Scenario::Foreground) agent_.Option("-NODAEMON");
  agent_.Spawn();
  if (scenario_.Kind == Scenario::ByItself) {
    outcome_.Ended = agent_.Wait();
    if (!outcome_.Ended) Find("the run does not end");
    return false;
  }
  if (scenario_.Kind == Scenario::Daemon && agent_.Wait() != 0)
    Find("the starting command does not end with 0");
  bool serves = false;
  const bool decided = test::WaitFor([&] {
    serves = AgentAnswers();
    if (serves || scenario_.Kind == Scenario::Foreground) return serves || !Alive();
    pid_t ended;
    while ((ended = waitpid(-1, nullptr, WNOHANG)) > 0) continue;
    if (ended < 0) outcome_.Ended = kNoAgent;
    return ended < 0;
  });
  if (!decided) Find("the agent does not start");
  return serves;
}

bool Run::Serves(const std::string& node) {
  App app(agent_, getpid());
  if (!app.Open()) return false;
  const lumo::Message request = app.Request(node, "still there?");
  return app.Send(request) && Receive(app, request, "still there?") == "right";
}

void Run::Recover() {
  nodes_.Resume();
  for (const std::string& node : scenario_.Served) {
    for (int attempt = 0; Alive(); ++attempt) {
      if (Serves(node)) {
        outcome_.Attempts = std::max(outcome_.Attempts, attempt);
        break;
      }
      if (attempt == kAttempts) {
        outcome_.Unserved += (outcome_.Unserved.empty() ? "" : " ") + node;
        break;
      }
      Tick();
    }
  }
}

// Clients that have gone are noticed in the next passes of the loop.
void Run::LookAtRest() {
  Tick();
  const pid_t pid = agent_.Pid();
  outcome_.Descriptors = test::OpenDescriptors(pid);
  outcome_.Children = static_cast<int>(ChildrenOf(pid).size());
}

void Run::Finish() {
  if (!outcome_.Ended && agent_.Running()) {
    agent_.Signal(SIGTERM);
    const std::optional<int> status = agent_.Wait();
    if (!status) {
      Find("the agent does not stop");
      agent_.Kill();
    } else if (*status != 0) {
      Find("the agent stops with " + std::to_string(*status));
    }
  } else if (!outcome_.Ended) {
    Find("the agent died: " + agent_.Log());
  }
  agent_.CloseControl();
  outcome_.Log = agent_.Log() + agent_.Stdout();
  for (const char* mark : {"AddressSanitizer", "runtime error:", "LeakSanitizer"}) {
    const std::size_t at = outcome_.Log.find(mark);
    if (at != std::string::npos) Find("a sanitizer reports: " + outcome_.Log.substr(at, 1500));
  }
  outcome_.Fired = control_->Faults[kTested].Fired != 0;
}

Outcome Run::Execute() {
  if (scenario_.BesideAnother && !other_.Start()) Find("the other agent does not start");
  if (Start()) {
    scenario_.Body(*this);
    if (Alive()) Recover();
    if (Alive()) LookAtRest();
  } else if (scenario_.Kind == Scenario::ByItself) {
    scenario_.Body(*this);
  }
  Finish();
  return outcome_;
}

}  // namespace faults
