// Taking links down, moving the default link, requests out and answers in.
#include "link/link.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "api/dbca.h"
#include "client/clntxch.h"
#include "client/parking.h"
#include "client/primitiv.h"
#include "core/stats.h"
#include "core/status.h"
#include "core/trace.h"
#include "link/joint.h"
#include "link/protocol.h"
#include "ping/ping.h"

static constexpr char Module[] = "link";

namespace {

constexpr std::size_t kStringUnitsMax = 4094;  // of 16 bits: the largest counted string

Link* retiredLinks;  // deleted, to be freed; chained through DriverData, which they no longer have

// Every request is taken out of its record before its answer goes out: what the answer sets off
// may come back here, and must not meet it again.

void AnswerSentRequests(const Link* link, int tavrinErr, int sysErr) {
  ClientMessage answer;
  MsgInfo info;
  for (std::int32_t index = 0; TakeMsgInfo(link, &index, &info);) {
    StatsFailedRequest(link->Books.StatsRow);
    StatsAgentAnswer(tavrinErr);
    MakeAnswerFromMsgInfo(HERE, &answer, &info, tavrinErr, sysErr);
    PutMsgToClient(HERE, &answer);
  }
}

int CircleFailure() { return g_DbcI.Err1001 ? kStatusCircleFailed : kStatusConnect; }

bool TimerWillTryAgain() { return g_DbcI.AutoConnectTimeout != 0 && g_DbcI.CircleTimeCount != 0; }

int CountLinks() {
  int count = 0;
  const Link* link = g_DbcI.LinkList;
  do {
    ++count;
    link = link->Next;
  } while (link != g_DbcI.LinkList);
  return count;
}

// The link after the default one. Links that the timer has found broken and that were left as they
// were, because another one took over, are taken down first: else two of them could pass the
// default to each other for ever, with requests waiting on both.
Link* NextCandidate() {
  Link* candidate = g_DbcI.DefaultLink->Next;
  while (candidate->Broken != 0 && candidate != g_DbcI.DefaultLink) {
    DisconnectLink(HERE, candidate, candidate->Broken, 0);
    candidate = g_DbcI.DefaultLink->Next;
  }
  return candidate;
}

// Asks one link after the other, starting after the default one, until one is not disconnected:
// true. False: the circle is complete. Either way the last one is the default link now.
//
// Where the circle has no start it begins here, and ends here even if it goes on later: otherwise
// links that fail one after the other, each while it is the default, would keep it going for ever.
bool ConnectSomeLink() {
  g_DbcI.CircleStartLink = CircleEntry();
  const Link* const end = g_DbcI.CircleStartLink;  // it may be deleted: the links are counted
  for (int left = CountLinks(); left > 0 && g_DbcI.DefaultLink; --left) {
    Link* const candidate = NextCandidate();
    MoveDefaultRequests(g_DbcI.DefaultLink, candidate);
    g_DbcI.DefaultLink = candidate;
    LOG(kLogDefault, "Set link  %.8s as default", candidate->NodeName);
    if (candidate == end) return false;
    LOG(kLogDefault, "Try connect link as default %.8s", candidate->NodeName);
    if (candidate->State != kLinkDisconnected || ConnectTheLink(HERE, candidate) == 0) return true;
    LOG(kLogTrace, "Connect link %.8s failed", candidate->NodeName);
  }
  return false;
}

// The circle stopped at a connected link. Its new requests go out; those that named the failed
// link, if that is down, have nothing to wait for.
int UseConnectedLink(const Link* failedLink, int tavrinErr) {
  Link* const link = g_DbcI.DefaultLink;
  g_DbcI.CircleStartLink = link;
  if (failedLink && failedLink->State == kLinkDisconnected)
    AnswerSavedRequests(failedLink, tavrinErr, 0);
  SendAllSavedMsgToTheLink(HERE, link);
  LOG(kLogTrace, "Return 0 LINK_CONNECTED");
  return 0;
}

void TakeDown(Link* link) {
  if (link->State == kLinkConnected) LOG(kLogDefault, "Disconnect link  %.8s", link->NodeName);
  ForgetJoined(link);
  link->Protocol->DisconnectLink(HERE, link);
  link->State = kLinkDisconnected;
  StatsLinkState(link->Books.StatsRow, kLinkDisconnected);
  StatsLinkUnsent(link->Books.StatsRow, 0);
  link->Broken = 0;
  ReleaseParkedBehind(link);
}

// The timer connects only a link that is down: one that has failed is taken down, but the requests
// that wait for the default go on waiting. A link that is up needs no timer.
void PrepareForTimer(const Link* failedLink, int tavrinErr) {
  Link* const link = g_DbcI.DefaultLink;
  if (link == failedLink && link->State != kLinkDisconnected) {
    TakeDown(link);
    AnswerSentRequests(link, tavrinErr, 0);
  } else if (link->State == kLinkConnected) {
    SendAllSavedMsgToTheLink(HERE, link);
  }
}

// The circle is complete: the timer tries again while its count runs; else it has failed, and all
// who followed the default link are told.
int EndCircle(const Link* failedLink, int tavrinErr) {
  if (!g_DbcI.DefaultLink) return CircleFailure();
  LOG(kLogTrace, "Link %.8s is last link in the list", g_DbcI.DefaultLink->NodeName);
  if (TimerWillTryAgain()) {
    LOG(kLogTrace, "Full connect cicle failed. Wait timer event");
    PrepareForTimer(failedLink, tavrinErr);
    return 0;
  }
  LOG(kLogDefault, "Full connect circle failed or timeout expired");
  const int result = CircleFailure();
  DisconnectLink(HERE, g_DbcI.DefaultLink, result, 0);
  return result;
}

// Shows the records that an answer is compared with, up to the one that it belongs to.
void TraceRequestsInFlight(int taskName, std::uint16_t astInd, const MsgInfo* found) {
  for (MsgInfo* info = GetNextMsgInfo(HERE, nullptr); info; info = GetNextMsgInfo(HERE, info)) {
    LOG(kLogTrace, "MsgInfo->TaskName = %d , MsgInfo->AstInd = %d TaskName = %d AstInd = %d",
        info->TaskName, info->AstInd, taskName, astInd);
    if (info == found) return;
  }
}

std::size_t UnitsOf(std::uint16_t count) { return (count + 1U) / 2 + 1; }

}  // namespace

