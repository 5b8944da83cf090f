#include "tools/lumo_node/control.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace lumo::node {
namespace {

constexpr char kStop[] = "--stop", kDone[] = "ok";
constexpr std::size_t kLongestLine = 4096;
constexpr int kBacklog = 16;

[[noreturn]] void Fail(const std::string& path) {
  throw std::runtime_error("the control socket " + path + ": " + std::strerror(errno));
}

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path)
    throw std::runtime_error("the path " + path + " is too long for a socket");
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

int Listen(const std::string& path) {
  const sockaddr_un address = Address(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  unlink(path.c_str());
  if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0 ||
      listen(fd, kBacklog) < 0)
    Fail(path);
  return fd;
}

// A line is short: what the peer does not take is its own loss.
void Answer(int socket, const std::string& text) {
  const std::string line = text + '\n';
  send(socket, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

// The answer to a line.
std::string Carry(const std::string& line, const Control::Setter& set) {
  try {
    set(line);
    return kDone;
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
}

}  // namespace

Control::Control(const std::string& path) : path_(path), listener_(Listen(path)) {}

Control::~Control() {
  unlink(path_.c_str());
  close(listener_);
  for (const auto& [socket, line] : lines_) close(socket);
}

void Control::Collect(std::vector<pollfd>* wanted) const {
  wanted->push_back({listener_, POLLIN, 0});
  for (const auto& [socket, line] : lines_) wanted->push_back({socket, POLLIN, 0});
}

bool Control::Serve(const Setter& set) {
  const int fresh = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fresh >= 0) lines_[fresh];
  for (auto it = lines_.begin(); it != lines_.end();) {
    auto& [socket, text] = *it;
    const bool open = Read(socket, &text);
    const std::size_t end = text.find('\n');
    if (end == std::string::npos && open) {
      ++it;
      continue;
    }
    const std::string line = text.substr(0, end);
    if (end != std::string::npos) Answer(socket, line == kStop ? kDone : Carry(line, set));
    if (end != std::string::npos && line == kStop) return true;
    close(socket);
    it = lines_.erase(it);
  }
  return false;
}

bool Control::Read(int socket, std::string* line) const {
  std::array<char, kLongestLine> bytes;
  const ssize_t got = recv(socket, bytes.data(), bytes.size(), 0);
  if (got < 0) return errno == EAGAIN || errno == EINTR;
  line->append(bytes.data(), static_cast<std::size_t>(got));
  return got > 0 && line->size() <= kLongestLine;
}

void TellNode(const std::string& path, const std::string& line) {
  const sockaddr_un address = Address(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0)
    Fail(path);
  Answer(fd, line);
  std::string answer;
  std::array<char, kLongestLine> bytes;
  for (ssize_t got; (got = recv(fd, bytes.data(), bytes.size(), 0)) > 0;)
    answer.append(bytes.data(), static_cast<std::size_t>(got));
  close(fd);
  if (answer != std::string(kDone) + '\n')
    throw std::runtime_error(answer.empty() ? "the node at " + path + " has gone" : answer);
}

}  // namespace lumo::node
