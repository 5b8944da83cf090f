// stats, clients, top, export: over a statistics page that the test writes.
#include <httplib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "tests/lumoctl/control.h"
#include "tests/stats/page.h"
#include "tests/support/text.h"

namespace {

// A page with two nodes and two clients. The agent that it tells of is the test itself.
class WatchedPage : public test::StatsPageTest, protected test::ControlProgram {
 protected:
  using ControlProgram::Run;

  void SetUp() override {
    Start();
    one_ = NewLinkStats("ONE", "TCPIP", "127.0.0.1 1060");
    two_ = NewLinkStats("TWO", "TCPIP", "127.0.0.1 1061");
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair_), 0);
    StatsPass();
    StatsDefaultLink(one_);
    StatsConnectTried(one_);
    StatsLinkState(one_, LUMO_STATS_CONNECTED);
    StatsConnectTried(two_);
    StatsConnectFailed(two_, 4006, ECONNREFUSED);
    StatsClientOpened(pair_[0], 1);
    StatsClientOpened(pair_[1], 2);
    StatsRequest(pair_[0], 4242, 108, false);
    Exchange(98, 500);
    Exchange(2, 20000);
    StatsRequest(pair_[1], 4343, 108, false);
    StatsAgentAnswer(4006);
    StatsAnswer(pair_[1], {4006, 108, 0}, {0, 0});
    StatsTellCounts(one_, {3, 2}, -1, {});
    StatsClientParked(pair_[0], true, 1);
    StatsClientUnsent(pair_[0], 5000);
    StatsEndPass({3, 2});
  }
  ~WatchedPage() override {
    close(pair_[0]);
    close(pair_[1]);
  }
  // Requests of node ONE, answered after so many microseconds.
  void Exchange(int count, std::int64_t microseconds) {
    for (int i = 0; i < count; ++i) {
      StatsSent(one_, 108, {1, 0}, pair_[0], {1, 0});
      StatsNodeAnswer(one_, 120, StatsClock() - microseconds, {0, 0});
    }
  }
  std::map<std::string, std::string> Environment() const override {
    return {{"TAVRIN_TMP", folder_.Path()}, {"TERM", "xterm"}};
  }
  std::vector<std::string> Full(std::vector<std::string> arguments) const override {
    arguments.insert(arguments.begin(), {"-M", "4711"});
    return arguments;
  }

  int one_ = -1, two_ = -1, pair_[2] = {-1, -1};
};

class Stats : public WatchedPage {};

TEST_F(Stats, TellsOfAgentAndNodes) {
  const Json value = Ask({"stats"});
  const Json& agent = value.at("agent");
  EXPECT_EQ(agent.at("pid"), getpid());
  EXPECT_EQ(agent.at("exchange_id"), 4711);
  EXPECT_EQ(agent.at("alive"), true);
  EXPECT_EQ(agent.at("stuck"), false);
  EXPECT_EQ(agent.at("default"), "ONE");
  EXPECT_EQ(agent.at("clients"), 2);
  EXPECT_EQ(agent.at("parked"), 1);
  EXPECT_EQ(agent.at("requests"), 2);
  EXPECT_EQ(agent.at("node_answers"), 100);
  EXPECT_EQ(agent.at("agent_answers_by_code"), (Json{{"4006", 1}}));
  EXPECT_EQ(agent.at("closed").at("hung up"), 0);
  ASSERT_EQ(value.at("nodes").size(), 2U);
  const Json& one = value.at("nodes")[0];
  EXPECT_EQ(one.at("node"), "ONE");
  EXPECT_EQ(one.at("state"), "up");
  EXPECT_EQ(one.at("default"), true);
  EXPECT_EQ(one.at("requests"), 100);
  EXPECT_EQ(one.at("waiting"), 2);
  EXPECT_NEAR(one.at("latency").at("p50_us").get<double>(), 500, 16);
  EXPECT_NEAR(one.at("latency").at("p99_us").get<double>(), 20000, 640);
  EXPECT_EQ(one.at("latency").at("buckets").size(), 2U);
  EXPECT_TRUE(one.at("last_failure").is_null());
  const Json& two = value.at("nodes")[1];
  EXPECT_EQ(two.at("state"), "down");
  EXPECT_EQ(two.at("last_failure").at("code"), 4006);
  EXPECT_EQ(two.at("last_failure").at("errno"), ECONNREFUSED);
}

TEST_F(Stats, IsTextForPeople) {
  test::ExpectHolds(Run({"stats"}).Out,
                    {"clients   2 of ", "answers   100 of nodes, 1 of the agent (1 of 4006)",
                     "*  ONE   up", "   TWO   down"});
}