void AnswerSavedRequests(const Link* link, int tavrinErr, int sysErr) {
  ClientMessage answer;
  std::int32_t index = 0;
  while (SavedMessage* const saved = NextSavedOf(link, &index)) {
    const MsgInfo info = InfoOfRequest(&saved->Message);
    ReleaseSaved(saved);
    StatsFailedRequest(link->Books.StatsRow);
    StatsAgentAnswer(tavrinErr);
    MakeAnswerFromMsgInfo(HERE, &answer, &info, tavrinErr, sysErr);
    PutMsgToClient(HERE, &answer);
  }
}

int ConnectTheLink(const char* file, int line, Link* link) {
  if (Stopping()) {
    errno = ECANCELED;
    return kStatusConnect;
  }
  StatsConnectTried(link->Books.StatsRow);
  errno = 0;
  if (link->Deleted) return kStatusUnknownNode;
  const int status = link->Protocol->ConnectLink(file, line, link);
  if (status != 0) StatsConnectFailed(link->Books.StatsRow, status, errno);
  StatsLinkState(link->Books.StatsRow, link->State);
  if (status != 0 || link->State != kLinkConnected || link->Books.Waiting == 0) return status;
  return SendAllSavedMsgToTheLink(HERE, link);
}

bool OnlyOneLink() { return g_DbcI.LinkList && g_DbcI.LinkList->Next == g_DbcI.LinkList; }

Link* CircleEntry() { return g_DbcI.CircleStartLink ? g_DbcI.CircleStartLink : g_DbcI.DefaultLink; }

