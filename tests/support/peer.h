// A stream connection that the agent made to a stand-in of ours, with the verbs of its far end.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lib/message_codec.h"
#include "tests/support/place.h"
#include "tests/support/wait.h"

namespace test {

// The body of a packet of 8 bytes.
struct Control {
  std::uint32_t Type = 0, Parameter = 0;
  bool operator==(const Control&) const = default;
};

std::string ControlPacket(Control control);

class Peer {
 public:
  explicit Peer(lumo::Lengths lengths, int socket = -1) : lengths_(lengths), socket_(socket) {}
  Peer(Peer&& other) noexcept;
  Peer& operator=(Peer&& other) noexcept;
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() { Close(); }

  // A whole frame, length word included; nothing when the time is over (bytes that have come are
  // kept for the next call) or the agent closed the connection.
  std::optional<std::string> ReadFrame(Milliseconds timeout = kPatience);
  // The next frame must be a message; otherwise the test fails.
  std::optional<lumo::Message> ReadRequest(Milliseconds timeout = kPatience);
  // The same for a test that is over without it.
  lumo::Message ExpectRequest(const Place& place = Place::Here());
  // The next frame must be a control packet; otherwise the test fails.
  std::optional<Control> ReadControl(Milliseconds timeout = kPatience);
  // The agent closes the connection; what comes before is thrown away.
  bool ReadEnd(Milliseconds timeout = kPatience);
  // Nothing has come and nothing comes shortly. After a barrier a time of 0 suffices.
  bool Silent(Milliseconds timeout = kShortly);

  // The answer to a request: its task name and tag, `text` in the first string.
  bool Answer(const lumo::Message& request, const std::string& text = {}, int codErr = 0);
  bool SendMessage(const lumo::Message& message);
  bool SendControl(Control control);
  bool SendBytes(std::string_view bytes);

  // All that was sent over TCP has come to the agent's socket, whether it reads it or not.
  bool Arrived() const;

  void Close();
  void Reset();        // closes so that the agent's next call sees an error; it is there on return
  void StopSending();  // over TCP, the end has come to the agent's socket on return
  bool Open() const { return socket_ >= 0; }
  bool Ended() const { return ended_; }  // a call for a frame has found the agent's end
  int Socket() const { return socket_; }

 private:
  bool ReceiveBytes(std::size_t size, Clock::time_point deadline);

  lumo::Lengths lengths_;
  int socket_;
  bool ended_ = false;
  std::string received_;
};

// What a server answers to a request.
lumo::Message AnswerTo(const lumo::Message& request, const std::string& text, int codErr = 0);

// The numbers of a TCP socket's ports.
std::uint16_t LocalPort(int socket);
std::uint16_t RemotePort(int socket);

// A UNIX-domain socket on which nobody listens yet.
int BoundAt(const std::string& path);
// Accepts a connection; -1 when none comes in time.
int AcceptWithin(int listener, Milliseconds timeout);

}  // namespace test
