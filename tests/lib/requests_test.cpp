// Requests through the real agent: what goes out, what comes back, and each of the three ends.
#include <cerrno>
#include <numeric>
#include <set>

#include "tests/lib/lib_setting.h"

namespace test {
namespace {

class Requests : public AgentTest {
 protected:
  void Start(const std::string& nodetab) {
    StartAgent(nodetab);
    connection_.emplace(Open(agent_));
  }
  // A request that the node has, and its ticket.
  lumo_ticket SendToNode(lumo::Message* received) {
    const lumo_ticket ticket = Send(*connection_, "SRV", "question");
    EXPECT_TRUE(node_.Open() || node_.Accept());
    *received = node_.ExpectRequest();
    return ticket;
  }

  // The first request is on its way: the node has it.
  lumo_ticket StartAndSend() {
    Start(node_.Line("SRV"));
    return SendToNode(&request_);
  }

  Node node_;
  lumo::Message request_;
  std::optional<liblumo::Connection> connection_;
};

TEST_F(Requests, TheNodesAnswerComesBack) {
  EchoNode echo;
  Start(echo.Line("SRV"));
  const liblumo::Answer answer = connection_->Ask("srv", "question", kAmple);
  ASSERT_TRUE(answer) << answer.Words();
  EXPECT_EQ(answer.String(0), "question");
  EXPECT_EQ(answer.Code(), 0);
  EXPECT_FALSE(answer.FromAgent());
  EXPECT_EQ(answer.Advice(), LUMO_ADVICE_NONE);
  EXPECT_EQ(answer.Words(), "the node answered");
  EXPECT_EQ(connection_->AgentPid(), agent_.Pid());
  EXPECT_EQ(connection_->InFlight(), 0u);
}

TEST_F(Requests, EveryFieldGoesOutAndComesBack) {
  Start(node_.Line("SRV"));
  liblumo::Request request("SRV", "first");
  request.Command("EXEC").String(1, std::string("a\0b", 3)).String(3, "fourth");
  request.Fields.row_id = -3;
  request.Fields.row_count = 70000;
  request.Fields.prz_exe = 0xFEDCBA98;
  request.Fields.prior = 1;
  request.Fields.num_chan = 2;
  request.Fields.ln_buf_row = 3;
  request.Fields.dbc_api_code = 4;
  std::iota(std::begin(request.Fields.spare), std::end(request.Fields.spare), std::uint8_t{10});
  std::iota(std::begin(request.Fields.trailer), std::end(request.Fields.trailer),
            std::uint8_t{100});
  lumo_ticket ticket = 0;
  ASSERT_TRUE(connection_->Send(request, &ticket));
  const lumo::Message received = node_.ExpectFirstRequest();
  EXPECT_EQ(received.Command, "EXEC");
  EXPECT_EQ(lumo::NodeText(received), "SRV");
  EXPECT_EQ(received.Strings[1], std::string("a\0b", 3));
  EXPECT_EQ(received.TaskName, getpid());
  EXPECT_EQ(received.TrailerTaskName(), getpid());
  node_.SendMessage(received);
  const liblumo::Answer answer = connection_->Receive(ticket, kAmple);
  ASSERT_TRUE(answer) << answer.Words();
  const lumo_answer* const raw = answer.Get();
  EXPECT_EQ(answer.String(0), "first");
  EXPECT_EQ(answer.String(1), std::string_view("a\0b", 3));
  EXPECT_EQ(answer.String(2), "");
  EXPECT_EQ(answer.String(3), "fourth");
  EXPECT_EQ(lumo_answer_string(raw, 4, nullptr), nullptr);
  EXPECT_STREQ(lumo_answer_command(raw), "EXEC");
  EXPECT_STREQ(lumo_answer_node(raw), "SRV");
  EXPECT_EQ(answer.RowId(), -3);
  EXPECT_EQ(answer.RowCount(), 70000);
  EXPECT_EQ(lumo_answer_prz_exe(raw), 0xFEDCBA98u);
  EXPECT_EQ(lumo_answer_prior(raw), 1);
  EXPECT_EQ(lumo_answer_num_chan(raw), 2);
  EXPECT_EQ(lumo_answer_ln_buf_row(raw), 3);
  EXPECT_EQ(lumo_answer_dbc_api_code(raw), 4);
  EXPECT_EQ(std::memcmp(lumo_answer_spare(raw), request.Fields.spare, 4), 0);
  const std::uint8_t* const trailer = lumo_answer_trailer(raw);
  EXPECT_EQ(std::memcmp(trailer + 8, request.Fields.trailer + 8, 4), 0);
  EXPECT_EQ(std::memcmp(trailer + 14, request.Fields.trailer + 14, 32), 0);
  EXPECT_EQ(trailer[47], request.Fields.trailer[47]);
  EXPECT_EQ(lumo_answer_tag(raw), received.AstInd());
}

TEST_F(Requests, TheNodesOwnCodeIsARefusal) {
  const lumo_ticket ticket = StartAndSend();
  const std::string words("no\nthanks\0hidden", 16);
  lumo::Message refusal = AnswerTo(request_, "", 4050);
  refusal.Strings[LUMO_ROWS] = words;
  node_.SendMessage(refusal);
  const liblumo::Answer answer = connection_->Receive(ticket, kAmple);
  EXPECT_EQ(answer.Status(), LUMO_REFUSED);
  EXPECT_EQ(lumo_answer_status(answer.Get()), LUMO_REFUSED);
  EXPECT_FALSE(answer);
  EXPECT_TRUE(answer.Refused());
  EXPECT_TRUE(answer.Ended());
  EXPECT_EQ(answer.Code(), 4050);
  EXPECT_FALSE(answer.FromAgent());
  EXPECT_EQ(answer.CodeName(), nullptr);
  EXPECT_EQ(answer.Advice(), LUMO_ADVICE_NONE);
  EXPECT_EQ(answer.Rows(), words);
  EXPECT_EQ(answer.Words(), "the node refused: no thanks (code 4050)");
}

TEST_F(Requests, ARefusalWithoutWordsHasItsCode) {
  const lumo_ticket ticket = StartAndSend();
  node_.Answer(request_, "", -7);
  EXPECT_EQ(connection_->Receive(ticket, kAmple).Words(), "the node refused (code -7)");
}

TEST_F(Requests, AnUnknownNodeIsAnErrorWithNameWordsAndAdvice) {
  Start("OTHER REZ\n");
  const liblumo::Answer answer = connection_->Ask("NOBODY", "question", kAmple);
  EXPECT_EQ(answer.Status(), LUMO_ERROR);
  EXPECT_EQ(lumo_answer_status(answer.Get()), LUMO_ERROR);
  EXPECT_TRUE(answer.FromAgent());
  EXPECT_EQ(answer.Code(), LUMO_CODE_UNKNOWN_NODE);
  EXPECT_STREQ(answer.CodeName(), "LUMO_CODE_UNKNOWN_NODE");
  EXPECT_EQ(answer.Words(), "the node table has no such node (code 4050)");
  EXPECT_EQ(answer.Advice(), LUMO_ADVICE_FIX_TABLE);
  EXPECT_EQ(connection_->Ask("OTHER", "question", kAmple).Code(), LUMO_CODE_UNSUPPORTED);
}

TEST_F(Requests, ARefusedConnectionMayBeTriedAgain) {
  node_.StopListening();
  Start(node_.Line("SRV"));
  const liblumo::Answer answer = connection_->Ask("SRV", "question", kAmple);
  EXPECT_EQ(answer.Status(), LUMO_ERROR);
  EXPECT_EQ(answer.Code(), LUMO_CODE_CONNECT);
  EXPECT_EQ(answer.SystemError(), ECONNREFUSED);
  EXPECT_EQ(answer.Advice(), LUMO_ADVICE_RETRY);
  EXPECT_EQ(answer.Words(), "the connection to the node failed (code 4006: Connection refused)");
}

TEST_F(Requests, ANodeThatHangsUpLeavesItOpenWhatItDid) {
  const lumo_ticket ticket = StartAndSend();
  node_.Close();
  const liblumo::Answer answer = connection_->Receive(ticket, kAmple);
  EXPECT_EQ(answer.Status(), LUMO_ERROR);
  EXPECT_EQ(answer.Code(), LUMO_CODE_PEER_CLOSED);
  EXPECT_EQ(answer.Advice(), LUMO_ADVICE_UNSURE);
}

// The circle ends at the node where it began, and takes its link down with what is in flight there:
// the code is that of a failed connection, but the node has the request.
TEST_F(Requests, AFailedCircleLeavesItOpenWhatTheNodeDid) {
  agent_.Option("-AUTOCONNECT").Options({"-DEFAULT", "SRV"});
  Start(node_.Line("SRV") + "OTHER REZ\n");
  lumo::Message request;
  const lumo_ticket ticket = SendToNode(&request);
  EXPECT_TRUE(connection_->SetDefault(1, kAmple));
  Send(*connection_, "", "starts the circle");
  const liblumo::Answer answer = connection_->Receive(ticket, kAmple);
  EXPECT_EQ(answer.Status(), LUMO_ERROR);
  EXPECT_EQ(answer.Code(), LUMO_CODE_CONNECT);
  EXPECT_EQ(answer.Advice(), LUMO_ADVICE_UNSURE);
}

TEST_F(Requests, AnAgentThatStopsLeavesItUnsure) {
  const lumo_ticket ticket = StartAndSend();
  EXPECT_EQ(agent_.Stop(), 0);
  const liblumo::Answer answer = connection_->Receive(ticket, kAmple);
  EXPECT_TRUE(answer.Unsure());
  EXPECT_EQ(answer.Reason(), LUMO_REASON_AGENT_STOPPED);
  EXPECT_TRUE(answer.FromAgent());
  EXPECT_EQ(answer.Advice(), LUMO_ADVICE_UNSURE);
  EXPECT_EQ(answer.Words(), "the agent ended the link before an answer came");
}

TEST_F(Requests, AnAgentThatDiesLeavesItUnsure) {
  const lumo_ticket ticket = StartAndSend();
  agent_.Kill();
  const liblumo::Answer answer = connection_->Receive(ticket, kAmple);
  EXPECT_TRUE(answer.Unsure());
  EXPECT_EQ(answer.Reason(), LUMO_REASON_CONNECTION_LOST);
  EXPECT_FALSE(answer.FromAgent());
  EXPECT_EQ(lumo_answer_tag(answer.Get()), request_.AstInd());
  EXPECT_EQ(connection_->Receive(ticket, kAtOnce).Status(), LUMO_NO_TICKET);
}

TEST_F(Requests, SeveralInFlightEachGetTheirOwnAnswer) {
  Start(node_.Line("SRV"));
  constexpr std::size_t kCount = 40;
  std::vector<lumo_ticket> tickets;
  std::vector<lumo::Message> requests;
  for (std::size_t i = 0; i < kCount; ++i) {
    requests.emplace_back();
    tickets.push_back(SendToNode(&requests.back()));
  }
  EXPECT_EQ(connection_->InFlight(), kCount);
  EXPECT_EQ(std::set<lumo_ticket>(tickets.begin(), tickets.end()).size(), kCount);
  for (std::size_t i = kCount; i-- > 0;) node_.Answer(requests[i], "answer " + std::to_string(i));
  for (std::size_t i = 0; i < kCount; i += 2) {
    const liblumo::Answer answer = connection_->Receive(tickets[i], kAmple);
    EXPECT_EQ(answer.String(0), "answer " + std::to_string(i));
  }
  // The rest, in the order in which they came.
  for (std::size_t i = kCount - 1; i < kCount; i -= 2) {
    const liblumo::Answer answer = connection_->ReceiveAny(kAmple);
    EXPECT_EQ(answer.Ticket(), tickets[i]);
    EXPECT_EQ(answer.String(0), "answer " + std::to_string(i));
  }
  EXPECT_EQ(connection_->ReceiveAny(kAmple).Status(), LUMO_NOTHING_SENT);
}

TEST_F(Requests, TwoConnectionsNeverShareATag) {
  Start(node_.Line("SRV"));
  liblumo::Connection other = Open(agent_);
  std::set<std::uint16_t> tags;
  for (int i = 0; i < 20; ++i) {
    lumo::Message request;
    SendToNode(&request);
    tags.insert(request.AstInd());
    Send(other, "SRV", "question");
    tags.insert(node_.ExpectRequest().AstInd());
  }
  EXPECT_EQ(tags.size(), 40u);
  EXPECT_EQ(tags.count(0), 0u);
  EXPECT_EQ(tags.count(0xFFFF), 0u);
}

TEST_F(Requests, AReceiveThatIsTooEarlyCanBeRepeated) {
  const lumo_ticket ticket = StartAndSend();
  EXPECT_EQ(connection_->Receive(ticket, kAtOnce).Status(), LUMO_TIMEOUT);
  EXPECT_EQ(connection_->Receive(ticket, kSoon).Status(), LUMO_TIMEOUT);
  EXPECT_EQ(connection_->ReceiveAny(kSoon).Status(), LUMO_TIMEOUT);
  EXPECT_EQ(connection_->InFlight(), 1u);
  node_.Answer(request_, "late");
  EXPECT_EQ(connection_->Receive(ticket, kAmple).String(0), "late");
}

TEST_F(Requests, ADeadlineIsKept) {
  const lumo_ticket ticket = StartAndSend();
  const auto before = test::Clock::now();
  EXPECT_EQ(connection_->Receive(ticket, liblumo::Time(80)).Status(), LUMO_TIMEOUT);
  const auto waited = test::Clock::now() - before;
  EXPECT_GE(waited, Milliseconds(80));
  EXPECT_LT(waited, kPatience);
}

TEST_F(Requests, AnAskThatIsNotAnsweredInTimeIsUnsureAndItsAnswerIsDropped) {
  Start(node_.Line("SRV"));
  const liblumo::Answer late = connection_->Ask("SRV", "slow", kSoon);
  EXPECT_TRUE(late.Unsure());
  EXPECT_EQ(late.Reason(), LUMO_REASON_DEADLINE);
  EXPECT_EQ(connection_->InFlight(), 0u);
  const lumo::Message slow = node_.ExpectFirstRequest();
  EXPECT_EQ(lumo_answer_tag(late.Get()), slow.AstInd());
  lumo::Message request;
  const lumo_ticket ticket = SendToNode(&request);
  EXPECT_NE(request.AstInd(), slow.AstInd());
  node_.Answer(slow, "too late");
  node_.Answer(request, "in time");
  EXPECT_EQ(connection_->Receive(ticket, kAmple).String(0), "in time");
  EXPECT_EQ(connection_->ReceiveAny(kAmple).Status(), LUMO_NOTHING_SENT);
}

TEST_F(Requests, OneThatWasGivenUpIsGone) {
  Start(node_.Line("SRV"));
  lumo::Message first, second;
  const lumo_ticket gone = SendToNode(&first), kept = SendToNode(&second);
  EXPECT_TRUE(connection_->Abandon(gone));
  EXPECT_EQ(connection_->Abandon(gone).Code, LUMO_NO_TICKET);
  EXPECT_EQ(connection_->Receive(gone, kAtOnce).Status(), LUMO_NO_TICKET);
  node_.Answer(first, "first");
  node_.Answer(second, "second");
  EXPECT_EQ(connection_->ReceiveAny(kAmple).Ticket(), kept);
  // One whose answer has come can be given up as well.
  const lumo_ticket third = SendToNode(&first);
  const lumo_ticket fourth = SendToNode(&second);
  node_.Answer(first, "third");
  node_.Answer(second, "fourth");
  EXPECT_TRUE(connection_->Receive(fourth, kAmple));
  EXPECT_TRUE(connection_->Abandon(third));
  EXPECT_EQ(connection_->InFlight(), 0u);
}

TEST_F(Requests, TheLargestMessageGoesThroughAndALargerOneDoesNotGoOut) {
  EchoNode echo;
  Start(echo.Line("SRV"));
  const std::string largest(8080, 'x');
  EXPECT_EQ(connection_->Ask("SRV", largest, kAmple).String(0), largest);
  EXPECT_EQ(connection_->Ask("SRV", largest + "x", kAmple).Status(), LUMO_TOO_LONG);
  liblumo::Request two("SRV", largest);
  two.String(1, "x");
  EXPECT_EQ(connection_->Ask(two, kAmple).Status(), LUMO_TOO_LONG);
  EXPECT_EQ(connection_->Ask("NINECHARS", "x", kAmple).Status(), LUMO_TOO_LONG);
  EXPECT_EQ(connection_->Ask(liblumo::Request("SRV").Command("FIVEC"), kAmple).Status(),
            LUMO_TOO_LONG);
  EXPECT_EQ(echo.Served(), 1);
}

TEST_F(Requests, ANameMayHaveEightCharacters) {
  EchoNode echo;
  Start(echo.Line("EIGHTCHR"));
  EXPECT_EQ(connection_->Ask("EIGHTCHR", "x", kAmple).String(0), "x");
  EXPECT_EQ(connection_->DefaultName(kAmple).Name, "EIGHTCHR");
}

TEST_F(Requests, WrongArgumentsAreRefused) {
  Start("OTHER REZ\n");
  lumo_connection* const agent = connection_->Get();
  lumo_request request = lumo_request_make();
  lumo_ticket ticket = 7;
  lumo_answer* answer = nullptr;
  EXPECT_EQ(lumo_open(nullptr, 0, nullptr), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_ask(nullptr, &request, 0, &answer), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_ask(agent, nullptr, 0, &answer), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_ask(agent, &request, 0, nullptr), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_ask_text(agent, "SRV", nullptr, 0, &answer), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_send(nullptr, &request, 0, &ticket), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(ticket, 0u);
  EXPECT_EQ(lumo_send(agent, &request, 0, nullptr), LUMO_BAD_ARGUMENT);
  request.strings[2].size = 1;
  EXPECT_EQ(lumo_send(agent, &request, 0, &ticket), LUMO_BAD_ARGUMENT);
  request = lumo_request_make();
  ++request.struct_size;
  EXPECT_EQ(lumo_send(agent, &request, 0, &ticket), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_receive(agent, 12345, 0, &answer), LUMO_NO_TICKET);
  EXPECT_EQ(lumo_receive(agent, 0, 0, &answer), LUMO_NO_TICKET);
  EXPECT_EQ(lumo_receive(agent, 1, 0, nullptr), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_receive_any(agent, 0, nullptr, &answer), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_abandon(nullptr, 1), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_reconnect(nullptr, 0), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(lumo_in_flight(nullptr), 0u);
  EXPECT_EQ(lumo_descriptor(nullptr), -1);
  EXPECT_EQ(lumo_agent_pid(nullptr), 0);
  EXPECT_EQ(lumo_answer_words(nullptr), nullptr);
  EXPECT_EQ(lumo_answer_code(nullptr), 0);
  EXPECT_EQ(lumo_answer_advice(nullptr), LUMO_ADVICE_NONE);
  lumo_answer_free(nullptr);
  lumo_close(nullptr);
}

// The other connection's ticket is not this one's.
TEST_F(Requests, ATicketBelongsToItsConnection) {
  const lumo_ticket ticket = StartAndSend();
  liblumo::Connection other = Open(agent_);
  EXPECT_EQ(other.Receive(ticket, kAtOnce).Status(), LUMO_NO_TICKET);
  EXPECT_EQ(other.ReceiveAny(kAmple).Status(), LUMO_NOTHING_SENT);
}

}  // namespace
}  // namespace test
