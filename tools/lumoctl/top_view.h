// What `top` shows: the difference of two readings of the page, as lines and as JSON.
#pragma once
#include <string>
#include <vector>

#include "tools/lumoctl/page.h"

namespace lumo::ctl {

enum class TopOrder { Name, Requests, Latency, InFlight, Waiting };

struct TopNode {
  std::string Name, State;
  bool Default = false;
  double Requests = 0, Answers = 0, Failed = 0;  // a second
  double P50 = 0, P99 = 0;                       // microseconds, of the answers in between
  std::uint32_t InFlight = 0, Waiting = 0;
  std::uint64_t Unsent = 0;
};

struct TopClient {
  std::uint32_t Descriptor = 0;
  std::int32_t Pid = 0;
  double Requests = 0;  // a second
  std::uint32_t InFlight = 0, Waiting = 0, Unsent = 0;
  bool Parked = false;
  std::int32_t LastCode = 0;
};

struct TopView {
  double Seconds = 0;  // between the readings
  double Requests = 0, Answers = 0, AgentAnswers = 0, Passes = 0;
  std::vector<TopNode> Nodes;      // in the order asked for; equals by name
  std::vector<TopClient> Clients;  // the busiest first
};

// Rates of another agent's earlier reading count from 0, as at its start.
TopView Compare(const Page& before, const Page& now, TopOrder order);

// Lines of at most `width` characters, at most `height` of them; nodes come before clients.
// `message`: a line of the head, as why there is nothing new.
struct TopLine {
  std::string Text;
  Style Look = Style::Plain;
};
std::vector<TopLine> TopLines(const Page& now, const TopView& view, TopOrder order,
                              const std::string& message, int height, int width);
Json TopJson(const Page& now, const TopView& view);
const char* OrderText(TopOrder order);

}  // namespace lumo::ctl
