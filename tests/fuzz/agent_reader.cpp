#include "tests/fuzz/agent_reader.h"

#include <cstring>

#include "client/connection.h"
#include "link/link.h"
#include "link/protocol.h"
#include "tests/fuzz/world.h"

namespace {

template <class T>
std::string BytesOf(const T& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

void HandOver(const LIpcLinkData& data, const Tag& tag, RequestId request,
              const std::string& text) {
  world::At(data.Pair).Packets.push_back(BytesOf(request) + peers::AnswerFrame(tag, text, 0));
  reader::Tell(data, tag, request, true);
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

BoardRequest reader::Claim(const LIpcLinkData& data, const Tag& tag) {
  BoardRequest request = {};
  request.Id.Slot = -1;
  BoardClaim(data.Board, tag.first, tag.second, &request);
  return request;
}

void reader::Tell(const LIpcLinkData& data, const Tag& tag, RequestId request, bool handedOver) {
  const int entry = (request.Slot < 0 ? kNoEntry : request.Slot) | (handedOver ? kHandedOver : 0);
  world::At(data.PipeRead).Input += BytesOf(PipeRecord{
      .TaskName = tag.first, .AstInd = tag.second, .Entry = static_cast<std::uint16_t>(entry)});
}

void reader::HandOver(const LIpcLinkData& data, const Tag& tag, const std::string& text) {
  ::HandOver(data, tag, Claim(data, tag).Id, text);
}

void reader::Deliver(LIpcLinkData* data, const Tag& tag, const std::string& text, End end) {
  const BoardRequest request = Claim(*data, tag);
  if (request.Id.Slot < 0) return;
  if (request.Connection == 0 || request.Connection != ConnectionSerial(request.Socket) ||
      !BoardBeginWrite(data->Board, request))
    return ::HandOver(*data, tag, request.Id, text);
  peers::AnswerCame(request.Socket, peers::AnswerFrame(tag, text, 4));
  if (end != End::DiesUnsaid) BoardEndWrite(data->Board, request, true);
  if (end == End::Tells || end == End::TellsToo)
    Tell(*data, tag, request.Id, false);
  else
    Die(*data);
}
