// lumo_tcp(8): exit statuses, as real runs end.
#include <gtest/gtest.h>

#include <string>

#include "tests/man/page.h"
#include "tests/support/agent_test.h"
#include "tests/support/node.h"

namespace test {
namespace {

class AgentPage : public AgentTest {
 protected:
  // The page has a row with this exit status whose verdict the test of the table has given.
  void ExpectVerdict(const std::string& nodetab) {
    agent_.Nodetab(nodetab).Option("-PING");
    const std::string status = std::to_string(agent_.Run());
    bool listed = false, given = false;
    for (const Cells& row : Page("lumo_tcp.8").Rows("EXIT STATUS")) {
      listed |= row.at(0) == status;
      given |= row.at(0) == status && agent_.Logged(0, "", row.at(2));
    }
    EXPECT_TRUE(listed) << status;
    EXPECT_TRUE(given) << agent_.Log();
  }
};

TEST_F(AgentPage, TheTestOfANodeThatRefusesConnections) {
  const Node node(Node::Start::Bound);
  ExpectVerdict(node.Line("SRV1"));
}

TEST_F(AgentPage, TheTestOfANodeWhoseProtocolIsNotCarried) { ExpectVerdict("OLD NPIPE unused\n"); }

TEST_F(AgentPage, TheTestOfALocalNodeThatIsNotThere) {
  agent_.Nodetab("HERE LOCALS 20563\n").Option("-PING");
  EXPECT_EQ(agent_.Run(), 6);
  EXPECT_TRUE(agent_.Logged(0, "", "Test connection has failed. Status 4006:2")) << agent_.Log();
}

TEST_F(AgentPage, NoNodeToTest) {
  agent_.Nodetab("SRV1 NPIPE unused\n").Options({"-PING", "-DEFAULT", "OTHER"});
  EXPECT_EQ(agent_.Run(), 0);
  EXPECT_TRUE(agent_.Logged(0, "", "Node(s) is not found"));
}

TEST_F(AgentPage, AStopAndATableWithoutNodes) {
  StartAgent();
  EXPECT_EQ(agent_.Stop(), 0);
  Agent empty;
  empty.Nodetab("# nothing\n").Option("-NODAEMON");
  EXPECT_EQ(empty.Run(), 254);
}

TEST_F(AgentPage, AnExchangeThatIsTakenAndOneWithoutAnAgent) {
  StartAgent();
  Agent second;
  second.Environment("TAVRIN_TMP", agent_.SocketFolder()).ExchangeId(agent_.ExchangeId());
  second.Option("-NODAEMON");
  EXPECT_EQ(second.Run(), 255);
  Agent unload;
  unload.Options({"-U", "-NODAEMON"});
  EXPECT_EQ(unload.Run(), 255);
}

TEST_F(AgentPage, TheStartingCommandReturns0InTheBackgroundWhateverHappens) {
  agent_.Nodetab("# nothing\n");
  EXPECT_EQ(agent_.Run(), 0);
  EXPECT_TRUE(agent_.WaitForLog("Supported protocols are not found in the nodetab file. Exit"));
  Agent unload;
  unload.Option("-U");
  EXPECT_EQ(unload.Run(), 0);
}

}  // namespace
}  // namespace test
