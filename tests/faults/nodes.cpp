#include "tests/faults/nodes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace faults {
namespace {

constexpr int kLocalNumber = 77, kDeadNumber = 78;
constexpr int kReceiveBuffer = 16384;  // small, so that a paused node soon stops an agent
constexpr test::Milliseconds kGap{5};  // between the pieces of an answer

struct Queued {
  long Type = 0;
  char Body[8188] = {};
};

int Fail(const char* what) { throw std::runtime_error(what); }

int TcpListener(std::uint16_t* port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd, 64) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0)
    return Fail("the TCP node does not start");
  *port = ntohs(address.sin_port);
  return fd;
}

int LocalListener(const std::string& path) {
  const int fd = test::BoundAt(path);
  return listen(fd, 64) == 0 ? fd : Fail("the local node does not start");
}

lumo::Message AnswerFor(const lumo::Message& request) {
  const std::string& text = request.Strings[0];
  return test::AnswerTo(request, text == "large" ? std::string(kLargeAnswer, 'x') : text);
}

bool SendInPieces(test::Peer& peer, const lumo::Message& answer, lumo::Lengths lengths) {
  const std::string frame = lumo::Encode(answer, lengths);
  for (std::size_t at = 0; at < frame.size();) {
    const std::size_t size = at == 0 ? 3 : at == 3 ? 50 : frame.size() - at;
    if (!peer.SendBytes(std::string_view(frame).substr(at, size))) return false;
    at += size;
    std::this_thread::sleep_for(kGap);
  }
  return true;
}

}  // namespace

Nodes::Nodes() {
  stalled_.Stall();
  tcpListener_ = TcpListener(&port_);
  localListener_ = LocalListener(Directory() / ("tavrin." + std::to_string(kLocalNumber)));
  if (pipe2(wakePipe_, O_CLOEXEC) != 0) Fail("no pipe");
  streams_ = std::thread([this] { ServeStreams(); });
  queue_ = std::thread([this] { ServeQueue(); });
}

Nodes::~Nodes() {
  ended_ = true;
  paused_ = false;
  Wake();
  kernel_.RemoveSemaphore();  // ends the wait for a request
  streams_.join();
  queue_.join();
  for (const int fd : {tcpListener_, localListener_, wakePipe_[0], wakePipe_[1]}) close(fd);
}

std::string Nodes::Tcp(const std::string& name, const std::string& timeouts) const {
  return name + " TCPIP 127.0.0.1 " + std::to_string(port_) + " " + timeouts + "\n";
}

std::string Nodes::Local(const std::string& name) const {
  return name + " LOCALS " + std::to_string(kLocalNumber) + "\n";
}

std::string Nodes::DeadLocal(const std::string& name) const {
  return name + " LOCALS " + std::to_string(kDeadNumber) + "\n";
}

void Nodes::Resume() {
  paused_ = false;
  Wake();
}

void Nodes::Wake() const {
  const char byte = 0;
  if (write(wakePipe_[1], &byte, 1) != 1) Fail("the node's thread cannot be woken");
}

void Nodes::ServeStreams() {
  struct Connection {
    test::Peer Peer;
    lumo::Lengths Lengths;
  };
  std::vector<Connection> open;
  while (!ended_) {
    std::vector<pollfd> ready{
        {wakePipe_[0], POLLIN, 0}, {tcpListener_, POLLIN, 0}, {localListener_, POLLIN, 0}};
    for (const Connection& one : open)
      ready.push_back({paused_ ? -1 : one.Peer.Socket(), POLLIN, 0});
    poll(ready.data(), ready.size(), 20);
    if (std::array<char, 64> bytes; ready[0].revents) [[maybe_unused]]
      const ssize_t got = read(wakePipe_[0], bytes.data(), bytes.size());
    for (std::size_t i = open.size(); i-- > 0;) {
      if (ready[i + 3].revents == 0 || paused_) continue;
      ServeStream(open[i].Peer);
      if (!open[i].Peer.Open()) open.erase(open.begin() + static_cast<std::ptrdiff_t>(i));
    }
    for (const auto& [index, lengths] :
         {std::pair(1, lumo::Lengths::Packet), std::pair(2, lumo::Lengths::Client)}) {
      if (!ready[static_cast<std::size_t>(index)].revents) continue;
      test::Peer peer(lengths, test::AcceptWithin(ready[static_cast<std::size_t>(index)].fd,
                                                  test::Milliseconds(0)));
      if (lengths == lumo::Lengths::Client) peer.SendBytes(std::string(60, '\0'));
      if (peer.Open()) open.push_back({std::move(peer), lengths});
    }
  }
}

void Nodes::ServeStream(test::Peer& peer) {
  const std::optional<std::string> frame = peer.ReadFrame();
  if (!frame) return peer.Close();
  const std::optional<lumo::Message> request = lumo::Decode(*frame);
  if (!request || request->Command == "CKIL") return;  // nothing is answered
  const std::string& text = request->Strings[0];
  if (text == "close") return peer.Close();
  // In a packet the length word does not count itself.
  std::uint32_t word = 0;
  std::memcpy(&word, frame->data(), sizeof word);
  const auto lengths = word == frame->size() ? lumo::Lengths::Client : lumo::Lengths::Packet;
  const bool sent = text == "split" ? SendInPieces(peer, AnswerFor(*request), lengths)
                                    : peer.SendMessage(AnswerFor(*request));
  ++served_;
  if (!sent) peer.Close();
}

void Nodes::ServeQueue() {
  const int queue = msgget(kernel_.Key(), 0), semaphore = semget(kernel_.Key(), 1, 0);
  while (!ended_) {
    sembuf down = {.sem_num = 0, .sem_op = -1, .sem_flg = 0};
    if (semop(semaphore, &down, 1) != 0 && errno != EINTR) return;
    while (!ended_ && AnswerFromQueue(queue)) continue;
  }
}

// False: nothing is in the queue.
bool Nodes::AnswerFromQueue(int queue) {
  while (paused_) std::this_thread::sleep_for(test::Milliseconds(1));
  Queued received;
  const ssize_t size = msgrcv(queue, &received, sizeof received.Body, 1, IPC_NOWAIT);
  if (size < 0) return errno == EINTR;
  const auto request = lumo::Decode(std::string(4, '\0') +
                                    std::string(received.Body, static_cast<std::size_t>(size)));
  if (!request || request->Command == "CKIL") return true;
  if (request->Strings[0] == "close") {
    kill(request->TaskName, SIGKILL);
    return true;
  }
  const std::string body = lumo::Encode(AnswerFor(*request), lumo::Lengths::Packet).substr(4);
  Queued answer;
  answer.Type = request->TaskName;
  std::memcpy(answer.Body, body.data(), body.size());
  while (msgsnd(queue, &answer, body.size(), 0) != 0 && errno == EINTR) continue;
  ++served_;
  return true;
}

}  // namespace faults
