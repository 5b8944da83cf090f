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

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/clntxch.h"
#include "client/message.h"
#include "client/primitiv.h"
#include "core/io.h"
#include "core/process.h"
#include "core/socket_options.h"
#include "core/status.h"
#include "core/trace.h"
#include "core/wait.h"
#include "link/link.h"
#include "protocols/address_text.h"
#include "protocols/lipc_board.h"
#include "protocols/lipc_reader.h"

static constexpr char Module[] = "lipc";

// An answer that the child handed over.
struct HandedAnswer {
  ClientMessage Message;
  HandedAnswer* Next;
};

namespace {

constexpr int kPipeSize = 1024 * 1024;   // of records: the child never has to wait for the agent
constexpr int kQueueWait = 5;            // milliseconds between two looks at a full queue
constexpr int kFormerReaderWait = 1000;  // milliseconds for a reader that was told to end
constexpr int kLastSendWait = 100;       // milliseconds for the child to finish a write
constexpr int kMostSpares = 64;          // half a MiB

LIpcLinkData* connected;  // the records of all connected links
LIpcLinkData* refused;    // the records of refused addresses
HandedAnswer* spares;     // used records, so that an answer needs no memory; none without a link
int spareCount;

LIpcLinkData* DataOf(const Link* link) { return static_cast<LIpcLinkData*>(link->DriverData); }

// Connecting

void DetachSegment(LIpcLinkData* data) {
  if (data->Shm) shmdt(data->Shm);
  data->Shm = nullptr;
}

pid_t KernelPid(const LIpcLinkData* data) {
  pid_t pid;
  std::memcpy(&pid, data->Shm, sizeof pid);
  return pid;
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

int HighestOf(const ReaderChannels& channels) {
  const int pipe = std::max(channels.Pipe[0], channels.Pipe[1]);
  return std::max(pipe, std::max(channels.Pair[0], channels.Pair[1]));
}

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
  if (HighestOf(*channels) >= kMaxDescriptors) {
    LOG(kLogDriver, "LIPC pipe return too big value = %d", HighestOf(*channels));
    CloseChannels(*channels);
    errno = 0;
    return {kStatusDescriptor, "FAILED too many connections"};
  }
  fcntl(channels->Pipe[0], F_SETFL, O_NONBLOCK);
  fcntl(channels->Pipe[1], F_SETPIPE_SZ, kPipeSize);
  return {};
}

bool OpenBoard(LIpcLinkData* data) {
  data->Board = CreateBoard();
  if (!data->Board) {
    LOG(kLogDriver, "LIPC mmap failed. errno %d", errno);
    return false;
  }
  for (int fd = kFirstDescriptor; fd < FD_SETSIZE; ++fd)
    data->Board->Kept[fd] = UnsentBytes(fd) > 0;
  return true;
}

// A reader that has been told to end must be gone before the next one starts: its end would be
// noticed with the next one alive, and the agent would wait for that one too.
void AwaitFormerReaders() {
  for (int i = 0; i < kFormerReaderWait && !connected && !Stopping(); ++i) {
    if (waitpid(0, nullptr, WNOHANG) < 0) return;
    poll(nullptr, 0, 1);
  }
}

// The signals are blocked meanwhile: the child still has the agent's handlers, which would swallow
// a SIGTERM that is meant for the child.
bool StartReader(LIpcLinkData* data, const ReaderChannels& channels) {
  sigset_t all, ordinary;
  sigfillset(&all);
  std::fflush(stdout);
  const pid_t agent = getpid();
  AwaitFormerReaders();
  sigprocmask(SIG_BLOCK, &all, &ordinary);
  data->ChildPid = fork();
  if (data->ChildPid == 0) RunReader(data, channels, ordinary, agent);
  const int error = errno;
  sigprocmask(SIG_SETMASK, &ordinary, nullptr);
  errno = error;
  if (data->ChildPid > 0) return true;
  LOG(kLogDriver, "LIPC fork failed. errno %d", errno);
  return false;
}

void DropBoard(LIpcLinkData* data) {
  RemoveBoard(data->Board);
  data->Board = nullptr;
}

Outcome StartReading(LIpcLinkData* data) {
  ReaderChannels channels;
  const Outcome step = OpenChannels(&channels);
  if (step.Status != 0) return step;
  const bool hasBoard = OpenBoard(data);
  if (!hasBoard || !StartReader(data, channels)) {
    const int error = errno;
    CloseChannels(channels);
    DropBoard(data);
    errno = error;
    return {kStatusConnect, hasBoard ? "FAILED fork" : "FAILED mmap"};
  }
  close(channels.Pipe[1]);
  close(channels.Pair[1]);
  data->PipeRead = channels.Pipe[0];
  data->RecordBytes = 0;
  data->Pair = channels.Pair[0];
  return {};
}

// Sharing connections with the children

// No child may write to the connection from now on, as a flush may end within a message.
bool ReserveConnection(int fd) {
  bool reserved = true;
  for (LIpcLinkData* data = connected; data; data = data->Next)
    reserved = BoardReserve(data->Board, fd) && reserved;
  return reserved;
}

void AddToConnected(LIpcLinkData* data) {
  data->Next = connected;
  connected = data;
  MayFlush = ReserveConnection;
}

void RemoveFromConnected(const LIpcLinkData* data) {
  LIpcLinkData** place = &connected;
  while (*place && *place != data) place = &(*place)->Next;
  if (*place) *place = data->Next;
}

// Notes the request, so that the child can write its answer to the connection. Nothing is kept
// here for the connection: then a flush is not within a message, and the child may write again.
void NoteRequest(ReaderBoard* board, const ClientMessage* msg) {
  const int socket = msg->ClientSocket;
  if (!board || socket < kFirstDescriptor || socket >= FD_SETSIZE) return;
  board->Kept[socket] = UnsentBytes(socket) > 0;
  BoardAdd(board, {.TaskName = msg->TaskName,
                   .AstInd = Get(Trailer(msg), kTrailerAstInd),
                   .Socket = socket,
                   .Serial = ConnectionSerial(socket)});
}

// A client that has its answer may use the name again, on another connection too, before the agent
// knows of the answer: what is released then is the request of the connection that got it.
void PreferAnswered(const Link* link, const BoardRequest& request) {
  const int socket = request.Socket;
  const bool open =
      FD_ISSET(socket, &g_DbcI.ClientSockets) && ConnectionSerial(socket) == request.Serial;
  PutConnectionFirst(link, request.TaskName, request.AstInd, open ? socket : -1);
}

// Stops the child's writing to clients and releases the requests that it has answered: they must
// not be answered again with the link's failure.
void SettleAnswered(const Link* link, LIpcLinkData* data) {
  data->Board->Closed = 1;
  for (int i = 0; i < kLastSendWait && data->Board->SendingTo != 0; ++i) {
    if (!ProcessIsAlive(data->ChildPid)) break;
    poll(nullptr, 0, 1);
  }
  BoardRequest request;
  while (BoardTakeDelivered(data->Board, &request)) {
    PreferAnswered(link, request);
    MsgInfo* const info = FindMsgInfo(link, request.TaskName, request.AstInd);
    if (info) ReleaseMsgInfo(info);
  }
}

// Answers handed over

HandedAnswer* NewHanded() {
  HandedAnswer* const answer = spares;
  if (!answer) return static_cast<HandedAnswer*>(std::malloc(sizeof(HandedAnswer)));
  spares = answer->Next;
  --spareCount;
  return answer;
}

void FreeHanded(HandedAnswer* answer) {
  if (!connected || spareCount == kMostSpares) return std::free(answer);
  answer->Next = spares;
  spares = answer;
  ++spareCount;
}

void FreeSpares() {
  while (spares) std::free(NewHanded());
}

void AppendHanded(LIpcLinkData* data, HandedAnswer* answer) {
  HandedAnswer** place = &data->Handed;
  while (*place) place = &(*place)->Next;
  *place = answer;
}

// Takes all that has come over the pair into memory; false: memory ran out or the pair failed.
// Keeps errno otherwise.
bool TakeHandedAnswers(LIpcLinkData* data) {
  const int savedErrno = errno;
  ClientMessage msg;
  for (;;) {
    const ssize_t got = recv(data->Pair, Wire(&msg), kMessageArea, MSG_DONTWAIT);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno != EAGAIN) return false;
    if (got <= 0) break;
    if (LocateTrailer(&msg, static_cast<std::size_t>(got), kMessageArea) != 0) continue;
    HandedAnswer* const answer = NewHanded();
    if (!answer) {
      errno = ENOMEM;
      return false;
    }
    answer->Message = msg;
    answer->Next = nullptr;
    AppendHanded(data, answer);
  }
  errno = savedErrno;
  return true;
}

