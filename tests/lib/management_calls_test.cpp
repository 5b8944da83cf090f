// Each management command through the library, against the real agent.
#include "tests/lib/lib_setting.h"

namespace {

using test::kAmple;

constexpr liblumo::Time kTime = kAmple;

class Management : public test::AgentTest {
 protected:
  void SetUp() override {
    agent_.Options({"-DEFAULT", "FIRST"});
    StartAgent("FIRST TCPIP 127.0.0.1 1061 3 60 10\nSECOND LOCALS 31077\nTHIRD REZ\n");
    connection_.emplace(test::Open(agent_));
  }
  liblumo::Connection& Lumo() { return *connection_; }
  std::string Names() {
    std::string names;
    const int count = Lumo().CountNodes(kTime).Value;
    for (int index = 0; index < count; ++index)
      names += (index ? " " : "") + Lumo().NodeName(index, kTime).Name;
    return names;
  }

  std::optional<liblumo::Connection> connection_;
};

template <class Result>
void Expect(const Result& result, lumo_status status, std::int32_t value) {
  EXPECT_EQ(result.Code, status) << lumo_status_name(result.Code);
  EXPECT_EQ(result.Value, value);
}

TEST_F(Management, CommandsThatDoNothing) {
  Expect(Lumo().Probe(kTime), LUMO_OK, 1);
  for (const int command : {101, 107, 108, 109, 110, 111, 112, 113, 114, 115}) {
    const auto number = static_cast<std::uint16_t>(command);
    const liblumo::Answer answer = Lumo().Manage(number, 0, {}, kTime);
    EXPECT_TRUE(answer) << command;
    EXPECT_EQ(answer.RowId(), 0) << command;
  }
}

TEST_F(Management, NamesAndNumbers) {
  Expect(Lumo().CountNodes(kTime), LUMO_OK, 3);
  EXPECT_EQ(Names(), "FIRST SECOND THIRD");
  Expect(Lumo().NodeName(3, kTime), LUMO_REFUSED, 0);
  EXPECT_EQ(Lumo().NodeName(3, kTime).Name, "");
  Expect(Lumo().DefaultName(kTime), LUMO_OK, 1);
  EXPECT_EQ(Lumo().DefaultName(kTime).Name, "FIRST");
  Expect(Lumo().DefaultIndex(kTime), LUMO_OK, 0);
  Expect(Lumo().SetDefault(2, kTime), LUMO_OK, 1);
  Expect(Lumo().DefaultIndex(kTime), LUMO_OK, 2);
  Expect(Lumo().SetDefault(3, kTime), LUMO_REFUSED, 0);
  EXPECT_EQ(Lumo().DefaultName(kTime).Name, "THIRD");
}

TEST_F(Management, PathOfTheTable) {
  const liblumo::NameResult path = Lumo().NodetabPath(kTime);
  Expect(path, LUMO_OK, 0);
  EXPECT_EQ(path.Name, agent_.NodetabPath());
  char small[8] = "before";
  EXPECT_EQ(lumo_nodetab_path(Lumo().Get(), 5000, small, sizeof small, nullptr), LUMO_TOO_LONG);
  EXPECT_STREQ(small, "");
  const std::size_t size = path.Name.size() + 1;
  std::string room(size + 1, '+');
  EXPECT_EQ(lumo_nodetab_path(Lumo().Get(), 5000, room.data(), size, nullptr), LUMO_OK);
  EXPECT_EQ(room, path.Name + std::string("\0+", 2)) << "what is behind it stays";
  std::filesystem::remove(agent_.NodetabPath());
  Expect(Lumo().NodetabPath(kTime), LUMO_REFUSED, LUMO_RESULT_NO_NODETAB);
}

TEST_F(Management, Lock) {
  Expect(Lumo().NodetabStatus(7, kTime), LUMO_OK, 0);
  Expect(Lumo().LockNodetab(7, kTime), LUMO_OK, 0);
  Expect(Lumo().NodetabStatus(7, kTime), LUMO_OK, LUMO_RESULT_HELD_BY_CALLER);
  Expect(Lumo().NodetabStatus(8, kTime), LUMO_OK, LUMO_RESULT_HELD_BY_OTHER);
  Expect(Lumo().LockNodetab(8, kTime), LUMO_REFUSED, LUMO_RESULT_HELD_BY_OTHER);
  Expect(Lumo().UnlockNodetab(8, kTime), LUMO_REFUSED, LUMO_RESULT_HELD_BY_OTHER);
  Expect(Lumo().UnlockNodetab(7, kTime), LUMO_OK, 0);
}

TEST_F(Management, Descriptions) {
  const liblumo::NodeResult first = Lumo().GetNode("first", kTime);
  Expect(first, LUMO_OK, 0);
  EXPECT_STREQ(first.Node.name, "FIRST");
  EXPECT_EQ(first.Node.protocol, 4u);
  EXPECT_STREQ(lumo_protocol_name(first.Node.protocol), "TCPIP");
  EXPECT_STREQ(first.Node.address, "127.0.0.1");
  EXPECT_EQ(first.Node.port, 1061u);
  EXPECT_EQ(first.Node.receive_timeout, 3);
  EXPECT_EQ(first.Node.send_timeout, 60);
  EXPECT_EQ(first.Node.connect_timeout, 10);
  EXPECT_STREQ(Lumo().GetNodeAt(1, kTime).Node.name, "SECOND");
  EXPECT_EQ(Lumo().GetNodeAt(1, kTime).Node.protocol, 2u);
  EXPECT_STREQ(Lumo().GetDefaultNode(kTime).Node.name, "FIRST");
  Expect(Lumo().GetNode("NOBODY", kTime), LUMO_REFUSED, LUMO_RESULT_NO_SUCH_NODE);
  Expect(Lumo().GetNodeAt(9, kTime), LUMO_REFUSED, LUMO_RESULT_NO_SUCH_NODE);
  Expect(Lumo().GetNode("NINECHARS", kTime), LUMO_TOO_LONG, 0);
  EXPECT_STREQ(lumo_protocol_name(77), "other");
}

TEST_F(Management, AddingAndDeleting) {
  Expect(Lumo().AddNode("ADDED LOCALS 12", kTime), LUMO_OK, 0);
  Expect(Lumo().AddNode("BAD", kTime), LUMO_REFUSED, LUMO_RESULT_NOT_ADDED);
  EXPECT_EQ(Names(), "FIRST SECOND THIRD ADDED");
  Expect(Lumo().DeleteNode("second", kTime), LUMO_OK, 0);
  Expect(Lumo().DeleteNode("second", kTime), LUMO_REFUSED, LUMO_RESULT_NO_SUCH_NODE);
  Expect(Lumo().DeleteNodeAt(2, kTime), LUMO_OK, 0);
  EXPECT_EQ(Names(), "FIRST THIRD");
  Expect(Lumo().DeleteDefaultNode(kTime), LUMO_OK, 0);
  EXPECT_EQ(Names(), "THIRD");
}

TEST_F(Management, ANodeInUseGoesLater) {
  test::Node node;
  Expect(Lumo().AddNode(node.Line("BUSY"), kTime), LUMO_OK, 0);
  test::Send(Lumo(), "BUSY", "question");
  node.ExpectFirstRequest();
  Expect(Lumo().DeleteNode("BUSY", kTime), LUMO_OK, LUMO_RESULT_PENDING);
  EXPECT_EQ(Names(), "FIRST SECOND THIRD BUSY");
  node.Close();
  EXPECT_EQ(Lumo().ReceiveAny(kTime).Code(), LUMO_CODE_PEER_CLOSED);
  EXPECT_EQ(Names(), "FIRST SECOND THIRD");
}

TEST_F(Management, Redefining) {
  Expect(Lumo().SetNode("first", "FIRST TCPIP 127.0.0.2 1070 1 2 3", kTime), LUMO_OK, 0);
  EXPECT_STREQ(Lumo().GetNode("FIRST", kTime).Node.address, "127.0.0.2");
  // What the agent takes for the end of the name is where the line is looked for.
  Expect(Lumo().SetNode("first  ", "FIRST TCPIP 127.0.0.3", kTime), LUMO_OK, 0);
  EXPECT_STREQ(Lumo().GetNode("FIRST", kTime).Node.address, "127.0.0.3");
  Expect(Lumo().SetNodeAt(1, "SECOND TCPIP 127.0.0.4", kTime), LUMO_OK, 0);
  EXPECT_STREQ(Lumo().GetNode("SECOND", kTime).Node.address, "127.0.0.4");
  Expect(Lumo().SetDefaultNode("FIRST TCPIP 127.0.0.5", kTime), LUMO_OK, 0);
  EXPECT_STREQ(Lumo().GetDefaultNode(kTime).Node.address, "127.0.0.5");
  Expect(Lumo().SetNode("NOBODY", "X REZ", kTime), LUMO_REFUSED, LUMO_RESULT_NO_SUCH_NODE);
}

TEST_F(Management, AnyCommandByItsNumber) {
  const liblumo::Answer name = Lumo().Manage(105, 1, {}, kTime);
  ASSERT_TRUE(name) << name.Words();
  EXPECT_EQ(name.RowId(), 1);
  EXPECT_EQ(name.String(3), "SECOND  ");
  EXPECT_EQ(name.Words(), "the agent answered");
  EXPECT_TRUE(name.FromAgent());
  std::int32_t result = -1;
  EXPECT_EQ(lumo_manage(Lumo().Get(), 102, 0, {nullptr, 0}, 5000, &result, nullptr), LUMO_OK);
  EXPECT_EQ(result, 3);
  EXPECT_EQ(lumo_manage(Lumo().Get(), 102, 0, {nullptr, 1}, 5000, &result, nullptr),
            LUMO_BAD_ARGUMENT);
  EXPECT_EQ(result, 0);
}

// An item of odd size has no pad byte, also when the command is sent as a request.
TEST_F(Management, AsARequest) {
  const std::string path = agent_.NodetabPath();
  liblumo::Request request;
  request.Command("DBCA").Fields.dbc_api_code = 116;
  const liblumo::Answer answer = Lumo().Ask(request, kTime);
  ASSERT_TRUE(answer) << answer.Words();
  EXPECT_EQ(answer.String(3), std::string_view(path.c_str(), path.size() + 1));
  ASSERT_TRUE(std::filesystem::copy_file(path, path + "x"));
}

// Whichever call it was, errno is what the agent told.
TEST(ManagementError, IsInErrno) {
  test::FakeAgent::Pair pair = test::FakeAgent().Connect();
  const auto refuse = [&](int sysErr, auto call) {
    std::thread agent([&] {
      auto request = pair.Agent.ReadRequest();
      ASSERT_TRUE(request);
      request->CodErr = LUMO_CODE_NOT_PERMITTED;
      request->SysErr = sysErr;
      EXPECT_TRUE(pair.Agent.SendMessage(*request));
    });
    errno = ENOENT;
    EXPECT_EQ(call(pair.Library.Get()), LUMO_ERROR);
    const int told = errno;
    agent.join();
    return told;
  };
  const auto typed = [](lumo_connection* agent) {
    return lumo_add_node(agent, "NEW REZ", 5000, nullptr);
  };
  const auto byNumber = [](lumo_connection* agent) {
    return lumo_manage(agent, 119, 0, {nullptr, 0}, 5000, nullptr, nullptr);
  };
  EXPECT_EQ(refuse(EPERM, typed), EPERM);
  EXPECT_EQ(refuse(EPERM, byNumber), EPERM);
  EXPECT_EQ(refuse(0, typed), 0);
}

TEST_F(Management, WithoutAnAgentOrInTime) {
  EXPECT_EQ(lumo_probe(nullptr, 0, nullptr), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_add_node(Lumo().Get(), nullptr, 0, nullptr), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_get_node(Lumo().Get(), nullptr, 0, nullptr, nullptr), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_default_name(Lumo().Get(), 0, nullptr, nullptr), LUMO_BAD_ARGUMENT);
  test::Freeze(agent_.Pid());
  Expect(Lumo().Probe(test::kSoon), LUMO_UNSURE, 0);
  test::Thaw(agent_.Pid());
  EXPECT_EQ(agent_.Stop(), 0);
  Expect(Lumo().Probe(kTime), LUMO_NO_AGENT, 0);
  std::int32_t result = -1;
  EXPECT_EQ(lumo_manage(Lumo().Get(), 102, 0, {nullptr, 0}, 5000, &result, nullptr), LUMO_NO_AGENT);
  EXPECT_EQ(result, 0);
}

}  // namespace