TEST_F(Stats, TellsOfOneNode) {
  EXPECT_EQ(Ask({"stats", "two"}).at("connects_failed"), 1);
  EXPECT_EQ(Ask({"stats", "default"}).at("node"), "ONE");
  test::ExpectHolds(Run({"stats", "TWO"}).Out,
                    {"node      TWO, TCPIP 127.0.0.1 1061\n", "with 4006, errno 111"});
  EXPECT_EQ(Run({"stats", "NONE"}).Status, 1);
}

TEST_F(Stats, ListsTheClients) {
  const Json clients = Ask({"clients"}).at("clients");
  ASSERT_EQ(clients.size(), 2U);
  EXPECT_EQ(clients[0].at("descriptor"), pair_[0]);
  EXPECT_EQ(clients[0].at("named_pid"), 4242);
  EXPECT_EQ(clients[0].at("system_pid"), getpid());
  EXPECT_EQ(clients[0].at("parked"), true);
  EXPECT_EQ(clients[0].at("unsent"), 5000);
  EXPECT_EQ(clients[1].at("last_code"), 4006);
  const std::string text = Run({"clients"}).Out;
  EXPECT_EQ(test::Lines(text).size(), 3U) << text;
  EXPECT_NE(text.find("parked"), std::string::npos);
}

TEST_F(Stats, WithoutAPageSaysHowToHaveOne) {
  End();
  ExpectError({"stats"}, 3, "LUMO_STATS=1");
}

TEST_F(Stats, StuckAgentIsToldFromOneThatHasEnded) {
  g_Stats.Clock -= 60'000'000;
  lumo_stats_agent* const row =
      reinterpret_cast<lumo_stats_agent*>(g_Stats.Base + sizeof(lumo_stats_header));
  row->last_pass = g_Stats.Clock;
  ExpectError({"stats"}, 0, "stuck or stopped");
  EXPECT_EQ(Ask({"stats"}).at("agent").at("stuck"), true);
  std::filesystem::copy_file(Path(), Path() + ".kept");
  const pid_t child = fork();
  if (child == 0) {  // a page of a process that has gone
    ForgetStats();
    Begin();
    kill(getpid(), SIGKILL);
  }
  waitpid(child, nullptr, 0);
  ExpectError({"stats"}, 3, "has ended");
}

TEST_F(Stats, ProcessThatDoesNotKnowTheSignalOfALogLevelGetsNone) {
  ExpectError({"log", "15"}, 1, "does not take the signal");  // it would end the test
  EXPECT_EQ(Run({"log", "16"}).Status, 2);
  EXPECT_EQ(Run({"log"}).Out, "0\n");
}

class Top : public WatchedPage {
 protected:
  // A real terminal, as far as a program can tell.
  class Terminal {
   public:
    Terminal(const std::string& folder, const std::string& command)
        : socket_(folder + "/terminal") {
      Tmux({"-f", "/dev/null", "new-session", "-d", "-x", "100", "-y", "30", command});
    }
    ~Terminal() { Tmux({"kill-server"}); }
    Terminal(const Terminal&) = delete;
    std::string Screen() const { return Tmux({"capture-pane", "-p"}); }
    void Press(const std::string& key) const { Tmux({"send-keys", key}); }
    bool WaitFor(const std::string& text) const {
      return test::WaitFor([&] { return Screen().find(text) != std::string::npos; });
    }
    bool Ended() const {
      return test::WaitFor([&] { return Tmux({"list-sessions"}).empty(); });
    }

   private:
    std::string Tmux(std::vector<std::string> arguments) const {
      arguments.insert(arguments.begin(), {"-S", socket_});
      test::Program tmux("/usr/bin/tmux", arguments, {{"TERM", "xterm"}});
      tmux.Wait();
      return tmux.Stdout();
    }
    std::string socket_;
  };
  std::string Command() const {
    return "TAVRIN_TMP=" + folder_.Path().string() +
           " " LUMOCTL_PATH " -M 4711 --color never top --delay 0.1";
  }
  // The order in which the nodes stand.
  static std::string Order(const std::string& screen) {
    return screen.find("ONE ") < screen.find("TWO ") ? "ONE TWO" : "TWO ONE";
  }
};

