// refresh and apply: lines of a node table, sent to the agent.
#include <algorithm>
#include <set>

#include "tools/lumoctl/agent.h"
#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/order.h"
#include "tools/lumoctl/output.h"
#include "tools/lumoctl/system_state.h"
#include "tools/lumoctl/table_file.h"

namespace lumo::ctl {
namespace {

enum class Action { Add, Change, Delete, Resend, Nothing };

struct Step {
  Action What;
  std::string Node, From, To;  // lines; From as the agent tells it
  const TableLine* Line = nullptr;
  std::int32_t Index = -1;  // of the second of two nodes of one name, which has to go
  std::string Outcome;      // empty: not carried out
};

struct Words {
  const char *Mark, *Name;
  Style Look;
};
Words WordsOf(Action action) {
  switch (action) {
    case Action::Add:
      return {"+", "add", Style::Good};
    case Action::Change:
      return {"~", "change", Style::Doubtful};
    case Action::Delete:
      return {"-", "delete", Style::Bad};
    case Action::Resend:
      return {"?", "resend", Style::Faint};
    case Action::Nothing:
      break;
  }
  return {"=", "nothing", Style::Faint};
}

constexpr char kInForce[] = "in force", kDeferredText[] = "deferred: the node is in use",
               kSent[] = "sent; in force at once unless the node is in use", kRefused[] = "refused";

// Sends the line of a node and looks at what the agent has then.
void SendLine(Agent* agent, const lumo_node& before, Step* step) {
  if (agent->Set(NodeChoice::Named(before.name), step->Line->Text) != LUMO_RESULT_DONE) {
    step->Outcome = kRefused;
    return;
  }
  const auto after = agent->Get(NodeChoice::Named(step->Line->Name));
  const Agreement agreement = after ? Compare(*after, *step->Line) : Agreement::Different;
  if (agreement == Agreement::Different)
    step->Outcome = kDeferredText;
  else if (agreement == Agreement::Unknown && before.protocol == after->protocol)
    step->Outcome = kSent;
  else
    step->Outcome = kInForce;
}

std::string PathOfTable(Agent* agent, const Options& options) {
  if (!options.File.empty()) return options.File;
  const auto path = agent->TableFile();
  if (!path) throw Failure(kNo, "the agent finds no node table file; --file names one");
  return *path;
}

Json StepJson(const Step& step) {
  Json value{{"node", step.Node}, {"action", WordsOf(step.What).Name}};
  if (!step.From.empty()) value["from"] = step.From;
  if (!step.To.empty()) value["to"] = step.To;
  if (!step.Outcome.empty()) value["outcome"] = step.Outcome;
  return value;
}

int Count(const std::vector<Step>& steps, const char* outcome) {
  return static_cast<int>(std::count_if(steps.begin(), steps.end(),
                                        [&](const Step& step) { return step.Outcome == outcome; }));
}

int StatusOf(const std::vector<Step>& steps) {
  if (Count(steps, kRefused) > 0) return kNo;
  return Count(steps, kDeferredText) > 0 ? kDeferred : kDone;
}

class Plan {
 public:
  Plan(const Options& options, const Table& table, const std::vector<lumo_node>& nodes);
  std::vector<Step> Steps;  // in the order in which they are carried out
  int Differences() const;

