// Management requests on a circle of links, in any order with what else happens to the links. The
// input is text, one step a line:
//
//   119 0 NEW TCPIP 127.0.0.1   a request: command, row id, argument ('|' stands for a NUL)
//   c 2                         link 2 is connected
//   d 2                         link 2 is disconnected
//   s 2                         a request is saved for link 2
//   w                           a request is saved that waits for the default link
//   i 2                         a request goes over link 2, if that is connected
//   t 60                        seconds pass
//   m                           memory runs out at the next allocation
//   p                           a new pass of the loop begins
#include <cstdlib>
#include <cstring>

#include "api/dbca.h"
#include "client/clntxch.h"
#include "client/primitiv.h"
#include "core/wire.h"
#include "link/link.h"
#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/answer_checks.h"
#include "tests/fuzz/world.h"

namespace {

constexpr char kNodetab[] =
    "SRV1 TCPIP 127.0.0.1 1060 3 60 10\nSRV2 LOCALS 17\nSRV3 LOCALI 0x20\nSRV4 DECNET x\n"
    "SRV5 TCPIP 10.0.0.1\n";
constexpr int kStepsMax = 200;

// A request as the client exchange leaves it.
ClientMessage Locate(const std::string& bytes) {
  ClientMessage msg = {};
  std::memcpy(Wire(&msg), bytes.data(), bytes.size());
  if (LocateTrailer(&msg, bytes.size(), kMessageMax) != 0) world::Violated("no request");
  msg.ClientSocket = -1;
  return msg;
}

void CheckAnswer(const ClientMessage& answer) {
  CheckLocated(answer, kMessageArea);
  for (std::size_t at = 0; at < 6; at += 2) {
    if (Get(answer.Strings + at, WireField<std::uint16_t>{0}) != 0)
      world::Violated("an answer has more than its item");
  }
  const std::uint16_t item = Get(answer.Strings + 6, WireField<std::uint16_t>{0});
  if (item != answer.CBL.LnBufRow || answer.TrailerOffset != kEmptyTrailerOffset + item)
    world::Violated("the item of %u bytes is not told right", item);
  if (Get(Trailer(&answer), kTrailerAstInd) != 5 || answer.TaskName != 7)
    world::Violated("the answer is not one to the request");
}

void Manage(const char* line) {
  char* rest;
  const long command = std::strtol(line, &rest, 10);
  const long rowId = std::strtol(rest, &rest, 10);
  std::string text = *rest == ' ' ? rest + 1 : rest;
  for (char& c : text) {
    if (c == '|') c = '\0';
  }
  ClientMessage msg = Locate(MakeMessage({.TaskName = 7,
                                          .AstInd = 5,
                                          .Node = {},
                                          .Command = "DBCA",
                                          .DbcApiCode = static_cast<std::uint16_t>(command),
                                          .RowId = static_cast<std::int32_t>(rowId),
                                          .Text = text}));
  MakeDbcApiAnswer(kFuzz, __LINE__, &msg);
  CheckAnswer(msg);
}

void Connect(Link* link) {
  if (!link || link->State != kLinkDisconnected) return;
  world::state.Connects = {world::Plan::AtOnce};
  if (ConnectTheLink(kFuzz, __LINE__, link) != 0) return;
  if (link->State == kLinkConnected) SendAllSavedMsgToTheLink(kFuzz, __LINE__, link);
}

void Disconnect(Link* link) {
  if (link) DisconnectLink(kFuzz, __LINE__, link, 4009, 0);
}

void Save(Link* link, const char* node) {
  if (!link || link->State == kLinkConnected) return;
  const ClientMessage msg = Locate(MakeMessage({.TaskName = 7, .AstInd = 9, .Node = node}));
  SaveUnsendMsg(kFuzz, __LINE__, &msg, link);
  AddClientPidIntoList(kFuzz, __LINE__, link, 7, -1);
}

void SendOver(Link* link) {
  if (!link || link->State != kLinkConnected) return;
  ClientMessage msg = Locate(MakeMessage({.TaskName = 7, .AstInd = 11, .Node = link->NodeName}));
  SendMsgToLink(kFuzz, __LINE__, link, &msg);
}

void Step(const std::string& line) {
  const unsigned number =
      line.size() > 1 ? static_cast<unsigned>(std::strtol(&line[1], nullptr, 10)) & 0xFF : 0;
  Link* const link = LinkNumber(number);
  switch (line.empty() ? '\0' : line[0]) {
    case 'c':
      return Connect(link);
    case 'd':
      return Disconnect(link);
    case 's':
      return Save(link, link ? link->NodeName : "");
    case 'w':
      return Save(g_DbcI.DefaultLink, "");
    case 'i':
      return SendOver(link);
    case 't':
      world::state.Now += number;
      return;
    case 'm':
      return world::LetFail(world::Call::Allocate, ENOMEM);
    case 'p':
      FreeRetiredLinks();
      return AnswerStrandedRequests();
    default:
      return Manage(line.c_str());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const SimulatedAgent agent(size);
  LoadNodetab(kNodetab);
  for (int i = 0; i < kStepsMax && !input.Empty(); ++i) {
    Step(input.Line());
    CheckRecords();
    CheckNoneWaitsInVain();
  }
  return 0;
}
