#include "tests/differential/world.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <utility>

#include "tests/support/management.h"

namespace differential {
namespace {

constexpr int kMostOpen = 60;   // requests of a client, which must find room in its socket,
constexpr int kRoom = 1 << 18;  // made as large as the system lets it
constexpr test::Milliseconds kNow{0};
constexpr std::size_t kTaskNameAt = 4, kTrailerSize = 48, kFirstStringAt = 54;
constexpr std::size_t kParameterAt = 8;  // of a control packet

std::string NodeName(unsigned number) { return "N" + std::to_string(number); }

// Where a request goes: mostly to the nodes, sometimes to the default or into the void.
std::string Target(unsigned value) {
  const char* const targets[] = {"N0", "N1", "N2", "N0", "N1", "", "K", "K", "Q", "Z", "X", ""};
  return targets[value % std::size(targets)];
}

// All that was sent over TCP has come to its socket, whoever reads it. Nearly always it is there
// when the sender goes on; to ask costs milliseconds.
bool NetworkIsQuiet() {
  std::ifstream table("/proc/net/tcp");
  for (std::string line; std::getline(table, line);) {
    unsigned here = 0, there = 0, state = 0, unsent = 0;
    constexpr unsigned kEstablished = 1, kCloseWait = 8;
    if (std::sscanf(line.c_str(), " %*d: %*x:%x %*x:%x %x %x:", &here, &there, &state, &unsent) ==
            4 &&
        (state == kEstablished || state == kCloseWait) && unsent != 0)
      return false;
  }
  return true;
}

}  // namespace

Settings settings;

World::World(const Scenario& scenario, const std::string& level) : scenario_(scenario) {
  agent_.Program(settings.Program).LogLevel(level).Options(scenario.Options);
}

bool World::Start() {
  std::string table;
  for (unsigned i = 0; i < kNodes; ++i) {
    Server& server = servers_.emplace_back();
    const bool stalled = i >= kNodes - scenario_.Stalled;
    server.Name = NodeName(i);
    server.Node = std::make_unique<test::Node>(stalled ? test::Node::Start::Bound
                                                       : test::Node::Start::Listening);
    server.Stalled = stalled;
    server.Listening = !stalled;
    if (stalled) server.Node->Stall();
    table += server.Node->Line(server.Name, stalled ? "0 0 8" : i == 0 ? "1 6 0" : "0 0 0");
  }
  if (scenario_.Socket) {
    Server& server = servers_.emplace_back();
    server.Name = "K";
    server.Kernel = std::make_unique<test::LocalKernel>(agent_);
    table += server.Kernel->Line("K");
  }
  if (scenario_.Queue) table += queue_.emplace().Line("Q");
  agent_.Nodetab(table + "Z REZ\n");
  return agent_.Start();
}

void World::Note(const std::string& who, const std::string& what) { notes_[who].push_back(what); }

// Process ids differ from run to run. Only the words that hold them are hidden: a code may have the
// value of an id.
void World::HideIds(std::string& frame) const {
  const std::int32_t ids[] = {task_, agent_.Pid(), reader_};
  const auto hide = [&](std::size_t at) {
    std::int32_t word = 0;
    std::memcpy(&word, frame.data() + at, sizeof word);
    const auto* const id = std::find(std::begin(ids), std::end(ids), word);
    if (word > 0 && id != std::end(ids))
      frame.replace(at, sizeof word, 4, static_cast<char>('1' + (id - ids)));
  };
  const std::optional<lumo::Message> message = lumo::Decode(frame);
  if (message) {
    hide(kTaskNameAt);
    hide(frame.size() - kTrailerSize);
    if (message->Command == "CKIL") hide(kFirstStringAt);
  } else if (frame.size() > kParameterAt) {
    hide(kParameterAt);
  }
}

std::string World::Shown(std::string frame) const {
  HideIds(frame);
  const std::optional<lumo::Message> message = lumo::Decode(frame);
  std::uint32_t link = 0;
  if (message && !settings.IgnoreLinkNumbers)
    std::memcpy(&link, frame.data() + frame.size() - 44, sizeof link);
  if (message && settings.IgnoreLinkNumbers) frame.replace(frame.size() - 44, 4, 4, '\0');
  std::string shown =
      std::to_string(frame.size()) + " bytes " + std::to_string(std::hash<std::string>{}(frame));
  if (!message) return shown;
  std::string text = message->Strings[0].substr(0, 12);
  for (char& c : text) c = c < ' ' || c > '~' ? '.' : c;
  return "tag " + std::to_string(message->AstInd()) + ", code " + std::to_string(message->CodErr) +
         ", errno " + std::to_string(message->SysErr) + ", '" + text + "', link " +
         std::to_string(link) + ", " + shown;
}

std::int32_t World::TaskOf(unsigned client) const { return client % 5 == 4 ? task_ : getpid(); }

test::Peer* World::LinkOf(Server& server) {
  test::Peer* const link = server.Node     ? (server.Link ? &*server.Link : nullptr)
                           : server.Kernel ? server.Kernel.get()
                                           : nullptr;
  return link && link->Open() ? link : nullptr;
}

void World::BeginLink(Server& server) {
  server.Pending.clear();
  server.Rest.clear();
  server.Ended = server.Mute = false;
  Note(server.Name, "link " + std::to_string(++server.Links));
}

void World::SetListening(Server& server, bool on) {
  if (!server.Node || server.Stalled || on == server.Listening) return;
  server.Listening = on;
  if (on)
    server.Node->Listen();
  else
    server.Node->StopListening();
}

// Settling

// A kernel greets as soon as the agent connects, which waits for it.
bool World::AcceptLinks() {
  bool any = false;
  for (Server& server : servers_) {
    if (!server.Kernel || !server.Kernel->Accept(kNow)) continue;
    BeginLink(server);
    any = true;
  }
  return any;
}

// Nothing is under way: the agent and its reader wait, and will until something comes.
bool World::Settled() {
  if (AcceptLinks()) return false;
  const auto readerWaits = [&] {
    return reader_ == 0 || !test::ProcessRuns(reader_) ||
           test::BlockedInCall(reader_) == SYS_msgrcv;
  };
  if (!readerWaits() || !test::WaitsForEvents(agent_.Pid()) || !readerWaits()) return false;
  return !settings.Careful || NetworkIsQuiet();
}

void World::Settle() {
  if (!test::WaitFor([&] { return !agent_.Running() || Settled(); }))
    Note("agent", "never settles");
}

// What has come

void World::CollectFrom(Server& server, test::Peer& link) {
  if (server.Ended) return;
  while (const std::optional<std::string> frame = link.ReadFrame(kNow)) {
    Note(server.Name, Shown(*frame));
    if (auto request = lumo::Decode(*frame)) server.Pending.push_back(*request);
  }
  server.Ended = link.Ended();
  if (server.Ended) Note(server.Name, "end");
}

// The next connection of the agent is there when it has given up the one before.
void World::CollectFrom(Server& server) {
  if (test::Peer* const link = LinkOf(server)) CollectFrom(server, *link);
  while (server.Node && server.Listening) {
    test::Peer next = server.Node->AcceptAnother(kNow);
    if (!next.Open()) return;
    server.Link.emplace(std::move(next));
    BeginLink(server);
    CollectFrom(server, *server.Link);
  }
}

void World::CollectFrom(Application& client, const std::string& who, test::Milliseconds patience) {
  if (client.Over) return;
  while (const std::optional<std::string> frame = client.Connection.ReceiveFrame(patience)) {
    ++client.Answered;
    Note(who, Shown(*frame));
  }
  client.Over = !client.Connection.Connected();
  if (client.Over) Note(who, "closed");
}

void World::CollectFromQueue() {
  while (const auto request = queue_ ? queue_->TakeRequest() : std::nullopt) {
    reader_ = request->Reader;
    Note("Q", Shown(lumo::Encode(request->Message, lumo::Lengths::Packet)));
    queued_.push_back(*request);
  }
}

void World::Collect(test::Milliseconds patience) {
  for (Server& server : servers_) CollectFrom(server);
  CollectFromQueue();
  for (std::size_t i = 0; i < clients_.size(); ++i)
    CollectFrom(clients_[i], "client " + std::to_string(i), patience);
}

// What happens

void World::Connect(unsigned count) {
  for (unsigned i = 0; i < count && clients_.size() < 12; ++i) {
    clients_.emplace_back(agent_, TaskOf(static_cast<unsigned>(clients_.size())));
    setsockopt(clients_.back().Connection.Connection().Socket(), SOL_SOCKET, SO_SNDBUF, &kRoom,
               sizeof kRoom);
  }
}

void World::Send(Application& client, const std::string& bytes) {
  if (!client.Over) client.Connection.SendBytes(std::exchange(client.Rest, {}) + bytes);
}

void World::Ask(Application& client, const Event& event) {
  const std::string target = Target(event.Value);
  // A full queue is tried again after a time, which no two runs would share. The default may be it.
  const bool queue = target == "Q" || (scenario_.Queue && target.empty());
  const unsigned size = event.What == Kind::AskLarge && !queue ? 3000 : event.Value % 7;
  const unsigned count = queue ? std::min(event.Count, 3U) : event.Count;
  for (unsigned i = 0; i < count && client.Asked - client.Answered < kMostOpen; ++i) {
    const lumo::Message request = client.Connection.Request(target, std::string(size, 't'));
    ++client.Asked;
    Send(client, lumo::Encode(request, lumo::Lengths::Client));
  }
}

void World::Manage(Application& client, const Event& event) {
  const auto index = static_cast<std::int32_t>(event.Count % 6);
  const std::string name = NodeName(event.Who % kNodes) + '\0', added = std::string("N7") + '\0';
  const struct {
    std::uint16_t Number;
    std::int32_t Row;
    std::string Argument;
  } commands[] = {{102, 0, {}},
                  {103, 0, {}},
                  {105, index, {}},
                  {106, index, {}},
                  {119, 0, std::string("N7 REZ") + '\0'},
                  {123, 0, event.Count % 2 ? added : name},
                  {126, 0, name + '\0' + name.substr(0, 2) + " REZ" + '\0'},
                  {100, 0, {}}};
  const auto& [number, row, argument] = commands[event.Value % std::size(commands)];
  lumo::Message request = lumo::ManagementRequest(number, row, argument);
  request.TaskName = client.Connection.TaskName();
  request.SetAstInd(static_cast<std::uint16_t>(0x8000 + ++client.Asked));
  Send(client, lumo::Encode(request, lumo::Lengths::Client));
}

void World::ApplyToClient(const Event& event) {
  if (clients_.empty()) return;
  Application& client = clients_[event.Who % clients_.size()];
  if (client.Over) return;
  switch (event.What) {
    case Kind::Manage:
      return Manage(client, event);
    case Kind::Half: {
      const lumo::Message request = client.Connection.Request(Target(event.Value), "in two");
      const std::string frame = lumo::Encode(request, lumo::Lengths::Client);
      const std::size_t half = 1 + event.Value % (frame.size() - 1);
      ++client.Asked;
      Send(client, frame.substr(0, half));
      client.Rest = frame.substr(half);
      return;
    }
    case Kind::Garbage:
      return Send(client, std::string(4, '\377'));
    case Kind::HangUp:
      client.Connection.Close();
      client.Over = true;
      return;
    default:
      return Ask(client, event);
  }
}

void World::Answer(Server& server, test::Peer& link, const Event& event) {
  const auto send = [&](const std::string& bytes) {
    link.SendBytes(std::exchange(server.Rest, {}) + bytes);
  };
  const lumo::Lengths lengths = server.Kernel ? lumo::Lengths::Client : lumo::Lengths::Packet;
  for (unsigned i = 0; i < event.Count && !server.Pending.empty(); ++i) {
    const bool newest = event.Value % 2 != 0;
    const lumo::Message request = newest ? server.Pending.back() : server.Pending.front();
    if (newest)
      server.Pending.pop_back();
    else
      server.Pending.pop_front();
    const std::string frame = lumo::Encode(test::AnswerTo(request, "by " + server.Name), lengths);
    if (event.What == Kind::AnswerHalf) {
      send(frame.substr(0, frame.size() / 2));
      server.Rest = frame.substr(frame.size() / 2);
      return;
    }
    send(event.What == Kind::AnswerTwice ? frame + frame : frame);
  }
}

void World::ApplyToServer(const Event& event) {
  Server& server = servers_[event.Who % servers_.size()];
  if (event.What == Kind::Refuse || event.What == Kind::Listen) {
    SetListening(server, event.What == Kind::Listen);
    return;
  }
  test::Peer* const link = LinkOf(server);
  if (!link || server.Ended || server.Mute) return;
  switch (event.What) {
    case Kind::Control:
      if (server.Node && server.Rest.empty()) {
        for (unsigned i = 0; i < event.Count; ++i) link->SendControl({1, i});
      }
      break;
    case Kind::BadPacket:
      link->SendBytes(std::string(5, '\377'));
      break;
    case Kind::StopSending:
      link->StopSending();
      server.Mute = true;
      return;
    case Kind::Close:
    case Kind::Reset:
      server.Ended = true;
      Note(server.Name, "closes");
      if (event.What == Kind::Reset) return link->Reset();
      link->StopSending();
      return link->Close();
    default:
      Answer(server, *link, event);
  }
  if (server.Node) link->Arrived();
}

void World::AnswerFromQueue() {
  if (queued_.empty()) return;
  queue_->Answer(queued_.front(), "by Q");
  queued_.pop_front();
}

void World::Apply(const Event& event) {
  if (event.What <= Kind::Manage) return ApplyToClient(event);
  if (event.What <= Kind::Listen) return ApplyToServer(event);
  switch (event.What) {
    case Kind::QueueAnswer:
      return AnswerFromQueue();
    case Kind::Tick:
      return agent_.Signal(SIGALRM);
    default:
      return process_.Kill();
  }
}

void World::PlayStep(const std::vector<Event>& step) {
  for (const Event& event : step) {
    if (event.What == Kind::Connect) Connect(event.Count);
  }
  agent_.InOnePass([&] {
    for (const Event& event : step) {
      if (event.What != Kind::Connect) Apply(event);
    }
  });
  do Settle();
  while (CollectInBetween());
  EndStep();
}

// What is taken makes room for more, which the agent sends when it goes on.
bool World::CollectInBetween() {
  const auto count = [&] {
    std::size_t sum = 0;
    for (const auto& [who, lines] : notes_) sum += lines.size();
    return sum;
  };
  const std::size_t before = count();
  agent_.InOnePass([&] { Collect(kNow); });
  return count() != before;
}

void World::EndStep() {
  for (const auto& [who, lines] : notes_) {
    for (const std::string& line : lines)
      course_.push_back("step " + std::to_string(step_) + ", " + who + ": " + line);
  }
  notes_.clear();
}

Course World::Play() {
  if (!Start()) {
    course_.push_back("the agent does not start");
    return course_;
  }
  for (const std::vector<Event>& step : scenario_.Steps) {
    ++step_;
    PlayStep(step);
  }
  Note("agent", "ends with " + std::to_string(agent_.Stop()));
  Collect(test::kPatience);  // a reader that is still ending holds the connections, too
  EndStep();
  return course_;
}

Course Run(const Scenario& scenario, const std::string& level) {
  return World(scenario, level).Play();
}

}  // namespace differential
