// Stand-ins for a database kernel on the agent's own machine.
#pragma once
#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>

#include "tests/support/agent.h"
#include "tests/support/peer.h"

namespace test {

// A kernel on a UNIX-domain socket beside the agent's. It listens at once; it greets when it
// accepts, and until then the agent waits in its connect.
class LocalKernel : public Peer {
 public:
  explicit LocalKernel(const Agent& agent);
  ~LocalKernel();
  LocalKernel(LocalKernel&&) = delete;

  bool Accept(Milliseconds timeout = kPatience) { return Accept(std::string(60, '\0'), timeout); }
  bool Accept(const std::string& greeting, Milliseconds timeout = kPatience);
  // A connection, and the first request over it; the test is over without them.
  lumo::Message ExpectFirstRequest(const Place& place = Place::Here());
  void StopListening();  // also removes the socket's file
  int Number() const { return number_; }
  // A node table line: `protocol` is LOCALS or LOCAL.
  std::string Line(const std::string& name, const std::string& protocol = "LOCALS") const;

 private:
  std::string path_;
  int listener_;
  int number_;
};

// A kernel on System V objects under a key of its own. They are removed by the destructor or at
// exit; what a killed test left behind is removed by the next one.
class IpcKernel {
 public:
  static constexpr int kLargestSemaphore = 32767;
  struct Request {
    lumo::Message Message;  // its task name is the process id of the agent's reader
    pid_t Reader = 0;
  };

  explicit IpcKernel(pid_t kernelPid = 0 /* this process */);
  ~IpcKernel();
  IpcKernel(const IpcKernel&) = delete;
  IpcKernel& operator=(const IpcKernel&) = delete;

  std::optional<Request> ReadRequest(Milliseconds timeout = kPatience);
  Request ExpectRequest(const Place& place = Place::Here());  // the test is over without it
  std::optional<Request> TakeRequest();  // one that is there already; it need not be
  bool Answer(const Request& request, const std::string& text = {}, int codErr = 0);
  bool SendMessage(pid_t reader, const lumo::Message& message);
  bool SendBytes(pid_t reader, const std::string& body);  // from the task name on
  int SemaphoreValue() const;
  void SetSemaphore(int value);
  int QueuedMessages() const;
  bool HasRoomFor(std::size_t bytes) const;  // a message with so many from the task name on
  void LimitQueue(unsigned long bytes);
  void FillQueue();  // with messages that nobody reads, until no more fits
  void DrainQueue();
  void DropAnswers(pid_t reader);  // which it has not taken

  void SetKernelPid(pid_t pid);
  void RemoveSegment();
  void RemoveQueue();
  void RemoveSemaphore();

  int Key() const { return key_; }
  std::string Line(const std::string& name) const;

 private:
  void MakeObjects();

  int key_;
  int segment_ = -1, queue_ = -1, semaphore_ = -1;
};

}  // namespace test
