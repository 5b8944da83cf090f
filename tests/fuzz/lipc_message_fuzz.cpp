// Messages of the local kernel's queue, as the reader child handles them. The input is a list of
// messages: a byte that says which client does not read just then (3: none), a 16-bit length and
// the body. The reader is the real one, up to its end when the queue is removed; its source is
// included to reach the connections that it may write to.
#include <set>

#include "protocols/lipc_board.h"
#include "protocols/lipc_reader.cpp"
#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/answer_checks.h"
#include "tests/fuzz/world.h"

namespace {

constexpr int kClients = 3;
constexpr std::size_t kMessagesMax = 64;
constexpr std::size_t kSmallestMessage = 108;
constexpr std::int32_t kTask = 7;

struct Run {
  int Clients[kClients];               // each waits for the answer whose tag is its number
  std::size_t Received[kClients];      // bytes so far
  int Pair;                            // what the child hands over
  std::size_t HandedOver;              // bytes so far
  std::set<std::uint16_t> HandedTags;  // of answers to kTask that were handed over
  std::deque<unsigned> Stalls;         // for each message the client that does not read
};
Run run;

// Connections as they are accepted, so that they have serial numbers.
void AcceptClients(ReaderBoard* board) {
  g_DbcI.ClientListenSocket = world::Open(world::Kind::Listener);
  world::state.Backlog = kClients;
  for (std::uint16_t tag = 0; tag < kClients; ++tag) {
    AcceptNewClientConnection(kFuzz, __LINE__);
    const int client = world::state.Highest;
    world::At(client).Output.clear();
    run.Clients[tag] = client;
    BoardAdd(board, {.Id = {tag, tag + 1U},
                     .TaskName = kTask,
                     .AstInd = tag,
                     .Socket = client,
                     .Connection = ConnectionSerial(client)});
  }
}

// What came out must be whole messages. `counted`: how many of the four bytes of the length word
// its value includes. Returns the tag of the last one that answers kTask, -1: there is none.
int CheckStream(const std::string& bytes, std::uint32_t counted) {
  int tag = -1;
  for (std::size_t at = 0; at < bytes.size();) {
    std::uint32_t length = 0;
    std::memcpy(&length, bytes.data() + at, std::min<std::size_t>(4, bytes.size() - at));
    length += 4 - counted;
    if (length < kSmallestMessage || length > bytes.size() - at)
      world::Violated("a message of %u bytes, %zu are there", length, bytes.size() - at);
    at += length;
    const unsigned char* const message =
        reinterpret_cast<const unsigned char*>(bytes.data()) + at - length;
    if (Get(message, WireField<std::int32_t>{4}) == kTask)
      tag = Get(message + length - kTrailerSize, kTrailerAstInd);
  }
  return tag;
}

// What the last message has come to: a client has its answer from the child, or by way of the
// agent, but not first the one and then the other.
void LookAtOutput() {
  for (int i = 0; i < kClients; ++i) {
    const std::string& output = world::At(run.Clients[i]).Output;
    if (output.size() == run.Received[i]) continue;
    const int tag = CheckStream(output.substr(run.Received[i]), 4);
    run.Received[i] = output.size();
    if (tag != i) world::Violated("client %d has got the answer of %d", i, tag);
    if (run.HandedTags.contains(static_cast<std::uint16_t>(i)))
      world::Violated("client %d gets an answer that has been handed over before", i);
  }
  const std::string& handed = world::At(run.Pair).Output;
  const std::size_t begin =
      run.HandedOver + (handed.size() > run.HandedOver ? sizeof(RequestId) : 0);
  const int tag = CheckStream(handed.substr(begin), 0);
  run.HandedOver = handed.size();
  if (tag >= 0) run.HandedTags.insert(static_cast<std::uint16_t>(tag));
}

void BeforeNextMessage() {
  LookAtOutput();
  const unsigned stalled = run.Stalls.empty() ? kClients : run.Stalls.front();
  if (!run.Stalls.empty()) run.Stalls.pop_front();
  for (unsigned i = 0; i < kClients; ++i)
    world::At(run.Clients[i]).Room = i == stalled ? 0 : world::Socket::kEndless;
}

void Queue(Input* input) {
  while (!input->Empty() && world::state.FromKernel.size() < kMessagesMax) {
    run.Stalls.push_back(input->Below(kClients + 1));
    const std::size_t low = input->Byte(), high = input->Byte();
    world::state.FromKernel.push_back(input->Bytes(low | high << 8));
  }
}

ReaderBoard* EmptyBoard() {
  static ReaderBoard* const board = CreateBoard();
  return new (board) ReaderBoard();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  LIpcLinkData link = {};
  const SimulatedAgent agent(size);
  run = {};
  link.MsgQueueId = 1;
  link.Board = EmptyBoard();
  link.Pair = run.Pair = world::Open(world::Kind::Pair);
  const int pipe = world::Open(world::Kind::Pipe);
  AcceptClients(link.Board);
  ChooseDirectConnections();
  Queue(&input);
  world::state.OnReceive = BeforeNextMessage;
  if (ReadMessageFromKernelAndSendToDbc(kFuzz, __LINE__, &link, pipe) != -1)
    world::Violated("the reader ended without an error");
  if (world::At(pipe).Output.size() % sizeof(PipeRecord) != 0) world::Violated("half a record");
  return 0;
}
