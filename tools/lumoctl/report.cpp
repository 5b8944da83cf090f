// report: what somebody needs who was not there.
#include <sys/utsname.h>

#include <ctime>
#include <sstream>

#include "tools/lumoctl/agent.h"
#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/mask.h"
#include "tools/lumoctl/ping.h"
#include "tools/lumoctl/run_program.h"
#include "tools/lumoctl/system_state.h"
#include "tools/lumoctl/table_file.h"
#include "tools/lumoctl/write_file.h"

namespace lumo::ctl {
namespace {

constexpr int kVersionMs = 5000;

std::string Now() {
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

Json LogState(const Options& options, const std::string& path) {
  if (path.empty()) return Json{{"unknown", "the agent's standard error is no file; see --log"}};
  return Json{{"path", path},
              {"lines", LastLines(path, static_cast<std::size_t>(options.LogLines))}};
}

// What only a running agent tells; the path of its table, when there is one.
std::string AddAgent(Agent* agent, Json* report, Masker* masker) {
  Json& value = (*report)["agent"];
  value["pid"] = agent->Pid();
  value["socket"] = agent->SocketPath();
  value.update(ProcessState(agent->Pid()));
  const std::string usual = agent->DefaultName();
  (*report)["default"] = usual.empty() ? Json() : Json(usual);
  Json& nodes = (*report)["nodes"] = Json::array();
  for (const lumo_node& node : agent->Nodes()) {
    masker->AddNode(node.name);
    masker->AddHost(node.address);
    nodes.push_back(JsonOf(node));
  }
  (*report)["limits"] = ProcessLimits(agent->Pid());
  (*report)["sockets"] = ProcessSockets(agent->Pid(), agent->SocketPath());
  return agent->TablePath().value_or("");
}

Json Collect(const Options& options, Masker* masker) {
  Json report{{"time", Now()},
              {"lumoctl", LUMO_VERSION},
              {"library", lumo_version()},
              {"program", ProgramVersion(options)},
              {"system", System()}};
  std::string path, log = options.Log;
  try {
    Agent agent(options);
    path = AddAgent(&agent, &report, masker);
    if (log.empty()) log = StandardErrorFile(agent.Pid());
  } catch (const Failure& failure) {
    report["agent"] = Json{{"unknown", failure.what()}};
  }
  if (!options.File.empty()) path = options.File;
  try {
    report["table"] = path.empty() ? Json{{"unknown", "no agent tells its path; see --file"}}
                                   : TableState(options, path, masker);
  } catch (const Failure& failure) {
    report["table"] = Json{{"unknown", failure.what()}};
  }
  report["log"] = LogState(options, log);
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

int RunReport(const Options& options) {
  Masker masker(options.Mask);
  Json report = Collect(options, &masker);
  for (const char* const section : {"agent", "default", "nodes", "sockets", "table", "log"})
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
