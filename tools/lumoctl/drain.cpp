// drain, log: what an administrator does with the process itself.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <thread>

#include "tools/lumoctl/agent.h"
#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/page.h"

namespace lumo::ctl {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPause{50};
constexpr std::chrono::seconds kEndsWithin{5};  // after the request to

// Asks again until it is so, or the time is over.
template <class Condition>
bool WaitUntil(Clock::time_point deadline, Condition condition) {
  while (!condition()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::min<Clock::duration>(kPause, deadline - Clock::now()));
  }
  return true;
}

bool IsDrained(const Page& page) {
  return page.Agent.in_flight == 0 && page.Agent.waiting == 0 && page.Agent.clients == 0;
}

void SendSignal(std::int32_t pid, int signal) {
  if (kill(pid, signal) != 0)
    throw Failure(kNo,
                  "process " + std::to_string(pid) + " gets no signal: " + std::strerror(errno));
}

Json LeftJson(const Page& page) {
  Json clients = Json::array();
  for (const ClientOfPage& client : page.Clients) clients.push_back(ClientJson(client));
  return Json{
      {"in_flight", page.Agent.in_flight}, {"waiting", page.Agent.waiting}, {"clients", clients}};
}

std::string LeftText(const Page& page) {
  std::string text = std::to_string(page.Agent.clients) + " clients, " +
                     std::to_string(page.Agent.in_flight) + " requests in flight, " +
                     std::to_string(page.Agent.waiting) + " waiting\n";
  for (const ClientOfPage& client : page.Clients)
    text += "process " + std::to_string(client.system_pid) + ", connected for " +
            DurationText(SecondsSince(client.since)) + ", " + std::to_string(client.in_flight) +
            " in flight\n";
  return text;
}

Page LivingPage(const Options& options) {
  Page page = ReadPage(options);
  if (!page.Alive) throw Failure(kNoAgent, "the agent of " + page.Path + " has ended");
  return page;
}

// No page any more, or that of another process.
bool HasEnded(const Options& options, const Page& page) {
  try {
    const Page now = ReadPage(options);
    return !now.Alive || now.Header.pid != page.Header.pid;
  } catch (const Failure&) {
    return true;
  }
}

// Whether the process takes the signal: one that does not know it would be ended by it.
bool Catches(std::int32_t pid, int signal) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("SigCgt:", 0) == 0)
      return (std::strtoull(line.c_str() + 7, nullptr, 16) >> (signal - 1) & 1) != 0;
  return false;
}

}  // namespace

int RunDrain(const Options& options) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(options.TimeoutMs(30));
  Page page = LivingPage(options);
  const bool drained = WaitUntil(deadline, [&] {
    page = LivingPage(options);
    return IsDrained(page);
  });
  bool stopped = false;
  if (drained && options.Stop) {
    SendSignal(page.Header.pid, SIGTERM);
    stopped = WaitUntil(deadline + kEndsWithin, [&] { return HasEnded(options, page); });
  }
  Json value{{"drained", drained}, {"stopped", stopped}};
  value.update(LeftJson(page));
  Show(options, value,
       stopped   ? "nothing is left; the agent has ended\n"
       : drained ? "nothing is left\n"
                 : LeftText(page));
  return drained && stopped == options.Stop ? kDone : kTimeOver;
}

int RunLog(const Options& options) {
  Page page = LivingPage(options);
  if (!options.Arguments.empty()) {
    const int level = std::stoi(options.Arguments[0]);
    const int signal = SIGRTMIN + level;
    if (!Catches(page.Header.pid, signal))
      throw Failure(kNo, "process " + std::to_string(page.Header.pid) +
                             " does not take the signal for a log level");
    SendSignal(page.Header.pid, signal);
    const bool changed =
        WaitUntil(Clock::now() + std::chrono::milliseconds(options.TimeoutMs(5)), [&] {
          page = LivingPage(options);
          return page.Agent.log_level == static_cast<std::uint32_t>(level);
        });
    if (!changed) throw Failure(kTimeOver, "the agent has not taken the new level in time");
  }
  Show(options, Json{{"level", page.Agent.log_level}}, std::to_string(page.Agent.log_level) + '\n');
  return kDone;
}

}  // namespace lumo::ctl