bool ReconnectionFollows(const Link* link) {
  return link == g_DbcI.DefaultLink && (g_DbcI.AutoConnect || g_DbcI.AutoChange) && !OnlyOneLink();
}

int DisconnectLink(const char* file, int line, Link* link, int tavrinErr, int sysErr) {
  ENTER("Link = %.8s, TavrinErr = %d, SysErr = %d", link->NodeName, tavrinErr, sysErr);
  TakeDown(link);
  if (g_DbcI.PingMode == 1) {
    PingAnaliseRetcode(HERE, link, tavrinErr, sysErr);
    return LEAVE(-1, "SUCCESS ping");
  }
  AnswerSentRequests(link, tavrinErr, sysErr);
  AnswerSavedRequests(link, tavrinErr, sysErr);
  SyncNode(HERE, link);
  return 0;
}

int TryConnectDefaultLinkToNextServer(const char* file, int line, Link* failedLink, int tavrinErr) {
  ENTER();
  int result = 0;
  if ((!g_DbcI.AutoConnect && !g_DbcI.AutoChange) || OnlyOneLink() || !g_DbcI.DefaultLink) {
    LOG(kLogTrace, "Not set flags AUTOCONNECT or AUTOCHANGE");
    DisconnectLink(HERE, failedLink, tavrinErr, 0);
    return tavrinErr;
  }
  if (!g_DbcI.AutoConnect) {
    g_DbcI.DefaultLink = g_DbcI.DefaultLink->Next;
    LOG(kLogDefault, "New default link is %.8s", g_DbcI.DefaultLink->NodeName);
  } else {
    LOG(kLogTrace, "Try circle link connect");
    if (!ConnectSomeLink())
      result = EndCircle(failedLink, tavrinErr);
    else if (g_DbcI.DefaultLink->State == kLinkConnected)
      return UseConnectedLink(failedLink, tavrinErr);
  }
  if (failedLink != g_DbcI.DefaultLink) DisconnectLink(HERE, failedLink, tavrinErr, 0);
  LOG(kLogTrace, "Return %d", result);
  return result;
}

int SendMsgToLink(const char* file, int line, Link* link, ClientMessage* msg) {
  ENTER();
  MsgInfo info = InfoOfRequest(msg);
  info.Link = link;
  if (SaveMsgInfo(HERE, &info) != 0) {
    LOG(kLogTrace, "SaveMsgInfo return bad status. Send Error to client");
    MakeAnswerFromMsgInfo(HERE, msg, &info, kStatusNotRecorded, 0);
    StatsAgentAnswer(kStatusNotRecorded);
    g_DbcI.PutMsg(HERE, msg);
    return LEAVE(-1, "FAILED Save message");
  }
  unsigned char trailer[kTrailerSize];
  std::memcpy(trailer, Trailer(msg), sizeof trailer);
  if (link->Protocol->SendToNetwork(HERE, link, msg) == 0) {
    StatsSent(link->Books.StatsRow, kCblAt + msg->TrailerOffset + kTrailerSize, CountsOf(link),
              msg->ClientSocket, CountsOf(msg->ClientSocket));
    NoteJoined(link, msg, trailer);
    return 0;
  }
  LOG(kLogTrace, "Send to network failed");
  DisconnectLink(HERE, link, kStatusSend, errno);
  return LEAVE(-1, "FAILED send(protocol function)");
}

int SendAllSavedMsgToTheLink(const char* file, int line, Link* link) {
  ENTER();
  std::int32_t index = 0;
  while (SavedMessage* const saved = NextSavedOf(link, &index)) {
    ReleaseSaved(saved);  // from here on its MsgInfo stands for it
    if (SendMsgToLink(HERE, link, &saved->Message) == 0) continue;
    const int error = errno;
    DisconnectLink(HERE, link, kStatusSend, error);
    LOG(kLogTrace, " SendMsgToLink from ReadyTcpForWrite failed. errno %d", error);
    return LEAVE(kStatusSend, "FAILED send message");
  }
  return 0;
}

