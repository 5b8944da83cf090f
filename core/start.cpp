// Start-up and shutdown.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "client/clntxch.h"
#include "client/permission.h"
#include "client/primitiv.h"
#include "core/footprint.h"
#include "core/init.h"
#include "core/loop.h"
#include "core/notify.h"
#include "core/stats.h"
#include "core/trace.h"
#include "core/wait.h"
#include "link/link.h"
#include "link/protocol.h"
#include "ping/ping.h"

static constexpr char Module[] = "dbc";

namespace {

int startPipe[2] = {-1, -1};  // releases the command that started the agent

// A socket must never get the number of a standard stream.
void OpenStandardStreams() {
  for (int fd = 0; fd < kFirstDescriptor; ++fd) {
    if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd) return;
  }
}

void CloseInheritedDescriptors() {
  for (int fd = kFirstDescriptor; fd <= kMaxDescriptors; ++fd) close(fd);
}

// Waits until the agent is ready or dead; a failed fork looks like a dead agent.
[[noreturn]] void WaitForAgent() {
  char byte;
  close(startPipe[1]);
  while (read(startPipe[0], &byte, 1) < 0 && errno == EINTR) continue;
  close(startPipe[0]);
  _exit(0);
}

void Detach() {
  std::fflush(stdout);
  if (pipe(startPipe) != 0) startPipe[0] = startPipe[1] = -1;
  if (fork() != 0) WaitForAgent();
  close(startPipe[0]);
  setsid();
  g_DbcI.SocketSets.AgentPid = getpid();
}

void ReleaseStarter() {
  if (g_DbcI.NoDaemon) return;
  const char ready = 1;
  while (write(startPipe[1], &ready, 1) < 0 && errno == EINTR) continue;
  close(startPipe[1]);
}

void WritePidFile() {
  if (!g_DbcI.PidFile) return;
  std::FILE* const stream = std::fopen(g_DbcI.PidFile, "we");
  if (!stream) {
    LOG(kLogResult, "File open failed: %s. Status: %d.", g_DbcI.PidFile, errno);
    return;
  }
  std::fprintf(stream, "%d\n", g_DbcI.SocketSets.AgentPid);
  std::fclose(stream);
}

// A parent outside the process id namespace has no number here; 0 would be our own group.
void SignalParent() {
  if (g_DbcI.SignalToParentProcess == 0) return;
  if (g_DbcI.ParentPid == 0) {
    LOG(kLogTrace, "The parent process cannot be signalled: it is in another pid namespace");
    return;
  }
  LOG(kLogTrace, "Send signal %d to parent process %d", g_DbcI.SignalToParentProcess,
      g_DbcI.ParentPid);
  kill(g_DbcI.ParentPid, g_DbcI.SignalToParentProcess);
}

void ConnectOnLoad() {
  if (!g_DbcI.ConnectOnLoad) return;
  LOG(kLogTrace, "Try connect all links after initialisation");
  Link* link = g_DbcI.LinkList;
  do {
    const int status = ConnectTheLink(HERE, link);
    if (status == 0 && link->State == kLinkConnected && g_DbcI.ConnectOnLoad) {
      LOG(kLogDefault, "Link %.8s connected", link->NodeName);
      UseTheLinkAsDefault(__LINE__, link);
      g_DbcI.ConnectOnLoad = 0;
    }
    link = link->Next;
  } while (link != g_DbcI.LinkList);
}

// Shutdown

// Reader children that are told to end must not be waited for in between, and a further stop
// request does not change the status that the loop has ended with.
void BlockSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGCHLD, SIGTERM, SIGINT}) sigaddset(&set, signal);
  sigprocmask(SIG_BLOCK, &set, nullptr);
}

void UninitLinks() {
  Link* link = g_DbcI.LinkList;
  if (!link) return;
  do {
    link->Protocol->UninitLink(HERE, link);
    if (!g_DbcI.PingMode) AnswerSavedRequests(link, 0, 0);
    link = link->Next;
  } while (link != g_DbcI.LinkList);
}

int Exit() {
  FlushClientsAtExit();
  FreeRetiredLinks();
  UninitTimer(HERE);
  UninitClientQueue(HERE);
  UninitStats();
  Free(g_DbcI.ClientPidList);
  if (g_DbcI.PidFile) unlink(g_DbcI.PidFile);
  if (g_DbcI.ExitStatus == -1) g_DbcI.ExitStatus = 0;
  if (g_DbcI.PingMode) DeinitPing(HERE);
  LOG(kLogTrace, "Exit SUCCESS");
  return static_cast<std::int16_t>(g_DbcI.ExitStatus);
}

// Opens the exchange to the clients and builds the links. Returns false when the agent cannot
// start, with the status of the process.
bool OpenForClients(int* status) {
  if (InitialiseClientQueue(HERE) != 0) {
    if (!g_DbcI.Unload) LOG(kLogResult, "Initialization of interprocess communication failed");
    *status = -1;
    return false;
  }
  ReadPermissions();
  InitialiseStats();
  if (InitLinkQueueFromNodetab(HERE) != 0) {
    g_DbcI.ExitStatus = -2;
    *status = Exit();
    return false;
  }
  SignalParent();
  ConnectOnLoad();
  return true;
}

}  // namespace

int AgentMain(int, char** argv) {
  OpenStandardStreams();
  CloseInheritedDescriptors();
  ReadDbcLogLevel();
  if (DbcInitGlobalInternal(HERE, argv) != 0) return -1;
  g_DbcI.GetMsg = GetMsgFromClient;
  g_DbcI.PutMsg = PutMsgToClient;
  ForgetRequests();
  if (DbcInitGlobal(HERE) != 0) return -1;
  if (!g_DbcI.NoDaemon) Detach();
  WritePidFile();
  InitialiseNotify();
  InitialiseSignalHandlers(HERE);
  if (InitialiseTimer(HERE) != 0) return -1;
  int status = 0;
  if (g_DbcI.PingMode) {
    if (InitialisePing(HERE) != 0) return static_cast<std::int16_t>(g_DbcI.ExitStatus);
  } else if (!OpenForClients(&status)) {
    return status;
  }
  PrepareWait();
  ReleaseStarter();
  NotifyReady();
  ReleaseStartPages();
  const int ended = RunLoop();
  NotifyStopping();
  BlockSignals();
  g_DbcI.ExitStatus = ended;
  EndWait();
  UninitLinks();
  return Exit();
}