TEST_F(Top, ShowsSortsAndQuitsInATerminal) {
  const Terminal terminal(folder_.Path(), Command());
  ASSERT_TRUE(terminal.WaitFor("FD       PID")) << terminal.Screen();
  test::ExpectHolds(terminal.Screen(),
                    {"lumo_tcp, exchange id 4711, process " + std::to_string(getpid()),
                     "clients 2 of", "now by requests", "* ONE      up", "4242"});
  StatsTellCounts(two_, {9, 0}, -1, {});
  terminal.Press("f");
  ASSERT_TRUE(terminal.WaitFor("now by in flight"));
  EXPECT_TRUE(test::WaitFor([&] { return Order(terminal.Screen()) == "TWO ONE"; }))
      << terminal.Screen();
  terminal.Press("n");
  ASSERT_TRUE(terminal.WaitFor("now by name"));
  EXPECT_TRUE(test::WaitFor([&] { return Order(terminal.Screen()) == "ONE TWO"; }));
  for (const auto& [key, order] :
       {std::pair{"l", "latency"}, {"w", "waiting"}, {"r", "requests"}}) {
    terminal.Press(key);
    EXPECT_TRUE(terminal.WaitFor(std::string("now by ") + order)) << terminal.Screen();
  }
  End();  // the agent goes; the screen stays
  EXPECT_TRUE(terminal.WaitFor("there is no statistics page")) << terminal.Screen();
  terminal.Press("q");
  EXPECT_TRUE(terminal.Ended());
}

TEST_F(Top, RatesAreOfTheTimeBetweenTwoReadings) {
  test::Program program(LUMOCTL_PATH, Full({"top", "--json", "--delay", "0.2", "--count", "3"}),
                        Environment());
  ASSERT_TRUE(program.WaitForStdout("\n"));
  Exchange(50, 1000);
  StatsRequest(pair_[1], 4343, 108, false);
  StatsEndPass({3, 2});
  ASSERT_EQ(program.Wait(), 0) << program.Stderr();
  double answers = 0, requests = 0;
  bool latencySeen = false;
  int readings = 0;
  for (const std::string& line : test::Lines(program.Stdout())) {
    const Json value = Json::parse(line);
    ++readings;
    const double seconds = value.at("seconds");
    answers += value.at("answers_per_second").get<double>() * seconds;
    requests += value.at("requests_per_second").get<double>() * seconds;
    const Json& node = value.at("nodes").at(0);
    if (node.at("answers_per_second") != 0.0) {
      EXPECT_EQ(node.at("node"), "ONE");
      EXPECT_NEAR(node.at("p99_us").get<double>(), 1000, 32);  // of these answers alone
      EXPECT_EQ(value.at("clients").at(0).at("pid"), 4343);    // the busiest
      latencySeen = true;
    }
  }
  EXPECT_EQ(readings, 3);
  EXPECT_NEAR(answers, 50, 0.01);
  EXPECT_NEAR(requests, 1, 0.01);
  EXPECT_TRUE(latencySeen);
}

TEST_F(Top, WithoutATerminalIsRefused) { ExpectError({"top"}, 2, "--json"); }

class ExportPage : public WatchedPage {
 protected:
  static double Value(const std::string& text, const std::string& sample) {
    const std::size_t at = text.find('\n' + sample + ' ');
    EXPECT_NE(at, std::string::npos) << sample << '\n' << text;
    return at == std::string::npos ? -1 : std::stod(text.substr(at + sample.size() + 2));
  }
};

TEST_F(ExportPage, HoldsAllOfThePageAndAsksNobody) {
  const test::CtlOutcome outcome = Run({"export", "--no-ping"});
  EXPECT_EQ(outcome.Status, 0);
  EXPECT_EQ(outcome.Err, "");  // there is no socket to ask at
  const std::string& text = outcome.Out;
  EXPECT_EQ(Value(text, "lumo_up{exchange=\"4711\"}"), 1);
  EXPECT_EQ(Value(text, "lumo_clients{exchange=\"4711\"}"), 2);
  EXPECT_EQ(Value(text, "lumo_requests_total{exchange=\"4711\"}"), 2);
  EXPECT_EQ(Value(text, "lumo_requests_waiting{exchange=\"4711\"}"), 2);
  EXPECT_EQ(Value(text, "lumo_agent_answers_code_4006_total{exchange=\"4711\"}"), 1);
  EXPECT_EQ(Value(text, "lumo_clients_unsent_bytes{exchange=\"4711\"}"), 5000);
  EXPECT_EQ(Value(text, "lumo_node_connected{exchange=\"4711\",node=\"ONE\"}"), 1);
  EXPECT_EQ(Value(text, "lumo_node_default{exchange=\"4711\",node=\"TWO\"}"), 0);
  EXPECT_EQ(Value(text, "lumo_node_connects_failed_total{exchange=\"4711\",node=\"TWO\"}"), 1);
}

