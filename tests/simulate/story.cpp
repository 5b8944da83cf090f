#include "tests/simulate/story.h"

#include <algorithm>
#include <random>

namespace {

using story::Step;
using story::Story;
using story::What;

// Not the library's distributions: a seed means the same everywhere.
class Chance {
 public:
  explicit Chance(std::uint64_t seed) : random_(seed) {}
  unsigned Below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
  bool Once(unsigned in) { return Below(in) == 0; }
  std::uint16_t Byte() { return static_cast<std::uint16_t>(Below(256)); }

 private:
  std::mt19937_64 random_;
};

constexpr const char* kLines[] = {"SRV1 TCPIP 127.0.0.1 1060 0 0 0",
                                  "SRV2 TCPIP 127.0.0.2 1060 1 6 4",
                                  "SRV3 TCPIP 127.0.0.3 1060 0 4 2",
                                  "SRV7 TCPIP 127.0.0.7 1060 2 0 8",
                                  "SRV4 LOCALS 17",
                                  "SRV5 LOCALI 33",
                                  "SRV6 DECNET somewhere"};

constexpr const char* kNames[] = {
    "Connect",      "Ask",    "Trickle", "Pass",     "Rest",       "Tick",         "Answer",
    "AnswerOddly",  "Decide", "Plan",    "NodeGoes", "NodeStalls", "NodeDribbles", "ClientGoes",
    "ClientStalls", "Kill",   "Manage",  "Fail",     "Junk",       "Reader",       "Queue"};
static_assert(std::size(kNames) == static_cast<std::size_t>(What::Count));

struct Weight {
  What Kind;
  unsigned Of;
};
constexpr Weight kUsual[] = {
    {What::Connect, 6},      {What::Ask, 30},       {What::Trickle, 2},      {What::Pass, 8},
    {What::Rest, 20},        {What::Tick, 8},       {What::Answer, 24},      {What::AnswerOddly, 1},
    {What::Decide, 10},      {What::Plan, 2},       {What::NodeGoes, 2},     {What::NodeStalls, 3},
    {What::NodeDribbles, 1}, {What::ClientGoes, 2}, {What::ClientStalls, 2}, {What::Kill, 1},
    {What::Reader, 6},       {What::Queue, 1},      {What::Junk, 1}};

What Choose(Chance& chance, const std::vector<Weight>& weights) {
  unsigned sum = 0;
  for (const Weight& weight : weights) sum += weight.Of;
  unsigned at = chance.Below(sum);
  for (const Weight& weight : weights) {
    if (at < weight.Of) return weight.Kind;
    at -= weight.Of;
  }
  return What::Rest;
}

std::uint16_t HowMany(Chance& chance) {
  return static_cast<std::uint16_t>(chance.Once(4) ? 1 + chance.Below(40) : 1 + chance.Below(6));
}

std::uint16_t HowLong(Chance& chance) {
  return static_cast<std::uint16_t>(chance.Once(8) ? chance.Below(7000) : chance.Below(60));
}

Step MakeStep(Chance& chance, What kind) {
  Step step = {.Kind = kind, .A = chance.Byte(), .B = chance.Byte(), .C = chance.Byte(), .D = 0};
  if (kind == What::Connect) step.A = static_cast<std::uint16_t>(1 + chance.Below(4));
  if (kind == What::Tick)
    step.A = static_cast<std::uint16_t>(chance.Once(6) ? 1 + chance.Below(9) : 1);
  if (kind == What::Ask) step.C = HowMany(chance);
  if (kind == What::Ask) step.D = HowLong(chance);
  if (kind == What::Answer) step.B = HowMany(chance);
  return step;
}

std::vector<std::string> SomeOptions(Chance& chance) {
  std::vector<std::string> options = {"lumo_tcp", "-NODAEMON"};
  if (chance.Once(3)) options.emplace_back("-AUTOCONNECT");
  if (chance.Once(6)) options.emplace_back("-AUTOCHANGE");
  if (chance.Once(3)) options.emplace_back("-ERR1001");
  if (chance.Once(6)) options.emplace_back("-CONNERROR");
  if (chance.Once(8)) options.emplace_back("-CONNECTONLOAD");
  if (chance.Once(3)) options.emplace_back("-AUTOCONNECTTIMEOUT=6");
  if (chance.Once(4)) options.emplace_back("-DEFAULT=SRV2");
  return options;
}

std::vector<std::string> SomeNodes(Chance& chance) {
  std::vector<std::string> lines(std::begin(kLines), std::end(kLines));
  for (std::size_t i = lines.size() - 1; i > 0; --i)
    std::swap(lines[i], lines[chance.Below(static_cast<unsigned>(i) + 1)]);
  lines.resize(1 + chance.Below(5));
  return lines;
}

}  // namespace

Story story::Tell(std::uint64_t seed, unsigned times) {
  Chance chance(seed);
  Story told = {.Seed = seed,
                .Options = SomeOptions(chance),
                .Nodes = SomeNodes(chance),
                .Epoll = !chance.Once(8),
                .Faults = chance.Once(4),
                .Edits = chance.Once(4),
                .Steps = {}};
  std::vector<Weight> weights(std::begin(kUsual), std::end(kUsual));
  if (told.Faults) weights.push_back({What::Fail, 3});
  if (told.Edits) weights.push_back({What::Manage, 4});
  const unsigned count = (100 + chance.Below(600)) * times;
  told.Steps.push_back(MakeStep(chance, What::Connect));
  told.Steps.push_back(MakeStep(chance, What::Rest));
  while (told.Steps.size() < count) told.Steps.push_back(MakeStep(chance, Choose(chance, weights)));
  return told;
}

bool story::Has(const Story& told, const char* option) {
  return std::find(told.Options.begin(), told.Options.end(), option) != told.Options.end();
}

std::string story::Describe(const Step& step) {
  std::string text = kNames[static_cast<std::size_t>(step.Kind)];
  for (const unsigned value : {step.A, step.B, step.C, step.D}) text += " " + std::to_string(value);
  return text;
}

std::string story::Describe(const Story& told) {
  std::string text = "seed " + std::to_string(told.Seed) + "\n";
  for (const std::string& option : told.Options) text += option + " ";
  text += told.Epoll ? "\n" : "(select)\n";
  for (const std::string& line : told.Nodes) text += "  " + line + "\n";
  for (const Step& step : told.Steps) text += Describe(step) + "\n";
  return text;
}
