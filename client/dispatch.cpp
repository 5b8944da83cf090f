#include "client/dispatch.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "api/dbca.h"
#include "client/clntxch.h"
#include "client/parking.h"
#include "client/permission.h"
#include "client/primitiv.h"
#include "core/stats.h"
#include "core/status.h"
#include "core/stream.h"
#include "core/trace.h"
#include "link/joint.h"
#include "link/link.h"
#include "link/protocol.h"

static constexpr char Module[] = "clntxch";

namespace {

// The request in hand. It belongs to its connection, not to a number: what is done for its link may
// close that connection, and the number may be in use again.
struct Request {
  ClientMessage* Message;
  std::uint32_t Connection;   // serial number
  const struct Link* Listed;  // the link under which the client is listed; null: it is not yet
};

void NoticeClosed(const Request& request) {
  ClientMessage* const msg = request.Message;
  if (ConnectionSerial(msg->ClientSocket) != request.Connection) msg->ClientSocket = -1;
}

// Answers a request that was not sent to a node.
void Answer(const Request& request, int codErr, int sysErr) {
  NoticeClosed(request);
  const MsgInfo info = InfoOfRequest(request.Message);
  MakeAnswerFromMsgInfo(HERE, request.Message, &info, codErr, sysErr);
  StatsAgentAnswer(codErr);
  g_DbcI.PutMsg(HERE, request.Message);
}

Link* FindLink(const char* node) {
  Link* link = g_DbcI.LinkList;
  if (!link) return nullptr;
  do {
    if (CompareNodeName(link->NodeName, node) == 0) return link;
    link = link->Next;
  } while (link && link != g_DbcI.LinkList);
  return nullptr;
}

// A link found by name becomes the entry of the circle: the next search starts with it.
Link* ChooseLink(const ClientMessage* msg) {
  if (NamesDefault(msg->CBL.Node)) return g_DbcI.DefaultLink;
  Link* const link = FindLink(msg->CBL.Node);
  if (link) g_DbcI.LinkList = link;
  return link;
}

void Save(const Request& request, Link* link) {
  NoticeClosed(request);
  if (SaveUnsendMsg(HERE, request.Message, link) != 0)
    Answer(request, kStatusNotRecorded, 0);
  else
    ParkIfFull(request.Message->ClientSocket, link);
}

Outcome AnswerWhileConnecting(const Request& request) {
  LOG(kLogTrace, "Connection is in progress state. return error to client");
  Answer(request, g_DbcI.Err1001 ? kStatusCircleFailed : kStatusConnect, EINPROGRESS);
  return {};
}

Outcome Send(const Request& request, Link* link) {
  NoticeClosed(request);
  LOG(kLogTrace, "Link %.8s is already connect state. Try send message", link->NodeName);
  const int socket = request.Message->ClientSocket;
  const int result = SendMsgToLink(HERE, link, request.Message);
  if (result == 0) {
    LOG(kLogTrace, "Link %.8s SUCESS send message", link->NodeName);
    ParkIfFull(socket, link);
    if (JointIsFull()) SendTogether();
    return {};
  }
  if (result < 0) LOG(kLogTrace, "SendMsgToLink return < 0. Save the message. Send this later.");
  LOG(kLogTrace, "Link %.8s send message failed", link->NodeName);
  DisconnectLink(HERE, link, kStatusSend, errno);
  return {-1, "FAILED send message"};
}

Outcome ServeByState(const Request& request, Link* link) {
  if (link->State == kLinkConnected) return Send(request, link);
  if (link->State == kLinkDisconnected) return {};
  if (g_DbcI.ConnError) return AnswerWhileConnecting(request);
  Save(request, link);
  return {0, "SUCCESS connect in progress. Message saved"};
}

// kept: the halved time-out is in ticks of 2 seconds.
void StartCircleTimer(const Link* link) {
  if (g_DbcI.AutoConnect && ReconnectionFollows(link) && g_DbcI.AutoConnectTimeout != 0 &&
      g_DbcI.CircleTimeCount == 0)
    g_DbcI.CircleTimeCount = g_DbcI.AutoConnectTimeout / 2;
}

// The default link failed: the request waits for whatever becomes the default, or is answered.
Outcome FallBack(const Request& request, Link* link, int status) {
  Save(request, link);
  LOG(kLogTrace, "It's default link. Try set new default link");
  if (TryConnectDefaultLinkToNextServer(HERE, link, status) == 0) return {};
  return {0, "FAILED TryConnectDefultLinkToNextServer"};
}

Outcome BringUpAndServe(const Request& request, Link* link) {
  StartCircleTimer(link);
  LOG(kLogTrace, "Link %.8s is disconnect state. Try up the link", link->NodeName);
  const int status = ConnectTheLink(HERE, link);
  if (status == 0) return ServeByState(request, link);
  LOG(kLogTrace, "Connect link %.8s was failed", link->NodeName);
  if (ReconnectionFollows(link)) return FallBack(request, link, status);
  if (DisconnectLink(HERE, link, status, errno) == 0) Answer(request, status, errno);
  return {-1, "FAILED connect"};
}

// Only what is written to a link that is up can join what other requests have left to be sent;
// anything else may take long, and they must not wait for it.
bool CanJoin(const ClientMessage* msg, const Link* link) {
  return link && link->State == kLinkConnected && link->Protocol->Joins && !IsManagement(msg);
}

// The link of a request, after what has to leave before it has left.
Link* PrepareLink(const Request& request) {
  Link* const link = ChooseLink(request.Message);
  if (NextJoined() < 0 || CanJoin(request.Message, link)) return link;
  SendTogether();
  return ChooseLink(request.Message);
}

Outcome Manage(const Request& request) {
  MakeDbcApiAnswer(HERE, request.Message);
  NoticeClosed(request);
  g_DbcI.PutMsg(HERE, request.Message);
  return {0, "SUCCESS DbcApi"};
}

Outcome Serve(const Request& request) {
  ClientMessage* const msg = request.Message;
  Link* const link = PrepareLink(request);
  if (IsManagement(msg)) return Manage(request);
  if (!link) {
    LOG(kLogTrace, "Node name %.8s dasn't correspondence to the nodetab file information",
        msg->CBL.Node);
    Answer(request, kStatusUnknownNode, 0);
    return {-1, "FAILED node name not found"};
  }
  if (link != request.Listed &&
      AddClientPidIntoList(HERE, link, msg->TaskName, msg->ClientSocket) != 0)
    return {-1, "FAILED AddClientPidIntoList"};
  return link->State == kLinkDisconnected ? BringUpAndServe(request, link)
                                          : ServeByState(request, link);
}

}  // namespace

int HandleMessageFromClientQueue(const char* file, int line, int socket) {
  ENTER("(Socket = %d )", socket);
  ClientMessage msg;
  const int length = g_DbcI.GetMsg(HERE, &msg, socket);
  if (length < 0) {
    LOG(kLogError, "Client message reading failed");
    return LEAVE(-1, "FAILED read message");
  }
  if (length == 0) return 0;
  StatsRequest(socket, msg.TaskName, msg.Length + 4, IsManagement(&msg));
  if (!IsPermitted(&msg)) return LEAVE(RefuseRequest(&msg), "FAILED not permitted");
  const Request request = {
      .Message = &msg, .Connection = ConnectionSerial(msg.ClientSocket), .Listed = nullptr};
  const Outcome outcome = Serve(request);
  return LEAVE(outcome.Status, outcome.Word);
}

void SendTogether() {
  while (NextJoined() >= 0) {
    SendJoinedRequests();
    for (LeftOver* rest = TakeLeftOvers(); rest;) {
      LeftOver* const next = rest->Next;
      Serve({.Message = &rest->Message, .Connection = rest->Connection, .Listed = rest->Listed});
      std::free(rest);
      rest = next;
    }
  }
}
