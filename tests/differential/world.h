// One run of a scenario: the agent at a log level, with its clients, nodes and kernels. What each
// of them gets is written down, step by step.
#pragma once
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/differential/scenario.h"
#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/kernel.h"
#include "tests/support/node.h"
#include "tests/support/process.h"

namespace differential {

using Course = std::vector<std::string>;  // who got what, in order

struct Settings {
  std::string Program = LUMO_TCP_UNTIMED_PATH;
  bool IgnoreLinkNumbers = false;  // of the descriptor that each request carries to its node
  bool Careful = false;            // make sure after each step that nothing is on its way
};
extern Settings settings;

Course Run(const Scenario& scenario, const std::string& level);

class World {
 public:
  World(const Scenario& scenario, const std::string& level);
  Course Play();

 private:
  struct Application {
    Application(const test::Agent& agent, std::int32_t task) : Connection(agent, task) {}
    test::Client Connection;
    int Asked = 0, Answered = 0;
    bool Over = false;
    std::string Rest;  // of a request that was sent by half
  };
  struct Server {  // the far end of a link
    std::string Name;
    std::unique_ptr<test::Node> Node;           // on TCP
    std::unique_ptr<test::LocalKernel> Kernel;  // or beside the agent
    std::optional<test::Peer> Link;             // the connection there is
    std::deque<lumo::Message> Pending;
    std::string Rest;  // of an answer that was sent by half
    bool Stalled = false, Listening = true;
    bool Mute = false, Ended = false;  // it sends no more; its connection is over
    int Links = 0;
  };

  bool Start();
  void Apply(const Event& event);
  void ApplyToClient(const Event& event);
  void ApplyToServer(const Event& event);
  void Connect(unsigned count);
  void Send(Application& client, const std::string& bytes);
  void Ask(Application& client, const Event& event);
  void Manage(Application& client, const Event& event);
  void Answer(Server& server, test::Peer& link, const Event& event);
  void SetListening(Server& server, bool on);
  static test::Peer* LinkOf(Server& server);
  void BeginLink(Server& server);
  bool CollectInBetween();
  void EndStep();
  void PlayStep(const std::vector<Event>& step);
  void AnswerFromQueue();
  void Settle();
  bool Settled();
  bool AcceptLinks();
  void Collect(test::Milliseconds patience);
  void CollectFrom(Server& server);
  void CollectFrom(Server& server, test::Peer& link);
  void CollectFrom(Application& client, const std::string& who, test::Milliseconds patience);
  void CollectFromQueue();
  void Note(const std::string& who, const std::string& what);
  void HideIds(std::string& frame) const;
  std::string Shown(std::string frame) const;
  std::int32_t TaskOf(unsigned client) const;

  const Scenario& scenario_;
  test::Agent agent_;
  std::vector<Server> servers_;
  std::optional<test::IpcKernel> queue_;
  std::deque<test::IpcKernel::Request> queued_;
  pid_t reader_ = 0;
  std::deque<Application> clients_;
  test::LivingProcess process_;
  const pid_t task_ = process_.Pid();  // also when it has died
  std::size_t step_ = 0;
  std::map<std::string, std::vector<std::string>> notes_;  // of the step
  Course course_;
};

}  // namespace differential
