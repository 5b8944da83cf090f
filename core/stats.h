// The statistics page: counters in a file beside the socket that others read without asking (its
// layout: lib/include/lumo_stats.h). Kept with LUMO_STATS=1; else each call is one test of a
// pointer. Nothing here but the making and removing of the page, links and connections calls the
// system, and nothing allocates.
#pragma once
#include <cstddef>
#include <cstdint>

#include "lib/include/lumo_stats.h"

constexpr int kNoStatsRow = -1;

struct StatsPage {
  unsigned char* Base;  // null: no page is kept
  std::int64_t Clock;   // CLOCK_MONOTONIC of this pass, microseconds
};

// What is counted of a link or a connection at a time.
struct StatsCounts {
  std::int32_t InFlight, Waiting;
};
// An answer that leaves, and what the client has not taken of all its answers.
struct StatsReply {
  std::int32_t Code;
  std::size_t Bytes, Unsent;
};
extern StatsPage g_Stats;
inline bool KeepsStats() { return g_Stats.Base != nullptr; }

// What is done when a page is kept.
namespace stats {
void Pass();
void EndPass(StatsCounts all);
void Tick();
void ClientOpened(int fd, std::uint32_t serial);
void ClientRefused();
void ClientClosed(int fd, lumo_stats_reason reason);
void Request(int fd, std::int32_t pid, std::size_t bytes, bool management);
void Answer(int fd, const StatsReply& reply, StatsCounts counts);
void AgentAnswer(std::int32_t code);
void ClientUnsent(int fd, std::size_t bytes);
void ClientParked(int fd, bool parked, std::uint32_t all);
void Sent(int row, std::size_t bytes, StatsCounts linkCounts, int fd, StatsCounts clientCounts);
void NodeAnswer(int row, std::size_t bytes, std::int64_t sentAt, StatsCounts counts);
void Unasked(int row);
void FailedRequest(int row);
void Counts(int row, StatsCounts linkCounts, int fd, StatsCounts clientCounts);
void LinkUnsent(int row, std::size_t bytes);
void LinkState(int row, std::uint8_t state);
void ConnectTried(int row);
void ConnectFailed(int row, int code, int error);
void Watchdog(int row);
void DefaultLink(int row);
void LogLost(std::uint64_t lines);
void LogLevel(std::uint8_t level);
}  // namespace stats

// Start and end. The page is made when the socket is there; LUMO_STATS other than 0 and 1 is told
// at level 0, a page that cannot be made at level 2, and the agent goes on without.
void InitialiseStats();
void UninitStats();
// In a reader child: the page stays the agent's.
void ForgetStats();

// Links. A row for a new one, or kNoStatsRow: no page is kept, or there is no room; the number is
// kept with the link and given to the calls below, which ignore kNoStatsRow. `address` may be null.
int NewLinkStats(const char* name, const char* protocol, const char* address);
void RenewLinkStats(int row, const char* protocol, const char* address);
void FreeLinkStats(int row);

// The loop: a pass begins to serve, ends, has a tick. `all`: of all links together.
inline void StatsPass() {
  if (KeepsStats()) stats::Pass();
}
inline void StatsEndPass(StatsCounts all) {
  if (KeepsStats()) stats::EndPass(all);
}
inline void StatsTick() {
  if (KeepsStats()) stats::Tick();
}
// What a request is stamped with when it leaves.
inline std::int64_t StatsClock() { return g_Stats.Clock; }

// Client connections; `fd` may be any number.
inline void StatsClientOpened(int fd, std::uint32_t serial) {
  if (KeepsStats()) stats::ClientOpened(fd, serial);
}
inline void StatsClientRefused() {
  if (KeepsStats()) stats::ClientRefused();
}
inline void StatsClientClosed(int fd, lumo_stats_reason reason) {
  if (KeepsStats()) stats::ClientClosed(fd, reason);
}
inline void StatsRequest(int fd, std::int32_t pid, std::size_t bytes, bool management) {
  if (KeepsStats()) stats::Request(fd, pid, bytes, management);
}
inline void StatsAnswer(int fd, const StatsReply& reply, StatsCounts client) {
  if (KeepsStats()) stats::Answer(fd, reply, client);
}
// An answer that the agent made itself to a request for a node; StatsAnswer counts it as well.
inline void StatsAgentAnswer(std::int32_t code) {
  if (KeepsStats()) stats::AgentAnswer(code);
}
inline void StatsClientUnsent(int fd, std::size_t bytes) {
  if (KeepsStats()) stats::ClientUnsent(fd, bytes);
}
// `all`: connections that are parked now.
inline void StatsClientParked(int fd, bool parked, std::uint32_t all) {
  if (KeepsStats()) stats::ClientParked(fd, parked, all);
}

// Links. Who is told of a request or an answer is told at once what link and connection have now;
// StatsTellCounts is for what changes otherwise.
inline void StatsSent(int row, std::size_t bytes, StatsCounts link, int fd, StatsCounts client) {
  if (KeepsStats()) stats::Sent(row, bytes, link, fd, client);
}
// `sentAt`: StatsClock of its request.
inline void StatsNodeAnswer(int row, std::size_t bytes, std::int64_t sentAt, StatsCounts link) {
  if (KeepsStats()) stats::NodeAnswer(row, bytes, sentAt, link);
}
inline void StatsUnasked(int row) {
  if (KeepsStats()) stats::Unasked(row);
}
inline void StatsFailedRequest(int row) {
  if (KeepsStats()) stats::FailedRequest(row);
}
inline void StatsTellCounts(int row, StatsCounts link, int fd, StatsCounts client) {
  if (KeepsStats()) stats::Counts(row, link, fd, client);
}
inline void StatsLinkUnsent(int row, std::size_t bytes) {
  if (KeepsStats()) stats::LinkUnsent(row, bytes);
}
// Nothing when the state is as before; one that becomes connected counts as a connect made.
inline void StatsLinkState(int row, std::uint8_t state) {
  if (KeepsStats()) stats::LinkState(row, state);
}
inline void StatsConnectTried(int row) {
  if (KeepsStats()) stats::ConnectTried(row);
}
inline void StatsConnectFailed(int row, int code, int error) {
  if (KeepsStats()) stats::ConnectFailed(row, code, error);
}
inline void StatsWatchdog(int row) {
  if (KeepsStats()) stats::Watchdog(row);
}
// Of the default link; kNoStatsRow: there is none. Nothing when it is as before.
inline void StatsDefaultLink(int row) {
  if (KeepsStats()) stats::DefaultLink(row);
}

// The log; lines: all that were lost so far.
inline void StatsLogLost(std::uint64_t lines) {
  if (KeepsStats()) stats::LogLost(lines);
}
inline void StatsLogLevel(std::uint8_t level) {
  if (KeepsStats()) stats::LogLevel(level);
}
