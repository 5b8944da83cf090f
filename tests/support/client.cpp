#include "tests/support/client.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "tests/support/management.h"

namespace test {

lumo::Message FullMessage(const Client& client, const std::string& node) {
  lumo::Message message;
  message.TaskName = client.TaskName();
  message.CodErr = -7;
  message.Prior = 0x1112;
  message.NumChan = 0x1314;
  message.Uninterpreted = {9, 8, 7, 6};
  message.Command = "FTCH";
  message.Node = node;
  message.RowId = 0x21222324;
  message.RowCount = -5;
  message.PrzExe = 0xF1F2F3F4;
  message.SysErr = 111;
  message.LnBufRow = 0x4142;
  message.DbcApiCode = 129;
  message.Strings = {"even", "odd", "", "x"};
  for (std::size_t i = 0; i < message.Trailer.size(); ++i)
    message.Trailer[i] = static_cast<std::uint8_t>(i + 1);
  message.SetAstInd(0x5152);
  return message;
}
namespace {

constexpr std::uint16_t kFirstBarrierTag = 0xF000;  // far from the tags of ordinary requests

std::string Shown(const std::optional<std::string>& frame) {
  return frame ? testing::PrintToString(*frame) : "nothing";
}

}  // namespace

Client::Client(const Agent& agent) : Client(agent, getpid()) {}

Client::Client(const Agent& agent, std::int32_t taskName) : taskName_(taskName) {
  std::string error;
  connection_ =
      lumo::Connection::Open(agent.SocketPath(), &error, static_cast<int>(kPatience.count()));
  if (!connection_) ADD_FAILURE() << error;
}

lumo::Connection& Client::Connection() {
  if (!connection_) throw std::runtime_error("the client is not connected");
  return *connection_;
}

lumo::Message Client::Request(const std::string& node, const std::string& text) {
  lumo::Message request;
  request.TaskName = taskName_;
  request.Node = node;
  request.Strings[0] = text;
  request.SetTrailerTaskName(taskName_);
  request.SetAstInd(++lastAstInd_);
  return request;
}

lumo::Message Client::Send(const std::string& node, const std::string& text) {
  const lumo::Message request = Request(node, text);
  if (!SendMessage(request)) ADD_FAILURE() << "the request cannot be sent";
  return request;
}

bool Client::SendMessage(const lumo::Message& message) {
  return SendBytes(lumo::Encode(message, lumo::Lengths::Client));
}

bool Client::SendBytes(std::string_view bytes) { return Connection().SendFrame(bytes); }

std::optional<std::string> Client::ReceiveFrame(Milliseconds timeout) {
  return Connection().ReceiveFrame(static_cast<int>(timeout.count()));
}

std::optional<lumo::Message> Client::Receive(Milliseconds timeout) {
  const std::optional<std::string> frame = ReceiveFrame(timeout);
  return frame ? lumo::Decode(*frame) : std::nullopt;
}

lumo::Message Client::ExpectAnswer(const lumo::Message& request, const Place& place) {
  const testing::ScopedTrace trace(place.File, place.Line, "");
  const std::optional<lumo::Message> answer = Receive();
  if (!answer) {
    ADD_FAILURE() << "no answer comes" << (Connected() ? "" : ": the connection was closed");
    return {};
  }
  EXPECT_EQ(answer->AstInd(), request.AstInd());
  EXPECT_EQ(answer->TaskName, request.TaskName);
  return *answer;
}

lumo::Message Client::Ask(const std::string& node, const std::string& text, const Place& place) {
  return ExpectAnswer(Send(node, text), place);
}

void Client::ExpectError(const lumo::Message& request, int codErr, int sysErr, const Place& place) {
  const testing::ScopedTrace trace(place.File, place.Line, "");
  const std::optional<std::string> frame = ReceiveFrame();
  if (frame == ErrorFrame(request, codErr, sysErr)) return;
  const std::optional<lumo::Message> answer = frame ? lumo::Decode(*frame) : std::nullopt;
  if (!answer) {
    ADD_FAILURE() << "expected the error " << codErr << ", " << sysErr << ", came " << Shown(frame);
    return;
  }
  EXPECT_EQ(answer->CodErr, codErr);
  EXPECT_EQ(answer->SysErr, sysErr);
  EXPECT_EQ(answer->TaskName, request.TaskName);
  EXPECT_EQ(answer->AstInd(), request.AstInd());
  EXPECT_EQ(*frame, ErrorFrame(request, codErr, sysErr));
}

void Client::ExpectNothing(const Place& place) {
  const testing::ScopedTrace trace(place.File, place.Line, "");
  for (std::uint16_t trip = 0; trip < 2; ++trip) {
    lumo::Message request = lumo::ManagementRequest(100);
    request.TaskName = getpid();
    request.SetAstInd(static_cast<std::uint16_t>(kFirstBarrierTag + trip));
    SendMessage(request);
    const std::optional<std::string> frame = ReceiveFrame();
    const std::optional<lumo::Message> answer =
        frame ? lumo::Decode(*frame, lumo::Layout::Management) : std::nullopt;
    if (!answer) {
      ADD_FAILURE() << "the agent does not answer, or with " << Shown(frame);
      return;
    }
    EXPECT_EQ(answer->AstInd(), request.AstInd()) << "CodErr " << answer->CodErr;
  }
}

void Client::ExpectClosed(const Place& place) {
  const testing::ScopedTrace trace(place.File, place.Line, "");
  const std::optional<std::string> frame = ReceiveFrame();
  EXPECT_FALSE(frame) << "came " << Shown(frame);
  EXPECT_TRUE(Connection().Lost()) << "the connection stays open";
}

void Client::Close() { connection_.reset(); }

std::string ErrorFrame(const lumo::Message& request, int codErr, int sysErr) {
  lumo::Message answer;
  answer.TaskName = request.TaskName;
  answer.CodErr = codErr;
  answer.SysErr = sysErr;
  answer.SetAstInd(request.AstInd());
  return lumo::Encode(answer, lumo::Lengths::Client);
}

int ConnectRaw(const std::string& path, int flags) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return -1;
  std::memcpy(address.sun_path, path.data(), path.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}

std::string ReadRaw(int socket, std::size_t size, Milliseconds timeout) {
  const Clock::time_point deadline = Clock::now() + timeout;
  std::string bytes(size, '\0');
  std::size_t come = 0;
  while (come < size) {
    pollfd ready{socket, POLLIN, 0};
    if (poll(&ready, 1, MillisecondsLeft(deadline)) <= 0) break;
    const ssize_t got = recv(socket, bytes.data() + come, size - come, 0);
    if (got <= 0) break;
    come += static_cast<std::size_t>(got);
  }
  bytes.resize(come);
  return bytes;
}

}  // namespace test
