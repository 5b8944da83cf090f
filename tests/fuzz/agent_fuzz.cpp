// The whole agent, from its start to its end, driven through its loop by a script of clients,
// nodes, ticks, deaths and failing calls. The input's head chooses options and a node table; then
// comes one step after the other, a byte that says what and its operands. Between the passes of
// the loop the records of the agent, its descriptors and the answers of the clients are checked.
#include <cerrno>
#include <csignal>
#include <vector>

#include "protocols/lipc.h"
#include "tests/fuzz/agent_peers.h"
#include "tests/fuzz/agent_reader.h"
#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/world.h"

namespace {

using world::At;
using world::Call;

constexpr int kPassesToSettle = 2000;
constexpr int kQuietPasses = 3;  // after so many nothing more is coming
constexpr int kConnectionsMax = 40;

constexpr const char* kLines[] = {"SRV1 TCPIP 127.0.0.1 1060 0 0 0",
                                  "SRV2 TCPIP 127.0.0.2 1060 1 6 4",
                                  "SRV3 TCPIP 127.0.0.3 1060 0 4 2",
                                  "SRV4 LOCALS 17",
                                  "SRV5 LOCALI 33",
                                  "SRV6 DECNET somewhere",
                                  "SRV7 TCPIP 127.0.0.7",
                                  "SRV8 LOCAL 18"};
constexpr const char* kNames[] = {"SRV1", "SRV2", "SRV3", "SRV4", "SRV5",    "SRV6",
                                  "SRV7", "SRV8", "",     "NEW",  "NOWHERE", "srv1"};
constexpr int kErrors[] = {EINTR, EIO,    ENOMEM, EMFILE,       EBADF,  ECONNRESET,
                           EPIPE, ENFILE, EAGAIN, ECONNREFUSED, EACCES, EINVAL};

constexpr int kConnectErrors[] = {ECONNREFUSED, EHOSTUNREACH, ETIMEDOUT, ECONNRESET};

// The agent ends by itself when the script is over and everything has settled.
struct Run {
  Input* Script;
  int PassesLeft;   // once the script is over
  int QuietPasses;  // since the last transfer
  unsigned long Transfers;
  bool AnswersVanish;  // the script did what may cost an answer
  bool Ticked;         // in the pass that is over
};
Run run;

std::int32_t PidOf(unsigned number) { return 2000 + static_cast<std::int32_t>(number % 8); }

int SomeClient() { return peers::Choose(peers::Clients(), run.Script->Byte()); }
int SomeNode() { return peers::Choose(peers::Nodes(), run.Script->Byte()); }

Tag SomeTag() {
  const unsigned number = run.Script->Byte();
  const std::deque<Tag>& seen = peers::Seen();
  if (seen.empty()) return {PidOf(number), static_cast<std::uint16_t>(number)};
  return seen[seen.size() - 1 - number % seen.size()];
}

// Steps

void NewClients() {
  const int count = 1 + static_cast<int>(run.Script->Below(4));
  if (peers::Clients().size() < kConnectionsMax) world::state.Backlog += count;
}

// A request, or several of them at once; the first operand's bits say more.
void Ask() {
  const int client = SomeClient();
  const unsigned what = run.Script->Byte();
  const std::string text((what & 0x30) == 0x30 ? 6000 : what >> 6, 'x');
  std::string bytes;
  for (unsigned i = 0; i <= (what & 3) * 8; ++i)
    bytes += MakeMessage({.TaskName = PidOf(run.Script->Byte()),
                          .AstInd = run.Script->Byte(),
                          .Node = Pick(kNames, what >> 2),
                          .Text = text});
  peers::Send(client, bytes, (what & 0x0F) == 0x0F ? run.Script->Byte() : SIZE_MAX);
}

void AskInPieces() {
  const int client = SomeClient();
  const std::string bytes = MakeMessage({.TaskName = PidOf(run.Script->Byte()),
                                         .AstInd = run.Script->Byte(),
                                         .Node = Pick(kNames, run.Script->Byte())});
  peers::Send(client, bytes, run.Script->Byte());
}

void SendRest() {
  const int client = SomeClient();
  peers::Send(client, {}, 1 + run.Script->Byte());
}

void SendAnyBytes() {
  const int client = SomeClient();
  peers::Send(client, run.Script->Bytes(run.Script->Below(64)));
}

std::string ArgumentOf(unsigned command, unsigned number) {
  const std::string name = Pick(kNames, number);
  if (command == 119 || command == 127 || command == 128) {
    std::string line = Pick(kLines, number >> 1);
    if ((number & 1) != 0) line.replace(0, 4, "NEW");
    return line;
  }
  return command == 126 ? name + std::string(2, '\0') + Pick(kLines, number >> 2) : name;
}

void Manage() {
  const int client = SomeClient();
  const unsigned command = 100 + run.Script->Below(32);
  const unsigned number = run.Script->Byte();
  peers::Send(client, MakeMessage({.TaskName = PidOf(number),
                                   .AstInd = 900,
                                   .Command = "DBCA",
                                   .DbcApiCode = static_cast<std::uint16_t>(command),
                                   .RowId = static_cast<std::int32_t>(number % 9),
                                   .Text = ArgumentOf(command, number)}));
}

void HangUp(int fd) {
  if (fd >= 0) peers::HangUp(fd, run.Script->Below(3) == 0);
}
void ClientHangsUp() { HangUp(SomeClient()); }
void NodeHangsUp() { HangUp(SomeNode()); }

int SomePeer() { return run.Script->Below(2) == 0 ? SomeClient() : SomeNode(); }

void SetRoom() {
  const int fd = SomePeer();
  const unsigned room = run.Script->Byte();
  if (fd >= 0) peers::SetRoom(fd, room);
}

void SetPiece() {
  const int fd = SomePeer();
  const unsigned piece = run.Script->Byte();
  if (fd >= 0) At(fd).Piece = piece < 200 ? 1 + piece : world::Socket::kEndless;
}

// An answer, by the node that was asked or by another one; perhaps more than once.
void Answer() {
  const int node = SomeNode();
  const Tag tag = SomeTag();
  const unsigned times = 1 + run.Script->Below(4) / 3;
  for (unsigned i = 0; node >= 0 && i < times; ++i) peers::Answer(node, tag, "row");
}

void NodeSendsAnyBytes() {
  const int node = SomeNode();
  const std::string bytes = run.Script->Bytes(run.Script->Below(64));
  if (node >= 0) At(node).Input += bytes;
}

void EndConnect() {
  const int node = SomeNode();
  const unsigned how = run.Script->Byte();
  if (node < 0 || !At(node).Connecting) return;
  At(node).ConnectOver = true;
  At(node).ConnectError = how < 128 ? 0 : Pick(kConnectErrors, how);
}

void PlanConnect() {
  constexpr unsigned kPlans = static_cast<unsigned>(world::Plan::Count);
  world::state.Connects.push_back(static_cast<world::Plan>(run.Script->Below(kPlans)));
}

void KillClient() { world::state.Dead.insert(PidOf(run.Script->Byte())); }

void Fail() {
  constexpr unsigned kCalls = static_cast<unsigned>(Call::Count);
  const Call call = static_cast<Call>(run.Script->Below(kCalls));
  const int error = Pick(kErrors, run.Script->Byte());
  // A read that a level-triggered wait has announced does not go on to be empty for ever.
  world::LetFail(call, error, static_cast<int>(run.Script->Below(4)));
  run.AnswersVanish = true;
}

// The reader child of a LOCALI link

LIpcLinkData* SomeReader() { return reader::Of(LinkNumber(run.Script->Byte())); }

void ReaderHandsOver() {
  LIpcLinkData* const data = SomeReader();
  const Tag tag = SomeTag();
  if (data) reader::HandOver(*data, tag, "row");
}

void ReaderDelivers() {
  LIpcLinkData* const data = SomeReader();
  const Tag tag = SomeTag();
  const unsigned end = run.Script->Below(4);
  if (!data || run.AnswersVanish) return;
  reader::Deliver(data, tag, "row", static_cast<reader::End>(end));
}

void AnswerByReader() { run.Script->Below(2) == 0 ? ReaderHandsOver() : ReaderDelivers(); }

void ReaderMisbehaves() {
  LIpcLinkData* const data = SomeReader();
  const std::string bytes = run.Script->Bytes(run.Script->Below(32));
  const unsigned what = run.Script->Below(4);
  if (!data) return;
  run.AnswersVanish = true;  // a record alone says that the child has answered
  if (what < 2) peers::ExpectAnything();
  if (what == 0) At(data->Pair).Packets.push_back(bytes);
  if (what == 1) At(data->PipeRead).Input += bytes;
  if (what == 2) reader::Die(*data);
  if (what == 3) world::state.Dead.insert(data->ChildPid);
}

void ChangeSystem() {
  const unsigned what = run.Script->Byte(), kind = what % 6;
  if (kind == 0) world::state.Now += what;
  if (kind == 1) world::state.Limit = 8 + static_cast<int>(what);
  if (kind == 2) {
    world::state.QueueRoom = what / 64;
    run.AnswersVanish = true;
  }
  if (kind == 3) world::state.KernelCloses = !world::state.KernelCloses;
  if (kind == 4) world::state.Greeting.assign(what, 'g');
  if (kind == 5) world::state.Dead.insert(world::state.KernelPid);
}

void Disturb() { run.Script->Below(2) == 0 ? ReaderMisbehaves() : ChangeSystem(); }

bool Tick() {
  NoteTick();
  world::Signal(SIGALRM);
  run.Ticked = true;
  return true;
}

// One step; true: the loop makes a pass now.
bool Step() {
  constexpr void (*kSteps[])() = {
      NewClients, Ask,           Ask,         AskInPieces, SendRest, SendAnyBytes,
      Manage,     ClientHangsUp, SetRoom,     SetPiece,    Answer,   NodeSendsAnyBytes,
      EndConnect, PlanConnect,   NodeHangsUp, KillClient,  Fail,     AnswerByReader,
      Disturb};
  const unsigned what = run.Script->Below(22);
  if (what < 2) return true;
  if (what == 2) return Tick();
  kSteps[what - 3]();
  return false;
}

// The script is over: everybody takes what there is, and the agent is told to end.
void Settle() {
  for (int fd = kFirstDescriptor; fd <= world::state.Highest; ++fd)
    At(fd).Room = At(fd).Piece = world::Socket::kEndless;
  const bool quiet = run.Transfers == world::state.Transfers;
  run.QuietPasses = quiet ? run.QuietPasses + 1 : 0;
  run.Transfers = world::state.Transfers;
  if (run.QuietPasses < kQuietPasses && --run.PassesLeft > 0) return;
  if (run.PassesLeft == 0) world::Violated("the agent does not come to rest");
  CheckNoneWaitsInVain();
  if (!run.AnswersVanish) peers::CheckNoneIsLost();
  world::Signal(SIGTERM);
}

bool NextWait() {
  peers::Follow();
  CheckAgent();
  if (run.Ticked) CheckNoneParkedIsGone();
  run.Ticked = false;
  while (!run.Script->Empty()) {
    if (Step()) return g_DbcI.AlarmFlag == 0;
    peers::Follow();
  }
  Settle();
  return g_DbcI.ExitStatus == 0;
}

// The start

std::string SomeNodetab() {
  std::string text;
  for (unsigned count = 1 + run.Script->Below(5); count > 0; --count)
    text += std::string(Pick(kLines, run.Script->Byte())) + "\n";
  return text;
}

std::vector<std::string> SomeOptions() {
  std::vector<std::string> options = {"lumo_tcp", "-NODAEMON"};
  const unsigned bits = run.Script->Byte();
  constexpr const char* kFlags[] = {"-AUTOCONNECT", "-AUTOCHANGE", "-ERR1001", "-CONNERROR",
                                    "-CONNECTONLOAD"};
  for (unsigned i = 0; i < 5; ++i) {
    if ((bits >> i & 1) != 0) options.emplace_back(kFlags[i]);
  }
  if ((bits & 0x20) != 0) options.emplace_back("-AUTOCONNECTTIMEOUT=6");
  if ((bits & 0x40) != 0) options.emplace_back("-DEFAULT=SRV2");
  if ((bits & 0xE0) == 0x80) options.emplace_back("-PING");
  return options;
}

void RunScript(Input* script) {
  run = {.Script = script,
         .PassesLeft = kPassesToSettle,
         .QuietPasses = 0,
         .Transfers = 0,
         .AnswersVanish = false,
         .Ticked = false};
  const std::vector<std::string> options = SomeOptions();
  const unsigned how = script->Byte();
  world::state.HasEpoll = (how & 8) == 0;
  world::state.Nodetab = SomeNodetab();
  RunAgent(options, (how & 7) == 0 ? 15 : 0, NextWait);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input script(data, size);
  const SimulatedAgent agent(0);
  peers::Reset();
  RunScript(&script);
  return 0;
}
