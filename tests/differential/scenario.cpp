#include "tests/differential/scenario.h"

#include <array>
#include <random>

namespace differential {
namespace {

struct Weighed {
  Kind What;
  int Weight;
  const char* Name;
};

constexpr std::array kKinds = {
    Weighed{Kind::Connect, 10, "connect"},
    Weighed{Kind::Ask, 60, "ask"},
    Weighed{Kind::AskLarge, 6, "ask-large"},
    Weighed{Kind::Half, 4, "half"},
    Weighed{Kind::Garbage, 1, "garbage"},
    Weighed{Kind::HangUp, 5, "hang-up"},
    Weighed{Kind::Manage, 8, "manage"},
    Weighed{Kind::Answer, 40, "answer"},
    Weighed{Kind::AnswerTwice, 2, "answer-twice"},
    Weighed{Kind::AnswerHalf, 4, "answer-half"},
    Weighed{Kind::Control, 8, "control"},
    Weighed{Kind::BadPacket, 2, "bad-packet"},
    Weighed{Kind::StopSending, 6, "stop-sending"},
    Weighed{Kind::Close, 4, "close"},
    Weighed{Kind::Reset, 6, "reset"},
    Weighed{Kind::Refuse, 2, "refuse"},
    Weighed{Kind::Listen, 3, "listen"},
    Weighed{Kind::QueueAnswer, 6, "queue-answer"},
    Weighed{Kind::Tick, 8, "tick"},
    Weighed{Kind::Die, 1, "die"},
};

class Chance {
 public:
  explicit Chance(std::uint32_t seed) : random_(seed) {}
  unsigned Below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
  bool OneIn(unsigned n) { return Below(n) == 0; }

 private:
  std::mt19937 random_;
};

Kind AnyKind(Chance& chance) {
  int total = 0;
  for (const Weighed& kind : kKinds) total += kind.Weight;
  int at = static_cast<int>(chance.Below(static_cast<unsigned>(total)));
  for (const Weighed& kind : kKinds) {
    if ((at -= kind.Weight) < 0) return kind.What;
  }
  return Kind::Tick;
}

Event AnyEvent(Chance& chance) {
  Event event{AnyKind(chance), chance.Below(12), 1 + chance.Below(3), chance.Below(64)};
  if (chance.OneIn(8)) event.Count += chance.Below(40);
  return event;
}

}  // namespace

Scenario MakeScenario(std::uint32_t seed) {
  Chance chance(seed);
  Scenario scenario{seed, {}, chance.Below(2), chance.OneIn(2), chance.OneIn(3), {}};
  if (chance.OneIn(3)) scenario.Options.push_back("-AUTOCHANGE");
  if (chance.OneIn(3)) scenario.Options.push_back("-AUTOCONNECT");
  if (chance.OneIn(3))
    scenario.Options.insert(scenario.Options.end(), {"-AUTOCONNECTTIMEOUT", "8"});
  if (chance.OneIn(4)) scenario.Options.push_back("-ERR1001");
  if (chance.OneIn(4)) scenario.Options.push_back("-CONNERROR");
  const unsigned steps = 10 + chance.Below(40);
  scenario.Steps.push_back({{Kind::Connect, 0, 5, 0}});
  for (unsigned i = 0; i < steps; ++i) {
    std::vector<Event>& step = scenario.Steps.emplace_back();
    const unsigned events = 1 + chance.Below(6);
    for (unsigned j = 0; j < events; ++j) step.push_back(AnyEvent(chance));
    // The reader of the queue is a process of its own, which must not race with the agent.
    for (const Event& event : step) {
      if (event.What != Kind::QueueAnswer) continue;
      step = {Event{event}};
      break;
    }
  }
  return scenario;
}

std::string Describe(const Event& event) {
  for (const Weighed& kind : kKinds) {
    if (kind.What == event.What)
      return std::string(kind.Name) + " " + std::to_string(event.Who) + " x" +
             std::to_string(event.Count) + " (" + std::to_string(event.Value) + ")";
  }
  return {};
}

}  // namespace differential
