#include "tests/endurance/world.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tests/endurance/queue_node.h"
#include "tests/endurance/stream_node.h"

namespace endurance {
namespace {

constexpr Milliseconds kNoProgress{25000};
constexpr int kTcpNodes = 3, kKernelNodes = 2;
// Of 1000 clients so many take no answers for long. The memory that this needs at most is to be
// reached in the warm-up.
constexpr int kIdlers = 4, kIdlersInWarmUp = 40;
constexpr std::size_t kRestsInMedian = 15;
constexpr int kFewClients = 200, kNoDescriptor = 4052;
constexpr int kDeathMs = 700;  // between two deaths of client processes

int NumberOfKernel(const test::Agent& agent, Chance* luck) {
  int number = 0;
  do number = luck->Between(1000000, 1999999);
  while (access(agent.SocketPath(number).c_str(), F_OK) == 0);
  return number;
}

}  // namespace

World::World(const Options& options)
    : options_(options), luck_(options.Seed), ledger_(options.Seed) {
  std::vector<std::int32_t> taskNames{getpid()};
  for (int i = 1; i < options_.Tasks; ++i) {
    processes_.push_back(std::make_unique<test::LivingProcess>());
    taskNames.push_back(processes_.back()->Pid());
  }
  ledger_.SetTasks(taskNames);
  agent_ = std::make_unique<test::Agent>();
  MakeNodes();
  StartAgent();
  MakeClients();
}

World::~World() = default;

// Making everything

NodeSetting World::SettingFor(const std::string& name) {
  const int index = static_cast<int>(nodes_.size());
  ledger_.SetNodes(nodes_.size() + 1);
  return {.Events = &loop_,
          .Account = &ledger_,
          .Luck = &luck_,
          .Index = index,
          .BreakAfter = options_.BreakAfter,
          .Name = name};
}

void World::MakeNodes() {
  for (const std::string& transport : options_.Transports) {
    for (int i = 1; transport == "tcp" && i <= kTcpNodes; ++i)
      nodes_.push_back(std::make_unique<TcpNode>(SettingFor("TCP" + std::to_string(i)),
                                                 i == 1 ? "0 0 0" : "1 0 30"));
    for (int i = 1; transport == "locals" && i <= kKernelNodes; ++i) {
      const int number = NumberOfKernel(*agent_, &luck_);
      nodes_.push_back(std::make_unique<KernelNode>(SettingFor("SOCK" + std::to_string(i)), number,
                                                    agent_->SocketPath(number)));
    }
    if (transport == "locali") {
      auto node = std::make_unique<QueueNode>(SettingFor("QUEUE"));
      queueNode_ = node.get();
      queueIndex_ = static_cast<int>(nodes_.size());
      nodes_.push_back(std::move(node));
      // Clients may hold all descriptors that a link can have.
      if (options_.Clients >= kFewClients)
        ledger_.History(queueIndex_).Codes.push_back(kNoDescriptor);
    }
  }
  for (const auto& node : nodes_) {
    for (const auto& other : nodes_) {
      if (other != node) node->Others.push_back(other.get());
    }
  }
}

void World::StartAgent() {
  std::string table;
  for (const auto& node : nodes_) table += node->Line();
  agent_->Nodetab(table);
  agent_->Environment("DBC_LOG", "1");
  // What is freed goes back to the system at once, and no large block lies between small ones that
  // stay: what is resident at rest is what the agent holds, whatever the order of its requests was.
  if (options_.MemoryPercent > 0)
    agent_->Environment("GLIBC_TUNABLES",
                        "glibc.malloc.mmap_threshold=4096:glibc.malloc.trim_threshold=4096:"
                        "glibc.malloc.top_pad=0");
  if (!agent_->Start()) throw Failure("the agent does not start");
  if (queueNode_) queueNode_->SetAgent(AgentPid());
}

void World::MakeClients() {
  ClientSetting setting;
  setting.Events = &loop_;
  setting.Account = &ledger_;
  setting.Luck = &luck_;
  setting.Path = agent_->SocketPath();
  setting.AgentPid = AgentPid();
  setting.Tasks = options_.Tasks;
  setting.IdlersPerMille = &idlersPerMille_;
  setting.SharingNode = queueIndex_;
  setting.SharedPercent = options_.SharedPercent;
  for (const auto& node : nodes_) setting.Nodes.push_back(node->Name());
  for (int i = 0; i < options_.Clients; ++i) clients_.push_back(std::make_unique<Client>(setting));
  manager_ = std::make_unique<Client>(setting);
  manager_->ConnectToStay();
}

// Running

double World::Elapsed() const {
  return std::chrono::duration<double>(Clock::now() - begin_).count();
}

bool World::Done() const {
  if (options_.Requests > 0 && ledger_.Total.Asked >= options_.Requests) return true;
  return options_.Seconds > 0 && Elapsed() >= options_.Seconds;
}

bool World::MayAsk() const {
  if (options_.Rate <= 0) return true;
  return static_cast<double>(ledger_.Total.Asked) < options_.Rate * Elapsed();
}

void World::Run() {
  begin_ = lastProgress_ = nextTick_ = nextDeath_ = nextSample_ = nextRow_ = Clock::now();
  PassUntil([&] { return manager_->Greeted(); }, "greeting");
  while (!Done()) {
    RunRound();
    Rest();
  }
  if (agent_->Stop() != 0) throw Failure("the agent did not end well");
  JudgeMemory();
}

void World::RunRound() {
  roundBegin_ = Clock::now();
  const auto over = [&] {
    const std::chrono::duration<double> time = Clock::now() - roundBegin_;
    return ledger_.AskedInRound() >= options_.Round || time.count() >= options_.RoundSeconds;
  };
  while (!Done() && !over()) {
    Pass(MayAsk());
    Tick(Clock::now());
    if (options_.LieAt > 0 && ledger_.Total.Asked >= options_.LieAt) nodes_.front()->Lie();
    if (queueNode_ && options_.SwapAt > 0 && ledger_.Total.Asked >= options_.SwapAt)
      queueNode_->SwapAnswers();
  }
}

void World::Pass(bool mayAsk) {
  const Time now = Clock::now();
  idlersPerMille_ = Elapsed() < options_.WarmUp ? kIdlersInWarmUp : kIdlers;
  for (const auto& node : nodes_) node->Step(now);
  for (const auto& client : clients_) client->Step(now, mayAsk);
  loop_.RunOnce(1);
  WatchProgress(now);
  SampleUsage(now);
}

void World::PassUntil(const std::function<bool()>& condition, const std::string& what) {
  const Time end = Clock::now() + 4 * kNoProgress;
  while (!condition()) {
    if (Clock::now() >= end) throw Failure("waited in vain for: " + what);
    Pass(false);
  }
}

void World::WatchProgress(Time now) {
  const std::uint64_t sum = ledger_.Total.Asked + ledger_.Open() + Activity();
  if (sum != lastSum_ || ledger_.Open() == 0) {
    lastSum_ = sum;
    lastProgress_ = now;
  }
  if (now - lastProgress_ < kNoProgress) return;
  throw Failure("nothing moves any more\n" + ledger_.DescribeOpen());
}

std::uint64_t World::Activity() const {
  std::uint64_t sum = 0;
  for (const auto& node : nodes_) sum += node->Activity();
  return sum;
}

// A tick more than the agent's own, and the death of a client process now and then.
void World::Tick(Time now) {
  if (options_.TickMs > 0 && now >= nextTick_) {
    nextTick_ = now + Milliseconds(options_.TickMs);
    kill(AgentPid(), SIGALRM);
  }
  if (now < nextDeath_ || processes_.empty()) return;
  nextDeath_ = now + Milliseconds(luck_.Between(kDeathMs / 2, 2 * kDeathMs));
  EndSomeProcess();
}

void World::EndSomeProcess() {
  const std::size_t chosen = luck_.Below(processes_.size());
  const int task = static_cast<int>(chosen) + 1;
  ++ledger_.Total.Faults["client process that dies"];
  processes_[chosen]->Kill();
  for (const auto& client : clients_) {
    if (client->Connected() && client->Task() == task) client->ProcessDied();
  }
  processes_[chosen] = std::make_unique<test::LivingProcess>();
  const pid_t pid = processes_[chosen]->Pid();
  // Until it has closed its copies of our descriptors, it would keep connections alive.
  if (!test::WaitFor([&] { return test::OpenDescriptors(pid) <= 3; }))
    throw Failure("a process does not start");
  ledger_.ReplaceTask(task, pid);
}

// At rest

// All requests have ended, all clients have gone, and nothing that a node has sent is under way.
void World::Rest() {
  for (const auto& client : clients_) client->Settle(true);
  for (const auto& node : nodes_) node->Settle(true);
  AwaitAnswers();
  std::uint64_t before = 0;
  do {
    before = Activity();
    Barrier();
    AwaitAnswers();
  } while (Activity() != before);
  if (queueNode_ && options_.MemoryPercent > 0) {
    queueNode_->EndSpares();
    AwaitAnswers();
  }
  AskEachNode();
  EditNodes();
  Barrier();
  CheckRest();
  ledger_.EndRound();
  ++rests_;
  for (const auto& client : clients_) client->Settle(false);
  for (const auto& node : nodes_) node->Settle(false);
}

void World::AwaitAnswers() {
  PassUntil(
      [&] {
        return ledger_.Open() == 0 &&
               std::none_of(clients_.begin(), clients_.end(),
                            [](const auto& client) { return client->Connected(); }) &&
               std::all_of(nodes_.begin(), nodes_.end(),
                           [](const auto& node) { return node->Idle(); });
      },
      "all answers");
}

// What had come to the agent before has been served.
void World::Barrier() {
  for (int trip = 0; trip < 3; ++trip) {
    manager_->AskManagement(100, 0, {}, 1);
    PassUntil([&] { return !manager_->Waits(); }, "barrier");
  }
}

// An answer comes behind all that its node has sent before: none of that is under way any more.
void World::AskEachNode() {
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    bool answered = false;
    for (int attempt = 0; attempt < 10 && !answered; ++attempt) {
      const std::uint64_t number = manager_->AskNode(static_cast<int>(i), true).Number;
      PassUntil([&] { return !manager_->Waits(); }, "answer of each node");
      answered = ledger_.Find(number)->Ended == End::NodeAnswered;
    }
    if (!answered) throw Failure("node " + nodes_[i]->Name() + " cannot be reached any more");
  }
}

