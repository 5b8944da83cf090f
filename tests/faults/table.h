// The rows of the table: which call fails how, and what is to come of it.
#pragma once
#include <string>
#include <vector>

#include "tests/faults/run.h"
#include "tests/faults/sites.h"

namespace faults {

// Calls of the probe of descriptors before it comes to a client's connection, and to a link's.
constexpr int kProbesBeforeClient = 13, kProbesBeforeLink = 16;

// One call of the source as reached from one caller.
struct CallPath {
  Call Kind;
  std::string Line;      // file:line of the call
  std::string Function;  // and of its callers, innermost first: "SendNow < PutMsgToClient"
  std::size_t Scenario;  // the first that passes it
  std::vector<FramePath> Variants;
  bool Certain = false;  // a second run passed it too
};

struct Row {
  std::size_t Path;
  int Error;     // errno, or kShort
  int Skip = 0;  // so many calls succeed first
};

// What a failure must come to. The first entry that fits a row is taken; a row without one must go
// unnoticed by every client.
struct Expectation {
  Call Kind;
  const char* Path;     // part of the path's functions; with '$' at its end: all of them
  const char* Errors;   // names with blanks between, "short"; empty: any
  const char* Outcome;  // %e: the errno; '|' between several that may come
  const char* Log;      // a part of the log, %e likewise; empty: nothing is looked for
  int Skip = 0;
};

const std::vector<Expectation>& Expectations();
const Expectation* ExpectationOf(const CallPath& path, const Row& row);

std::vector<int> ErrorsOf(const CallPath& path);
std::vector<int> SkipsOf(const CallPath& path);
bool IsPerformed(const CallPath& path, int error);  // the call is made although it reports failure
std::string ErrorName(int error);
bool IsExpected(const CallPath& path, const char* pattern, int error, const std::string& came);
std::string Filled(const char* pattern, int error);

// What differs from the undisturbed run: "unnoticed", or as the entries above put it.
std::string Difference(const Outcome& undisturbed, const Outcome& outcome);

bool IsSame(const CallPath& a, const CallPath& b);

// Paths that a run has recorded.
std::vector<CallPath> PathsOf(const SharedControl& control, std::size_t scenario, Program& program);

}  // namespace faults
