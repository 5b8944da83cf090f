// report: what somebody needs who was not there.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <ctime>
#include <sstream>

#include "tools/lumoctl/agent.h"
#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/mask.h"
#include "tools/lumoctl/page.h"
#include "tools/lumoctl/ping.h"
#include "tools/lumoctl/run_program.h"
#include "tools/lumoctl/system_state.h"
#include "tools/lumoctl/table_file.h"
#include "tools/lumoctl/write_file.h"

namespace lumo::ctl {
namespace {

constexpr int kVersionMs = 5000;
constexpr int kJournalMs = 5000;

std::string UtcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm fields{};
  gmtime_r(&now, &fields);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &fields);
  return text;
}

Json System() {
  utsname name{};
  uname(&name);
  return Json{{"kernel", std::string(name.sysname) + ' ' + name.release},
              {"machine", name.machine}};
}

// The last line of what it prints; the ones before are its banner.
std::string ProgramVersion(const Options& options) {
  try {
    const RunResult run = RunProgram({AgentProgram(options), "-VERSION"}, {}, kVersionMs);
    std::string text = run.Stdout;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text.substr(text.rfind('\n') + 1);
  } catch (const Failure& failure) {
    return std::string("unknown: ") + failure.what();
  }
}

// Masked without their texts: these quote words of the line.
Json Faults(const Options& options, const std::vector<Fault>& faults) {
  Json list = Json::array();
  for (const Fault& fault : faults)
    list.push_back(std::string(SeverityText(fault.Level)) + ": " +
                   (options.Mask ? fault.Rule : fault.Text));
  return list;
}

// Name, protocol and host, which get pseudonyms, then numbers; any other word may be a secret.
std::string MaskableText(const TableLine& line) {
  std::istringstream words(line.Text);
  std::string text, word;
  for (int i = 0; words >> word; ++i) {
    const bool known = i < 2 || (i == 2 && line.ProtocolKind == Kind::Tcpip) ||
                       word.find_first_not_of("0123456789abcdefABCDEFxX+-") == std::string::npos;
    text += (text.empty() ? "" : " ") + (known ? word : "?");
  }
  return text;
}

// Comments are left out: nobody can tell what they name.
Json TableState(const Options& options, const std::string& path, Masker* masker) {
  const Table table = ReadTable(ReadTextFile(path), SystemResolver(), AgentExchangeId(options));
  masker->AddTable(table);
  Json lines = Json::array();
  for (const TableLine& line : table.Lines)
    lines.push_back(Json{{"line", line.Number},
                         {"text", options.Mask ? MaskableText(line) : line.Text},
                         {"faults", Faults(options, line.Faults)}});
  return Json{{"path", path}, {"lines", lines}, {"faults", Faults(options, table.Faults)}};
}

// The last lines that the journal has of the process; nothing: there is no journal, or it has none.
std::vector<std::string> JournalOf(const Options& options, pid_t pid) {
  try {
    const RunResult run =
        RunProgram({"journalctl", "--no-pager", "-q", "-o", "cat", "-n",
                    std::to_string(options.LogLines), "_PID=" + std::to_string(pid)},
                   {}, kJournalMs);
    std::vector<std::string> lines;
    std::istringstream text(run.Status == 0 ? run.Stdout : "");
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
  } catch (const Failure&) {
    return {};
  }
}

Json LogState(const Options& options, const std::string& path, pid_t pid) {
  if (path.empty()) {
    const std::vector<std::string> lines =
        pid > 0 ? JournalOf(options, pid) : std::vector<std::string>();
    if (!lines.empty()) return Json{{"path", "journal"}, {"lines", lines}};
    return Json{{"unknown",
                 "the agent's standard error is no file, and the journal has nothing "
                 "of it; see --log"}};
  }
  return Json{{"path", path},
              {"lines", LastLines(path, static_cast<std::size_t>(options.LogLines))}};
}

void AddProcess(pid_t pid, const std::string& socket, Json* report) {
  Json& value = (*report)["agent"];
  value["pid"] = pid;
  value["socket"] = socket;
  value.update(ProcessState(pid));
  (*report)["limits"] = ProcessLimits(pid);
  (*report)["sockets"] = ProcessSockets(pid, socket);
}

// An agent that does not greet: the system knows who listens on the socket, as long as a connection
// fits in its queue; the statistics page tells, too. 0: nobody.
pid_t PidBySystem(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ucred peer{};
  socklen_t size = sizeof peer;
  const bool known = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                     getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
  close(fd);
  return known ? peer.pid : 0;
}

