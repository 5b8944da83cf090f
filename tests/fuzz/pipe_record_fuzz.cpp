// What a LOCALI reader child tells the agent: records over the pipe, answers over the pair, in any
// order and shape. Each step of the input is a byte that says what, and its operands.
#include <cstring>

#include "core/status.h"
#include "link/link.h"
#include "protocols/lipc.h"
#include "protocols/lipc_board.h"
#include "tests/fuzz/agent_reader.h"
#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/answer_checks.h"
#include "tests/fuzz/world.h"

namespace {

constexpr int kStepsMax = 300;
constexpr std::int32_t kTask = 7;

class Child {
 public:
  explicit Child(Link* link) : link_(link), data_(static_cast<LIpcLinkData*>(link->DriverData)) {}

  bool Connected() const { return link_->State == kLinkConnected; }
  world::Socket& Pipe() const { return world::At(data_->PipeRead); }
  world::Socket& Pair() const { return world::At(data_->Pair); }

  void Ask(std::uint16_t tag) const {
    ClientMessage msg = {};
    const std::string bytes = MakeMessage({.TaskName = kTask, .AstInd = tag});
    std::memcpy(Wire(&msg), bytes.data(), bytes.size());
    LocateTrailer(&msg, bytes.size(), kMessageMax);
    msg.ClientSocket = client_;
    SendMsgToLink(kFuzz, __LINE__, link_, &msg);
  }
  void Serve() const {
    g_DbcI.ServedLink = link_;
    link_->Protocol->ReadyForRead(kFuzz, __LINE__, link_);
    g_DbcI.ServedLink = nullptr;
  }
  // The child has written the answer to the client itself, or is about to.
  RequestId Write(std::uint16_t tag, bool whole) const {
    const BoardRequest request = reader::Claim(*data_, {kTask, tag});
    if (request.Id.Slot >= 0 && BoardBeginWrite(data_->Board, request) && whole)
      BoardEndWrite(data_->Board, request, true);
    return request.Id;
  }
  void Tell(std::uint16_t tag, RequestId request, bool handedOver) const {
    reader::Tell(*data_, {kTask, tag}, request, handedOver);
  }
  void HandOver(std::uint16_t tag) const { reader::HandOver(*data_, {kTask, tag}, "rows"); }
  void AddClient() {
    client_ = world::Open(world::Kind::Client);
    FD_SET(client_, &g_DbcI.ClientSockets);
  }

 private:
  Link* link_;
  LIpcLinkData* data_;
  int client_ = -1;
};

void Step(const Child& child, Input* input) {
  switch (input->Below(11)) {
    case 0:
      return child.Ask(input->Byte());
    case 1: {
      const std::uint16_t tag = input->Byte();
      return child.Tell(tag, {input->Byte() - 1, input->Byte()}, true);
    }
    case 2:
      return child.HandOver(input->Byte());
    case 3:
      child.Pipe().Input += input->Bytes(input->Below(24));
      return;
    case 4:
      child.Pair().Packets.push_back(input->Bytes(input->Byte()));
      return;
    case 5: {
      const std::uint16_t tag = input->Byte();
      return child.Tell(tag, child.Write(tag, true), false);
    }
    case 6:
      child.Write(input->Byte(), input->Below(2) == 0);
      return;
    case 7:
      child.Pipe().Piece = 1 + input->Below(9);
      return;
    case 8:
      child.Pipe().PeerGone = true;
      return;
    case 9:
      return world::LetFail(input->Below(2) == 0 ? world::Call::Read : world::Call::Recv,
                            input->Below(2) == 0 ? EIO : EINTR, static_cast<int>(input->Below(4)));
    default:
      return child.Serve();
  }
}

// A connect looks for children that have been told to end. In the next run their numbers would be
// those of living ones, and each connect would wait for all that there have ever been.
void SeeChildrenEnd() {
  world::LetFail(world::Call::Fork, EAGAIN, 0);
  ConnectTheLink(kFuzz, __LINE__, g_DbcI.LinkList);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const SimulatedAgent agent(size);
  LoadNodetab("NODE LOCALI 32\n");
  g_DbcI.PutMsg = CheckedPut;
  Child child(g_DbcI.LinkList);
  child.AddClient();
  ConnectTheLink(kFuzz, __LINE__, g_DbcI.LinkList);
  for (int i = 0; i < kStepsMax && child.Connected() && !input.Empty(); ++i) {
    Step(child, &input);
    CheckRecords();
  }
  DisconnectLink(kFuzz, __LINE__, g_DbcI.LinkList, kStatusPeerClosed, 0);
  CheckRecords();
  SeeChildrenEnd();
  return 0;
}
