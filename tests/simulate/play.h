// Plays a story: the agent as it is, in the simulated system, in this process. What must never
// happen ends the process.
#pragma once
#include "tests/simulate/ledger.h"
#include "tests/simulate/story.h"

namespace play {

struct Played {
  ledger::Totals Totals;
  double Seconds;  // that have passed in the story
};
Played Play(const story::Story& story, int logLevel);

}  // namespace play
