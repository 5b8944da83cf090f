#include "protocols/lipc.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/clntxch.h"
#include "client/connection.h"
#include "client/message.h"
#include "core/process.h"
#include "core/socket_options.h"
#include "core/stats.h"
#include "core/status.h"
#include "core/stream.h"
#include "core/trace.h"
#include "core/wait.h"
#include "link/link.h"
#include "protocols/address_text.h"
#include "protocols/lipc_board.h"
#include "protocols/lipc_queue.h"
#include "protocols/lipc_reader.h"

static constexpr char Module[] = "lipc";

namespace {

constexpr int kPipeSize = 1024 * 1024;   // of records: the child hardly ever waits for the agent
constexpr int kFormerReaderWait = 1000;  // milliseconds for a reader that was told to end
constexpr int kLastWriteWait = 100;      // milliseconds for the child to finish a write

// A reader that was told to end.
struct EndingReader {
  pid_t Pid;
};
bool InUse(const EndingReader& reader) { return reader.Pid != 0; }

GrowArray<EndingReader> ending;
LIpcLinkData* refused;  // the records of refused addresses

// The reader

// Only its parent can say of a child that it has not ended; another process may have its number.
bool Runs(pid_t child) { return child > 0 && waitpid(child, nullptr, WNOHANG) == 0; }

// Nothing collects the child between the look and the signal.
void TellToEnd(pid_t child) {
  sigset_t ofChildren, ordinary;
  sigemptyset(&ofChildren);
  sigaddset(&ofChildren, SIGCHLD);
  sigprocmask(SIG_BLOCK, &ofChildren, &ordinary);
  if (Runs(child)) {
    kill(child, SIGTERM);
    EndingReader* const spare = FirstFree(ending);
    EndingReader* const reader = spare ? spare : Grow(ending);
    if (reader) reader->Pid = child;
  }
  sigprocmask(SIG_SETMASK, &ordinary, nullptr);
}

bool AllHaveEnded() {
  bool all = true;
  for (EndingReader& reader : ending) {
    if (InUse(reader) && !Runs(reader.Pid)) reader.Pid = 0;
    all = all && !InUse(reader);
  }
  return all;
}

// A reader that has been told to end must be gone before the next one starts: its end would be
// noticed with the next one alive, and the agent would wait for that one too.
void AwaitFormerReaders() {
  for (int i = 0; i < kFormerReaderWait && !AllHaveEnded() && !Stopping(); ++i) poll(nullptr, 0, 1);
}

// Connecting

void DetachSegment(LIpcLinkData* data) {
  if (data->Shm) shmdt(data->Shm);
  data->Shm = nullptr;
}

// A segment too small to hold a process id belongs to no kernel.
bool KernelIsAlive(const LIpcLinkData* data) {
  shmid_ds segment;
  if (shmctl(data->ShmId, IPC_STAT, &segment) != 0) return false;
  if (segment.shm_segsz < sizeof(pid_t)) {
    errno = ESRCH;
    return false;
  }
  return ProcessIsAlive(KernelPid(data));
}

// Returns null, or the word for the trace. kept: what was acquired is not released when a later
// step fails; a segment still attached is given back when the next attempt begins.
const char* AttachSegment(LIpcLinkData* data) {
  DetachSegment(data);
  data->ShmId = shmget(data->Key, 0, 0);
  if (data->ShmId < 0) {
    LOG(kLogDriver, "LIPC shmget failed. errno = %d", errno);
    return "FAILED shmget";
  }
  void* const memory = shmat(data->ShmId, nullptr, SHM_RDONLY);
  if (reinterpret_cast<std::intptr_t>(memory) == -1) {
    LOG(kLogDriver, "LIPC shmat failed. errno = %d", errno);
    return "FAILED shmat";
  }
  data->Shm = memory;
  if (KernelIsAlive(data)) return nullptr;
  LOG(kLogDriver, "LIPC send 0 signal to kernel failed. errno %d", errno);
  return "FAILED no kernel";
}

const char* OpenQueue(LIpcLinkData* data) {
  data->MsgQueueId = msgget(data->Key, 0);
  if (data->MsgQueueId < 0) {
    LOG(kLogDriver, "LIPC msgget failed. errno %d", errno);
    return "FAILED msgget";
  }
  data->SemId = semget(data->Key, 1, 0);
  if (data->SemId < 0) {
    // kept: the wording of the message queue serves the semaphore too.
    LOG(kLogDriver, "LIPC msgget failed. errno %d", errno);
    return "FAILED msgget";
  }
  return nullptr;
}

void CloseBoth(const int (&ends)[2]) {
  CloseKeepingErrno(ends[0]);
  CloseKeepingErrno(ends[1]);
}

void CloseChannels(const ReaderChannels& channels) {
  CloseBoth(channels.Pipe);
  CloseBoth(channels.Pair);
}

// Of the four ends only the one that the agent reads from is a link's descriptor.
Outcome OpenChannels(ReaderChannels* channels) {
  if (pipe(channels->Pipe) != 0) {
    LOG(kLogDriver, "LIPC pipe failed. errno %d", errno);
    return {kStatusConnect, "FAILED pipe"};
  }
  if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, channels->Pair) != 0) {
    LOG(kLogDriver, "LIPC socketpair failed. errno %d", errno);
    CloseBoth(channels->Pipe);
    return {kStatusConnect, "FAILED socketpair"};
  }
  if (channels->Pipe[0] >= kMaxDescriptors) {
    LOG(kLogDriver, "LIPC pipe return too big value = %d", channels->Pipe[0]);
    CloseChannels(*channels);
    errno = 0;
    return {kStatusDescriptor, "FAILED too many connections"};
  }
  fcntl(channels->Pipe[0], F_SETFL, O_NONBLOCK);
  fcntl(channels->Pipe[1], F_SETPIPE_SZ, kPipeSize);
  return {};
}

