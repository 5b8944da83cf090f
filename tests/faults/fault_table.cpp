// Makes the table of call sites, failures and outcomes: every scenario is run undisturbed, which
// tells the calls that are passed; then each of these calls fails once with each of its errors, in
// a run of its own. The status is 0 when every row came out as it must and every call site of the
// program was passed.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "tests/faults/table.h"

namespace faults {
namespace {

constexpr int kTries = 3;        // a path that depends on the time is not passed in every run
constexpr int kFurtherRuns = 2;  // of a row with another outcome than expected

struct Settings {
  std::string Output, Only, Scenario;
  unsigned Workers = 2 * std::max(1U, std::thread::hardware_concurrency());
  bool SitesOnly = false;
};

struct Result {
  std::string Outcome, Trouble;  // trouble: what makes the row fail; empty: nothing
};

constexpr char kNotPassed[] = "not passed again";

// Failures of the harness are findings of the run.
Outcome RunOnce(const Scenario& scenario, Nodes& nodes, SharedControl& control,
                const std::vector<Site>& sites, const std::string& program) {
  testing::TestPartResultArray failures;
  Outcome outcome;
  {
    testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &failures);
    Run run(scenario, nodes, control, sites, program);
    outcome = run.Execute();
  }
  for (int i = 0; i < failures.size(); ++i)
    outcome.Findings += std::string(failures.GetTestPartResult(i).message()) + "; ";
  return outcome;
}

class Table {
 public:
  explicit Table(const Settings& settings)
      : settings_(settings), program_(LUMO_TCP_FAULTY_PATH), sites_(program_.Sites()) {}

  int Make();

 private:
  void Add(const CallPath& path);
  void Record(std::size_t scenario, Nodes& nodes, SharedControl& control);
  void RecordAll();
  void MakeRows();
  bool ReportSites();
  void RunRows();
  void Work(unsigned worker, const std::string& file);
  Result RunRow(const Row& row, Nodes& nodes, SharedControl& control);
  Result RunUntilExpected(const Row& row, Nodes& nodes, SharedControl& control);
  void Collect(const std::string& file);
  bool FailedElsewhere(const Row& row) const;
  void JudgeNotPassed();
  bool Report();
  std::string Shown(const Row& row) const;

  Settings settings_;
  Program program_;
  std::vector<Site> sites_;
  std::vector<Outcome> undisturbed_;
  std::vector<CallPath> paths_;
  std::vector<Row> rows_;
  std::vector<Result> results_;
  bool failed_ = false;
};

// What other scenarios pass only when processes happen to run in a certain order.
constexpr struct {
  const char *Path, *Scenario;
} kHomes[] = {{"SettleEntry", "busy reader"},
              {"ProcessIsAlive < PutIntoQueue", "full queue"},
              {"SendPending", "full queue"},
              {"Keep <", "full queue"},
              {"FlushBytes < ServeWritableLink", "slow node"}};

bool BelongsElsewhere(const CallPath& path) {
  return std::any_of(std::begin(kHomes), std::end(kHomes), [&](const auto& home) {
    return path.Function.find(home.Path) != std::string::npos &&
           Scenarios()[path.Scenario].Name != home.Scenario;
  });
}

void Table::Add(const CallPath& path) {
  if (BelongsElsewhere(path)) return;
  const auto known = std::find_if(paths_.begin(), paths_.end(),
                                  [&](const CallPath& one) { return IsSame(one, path); });
  if (known == paths_.end())
    paths_.push_back(path);
  else if (path.Certain && !known->Certain)
    *known = path;
}

// Twice: what only one of the runs passed depends on the time, and is looked for elsewhere first.
void Table::Record(std::size_t scenario, Nodes& nodes, SharedControl& control) {
  std::vector<CallPath> first;
  for (int round = 0; round < 2; ++round) {
    control.Clear();
    Outcome outcome = RunOnce(Scenarios()[scenario], nodes, control, sites_, program_.Path());
    std::vector<CallPath> passed = PathsOf(control, scenario, program_);
    for (CallPath& path : passed) {
      path.Certain = std::any_of(first.begin(), first.end(),
                                 [&](const CallPath& one) { return IsSame(one, path); });
    }
    if (round == 0) {
      first = std::move(passed);
      undisturbed_.push_back(std::move(outcome));
      continue;
    }
    for (const CallPath& path : first) Add(path);
    for (const CallPath& path : passed) Add(path);
    const std::string difference = Difference(undisturbed_.back(), outcome);
    if (difference != "unnoticed") outcome.Findings += "two runs differ: " + difference;
    outcome.Findings += undisturbed_.back().Findings;
    if (outcome.Findings.empty()) continue;
    std::cout << "undisturbed " << Scenarios()[scenario].Name << ": " << outcome.Findings << "\n";
    failed_ = true;
  }
}

void Table::RecordAll() {
  Nodes nodes;
  SharedControl control;
  for (std::size_t i = 0; i < Scenarios().size(); ++i) Record(i, nodes, control);
}

void Table::MakeRows() {
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    if (!settings_.Scenario.empty() && Scenarios()[paths_[i].Scenario].Name != settings_.Scenario)
      continue;
    if (!paths_[i].Certain) continue;
    for (const int skip : SkipsOf(paths_[i])) {
      for (const int error : ErrorsOf(paths_[i])) {
        const Row row{i, error, skip};
        if (Shown(row).find(settings_.Only) != std::string::npos) rows_.push_back(row);
      }
    }
  }
  results_.resize(rows_.size());
}