// What the statistics page holds, as of a stopped agent too.
pid_t AddStats(const Options& options, Json* report, Masker* masker) {
  try {
    const Page page = ReadPage(options);
    for (const auto& [row, link] : page.Links) {
      masker->AddNode(link.name);
      masker->AddHost(std::string(link.address).substr(0, std::string(link.address).find(' ')));
    }
    Json nodes = Json::array();
    for (const auto& [row, link] : page.Links) nodes.push_back(LinkJson(page, row, link));
    (*report)["stats"] = Json{{"agent", AgentJson(page)}, {"nodes", nodes}};
    return page.Alive ? page.Header.pid : 0;
  } catch (const Failure& failure) {
    (*report)["stats"] = Json{{"unknown", failure.what()}};
    return 0;
  }
}

// What only a running agent tells; the path of its table, when there is one.
std::string AddAgent(Agent* agent, Json* report, Masker* masker) {
  AddProcess(agent->Pid(), agent->SocketPath(), report);
  const std::string usual = agent->DefaultName();
  (*report)["default"] = usual.empty() ? Json() : Json(usual);
  Json& nodes = (*report)["nodes"] = Json::array();
  for (const lumo_node& node : agent->Nodes()) {
    masker->AddNode(node.name);
    masker->AddHost(node.address);
    nodes.push_back(JsonOf(node));
  }
  return agent->TableFile().value_or("");
}

Json Collect(const Options& options, Masker* masker) {
  Json report{{"time", UtcNow()},
              {"lumoctl", LUMO_VERSION},
              {"library", lumo_version()},
              {"program", ProgramVersion(options)},
              {"system", System()}};
  std::string path, log = options.Log;
  pid_t pid = 0;
  try {
    Agent agent(options);
    pid = agent.Pid();
    path = AddAgent(&agent, &report, masker);
  } catch (const Failure& failure) {
    report["agent"]["unknown"] = failure.what();
  }
  const pid_t pidOfPage = AddStats(options, &report, masker);
  if (pid == 0) {
    pid = PidBySystem(AgentSocket(options));
    if (pid == 0) pid = pidOfPage;
    if (pid != 0) AddProcess(pid, AgentSocket(options), &report);
  }
  if (log.empty() && pid != 0) log = StandardErrorFile(pid);
  if (!options.File.empty()) path = options.File;
  try {
    report["table"] = path.empty() ? Json{{"unknown", "no agent tells its path; see --file"}}
                                   : TableState(options, path, masker);
  } catch (const Failure& failure) {
    report["table"] = Json{{"unknown", failure.what()}};
  }
  report["log"] = LogState(options, log, pid);
  return report;
}

// Objects as indented names, lists line by line.
void AddText(const Json& value, const std::string& indent, std::string* text) {
  for (const auto& item : value.items()) {
    const Json& part = item.value();
    const std::string name = value.is_array() ? "-" : item.key() + ":";
    if (part.contains("soft")) {
      *text += indent + name + ' ' + part.at("soft").get<std::string>() + ", hard " +
               part.at("hard").get<std::string>() + '\n';
    } else if (part.is_structured() && !part.empty()) {
      *text += indent + name + '\n';
      AddText(part, indent + "  ", text);
    } else {
      const std::string word = part.is_string()       ? Printable(part.get<std::string>())
                               : part.is_structured() ? "none"
                                                      : JsonText(part);
      *text += indent + name + ' ' + word + (!word.empty() && word.back() == '\n' ? "" : "\n");
    }
  }
}

std::string SectionsOf(const Options& options, const Json& report) {
  std::string text;
  for (const auto& section : report.items()) {
    text += Painted(options, Style::Strong, "== " + section.key()) + '\n';
    if (section.value().is_structured()) {
      AddText(section.value(), "", &text);
    } else {
      AddText(Json::array({section.value()}), "", &text);
    }
  }
  return text;
}

}  // namespace

std::string VersionText(const Options& options) {
  return std::string("lumoctl ") + LUMO_VERSION + "\nliblumo " + lumo_version() + "\nagent " +
         ProgramVersion(options);
}

int RunReport(const Options& options) {
  Masker masker(options.Mask);
  Json report = Collect(options, &masker);
  for (const char* const section :
       {"agent", "default", "nodes", "sockets", "stats", "table", "log"})
    if (report.contains(section)) masker.Apply(&report[section]);
  if (options.Output.empty()) {
    Show(options, report, SectionsOf(options, report));
    return kDone;
  }
  Options plain = options;
  plain.Color = false;
  ReplaceFile(options.Output, options.Json ? JsonText(report) : SectionsOf(plain, report));
  return kDone;
}

}  // namespace lumo::ctl
