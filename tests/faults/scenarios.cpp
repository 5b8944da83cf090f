// What the agent is led through. Together these pass every call of the system that it makes.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <deque>

#include "tests/faults/run.h"
#include "tests/support/process.h"

namespace faults {
namespace {

const std::vector<std::string> kAllNodes = {"T1", "T2", "L", "K"};

std::string AllNodes(const Nodes& nodes) {
  return nodes.Tcp("T1", "1 60 10") + nodes.Tcp("T2", "0 0 0") + nodes.Local("L") + nodes.Ipc("K");
}

std::string OneTcp(const Nodes& nodes) { return nodes.Tcp("T1", "1 60 10"); }
std::string OneLocal(const Nodes& nodes) { return nodes.Local("L"); }
std::string OneIpc(const Nodes& nodes) { return nodes.Ipc("K"); }

std::string DeadOnesFirst(const Nodes& nodes) {
  return nodes.DeadTcp("D1") + nodes.DeadLocal("D2") + "D3 LOCALI 0x4C54FFFF\n" +
         nodes.Tcp("T2", "0 0 0") + nodes.Local("L") + nodes.Ipc("K");
}

std::string StalledAndTcp(const Nodes& nodes) {
  return nodes.StalledTcp("S") + nodes.Tcp("T2", "0 0 0");
}

void AskAll(Run& run, App& app, const std::string& text = "hello") {
  for (const std::string& node : kAllNodes) run.Ask(app, node, text, node + " " + text);
}

// Start and stop

void AskOnce(Run& run) {
  App app = run.NewApp();
  AskAll(run, app);
  run.Tick();
}

// Clients that ask in their own name and in that of another process of the same user.
void Permitted(Run& run) {
  const test::LivingProcess process;
  App own = run.NewApp(), named = run.NewApp(process.Pid());
  run.Ask(own, "T1", "own");
  run.Ask(named, "T1", "named");
  const std::string text = std::string("N1 REZ") + '\0';
  run.Manage(own, 119, text, "add");
}

void ReportVerdict(Run& run) {
  const std::string log = run.Subject().Log();
  run.Tell("verdict", log.find("is alive") != std::string::npos       ? "alive"
                      : log.find("is not alive") != std::string::npos ? "not alive"
                                                                      : "none");
}

void LookForOther(Run& run) {
  const std::optional<int> status = run.Other().Wait(test::Milliseconds(400));
  run.Tell("the other agent", status ? "ended " + std::to_string(*status) : "lives");
}

void Nothing(Run&) {}

// Service

// One client is older than the links, so that the reader of the queue may write to it; the answers
// of the other go through the agent.
void Serve(Run& run) {
  App early = run.NewApp();
  AskAll(run, early);
  App late = run.NewApp();
  AskAll(run, late, "again");
  run.Tick();
  run.ExpectNoMore(early);
  run.ExpectNoMore(late);
  run.Ask(late, "NOBODY", "x", "unknown node");
}

void Pieces(Run& run) {
  App app = run.NewApp();
  AskAll(run, app);
  const lumo::Message first = app.Request("T1", "in pieces"), second = app.Request("L", "behind");
  const std::string frames = App::Frame(first) + App::Frame(second);
  const std::size_t cut = App::Frame(first).size() + 20;
  for (const auto& [from, to] :
       {std::pair<std::size_t, std::size_t>(0, 3), {3, 60}, {60, cut}, {cut, frames.size()}}) {
    app.SendBytes(std::string_view(frames).substr(from, to - from));
    run.Barrier();
    if (to == cut) run.Expect(app, first, "in pieces", "T1 pieces");
  }
  run.Expect(app, second, "behind", "L pieces");
  for (const char* const node : {"T1", "L"})
    run.Ask(app, node, "split", node + std::string(" split"));
  AskAll(run, app, "large");
}

void Manage(Run& run) {
  App app = run.NewApp();
  const auto text = [](std::string words) { return words + '\0'; };
  run.Manage(app, 116, {}, "path");
  run.Manage(app, 116, {}, "path again");
  run.Manage(app, 119, text("N1 REZ"), "add placeholder");
  run.Manage(app, 119, text(run.Database().Tcp("N2", "0 0 0")), "add TCP");
  run.Manage(app, 119, text(run.Database().Local("N3")), "add local");
  run.Manage(app, 119, text(run.Database().Ipc("N4")), "add IPC");
  run.Ask(app, "N1", "x", "placeholder");
  run.Ask(app, "N2", "x");
  run.Manage(app, 126, text("N2") + '\0' + text(run.Database().Tcp("N2", "0 0 7")), "change busy");
  run.Manage(app, 126, text("N3") + '\0' + text(run.Database().Local("N3")), "change idle");
  for (const char* const name : {"N1", "N2", "N3", "N4"})
    run.Manage(app, 123, text(name), std::string("delete ") + name);
}

// The nodes are told of a client that has gone; one that is silent gets alive packets.
void Death(Run& run) {
  test::LivingProcess client;
  {
    App app = run.NewApp(client.Pid());
    AskAll(run, app);
    client.Kill();
    run.Tick();
  }
  App other = run.NewApp();
  AskAll(run, other, "later");
  for (int i = 0; i < 12; ++i) run.Tick();
  AskAll(run, other, "much later");
}

std::deque<App> NewApps(Run& run, int count) {
  std::deque<App> apps;
  for (int i = 0; i < count; ++i) apps.push_back(run.NewApp());
  return apps;
}

// A request of each, which the agent finds in one pass of its loop with what else comes.
void AskTogether(Run& run, std::deque<App>& apps, const std::string& node, const auto& whatElse) {
  if (!run.Ask(apps[0], node, "first", node + " first")) return;
  std::vector<lumo::Message> requests;
  test::Freeze(run.Subject().Pid());
  for (App& app : apps) requests.push_back(run.Send(app, node, "together"));
  whatElse();
  test::Thaw(run.Subject().Pid());
  for (std::size_t i = 0; i < apps.size(); ++i)
    run.Expect(apps[i], requests[i], "together", node + std::to_string(i));
}

void Crowd(Run& run) {
  std::deque<App> apps = NewApps(run, 12);
  for (const char* const node : {"T2", "T1", "L"}) {
    AskTogether(run, apps, node, [] {});
    if (!run.Alive()) return;
  }
  for (int i = 0; i < 8; ++i) apps.pop_back();
  run.Barrier();
  run.Ask(apps[0], "T2", "fewer");
}

// Requests with more answers than the connection of a client takes. All answers have reached the
// agent when this returns.
std::vector<lumo::Message> AskForTooMuch(Run& run, App& app, App& other, const std::string& node) {
  constexpr int kCount = 40;
  const int before = run.Database().Served();
  std::vector<lumo::Message> requests;
  for (int i = 0; i < kCount; ++i) requests.push_back(run.Send(app, node, "large"));
  test::WaitFor([&] { return run.Database().Served() >= before + kCount || !run.Alive(); });
  run.Ask(other, node, "behind them");
  return requests;
}

void SlowClient(Run& run) {
  App app = run.NewApp(), other = run.NewApp();
  for (const std::string& node : std::vector<std::string>{"T1", "K"}) {
    run.Ask(app, node, "first", node + " first");
    for (const lumo::Message& request : AskForTooMuch(run, app, other, node))
      run.Expect(app, request, "large", node + " large");
  }
}

// More requests than the connection of a node takes.
void SlowNode(Run& run) {
  App app = run.NewApp();
  run.Ask(app, "T1", "first");
  run.Ask(app, "L", "first");
  for (const char* const node : {"T1", "L"}) {
    run.Database().Pause();
    std::vector<lumo::Message> requests;
    const std::string text(8000, 'q');
    for (int i = 0; i < 16; ++i) requests.push_back(run.Send(app, node, text));
    run.Barrier();
    run.Database().Resume();
    for (const lumo::Message& request : requests)
      run.Expect(app, request, text, node + std::string(" slow"));
  }
}

void Breaks(Run& run) {
  App app = run.NewApp();
  AskAll(run, app);
  // A reader that is killed right after its write cannot tell that it has answered.
  const pid_t reader = run.Alive() ? run.Reader() : 0;
  if (reader > 0)
    test::WaitFor([&] { return test::ProcessStatus(reader, "State").rfind('S', 0) == 0; });
  run.Barrier();
  for (const std::string& node : kAllNodes) {
    run.Ask(app, node, "close", node + " close");
    run.Ask(app, node, "after", node + " after");
  }
}

void Stalled(Run& run) {
  App app = run.NewApp();
  if (!run.Alive()) return;
  const lumo::Message request = run.Send(app, "S", "x");
  for (int i = 0; i < 4; ++i) run.Tick();
  run.Expect(app, request, "x", "stalled");
}

// The link that its requests wait for takes a while: a client that sends many is not read
// meanwhile.
void Parked(Run& run) {
  App app = run.NewApp(), other = run.NewApp();
  if (!run.Alive()) return;
  std::vector<lumo::Message> requests;
  for (int i = 0; i < 32; ++i) requests.push_back(run.Send(app, "S", "x"));  // as many as may wait
  for (int i = 0; i < 40; ++i) run.Barrier();  // a pass of the loop serves one request of a client
  for (int i = 0; i < 4; ++i) run.Tick();
  for (const lumo::Message& request : requests) run.Expect(app, request, "x", "parked");
  run.Ask(other, "T2", "meanwhile");
}

// The default goes on to the next node until one serves.
void Circle(Run& run) {
  App app = run.NewApp();
  run.Ask(app, "", "hello");
  run.Ask(app, "", "close", "close");
  run.Ask(app, "", "after", "after");
  run.Ask(app, "", "close", "close again");
  run.Tick();
  run.Ask(app, "", "later", "later");
}

// What follows a first failure

// The probe finds a client's connection and then a link with a request under way; see SkipsOf.
void BadDescriptor(Run& run) {
  App app = run.NewApp();
  AskAll(run, app);
  if (!run.Alive()) return;
  run.Database().Pause();
  const lumo::Message request = run.Send(app, "T1", "under way");
  run.Barrier();
  run.Provoke(Call::epoll_wait, "WaitInEpoll", EBADF);  // from here on all is select's
  run.Barrier();
  run.Provoke(Call::select, "SelectAll", EBADF);
  run.Barrier();
  run.Database().Resume();
  run.Expect(app, request, "under way", "T1 under way");
  AskAll(run, app, "after");
}

// Requests that go out together, of which the first fails: the others are served anew.
void JointBreaks(Run& run) {
  std::deque<App> apps = NewApps(run, 4);
  AskTogether(run, apps, "T1", [&] { run.Provoke(Call::send, "SendNow", ECONNRESET); });
}

void NoDescriptors(Run& run) {
  App app = run.NewApp();
  run.Provoke(Call::accept, "AcceptNewClientConnection", EMFILE);
  App refused(run.Subject(), getpid());
  run.Tell("no descriptors", refused.Open() ? "accepted" : "refused");
  App other = run.NewApp();
  run.Ask(other, "T2", "hello");
}

void FullQueue(Run& run) {
  App app = run.NewApp();
  if (!run.Ask(app, "K", "hello")) return;
  run.Database().Kernel().FillQueue();
  const lumo::Message request = run.Send(app, "K", "waits");
  run.Barrier();
  run.Tick();  // it is tried again, in vain
  run.Database().Kernel().DrainQueue();
  run.Expect(app, request, "waits", "K full");
}

// The reader of the broken link is still there when the next one is to start.
void FormerReader(Run& run) {
  App app = run.NewApp();
  if (!run.Ask(app, "K", "hello")) return;
  const pid_t reader = run.Reader();
  run.Provoke(Call::msgsnd, "PutIntoQueue", EIDRM);
  run.Provoke(Call::kill, "TellToEnd", ESRCH);
  run.Ask(app, "K", "breaks");
  const lumo::Message request = run.Send(app, "K", "again");
  run.WaitForPath(Call::poll, "AwaitFormerReaders");
  if (reader > 0) kill(reader, SIGTERM);
  run.Expect(app, request, "again", "K again");
}

// The link breaks while its reader is writing to a client.
void BusyReader(Run& run) {
  App app = run.NewApp(), other = run.NewApp();
  if (!run.Ask(app, "K", "hello")) return;
  run.Provoke(Call::send, "SendNow", kDelay);
  const lumo::Message request = run.Send(app, "K", "slow");
  run.WaitForProvoked();
  run.Provoke(Call::msgsnd, "PutIntoQueue", EIDRM);
  run.Ask(other, "K", "breaks");
  run.Expect(app, request, "slow", "K slow");
}

// Answers that a client has not taken yet when the agent is told to stop.
void StopWithUnsent(Run& run) {
  App app = run.NewApp(), other = run.NewApp();
  if (!run.Ask(app, "T2", "first")) return;
  const std::vector<lumo::Message> requests = AskForTooMuch(run, app, other, "T2");
  if (!run.Alive()) return;
  kill(run.Subject().Pid(), SIGTERM);
  run.WaitForPath(Call::select, "FlushClientsAtExit");
  std::size_t answers = 0;
  std::string outcome = "all came";
  while (const auto frame = app.Receive(test::kPatience)) {
    ++answers;
    const auto answer = lumo::Decode(*frame);
    if (answer && answer->CodErr != 0)
      outcome = std::to_string(answer->CodErr) + "/" + std::to_string(answer->SysErr);
  }
  run.Tell("unsent", answers == requests.size() ? outcome : "some are lost");
}

using Variables = std::vector<std::pair<std::string, std::string>>;

// An agent in the foreground, all of whose nodes must serve in the end.
Scenario WithAllNodes(const char* name, void (*body)(Run&), const Variables& environment = {}) {
  return {name, {}, AllNodes, Scenario::Foreground, kAllNodes, body, false, -1, environment};
}

// A run that ends by itself.
Scenario ByItself(const char* name, const std::vector<std::string>& options,
                  std::string (*table)(const Nodes&), void (*body)(Run&),
                  bool besideAnother = false) {
  return {name, options, table, Scenario::ByItself, {}, body, besideAnother};
}

}  // namespace

const std::vector<Scenario>& Scenarios() {
  static const std::vector<Scenario> kScenarios = {
      WithAllNodes("serve", Serve),
      WithAllNodes("crowd", Crowd),
      {"start",
       {"-PIDFILE", "pid", "-CONNECTONLOAD", "-PCHECK", "-PKILL", "17"},
       AllNodes,
       Scenario::Daemon,
       kAllNodes,
       AskOnce},
      WithAllNodes("pieces", Pieces),
      WithAllNodes("management", Manage),
      WithAllNodes("death", Death),
      WithAllNodes("breaks", Breaks),
      WithAllNodes("slow node", SlowNode, {{"LUMO_LINK_BUFFER", "0"}}),
      WithAllNodes("slow client", SlowClient),
      {"stalled", {}, StalledAndTcp, Scenario::Foreground, {"T2"}, Stalled},
      {"circle",
       {"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "20", "-DEFAULT", "D1"},
       DeadOnesFirst,
       Scenario::Foreground,
       {"T2", "L", "K", ""},
       Circle},
      {"parked", {}, StalledAndTcp, Scenario::Foreground, {"T2"}, Parked},
      WithAllNodes("bad descriptor", BadDescriptor),
      WithAllNodes("joint breaks", JointBreaks),
      WithAllNodes("permissions", Permitted, {{"LUMO_MANAGERS", "0"}, {"LUMO_STRICT_TASKS", "1"}}),
      WithAllNodes("watched", Manage,
                   {{"LUMO_STATS", "1"},
                    {"NOTIFY_SOCKET", "@lumo-no-manager"},
                    {"LUMO_STRICT_TASKS", std::string(5000, 'x')}}),  // told in a long line
      WithAllNodes("no descriptors", NoDescriptors),
      WithAllNodes("full queue", FullQueue),
      WithAllNodes("busy reader", BusyReader),
      WithAllNodes("former reader", FormerReader),
      WithAllNodes("stop with unsent", StopWithUnsent),
      ByItself("ping TCP", {"-PING"}, OneTcp, ReportVerdict),
      ByItself("ping local", {"-PING"}, OneLocal, ReportVerdict),
      ByItself("ping IPC", {"-PING"}, OneIpc, ReportVerdict),
      ByItself("unload nobody", {"-U", "-NODAEMON"}, OneTcp, Nothing),
      ByItself("unload", {"-U", "-NODAEMON"}, OneTcp, LookForOther, true),
      {"closed stream", {}, OneTcp, Scenario::Foreground, {"T1"}, Nothing, false, 0},
      ByItself("second agent", {"-NODAEMON"}, OneTcp, LookForOther, true),
  };
  return kScenarios;
}

}  // namespace faults