// Takes out the first answer with this name, or null.
HandedAnswer* UnlinkHanded(LIpcLinkData* data, const PipeRecord& record) {
  for (HandedAnswer** place = &data->Handed; *place; place = &(*place)->Next) {
    HandedAnswer* const answer = *place;
    if (answer->Message.TaskName != record.TaskName ||
        Get(Trailer(&answer->Message), kTrailerAstInd) != record.AstInd)
      continue;
    *place = answer->Next;
    return answer;
  }
  return nullptr;
}

void PutHanded(HandedAnswer* answer) {
  ReturnAnswerFromNetworkToClient(HERE, &answer->Message);
  FreeHanded(answer);
}

// No record will tell of these any more. The list is detached first: what follows may take the link
// down.
void PutAllHanded(LIpcLinkData* data) {
  HandedAnswer* answer = data->Handed;
  data->Handed = nullptr;
  while (answer) {
    HandedAnswer* const next = answer->Next;
    PutHanded(answer);
    answer = next;
  }
}

void DropHanded(LIpcLinkData* data) {
  while (HandedAnswer* const answer = data->Handed) {
    data->Handed = answer->Next;
    FreeHanded(answer);
  }
}

// Reads one record: 0; -1 not all of it has come; 4009, 4008 with errno.
int ReadRecord(const Link* link, LIpcLinkData* data, PipeRecord* record) {
  unsigned char* const bytes = reinterpret_cast<unsigned char*>(&data->Record);
  while (data->RecordBytes < sizeof *record) {
    const ssize_t got =
        read(data->PipeRead, bytes + data->RecordBytes, sizeof *record - data->RecordBytes);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno == EAGAIN) return -1;
    if (got == 0) {
      LOG(kLogTrace, "LIPC Connection \"%s\" is broken. Call:read", link->NodeName);
      return kStatusPeerClosed;
    }
    if (got < 0) return kStatusReceive;
    data->RecordBytes += static_cast<std::uint32_t>(got);
  }
  data->RecordBytes = 0;
  *record = data->Record;
  return 0;
}

