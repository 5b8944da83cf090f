#include "protocols/lipc_reader.h"

#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "client/clntxch.h"
#include "client/connection.h"
#include "client/message.h"
#include "core/stream.h"
#include "core/trace.h"
#include "protocols/lipc_board.h"

static constexpr char Module[] = "lipc";

namespace {

static_assert(kBoardSlots <= kNoEntry);
static_assert(sizeof QueueMessage::Body == kMessageArea - sizeof ClientMessage::Length);

fd_set directConnections;  // that the child may write to

bool IsKept(int fd, const ReaderChannels& channels) {
  return fd == channels.Pipe[1] || fd == channels.Pair[1] ||
         (fd < FD_SETSIZE && FD_ISSET(fd, &g_DbcI.ClientSockets));
}

void CloseForeignDescriptors(const ReaderChannels& channels) {
  const int end = 1 + std::max({FD_SETSIZE, channels.Pipe[1], channels.Pair[1]});
  unsigned from = kFirstDescriptor;
  for (int fd = kFirstDescriptor; fd < end; ++fd) {
    if (!IsKept(fd, channels)) continue;
    const unsigned kept = static_cast<unsigned>(fd);
    if (from < kept) close_range(from, kept - 1, 0);
    from = kept + 1;
  }
  close_range(from, ~0U, 0);
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
bool ReceiveAnswer(int queue, pid_t reader, QueueMessage* received, std::size_t* size) {
  for (;;) {
    const ssize_t got = msgrcv(queue, received, sizeof received->Body, reader, 0);
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
         FD_ISSET(request.Socket, &directConnections) &&
         request.Connection == ConnectionSerial(request.Socket);
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

bool DeliverDirectly(ReaderBoard* board, const BoardRequest& request, ClientMessage* msg) {
  if (!IsDirect(request) || !BoardBeginWrite(board, request)) return false;
  const bool written = PutDirectly(msg, request.Socket);
  BoardEndWrite(board, request, written);
  return written;
}

// The agent finds the connection.
bool HandOver(int pair, RequestId request, ClientMessage* msg) {
  std::memcpy(Packet(msg), &request, sizeof request);
  ssize_t sent;
  do {
    sent = send(pair, Packet(msg), sizeof msg->Reserved + msg->Length + 4, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  return sent >= 0;
}

bool WriteRecord(int pipe, const PipeRecord& record) {
  const unsigned char* const bytes = reinterpret_cast<const unsigned char*>(&record);
  std::size_t written = 0;
  while (written < sizeof record) {
    const ssize_t wrote = write(pipe, bytes + written, sizeof record - written);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) return false;
    written += static_cast<std::size_t>(wrote);
  }
  return true;
}

// Gives the answer to the client, or to the agent, and tells of it; false: the agent does not learn
// of it.
bool Deliver(const LIpcLinkData* data, int pipe, ClientMessage* msg) {
  BoardRequest request = {};
  request.Id.Slot = -1;
  const std::uint16_t astInd = Get(Trailer(msg), kTrailerAstInd);
  const bool known = BoardClaim(data->Board, msg->TaskName, astInd, &request);
  const bool delivered = known && DeliverDirectly(data->Board, request, msg);
  if (!delivered && !HandOver(data->Pair, request.Id, msg)) return false;
  LOG(kLogTrace, "LIPC CHLD. TaskName = %d", msg->TaskName);
  const std::int32_t entry = (known ? request.Id.Slot : kNoEntry) | (delivered ? 0 : kHandedOver);
  return WriteRecord(
      pipe,
      {.TaskName = msg->TaskName, .AstInd = astInd, .Entry = static_cast<std::uint16_t>(entry)});
}

}  // namespace

int ReadMessageFromKernelAndSendToDbc(const char* file, int line, LIpcLinkData* data,
                                      int pipeWrite) {
  ENTER();
  const pid_t reader = getpid();
  for (;;) {
    QueueMessage received;
    std::size_t size;
    if (!ReceiveAnswer(data->MsgQueueId, reader, &received, &size))
      return LEAVE(-1, "FAILED msgrcv");
    ClientMessage msg;
    if (!MakeAnswer(received, size, &msg)) {
      LOG(kLogDriver, "LIPC The strings of an answer are too long. Skip the message");
      continue;
    }
    if (Deliver(data, pipeWrite, &msg)) continue;
    LOG(kLogDriver, "LIPC write failed. errno = %d", errno);
    return LEAVE(-1, "FAILED write");
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
