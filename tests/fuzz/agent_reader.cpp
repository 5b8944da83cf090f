#include "tests/fuzz/agent_reader.h"

#include <cstring>

#include "client/connection.h"
#include "link/link.h"
#include "link/protocol.h"
#include "protocols/lipc_board.h"
#include "tests/fuzz/world.h"

namespace {

void WriteRecord(const LIpcLinkData& data, const Tag& tag, RequestId request, bool handedOver) {
  const int entry = (request.Slot < 0 ? kNoEntry : request.Slot) | (handedOver ? kHandedOver : 0);
  const PipeRecord record = {
      .TaskName = tag.first, .AstInd = tag.second, .Entry = static_cast<std::uint16_t>(entry)};
  world::At(data.PipeRead).Input.append(reinterpret_cast<const char*>(&record), sizeof record);
}

// The request of that name which the reader claims; Slot -1: none.
BoardRequest Claim(const LIpcLinkData& data, const Tag& tag) {
  BoardRequest request = {};
  request.Id.Slot = -1;
  BoardClaim(data.Board, tag.first, tag.second, &request);
  return request;
}

void HandOver(const LIpcLinkData& data, const Tag& tag, RequestId request,
              const std::string& answer) {
  const std::string identity(reinterpret_cast<const char*>(&request), sizeof request);
  world::At(data.Pair).Packets.push_back(identity + answer);
  WriteRecord(data, tag, request, true);
}

}  // namespace

LIpcLinkData* reader::Of(const Link* link) {
  if (!link || link->State != kLinkConnected || std::strcmp(link->Protocol->Name, "LOCALI") != 0)
    return nullptr;
  LIpcLinkData* const data = LIpcDataOf(link);
  return world::IsAlive(data->ChildPid) ? data : nullptr;
}

void reader::Die(const LIpcLinkData& data) {
  world::At(data.PipeRead).PeerGone = true;
  world::state.Dead.insert(data.ChildPid);
}

void reader::HandOver(const LIpcLinkData& data, const Tag& tag, const std::string& answer) {
  ::HandOver(data, tag, Claim(data, tag).Id, answer);
}

void reader::Deliver(LIpcLinkData* data, const Tag& tag, const std::string& answer, End end) {
  const BoardRequest request = Claim(*data, tag);
  if (request.Id.Slot < 0) return;
  if (request.Connection == 0 || request.Connection != ConnectionSerial(request.Socket) ||
      !BoardBeginWrite(data->Board, request))
    return ::HandOver(*data, tag, request.Id, answer);
  peers::AnswerCame(request.Socket, answer);
  if (end != End::DiesUnsaid) BoardEndWrite(data->Board, request, true);
  if (end == End::Tells || end == End::TellsToo)
    WriteRecord(*data, tag, request.Id, false);
  else
    Die(*data);
}
