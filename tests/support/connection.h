// A client of the agent that shares nothing with the library but the form of messages.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lib/message_codec.h"
#include "lib/socket_path.h"

namespace lumo {

class Connection {
 public:
  // Connects, reads the greeting and checks it; on failure says why in `error`.
  static std::optional<Connection> Open(const std::string& path, std::string* error = nullptr,
                                        int timeoutMs = 5000);
  Connection(Connection&& other) noexcept;
  Connection& operator=(Connection&& other) noexcept;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  std::int32_t AgentPid() const { return agentPid_; }
  int Socket() const { return socket_; }
  // The agent has closed the connection, or what came from it makes no sense.
  bool Lost() const { return lost_; }

  // The whole frame, blocking; false when the connection is lost.
  bool SendFrame(std::string_view frame);
  // One whole frame, length word included. Nothing when the time is over (bytes that have come
  // are kept for the next call; a time of 0 takes only what is there) or the connection is lost.
  std::optional<std::string> ReceiveFrame(int timeoutMs);
  // Sends a request and waits for the answer with its AstInd, passing over any other.
  std::optional<Message> Ask(const Message& request, int timeoutMs,
                             Layout layout = Layout::Ordinary);
  void Close();

 private:
  explicit Connection(int socket) : socket_(socket) {}
  bool ReadGreeting(int timeoutMs, std::string* error);
  // Reads until `size` bytes are in received_.
  bool ReceiveBytes(std::size_t size, std::int64_t deadline);

  int socket_ = -1;
  std::int32_t agentPid_ = 0;
  bool lost_ = false;
  std::string received_;
};

}  // namespace lumo
