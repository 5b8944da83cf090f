// System calls that fail, and names of hosts that resolve, when a test says so.
#pragma once
#include <ctime>

enum class SystemCall {
  Socket,
  Fcntl,
  SetSockOpt,
  Connect,
  Send,
  Recv,
  Read,
  Write,
  Select,
  Shutdown,
  MsgSend,
  MsgReceive,
  SemOp,
  Count
};

// While it lives, calls of one kind by the agent's modules or the test fail with `error`: after
// `successes` more have succeeded, `failures` of them in a row. A process that is started meanwhile
// counts for itself.
class FailingSystemCall {
 public:
  FailingSystemCall(SystemCall call, int error, int successes = 0, int failures = 1000000);
  ~FailingSystemCall();
  FailingSystemCall(const FailingSystemCall&) = delete;
  FailingSystemCall& operator=(const FailingSystemCall&) = delete;
  int Calls() const;  // since it was made, failed ones included

 private:
  const SystemCall call_;
};

// What a call comes to during which the system's fail so.
template <class Call>
auto With(const FailingSystemCall&, Call call) {
  return call();
}

// While it lives, this socket option cannot be set.
class FailingSocketOption {
 public:
  FailingSocketOption(int level, int name, int error);
  ~FailingSocketOption();
  FailingSocketOption(const FailingSocketOption&) = delete;
  FailingSocketOption& operator=(const FailingSocketOption&) = delete;
};

// While it lives, this is the time.
class FixedTime {
 public:
  explicit FixedTime(std::time_t seconds);
  ~FixedTime();
  FixedTime(const FixedTime&) = delete;
  FixedTime& operator=(const FixedTime&) = delete;
  void Set(std::time_t seconds);
};

// While it lives, this host name resolves to this IPv4 address, and no other name resolves.
class OnlyHost {
 public:
  OnlyHost(const char* name, const char* address);
  ~OnlyHost();
  OnlyHost(const OnlyHost&) = delete;
  OnlyHost& operator=(const OnlyHost&) = delete;
};

// In processes that are started while it lives, a send over TCP returns only when something has
// come back, after a second at most, and waits in epoll are counted.
class AnswersAtOnce {
 public:
  AnswersAtOnce();
  ~AnswersAtOnce();
  AnswersAtOnce(const AnswersAtOnce&) = delete;
  AnswersAtOnce& operator=(const AnswersAtOnce&) = delete;
  int Waits() const;
};
