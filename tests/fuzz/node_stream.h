// For the targets that read what a node sends: a link that is connected over a real socket, and
// requests that wait for its answers.
#pragma once
#include <sys/ioctl.h>

#include <cstdio>

#include "client/clntxch.h"
#include "client/primitiv.h"
#include "core/stream.h"
#include "link/link.h"
#include "tests/fuzz/answer_checks.h"
#include "tests/fuzz/stream_target.h"

// Makes the only link, connected over `socket`, with requests in flight.
inline Link* ConnectedLink(const char* line, int socket) {
  char text[128];
  std::snprintf(text, sizeof text, "%s", line);
  Link* const link = ParseNodetabString(kFuzz, __LINE__, text, 1);
  g_DbcI.FirstLink = g_DbcI.DefaultLink = g_DbcI.CircleStartLink = link;
  link->State = kLinkConnected;
  REGISTER_SOCKET_FOR_READ_EVENT(kFuzz, __LINE__, socket);
  REGISTER_SOCKET_FOR_THE_LINK(kFuzz, __LINE__, socket, link);
  g_DbcI.PutMsg = CheckedPut;
  for (std::uint16_t tag = 0; tag < 4; ++tag) {
    const MsgInfo info = {.Link = link, .TaskName = 7, .Socket = -1, .AstInd = tag};
    SaveMsgInfo(kFuzz, __LINE__, &info);
  }
  return link;
}

inline bool HasInput(int socket) {
  int unread = 0;
  return FrameWaits(socket) || (ioctl(socket, FIONREAD, &unread) == 0 && unread > 0);
}

// Serves the link's input as the loop does, until nothing more has come.
inline void ServeInput(Link* link, int socket) {
  do {
    g_DbcI.ServedLink = link;
    link->Protocol->ReadyForRead(kFuzz, __LINE__, link);
    g_DbcI.ServedLink = nullptr;
  } while (link->State == kLinkConnected && HasInput(socket));
}

inline void ServeStream(StreamTarget* target, Link* link) {
  const int socket = target->Ours();
  while (link->State == kLinkConnected && target->NextPiece()) ServeInput(link, socket);
  if (link->State == kLinkConnected) ServeInput(link, socket);
  if (link->State == kLinkConnected)
    world::Violated("the end of the stream did not take the link down");
  CheckRecords();
}
