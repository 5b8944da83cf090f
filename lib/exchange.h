// One process's side of a connection to the agent: the socket, and the requests that went over it.
//
// Everything is under one mutex. One thread at a time is `busy_`: it waits on the socket with the
// mutex released, for all of them; the others wait for `changed_`. Only the busy thread replaces or
// closes the socket, so that no thread ever waits on a number that has become somebody else's.
//
// A request is in `inFlight_` from the moment its first byte is out, in `ended_` as soon as its end
// is known, and gone when a call has handed that out. One that was given up stays in `inFlight_`,
// without its ticket, until its answer comes: so long its tag must not be used again.
#pragma once
#include <sys/types.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "lib/agent_socket.h"
#include "lib/answer.h"
#include "lib/deadline.h"
#include "lib/include/lumo.h"
#include "lib/tags.h"

namespace lumo::detail {

class Exchange {
 public:
  // `before`: the parent process's side of the same connection, or null.
  Exchange(const std::string& path, const Exchange* before);
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  // In a child process: closes the copies of the parent's descriptors. The rest stays as it is:
  // the parent's threads may have held the mutex and changed things when the process forked.
  void LeaveToParent();

  Outcome Connect(const Deadline& deadline);
  Outcome Send(Message& request, Kind kind, const Deadline& deadline, lumo_ticket* ticket);
  Outcome Receive(lumo_ticket ticket, const Deadline& deadline, AnswerPointer* answer);
  Outcome ReceiveAny(const Deadline& deadline, lumo_ticket* ticket, AnswerPointer* answer);
  Outcome Abandon(lumo_ticket ticket);
  Outcome Ask(Message& request, Kind kind, const Deadline& deadline, AnswerPointer* answer);

  pid_t Pid() const { return pid_; }
  std::int32_t AgentPid() const { return agentPid_; }
  int Descriptor() const { return descriptor_; }
  std::size_t InFlight();

 private:
  struct Pending {
    lumo_ticket Ticket;
    std::uint16_t Tag;
    Kind RequestKind;
    bool Claimed, Ended, Abandoned;
    AnswerPointer Answer;
  };
  using List = std::list<Pending>;
  using Lock = std::unique_lock<std::mutex>;
  class Busy;

  bool Up() const { return descriptor_ >= 0 && !lost_; }
  Outcome EnsureConnected(Lock& lock, const Deadline& deadline);
  Outcome SendFrame(Lock& lock, std::string_view frame, List& request, const Deadline& deadline);
  // Puts the request in flight if the socket takes at least its first byte.
  bool TrySend(std::string_view frame, List& request);
  void Register(List& request);
  void Unregister(List& request);
  Outcome SendClaimed(Message& request, Kind kind, bool claimed, const Deadline& deadline,
                      lumo_ticket* ticket);
  Outcome ReceiveClaimed(Lock& lock, List::iterator request, const Deadline& deadline,
                         AnswerPointer* answer);
  Outcome Find(lumo_ticket ticket, List::iterator* request);
  AnswerPointer Take(List::iterator request);
  void GiveUp(List::iterator request);
  void SetClaimed(List::iterator request, bool claimed);
  List::iterator FirstUnclaimed();

  template <class Condition>
  bool WaitUntil(Lock& lock, const Deadline& deadline, Condition condition);
  void WaitForRoom(Lock& lock, const Deadline& deadline);
  void Pump(Lock& lock, const Deadline& deadline);
  void Wake();
  void TakeWake();
  // Everybody who waits looks again at what it waits for.
  void TellAll();

  void FlushUnsent();
  void ReadAvailable();
  bool DeliverReceived();
  bool Deliver(std::string_view frame);
  void End(List::iterator request);
  void Lose(lumo_reason reason);
  void EndLost(lumo_reason reason);
  void CloseSocket();

  static constexpr std::size_t kReceiveRoom = 32768;

  const pid_t pid_;
  const std::string path_;
  const lumo_ticket firstTicket_;  // of this process; smaller ones are the parent's
  const bool inherited_;
  Tags& tags_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool busy_ = false;
  std::atomic<int> descriptor_{-1};
  bool lost_ = false;  // the descriptor is to be closed as soon as no thread waits on it
  std::atomic<std::int32_t> agentPid_{0};
  std::atomic<int> wake_{-1};  // readable: the busy thread has something new to look at
  int waitingForRoom_ = 0;
  std::string unsent_;  // the rest of a request that the agent has begun to take
  std::unique_ptr<std::array<char, kReceiveRoom>> received_;
  std::size_t receivedSize_ = 0;
  List inFlight_, ended_;
  std::unordered_map<lumo_ticket, List::iterator> byTicket_;
  std::unordered_map<std::uint16_t, List::iterator> byTag_;
  std::size_t claimed_ = 0;
  Exchange* nextLeft_ = nullptr;  // keeps what was left to the parent reachable
};

}  // namespace lumo::detail
