#include "tools/lumoctl/top_view.h"

#include <algorithm>
#include <cstdlib>
#include <tuple>

namespace lumo::ctl {
namespace {

// A counter's rate; one that has begun anew counts from 0.
double Rate(std::uint64_t before, std::uint64_t now, double seconds) {
  const std::uint64_t more = now >= before ? now - before : now;
  return seconds > 0 ? static_cast<double>(more) / seconds : 0;
}

const lumo_stats_link* LinkBefore(const Page& before, std::uint32_t row,
                                  const lumo_stats_link& now) {
  const auto found = before.Links.find(row);
  return found != before.Links.end() && found->second.serial == now.serial ? &found->second
                                                                           : nullptr;
}

const ClientOfPage* ClientBefore(const Page& before, const ClientOfPage& now) {
  for (const ClientOfPage& client : before.Clients)
    if (client.Descriptor == now.Descriptor && client.serial == now.serial) return &client;
  return nullptr;
}

TopNode NodeOf(const Page& page, std::uint32_t row, const lumo_stats_link& now,
               const lumo_stats_link* before, double seconds) {
  static const lumo_stats_link kNone{};
  const lumo_stats_link& old = before ? *before : kNone;
  const std::vector<std::uint64_t> latency = LatencySince(now, before);
  TopNode node;
  node.Name = now.name;
  node.State = StateText(now.state);
  node.Default = page.IsDefault(row);
  node.Requests = Rate(old.requests, now.requests, seconds);
  node.Answers = Rate(old.answers, now.answers, seconds);
  node.Failed = Rate(old.failed_requests, now.failed_requests, seconds);
  node.P50 = lumo_stats_percentile(latency.data(), 0.5);
  node.P99 = lumo_stats_percentile(latency.data(), 0.99);
  node.InFlight = now.in_flight;
  node.Waiting = now.waiting;
  node.Unsent = now.unsent;
  return node;
}

double KeyOf(const TopNode& node, TopOrder order) {
  switch (order) {
    case TopOrder::Requests:
      return -node.Requests;
    case TopOrder::Latency:
      return -node.P99;
    case TopOrder::InFlight:
      return -static_cast<double>(node.InFlight);
    case TopOrder::Waiting:
      return -static_cast<double>(node.Waiting);
    case TopOrder::Name:
      break;
  }
  return 0;
}

// Widths of columns; negative: to the left.
constexpr int kNodeWidths[] = {-1, -8, -10, 9, 9, 9, 9, 7, 7, 9};
constexpr int kClientWidths[] = {7, 9, 9, 7, 7, 9, -6, 6};

template <std::size_t Count>
std::string Columns(const int (&widths)[Count], const std::string (&texts)[Count]) {
  std::string line;
  for (std::size_t i = 0; i < Count; ++i) {
    const auto width = static_cast<std::size_t>(std::abs(widths[i]));
    const std::string blanks(width - std::min(width, texts[i].size()), ' ');
    line += (i ? " " : "") + (widths[i] < 0 ? texts[i] + blanks : blanks + texts[i]);
  }
  return line;
}

std::string NodeLine(const TopNode& node) {
  return Columns(kNodeWidths,
                 {node.Default ? "*" : "", Printable(node.Name), node.State,
                  CountText(node.Requests), CountText(node.Answers), LatencyText(node.P50),
                  LatencyText(node.P99), CountText(node.InFlight), CountText(node.Waiting),
                  CountText(static_cast<double>(node.Unsent))});
}

std::string ClientLine(const TopClient& client) {
  return Columns(kClientWidths, {std::to_string(client.Descriptor), std::to_string(client.Pid),
                                 CountText(client.Requests), CountText(client.InFlight),
                                 CountText(client.Waiting), CountText(client.Unsent),
                                 client.Parked ? "parked" : "", std::to_string(client.LastCode)});
}

void AddHead(const Page& now, const TopView& view, TopOrder order, const std::string& message,
             std::vector<TopLine>* lines) {
  const lumo_stats_agent& agent = now.Agent;
  lines->push_back({"lumo_tcp, exchange id " + std::to_string(now.Header.exchange_id) +
                        ", process " + std::to_string(now.Header.pid) + ", for " +
                        DurationText(SecondsSince(now.Header.start_time)),
                    Style::Strong});
  lines->push_back({"clients " + Number(agent.clients) + " of " + Number(agent.clients_ceiling) +
                    ", most " + Number(agent.clients_most) + ", parked " + Number(agent.parked) +
                    "; in flight " + Number(agent.in_flight) + ", waiting " +
                    Number(agent.waiting)});
  lines->push_back({"a second: requests " + CountText(view.Requests) + ", answers " +
                    CountText(view.Answers) + ", of the agent " + CountText(view.AgentAnswers) +
                    ", passes " + CountText(view.Passes)});
  lines->push_back({message.empty() ? std::string("keys: sort by n name, r requests, l latency, "
                                                  "f in flight, w waiting; q quits; now by ") +
                                          OrderText(order)
                                    : message,
                    message.empty() ? Style::Faint : Style::Bad});
}

}  // namespace

const char* OrderText(TopOrder order) {
  switch (order) {
    case TopOrder::Name:
      return "name";
    case TopOrder::Requests:
      return "requests";
    case TopOrder::Latency:
      return "latency";
    case TopOrder::InFlight:
      return "in flight";
    case TopOrder::Waiting:
      return "waiting";
  }
  return "";
}

TopView Compare(const Page& before, const Page& now, TopOrder order) {
  static const Page kNone;
  const Page& old =
      before.Header.pid == now.Header.pid && before.Header.process_start == now.Header.process_start
          ? before
          : kNone;
  TopView view;
  view.Seconds = std::chrono::duration<double>(now.Taken - before.Taken).count();
  view.Requests = Rate(old.Agent.requests, now.Agent.requests, view.Seconds);
  view.Answers = Rate(old.Agent.node_answers, now.Agent.node_answers, view.Seconds);
  view.AgentAnswers = Rate(old.Agent.agent_answers, now.Agent.agent_answers, view.Seconds);
  view.Passes = Rate(old.Agent.passes, now.Agent.passes, view.Seconds);
  for (const auto& [row, link] : now.Links)
    view.Nodes.push_back(NodeOf(now, row, link, LinkBefore(old, row, link), view.Seconds));
  for (const ClientOfPage& client : now.Clients) {
    const ClientOfPage* const earlier = ClientBefore(old, client);
    view.Clients.push_back({client.Descriptor, client.named_pid,
                            Rate(earlier ? earlier->requests : 0, client.requests, view.Seconds),
                            client.in_flight, client.waiting, client.unsent, client.parked != 0,
                            client.last_code});
  }
  std::sort(view.Nodes.begin(), view.Nodes.end(), [order](const TopNode& a, const TopNode& b) {
    return std::make_tuple(KeyOf(a, order), a.Name) < std::make_tuple(KeyOf(b, order), b.Name);
  });
  std::stable_sort(view.Clients.begin(), view.Clients.end(),
                   [](const TopClient& a, const TopClient& b) { return a.Requests > b.Requests; });
  return view;
}

std::vector<TopLine> TopLines(const Page& now, const TopView& view, TopOrder order,
                              const std::string& message, int height, int width) {
  std::vector<TopLine> lines;
  AddHead(now, view, order, message, &lines);
  lines.push_back({""});
  lines.push_back({Columns(kNodeWidths, {"", "NODE", "STATE", "REQ/S", "ANS/S", "P50", "P99",
                                         "FLIGHT", "WAIT", "UNSENT"}),
                   Style::Strong});
  for (const TopNode& node : view.Nodes)
    lines.push_back({NodeLine(node), node.Waiting > 0 ? Style::Doubtful : Style::Plain});
  lines.push_back({""});
  lines.push_back(
      {Columns(kClientWidths, {"FD", "PID", "REQ/S", "FLIGHT", "WAIT", "UNSENT", "PARKED", "CODE"}),
       Style::Strong});
  for (const TopClient& client : view.Clients)
    lines.push_back({ClientLine(client), client.Parked ? Style::Doubtful : Style::Plain});
  if (lines.size() > static_cast<std::size_t>(std::max(height, 0)))
    lines.resize(static_cast<std::size_t>(std::max(height, 0)));
  for (TopLine& line : lines)
    line.Text = line.Text.substr(0, static_cast<std::size_t>(std::max(width, 0)));
  return lines;
}

Json TopJson(const Page& now, const TopView& view) {
  Json nodes = Json::array(), clients = Json::array();
  for (const TopNode& node : view.Nodes)
    nodes.push_back(Json{{"node", node.Name},
                         {"state", node.State},
                         {"default", node.Default},
                         {"requests_per_second", node.Requests},
                         {"answers_per_second", node.Answers},
                         {"failed_per_second", node.Failed},
                         {"p50_us", node.P50},
                         {"p99_us", node.P99},
                         {"in_flight", node.InFlight},
                         {"waiting", node.Waiting},
                         {"unsent", node.Unsent}});
  for (const TopClient& client : view.Clients)
    clients.push_back(Json{{"descriptor", client.Descriptor},
                           {"pid", client.Pid},
                           {"requests_per_second", client.Requests},
                           {"in_flight", client.InFlight},
                           {"waiting", client.Waiting},
                           {"unsent", client.Unsent},
                           {"parked", client.Parked},
                           {"last_code", client.LastCode}});
  return Json{{"alive", now.Alive},
              {"stuck", now.Stuck()},
              {"seconds", view.Seconds},
              {"requests_per_second", view.Requests},
              {"answers_per_second", view.Answers},
              {"agent_answers_per_second", view.AgentAnswers},
              {"passes_per_second", view.Passes},
              {"clients_now", now.Agent.clients},
              {"in_flight", now.Agent.in_flight},
              {"waiting", now.Agent.waiting},
              {"parked", now.Agent.parked},
              {"nodes", nodes},
              {"clients", clients}};
}

}  // namespace lumo::ctl
