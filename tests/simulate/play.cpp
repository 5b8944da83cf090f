#include "tests/simulate/play.h"

#include <cerrno>
#include <csignal>
#include <deque>
#include <vector>

#include "core/loop.h"
#include "link/link.h"
#include "tests/fuzz/agent_peers.h"
#include "tests/fuzz/agent_reader.h"
#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/world.h"

namespace {

using story::Step;
using story::What;
using world::At;

constexpr std::size_t kConnectionsMax = 60;
constexpr unsigned kProcesses = 40;
constexpr int kFirstProcess = 2000;
constexpr int kTickSeconds = 2;
constexpr int kQuietPasses = 2;    // then nothing more moves
constexpr int kLongestRest = 500;  // passes: nodes that never stop are let be
constexpr unsigned kFinalRounds = 6;
constexpr int kQueue = -1;  // in place of a node's descriptor
constexpr int kErrors[] = {EINTR, EIO, ENOMEM, EMFILE, ECONNRESET, EPIPE, EAGAIN, EINVAL};
constexpr int kConnectErrors[] = {ECONNREFUSED, EHOSTUNREACH, ETIMEDOUT, ECONNRESET};

enum class Mode : std::uint8_t { Steps, Rest, Final };

struct Stage {
  const story::Story* Story;
  std::size_t Next;  // step
  Mode Is;
  int Passes, Quiet;  // of this rest
  unsigned long Transfers;
  unsigned TicksLeft, TicksDone;
  unsigned FinalRound;
  bool Begun, Ticked;
  bool DefaultTakesAll;  // what waits for the default goes on with it
  std::size_t Piece;     // in which the next requests come
};
Stage stage;

int Client(unsigned number) { return peers::Choose(peers::Clients(), number); }
int Node(unsigned number) { return peers::Choose(peers::Nodes(), number); }

int ProcessOf(int client) {
  return kFirstProcess + static_cast<int>(At(client).Serial % kProcesses);
}

// Clients

std::string NameOf(unsigned number) {
  const std::vector<std::string>& nodes = stage.Story->Nodes;
  if (number % 16 == 0) return "NOWHERE";
  if (number % 3 == 0) return {};
  const std::string& line = nodes[number % nodes.size()];
  return line.substr(0, line.find(' '));
}

void Ask(const Step& step) {
  const int client = Client(step.A);
  if (client < 0) return;
  const std::string node = NameOf(step.B);
  for (unsigned i = 0; i < step.C; ++i) {
    const std::uint16_t tag = ledger::NextTag();
    const std::string text = ledger::NextText(step.D);
    peers::Send(
        client,
        MakeMessage({.TaskName = ProcessOf(client), .AstInd = tag, .Node = node, .Text = text}),
        stage.Piece);
  }
  stage.Piece = SIZE_MAX;
}

std::string ArgumentOf(unsigned command, unsigned number) {
  const std::vector<std::string>& nodes = stage.Story->Nodes;
  std::string line = nodes[number % nodes.size()];
  const std::string name = line.substr(0, line.find(' '));
  if (command == 126) return name + std::string(2, '\0') + line;
  if (command != 119 && command != 127 && command != 128) return name;
  if (number % 2 != 0) line.replace(0, 4, "NEW");
  return line;
}

void Manage(const Step& step) {
  const int client = Client(step.A);
  if (client < 0) return;
  const unsigned command = 100 + step.B % 32U;
  peers::Send(client, MakeMessage({.TaskName = ProcessOf(client),
                                   .AstInd = ledger::NextManagementTag(),
                                   .Command = "DBCA",
                                   .DbcApiCode = static_cast<std::uint16_t>(command),
                                   .RowId = step.C % 9,
                                   .Text = ArgumentOf(command, step.C)}));
}

void Go(int fd, unsigned how) {
  if (fd >= 0) peers::HangUp(fd, how % 3 == 0);
}

void Stall(int fd, unsigned room) {
  if (fd >= 0) peers::SetRoom(fd, room);
}

void Dribble(int fd, unsigned piece) {
  if (fd >= 0) At(fd).Piece = piece < 100 ? 1 + piece : world::Socket::kEndless;
}

// Nodes

// One that the node owes: the oldest, the youngest or any.
ledger::Owed Take(std::deque<ledger::Owed>& owed, unsigned how) {
  const std::size_t at = how % 3 == 0 ? owed.size() - 1 : how % 3 == 1 ? how % owed.size() : 0;
  const ledger::Owed taken = owed[at];
  owed.erase(owed.begin() + static_cast<std::ptrdiff_t>(at));
  return taken;
}

void Answer(int node, unsigned count, unsigned how) {
  if (node < 0 || At(node).PeerGone) return;
  std::deque<ledger::Owed>& owed = ledger::OwedBy(node);
  for (; count > 0 && !owed.empty(); --count) {
    const ledger::Owed taken = Take(owed, how);
    peers::Answer(node, taken.Tag, ledger::Give(taken.Number, node));
  }
}

// What nobody has asked for, what another node was asked for, or the same twice.
void AnswerOddly(const Step& step) {
  const int node = Node(step.A), other = Node(step.A + 1U);
  if (node < 0) return;
  std::deque<ledger::Owed>& owed = ledger::OwedBy(other);
  if (step.B % 3 == 0 || owed.empty()) return peers::Answer(node, {kFirstProcess, 65535}, "odd");
  const ledger::Owed first = owed.front();
  peers::Answer(node, first.Tag, ledger::Give(first.Number, node));
  if (other != node) return;
  peers::Answer(node, first.Tag, ledger::Give(first.Number, node));
  owed.pop_front();
}

void Decide(unsigned number, unsigned how) {
  std::vector<int> pending;
  for (const int fd : peers::Nodes()) {
    if (At(fd).Connecting && !At(fd).ConnectOver) pending.push_back(fd);
  }
  const int fd = peers::Choose(pending, number);
  if (fd < 0) return;
  At(fd).ConnectOver = true;
  At(fd).ConnectError = how < 200 ? 0 : Pick(kConnectErrors, how);
}

void Junk(const Step& step) {
  const std::string bytes(1 + step.C % 40U, static_cast<char>(step.B));
  if (step.A % 2 == 0) {
    peers::Send(Client(step.A), bytes);
    return;
  }
  const int node = Node(step.A);
  if (node < 0) return;
  At(node).Input += bytes;
  ledger::MayFailAt(node);
}

// The reader child of a LOCALI link and its kernel

LIpcLinkData* FindReader() {
  for (unsigned i = 0; i < 12; ++i) {
    if (LIpcLinkData* const data = reader::Of(LinkNumber(i))) return data;
  }
  return nullptr;
}

void DeliverFromQueue(LIpcLinkData* data, const ledger::Owed& owed, unsigned how) {
  const std::string text = ledger::Give(owed.Number, kQueue);
  if (how % 8 < 4) return reader::HandOver(*data, owed.Tag, text);
  const auto end = how % 8 == 7 ? static_cast<reader::End>(how / 8 % 2) : reader::End::Tells;
  if (end != reader::End::Tells) ledger::ReaderDies();
  if (end == reader::End::DiesUnsaid) ledger::Doubt(owed.Number);
  reader::Deliver(data, owed.Tag, text, end);
}

void Reader(const Step& step) {
  LIpcLinkData* const data = FindReader();
  if (!data) return;
  if (step.A % 32 == 31) {
    ledger::ReaderDies();
    reader::Die(*data);
    return;
  }
  std::deque<ledger::Owed>& owed = ledger::OwedBy(kQueue);
  for (unsigned count = 1 + step.C % 8U; count > 0 && !owed.empty(); --count) {
    if (!world::IsAlive(data->ChildPid)) return;
    DeliverFromQueue(data, Take(owed, step.B), step.A);
  }
}

// The system

void Fail(const Step& step) {
  constexpr unsigned kCalls = static_cast<unsigned>(world::Call::Count);
  world::LetFail(static_cast<world::Call>(step.A % kCalls), Pick(kErrors, step.B), step.C % 4);
}

void Plan(unsigned how) {
  constexpr unsigned kPlans = static_cast<unsigned>(world::Plan::Count);
  world::state.Connects.push_back(static_cast<world::Plan>(how % kPlans));
}

void Connect(const Step& step) {
  if (peers::Clients().size() < kConnectionsMax) world::state.Backlog += step.A;
}

void Kill(const Step& step) {
  world::state.Dead.insert(kFirstProcess + static_cast<int>(step.A % kProcesses));
}

// All but those after which the agent goes on.
constexpr struct {
  What Kind;
  void (*Do)(const Step& step);
} kActions[] = {
    {What::Connect, Connect},
    {What::Ask, Ask},
    {What::Trickle, [](const Step& step) { stage.Piece = 1 + step.B; }},
    {What::Answer, [](const Step& step) { Answer(Node(step.A), step.B, step.C); }},
    {What::AnswerOddly, AnswerOddly},
    {What::Decide, [](const Step& step) { Decide(step.A, step.B); }},
    {What::Plan, [](const Step& step) { Plan(step.A); }},
    {What::NodeGoes, [](const Step& step) { Go(Node(step.A), step.B); }},
    {What::NodeStalls, [](const Step& step) { Stall(Node(step.A), step.B); }},
    {What::NodeDribbles, [](const Step& step) { Dribble(Node(step.A), step.B); }},
    {What::ClientGoes, [](const Step& step) { Go(Client(step.A), step.B); }},
    {What::ClientStalls, [](const Step& step) { Stall(Client(step.A), step.B); }},
    {What::Kill, Kill},
    {What::Manage, Manage},
    {What::Fail, Fail},
    {What::Junk, Junk},
    {What::Reader, Reader},
    {What::Queue, [](const Step& step) { world::state.QueueRoom = step.A % 4; }},
};

void Do(const Step& step) {
  for (const auto& action : kActions) {
    if (action.Kind == step.Kind) return action.Do(step);
  }
}

// How the agent goes on: each of these tells what the wait comes to, true: what there is, false: it
// is interrupted.

bool Pass() {
  ledger::BeforePass();
  return true;
}

bool TickNow() {
  --stage.TicksLeft;
  ++stage.TicksDone;
  stage.Ticked = true;
  world::state.Now += kTickSeconds;
  world::state.Monotonic += kTickSeconds * 1000;
  ledger::Ticked();
  ledger::BeforePass();
  NoteTick();
  world::Signal(SIGALRM);
  return false;
}

void BeginRest() {
  stage.Passes = stage.Quiet = 0;
  stage.Transfers = world::state.Transfers;
}

bool IsResting() {
  const bool moved = stage.Transfers != world::state.Transfers;
  stage.Transfers = world::state.Transfers;
  stage.Quiet = moved ? 0 : stage.Quiet + 1;
  return stage.Quiet <= kQuietPasses && ++stage.Passes < kLongestRest;
}

// Everybody takes what there is and answers what he owes.
void Relax() {
  world::state.QueueRoom = 64;
  for (int fd = kFirstDescriptor; fd <= world::state.Highest; ++fd)
    At(fd).Room = At(fd).Piece = world::Socket::kEndless;
  for (const int fd : peers::Nodes()) {
    if (At(fd).Connecting) At(fd).ConnectOver = true;
    Answer(fd, UINT32_MAX, 2);
  }
  LIpcLinkData* const data = FindReader();
  std::deque<ledger::Owed>& owed = ledger::OwedBy(kQueue);
  while (data && !owed.empty()) DeliverFromQueue(data, Take(owed, 2), 0);
}

bool MayLose() { return stage.Story->Faults || stage.Story->Edits; }

bool EndStory() {
  CheckNoneWaitsInVain();
  if (!MayLose()) peers::CheckNoneIsLost();
  ledger::Settle();
  world::Signal(SIGTERM);
  return false;
}

bool GoOnSettling() {
  Relax();
  if (IsResting()) return Pass();
  if (++stage.FinalRound > kFinalRounds) return EndStory();
  BeginRest();
  stage.TicksLeft = stage.FinalRound % 2;
  return stage.TicksLeft > 0 ? TickNow() : Pass();
}

bool NextStep() {
  while (stage.Next < stage.Story->Steps.size()) {
    const Step& step = stage.Story->Steps[stage.Next++];
    if (step.Kind == What::Pass) return Pass();
    if (step.Kind == What::Tick) {
      stage.TicksLeft = step.A;
      return TickNow();
    }
    if (step.Kind == What::Rest) {
      stage.Is = Mode::Rest;
      BeginRest();
      return Pass();
    }
    Do(step);
    peers::Follow();
  }
  stage.Is = Mode::Final;
  BeginRest();
  return GoOnSettling();
}

void CheckWait() {
  peers::Follow();
  CheckAgent();
  if (stage.Ticked) {
    CheckNoneParkedIsGone();
    CheckNoneIsStranded();
  }
  if (stage.DefaultTakesAll) CheckDefaultRequests();
  stage.Ticked = false;
  ledger::AtWait();
}

// The agent has started.
void BeginStory() {
  stage.Begun = true;
  WatchRequests(ledger::RequestIsRead);
  world::state.KernelsListen = true;
}

bool NextWait() {
  if (Stopping()) return false;
  if (!stage.Begun) BeginStory();
  CheckWait();
  if (stage.TicksLeft > 0) return TickNow();
  if (stage.Is == Mode::Final) return GoOnSettling();
  if (stage.Is == Mode::Rest && IsResting()) return Pass();
  if (stage.Is == Mode::Rest && !MayLose()) {
    peers::CheckNoneIsLost();
    if (stage.Quiet > kQuietPasses) CheckNoneIsOverlooked();
  }
  stage.Is = Mode::Steps;
  return NextStep();
}

void RunStory(const story::Story& told, int logLevel) {
  world::state.HasEpoll = told.Epoll;
  for (const std::string& line : told.Nodes) world::state.Nodetab += line + "\n";
  RunAgent(told.Options, logLevel, NextWait);
  peers::Follow();
}

}  // namespace

play::Played play::Play(const story::Story& told, int logLevel) {
  stage = {};
  stage.Story = &told;
  stage.Piece = SIZE_MAX;
  stage.DefaultTakesAll =
      !told.Edits && (story::Has(told, "-AUTOCONNECT") || !story::Has(told, "-AUTOCHANGE"));
  const SimulatedAgent agent(0);
  peers::Reset();
  ledger::Begin(told);
  RunStory(told, logLevel);
  ledger::End();
  return {.Totals = ledger::Result(), .Seconds = double{kTickSeconds} * stage.TicksDone};
}
