// The agent's modules for the targets: a fresh state for every input, and what must hold at all
// times.
#pragma once
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "client/message.h"
#include "core/dbc.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

inline constexpr char kFuzz[] = "fuzz";  // the place that calls come from

// The bounds of a connection's requests as they are promised; the agent has its own.
inline constexpr std::int32_t kWaitingBound = 32, kInFlightBound = 65536;

// A fresh agent that has no links; the input decides whether it traces.
void StartAgent(std::uint8_t logLevel);

// Runs the whole program in the simulated system, whose `onWait` goes on with the script.
void RunAgent(std::vector<std::string> options, int logLevel, bool (*onWait)());

// Takes everything down and frees it.
void EndAgent();

// A fresh agent in a fresh simulated system until its end; an input of odd size is traced.
class SimulatedAgent {
 public:
  explicit SimulatedAgent(std::size_t inputSize);
  ~SimulatedAgent();
  SimulatedAgent(const SimulatedAgent&) = delete;
  SimulatedAgent& operator=(const SimulatedAgent&) = delete;
};

// No descriptor from this number on has ever been in use.
int EndOfDescriptors();

// Makes links of the lines of a node table, as at the start.
void LoadNodetab(const std::string& text);

// The node with this number in the order of the node table, wrapping round; or null.
Link* LinkNumber(unsigned number);

// The agent's invariants about its records; a violation ends the run.
void CheckRecords();

// The same, and those about descriptors of the simulated system.
void CheckAgent();

// The part of CheckRecords about counts, and of CheckAgent about what holds at a wait: who is
// parked, and that nothing is held back. Of all links.
void CheckCounts(const std::set<const Link*>& links);
void CheckBooks(const std::set<const Link*>& links);
void CheckNothingIsJoined();

// When nothing has moved for some passes: no descriptor that is waited for is ready.
void CheckNoneIsOverlooked();

// A started agent's requests are told of when they have been read.
void WatchRequests(void (*watch)(const ClientMessage& msg));

// Before and after a tick: parked connections whose clients have hung up are closed by it.
void NoteTick();
void CheckNoneParkedIsGone();

// After a tick: no request waits for a link that is down, unless the timer will try it again.
void CheckNoneIsStranded();

// Requests for the default wait for the link that is the default.
void CheckDefaultRequests();

// No request waits for a link that is up. Between two passes that may be so for a moment: a link
// that has failed in its first moment is still taken for connected.
void CheckNoneWaitsInVain();

// A message with empty strings but for the first, its length word as on a client connection.
struct MessageFields {
  std::int32_t TaskName = 0;
  std::uint16_t AstInd = 0;
  std::string_view Node = {};
  std::string_view Command = {};
  std::uint16_t DbcApiCode = 0;
  std::int32_t RowId = 0;
  std::string_view Text = {};
};
std::string MakeMessage(const MessageFields& fields);
void SetLengthWord(std::string* message, std::uint32_t length);

// Reads the bytes of an input in order; zero after its end.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
  bool Empty() const { return at_ == end_; }
  std::uint8_t Byte() { return Empty() ? std::uint8_t{0} : *at_++; }
  unsigned Below(unsigned limit) { return Byte() % limit; }
  std::string Bytes(std::size_t count);
  std::string Rest() { return Bytes(static_cast<std::size_t>(end_ - at_)); }
  std::string Line();  // up to the next line feed, which is skipped

 private:
  const std::uint8_t *at_, *end_;
};

template <class T, std::size_t kSize>
T Pick(const T (&list)[kSize], unsigned number) {
  return list[number % kSize];
}

// Frees the records of LOCALI addresses that were refused, which the agent keeps for ever.
void FreeRefusedRecords();

// Forgets what the listener keeps for when descriptors run out.
void ForgetReserve();