TEST_F(ExportPage, HistogramsAreHistograms) {
  const std::string text = Run({"export", "--no-ping"}).Out;
  EXPECT_NE(text.find("# TYPE lumo_node_latency_seconds histogram\n"), std::string::npos);
  const std::string labels = "{exchange=\"4711\",node=\"ONE\"";
  double last = 0, limit = 0;
  int limits = 0;
  for (const std::string& line : test::Lines(text)) {
    const std::string begin = "lumo_node_latency_seconds_bucket" + labels + ",le=\"";
    if (line.rfind(begin, 0) != 0) continue;
    const double value = std::stod(line.substr(line.rfind(' ') + 1));
    const std::string le = line.substr(begin.size(), line.find('"', begin.size()) - begin.size());
    EXPECT_GE(value, last) << line;
    last = value;
    ++limits;
    if (le == "+Inf") continue;
    EXPECT_GT(std::stod(le), limit) << line;
    limit = std::stod(le);
    if (limit < 0.0004) {
      EXPECT_EQ(value, 0) << line;
    }
    if (limit > 0.0006 && limit < 0.018) {
      EXPECT_EQ(value, 98) << line;
    }
    if (limit > 0.022) {
      EXPECT_EQ(value, 100) << line;
    }
  }
  EXPECT_EQ(limits, 45);
  EXPECT_EQ(last, 100);
  EXPECT_EQ(Value(text, "lumo_node_latency_seconds_count" + labels + "}"), 100);
  EXPECT_NEAR(Value(text, "lumo_node_latency_seconds_sum" + labels + "}"),
              (98 * 500 + 2 * 20000) / 1e6, 1e-9);
}

TEST_F(ExportPage, LabelsAreTheExchangeIdAndTheNodesName) {
  NewLinkStats("A\"\\\xC3\n", "TCPIP", "secret.example.org 1");
  const std::string text = Run({"export", "--no-ping"}).Out;
  EXPECT_EQ(text.find("secret"), std::string::npos);
  EXPECT_NE(text.find("node=\"A\\\"\\\\??\"}"), std::string::npos) << text;
  for (const std::string& line : test::Lines(text)) {
    if (line[0] == '#') continue;
    EXPECT_EQ(line.rfind("lumo_", 0), 0U) << line;
    EXPECT_NE(line.find("{exchange=\"4711\""), std::string::npos) << line;
    for (const char* label : {"index", "verdict", "address", "reason", "code="})
      EXPECT_EQ(line.find(std::string(",") + label), std::string::npos) << line;
  }
}

TEST_F(ExportPage, EndpointAnswersAgainAndAgain) {
  test::Program program(LUMOCTL_PATH, Full({"export", "--listen", "127.0.0.1:0"}), Environment());
  ASSERT_TRUE(program.WaitForStdout("\n")) << program.Stderr();
  const std::string out = program.Stdout();
  ASSERT_EQ(out.rfind("listening on 127.0.0.1:", 0), 0U) << out;
  httplib::Client client("127.0.0.1", std::stoi(out.substr(out.rfind(':') + 1)));
  auto answer = client.Get("/metrics");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 200);
  EXPECT_EQ(answer->get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_EQ(Value(answer->body, "lumo_node_requests_total{exchange=\"4711\",node=\"ONE\"}"), 100);
  Exchange(1, 10);
  answer = client.Get("/metrics");
  ASSERT_TRUE(answer);
  EXPECT_EQ(Value(answer->body, "lumo_node_requests_total{exchange=\"4711\",node=\"ONE\"}"), 101);
  EXPECT_EQ(client.Get("/other")->status, 404);
  End();
  answer = client.Get("/metrics");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->status, 200);
  EXPECT_EQ(answer->body.substr(answer->body.rfind("lumo_up")), "lumo_up{exchange=\"4711\"} 0\n");
  EXPECT_EQ(program.Stop(), -SIGTERM);
}

TEST_F(ExportPage, PlaceThatIsNoneIsRefused) {
  for (const char* place : {"9560", "127.0.0.1:", "127.0.0.1:x", ":9560", "127.0.0.1:70000"})
    EXPECT_EQ(Run({"export", "--listen", place}).Status, 2) << place;
  EXPECT_EQ(Run({"export", "--listen", "192.0.2.1:9560"}).Status, 7);
}

}  // namespace
