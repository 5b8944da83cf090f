// trace: logs of a real agent, and a long one.
#include <sys/stat.h>

#include <ctime>
#include <fstream>

#include "tests/lumoctl/control.h"
#include "tests/support/client.h"
#include "tests/support/node.h"
#include "tests/support/text.h"
#include "tools/lumoctl/trace_log.h"

namespace {

using lumo::ctl::TracedRequest;
using lumo::ctl::TraceReader;

class Trace : public test::ControlTest {
 protected:
  Trace() { agent_.Trace(); }
  // The requests that lumoctl finds, and its summary as the last.
  std::vector<Json> Found(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"trace", agent_.LogPath(), "--json"});
    const test::CtlOutcome outcome = Run(arguments);
    EXPECT_EQ(outcome.Status, 0) << outcome.Err;
    std::vector<Json> found;
    for (const std::string& line : test::Lines(outcome.Out)) found.push_back(Json::parse(line));
    return found;
  }
};

TEST_F(Trace, EachRequestIsALineWithItsWay) {
  test::Node node;
  Start(node.Line("ONE") + "BAD REZ\n");
  test::Client client(agent_);
  const lumo::Message first = client.Send("ONE", "a");  // waits for the link
  const auto got = node.ExpectFirstRequest();
  const lumo::Message second = client.Send("ONE", "b");  // goes at once
  const auto gotToo = node.ExpectRequest();
  node.Answer(got, "one");
  client.ExpectAnswer(first);
  node.Answer(gotToo, "two");
  client.ExpectAnswer(second);
  const lumo::Message refused = client.Send("BAD", "c");
  client.ExpectError(refused, 4066, 0);
  const lumo::Message unknown = client.Send("NONE", "d");
  client.ExpectError(unknown, 4050, 0);
  const lumo::Message lost = client.Send("ONE", "e");
  ASSERT_TRUE(node.ReadRequest());
  node.Close();
  client.ExpectError(lost, 4009, 0);
  EXPECT_EQ(agent_.Stop(), 0);

  const std::vector<Json> found = Found({"--pid", std::to_string(client.TaskName())});
  std::vector<std::string> ways;
  for (std::size_t i = 0; i + 1 < found.size(); ++i)
    if (found[i].at("path") != "management") ways.push_back(found[i].at("path"));
  EXPECT_EQ(ways, (std::vector<std::string>{"waited, sent", "sent", "agent 4066", "agent 4050",
                                            "sent, agent 4009"}));
  const Json& one = found[0];
  EXPECT_EQ(one.at("pid"), client.TaskName());
  EXPECT_EQ(one.at("tag"), first.AstInd());
  EXPECT_EQ(one.at("node"), "ONE");
  EXPECT_EQ(one.at("code"), 0);
  EXPECT_GE(one.at("sent").get<double>(), one.at("read").get<double>());
  EXPECT_GE(one.at("answered").get<double>(), one.at("sent").get<double>());
  const Json& summary = found.back().at("summary");
  EXPECT_EQ(summary.at("requests"), summary.at("answered"));

  EXPECT_EQ(Found({"--tag", std::to_string(second.AstInd())}).size(), 2U);
  EXPECT_EQ(Found({"--node", "bad"}).size(), 2U);
  EXPECT_EQ(Found({"--pid", "1"}).size(), 1U);
  EXPECT_EQ(Found({"--slowest", "2"}).size(), 3U);
  test::ExpectHolds(Run({"trace", agent_.LogPath()}).Out, {"sent, agent 4009", "p99"});
}

TEST_F(Trace, ReadsAPipeAsItComes) {
  test::EchoNode node;
  Start(node.Line("ONE"));
  const std::string pipe = agent_.Folder() / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  test::Program program(LUMOCTL_PATH, {"trace", pipe, "--live", "--json"});
  std::ofstream log(pipe);
  std::size_t copied = 0;
  const auto copy = [&] {  // what the agent has written meanwhile
    const std::string text = agent_.Log();
    log << text.substr(copied) << std::flush;
    copied = text.size();
  };
  test::Client client(agent_);
  for (const char* tag : {"\"tag\":1,", "\"tag\":2,"}) {
    client.Ask("ONE", "a");
    copy();
    EXPECT_TRUE(program.WaitForStdout(tag)) << program.Stdout();
  }
  log.close();
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_NE(program.Stdout().find("summary"), std::string::npos);
}

double ProcessorSeconds() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

// Processor time, which others on the machine do not take away; 0.2 s without sanitizers.
TEST_F(Trace, AHundredMegabytesTakeLessThanFiveSeconds) {
  test::EchoNode node;
  Start(node.Line("ONE"));
  test::Client client(agent_);
  for (int i = 0; i < 50; ++i) client.Ask("ONE", "a");
  EXPECT_EQ(agent_.Stop(), 0);
  const std::string log = agent_.Log();
  const std::size_t copies = 100000000 / log.size() + 1;
  const std::vector<std::string> lines = test::Lines(log);
  std::size_t done = 0;
  TraceReader reader([&](const TracedRequest& request) { done += request.Answered ? 1 : 0; });
  const double start = ProcessorSeconds();
  for (std::size_t copy = 0; copy < copies; ++copy)
    for (const std::string& line : lines) reader.Line(line, 0);
  EXPECT_LT(ProcessorSeconds() - start, 5);
  EXPECT_GE(done, copies * 50);
}

TEST(TraceLog, LinesOfAJournalAreReadToo) {
  std::vector<TracedRequest> done;
  TraceReader reader([&](const TracedRequest& request) { done.push_back(request); });
  for (const char* text :
       {"'HandleMessageFromClientQueue' Call from dbc:1 (Socket = 6 )",
        " Receive message from client", "    TaskName=7", "    CBL.Command=DBCA",
        "    CBL.Node=", "    CBL.PrzExe=0x0", " Need put the message to client", "    TaskName=7",
        "    CBL.CodErr=0", "    CBL.PrzExe=0x0", "'HandleMessageFromClientQueue' Leave SUCCESS"})
    reader.Line(
        std::string("Nov 22 12:00:00 host lumo_tcp[9]: lumo_tcp:[15]    clntxch:   1 100|") + text,
        0);
  reader.Line("no line of an agent", 0);
  ASSERT_EQ(done.size(), 1U);
  EXPECT_EQ(done[0].Path(), "management");
  EXPECT_EQ(done[0].Socket, 6);
  EXPECT_EQ(done[0].Read, 100);
}

TEST(TraceLog, RequestWithoutAnAnswerIsToldAtTheEnd) {
  std::vector<TracedRequest> done;
  TraceReader reader([&](const TracedRequest& request) { done.push_back(request); });
  const auto line = [&](const char* text) {
    reader.Line(std::string("lumo_tcp:[15]    clntxch:   1 100|") + text, 0);
  };
  line("'HandleMessageFromClientQueue' Call from dbc:1 (Socket = 6 )");
  line(" Receive message from client");
  line("    TaskName=7");
  line("    CBL.PrzExe=0x0");
  EXPECT_TRUE(done.empty());
  reader.Finish();
  ASSERT_EQ(done.size(), 1U);
  EXPECT_EQ(done[0].Path(), "no answer");
}

}  // namespace