// Made only for a client of another user than the agent's, which only root could act as.
bool IsOfOtherUsers(const Site& site) { return site.At.Function == "IsInGroups"; }

bool WasPassed(const Site& site, const std::vector<CallPath>& paths) {
  return std::any_of(paths.begin(), paths.end(), [&](const CallPath& path) {
    if (path.Kind != site.Kind) return false;
    // A call through a pointer is made by the function that is handed it.
    if (site.Return == 0) return path.Function.find(" < " + site.At.Function) != std::string::npos;
    return path.Line == site.At.Line;
  });
}

bool Table::ReportSites() {
  std::vector<std::string> places, missing;
  for (const Site& site : sites_) {
    const std::string place = std::string(kCallNames[static_cast<std::size_t>(site.Kind)]) + " " +
                              site.At.Line + " " + site.At.Function;
    if (std::find(places.begin(), places.end(), place) != places.end()) continue;
    places.push_back(place);
    if (IsOfOtherUsers(site)) {
      std::cout << "left out, since it takes a client of another user: " << place << "\n";
      continue;
    }
    if (!WasPassed(site, paths_)) missing.push_back(place);
  }
  const auto certain = std::count_if(paths_.begin(), paths_.end(),
                                     [](const CallPath& path) { return path.Certain; });
  std::cout << places.size() << " call sites, " << certain << " paths to them, "
            << paths_.size() - static_cast<std::size_t>(certain) << " that depend on the time, "
            << missing.size() << " call sites not passed\n";
  for (const std::string& place : missing) std::cout << "not passed: " << place << "\n";
  return missing.empty();
}

std::string Table::Shown(const Row& row) const {
  const CallPath& path = paths_[row.Path];
  char text[400];
  std::snprintf(text, sizeof text, "%-14s %-20s %-13s %-16s %s",
                kCallNames[static_cast<std::size_t>(path.Kind)], path.Line.c_str(),
                ErrorName(row.Error).c_str(), Scenarios()[path.Scenario].Name.c_str(),
                path.Function.c_str());
  return row.Skip ? std::string(text) + ", call " + std::to_string(row.Skip + 1) : text;
}

Result Table::RunRow(const Row& row, Nodes& nodes, SharedControl& control) {
  const CallPath& path = paths_[row.Path];
  Outcome outcome;
  for (int attempt = 0; attempt < kTries && !outcome.Fired; ++attempt) {
    control.Clear();
    Fault& fault = control->Faults[kTested];
    fault.Call = static_cast<std::uint32_t>(path.Kind);
    fault.Variants =
        static_cast<std::uint32_t>(std::min<std::size_t>(path.Variants.size(), kVariants));
    std::copy_n(path.Variants.begin(), fault.Variants, fault.Paths);
    fault.Error = row.Error;
    fault.Skip = row.Skip;
    fault.Perform = IsPerformed(path, row.Error);
    fault.Armed = 1;
    outcome = RunOnce(Scenarios()[path.Scenario], nodes, control, sites_, program_.Path());
  }
  Result result{Difference(undisturbed_[path.Scenario], outcome), outcome.Findings};
  if (!outcome.Fired) {
    if (result.Outcome != "unnoticed")
      result.Trouble += "without a fault: " + result.Outcome + "; ";
    result.Outcome = kNotPassed;
    return result;
  }
  const Expectation* const expected = ExpectationOf(path, row);
  const char* const wanted = expected ? expected->Outcome : "unnoticed";
  if (!IsExpected(path, wanted, row.Error, result.Outcome))
    result.Trouble += std::string("expected: ") + wanted + "; ";
  if (expected && outcome.Log.find(Filled(expected->Log, row.Error)) == std::string::npos)
    result.Trouble += "not in the log: " + Filled(expected->Log, row.Error) + "; ";
  std::replace(result.Trouble.begin(), result.Trouble.end(), '\n', ' ');
  return result;
}