// A node comes and goes, and one that is in use gets the definition that it has, when it breaks.
void World::EditNodes() {
  const int count = static_cast<int>(nodes_.size());
  const std::string name = nodes_.back()->Name();
  std::string line = nodes_.back()->Line();
  line.pop_back();
  const struct {
    std::uint16_t Command;
    std::int32_t Number;
    std::string Text;
    std::int32_t Expected;
  } commands[] = {
      {102, 0, {}, count},     {117, 7, {}, 0},      {119, 0, "EXTRA TCPIP 127.0.0.1 1", 0},
      {102, 0, {}, count + 1}, {120, 0, "EXTRA", 0}, {105, 0, {}, 1},
      {123, 0, "EXTRA", 0},    {102, 0, {}, count},  {118, 7, {}, 0}};
  for (const auto& command : commands) {
    manager_->AskManagement(command.Command, command.Number, command.Text, command.Expected);
    PassUntil([&] { return !manager_->Waits(); }, "management");
  }
}

void World::CheckRest() {
  int descriptors = 0, children = 0;
  for (const auto& node : nodes_) {
    descriptors += node->AgentDescriptors();
    children += node->AgentChildren();
  }
  PassUntil([&] { return ChildrenOf(AgentPid()) == children; },
            std::to_string(children) + " children of the agent at rest");
  Usage rest = UsageOf(AgentPid());
  rest.Descriptors -= descriptors;
  if (rests_ == 0) base_ = rest;
  if (rest.Descriptors != base_.Descriptors)
    throw Failure("at rest the agent has " + std::to_string(rest.Descriptors) +
                  " descriptors beside its links', at first there were " +
                  std::to_string(base_.Descriptors));
  NoteMemory(rest.ResidentKb);
}

