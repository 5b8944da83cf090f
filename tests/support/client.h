// A client application of the agent.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lib/message_codec.h"
#include "tests/support/agent.h"
#include "tests/support/connection.h"
#include "tests/support/place.h"

namespace test {

class Client;

// A message of the client's in which every field has a value of its own.
lumo::Message FullMessage(const Client& client, const std::string& node);

class Client {
 public:
  explicit Client(const Agent& agent);  // connects; the task name is this process's id
  Client(const Agent& agent, std::int32_t taskName);

  bool Connected() const { return connection_ && !connection_->Lost(); }
  lumo::Connection& Connection();
  std::int32_t TaskName() const { return taskName_; }
  void SetTaskName(std::int32_t taskName) { taskName_ = taskName; }

  // A request with the next tag, not sent. An empty node means the default one.
  lumo::Message Request(const std::string& node = {}, const std::string& text = {});
  lumo::Message Send(const std::string& node = {}, const std::string& text = {});
  bool SendMessage(const lumo::Message& message);
  bool SendBytes(std::string_view bytes);

  // Without a failure of the test when nothing comes.
  std::optional<std::string> ReceiveFrame(Milliseconds timeout = kPatience);
  std::optional<lumo::Message> Receive(Milliseconds timeout = kPatience);

  // The next message is the answer to this request; returned for further looks.
  lumo::Message ExpectAnswer(const lumo::Message& request, const Place& place = Place::Here());
  // Send and ExpectAnswer: for a node that answers by itself (EchoNode).
  lumo::Message Ask(const std::string& node, const std::string& text,
                    const Place& place = Place::Here());
  // The next message is the agent's own answer with these codes, exact to the byte.
  void ExpectError(const lumo::Message& request, int codErr, int sysErr,
                   const Place& place = Place::Here());
  // Nothing has come: the agent's answer to a management command sent now is the next message.
  void ExpectNothing(const Place& place = Place::Here());
  // The agent closes the connection, and nothing comes before.
  void ExpectClosed(const Place& place = Place::Here());
  void Close();

 private:
  std::int32_t taskName_;
  std::uint16_t lastAstInd_ = 0;
  std::optional<lumo::Connection> connection_;
};

// The answer that the agent makes itself, as it goes over the connection.
std::string ErrorFrame(const lumo::Message& request, int codErr, int sysErr);

// A connection without a greeting read, for the bytes themselves; -1 when refused. The flags are
// the socket's.
int ConnectRaw(const std::string& path, int flags = 0);
// Up to `size` bytes; less when the time is over or the peer closed.
std::string ReadRaw(int socket, std::size_t size, Milliseconds timeout = kPatience);

}  // namespace test
