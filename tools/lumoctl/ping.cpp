#include "tools/lumoctl/ping.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>

#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/run_program.h"
#include "tools/lumoctl/system_state.h"
#include "tools/lumoctl/table_file.h"

namespace lumo::ctl {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kAtATime = 8;
constexpr int kCodeBase = 4000;  // exit statuses of the test count from here
constexpr char kLogPrefix[] = "lumo_tcp:";

// The test ends by removing the socket of its exchange id: it gets one of its own, in a directory
// of its own, where the socket of the local kernel is led to by a link.
int PrepareSockets(const Options& options, const TableLine& line, const fs::path& folder) {
  if (line.ProtocolKind != Kind::Locals) return 1;
  const fs::path sockets = fs::path(AgentSocket(options)).parent_path();
  const std::string name = "tavrin." + std::to_string(line.Local);
  fs::create_symlink(fs::absolute(sockets / name), folder / name);
  return line.Local == 1 ? 2 : 1;
}

// The log's lines without their prefix, those that belong to the verdict.
std::vector<std::string> LogTexts(const std::string& log) {
  std::vector<std::string> texts;
  std::istringstream stream(log);
  for (std::string line; std::getline(stream, line);) {
    const bool prefixed = line.rfind(kLogPrefix, 0) == 0;
    texts.push_back(prefixed ? line.substr(sizeof kLogPrefix - 1) : line);
  }
  return texts;
}

void ReadVerdict(const RunResult& run, int timeoutMs, Verdict* verdict) {
  verdict->Seconds = run.Seconds;
  verdict->Late = run.Late;
  if (run.Late) {
    verdict->Words = "no answer within " + std::to_string(timeoutMs / 1000.0).substr(0, 5) + " s";
    return;
  }
  const std::vector<std::string> texts = LogTexts(run.Stderr);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (texts[i].ends_with("\" is alive") && run.Status == 0) {
      verdict->Alive = true;
      verdict->Words = "alive";
      return;
    }
    if (texts[i].ends_with("\" is not alive") && i + 1 < texts.size() && run.Status > 0) {
      verdict->Words = texts[i + 1];
      verdict->Code = kCodeBase + run.Status;
      return;
    }
  }
  verdict->Words = texts.empty()
                       ? "the test gave no verdict (status " + std::to_string(run.Status) + ")"
                       : texts.front();
}

// Such as a local node that was added to the agent: nothing tells its address.
Verdict Untestable(const TableLine& line, const Fault& fault) {
  Verdict verdict;
  verdict.Node = line.Name;
  verdict.Untestable = true;
  verdict.Words = "cannot be tested: " + fault.Text;
  return verdict;
}

Verdict TestNode(const Options& options, const std::string& program, const std::string& text,
                 int timeoutMs) {
  TableReader reader(NumericResolver(), 0);
  const TableLine line = reader.Read(1, text);
  for (const Fault& fault : line.Faults)
    if (fault.Level == Severity::Error) return Untestable(line, fault);
  const PrivateDirectory folder;
  const fs::path sockets = folder.Path() / "s", table = folder.Path() / "nodetab";
  fs::create_directory(sockets);
  std::ofstream(table) << text << '\n';
  const int exchangeId = PrepareSockets(options, line, sockets);
  // The table has one line, which is tested without -DEFAULT: a name may spell an option.
  const RunResult run =
      RunProgram({program, "-PING", "-NODETAB", table, "-M", std::to_string(exchangeId)},
                 {{"TAVRIN_TMP", sockets}, {"DBC_LOG", "0"}, {"NET_MBX", "0"}}, timeoutMs);
  Verdict verdict;
  verdict.Node = line.Name;
  ReadVerdict(run, timeoutMs, &verdict);
  return verdict;
}

// The nodes of a file, or the one of that name.
std::vector<std::string> LinesOfFile(const Options& options) {
  const Table table =
      ReadTable(ReadTextFile(options.File), NumericResolver(), AgentExchangeId(options));
  if (options.Arguments.empty()) {
    std::vector<std::string> lines;
    for (const TableLine* line : table.Nodes()) lines.push_back(line->Text);
    return lines;
  }
  const TableLine* const line = table.Find(options.Arguments[0]);
  if (!line) FailNoSuchNode(options.Arguments[0]);
  return {line->Text};
}