// The median of the latest times of rest: single ones differ by a few pages, as the board of the
// reader child does, whose size depends on what was in flight since the link came up.
void World::NoteMemory(long residentKb) {
  latestKb_.push_back(residentKb);
  if (latestKb_.size() > kRestsInMedian) latestKb_.pop_front();
  std::vector<long> sorted(latestKb_.begin(), latestKb_.end());
  std::sort(sorted.begin(), sorted.end());
  restKb_ = sorted[sorted.size() / 2];
  if (Elapsed() <= options_.WarmUp || restBaseKb_ == 0)
    restBaseKb_ = std::max(restBaseKb_, restKb_);
  else
    restMostKb_ = std::max(restMostKb_, restKb_);
}

void World::JudgeMemory() const {
  const double limit = static_cast<double>(restBaseKb_) * (1 + options_.MemoryPercent / 100);
  if (options_.MemoryPercent > 0 && static_cast<double>(restMostKb_) > limit)
    throw Failure("at rest the agent had " + std::to_string(restMostKb_) +
                  " kB resident, in the warm-up " + std::to_string(restBaseKb_));
}

// About sixty rows.
Milliseconds World::RowInterval() const {
  return Milliseconds(std::max(1000, static_cast<int>(options_.Seconds * 1000 / 60)));
}

