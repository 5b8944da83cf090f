// One run of the agent through a scenario, undisturbed or with one fault.
#pragma once
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/faults/control.h"
#include "tests/faults/nodes.h"
#include "tests/faults/sites.h"
#include "tests/support/agent.h"
#include "tests/support/connection.h"

namespace faults {

// The memory that is shared with the agents, one after the other.
class SharedControl {
 public:
  SharedControl();
  ~SharedControl();
  SharedControl(const SharedControl&) = delete;
  SharedControl& operator=(const SharedControl&) = delete;
  Control* operator->() const { return control_; }
  void Clear();
  std::string Path() const { return folder_.Path() / "control"; }

 private:
  test::TemporaryDirectory folder_;
  Control* control_ = nullptr;
};

// A client application; opened again when the agent closes its connection.
class App {
 public:
  App(const test::Agent& agent, std::int32_t taskName) : agent_(agent), taskName_(taskName) {}
  bool Open();  // false: the agent did not keep the connection
  bool IsOpen() const { return connection_ && !connection_->Lost(); }
  lumo::Message Request(const std::string& node, const std::string& text);
  bool Send(const lumo::Message& request) { return SendBytes(Frame(request)); }
  bool SendBytes(std::string_view bytes) { return IsOpen() && connection_->SendFrame(bytes); }
  static std::string Frame(const lumo::Message& request);
  std::optional<std::string> Receive(test::Milliseconds timeout);
  // The answer to this request, also when others come before it: those are kept. Stray: one came to
  // which there is no request, or a second one.
  std::optional<lumo::Message> ReceiveAnswer(std::uint16_t tag, test::Milliseconds timeout,
                                             bool* stray);
  void Close() { connection_.reset(); }

 private:
  const test::Agent& agent_;
  std::int32_t taskName_;
  std::uint16_t lastTag_ = 0;
  std::set<std::uint16_t> unanswered_;
  std::map<std::uint16_t, lumo::Message> kept_;
  std::optional<lumo::Connection> connection_;
};

// What is told of a run, in order: "label=what came".
struct Seen {
  std::string Label, What;
  bool operator==(const Seen&) const = default;
};

constexpr int kNoAgent = -1;  // in place of an exit status: the command left none behind

struct Outcome {
  std::vector<Seen> Events;
  std::optional<int> Ended;  // the agent ended by itself, with this status
  int Descriptors = 0, Children = 0;
  std::string Unserved;       // nodes that do not serve in the end
  std::string Log, Findings;  // findings: what must not be, whatever was disturbed
  bool Fired = false;
  int Attempts = 0;  // until every node served again, beyond the first
};

struct Scenario;

class Run {
 public:
  Run(const Scenario& scenario, Nodes& nodes, SharedControl& control,
      const std::vector<Site>& sites, const std::string& program);

  Outcome Execute();  // the faults that are armed already hit it

  // For scenarios
  Nodes& Database() { return nodes_; }
  test::Agent& Subject() { return agent_; }
  test::Agent& Other() { return other_; }
  App NewApp(std::int32_t taskName = 0);
  // Sends, and tells what comes: "right", "code/errno", "closed" or "nothing". False: the agent has
  // ended.
  bool Ask(App& app, const std::string& node, const std::string& text,
           const std::string& label = {});
  lumo::Message Send(App& app, const std::string& node, const std::string& text);
  void Expect(App& app, const lumo::Message& request, const std::string& text,
              const std::string& label);
  void Manage(App& app, std::uint16_t command, const std::string& argument,
              const std::string& label);
  void Tell(const std::string& label, const std::string& what) {
    outcome_.Events.push_back({label, what});
  }
  bool Alive();  // the agent runs and answers; else how it ended is noted
  void Tick();
  void Barrier();
  bool WaitForPath(Call call, const std::string& function);
  // A client that has all its answers must get no other.
  void ExpectNoMore(App& app);
  // Lets the next such call fail, so that what follows a failure is passed.
  void Provoke(Call call, const std::string& function, int error);
  bool WaitForProvoked();
  pid_t Reader() const;  // the agent's child, or 0

 private:
  bool Start();
  bool AgentAnswers();
  bool AnswerWasLost() const;
  void Recover();
  bool Serves(const std::string& node);
  void LookAtRest();
  void Finish();
  std::string Receive(App& app, const lumo::Message& request, const std::string& text);
  void Find(const std::string& what) { outcome_.Findings += what + "; "; }

  const Scenario& scenario_;
  Nodes& nodes_;
  SharedControl& control_;
  const std::vector<Site>& sites_;
  test::Agent agent_, other_;
  Outcome outcome_;
};

struct Scenario {
  std::string Name;
  std::vector<std::string> Options;
  std::string (*Table)(const Nodes& nodes);
  enum { Foreground, Daemon, ByItself } Kind;
  std::vector<std::string> Served;  // nodes that must serve in the end
  void (*Body)(Run& run);
  bool BesideAnother = false;  // an undisturbed agent serves the same exchange id
  int ClosedStream = -1;       // a standard stream that the caller had closed
  std::vector<std::pair<std::string, std::string>> Environment = {};
};

const std::vector<Scenario>& Scenarios();

}  // namespace faults
