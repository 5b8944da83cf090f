// Packets over stream connections: TCP, and the UNIX-domain socket of a local kernel.
#pragma once
#include <map>

#include "tools/lumo_node/event_log.h"
#include "tools/lumo_node/transport.h"

namespace lumo::node {

struct Listener {
  int Socket;
  std::string Place;  // "tcp 127.0.0.1:1060" or "local PATH"
};

class StreamServer : public Transport {
 public:
  StreamServer(const StreamServer&) = delete;
  StreamServer& operator=(const StreamServer&) = delete;
  ~StreamServer() override;

  int Collect(std::vector<pollfd>* wanted) override;
  void Serve(const Handler& handler) override;
  void Send(PeerId peer, const std::string& frame) override;
  void CloseAfterSending(PeerId peer) override;

  const std::string& Place() const { return listener_.Place; }

 protected:
  StreamServer(EventLog* log, Listener listener);
  virtual std::string Greeting() const = 0;

 private:
  struct Connection {
    int Socket = -1;
    std::string In, Out;
    bool Closing = false;
  };
  using Connections = std::map<PeerId, Connection>;

  std::string Name(PeerId peer) const;
  void AcceptAll();
  bool Receive(Connection* connection);
  bool Flush(Connection* connection);
  bool TakeFrame(Connection* connection, std::string* frame);
  bool ServeConnection(PeerId peer, const Handler& handler);
  Connections::iterator Drop(Connections::iterator connection);

  EventLog* const log_;
  const Listener listener_;
  PeerId lastPeer_ = 0;
  Connections connections_;
};

class TcpServer : public StreamServer {
 public:
  TcpServer(EventLog* log, const std::string& address, std::uint16_t port);
  Lengths FrameLengths() const override { return Lengths::Packet; }
  bool HasControlPackets() const override { return true; }

 protected:
  std::string Greeting() const override { return {}; }
};

class LocalServer : public StreamServer {
 public:
  LocalServer(EventLog* log, int exchangeId);
  ~LocalServer() override;  // removes the socket's file
  Lengths FrameLengths() const override { return Lengths::Client; }
  bool HasControlPackets() const override { return false; }

 protected:
  std::string Greeting() const override;

 private:
  const std::string path_;
};

}  // namespace lumo::node
