// A run: an agent of its own, nodes and clients that misbehave, and the account of it all.
#pragma once
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/endurance/client.h"
#include "tests/endurance/node.h"
#include "tests/endurance/watch.h"
#include "tests/support/agent.h"
#include "tests/support/process.h"

namespace endurance {

class QueueNode;

struct Options {
  std::vector<std::string> Transports;
  std::uint64_t Requests = 0;  // 0: no end but the time
  double Seconds = 0;          // 0: no end but the requests
  double WarmUp = 0;           // seconds
  double Rate = 0;             // requests a second; 0: as many as possible
  double MemoryPercent = 0;    // that may come after the warm-up; 0: not checked
  std::uint64_t Seed = 0;
  int Clients = 48, Tasks = 8, BreakAfter = 1500, TickMs = 100;
  std::uint64_t Round = 40000;  // requests between two times of rest
  double RoundSeconds = 20;
  bool Table = false;
  std::uint64_t LieAt = 0;   // from this request on a node gives answers wrong names
  std::uint64_t SwapAt = 0;  // from this request on answers of a shared name change places
  int SharedPercent = 30;    // of the requests to a queue
};

class World {
 public:
  explicit World(const Options& options);
  ~World();

  // Throws Failure at the first thing that is not as it must be.
  void Run();
  void Report() const;

 private:
  void MakeNodes();
  void AddNode(std::unique_ptr<Node> node);
  NodeSetting SettingFor(const std::string& name);
  void StartAgent();
  void MakeClients();

  bool Done() const;
  bool MayAsk() const;
  void RunRound();
  void Pass(bool mayAsk);
  void PassUntil(const std::function<bool()>& condition, const std::string& what);
  void WatchProgress(Time now);
  void Tick(Time now);
  void EndSomeProcess();
  void SampleUsage(Time now);
  Milliseconds RowInterval() const;

  void Rest();
  void AwaitAnswers();
  void Barrier();
  void AskEachNode();
  std::uint64_t Activity() const;
  void EditNodes();
  void CheckRest();
  void NoteMemory(long residentKb);
  void JudgeMemory() const;

  double Elapsed() const;
  pid_t AgentPid() const { return agent_->Pid(); }

  Options options_;
  Chance luck_;
  Loop loop_;
  Ledger ledger_;
  std::unique_ptr<test::Agent> agent_;
  std::vector<std::unique_ptr<test::LivingProcess>> processes_;
  std::vector<std::unique_ptr<Node>> nodes_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::unique_ptr<Client> manager_;
  QueueNode* queueNode_ = nullptr;
  int queueIndex_ = -1;  // where connections share names: the rule is that of its link

  Time begin_, lastProgress_, nextTick_, nextDeath_, nextSample_, nextRow_, roundBegin_;
  std::uint64_t lastSum_ = 0, rests_ = 0;
  Usage now_, most_, base_;
  std::deque<long> latestKb_;  // at rest
  long restKb_ = 0, restBaseKb_ = 0, restMostKb_ = 0;
  int idlersPerMille_ = 0;
};

}  // namespace endurance
