// A client of the agent that comes and goes: it connects, asks, hangs up in one of many ways, and
// comes back at once, mostly with the descriptor numbers that it had.
#pragma once
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "tests/endurance/ledger.h"

namespace endurance {

struct ClientSetting {
  Loop* Events;
  Ledger* Account;
  Chance* Luck;
  std::string Path;  // of the agent's socket
  std::int32_t AgentPid = 0;
  std::vector<std::string> Nodes;
  int Tasks = 1;
  int SharingNode = -1;                 // where connections use the same tags at the same time,
  int SharedPercent = 0;                // and of how many requests
  int MeanLife = 60;                    // requests of a connection
  const int* IdlersPerMille = nullptr;  // clients that take no answers for long
};

class Client {
 public:
  explicit Client(const ClientSetting& setting) : setting_(setting) {}
  ~Client() { CloseSocket(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // In each pass of the loop; with `mayAsk` new requests are made.
  void Step(Time now, bool mayAsk);
  // No new life begins; the present one ends when all its requests have ended.
  void Settle(bool on) { settling_ = on; }
  bool Connected() const { return socket_ >= 0; }
  int Task() const { return task_; }
  void ProcessDied();  // of its task name

  // For those who ask in their own way: a connection that stays.
  void ConnectToStay();
  bool Greeted() const { return phase_ == Phase::Asking; }
  Request& AskNode(int node, bool sentinel);
  Request& AskManagement(std::uint16_t command, std::int32_t rowId, const std::string& text,
                         std::int32_t expected);
  bool Waits() const { return open_ > 0; }

 private:
  enum class Phase { Greeting, Asking, AwaitingClose };
  enum class Reading { Always, WithPauses, NotAtAll };
  enum class Ending { Finish, HangUp, HalfFrame, HalfClose, Malformed };

  struct Asked {
    std::uint64_t Number;
    std::uint64_t EndsAt;  // in the bytes of the connection
  };

  void Connect(Time now);
  void BeginLife();
  void AskSome(Time now);
  void AskOne();
  int ChooseNode();
  int ChooseSharedTag(int node);
  std::uint32_t ChooseAnswerSize();
  void AskAgent();
  Request& Queue(Request& request, lumo::Message message);
  void EndLife(Time now);
  void SendMalformed();
  void SendHalf(Time now);
  void StopSending();
  void Pause(Time now);
  void Serve(std::uint32_t events);
  void Read();
  void TakeFrames();
  void TakeGreeting();
  void TakeAnswer(std::string_view frame);
  void Flush(Time now);
  void Interest();
  void AgentClosed();
  void Close(End end);
  void CloseSocket();
  std::uint64_t OwedBytes() const;

  ClientSetting setting_;
  int socket_ = -1;
  std::uint64_t connection_ = 0;
  Phase phase_ = Phase::Greeting;
  Reading reading_ = Reading::Always;
  Ending ending_ = Ending::Finish;
  int task_ = 0, depth_ = 1, budget_ = 0, open_ = 0;
  bool settling_ = false, stays_ = false, paused_ = false;
  Time reconnectAt_, readAgain_, askAgain_, writeAgain_;
  std::string in_, out_;
  std::size_t holdFrom_ = 0;  // bytes of out_ that go before a pause; 0: all at once
  std::uint64_t queuedBytes_ = 0, sentBytes_ = 0;
  std::deque<Asked> asked_;
};

}  // namespace endurance
