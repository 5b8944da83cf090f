#include "tests/stress/stuck_peers.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <ctime>

namespace stress {
namespace {

constexpr std::size_t kTrailerSize = 48, kTaskNameAt = 4;
constexpr int kManyAnswers = 100;  // of the largest size: below what the agent keeps for a client
constexpr int kFloodAtOnce = 500;
const std::string kLargestText(8080, 't');

struct Frame {
  char Bytes[lumo::kMaxMessage];
  std::size_t Size;
};

// The frame in front of the bytes, as a request of this process.
void OwnFrame(const std::string& bytes, Frame* frame) {
  std::uint32_t size;
  std::memcpy(&size, bytes.data(), sizeof size);
  const std::int32_t pid = getpid();
  std::memcpy(frame->Bytes, bytes.data(), size);
  std::memcpy(frame->Bytes + kTaskNameAt, &pid, sizeof pid);
  std::memcpy(frame->Bytes + size - kTrailerSize, &pid, sizeof pid);
  frame->Size = size;
}

void ReadByteEachSecond(int socket) {
  char byte;
  const timespec second{1, 0};
  while (recv(socket, &byte, 1, 0) == 1) nanosleep(&second, nullptr);
}

void AskMuch(int socket, const std::string& bytes) {
  Frame frame;
  OwnFrame(bytes, &frame);
  for (int i = 0; i < kManyAnswers; ++i) SendAll(socket, frame.Bytes, frame.Size);
}

// The bodies of clients; `bytes`: a request, then the path of the agent's socket

void AskForEver(int socket, const std::string& bytes, std::uint64_t*) {
  Frame frame;
  OwnFrame(bytes, &frame);
  while (SendAll(socket, frame.Bytes, frame.Size)) continue;
}

void AskAndConnectAgain(int socket, const std::string& bytes, std::uint64_t* tally,
                        const timespec& pause) {
  Frame frame;
  OwnFrame(bytes, &frame);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, bytes.data() + frame.Size, bytes.size() - frame.Size);
  for (;;) {
    while (SendAll(socket, frame.Bytes, frame.Size)) {
      ++*tally;
      if (pause.tv_nsec > 0) nanosleep(&pause, nullptr);
    }
    close(socket);
    if (::socket(AF_UNIX, SOCK_STREAM, 0) != socket) _exit(1);
    while (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      if (errno != EINTR) _exit(1);
  }
}

void AskSteadily(int socket, const std::string& bytes, std::uint64_t* tally) {
  AskAndConnectAgain(socket, bytes, tally, {0, 1000000});
}

void AskFast(int socket, const std::string& bytes, std::uint64_t* tally) {
  AskAndConnectAgain(socket, bytes, tally, {0, 0});
}

void AskMuchAndStop(int socket, const std::string& bytes, std::uint64_t*) {
  AskMuch(socket, bytes);
  raise(SIGSTOP);
}

void AskMuchAndSip(int socket, const std::string& bytes, std::uint64_t*) {
  AskMuch(socket, bytes);
  ReadByteEachSecond(socket);
}

void AskHalf(int socket, const std::string& bytes, std::uint64_t*) {
  Frame frame;
  OwnFrame(bytes, &frame);
  SendAll(socket, frame.Bytes, frame.Size / 2);
}

// The bodies of nodes

void SendBack(int socket, const std::string&, std::uint64_t*) {
  char bytes[65536];
  for (ssize_t got; (got = recv(socket, bytes, sizeof bytes, 0)) > 0;)
    SendAll(socket, bytes, static_cast<std::size_t>(got));
}

void Stop(int, const std::string&, std::uint64_t*) { raise(SIGSTOP); }

void Sip(int socket, const std::string&, std::uint64_t*) { ReadByteEachSecond(socket); }

void SendOnce(int socket, const std::string& bytes, std::uint64_t*) {
  SendAll(socket, bytes.data(), bytes.size());
}

void SendForEver(int socket, const std::string& bytes, std::uint64_t* tally) {
  while (SendAll(socket, bytes.data(), bytes.size())) *tally += bytes.size();
}

// Control packets and answers that belong to no request, in turn.
std::string Flood() {
  lumo::Message answer;
  answer.TaskName = getpid();
  answer.SetTrailerTaskName(getpid());
  answer.SetAstInd(0xEFFF);
  const std::uint32_t control[] = {8, 1, 0};
  std::string packets;
  for (int i = 0; i < kFloodAtOnce; ++i) {
    packets += lumo::Encode(answer, lumo::Lengths::Packet);
    packets.append(reinterpret_cast<const char*>(control), sizeof control);
  }
  return packets;
}

}  // namespace

std::string StuckPeers::Nodetab() const {
  return busy_.Line("BUSY") + stoppedNode_.Line("STOPPED", "0 20 0") + sippingNode_.Line("SIPS") +
         halfNode_.Line("HALF") + flooder_.Line("FLOOD");
}

// The node gets its connection by a first request; from then on the process has it alone.
PeerProcess& StuckPeers::AddNode(const test::Agent& agent, test::Node& node,
                                 const std::string& name, const std::string& bytes, PeerBody body) {
  clients_.emplace_back(agent).Send(name);
  EXPECT_TRUE(node.Accept()) << name;
  processes_.emplace_back(node.Socket(), bytes, body);
  node.Close();
  return processes_.back();
}

PeerProcess& StuckPeers::AddClient(const test::Agent& agent, const std::string& node,
                                   PeerBody body) {
  lumo::Message request = clients_.front().Request(node, kLargestText);
  const int socket = test::ConnectRaw(agent.SocketPath());
  EXPECT_GE(socket, 0) << node;
  processes_.emplace_back(socket, lumo::Encode(request, lumo::Lengths::Client) + agent.SocketPath(),
                          body);
  close(socket);
  return processes_.back();
}

void StuckPeers::Attach(const test::Agent& agent, Pace pace) {
  AddNode(agent, busy_, "BUSY", "", SendBack);
  EXPECT_TRUE(AddNode(agent, stoppedNode_, "STOPPED", "", Stop).WaitUntilStopped());
  AddNode(agent, sippingNode_, "SIPS", "", Sip);
  const std::string answer = lumo::Encode(lumo::Message(), lumo::Lengths::Packet);
  AddNode(agent, halfNode_, "HALF", answer.substr(0, answer.size() / 2), SendOnce);
  for (const char* node : {"STOPPED", "SIPS", "HALF"}) AddClient(agent, node, AskForEver);
  AddClient(agent, "BUSY", AskHalf);
  AddClient(agent, "BUSY", AskMuchAndSip);
  EXPECT_TRUE(AddClient(agent, "BUSY", AskMuchAndStop).WaitUntilStopped());
  unread_ = &AddClient(agent, "BUSY", pace == Pace::Steady ? AskSteadily : AskFast);
  flood_ = &AddNode(agent, flooder_, "FLOOD", Flood(), SendForEver);
  EXPECT_TRUE(test::WaitFor([&] { return FloodBytes() > 0 && UnreadRequests() > 0; }));
}

std::vector<pid_t> StuckPeers::Pids() const {
  std::vector<pid_t> pids;
  for (const PeerProcess& process : processes_) pids.push_back(process.Pid());
  return pids;
}

}  // namespace stress