int HandleNetworkMsg(const char* file, int line, ClientMessage* msg) {
  ENTER();
  std::size_t at = kStringsAt;
  for (int i = 0; i < 4; ++i) {
    // Beyond this nothing need have come, nor been set.
    const bool counted = at + 2 + kTrailerSize <= kMessageArea;
    const std::size_t units =
        counted ? UnitsOf(Get(Wire(msg) + at, WireField<std::uint16_t>{0})) : 0;
    at += 2 * units;
    if (units == 0 || units > kStringUnitsMax || at + kTrailerSize > kMessageArea) {
      LOG(kLogError, "Network packet format is fail.");
      return LEAVE(static_cast<int>(kStatusReceive), "FAILED format");
    }
  }
  msg->TrailerOffset = static_cast<std::uint16_t>(at - kCblAt);
  msg->Length = msg->TrailerOffset + 52U;
  return 0;
}

MsgInfo* MarkTheMsgAsReceived(const char* file, int line, int taskName, std::uint16_t astInd) {
  return MarkTheMsgAsReceived(file, line, taskName, astInd,
                              FindMsgInfo(g_DbcI.ServedLink, taskName, astInd));
}

MsgInfo* MarkTheMsgAsReceived(const char* file, int line, int taskName, std::uint16_t astInd,
                              MsgInfo* info) {
  ENTER();
  if (Tracing()) TraceRequestsInFlight(taskName, astInd, info);
  if (!info) {
    LOG(kLogError, "The message were not send by the agent. Skip the message");
    StatsUnasked(g_DbcI.ServedLink ? g_DbcI.ServedLink->Books.StatsRow : kNoStatsRow);
    return LEAVE(info, "FAILED argument is not in list sended");
  }
  ReleaseAnswered(info);
  return info;
}

int ReturnAnswerFromNetworkToClient(const char* file, int line, ClientMessage* msg) {
  ENTER();
  msg->TaskName = Get(Trailer(msg), kTrailerTaskName);
  const MsgInfo* const info =
      MarkTheMsgAsReceived(HERE, msg->TaskName, Get(Trailer(msg), kTrailerAstInd));
  if (!info) return LEAVE(0, "FAILED MarkTheMsgAsReceived");
  if (const Link* const link = g_DbcI.ServedLink)
    StatsNodeAnswer(link->Books.StatsRow, kCblAt + msg->TrailerOffset + kTrailerSize, info->SentAt,
                    CountsOf(link));
  msg->ClientSocket = info->Socket;
  return g_DbcI.PutMsg(HERE, msg);
}

void MoveDefaultRequests(const Link* from, Link* to) {
  if (!from || from == to) return;
  std::int32_t index = 0;
  while (SavedMessage* const saved = NextSavedOf(from, &index)) {
    if (NamesDefault(saved->Message.CBL.Node)) MoveSaved(saved, to);
  }
}

void AnswerStrandedRequests() {
  for (SavedMessage* saved = nullptr; (saved = GetNextUnsendMsg(saved)) != nullptr;) {
    const Link* const link = saved->Link;
    if (link->State != kLinkDisconnected) continue;
    const bool circleWaits = g_DbcI.AutoConnect && TimerWillTryAgain() && link == CircleEntry();
    if (!circleWaits) AnswerSavedRequests(link, CircleFailure(), 0);
  }
}

void RetireLink(Link* link) {
  if (g_DbcI.ServedLink == link) g_DbcI.ServedLink = nullptr;
  FreeLinkStats(link->Books.StatsRow);
  link->Books.StatsRow = kNoStatsRow;
  ForgetLinkOfClients(link);
  ForgetParkedBehind(link);
  MsgInfo info;
  for (std::int32_t index = 0; TakeMsgInfo(link, &index, &info);) continue;
  link->DriverData = retiredLinks;
  retiredLinks = link;
  AnswerSavedRequests(link, kStatusUnknownNode, 0);
}

void FreeRetiredLinks() {
  while (retiredLinks) {
    Link* const link = retiredLinks;
    retiredLinks = static_cast<Link*>(link->DriverData);
    std::free(link);
  }
}