 private:
  void Meet(const lumo_node& node, const TableLine& line, bool all);
};

// Nodes are added before others go: the agent is never without one, and the default has where to
// move.
Plan::Plan(const Options& options, const Table& table, const std::vector<lumo_node>& nodes) {
  std::set<std::string> seen;
  std::vector<Step> deletions;
  std::vector<std::pair<const lumo_node*, const TableLine*>> met;
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    const TableLine* const line = table.Find(nodes[i].name);
    if (line && seen.insert(line->Name).second)
      met.emplace_back(&nodes[i], line);
    else if (!options.Keep || line)
      deletions.push_back({.What = Action::Delete,
                           .Node = nodes[i].name,
                           .From = LineOf(nodes[i]),
                           .To = {},
                           .Index = line ? static_cast<std::int32_t>(i) : -1,
                           .Outcome = {}});
  }
  for (const TableLine& line : table.Lines)
    if (!seen.count(line.Name))
      Steps.push_back({.What = Action::Add,
                       .Node = line.Name,
                       .From = {},
                       .To = line.Text,
                       .Line = &line,
                       .Outcome = {}});
  for (const auto& [node, line] : met) Meet(*node, *line, options.All);
  // From the last on: the numbers of those before stay.
  Steps.insert(Steps.end(), deletions.rbegin(), deletions.rend());
}

void Plan::Meet(const lumo_node& node, const TableLine& line, bool all) {
  Step step{.What = Action::Nothing,
            .Node = line.Name,
            .From = LineOf(node),
            .To = line.Text,
            .Line = &line,
            .Outcome = {}};
  const Agreement agreement = Compare(node, line);
  if (agreement == Agreement::Different)
    step.What = Action::Change;
  else if (agreement == Agreement::Unknown || all)
    step.What = Action::Resend;
  Steps.push_back(step);
}

int Plan::Differences() const {
  return static_cast<int>(std::count_if(Steps.begin(), Steps.end(), [](const Step& step) {
    return step.What != Action::Nothing && step.What != Action::Resend;
  }));
}

void AddNode(Agent* agent, const Table& table, Step* step) {
  step->Outcome = kRefused;
  const std::string follower = FollowerOf(step->Line->Name, table, agent->Nodes());
  if (agent->Add(step->Line->Text, follower) != LUMO_RESULT_DONE) return;
  const auto after = agent->Get(NodeChoice::Named(step->Line->Name));
  if (after && Compare(*after, *step->Line) != Agreement::Different) step->Outcome = kInForce;
}

void DeleteNode(Agent* agent, Step* step) {
  // By its name where that will do: numbers change when a node in use goes at last.
  const std::int32_t result =
      agent->Delete(step->Index < 0 ? NodeChoice::Named(step->Node)
                                    : NodeChoice('#' + std::to_string(step->Index)));
  step->Outcome = result == LUMO_RESULT_DONE      ? kInForce
                  : result == LUMO_RESULT_PENDING ? kDeferredText
                                                  : kRefused;
}

void CarryOut(Agent* agent, const Table& table, Step* step) {
  switch (step->What) {
    case Action::Add:
      return AddNode(agent, table, step);
    case Action::Change:
    case Action::Resend: {
      const auto before = agent->Get(NodeChoice::Named(step->Node));
      if (before) return SendLine(agent, *before, step);
      step->Outcome = kRefused;
      return;
    }
    case Action::Delete:
      return DeleteNode(agent, step);
    case Action::Nothing:
      return;
  }
}

std::string TextOf(const Options& options, const Step& step) {
  const Words words = WordsOf(step.What);
  std::string text = std::string(words.Mark) + ' ' + step.Node;
  if (step.What == Action::Change)
    text += ": " + step.From + " -> " + step.To;
  else
    text += ": " + (step.To.empty() ? step.From : step.To);
  text = Painted(options, words.Look, Printable(text));
  if (!step.Outcome.empty()) text += "  [" + step.Outcome + ']';
  return text + '\n';
}

// An agent that reads a table of one node switches failover off until it ends; whether it did so,
// nothing tells.
std::string FailoverNote(const Agent& agent, std::size_t nodesBefore, const Table& table) {
  if (nodesBefore != 1 || table.Nodes().size() < 2) return "";
  const std::vector<std::string> arguments = ProcessArguments(agent.Pid());
  for (const char* const key : {"AUTOCONNECT", "G", "AUTOCHANGE", "A"})
    if (OptionValue(arguments, key))
      return std::string("failover (-") + key +
             ") stays off until a restart when the agent was started with one node";
  return "";
}

int ShowSteps(const Options& options, const Plan& plan, const std::vector<std::string>& notes,
              int status) {
  Json list = Json::array();
  std::string text;
  int same = 0;
  for (const Step& step : plan.Steps) {
    list.push_back(StepJson(step));
    if (step.What == Action::Nothing)
      ++same;
    else
      text += TextOf(options, step);
  }
  text += std::to_string(plan.Differences()) + " different, " + std::to_string(same) + " equal";
  const int deferred = Count(plan.Steps, kDeferredText);
  if (deferred > 0) text += ", " + std::to_string(deferred) + " deferred";
  for (const std::string& note : notes) text += "\nnote: " + Printable(note);
  Show(options,
       Json{{"file", options.File},
            {"differences", plan.Differences()},
            {"equal", same},
            {"deferred", deferred},
            {"steps", list},
            {"notes", notes}},
       text + '\n');
  return status;
}

// The line that makes the node; else fails with what is wrong with it.
const TableLine* LineToRefresh(Agent* agent, const Table& table, const std::string& text) {
  const auto node = agent->Get(NodeChoice(text));
  if (!node) FailNoSuchNode(text);
  if (const TableLine* const line = table.Find(node->name)) return line;
  for (const TableLine& line : table.Lines) {
    if (line.Name != node->name) continue;
    for (const Fault& fault : line.Faults)
      if (fault.Level == Severity::Error) throw Failure(kNo, fault.Text);
  }
  throw Failure(kNo, std::string("the node table has no line for the node ") + node->name);
}

// One node anew from its line.
Step Refreshed(Agent* agent, const TableLine& line) {
  Step step{.What = Action::Resend, .Node = line.Name, .From = {}, .To = {}, .Outcome = kRefused};
  const auto before = agent->Get(NodeChoice::Named(line.Name));
  if (!before) return step;
  step.Line = &line;
  step.From = LineOf(*before);
  SendLine(agent, *before, &step);
  const auto after = agent->Get(NodeChoice::Named(line.Name));
  if (after) step.To = LineOf(*after);
  return step;
}

}  // namespace