// Connections for which something is kept are the agent's from the start.
Outcome OpenBoard(LIpcLinkData* data) {
  data->Board = CreateBoard();
  if (!data->Board) {
    LOG(kLogDriver, "LIPC mmap failed. errno %d", errno);
    return {kStatusConnect, "FAILED mmap"};
  }
  for (int fd = kFirstDescriptor; fd < FD_SETSIZE; ++fd)
    if (UnsentBytes(fd) > 0) BoardTakeConnection(data->Board, fd);
  return {};
}

void DropBoard(LIpcLinkData* data) {
  RemoveBoard(data->Board);
  data->Board = nullptr;
}

// The signals are blocked meanwhile: the child still has the agent's handlers, which would swallow
// a SIGTERM that is meant for the child.
Outcome Fork(LIpcLinkData* data, const ReaderChannels& channels) {
  sigset_t all, ordinary;
  sigfillset(&all);
  std::fflush(stdout);
  const pid_t agent = getpid();
  AwaitFormerReaders();
  sigprocmask(SIG_BLOCK, &all, &ordinary);
  data->ChildPid = fork();
  if (data->ChildPid == 0) {
    ForgetStats();
    RunReader(data, channels, ordinary, agent);
  }
  const int error = errno;
  sigprocmask(SIG_SETMASK, &ordinary, nullptr);
  errno = error;
  if (data->ChildPid > 0) return {};
  LOG(kLogDriver, "LIPC fork failed. errno %d", errno);
  return {kStatusConnect, "FAILED fork"};
}

Outcome StartReader(LIpcLinkData* data) {
  ReaderChannels channels;
  Outcome step = OpenChannels(&channels);
  if (step.Status != 0) return step;
  step = OpenBoard(data);
  if (step.Status == 0) step = Fork(data, channels);
  if (step.Status != 0) {
    const int error = errno;
    CloseChannels(channels);
    DropBoard(data);
    errno = error;
    return step;
  }
  close(channels.Pipe[1]);
  close(channels.Pair[1]);
  data->PipeRead = channels.Pipe[0];
  data->RecordsBegin = data->RecordsEnd = 0;
  data->Pair = channels.Pair[0];
  return {};
}

// No child may write to the connection from now on, as a flush may end within a message.
bool TakeConnection(int fd) {
  bool taken = true;
  for (const LIpcLinkData* data = g_ConnectedQueues; data; data = data->Next)
    taken = BoardTakeConnection(data->Board, fd) && taken;
  return taken;
}

void AddToConnected(LIpcLinkData* data, Link* link) {
  data->Owner = link;
  data->Next = g_ConnectedQueues;
  g_ConnectedQueues = data;
  MayFlush = TakeConnection;
  RetryOutput = RetryQueues;
}

void RemoveFromConnected(const LIpcLinkData* data) {
  LIpcLinkData** place = &g_ConnectedQueues;
  while (*place && *place != data) place = &(*place)->Next;
  if (*place) *place = data->Next;
}

// Answers

void Answer(const MsgInfo& info, ClientMessage* msg) {
  msg->ClientSocket = info.Socket;
  g_DbcI.PutMsg(HERE, msg);
}

