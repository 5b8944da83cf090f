// lumo-protocol(7): its tables against the codec and the agent, its examples to the byte.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "lib/message_codec.h"
#include "tests/man/page.h"
#include "tests/process/manager.h"
#include "tests/support/node.h"

namespace test {
namespace {

constexpr std::int32_t kTaskNameOfExamples = 32263;
constexpr std::size_t kTaskNameAt = 4, kEmptyTrailerAt = 60;

template <class T>
T At(const std::string& bytes, std::size_t offset) {
  T value{};
  if (offset + sizeof value <= bytes.size()) std::memcpy(&value, &bytes[offset], sizeof value);
  return value;
}

std::string Bytes(const std::string& hex) {
  std::istringstream stream(hex);
  std::string bytes;
  for (std::string byte; stream >> byte;) bytes += static_cast<char>(std::stoi(byte, nullptr, 16));
  return bytes;
}

// The bytes of an example, by its place in the section.
std::string Example(std::size_t number) {
  const auto examples = Page("lumo-protocol.7").Literals("EXAMPLES");
  EXPECT_EQ(examples.size(), 5U);
  return number < examples.size() ? Bytes(examples[number]) : std::string();
}

// An example as it is with this process as the client.
std::string WithOwnTaskName(std::string frame, std::set<std::size_t> places) {
  const std::int32_t pid = getpid();
  for (const std::size_t at : places) {
    EXPECT_EQ(At<std::int32_t>(frame, at), kTaskNameOfExamples);
    std::memcpy(&frame.at(at), &pid, sizeof pid);
  }
  return frame;
}

std::size_t Width(const std::string& type) {
  static const std::map<std::string, std::size_t> kWidths{
      {"u8", 1},      {"u16", 2},     {"u32", 4},     {"i32", 4},
      {"char[4]", 4}, {"char[8]", 8}, {"4 bytes", 4}, {"52 bytes", 52},
  };
  const auto width = kWidths.find(type);
  EXPECT_NE(width, kWidths.end()) << type;
  return width == kWidths.end() ? 0 : width->second;
}

// Where two frames differ: offset and width.
std::pair<std::size_t, std::size_t> Difference(const std::string& a, const std::string& b) {
  EXPECT_EQ(a.size(), b.size());
  std::size_t first = 0, last = a.size();
  while (first < a.size() && a[first] == b[first]) ++first;
  while (last > first && a[last - 1] == b[last - 1]) --last;
  return {first, last - first};
}

using Set = std::function<void(lumo::Message*)>;

// Each row tells where the codec puts the field.
void ExpectFields(const std::vector<Cells>& rows, const std::map<std::string, Set>& fields,
                  std::size_t start) {
  const std::string base = lumo::Encode({}, lumo::Lengths::Client);
  std::set<std::string> seen;
  for (const Cells& row : rows) {
    const auto field = fields.find(row.at(2));
    if (field == fields.end()) continue;
    seen.insert(row[2]);
    lumo::Message message;
    field->second(&message);
    const auto [offset, width] = Difference(base, lumo::Encode(message, lumo::Lengths::Client));
    EXPECT_EQ(offset, start + std::stoul(row.at(0))) << row[2];
    EXPECT_EQ(width, Width(row.at(1))) << row[2];
  }
  EXPECT_EQ(seen.size(), fields.size());
}

using ProtocolPage = ManagerTest;

TEST_F(ProtocolPage, TheFieldsOfAMessageAreWhereItSays) {
  const auto rows = Page("lumo-protocol.7").Rows("Client message");
  ASSERT_EQ(rows.size(), 19U);
  const std::map<std::string, Set> fields{
      {"CodErr", [](lumo::Message* m) { m->CodErr = 0x01010101; }},
      {"Prior", [](lumo::Message* m) { m->Prior = 0x0101; }},
      {"NumChan", [](lumo::Message* m) { m->NumChan = 0x0101; }},
      {"Uninterpreted", [](lumo::Message* m) { m->Uninterpreted.fill(1); }},
      {"Command", [](lumo::Message* m) { m->Command = "DBCA"; }},
      {"Node", [](lumo::Message* m) { m->Node = "EIGHTCHS"; }},
      {"RowId", [](lumo::Message* m) { m->RowId = 0x01010101; }},
      {"RowCount", [](lumo::Message* m) { m->RowCount = 0x01010101; }},
      {"PrzExe", [](lumo::Message* m) { m->PrzExe = 0x01010101; }},
      {"SysErr", [](lumo::Message* m) { m->SysErr = 0x01010101; }},
      {"LnBufRow", [](lumo::Message* m) { m->LnBufRow = 0x0101; }},
      {"DbcApiCode", [](lumo::Message* m) { m->DbcApiCode = 0x0101; }},
  };
  ExpectFields(rows, fields, 0);
  const std::vector<Cells> head(rows.begin(), rows.begin() + 15),
      trailer(rows.begin() + 15, rows.end());
  ExpectFields(head, {{"TaskName", [](lumo::Message* m) { m->TaskName = 0x01010101; }}}, 0);
  ExpectFields(trailer,
               {{"TaskName", [](lumo::Message* m) { m->SetTrailerTaskName(0x01010101); }},
                {"AstInd", [](lumo::Message* m) { m->SetAstInd(0x0101); }}},
               kEmptyTrailerAt);
  EXPECT_EQ((Cells{head[0].begin(), head[0].begin() + 3}), (Cells{"0", "u32", "Length"}));
  EXPECT_EQ((Cells{head[14].begin(), head[14].begin() + 3}), (Cells{"52", "", "Strings"}));
  lumo::Message text;
  text.Strings[0] = "ab";
  const std::string frame = lumo::Encode(text, lumo::Lengths::Client);
  EXPECT_EQ(At<std::uint32_t>(frame, 0), frame.size());
  EXPECT_EQ(At<std::uint16_t>(frame, 52), 2);
}

TEST_F(ProtocolPage, TheAgentFillsInTheTrailerOnTcpWhereItSays) {
  Node node;
  Client client = StartWithClient(node.Line("SRV1"));
  lumo::Message sent = client.Send("SRV1");
  const lumo::Message got = node.ExpectFirstRequest();
  const auto rows = Page("lumo-protocol.7").Rows("Client message");
  int checked = 0;
  for (const Cells& row : rows) {
    if (row.at(2) != "LinkSocket" && row[2] != "Mark") continue;
    ++checked;
    const std::size_t offset = std::stoul(row[0]);
    EXPECT_EQ(got.Trailer.at(offset) == 3, row[2] == "Mark");
    EXPECT_NE(got.Trailer.at(offset), 0);
    std::memcpy(&sent.Trailer.at(offset), &got.Trailer.at(offset), Width(row[1]));
  }
  EXPECT_EQ(checked, 2);
  EXPECT_EQ(got.Trailer, sent.Trailer);
}

TEST_F(ProtocolPage, TheGreetingIsWhatItSays) {
  StartAgent();
  const int socket = ConnectRaw(agent_.SocketPath());
  const std::string greeting = ReadRaw(socket, 60);
  close(socket);
  const auto rows = Page("lumo-protocol.7").Rows("Greeting");
  ASSERT_EQ(rows.size(), 3U);
  const auto offset = [&](std::size_t row) { return std::stoul(rows[row].at(0)); };
  EXPECT_EQ(std::to_string(At<std::uint32_t>(greeting, offset(0))), rows[0].at(2));
  EXPECT_EQ(At<std::int32_t>(greeting, offset(1)), agent_.Pid());
  EXPECT_EQ(greeting.substr(offset(2)), std::string(Width(rows[2].at(1)), '\0'));
}

TEST_F(ProtocolPage, TheExampleOfARequestIsWhatTheCodecMakes) {
  lumo::Message request;
  request.TaskName = kTaskNameOfExamples;
  request.SetTrailerTaskName(kTaskNameOfExamples);
  request.SetAstInd(7);
  request.Node = "SRV1    ";
  request.Strings[0] = "SELECT 10";
  EXPECT_EQ(lumo::Encode(request, lumo::Lengths::Client), Example(0));
}

TEST_F(ProtocolPage, TheAgentAnswersTheExampleOfARequestAsItSays) {
  Client client = StartWithClient("OTHER LOCALS 1\n");
  ASSERT_TRUE(client.SendBytes(WithOwnTaskName(Example(0), {kTaskNameAt, 70})));
  EXPECT_EQ(client.ReceiveFrame(), WithOwnTaskName(Example(1), {kTaskNameAt}));
}

TEST_F(ProtocolPage, TheExampleOfAManagementCommandIsCarriedOutAsItSays) {
  lumo::Message request = lumo::ManagementRequest(105, 1);
  request.TaskName = kTaskNameOfExamples;
  request.SetTrailerTaskName(kTaskNameOfExamples);
  request.SetAstInd(8);
  EXPECT_EQ(lumo::Encode(request, lumo::Lengths::Client), Example(2));
  Client client = StartWithClient("SRV1 LOCALS 1\nSRV2 LOCALS 2\n");
  ASSERT_TRUE(client.SendBytes(WithOwnTaskName(Example(2), {kTaskNameAt, kEmptyTrailerAt})));
  EXPECT_EQ(client.ReceiveFrame(), WithOwnTaskName(Example(3), {kTaskNameAt}));
}

TEST_F(ProtocolPage, TheExampleOfControlPacketsIsWhatANodeGets) {
  Node node;
  agent_.Option("-CONNECTONLOAD");
  StartAgent(node.Line("SRV1", "3 60 10"));
  ASSERT_TRUE(node.Accept());
  std::string packets = node.ReadFrame().value_or("");
  packets += node.ReadFrame().value_or("");
  EXPECT_EQ(packets, Example(4));
}

TEST_F(ProtocolPage, ADescriptionHasItsFieldsWhereItSays) {
  const std::string item = StartWithManager("SRV1 TCPIP 192.0.2.7 1061 3 60 10\n").Ask(121, 0).Item;
  ASSERT_EQ(item.size(), 232U);
  std::map<std::string, std::string> found;
  std::size_t end = 8;
  for (const Cells& row : Page("lumo-protocol.7").Rows("Management commands")) {
    if (row.size() != 4) continue;
    const std::size_t offset = std::stoul(row[0]);
    EXPECT_EQ(offset, end) << "there is a gap before " << row[2];
    if (row[1].starts_with("char[")) {
      found[row[2]] = item.substr(offset).c_str();  // up to its NUL
      end = offset + std::stoul(row[1].substr(5));
      continue;
    }
    end = offset + Width(row[1]);
    found[row[2]] = std::to_string(Width(row[1]) == 2 ? At<std::uint16_t>(item, offset)
                                                      : At<std::uint32_t>(item, offset));
  }
  const std::map<std::string, std::string> expected{
      {"protocol", "4"}, {"name", "SRV1"}, {"address", "192.0.2.7"}, {"port", "1061"},
      {"receive", "3"},  {"send", "60"},   {"connect", "10"}};
  EXPECT_EQ(found, expected);
}

// A command carried out for real with what the row says that it takes.
Outcome Try(Manager& manager, const Cells& row) {
  std::string text;
  if (row.at(2) == "name") text = "LAST";
  if (row[2] == "line") text = "MORE LOCALS 9";
  if (row[2] == "name, line") text = std::string("LAST\0 LAST LOCALS 9", 19);
  return manager.Ask(std::stoi(row.at(0)), row.at(1) == "owner" ? 7 : 0, text);
}

TEST_F(ProtocolPage, ManagementCommandsTakeAndGiveWhatItSays) {
  Manager manager = StartWithManager("SRV1 LOCALS 1\nSRV2 LOCALS 2\nSRV3 LOCALS 3\n");
  std::set<int> codes;
  for (const Cells& row : Page("lumo-protocol.7").Rows("Management commands")) {
    if (row.size() != 6) continue;
    codes.insert(std::stoi(row[0]));
    manager.AddNode("LAST LOCALS 5");
    const Outcome outcome = Try(manager, row);
    const std::string results = " " + row[3] + ",";
    const std::string result = " " + std::to_string(outcome.Result) + ",";
    EXPECT_TRUE(results.starts_with(" number") || results.find(result) != std::string::npos)
        << row[0] << ":" << result;
    const std::string size = row[4] == "path and NUL"
                                 ? std::to_string(agent_.NodetabPath().string().size() + 1)
                                 : row[4];
    EXPECT_EQ(size == "-" ? "0" : size, std::to_string(outcome.Item.size())) << row[0];
  }
  EXPECT_EQ(codes.size(), 20U);
  for (int code = 98; code < 140; ++code) {
    if (codes.contains(code)) continue;
    EXPECT_EQ(manager.Result(code), 0) << code;
  }
}

}  // namespace
}  // namespace test
