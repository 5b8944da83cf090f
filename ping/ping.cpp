#include "ping/ping.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "client/clntxch.h"
#include "client/message.h"
#include "client/primitiv.h"
#include "core/status.h"
#include "core/trace.h"
#include "link/link.h"

static constexpr char Module[] = "ping";

namespace {

constexpr int kVerdictBase = 4000;  // the exit status counts from here
constexpr int kNoClients = 2;       // no connection ever comes on this descriptor

struct Verdict {
  int Status;
  const char* Text;
};
constexpr Verdict kVerdicts[] = {
    {kStatusBadDescriptor, "Peer has no valid listener"},
    {kStatusSend, "Peer has no valid listener"},
    {kStatusReceive, "Peer has no valid listener"},
    {kStatusPeerClosed, "Peer has no valid listener"},
    {kStatusConnectTimeout, "Connect timeout has expired"},
    {kStatusReceiveTimeout, "Timeout has expired"},
    {kStatusUnsupported, "Protocol disabled"},
    {kStatusSecureRefused, "Peer has refused the secure connection"},
};

void LogConnectVerdict(int status, int sysErr) {
  if (sysErr == EHOSTUNREACH)
    LOG(kLogResult, "Host is unreachable");
  else if (sysErr == ECONNREFUSED)
    LOG(kLogResult, "Connection refused");
  else
    LOG(kLogResult, "Test connection has failed. Status %d:%d", status, sysErr);
}

void LogVerdict(int status, int sysErr) {
  if (status == kStatusConnect) return LogConnectVerdict(status, sysErr);
  for (const Verdict& verdict : kVerdicts) {
    if (verdict.Status != status) continue;
    LOG(kLogResult, "%s", verdict.Text);
    return;
  }
  LOG(kLogResult, "Agent internal status %d:%d", status, sysErr);
}

// The verdict is given once; a stop by signal gives none.
bool VerdictIsDue() { return g_DbcI.PingMode == 1 && !Stopping(); }

// The dispatch answers nobody when it cannot list the client.
bool ClientCanBeListed() { return FirstFree(g_DbcI.ClientPidList) || Grow(g_DbcI.ClientPidList); }

// The line's first word, cut to a node name, is the node to test.
bool IsNodeToTest(const char* line) {
  if (!g_DbcI.DefaultNode || g_DbcI.DefaultNode[0] == '\0') return true;
  char name[kNodeNameMax + 1] = "";
  for (std::size_t i = 0; i < kNodeNameMax && line[i] != '\0'; ++i) {
    if (std::isspace(static_cast<unsigned char>(line[i]))) break;
    name[i] = line[i];
  }
  return CompareNodeName(name, g_DbcI.DefaultNode) == 0;
}

// Reads on to the line of the node to test; null at the end of the file.
char* ReadNodeToTest(std::FILE* nodetab, char (&line)[kNodetabLineSize]) {
  while (std::fgets(line, sizeof line, nodetab)) {
    LOG(kLogTrace, "Parse nodetab string:\n%s", line);
    char* const node = NodeOfNodetabLine(line);
    if (node && IsNodeToTest(node)) return node;
  }
  return nullptr;
}

// Without the byte no request would ever be made, and the run would not end.
bool WriteRequest(int pipe) {
  const char request = 0;
  ssize_t written;
  do {
    written = write(pipe, &request, sizeof request);
  } while (written < 0 && errno == EINTR);
  return written == sizeof request;
}

// The pipe stands in for a client connection with one request waiting. Its read end never blocks.
bool OpenPipe() {
  if (pipe2(g_DbcI.PingPipe, O_NONBLOCK) != 0) {
    LOG(kLogError, "create pipe failed. Call pipe. errno %d", errno);
    return false;
  }
  if (!WriteRequest(g_DbcI.PingPipe[1])) {
    LOG(kLogError, "create pipe failed. Call write. errno %d", errno);
    DeinitPing(HERE);
    return false;
  }
  REGISTER_SOCKET_FOR_READ_EVENT(HERE, g_DbcI.PingPipe[0]);
  FD_SET(g_DbcI.PingPipe[0], &g_DbcI.ClientSockets);
  return true;
}

}  // namespace