// The child writes the answer before the record, so with the record its answer is here too.
int ReadAnswered(const Link* link, LIpcLinkData* data, PipeRecord* record) {
  errno = 0;
  int status = ReadRecord(link, data, record);
  if (status == -1) return -1;
  if (!TakeHandedAnswers(data)) status = kStatusReceive;
  if (status == kStatusReceive)
    LOG(kLogDriver, "LIPC.Receive message from child fail. Link \"%s\". Call:read. Errno %d",
        link->NodeName, errno);
  return status;
}

void ServeRecord(const Link* link, LIpcLinkData* data, const PipeRecord& record) {
  HandedAnswer* const answer = record.HandedOver ? UnlinkHanded(data, record) : nullptr;
  BoardRequest request;
  const bool known =
      BoardRemove(data->Board, record.TaskName, record.AstInd, answer == nullptr, &request);
  if (answer) return PutHanded(answer);
  if (known) PreferAnswered(link, request);
  MarkTheMsgAsReceived(HERE, record.TaskName, record.AstInd);
}

int ServePipe(Link* link) {
  LIpcLinkData* const data = DataOf(link);
  PipeRecord record;
  const int status = ReadAnswered(link, data, &record);
  if (status == -1) return 0;
  if (status == 0) {
    LOG(kLogTrace, "LIPC read TaskName = %d", record.TaskName);
    ServeRecord(link, data, record);
    return 0;
  }
  const int error = errno;
  SettleAnswered(link, data);  // or an answer could go to one who has his and used the same name
  PutAllHanded(data);
  DisconnectLink(HERE, link, status, error);
  return status;
}

// Sending

// The ordinary case is one call. A full queue is waited for only while a kernel is there to empty
// it; meanwhile the child, which has to empty it too, must not wait for us.
bool SendToQueue(LIpcLinkData* data, const QueueMessage& msg, std::size_t size) {
  for (;;) {
    if (msgsnd(data->MsgQueueId, &msg, size, IPC_NOWAIT) == 0) return true;
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return false;
    if (Stopping() || !ProcessIsAlive(KernelPid(data)) || !TakeHandedAnswers(data)) {
      errno = EAGAIN;  // the queue is full, whatever the looks at the kernel said
      return false;
    }
    pollfd pair = {.fd = data->Pair, .events = POLLIN, .revents = 0};
    poll(&pair, 1, kQueueWait);
  }
}