// On a busy machine the order of the processes may differ from the recorded one: then another path
// is taken, or none. What a row was at first stays in the table.
Result Table::RunUntilExpected(const Row& row, Nodes& nodes, SharedControl& control) {
  Result result = RunRow(row, nodes, control);
  const auto isDone = [&] { return result.Trouble.empty() && result.Outcome != kNotPassed; };
  if (isDone()) return result;
  const std::string atFirst = result.Outcome + ", " + result.Trouble;
  for (int i = 0; i < kFurtherRuns && !isDone(); ++i) {
    const Result again = RunRow(row, nodes, control);
    // That the call was not passed does not excuse what came when it was.
    if (again.Outcome != kNotPassed || result.Trouble.empty()) result = again;
  }
  if (isDone()) result.Outcome += " (at first: " + atFirst + ")";
  return result;
}

void Table::Work(unsigned worker, const std::string& file) {
  Nodes nodes;
  SharedControl control;
  std::ofstream out(file);
  for (std::size_t i = worker; i < rows_.size(); i += settings_.Workers) {
    const Result result = RunUntilExpected(rows_[i], nodes, control);
    out << i << '\t' << result.Outcome << '\t' << result.Trouble << std::endl;
  }
}

void Table::RunRows() {
  const test::TemporaryDirectory folder;
  std::vector<pid_t> workers;
  const auto file = [&](unsigned worker) { return folder.Path() / std::to_string(worker); };
  for (Result& result : results_) result.Trouble = "was not run";
  std::cout << std::flush;  // what is in the buffer is the parent's to write
  for (unsigned worker = 0; worker < settings_.Workers; ++worker) {
    const pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      Work(worker, file(worker));
      std::fflush(nullptr);
      _exit(0);
    }
    workers.push_back(pid);
  }
  for (const pid_t pid : workers) waitpid(pid, nullptr, 0);
  for (unsigned worker = 0; worker < settings_.Workers; ++worker) Collect(file(worker));
}

void Table::Collect(const std::string& file) {
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    const std::size_t first = line.find('\t'), second = line.find('\t', first + 1);
    if (second == std::string::npos) continue;
    results_[std::stoul(line)] = {line.substr(first + 1, second - first - 1),
                                  line.substr(second + 1)};
  }
}

// The same call failed with the same error on another path, and that came out as it must.
bool Table::FailedElsewhere(const Row& row) const {
  const CallPath& path = paths_[row.Path];
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    const CallPath& other = paths_[rows_[i].Path];
    if (other.Kind == path.Kind && other.Line == path.Line && rows_[i].Error == row.Error &&
        results_[i].Outcome != kNotPassed && results_[i].Trouble.empty())
      return true;
  }
  return false;
}

// A path that turned up in both recorded runs and in none of a row's many runs depends on the time
// after all. No call may go without its failure for that.
void Table::JudgeNotPassed() {
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    if (results_[i].Outcome == kNotPassed && !FailedElsewhere(rows_[i]))
      results_[i].Trouble += "the call was not passed; ";
  }
}

// The rows that failed come last, and are all that is printed when there is a file for the table.
bool Table::Report() {
  JudgeNotPassed();
  std::ostringstream table, failed;
  std::size_t bad = 0;
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    table << Shown(rows_[i]) << " | " << results_[i].Outcome << "\n";
    if (results_[i].Trouble.empty()) continue;
    failed << "FAILED " << Shown(rows_[i]) << " | " << results_[i].Outcome << " | "
           << results_[i].Trouble << "\n";
    ++bad;
  }
  failed << rows_.size() << " rows, " << bad << " failed\n";
  if (settings_.Output.empty())
    std::cout << table.str();
  else
    std::ofstream(settings_.Output) << table.str() << failed.str();
  std::cout << failed.str();
  return bad == 0;
}

int Table::Make() {
  RecordAll();
  const bool allPassed = ReportSites();
  if (settings_.SitesOnly) return allPassed && !failed_ ? 0 : 1;
  MakeRows();
  RunRows();
  return Report() && allPassed && !failed_ ? 0 : 1;
}

}  // namespace
}  // namespace faults

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  faults::Settings settings;
  CLI::App app(
      "Lets each call of the system that the agent makes fail, and tells what comes of it");
  app.add_option("--output", settings.Output,
                 "write the table to this file; only failed rows are printed");
  app.add_option("--only", settings.Only, "only rows with this text");
  app.add_option("--scenario", settings.Scenario, "only rows of this scenario");
  app.add_option("--workers", settings.Workers, "runs at the same time")->check(CLI::Range(1, 64));
  app.add_flag("--sites", settings.SitesOnly, "only look whether all call sites are passed");
  CLI11_PARSE(app, argc, argv);
  return faults::Table(settings).Make();
}
