// lumo_tcp(8): exit statuses, as real runs end.
#include <gtest/gtest.h>

#include <string>

#include "tests/man/page.h"
#include "tests/support/agent.h"
#include "tests/support/node.h"

namespace test {
namespace {

// The page has a row with this exit status whose verdict the run has given.
void ExpectVerdict(Agent& agent) {
  agent.Option("-PING");
  const std::string status = std::to_string(agent.Run());
  bool listed = false, given = false;
  for (const Cells& row : Page("lumo_tcp.8").Rows("EXIT STATUS")) {
    listed |= row.at(0) == status;
    given |= row.at(0) == status && agent.Logged(0, "", row.at(2));
  }
  EXPECT_TRUE(listed) << status;
  EXPECT_TRUE(given) << agent.Log();
}

TEST(AgentPage, TheTestOfANodeThatRefusesConnections) {
  const Node node(Node::Start::Bound);
  Agent agent;
  agent.Nodetab(node.Line("SRV1"));
  ExpectVerdict(agent);
}

TEST(AgentPage, TheTestOfANodeWhoseProtocolIsNotCarried) {
  Agent agent;
  agent.Nodetab("OLD NPIPE unused\n");
  ExpectVerdict(agent);
}

TEST(AgentPage, TheTestOfALocalNodeThatIsNotThere) {
  Agent agent;
  agent.Nodetab("HERE LOCALS 20563\n").Option("-PING");
  EXPECT_EQ(agent.Run(), 6);
  EXPECT_TRUE(agent.Logged(0, "", "Test connection has failed. Status 4006:2")) << agent.Log();
}

TEST(AgentPage, NoNodeToTest) {
  Agent agent;
  agent.Nodetab("SRV1 NPIPE unused\n").Options({"-PING", "-DEFAULT", "OTHER"});
  EXPECT_EQ(agent.Run(), 0);
  EXPECT_TRUE(agent.Logged(0, "", "Node(s) is not found"));
}

TEST(AgentPage, AStopAndATableWithoutNodes) {
  Agent agent;
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(agent.Stop(), 0);
  Agent empty;
  empty.Nodetab("# nothing\n").Option("-NODAEMON");
  EXPECT_EQ(empty.Run(), 254);
}

TEST(AgentPage, AnExchangeThatIsTakenAndOneWithoutAnAgent) {
  Agent first;
  ASSERT_TRUE(first.Start());
  Agent second;
  second.Environment("TAVRIN_TMP", first.SocketFolder()).ExchangeId(first.ExchangeId());
  second.Option("-NODAEMON");
  EXPECT_EQ(second.Run(), 255);
  Agent unload;
  unload.Options({"-U", "-NODAEMON"});
  EXPECT_EQ(unload.Run(), 255);
}

TEST(AgentPage, TheStartingCommandReturns0InTheBackgroundWhateverHappens) {
  Agent empty;
  empty.Nodetab("# nothing\n");
  EXPECT_EQ(empty.Run(), 0);
  EXPECT_TRUE(empty.WaitForLog("Supported protocols are not found in the nodetab file. Exit"));
  Agent unload;
  unload.Option("-U");
  EXPECT_EQ(unload.Run(), 0);
}

}  // namespace
}  // namespace test