bool WakeKernel(int semaphore) {
  sembuf up = {.sem_num = 0, .sem_op = 1, .sem_flg = 0};
  int result;
  do {
    result = semop(semaphore, &up, 1);
  } while (result != 0 && errno == EINTR);
  return result == 0;
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
               .Next = nullptr};
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
  if (LIpcLinkData* const data = DataOf(link)) DetachSegment(data);
  std::free(link->DriverData);
  link->DriverData = nullptr;
  return 0;
}

int LIpcConnectLink(const char* file, int line, Link* link) {
  ENTER();
  LIpcLinkData* const data = DataOf(link);
  const char* word = AttachSegment(data);
  if (!word) word = OpenQueue(data);
  if (word) return LEAVE(kStatusConnect, word);
  const Outcome step = StartReading(data);
  if (step.Status != 0) return LEAVE(step.Status, step.Word);
  link->State = kLinkConnected;
  AddToConnected(data);
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
  LIpcLinkData* const data = DataOf(link);
  const std::int32_t taskName = msg->TaskName;
  const std::size_t size = msg->Length;
  NoteRequest(data->Board, msg);
  Put(Trailer(msg), kTrailerTaskName, taskName);
  msg->Length = 1;  // kept: in the record the word is the message's type from now on
  msg->TaskName = data->ChildPid;
  QueueMessage queued;
  queued.Type = 1;
  std::memcpy(queued.Body, Wire(msg) + sizeof msg->Length, size);
  if (!SendToQueue(data, queued, size)) {
    LOG(kLogDriver, "LIPC msgsnd failed. errno %d", errno);
    return LEAVE(kStatusSend, "FAILED msgsnd");
  }
  msg->TaskName = taskName;
  if (!WakeKernel(data->SemId)) {
    LOG(kLogDriver, "LIPC semop failed. errno %d", errno);
    return LEAVE(kStatusSend, "FAILED semop");
  }
  return 0;
}

int LIpcReadyForRead(const char* file, int line, Link* link) {
  ENTER();
  Link* const served = g_DbcI.ServedLink;
  g_DbcI.ServedLink = link;
  const int status = ServePipe(link);
  g_DbcI.ServedLink = served;
  if (status != 0) return LEAVE(status, "FAILED receive");
  return 0;
}

int LIpcClientDeadEvent(const char* file, int line, Link* link, int pid) {
  ENTER();
  if (ReaderBoard* const board = DataOf(link)->Board) BoardRemoveTask(board, pid);
  ClientMessage msg;
  MakeClientDeathMessage(&msg, pid);
  const int result = LIpcSendToNetwork(HERE, link, &msg);
  return LEAVE(result, TEXT("Return %d", result));
}

int LIpcTimerEvent(const char* file, int line, Link* link) {
  ENTER();
  if (kill(DataOf(link)->ChildPid, 0) != 0) {
    LOG(kLogDriver, "LIPC child proccess deaded");
    return LEAVE(kStatusReaderGone, "FAILED child dead");
  }
  return 0;
}

int LIpcDisconnectLink(const char* file, int line, Link* link) {
  ENTER();
  if (link->State == kLinkDisconnected) return LEAVE(0, "SUCCESS already disconnected");
  LIpcLinkData* const data = DataOf(link);
  RemoveFromConnected(data);
  SettleAnswered(link, data);
  if (data->ChildPid > 0) kill(data->ChildPid, SIGTERM);
  // kept: PipeRead and ChildPid keep their numbers; whether they are valid is told by State alone.
  StopWaitingFor(data->PipeRead);
  close(data->PipeRead);
  UNREGISTER_SOCKET_FOR_THE_LINK(HERE, data->PipeRead);
  UNREGISTER_SOCKET_FOR_READ_EVENT(HERE, data->PipeRead);
  UNREGISTER_SOCKET_FOR_WRITE_EVENT(HERE, data->PipeRead);
  close(data->Pair);
  data->Pair = -1;
  DropHanded(data);
  if (!connected) FreeSpares();
  DropBoard(data);
  DetachSegment(data);
  data->ShmId = data->SemId = data->MsgQueueId = -1;
  link->State = kLinkDisconnected;
  return 0;
}
