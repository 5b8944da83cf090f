// A node behind a stream socket: a TCP server, or a local kernel with a socket of its own.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tests/endurance/node.h"

namespace endurance {

class StreamNode : public Node {
 public:
  ~StreamNode() override;
  void Step(Time now) override;
  bool Idle() const override;
  int AgentDescriptors() const override { return socket_ >= 0 ? 1 : 0; }

 protected:
  StreamNode(const NodeSetting& setting, lumo::Lengths lengths);
  virtual void Listen() = 0;
  virtual void StopListening() = 0;
  virtual void Accepted(int socket) = 0;
  virtual bool IsControl(std::uint32_t length) const = 0;

  void WatchListener();
  void Start(int socket);  // the agent's new connection
  void Append(std::string_view bytes);
  int listener_ = -1;

 private:
  enum class Ending { Close, MidPacket, Reset, LongLength, ZeroLength, LongStrings, Count };

  bool Connected() const override { return socket_ >= 0; }
  void Transmit(const lumo::Message& message) override;
  void Break(Time now) override;
  void AcceptNext();
  void Serve(std::uint32_t events);
  void ReadAll();
  void TakeFrames();
  void TakeControl(std::string_view body);
  void Flush(Time now);
  std::size_t SendSome(std::size_t limit);
  void Spoil(Ending ending);
  void EndConnection(Ending ending);
  void Linger(int socket);
  void AgentClosed();

  lumo::Lengths lengths_;
  int socket_ = -1;
  std::string in_, out_;
  std::size_t outAt_ = 0;  // bytes of out_ that have gone
  std::size_t cutAt_ = 0;  // where a pause is made; 0: nowhere
  Time writeAgain_, readAgain_, acceptAgain_;
  bool reading_ = true;
  std::vector<int> lingering_;  // broken, waiting for the agent to close
};

class TcpNode : public StreamNode {
 public:
  TcpNode(const NodeSetting& setting, const std::string& timeouts);
  std::string Line() const override;

 private:
  void Listen() override;
  void StopListening() override;
  void Accepted(int socket) override;
  bool IsControl(std::uint32_t length) const override { return length == 8; }
  void Bind();

  int port_ = 0;
  std::string timeouts_;
};

class KernelNode : public StreamNode {
 public:
  // The number is the kernel's in the node table; the path is that of its socket.
  KernelNode(const NodeSetting& setting, int number, const std::string& path);
  ~KernelNode() override;
  std::string Line() const override;

 private:
  void Listen() override;
  void StopListening() override;
  void Accepted(int socket) override;
  bool IsControl(std::uint32_t) const override { return false; }

  int number_;
  std::string path_;
};

}  // namespace endurance