void World::SampleUsage(Time now) {
  if (!options_.Table || now < nextSample_) return;
  nextSample_ = now + Milliseconds(1000);
  now_ = UsageOf(AgentPid());
  most_.ResidentKb = std::max(most_.ResidentKb, now_.ResidentKb);
  most_.Descriptors = std::max(most_.Descriptors, now_.Descriptors);
  most_.Children = std::max(most_.Children, now_.Children);
  if (now < nextRow_) return;
  if (nextRow_ == begin_)
    std::printf("%8s %10s %11s %8s %11s %8s %10s\n", "seconds", "requests", "connections", "kB",
                "descriptors", "children", "kB at rest");
  nextRow_ += RowInterval();
  std::printf("%8.0f %10llu %11llu %8ld %11d %8d %10ld\n", Elapsed(),
              static_cast<unsigned long long>(ledger_.Total.Asked),
              static_cast<unsigned long long>(ledger_.Total.Connections), now_.ResidentKb,
              now_.Descriptors, now_.Children, restKb_);
  std::fflush(stdout);
}

void World::Report() const {
  const Counts& total = ledger_.Total;
  const auto ended = [&](End end) {
    const auto found = total.Ends.find(end);
    return static_cast<unsigned long long>(found == total.Ends.end() ? 0 : found->second);
  };
  const auto line = [](const std::string& name, unsigned long long count) {
    std::printf("  %-58s %10llu\n", name.c_str(), count);
  };
  std::printf("%s, %.0f s\n", "Requests", Elapsed());
  line("asked, whole", total.Asked);
  line("connections", total.Connections);
  line("of the requests, with a name that had been used before", total.Reused);
  line("   while another connection waited under the same name", total.Shared);
  line("answered once, by the node", ended(End::NodeAnswered));
  line("   among those of the same name with the answer to a later one", total.OfAnother);
  line("answered once, by the agent", ended(End::AgentAnswered));
  line("   management", total.Management);
  for (const auto& [codes, count] : total.Codes)
    line("   code " + std::to_string(codes.first) + ", system " + std::to_string(codes.second),
         count);
  line("dropped: the client had hung up", ended(End::HungUp));
  line("   of these, a node got", total.HungUpReceived);
  line("dropped: what the client sent then was malformed", ended(End::Malformed));
  line("dropped: the client did not take 1 MiB of answers", ended(End::NotTaken));
  line("dropped: the client's process had died", ended(End::ProcessDied));
  line("not whole when the client hung up (no request)", ended(End::NeverSent));
  std::printf("What was done to the agent\n");
  for (const auto& [name, count] : total.Faults) line(name, count);
  std::printf("At rest %llu times: %d descriptors beside the links', %ld kB resident",
              static_cast<unsigned long long>(rests_), base_.Descriptors, restBaseKb_);
  if (restMostKb_ > 0) std::printf(", after the warm-up at most %ld kB", restMostKb_);
  std::printf("\n");
  if (options_.Table)
    std::printf("At most, in between: %ld kB, %d descriptors, %d children\n", most_.ResidentKb,
                most_.Descriptors, most_.Children);
}

}  // namespace endurance