int RunApply(const Options& options) {
  const Table table = ReadSoundTable(options, options.File);
  Agent agent(options);
  std::vector<std::string> notes;
  const auto note = [&notes](const std::string& text) {
    if (!text.empty()) notes.push_back(text);
  };
  if (options.DryRun) {
    const std::vector<lumo_node> nodes = agent.Nodes();
    const Plan plan(options, table, nodes);
    const Order order = CompareOrder(WithAdded(nodes, table), table);
    note(order.Text());
    const bool differs = plan.Differences() > 0 || !order.SameCircle();
    return ShowSteps(options, plan, notes, differs ? kNo : kDone);
  }
  const TableLock lock(&agent, options);
  const std::vector<lumo_node> before = agent.Nodes();
  Plan plan(options, table, before);
  for (Step& step : plan.Steps) CarryOut(&agent, table, &step);
  note(CompareOrder(agent.Nodes(), table).Text());
  note(FailoverNote(agent, before.size(), table));
  return ShowSteps(options, plan, notes, StatusOf(plan.Steps));
}

int RunRefresh(const Options& options) {
  if (options.Arguments.empty() != options.All)
    throw Failure(kUsage, "refresh takes either a NODE or --all");
  Agent agent(options);
  const TableLock lock(&agent, options);
  const std::string path = PathOfTable(&agent, options);
  const Table table = ReadTable(ReadTextFile(path), SystemResolver(), AgentExchangeId(options));
  const auto lines =
      options.All ? table.Nodes() : std::vector{LineToRefresh(&agent, table, options.Arguments[0])};
  for (const TableLine* line : lines)
    TellWarnings(options, *line, path + ':' + std::to_string(line->Number) + ": ");
  std::vector<Step> steps;
  for (const TableLine* line : lines) steps.push_back(Refreshed(&agent, *line));
  Json list = Json::array();
  std::string text;
  for (const Step& step : steps) {
    Json value = StepJson(step);
    value.erase("action");
    list.push_back(value);
    const std::string change = step.From == step.To ? step.From : step.From + " -> " + step.To;
    text +=
        Printable(step.Node + ": " + (step.From.empty() ? "the agent has no such node" : change)) +
        "  [" + step.Outcome + "]\n";
  }
  Show(options, Json{{"file", path}, {"nodes", list}}, text);
  return StatusOf(steps);
}

}  // namespace lumo::ctl
