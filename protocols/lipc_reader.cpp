#include "protocols/lipc_reader.h"

#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "client/clntxch.h"
#include "client/message.h"
#include "core/io.h"
#include "core/trace.h"
#include "protocols/lipc_board.h"

static constexpr char Module[] = "lipc";

namespace {

static_assert(sizeof QueueMessage::Body == kMessageArea - sizeof ClientMessage::Length);

fd_set directConnections;  // that the child may write to

bool IsKept(int fd, const ReaderChannels& channels) {
  return fd == channels.Pipe[1] || fd == channels.Pair[1] || FD_ISSET(fd, &g_DbcI.ClientSockets);
}

void CloseForeignDescriptors(const ReaderChannels& channels) {
  for (int fd = kFirstDescriptor; fd < FD_SETSIZE; ++fd) {
    if (!IsKept(fd, channels)) close(fd);
  }
  close_range(FD_SETSIZE, ~0U, 0);
}

// The system puts a message of up to half of the send buffer, less some bytes of its own, into the
// stream in one piece or not at all. Only then can the two processes write to one connection
// without cutting into each other's messages.
bool TakesMessagesWhole(int fd) {
  constexpr int kOverhead = 64;
  int size = 0;
  socklen_t length = sizeof size;
  return getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 &&
         size >= 2 * (static_cast<int>(kMessageArea) + kOverhead);
}

void ChooseDirectConnections() {
  FD_ZERO(&directConnections);
  for (int fd = kFirstDescriptor; fd < FD_SETSIZE; ++fd) {
    if (FD_ISSET(fd, &g_DbcI.ClientSockets) && TakesMessagesWhole(fd))
      FD_SET(fd, &directConnections);
  }
}

// What the agent had to do is not the child's business: it never reports a client's death, counts
// down the time without clients, takes a link down or sends what was kept for a slow client.
void ForgetAgentWork() {
  Free(g_DbcI.ClientPidList);
  ClientTimeout = 0xFFFF;
  g_DbcI.LinkList = g_DbcI.DefaultLink = g_DbcI.FirstLink = nullptr;
  MayFlush = nullptr;
  for (int fd = kFirstDescriptor; fd < FD_SETSIZE; ++fd) ForgetDescriptor(fd);
}

void SetSignals() {
  signal(SIGUSR1, SIG_IGN);
  signal(SIGTERM, SIG_DFL);
  signal(SIGIO, SIG_IGN);
  signal(SIGPIPE, SIG_DFL);
  signal(SIGALRM, SIG_IGN);
}

// Waits for an answer; false: the queue failed.
bool ReceiveAnswer(int queue, QueueMessage* received, std::size_t* size) {
  for (;;) {
    const ssize_t got = msgrcv(queue, received, sizeof received->Body, getpid(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    *size = static_cast<std::size_t>(got);
    return true;
  }
}

// False: the answer's strings do not fit.
bool MakeAnswer(const QueueMessage& received, std::size_t size, ClientMessage* msg) {
  std::memcpy(Wire(msg) + sizeof msg->Length, received.Body, size);
  if (LocateTrailer(msg, sizeof msg->Length + size, kMessageArea) != 0) return false;
  msg->TaskName = Get(Trailer(msg), kTrailerTaskName);
  return true;
}

bool IsDirect(const BoardRequest& request) {
  return request.Socket >= kFirstDescriptor && request.Socket < FD_SETSIZE &&
         FD_ISSET(request.Socket, &directConnections) && request.Serial != 0 &&
         request.Serial == ConnectionSerial(request.Socket);
}

// Writes to the client; false: it did not take the answer now, which is as it was.
bool PutDirectly(ClientMessage* msg, int socket) {
  msg->ClientSocket = socket;
  if (PutMsgToClient(HERE, msg) != 0) {
    LOG(kLogDriver, "LIPC PutMsgToClient failed.");
    return true;
  }
  if (UnsentBytes(socket) == 0) return true;
  ForgetDescriptor(socket);
  msg->Length -= 4;
  return false;
}

bool DeliverDirectly(ReaderBoard* board, ClientMessage* msg) {
  BoardRequest request;
  std::uint32_t state;
  BoardSlot* const slot =
      BoardFind(board, msg->TaskName, Get(Trailer(msg), kTrailerAstInd), &request, &state);
  if (!slot) return false;
  if (IsDirect(request) && BoardBeginSend(board, request.Socket)) {
    const bool delivered = PutDirectly(msg, request.Socket);
    if (delivered) BoardMarkDelivered(slot, state);
    BoardEndSend(board);
    if (delivered) return true;
  }
  BoardMarkHandedOver(slot, state);
  return false;
}

// The agent finds the connection. It takes from the pair whenever it reads the pipe or waits for
// room in the queue.
void HandOver(int pair, const ClientMessage* msg) {
  ssize_t sent;
  do {
    sent = send(pair, Wire(msg), msg->Length + 4, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) LOG(kLogDriver, "LIPC PutMsgToClient failed.");
}

bool WriteRecord(int pipe, const ClientMessage* msg, bool handedOver) {
  const PipeRecord record = {.TaskName = msg->TaskName,
                             .AstInd = Get(Trailer(msg), kTrailerAstInd),
                             .HandedOver = handedOver};
  const unsigned char* const bytes = reinterpret_cast<const unsigned char*>(&record);
  std::size_t written = 0;
  while (written < sizeof record) {
    const ssize_t wrote = write(pipe, bytes + written, sizeof record - written);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) {
      LOG(kLogDriver, "LIPC write failed. errno = %d", errno);
      return false;
    }
    written += static_cast<std::size_t>(wrote);
  }
  return true;
}

}  // namespace

int ReadMessageFromKernelAndSendToDbc(const char* file, int line, LIpcLinkData* data,
                                      int pipeWrite) {
  ENTER();
  for (;;) {
    QueueMessage received;
    std::size_t size;
    if (!ReceiveAnswer(data->MsgQueueId, &received, &size)) return LEAVE(-1, "FAILED msgrcv");
    ClientMessage msg;
    if (!MakeAnswer(received, size, &msg)) {
      LOG(kLogDriver, "LIPC The strings of an answer are too long. Skip the message");
      continue;
    }
    const bool handedOver = !DeliverDirectly(data->Board, &msg);
    if (handedOver) HandOver(data->Pair, &msg);
    LOG(kLogTrace, "LIPC CHLD. TaskName = %d", msg.TaskName);
    if (!WriteRecord(pipeWrite, &msg, handedOver)) return LEAVE(-1, "FAILED write");
  }
}

void RunReader(LIpcLinkData* data, const ReaderChannels& channels, const sigset_t& ordinary,
               pid_t agent) {
  CloseForeignDescriptors(channels);
  SetSignals();
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != agent) _exit(0);
  data->Pair = channels.Pair[1];
  ForgetAgentWork();
  ChooseDirectConnections();
  sigprocmask(SIG_SETMASK, &ordinary, nullptr);
  ReadMessageFromKernelAndSendToDbc(HERE, data, channels.Pipe[1]);
  close(channels.Pipe[1]);
  _exit(0);
}