// Empty where it is not known. The agent is not asked: one that was started by hand would write a
// line for it into a terminal.
Table TableOfAgent(const Options& options, Agent* agent) {
  const auto path = TableOfProcess(agent->Pid());
  if (!path || access(path->c_str(), R_OK) != 0) return {};
  return ReadTable(ReadTextFile(*path), NumericResolver(), AgentExchangeId(options));
}

std::vector<std::string> LinesOfAgent(const Options& options) {
  Agent agent(options);
  if (options.Arguments.empty()) return LinesToTest(options, &agent, agent.Nodes());
  const auto node = agent.Get(NodeChoice(options.Arguments[0]));
  if (!node) FailNoSuchNode(options.Arguments[0]);
  return LinesToTest(options, &agent, {*node});
}

bool IsProgram(const fs::path& path) {
  std::error_code error;
  return fs::is_regular_file(path, error) && access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::string AgentProgram(const Options& options) {
  if (!options.Program.empty()) return options.Program;
  if (const char* const set = std::getenv("LUMO_TCP")) return set;
  std::error_code error;
  const fs::path folder = fs::read_symlink("/proc/self/exe", error).parent_path();
  for (const char* const place : {"lumo_tcp", "../sbin/lumo_tcp", "../../lumo_tcp"})
    if (IsProgram(folder / place)) return (folder / place).lexically_normal();
  return "lumo_tcp";
}

std::vector<std::string> LinesToTest(const Options& options, Agent* agent,
                                     const std::vector<lumo_node>& nodes) {
  const auto told = [](const lumo_node& node) {
    return std::string(lumo_protocol_name(node.protocol)) == "TCPIP";
  };
  Table table;
  if (!std::all_of(nodes.begin(), nodes.end(), told)) table = TableOfAgent(options, agent);
  std::vector<std::string> lines;
  for (const lumo_node& node : nodes) {
    const TableLine* const line = told(node) ? nullptr : table.Find(node.name);
    lines.push_back(line ? line->Text : LineOf(node));
  }
  return lines;
}

std::vector<Verdict> TestNodes(const Options& options, const std::vector<std::string>& lines,
                               int timeoutMs) {
  const std::string program = AgentProgram(options);
  std::vector<Verdict> verdicts;
  for (std::size_t first = 0; first < lines.size(); first += kAtATime) {
    std::vector<std::future<Verdict>> running;
    for (std::size_t i = first; i < std::min(first + kAtATime, lines.size()); ++i)
      running.push_back(std::async(std::launch::async, TestNode, std::cref(options),
                                   std::cref(program), std::cref(lines[i]), timeoutMs));
    for (auto& one : running) verdicts.push_back(one.get());
  }
  return verdicts;
}

Json JsonOf(const Verdict& verdict) {
  Json value{{"node", verdict.Node}, {"alive", verdict.Alive}};
  value["code"] = verdict.Alive || verdict.Code ? Json(verdict.Code) : Json();
  value["verdict"] = verdict.Words;
  value["seconds"] = verdict.Seconds;
  return value;
}

int RunPing(const Options& options) {
  const std::vector<std::string> lines =
      options.File.empty() ? LinesOfAgent(options) : LinesOfFile(options);
  const std::vector<Verdict> verdicts = TestNodes(options, lines, options.TimeoutMs(30));
  Json list = Json::array();
  TextTable table({"NODE", "VERDICT", "CODE", "SECONDS"});
  int status = kDone;
  for (const Verdict& verdict : verdicts) {
    list.push_back(JsonOf(verdict));
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.3f", verdict.Seconds);
    table.Row({verdict.Node,
               {verdict.Words, verdict.Alive ? Style::Good : Style::Bad},
               verdict.Code ? std::to_string(verdict.Code) : "",
               seconds});
    if (!verdict.Alive) status = kNo;
  }
  const bool late = std::any_of(verdicts.begin(), verdicts.end(),
                                [](const Verdict& verdict) { return verdict.Late; });
  if (late && verdicts.size() == 1) status = kTimeOver;
  Show(options, Json{{"nodes", list}}, table.Text(options));
  return status;
}

}  // namespace lumo::ctl