int InitNodeForPing(const char* file, int line) {
  ENTER();
  std::FILE* const nodetab = OpenNodetabFile(HERE);
  if (!nodetab) {
    LOG(kLogResult, "File nodetab is not found. Exit.");
    return LEAVE(-1, "FAILED no nodetab");
  }
  char text[kNodetabLineSize];
  char* const node = ReadNodeToTest(nodetab, text);
  const bool parsed = node && ParseNodetabString(HERE, node, 1);
  std::fclose(nodetab);
  if (!node) {
    LOG(kLogResult, "Node(s) is not found");
    return LEAVE(-1, "FAILED Do not found");
  }
  if (!parsed) {
    LOG(kLogResult, "Node string has errors");
    return LEAVE(-1, "FAILED Parce nodetab string");
  }
  g_DbcI.DefaultLink = g_DbcI.FirstLink = g_DbcI.CircleStartLink = g_DbcI.LinkList;
  return 0;
}

int InitialisePing(const char*, int) {
  const int result = InitNodeForPing(HERE);
  if (result != 0) return result;
  // One node is tested: there is none to change to, and the request waits for its connection.
  g_DbcI.AutoConnect = g_DbcI.AutoChange = g_DbcI.ConnError = 0;
  if (!OpenPipe()) {
    if (Tracing()) TraceLeave(HERE, __func__, "FAILED InitialisePing");
    return -1;
  }
  g_DbcI.GetMsg = PingPseudoReadMsg;
  g_DbcI.PutMsg = PingPseudoPutMsgToClient;
  g_DbcI.ClientListenSocket = kNoClients;
  return 0;
}

int PingPseudoReadMsg(const char* file, int line, ClientMessage* msg, int) {
  ENTER();
  char request;
  [[maybe_unused]] const ssize_t got = read(g_DbcI.PingPipe[0], &request, sizeof request);
  if (!ClientCanBeListed()) {
    PingAnaliseRetcode(HERE, g_DbcI.DefaultLink, kStatusNotRecorded, 0);
    return 0;
  }
  std::memset(static_cast<void*>(msg), 0, sizeof *msg);
  msg->Length = kEmptyLength;
  msg->TaskName = g_DbcI.SocketSets.AgentPid;
  std::memcpy(msg->CBL.Command, "TS T", sizeof msg->CBL.Command);
  std::memcpy(msg->CBL.Node, g_DbcI.DefaultLink->NodeName, sizeof msg->CBL.Node);
  msg->TrailerOffset = kEmptyTrailerOffset;
  Put(Trailer(msg), kTrailerTaskName, g_DbcI.SocketSets.AgentPid);
  return static_cast<int>(msg->Length);
}

int PingPseudoPutMsgToClient(const char* file, int line, ClientMessage* msg) {
  ENTER();
  if (!VerdictIsDue()) return 0;
  const bool isNodes = g_DbcI.ServedLink || msg->CBL.CodErr == 0;
  if (!isNodes)  // the agent's own: nobody has been asked
    return PingAnaliseRetcode(HERE, g_DbcI.DefaultLink, msg->CBL.CodErr, msg->CBL.SysErr);
  LOG(kLogResult, "Node \"%.8s\" is alive", msg->CBL.Node);
  g_DbcI.ExitStatus = -1;
  g_DbcI.PingMode = 2;
  return 0;
}

int PingAnaliseRetcode(const char* file, int line, Link* link, int status, int sysErr) {
  ENTER();
  if (!VerdictIsDue()) return 0;
  LOG(kLogResult, "Node \"%.8s\" is not alive", link->NodeName);
  LogVerdict(status, sysErr);
  // kept: a status of 4000 would not end the run.
  g_DbcI.ExitStatus = static_cast<std::int16_t>(status - kVerdictBase);
  return 0;
}

void DeinitPing(const char* file, int line) {
  ENTER();
  close(g_DbcI.PingPipe[0]);
  close(g_DbcI.PingPipe[1]);
}
