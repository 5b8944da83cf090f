// lint: the faults of a node table file.
#include <cstdlib>

#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/output.h"
#include "tools/lumoctl/table_file.h"

namespace lumo::ctl {
namespace {

Style StyleOf(Severity level) {
  if (level == Severity::Error) return Style::Bad;
  return level == Severity::Warning ? Style::Doubtful : Style::Faint;
}

Json FaultJson(const Fault& fault, int line) {
  Json value;
  if (line > 0) value["line"] = line;
  value["severity"] = SeverityText(fault.Level);
  value["rule"] = fault.Rule;
  value["text"] = fault.Text;
  return value;
}

struct Findings {
  const Options& Settings;
  Json Faults = Json::array();
  std::string Text;
  int Counts[3] = {0, 0, 0};

  void Add(const std::string& place, int line, const Fault& fault) {
    Faults.push_back(FaultJson(fault, line));
    ++Counts[static_cast<int>(fault.Level)];
    Text += Printable(place) + ": " +
            Painted(Settings, StyleOf(fault.Level), SeverityText(fault.Level)) + ": " +
            Printable(fault.Text) + " [" + fault.Rule + "]\n";
  }
  int Of(Severity level) const { return Counts[static_cast<int>(level)]; }
};

std::string Plural(int count, const std::string& word) {
  return std::to_string(count) + ' ' + word + (count == 1 ? "" : "s");
}

}  // namespace

int RunLint(const Options& options) {
  const Table table =
      ReadTable(ReadTextFile(options.File),
                options.NoResolve ? NumericResolver() : SystemResolver(), AgentExchangeId(options));
  Findings findings{.Settings = options, .Text = {}};
  for (const TableLine& line : table.Lines)
    for (const Fault& fault : line.Faults)
      findings.Add(options.File + ':' + std::to_string(line.Number), line.Number, fault);
  for (const Fault& fault : table.Faults) findings.Add(options.File, 0, fault);
  for (const Fault& fault : CheckOptions(options.Arguments, table))
    findings.Add("options", 0, fault);
  for (const Fault& fault :
       CheckLinkBuffer(table, std::getenv("LUMO_LINK_BUFFER"), SystemBufferLimits()))
    findings.Add("system", 0, fault);
  const int nodes = static_cast<int>(table.Nodes().size());
  const int errors = findings.Of(Severity::Error), warnings = findings.Of(Severity::Warning),
            notes = findings.Of(Severity::Note);
  const Json value{{"file", options.File}, {"nodes", nodes}, {"errors", errors},
                   {"warnings", warnings}, {"notes", notes}, {"faults", findings.Faults}};
  const std::string summary = Plural(nodes, "node") + ", " + Plural(errors, "error") + ", " +
                              Plural(warnings, "warning") + ", " + Plural(notes, "note") + '\n';
  Show(options, value, findings.Text + summary);
  return errors + warnings + (options.Strict ? notes : 0) > 0 ? kNo : kDone;
}

}  // namespace lumo::ctl