// Takes the next answer that the child has handed over, with the identity of its request: 1; 0 it
// is none; -1 with errno: were one that is due left there, later ones would go to the wrong
// requests.
int TakeHandedAnswer(int pair, ClientMessage* msg, RequestId* id) {
  ssize_t got;
  do {
    got = recv(pair, Packet(msg), sizeof msg->Reserved + kMessageArea, MSG_DONTWAIT);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return -1;
  if (got < static_cast<ssize_t>(sizeof msg->Reserved)) return 0;
  std::memcpy(id, Packet(msg), sizeof *id);
  const std::size_t size = static_cast<std::size_t>(got) - sizeof msg->Reserved;
  return LocateTrailer(msg, size, kMessageArea) == 0 ? 1 : 0;
}

// The child has left it to us whose answer it is: the first one's of that name to which it has not
// an answer itself.
MsgInfo* FindByName(const Link* link, const PipeRecord& record) {
  ReaderBoard* const board = LIpcDataOf(link)->Board;
  MsgInfo* first = nullptr;
  for (MsgInfo* info = FindMsgInfo(link, record.TaskName, record.AstInd); info;
       info = NextOfName(info)) {
    if (BoardIsClaimed(board, IdOf(info))) continue;
    if (!first || IsEarlier(IdOf(info), IdOf(first))) first = info;
  }
  if (!first || BoardWithdraw(board, IdOf(first))) return first;
  return FindByName(link, record);  // the child has taken it meanwhile
}

MsgInfo* RequestOf(const Link* link, const PipeRecord& record) {
  const std::uint16_t entry = record.Entry & kNoEntry;
  if (entry >= kBoardSlots) return FindByName(link, record);
  return FindRequest(BoardRemove(LIpcDataOf(link)->Board, entry));
}

std::size_t BytesOfRecords(const LIpcLinkData* data) {
  return data->RecordsEnd - data->RecordsBegin;
}

// Reads until there is a whole record, and what else has come: 0; -1 not all of it has come; 4009,
// 4008 with errno.
int ReadRecords(const Link* link, LIpcLinkData* data) {
  std::memmove(data->Records, data->Records + data->RecordsBegin, BytesOfRecords(data));
  data->RecordsEnd -= data->RecordsBegin;
  data->RecordsBegin = 0;
  while (data->RecordsEnd < sizeof(PipeRecord)) {
    const ssize_t got = read(data->PipeRead, data->Records + data->RecordsEnd,
                             sizeof data->Records - data->RecordsEnd);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno == EAGAIN) return -1;
    if (got == 0) {
      LOG(kLogTrace, "LIPC Connection \"%s\" is broken. Call:read", link->NodeName);
      errno = 0;  // an end is no error, also when a signal interrupted the call before
      return kStatusPeerClosed;
    }
    if (got < 0) return kStatusReceive;
    data->RecordsEnd += static_cast<std::uint32_t>(got);
  }
  return 0;
}

// As ReadRecords. Records that are left are served like packets that wait in a stream.
int TakeRecord(const Link* link, LIpcLinkData* data, PipeRecord* record) {
  const int status = BytesOfRecords(data) < sizeof *record ? ReadRecords(link, data) : 0;
  if (status != 0) return status;
  std::memcpy(record, data->Records + data->RecordsBegin, sizeof *record);
  data->RecordsBegin += sizeof *record;
  MarkWaiting(data->PipeRead, BytesOfRecords(data) >= sizeof *record);
  return 0;
}

// Serves one record. The child hands an answer over before it writes the record, so it is here.
int ServeRecord(const Link* link, LIpcLinkData* data) {
  PipeRecord record;
  const int status = TakeRecord(link, data, &record);
  if (status == -1) return 0;
  if (status != 0) return status;
  LOG(kLogTrace, "LIPC read TaskName = %d", record.TaskName);
  ClientMessage msg;
  RequestId id;
  const int taken = (record.Entry & kHandedOver) != 0 ? TakeHandedAnswer(data->Pair, &msg, &id) : 0;
  if (taken < 0) return kStatusReceive;
  RetryNow(data);
  const MsgInfo* const info =
      MarkTheMsgAsReceived(HERE, record.TaskName, record.AstInd, RequestOf(link, record));
  const std::size_t size = taken > 0 ? kCblAt + msg.TrailerOffset + kTrailerSize : 0;
  if (!info) return 0;
  StatsNodeAnswer(link->Books.StatsRow, size, info->SentAt, CountsOf(link));
  if (taken > 0)
    Answer(*info, &msg);
  else
    TellCountsOf(info->Socket);
  return 0;
}

