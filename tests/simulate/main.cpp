// Plays stories of the whole agent in a simulated system (see run.sh):
//
//   simulate --seeds A..B [--for SECONDS] [--traced-every N]
//                                           each of them at log level 0, one in N (1) also at 15
//   simulate --seed N                       one, and the shortest story with what it finds
//   simulate --seed N --log LEVEL           one, with the agent's log; nothing is made shorter
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/fuzz/world.h"
#include "tests/simulate/play.h"
#include "tests/simulate/story.h"

namespace {

using play::Played;
using story::Story;

constexpr int kLevels[] = {0, 15};
constexpr unsigned kPatience = 30;  // seconds for a thousand steps of a story

// What a story came to, played in a process of its own: nothing of an earlier one is left there.
struct Outcome {
  Played What = {};
  std::string Finding;  // empty: none
};

[[noreturn]] void PlayHere(const Story& told, int level, int result) {
  alarm(kPatience * (1 + static_cast<unsigned>(told.Steps.size() / 1000)));
  const Played played = play::Play(told, level);
  const ssize_t written = write(result, &played, sizeof played);
  _exit(written == sizeof played ? 0 : 1);
}

std::string ReadAll(int fd) {
  std::string text;
  char part[4096];
  for (ssize_t got; (got = read(fd, part, sizeof part)) > 0;)
    text.append(part, static_cast<std::size_t>(got));
  close(fd);
  return text;
}

// The line that says what was wrong, or how the process ended.
std::string FindingIn(const std::string& errors, int status) {
  for (const char* mark : {"VIOLATED: ", "runtime error: ", "ERROR: "}) {
    const std::size_t at = errors.find(mark);
    if (at != std::string::npos) return errors.substr(at, errors.find('\n', at) - at);
  }
  if (WIFSIGNALED(status)) return std::string("ended by ") + strsignal(WTERMSIG(status));
  return "exit status " + std::to_string(WEXITSTATUS(status));
}

Outcome PlayApart(const Story& told, int level) {
  int result[2], errors[2];
  if (pipe(result) != 0 || pipe(errors) != 0) std::abort();
  const pid_t child = fork();
  if (child == 0) {
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    dup2(errors[1], STDERR_FILENO);
    // Out of the way of the numbers that the simulated system gives out.
    const int kept = fcntl(result[1], F_DUPFD, FD_SETSIZE);
    PlayHere(told, level, kept);
  }
  close(result[1]);
  close(errors[1]);
  const std::string text = ReadAll(errors[0]), bytes = ReadAll(result[0]);
  int status;
  waitpid(child, &status, 0);
  Outcome outcome;
  if (status == 0 && bytes.size() == sizeof outcome.What)
    std::memcpy(static_cast<void*>(&outcome.What), bytes.data(), sizeof outcome.What);
  else
    outcome.Finding = FindingIn(text, status);
  return outcome;
}

struct Sums {
  unsigned long Stories, Requests, ByNodes, ByAgent, Dropped, Open;
  double Seconds;
};

void Add(Sums* sums, const Played& played) {
  ++sums->Stories;
  sums->Requests += played.Totals.Requests;
  sums->ByNodes += played.Totals.ByNodes;
  sums->ByAgent += played.Totals.ByAgent;
  sums->Dropped += played.Totals.Dropped;
  sums->Open += played.Totals.Open;
  sums->Seconds += played.Seconds;
}

// At both levels the ledgers must be the same.
Outcome Play(const Story& told, bool alsoTraced, Sums* sums) {
  Outcome quiet = PlayApart(told, kLevels[0]);
  if (!quiet.Finding.empty()) return quiet;
  Add(sums, quiet.What);
  if (!alsoTraced) return quiet;
  Outcome traced = PlayApart(told, kLevels[1]);
  if (!traced.Finding.empty()) return traced;
  sums->Seconds += traced.What.Seconds;
  if (traced.What.Totals.Digest != quiet.What.Totals.Digest)
    traced.Finding = "another ledger at log level 15";
  return traced;
}

// Findings are the same but for numbers.
std::string KindOf(const std::string& finding) {
  std::string kind;
  std::copy_if(finding.begin(), finding.end(), std::back_inserter(kind),
               [](char c) { return c < '0' || c > '9'; });
  return kind;
}

bool StillFinds(const Story& told, const std::string& kind) {
  Sums ignored = {};
  return KindOf(Play(told, true, &ignored).Finding) == kind;
}

// Leaves out ever smaller parts of the story as long as it goes on finding the same.
Story Shorten(Story told, const std::string& kind) {
  for (std::size_t part = told.Steps.size() / 2; part > 0; part /= 2) {
    for (std::size_t from = 0; from < told.Steps.size();) {
      Story shorter = told;
      const auto begin = shorter.Steps.begin() + static_cast<std::ptrdiff_t>(from);
      shorter.Steps.erase(
          begin, begin + static_cast<std::ptrdiff_t>(std::min(part, shorter.Steps.size() - from)));
      if (StillFinds(shorter, kind))
        told = shorter;
      else
        from += part;
    }
  }
  return told;
}

void Tell(const Story& told, const std::string& finding) {
  std::printf("seed %llu: %s\n", static_cast<unsigned long long>(told.Seed), finding.c_str());
  std::fflush(stdout);
  const Story shortest = Shorten(told, KindOf(finding));
  std::printf("The shortest story that finds it:\n%s\n", story::Describe(shortest).c_str());
  std::fflush(stdout);
}

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void Print(const Sums& sums, double seconds, unsigned long findings) {
  std::printf(
      "%lu stories, %lu requests: %lu answered by nodes, %lu by the agent, %lu dropped by a rule, "
      "%lu owed at the end\n%.0f virtual seconds in %.1f: %.0f times as fast. Findings: %lu\n",
      sums.Stories, sums.Requests, sums.ByNodes, sums.ByAgent, sums.Dropped, sums.Open,
      sums.Seconds, seconds, sums.Seconds / std::max(seconds, 0.001), findings);
  std::fflush(stdout);
}

struct Wanted {
  std::uint64_t First, Last;  // seeds
  double Limit;               // seconds
  unsigned TracedEvery, Times;
};

int PlayAll(const Wanted& wanted) {
  constexpr std::uint64_t kReport = 1000;
  Sums sums = {};
  unsigned long findings = 0;
  const double start = Now();
  for (std::uint64_t seed = wanted.First; seed <= wanted.Last && Now() - start < wanted.Limit;
       ++seed) {
    const Story told = story::Tell(seed, wanted.Times);
    const Outcome outcome = Play(told, seed % wanted.TracedEvery == 0, &sums);
    if (!outcome.Finding.empty()) {
      ++findings;
      Tell(told, outcome.Finding);
    }
    if ((seed - wanted.First + 1) % kReport == 0) Print(sums, Now() - start, findings);
  }
  Print(sums, Now() - start, findings);
  return findings == 0 && sums.Stories > 0 ? 0 : 1;
}

int PlayLogged(const Wanted& wanted, const char* level) {
  setenv("LUMO_FUZZ_LOG", "1", 1);
  const Played played = play::Play(story::Tell(wanted.First, wanted.Times), std::atoi(level));
  std::printf("%lu requests. %s\n", played.Totals.Requests, ledger::Drops().c_str());
  return 0;
}

const char* Argument(int argc, char** argv, const char* name) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) == 0) return argv[i + 1];
  }
  return nullptr;
}

unsigned Number(int argc, char** argv, const char* name) {
  const char* const text = Argument(argc, argv, name);
  return static_cast<unsigned>(std::max(text ? std::atoi(text) : 1, 1));
}

}  // namespace

int main(int argc, char** argv) {
  const char* const seed = Argument(argc, argv, "--seed");
  const char* const seeds = Argument(argc, argv, "--seeds");
  const char* const level = Argument(argc, argv, "--log");
  const char* const limit = Argument(argc, argv, "--for");
  unsigned long long first = 0, last = 0;
  if (seed)
    first = last = std::strtoull(seed, nullptr, 10);
  else if (!seeds || std::sscanf(seeds, "%llu..%llu", &first, &last) != 2)
    return std::fputs(
               "usage: simulate --seeds A..B [--for SECONDS] [--traced-every N] [--times N] | "
               "--seed N [--times N] [--log LEVEL]\n",
               stderr),
           2;
  const Wanted wanted = {.First = first,
                         .Last = last,
                         .Limit = limit ? std::atof(limit) : 1e9,
                         .TracedEvery = Number(argc, argv, "--traced-every"),
                         .Times = Number(argc, argv, "--times")};
  return seed && level ? PlayLogged(wanted, level) : PlayAll(wanted);
}
