#include "lib/agent_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace lumo::detail {
namespace {

constexpr std::size_t kGreetingSize = 60;
constexpr std::uint32_t kGreetingLength = 56;
using Greeting = std::array<char, kGreetingSize>;

// While the agent's backlog is full, connect waits for the send time-out of the socket.
void LimitConnect(int socket, const Deadline& deadline) {
  const int left = deadline.Left();
  if (left < 0) return;
  const timeval limit{.tv_sec = left / 1000, .tv_usec = left % 1000 * 1000 + (left == 0)};
  setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

Outcome ConnectSocket(int socket, const std::string& path, const Deadline& deadline) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  for (;;) {
    LimitConnect(socket, deadline);
    if (connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return {};
    if (errno == EAGAIN || (errno == EINTR && deadline.Passed())) return {LUMO_TIMEOUT};
    if (errno != EINTR) return {LUMO_NO_AGENT, errno};
  }
}

Outcome ReadGreeting(int socket, const Deadline& deadline, Greeting* greeting) {
  std::size_t have = 0;
  while (have < greeting->size()) {
    const ssize_t got =
        recv(socket, greeting->data() + have, greeting->size() - have, MSG_DONTWAIT);
    if (got == 0) return {LUMO_NO_AGENT, ECONNRESET};
    if (got > 0) {
      have += static_cast<std::size_t>(got);
    } else if (errno == EAGAIN) {
      if (deadline.Passed()) return {LUMO_TIMEOUT};
      pollfd ready{socket, POLLIN, 0};
      poll(&ready, 1, deadline.Left());
    } else if (errno != EINTR) {
      return {LUMO_NO_AGENT, errno};
    }
  }
  return {};
}

Outcome CheckGreeting(const Greeting& greeting, std::int32_t* agentPid) {
  std::uint32_t length;
  std::memcpy(&length, greeting.data(), sizeof length);
  std::memcpy(agentPid, greeting.data() + sizeof length, sizeof *agentPid);
  if (length != kGreetingLength || *agentPid <= 0) return {LUMO_BAD_GREETING};
  return {};
}

}  // namespace

bool FitsSocketAddress(const std::string& path) {
  return path.size() < sizeof(sockaddr_un::sun_path);
}

AgentSocket ConnectToAgent(const std::string& path, const Deadline& deadline) {
  AgentSocket agent;
  if (!FitsSocketAddress(path)) return {.Result = {LUMO_TOO_LONG}};
  agent.Socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (agent.Socket < 0) return {.Result = {LUMO_SYSTEM, errno}};
  Greeting greeting;
  agent.Result = ConnectSocket(agent.Socket, path, deadline);
  if (agent.Result.Good()) agent.Result = ReadGreeting(agent.Socket, deadline, &greeting);
  if (agent.Result.Good()) agent.Result = CheckGreeting(greeting, &agent.AgentPid);
  if (agent.Result.Good()) return agent;
  close(agent.Socket);
  agent.Socket = -1;
  return agent;
}

}  // namespace lumo::detail