// Parting

// The child has ended, or is about to, between writing an answer and saying so: its client has the
// answer or has it not.
void CloseUncertain(const BoardRequest& request) {
  if (ConnectionSerial(request.Socket) != request.Connection) return;
  LOG(kLogError, "The reader has ended while it wrote to a client. The connection is closed");
  CloseClient(request.Socket);
}

// Takes one entry of the board back; the request may have its answer.
void SettleEntry(const LIpcLinkData* data, std::int32_t slot) {
  BoardRequest request;
  BoardState state = BoardClose(data->Board, slot, &request);
  for (int i = 0; state == BoardState::Writing && i < kLastWriteWait; ++i) {
    const bool runs = Runs(data->ChildPid);
    state = BoardClose(data->Board, slot, &request);
    if (!runs) break;
    if (state == BoardState::Writing) poll(nullptr, 0, 1);
  }
  if (state == BoardState::Writing) CloseUncertain(request);
  if (state != BoardState::Writing && state != BoardState::Written) return;
  if (MsgInfo* const info = FindRequest(request.Id)) ReleaseMsgInfo(info);
}

// Ends the child's writing to clients. Requests that it has answered are released: they must not be
// answered again with the link's failure.
void SettleBoard(const LIpcLinkData* data) {
  data->Board->AgentDecides = true;
  for (std::int32_t slot = 0; slot < data->Board->Used; ++slot) SettleEntry(data, slot);
}

void PutHandedAnswers(int pair) {
  ClientMessage msg;
  RequestId id;
  while (TakeHandedAnswer(pair, &msg, &id) > 0) {
    MsgInfo* const info = FindRequest(id);
    if (!info) continue;
    ReleaseMsgInfo(info);
    Answer(*info, &msg);
  }
}

// Sending

// Notes the request, so that the child can write its answer to the connection. Nothing is kept for
// the connection: then a flush is not within a message, and the child may write again. The news of
// a client's death and the link test's request come from no connection (0).
void PublishRequest(const Link* link, const ClientMessage* msg) {
  ReaderBoard* const board = LIpcDataOf(link)->Board;
  const RequestId id = LastSavedRequest();
  const int socket = msg->ClientSocket;
  if (!board || socket == 0 || !FindRequest(id)) return;
  if (socket > 0 && socket < FD_SETSIZE && UnsentBytes(socket) == 0)
    BoardGiveConnection(board, socket);
  if (link->Books.InFlight <= 1) board->AgentDecides = false;
  BoardAdd(board, {.Id = id,
                   .TaskName = msg->TaskName,
                   .AstInd = Get(Trailer(msg), kTrailerAstInd),
                   .Socket = socket,
                   .Connection = ConnectionSerial(socket)});
}

}  // namespace

int LOCALIInitProtocol(const char* file, int line, Protocol* protocol, const char* name,
                       SocketSets*) {
  ENTER();
  if (std::strcmp(name, "LOCALI") != 0) return LEAVE(-1, "Protocol name is not my");
  *protocol = {.Name = "LOCALI",
               .InitLink = LIpcInitLink,
               .UninitLink = LIpcUninitLink,
               .ConnectLink = LIpcConnectLink,
               .ReadyForWrite = LIpcReadyForWrite,
               .ReadyForRead = LIpcReadyForRead,
               .DisconnectLink = LIpcDisconnectLink,
               .TimerEvent = LIpcTimerEvent,
               .SendToNetwork = LIpcSendToNetwork,
               .ClientDeadEvent = LIpcClientDeadEvent,
               .Next = nullptr,
               .Joins = false};
  return 0;
}

int LIpcInitLink(const char* file, int line, Link* link, char* address) {
  ENTER();
  LIpcLinkData* const data = static_cast<LIpcLinkData*>(std::calloc(1, sizeof(LIpcLinkData)));
  if (!data) return LEAVE(3, "FAILED allocation memory");
  data->Key = WordToNumber(NextWord(&address), 0);
  if (data->Key < 1) {
    data->Next = refused;  // kept: the record of a refused address is never freed
    refused = data;
    return LEAVE(1, "FAILED  param out of range");
  }
  data->ShmId = data->SemId = data->MsgQueueId = -1;
  data->PipeRead = data->Pair = -1;
  link->DriverData = data;
  return 0;
}

