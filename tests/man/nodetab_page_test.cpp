// nodetab(5): the agent reads its example and refuses the lines that it says are refused.
#include <gtest/gtest.h>

#include <string>

#include "tests/man/page.h"
#include "tests/process/manager.h"

namespace test {
namespace {

// What the agent tells about a node, as a row of the page.
Cells Row(Manager& manager, const std::string& name) {
  const lumo::NodeDescription node = manager.Describe(name);
  Cells row{node.Name, lumo::ProtocolText(node.ProtocolCode)};
  if (node.ProtocolCode != lumo::kProtocolTcpip) {
    row.resize(7, "-");
    return row;
  }
  row.push_back(node.Address);
  for (const unsigned number : {node.Port, unsigned{node.ReceiveTimeout},
                                unsigned{node.SendTimeout}, unsigned{node.ConnectTimeout}})
    row.push_back(std::to_string(number));
  return row;
}

using NodetabPage = ManagerTest;

TEST_F(NodetabPage, TheExampleGivesTheNodesThatItSays) {
  const Page page("nodetab.5");
  const auto tables = page.Literals("EXAMPLES");
  ASSERT_EQ(tables.size(), 1U);
  Manager manager = StartWithManager(tables[0]);
  const auto rows = page.Rows("EXAMPLES");
  ASSERT_FALSE(rows.empty());
  EXPECT_EQ(manager.Count(), static_cast<int>(rows.size()));
  EXPECT_EQ(manager.Default(), rows[0][0]);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(lumo::ItemText(manager.Ask(105, static_cast<int>(i)).Item), rows[i][0]);
    EXPECT_EQ(Row(manager, rows[i][0]), rows[i]);
  }
  EXPECT_EQ(agent_.Log(), "");
}

TEST_F(NodetabPage, TheLinesThatItSaysAreRefusedAreRefusedWithThoseMessages) {
  const auto rows = Page("nodetab.5").Rows("Lines that are refused");
  ASSERT_GE(rows.size(), 6U);
  std::string table = "GOOD LOCALS 1\n";
  for (const Cells& row : rows) table += row.at(0).substr(row[0].find(' ') + 1) + '\n';
  EXPECT_EQ(StartWithManager(table).Names(), "GOOD");
  for (const Cells& row : rows) EXPECT_EQ(agent_.CountLogged(0, "", row.at(1)), 1) << row[1];
}

TEST_F(NodetabPage, ANameInLowerCaseAndTheLineRightBeforeAreNotFoundToBeTaken) {
  Manager manager =
      StartWithManager("A LOCALS 1\nB LOCALS 2\nB LOCALS 3\na LOCALS 4\nA LOCALS 5\n");
  EXPECT_EQ(manager.Names(), "A B B A");
}

}  // namespace
}  // namespace test
