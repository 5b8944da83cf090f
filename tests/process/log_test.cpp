// The log: its threshold, the form of its lines, the call trace.
#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>

#include "tests/support/agent_test.h"
#include "tests/support/node.h"
#include "tests/support/text.h"

namespace test {
namespace {

using LogLevel = AgentTest;
using CallTrace = AgentTest;
using Log = AgentTest;

// Gives the agent something to say at levels 0, 1, 2 and 15: a bad node, a connection, a client
// that hangs up, and the trace.
void MakeItTalk(Agent& agent, Node& node) {
  agent.Nodetab("BAD TCPIP\n" + node.Line("A"));
  ASSERT_TRUE(agent.Start());
  {
    Client client(agent);
    ExpectFirstExchange(client, client.Send("A"), node);
  }
  agent.Barrier();
  EXPECT_EQ(agent.Stop(), 0);
}

constexpr char kResultLine[] =
    "lumo_tcp:Initialization of link 'BAD' for protocol 'TCPIP' failed\n";

TEST_F(LogLevel, UnsetWritesResultsOnly) {
  Node node;
  agent_.Without("DBC_LOG");
  MakeItTalk(agent_, node);
  EXPECT_EQ(agent_.Log(), std::string("lumo_tcp:Tcp address is empty\n") + kResultLine +
                              "lumo_tcp:Node name 'BAD' skipped\n");
}

TEST_F(LogLevel, OneAddsChangesOfTheDefaultWithTheShortPrefix) {
  Node node;
  agent_.LogLevel("1");
  MakeItTalk(agent_, node);
  EXPECT_NE(agent_.Log().find("\nlumo_tcp:Link A connected\n"), std::string::npos) << agent_.Log();
  EXPECT_EQ(agent_.Log().find('|'), std::string::npos) << "no line has a header";
}

TEST_F(LogLevel, TwoAddsErrorsWithTheFullHeader) {
  const std::time_t before = std::time(nullptr);
  Node node;
  agent_.LogLevel("2");
  MakeItTalk(agent_, node);
  const std::time_t after = std::time(nullptr);
  const char form[] = R"(lumo_tcp:\[ 2\]    clntxch:[ 0-9]{4} ([0-9]{10})\|(.*))";
  int count = 0;
  for (const std::string& line : Lines(agent_.Log())) {
    const std::vector<std::string> parts = Match(line, form);
    if (parts.empty()) continue;
    ++count;
    EXPECT_EQ(parts[2], "Client message reading failed");
    EXPECT_GE(std::stol(parts[1]), before);
    EXPECT_LE(std::stol(parts[1]), after);
  }
  EXPECT_EQ(count, 1) << agent_.Log();
  EXPECT_EQ(agent_.Log().find("[15]"), std::string::npos);
}

TEST_F(LogLevel, FourteenLeavesTheTraceOut) {
  Node node;
  agent_.LogLevel("14");
  MakeItTalk(agent_, node);
  EXPECT_EQ(agent_.Log().find("[15]"), std::string::npos) << agent_.Log();
}

class TraceLevel : public AgentTest, public testing::WithParamInterface<const char*> {};

TEST_P(TraceLevel, WritesTheWholeCallTrace) {
  agent_.LogLevel(GetParam());
  StartAgent();
  EXPECT_EQ(agent_.Stop(), 0);
  const char form[] = R"(lumo_tcp:\[15\]       init:[ 0-9]{4} [0-9]{10}\|)"
                      R"('DbcInitGlobalInternal' Call from dbc:[0-9]+ )";
  int count = 0;
  for (const std::string& line : Lines(agent_.Log())) count += Matches(line, form);
  EXPECT_EQ(count, 1) << agent_.Log();
}

INSTANTIATE_TEST_SUITE_P(Values, TraceLevel,
                         testing::Values("15", "0xf", "017", "16", "255", "-1", "271", "15x"));

class SilentLevel : public AgentTest, public testing::WithParamInterface<const char*> {};

TEST_P(SilentLevel, WritesResultsOnly) {
  Node node;
  agent_.LogLevel(GetParam());
  MakeItTalk(agent_, node);
  EXPECT_EQ(Lines(agent_.Log()).size(), 3u) << agent_.Log();
}

INSTANTIATE_TEST_SUITE_P(Values, SilentLevel, testing::Values("", "0", "256", "word", "512"));

TEST(LogLine, OfLevelZeroHasTheShortPrefixInATraceToo) {
  Node node;
  Agent agent;
  agent.Trace();
  MakeItTalk(agent, node);
  EXPECT_NE(agent.Log().find(std::string("\n") + kResultLine), std::string::npos);
}

TEST(LogLine, AlwaysHasOneOfTheTwoForms) {
  Node node;
  Agent agent;
  agent.Trace();
  MakeItTalk(agent, node);
  // Some texts have line ends of their own: what follows is the rest of such a text.
  const char header[] =
      R"(lumo_tcp:\[[ 0-9]{2}\] (       dbc|      init|   clntxch|  primitiv|      link|  lumo_tcp)"
      R"(|     lsock|      lipc|     dummy|  protload|      dbca|      ping|   ssl_dbc):)"
      R"([ 0-9]{4} [0-9]{10}\|.*)";
  int whole = 0;
  for (const std::string& line : Lines(agent.Log())) {
    if (line.rfind("lumo_tcp:[", 0) != 0) continue;
    ++whole;
    EXPECT_TRUE(Matches(line, header)) << line;
  }
  EXPECT_GT(whole, 100);
}

TEST(LogLine, WithALineEndOfItsOwnIsFollowedByAnEmptyOne) {
  Agent first, second;
  ASSERT_TRUE(first.Start());
  second.ExchangeId(first.ExchangeId()).Environment("TAVRIN_TMP", first.SocketFolder());
  EXPECT_EQ(second.Option("-NODAEMON").Run(), 255);
  EXPECT_NE(second.Log().find("is already running\n\nlumo_tcp:"), std::string::npos);
}

// Entries and exits must pair up like brackets; handlers write lines of their own in between.
TEST_F(CallTrace, PairsEveryEntryWithItsExit) {
  Node node;
  agent_.Trace();
  MakeItTalk(agent_, node);
  const char entry[] = R"('(\w+)' Call from \w+:[0-9]+ .*)";
  const char leave[] = R"('(\w+)' Leave (.*))";
  std::vector<std::string> open;
  int entries = 0;
  for (const LogLine& line : agent_.LogLines()) {
    std::vector<std::string> parts = Match(line.Text, entry);
    if (!parts.empty()) {
      open.push_back(parts[1]);
      ++entries;
    } else if (parts = Match(line.Text, leave); !parts.empty()) {
      ASSERT_FALSE(open.empty()) << line.Text;
      EXPECT_EQ(open.back(), parts[1]);
      EXPECT_FALSE(parts[2].empty()) << line.Text;
      open.pop_back();
    }
  }
  EXPECT_GT(entries, 30);
  EXPECT_TRUE(open.empty()) << open.back() << " is never left";
}

TEST_F(CallTrace, ShowsTheDetailOfAnEntry) {
  agent_.Trace();
  StartAgent();
  bool shown = false;
  for (const LogLine& line : agent_.LogLines())
    shown |= Matches(line.Text, R"('\w+' Call from \w+:[0-9]+ Protocol name = 'REZ')");
  EXPECT_TRUE(shown);
}

class CodesUnderTrace : public AgentTest, public testing::WithParamInterface<const char*> {};

TEST_P(CodesUnderTrace, AreTheSameAsWithoutIt) {
  Node node(Node::Start::Bound);
  agent_.LogLevel(GetParam());
  Client client = StartWithClient(node.Line("A") + "B REZ\n");
  client.ExpectError(client.Send("A"), 4006, ECONNREFUSED);
  client.ExpectError(client.Send("B"), 4066, 0);
  client.ExpectError(client.Send("NONE"), 4050, 0);
}

INSTANTIATE_TEST_SUITE_P(Levels, CodesUnderTrace, testing::Values("0", "3", "15"));

// With nobody to read the log its writes fail; the trace must not carry that error into an answer.
TEST_F(Log, ThatCannotBeWrittenChangesNoCode) {
  Node node(Node::Start::Bound);
  agent_.Trace().ClosedDescriptor(2);
  Client client = StartWithClient(node.Line("A") + "B REZ\n");
  client.ExpectError(client.Send("A"), 4006, ECONNREFUSED);
  client.ExpectError(client.Send("B"), 4066, 0);
}

}  // namespace
}  // namespace test