int LIpcUninitLink(const char* file, int line, Link* link) {
  ENTER();
  if (link->State == kLinkConnected) DisconnectLink(HERE, link, 0, 0);
  if (LIpcLinkData* const data = LIpcDataOf(link)) DetachSegment(data);
  std::free(link->DriverData);
  link->DriverData = nullptr;
  return 0;
}

int LIpcConnectLink(const char* file, int line, Link* link) {
  ENTER();
  LIpcLinkData* const data = LIpcDataOf(link);
  const char* word = AttachSegment(data);
  if (!word) word = OpenQueue(data);
  if (word) return LEAVE(kStatusConnect, word);
  const Outcome step = StartReader(data);
  if (step.Status != 0) return LEAVE(step.Status, step.Word);
  TakeFormerAnswers(data);
  link->State = kLinkConnected;
  AddToConnected(data, link);
  REGISTER_SOCKET_FOR_READ_EVENT(HERE, data->PipeRead);
  REGISTER_SOCKET_FOR_THE_LINK(HERE, data->PipeRead, link);
  return 0;
}

int LIpcReadyForWrite(const char* file, int line, Link*) {
  ENTER();
  return 0;
}

int LIpcSendToNetwork(const char* file, int line, Link* link, ClientMessage* msg) {
  ENTER();
  const std::int32_t taskName = msg->TaskName;
  const std::size_t size = msg->Length;
  PublishRequest(link, msg);
  Put(Trailer(msg), kTrailerTaskName, taskName);
  msg->Length = 1;  // kept: in the record the word is the message's type from now on
  msg->TaskName = LIpcDataOf(link)->ChildPid;
  QueueMessage queued;
  queued.Type = 1;
  std::memcpy(queued.Body, Wire(msg) + sizeof msg->Length, size);
  const Outcome sent = SendToQueue(link, queued, size);
  if (sent.Word != kNotQueued) msg->TaskName = taskName;
  return sent.Status == 0 ? 0 : LEAVE(sent.Status, sent.Word);
}

int LIpcReadyForRead(const char* file, int line, Link* link) {
  ENTER();
  errno = 0;
  const int status = ServeRecord(link, LIpcDataOf(link));
  if (status == 0) return 0;
  const int error = errno;
  if (status == kStatusReceive)
    LOG(kLogDriver, "LIPC.Receive message from child fail. Link \"%s\". Call:read. Errno %d",
        link->NodeName, error);
  DisconnectLink(HERE, link, status, error);
  return LEAVE(status, "FAILED receive");
}

int LIpcClientDeadEvent(const char* file, int line, Link* link, int pid) {
  ENTER();
  ClientMessage msg;
  MakeClientDeathMessage(&msg, pid);
  const int result = LIpcSendToNetwork(HERE, link, &msg);
  return LEAVE(result, TEXT("Return %d", result));
}

int LIpcTimerEvent(const char* file, int line, Link* link) {
  ENTER();
  LIpcLinkData* const data = LIpcDataOf(link);
  if (!Runs(data->ChildPid)) {
    LOG(kLogDriver, "LIPC child proccess deaded");
    return LEAVE(kStatusReaderGone, "FAILED child dead");
  }
  TakeFormerAnswers(data);  // they could keep the kernel from answering
  RetryNow(data);
  return 0;
}

int LIpcDisconnectLink(const char* file, int line, Link* link) {
  ENTER();
  if (link->State == kLinkDisconnected) return LEAVE(0, "SUCCESS already disconnected");
  LIpcLinkData* const data = LIpcDataOf(link);
  RemoveFromConnected(data);
  SettleBoard(data);
  TellToEnd(data->ChildPid);
  RememberFormerReader(data);
  // kept: PipeRead and ChildPid keep their numbers; whether they are valid is told by State alone.
  StopWaitingFor(data->PipeRead);
  MarkWaiting(data->PipeRead, false);
  close(data->PipeRead);
  UNREGISTER_SOCKET_FOR_THE_LINK(HERE, data->PipeRead);
  UNREGISTER_SOCKET_FOR_READ_EVENT(HERE, data->PipeRead);
  UNREGISTER_SOCKET_FOR_WRITE_EVENT(HERE, data->PipeRead);
  DropPending(link);
  DropBoard(data);
  DetachSegment(data);
  data->ShmId = data->SemId = data->MsgQueueId = -1;
  link->State = kLinkDisconnected;
  PutHandedAnswers(data->Pair);
  close(data->Pair);
  data->Pair = -1;
  return 0;
}
