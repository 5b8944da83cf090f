// stats, clients: what the agent's statistics page tells.
#include <cstdio>

#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/page.h"

namespace lumo::ctl {
namespace {

Cell StateCell(std::uint32_t state) {
  if (state == LUMO_STATS_CONNECTED) return {StateText(state), Style::Good};
  return {StateText(state), state == LUMO_STATS_CONNECTING ? Style::Doubtful : Style::Plain};
}

std::string Percentile(const lumo_stats_link& link, double share) {
  return LatencyText(lumo_stats_percentile(link.latency, share));
}

// What an agent that does not go on looks like; empty: it does.
std::string Warning(const Page& page) {
  if (!page.Alive) return "the agent has ended: this is what it left behind";
  if (page.Stuck())
    return "the agent is stuck or stopped: its last pass began " +
           DurationText(page.SecondsSincePass()) + " ago";
  return "";
}

// The warning goes where a program that reads the output does not take it for a part of it.
int Finish(const Page& page) {
  const std::string warning = Warning(page);
  if (!warning.empty()) std::fprintf(stderr, "lumoctl: %s\n", warning.c_str());
  return page.Alive ? kDone : kNoAgent;
}

std::string ClosedText(const lumo_stats_agent& agent) {
  std::string text;
  for (int reason = 0; reason <= LUMO_STATS_STOPPING; ++reason)
    if (agent.closed[reason] != 0)
      text += ", " + Number(agent.closed[reason]) + ' ' + lumo_stats_reason_text(reason);
  return text;
}

std::string CodesText(const lumo_stats_agent& agent) {
  std::string text;
  for (const lumo_stats_code& code : agent.codes)
    if (code.used != 0)
      text +=
          (text.empty() ? " (" : ", ") + Number(code.count) + " of " + std::to_string(code.code);
  return text.empty() ? text : text + ')';
}

std::string AgentText(const Page& page) {
  const lumo_stats_agent& agent = page.Agent;
  return "agent     process " + std::to_string(page.Header.pid) + ", exchange id " +
         std::to_string(page.Header.exchange_id) + ", version " + agent.version + ", for " +
         DurationText(SecondsSince(page.Header.start_time)) + ", log level " +
         Number(agent.log_level) + "\noptions   " + agent.options + "\nclients   " +
         Number(agent.clients) + " of " + Number(agent.clients_ceiling) + ", most " +
         Number(agent.clients_most) + ", parked " + Number(agent.parked) + ", accepted " +
         Number(agent.accepted) + ", refused " + Number(agent.refused) + ClosedText(agent) +
         "\nrequests  " + Number(agent.requests) + " for nodes, " + Number(agent.management) +
         " of management, in flight " + Number(agent.in_flight) + ", waiting " +
         Number(agent.waiting) + "\nanswers   " + Number(agent.node_answers) + " of nodes, " +
         Number(agent.agent_answers) + " of the agent" + CodesText(agent) + "\nbytes     " +
         Number(agent.bytes_in) + " in, " + Number(agent.bytes_out) + " out\nloop      " +
         Number(agent.passes) + " passes, " + Number(agent.ticks) + " ticks, longest pass " +
         LatencyText(static_cast<double>(agent.longest_pass)) + ", last " +
         DurationText(page.SecondsSincePass()) + " ago\nlog       " + Number(agent.log_lost) +
         " lines lost\ndefault   moved " + Number(agent.default_moves) + " times\n";
}

std::string LinksText(const Options& options, const Page& page) {
  TextTable table({"", "NODE", "STATE", "FOR", "REQUESTS", "ANSWERS", "FLIGHT", "WAIT", "UNSENT",
                   "P50", "P99", "CONNECTS", "FAILED", "WATCHDOG"});
  for (const auto& [row, link] : page.Links)
    table.Row({page.IsDefault(row) ? "*" : "", link.name, StateCell(link.state),
               DurationText(SecondsSince(link.since)), Number(link.requests), Number(link.answers),
               Number(link.in_flight), Number(link.waiting), Number(link.unsent),
               Percentile(link, 0.5), Percentile(link, 0.99), Number(link.connects_made),
               Number(link.connects_failed), Number(link.watchdogs)});
  return table.Text(options);
}

std::string LinkText(const Page& page, std::uint32_t row, const lumo_stats_link& link) {
  std::string text = std::string("node      ") + link.name +
                     (page.IsDefault(row) ? ", default" : "") + ", " + link.protocol + ' ' +
                     link.address + "\nstate     " + StateText(link.state) + " for " +
                     DurationText(SecondsSince(link.since)) + "\nconnects  " +
                     Number(link.connects_tried) + " tried, " + Number(link.connects_made) +
                     " made, " + Number(link.connects_failed) + " failed";
  if (link.failed_at != 0)
    text += ", last " + DurationText(SecondsSince(link.failed_at)) + " ago with " +
            std::to_string(link.failed_code) + ", errno " + std::to_string(link.failed_errno);
  return text + "\nrequests  " + Number(link.requests) + " sent, " + Number(link.failed_requests) +
         " failed with the link, in flight " + Number(link.in_flight) + ", waiting " +
         Number(link.waiting) + "\nanswers   " + Number(link.answers) + ", " +
         Number(link.unasked) + " unasked\nbytes     " + Number(link.bytes_out) + " out, " +
         Number(link.bytes_in) + " in, " + Number(link.unsent) + " unsent\nwatchdog  " +
         Number(link.watchdogs) + " times\nlatency   p50 " + Percentile(link, 0.5) + ", p90 " +
         Percentile(link, 0.9) + ", p99 " + Percentile(link, 0.99) + ", p99.9 " +
         Percentile(link, 0.999) + ", longest " + Percentile(link, 1) + '\n';
}

int ShowNode(const Options& options, const Page& page, const std::string& name) {
  for (const auto& [row, link] : page.Links) {
    if (&link != page.Find(name) && !(name == "default" && page.IsDefault(row))) continue;
    Show(options, LinkJson(page, row, link), LinkText(page, row, link));
    return Finish(page);
  }
  throw Failure(kNo, "there is no node " + name);
}

}  // namespace

int RunStats(const Options& options) {
  const Page page = ReadPage(options);
  if (!options.Arguments.empty()) return ShowNode(options, page, options.Arguments[0]);
  Json nodes = Json::array();
  for (const auto& [row, link] : page.Links) nodes.push_back(LinkJson(page, row, link));
  Show(options, Json{{"agent", AgentJson(page)}, {"nodes", nodes}},
       AgentText(page) + '\n' + LinksText(options, page));
  return Finish(page);
}

int RunClients(const Options& options) {
  const Page page = ReadPage(options);
  Json list = Json::array();
  TextTable table({"FD", "PID", "SYSTEM PID", "FOR", "REQUESTS", "ANSWERS", "FLIGHT", "WAIT",
                   "UNSENT", "PARKED", "LAST CODE"});
  for (const ClientOfPage& client : page.Clients) {
    list.push_back(ClientJson(client));
    table.Row({Number(client.Descriptor),
               std::to_string(client.named_pid),
               std::to_string(client.system_pid),
               DurationText(SecondsSince(client.since)),
               Number(client.requests),
               Number(client.answers),
               Number(client.in_flight),
               Number(client.waiting),
               Number(client.unsent),
               {client.parked ? "parked" : "", Style::Doubtful},
               {client.answers ? std::to_string(client.last_code) : "",
                client.last_code ? Style::Bad : Style::Plain}});
  }
  Show(options, Json{{"clients", list}}, table.Text(options));
  return Finish(page);
}

}  // namespace lumo::ctl
