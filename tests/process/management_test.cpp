// The management commands: their numbers, arguments, results and items, and the node table lock.
// What they do to nodes in use stands in node_redefinition_test.cpp and node_deletion_test.cpp.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "tests/process/manager.h"
#include "tests/process/reconnection.h"
#include "tests/support/node.h"
#include "tests/support/text.h"

namespace test {
namespace {

using ManagementCommands = ManagerTest;
using NodetabLock = ManagerTest;
using ManagementTrace = ManagerTest;

Outcome Name(std::string name) {
  name.resize(8, ' ');
  return {1, name};
}

std::string Description(std::uint32_t code, const std::string& name,
                        const std::string& address = {}, std::uint32_t port = 0,
                        std::uint16_t receive = 0, std::uint16_t send = 0,
                        std::uint16_t connect = 0) {
  std::string description(232, '\0');
  Overwrite(&description, 8, code);
  description.replace(12, name.size(), name);
  description.replace(24, address.size(), address);
  Overwrite(&description, 136, port);
  Overwrite(&description, 140, receive);
  Overwrite(&description, 142, send);
  Overwrite(&description, 144, connect);
  return description;
}

// Numbers

TEST_F(ManagementCommands, OneHundredAnswersOneAndOneHundredAndOneZero) {
  Manager manager = StartWithManager();
  EXPECT_EQ(manager.Ask(100), Outcome{1});
  EXPECT_EQ(manager.Ask(101), Outcome{0});
}

TEST_F(ManagementCommands, TheOtherNumbersAnswerZeroAndDoNothing) {
  Manager manager = StartWithManager(kThreeNodes);
  for (const int command : {0, 1, 99, 107, 108, 109, 110, 111, 112, 113, 114, 115, 130, 200, 65535})
    EXPECT_EQ(manager.Ask(command, 1, "B"), Outcome{0}) << command;
  EXPECT_EQ(manager.Names(), "A B C");
  EXPECT_EQ(manager.Default(), "A");
}

TEST_F(ManagementCommands, TheAnswerCarriesTheTagAndTheTaskOfTheRequestAndNothingElseOfIt) {
  Manager manager = StartWithManager();
  lumo::Message request = FullMessage(manager.Connection(), "");
  request.Command = "DBCA";
  request.DbcApiCode = 101;
  request.Strings = {"one", "two", "three", "four"};
  EXPECT_EQ(manager.Receive(manager.SendMessage(request)), Outcome{0});  // exact to the byte
}

// Numbering and the default node

TEST_F(ManagementCommands, TheNodesAreCounted) {
  Manager manager = StartWithManager(kThreeNodes);
  EXPECT_EQ(manager.Ask(102), Outcome{3});
  EXPECT_EQ(manager.Ask(102, 77), Outcome{3});
}

TEST_F(ManagementCommands, ANodeIsNamedByItsPlaceInTheTable) {
  Manager manager = StartWithManager("first REZ\nEIGHTCHR REZ\nC REZ\n");
  EXPECT_EQ(manager.Ask(105, 0), Name("FIRST"));
  EXPECT_EQ(manager.Ask(105, 1), Name("EIGHTCHR"));
  EXPECT_EQ(manager.Ask(105, 2), Name("C"));
  for (const int index : {3, 5, -1, 0x7FFFFFFF}) EXPECT_EQ(manager.Ask(105, index), Outcome{0});
}

TEST_F(ManagementCommands, TheNumberingFollowsTheTableWhereverTheDefaultStands) {
  agent_.Options({"-DEFAULT", "b"});
  Manager manager = StartWithManager(kThreeNodes);
  EXPECT_EQ(manager.Ask(103), Name("B"));
  EXPECT_EQ(manager.Ask(104), Outcome{1});
  EXPECT_EQ(manager.Names(), "A B C");
}

TEST_F(ManagementCommands, ANodeIsMadeTheDefaultByItsNumber) {
  EchoNode node;
  Manager manager = StartWithManager("A REZ\nB REZ\n" + node.Line("C"));
  EXPECT_EQ(manager.Ask(106, 2), Outcome{1});
  EXPECT_EQ(manager.Ask(103), Name("C"));
  EXPECT_EQ(manager.Ask(104), Outcome{2});
  EXPECT_EQ(Client(agent_).Ask("", "for the default").Strings[0], "for the default");
}

// A and B are down, and the timer will try again; then B comes up for others.
TEST_F(ManagementCommands, ANodeThatIsUpTakesTheRequestsThatWaitForTheOldDefault) {
  LateKernel kernel(agent_);
  agent_.Options({"-AUTOCONNECT", "-AUTOCONNECTTIMEOUT", "600"});
  Manager manager = StartWithManager("A REZ\n" + kernel.Line("B"));
  Client client(agent_), other(agent_);
  const lumo::Message waiting = client.Send("", "waits");
  agent_.Barrier();
  kernel.Listen();
  ExpectFirstServedBy(kernel, "B", other, other.Send("B", "by name"));
  EXPECT_EQ(manager.Ask(106, 1), Outcome{1});
  ExpectServedBy(kernel, "B", client, waiting);
}

TEST_F(ManagementCommands, ANumberWithoutANodeLeavesTheDefaultAsItIs) {
  Manager manager = StartWithManager(kThreeNodes);
  for (const int index : {3, -1}) EXPECT_EQ(manager.Ask(106, index), Outcome{0});
  EXPECT_EQ(manager.Default(), "A");
}

// The path of the node table

TEST_F(ManagementCommands, ThePathComesWithItsNulAndWithoutAPadByte) {
  for (const char* file : {"table", "table1"}) {  // one of the two is of odd size
    Agent agent;
    const std::string path = agent.Folder() / file;
    WriteFile(path, kThreeNodes);
    agent.WithoutNodetab().Options({"-NODETAB", path});
    Manager manager = StartWithManager(agent);
    EXPECT_EQ(manager.Ask(116), (Outcome{0, path + '\0'}));
  }
}

TEST_F(ManagementCommands, ThePathIsSearchedForAnew) {
  const std::string home = agent_.Folder() / "home/nodetab",
                    work = agent_.Folder() / "work/nodetab";
  WriteFile(home, kThreeNodes);
  agent_.WithoutNodetab().Program(agent_.Folder() / "program");
  std::filesystem::create_symlink(AgentProgram(), agent_.Folder() / "program");
  Manager manager = StartWithManager();
  EXPECT_EQ(manager.Ask(116), (Outcome{0, home + '\0'}));
  EXPECT_NE(agent_.Stdout().rfind("Nodetab found: \"" + home + "\"\n"),
            agent_.Stdout().find("Nodetab found: \"" + home + "\"\n"))
      << "each search tells where it found the file";
  WriteFile(work, kThreeNodes);
  EXPECT_EQ(manager.Ask(116), (Outcome{0, work + '\0'}));
}

TEST_F(ManagementCommands, AMissingNodeTableIsReported) {
  StartAgent();
  std::filesystem::remove(agent_.NodetabPath());
  Manager manager(agent_);
  EXPECT_EQ(manager.Ask(116), Outcome{kNoNodeTable});
}

std::string PathOfLength(const Agent& agent, std::size_t length) {
  std::string path = agent.Folder();
  while (path.size() + 102 < length) path += "/" + std::string(100, 'd');
  std::filesystem::create_directories(path);
  path += "/";
  return path + std::string(length - path.size(), 'f');
}

TEST_F(ManagementCommands, APathThatDoesNotFitIsNotReturned) {
  for (const std::size_t length : {std::size_t{259}, std::size_t{260}, std::size_t{400}}) {
    Agent agent;
    const std::string path = PathOfLength(agent, length);
    WriteFile(path, kThreeNodes);
    agent.WithoutNodetab().Options({"-NODETAB", path});
    Manager manager = StartWithManager(agent);
    const Outcome expected = length < 260 ? Outcome{0, path + '\0'} : Outcome{3};
    EXPECT_EQ(manager.Ask(116), expected) << length;
    EXPECT_EQ(agent.Stop(), 0);
  }
}

TEST_F(ManagementCommands, TheStreamOfTheNodeTableStaysOpenButOnlyOne) {
  Manager manager = StartWithManager();
  manager.Count();
  const int before = OpenDescriptors(agent_.Pid());
  for (int call = 0; call < 20; ++call) {
    EXPECT_EQ(manager.Ask(116).Result, 0);
    EXPECT_EQ(OpenDescriptors(agent_.Pid()), before + 1);
  }
}

// Adding

TEST_F(ManagementCommands, AnAddedNodeServesRequests) {
  EchoNode node;
  Manager manager = StartWithManager(kThreeNodes);
  EXPECT_EQ(manager.AddNode(node.Line("new")), 0);
  EXPECT_EQ(manager.Names(), "A B C NEW");
  EXPECT_EQ(manager.Default(), "A");
  EXPECT_EQ(Client(agent_).Ask("NEW", "text").Strings[0], "text");
  EXPECT_EQ(agent_.Results(), "");
}

TEST_F(ManagementCommands, AnAddedNodeStandsBehindTheLastOneSeenFromWhereTheCircleIsEntered) {
  Manager manager = StartWithManager(kThreeNodes);
  Client client(agent_);
  client.ExpectError(client.Send("B"), 4066, 0);  // the circle is entered at B from now on
  EXPECT_EQ(manager.AddNode("D REZ"), 0);
  EXPECT_EQ(manager.Names(), "A D B C");
}

TEST_F(ManagementCommands, AManagementRequestThatNamesANodeMovesTheEntryOfTheCircleToo) {
  Manager manager = StartWithManager(kThreeNodes);
  lumo::Message request = lumo::ManagementRequest(119, 0, "D REZ");
  request.Node = "C";
  EXPECT_EQ(manager.Receive(manager.SendMessage(request)), Outcome{0});
  EXPECT_EQ(manager.Names(), "A B D C");
}

TEST_F(ManagementCommands, ALineThatMakesNoNodeIsRefusedWithItsReason) {
  Manager manager = StartWithManager(kThreeNodes);
  for (const char* line : {"NINECHARS REZ", "X NONSENSE here", "Y LOCALS nonsense", "A REZ", ""})
    EXPECT_EQ(manager.AddNode(line), 1) << line;
  EXPECT_EQ(agent_.Results(),
            "lumo_tcp:Node name 'NINECHARS' is too long. Maximum length is 8 chars\n"
            "lumo_tcp:Node name 'NINECHARS' skipped\n"
            "lumo_tcp:The network agent doesn't support protocol  'NONSENSE' for node 'X'.\n"
            "lumo_tcp:Node name 'X' skipped\n"
            "lumo_tcp:Initialization of link 'Y' for protocol 'LOCALS' failed\n"
            "lumo_tcp:Node name 'Y' skipped\n"
            "lumo_tcp:Dublicate node name found in nodetab file\n"
            "lumo_tcp:Node name 'A' skip\n"
            "lumo_tcp:The network agent doesn't support protocol  '' for node ''.\n"
            "lumo_tcp:Node name '' skipped\n");
  EXPECT_EQ(manager.Names(), "A B C");
}

TEST_F(ManagementCommands, TheLastNodeOfTheCircleIsNotComparedForADuplicateName) {
  Manager manager = StartWithManager(kThreeNodes);
  EXPECT_EQ(manager.AddNode("C REZ"), 0);
  EXPECT_EQ(manager.AddNode("a REZ"), 0);
  EXPECT_EQ(manager.Names(), "A B C C A");
}

// Node descriptions

TEST_F(ManagementCommands, ATcpNodeIsDescribedWithAddressPortAndTimeouts) {
  Manager manager = StartWithManager(
      "SRV1 TCPIP 127.0.0.1 2042 3 60 10\n"
      "SRV2 tcpip 127.0.0.2\n"
      "EIGHTCHR TCPIP 0x7f.1 0x1F90 0 70000 65535\n");
  EXPECT_EQ(manager.Ask(121, 0),
            (Outcome{0, Description(4, "SRV1", "127.0.0.1", 2042, 3, 60, 10)}));
  EXPECT_EQ(manager.Ask(121, 1), (Outcome{0, Description(4, "SRV2", "127.0.0.2", 1060, 1, 0, 0)}));
  EXPECT_EQ(manager.Ask(121, 2),
            (Outcome{0, Description(4, "EIGHTCHR", "127.0.0.1", 8080, 0, 70000 - 65536, 65535)}));
}

TEST_F(ManagementCommands, ANodeOfAnotherProtocolIsDescribedWithTheIdentityOfItsProtocol) {
  Manager manager =
      StartWithManager("L1 LOCALS 77\nL2 LOCAL 78\nI1 LOCALI 79\nR1 REZ\nS1 TCPIPS x\nR2 REZ\n");
  const std::pair<const char*, std::uint32_t> kNodes[] = {{"L1", 2}, {"L2", 2}, {"I1", 3},
                                                          {"R1", 0}, {"S1", 0}, {"R2", 0}};
  std::vector<std::uint32_t> identities;
  for (const auto& [name, code] : kNodes) {
    const Outcome outcome = manager.Ask(120, 0, std::string(name) + '\0');
    ASSERT_EQ(outcome.Item.size(), 232u);
    identities.push_back(ValueAt<std::uint32_t>(outcome.Item, 136));
    EXPECT_EQ(outcome, (Outcome{0, Description(code, name, "", identities.back())}));
  }
  EXPECT_EQ(identities[0], identities[1]) << "one record serves both";
  EXPECT_EQ(std::set<std::uint32_t>(identities.begin() + 1, identities.end()).size(), 5u);
}

TEST_F(ManagementCommands, ANodeIsDescribedByNameByNumberAndAsTheDefault) {
  agent_.Options({"-DEFAULT", "C"});
  Manager manager =
      StartWithManager("A TCPIP 127.0.0.1 1\nB TCPIP 127.0.0.1 2\nC TCPIP 127.0.0.1 3\n");
  EXPECT_EQ(manager.Ask(120, 2, "A"), (Outcome{0, Description(4, "A", "127.0.0.1", 1, 1)}));
  EXPECT_EQ(manager.Ask(121, 1, "A"), (Outcome{0, Description(4, "B", "127.0.0.1", 2, 1)}));
  EXPECT_EQ(manager.Ask(122, 1, "A"), (Outcome{0, Description(4, "C", "127.0.0.1", 3, 1)}));
}

TEST_F(ManagementCommands, ANodeThatDoesNotExistIsReportedByEachCommandThatNamesOne) {
  Manager manager = StartWithManager(kThreeNodes);
  for (const int command : {120, 123, 126})
    EXPECT_EQ(manager.Ask(command, 0, std::string("D\0\0X REZ", 8)), Outcome{kNoSuchNode});
  for (const int command : {121, 124, 127}) {
    EXPECT_EQ(manager.Ask(command, 3, "X REZ"), Outcome{kNoSuchNode});
    EXPECT_EQ(manager.Ask(command, -1, "X REZ"), Outcome{kNoSuchNode});
  }
  EXPECT_EQ(manager.Names(), "A B C");
}

// Name arguments

TEST_F(ManagementCommands, ANameIsComparedWithoutRegardToCaseAndEndsAtTheFirstBlank) {
  Manager manager = StartWithManager("A REZ\nSRV1 REZ\nEIGHTCHR REZ\n");
  for (const char* name : {"SRV1", "srv1", "Srv1 and more", "eightchr"})
    EXPECT_EQ(manager.Ask(120, 0, name).Result, 0) << name;
  for (const char* name : {"", " SRV1", "SRV", "SRV12", "EIGHTCHR9", "EIGHTCH"})
    EXPECT_EQ(manager.Ask(120, 0, name), Outcome{kNoSuchNode}) << name;
}

TEST_F(ManagementCommands, ANameEndsAtItsNulOrWhereItsStringEnds) {
  Manager manager = StartWithManager("A REZ\nSRV1 REZ\nODD REZ\n");
  EXPECT_EQ(manager.Ask(120, 0, std::string("SRV1\0junk", 9)).Result, 0);
  for (const char* name : {"SRV1", "ODD"}) {
    lumo::Message request = lumo::ManagementRequest(120, 0, name);
    request.Strings[1] = std::string(4000, 'x');  // no NUL follows the name
    EXPECT_EQ(manager.Receive(manager.SendMessage(request)).Result, 0) << name;
  }
}

TEST_F(ManagementCommands, TheLargestArgumentIsTakenWhole) {
  Manager manager = StartWithManager(kThreeNodes);
  const std::size_t largest = 8188 - 108;
  EXPECT_EQ(manager.Ask(120, 0, std::string(largest, 'N')), Outcome{kNoSuchNode});
  EXPECT_EQ(manager.Ask(120, 0, "B" + std::string(largest - 1, ' ')).Result, 0);
  EXPECT_EQ(manager.Ask(119, 0, "D" + std::string(largest - 4, ' ') + "REZ").Result, 0);
  EXPECT_EQ(manager.Names(), "A B C D");
}

// The lock

TEST_F(NodetabLock, ItIsFreeAtFirst) {
  Manager manager = StartWithManager();
  EXPECT_EQ(manager.Ask(129, 7), Outcome{0});
  EXPECT_EQ(manager.Ask(118, 7), Outcome{0});
}

TEST_F(NodetabLock, ItsStatusTellsTheOwnerFromOthers) {
  Manager manager = StartWithManager();
  EXPECT_EQ(manager.Ask(117, 7), Outcome{0});
  EXPECT_EQ(manager.Ask(129, 7), Outcome{kHeldByCaller});
  EXPECT_EQ(manager.Ask(129, 8), Outcome{kHeldByOther});
  EXPECT_EQ(manager.Ask(118, 7), Outcome{0});
  EXPECT_EQ(manager.Ask(129, 7), Outcome{0});
  EXPECT_EQ(manager.Ask(129, 8), Outcome{0});
}

TEST_F(NodetabLock, AnotherOwnerCanNeitherTakeNorReleaseIt) {
  Manager manager = StartWithManager();
  EXPECT_EQ(manager.Ask(117, 7), Outcome{0});
  EXPECT_EQ(manager.Ask(117, 8), Outcome{kHeldByOther});
  EXPECT_EQ(manager.Ask(118, 8), Outcome{kHeldByOther});
  EXPECT_EQ(manager.Ask(129, 7), Outcome{kHeldByCaller});
}

TEST_F(NodetabLock, ItsOwnerMayTakeItAgain) {
  Manager manager = StartWithManager();
  EXPECT_EQ(manager.Ask(117, -7), Outcome{0});
  EXPECT_EQ(manager.Ask(117, -7), Outcome{0});
  EXPECT_EQ(manager.Ask(118, -7), Outcome{0});
  EXPECT_EQ(manager.Ask(117, 8), Outcome{0});
  EXPECT_EQ(manager.Ask(129, -7), Outcome{kHeldByOther});
}

TEST_F(NodetabLock, ItOutlivesTheConnectionThatTookItAndBelongsToWhoeverGivesTheNumber) {
  StartAgent();
  {
    Manager first(agent_);
    EXPECT_EQ(first.Ask(117, 7), Outcome{0});
  }
  Manager second(agent_);
  EXPECT_EQ(second.Ask(129, 8), Outcome{kHeldByOther});
  EXPECT_EQ(second.Ask(118, 7), Outcome{0});
  EXPECT_EQ(second.Ask(117, 8), Outcome{0});
}

TEST_F(NodetabLock, NoOtherCommandAsksForIt) {
  StartAgent(kThreeNodes);
  Manager owner(agent_), other(agent_);
  EXPECT_EQ(owner.Ask(117, 7), Outcome{0});
  EXPECT_EQ(other.AddNode("D REZ"), 0);
  EXPECT_EQ(other.DeleteNode("B"), 0);
  EXPECT_EQ(other.SetNode("C", "E REZ"), 0);
  EXPECT_EQ(other.Names(), "A E D");
  EXPECT_EQ(owner.Ask(129, 7), Outcome{kHeldByCaller});
}

// The trace

TEST_F(ManagementTrace, EachCommandShowsItsArgumentAndItsResult) {
  agent_.Trace();
  Manager manager = StartWithManager(kThreeNodes);
  manager.Ask(105, 1);
  manager.Ask(105, 77);
  manager.Ask(102, 99);
  EXPECT_TRUE(agent_.Logged(15, "dbca", "Command dbcapi 1"));
  EXPECT_TRUE(agent_.Logged(15, "dbca", "Return char value \"B       \" return int value 1"));
  EXPECT_TRUE(agent_.Logged(15, "dbca", "Command dbcapi 77"));
  EXPECT_TRUE(agent_.Logged(15, "dbca", "Return char value \"        \" return int value 0"));
  EXPECT_TRUE(agent_.Logged(15, "dbca", "Command dbcapi 99"));
  EXPECT_TRUE(agent_.Logged(15, "dbca", "Return char value \"        \" return int value 3"));
  EXPECT_TRUE(agent_.LogContains("'MakeDbcApiAnswer' Call from clntxch:"));
  EXPECT_TRUE(agent_.Logged(15, "dbca", "'MakeDbcApiAnswer' Leave SUCCESS"));
}

struct TracedCommand {
  int Command;
  const char* Name;
  std::int32_t GoodRowId;
  std::string GoodArgument, BadArgument;  // the latter with RowId 77; empty: it cannot fail
};

TEST_F(ManagementTrace, TheNamedCommandsShowTheirNameAndTheirEnd) {
  agent_.Trace();
  Manager manager = StartWithManager("A REZ\nB REZ\nC REZ\nD REZ\nE REZ\n");
  const TracedCommand kCommands[] = {
      {116, "ApiGetNodetabPath", 0, "", ""},   {117, "ApiLockNodetab", 7, "", "x"},
      {118, "ApiUnlockNodetab", 0, "", ""},    {119, "ApiAddNode", 0, "N REZ", "nonsense"},
      {120, "ApiGetNode", 0, "A", "nonsense"}, {123, "ApiDelNode", 0, "B", "nonsense"},
      {127, "ApiSetNode", 0, "A REZ", ""},     {129, "ApiGetNodetabStatus", 7, "", ""},
  };
  for (const TracedCommand& command : kCommands) {
    const std::string leave = "'" + std::string(command.Name) + "' Leave ";
    const int before = agent_.CountLogged(15, "dbca", leave + "SUCCESS");
    // The lock is held by 7 when it is to be released or asked for.
    if (command.Command == 118 || command.Command == 129) manager.Ask(118, 7);
    manager.Ask(command.Command, command.GoodRowId, command.GoodArgument);
    EXPECT_TRUE(agent_.LogContains("'" + std::string(command.Name) + "' Call from dbca:"))
        << command.Name;
    EXPECT_GT(agent_.CountLogged(15, "dbca", leave + "SUCCESS"), before) << command.Name;
    if (command.BadArgument.empty()) continue;
    manager.Ask(command.Command, 77, command.BadArgument);
    EXPECT_EQ(agent_.CountLogged(15, "dbca", leave + "FAIL"), 1) << command.Name;
  }
}

}  // namespace
}  // namespace test
