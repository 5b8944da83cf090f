// What lumoctl takes for the nodes of a table is what the agent's own parser makes of it.
#include <arpa/inet.h>

#include <array>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>

#include "core/init.h"
#include "protocols/lipc.h"
#include "protocols/lsock.h"
#include "protocols/lumo_tcp.h"
#include "tests/unit/agent_test.h"
#include "tools/lumoctl/nodetab.h"

namespace {

using lumo::ctl::Kind;
using namespace std::string_literals;

std::string TcpText(const std::string& address, int port, std::int64_t receive, int send,
                    int connect) {
  return address + ':' + std::to_string(port) + ' ' + std::to_string(receive) + ' ' +
         std::to_string(send) + ' ' + std::to_string(connect);
}

// One node in words, from the agent and from the model.
std::string TextOf(const Link& link) {
  const std::string protocol = link.Protocol->Name;
  std::string text = std::string(link.NodeName) + ' ' + protocol;
  if (protocol == "TCPIP") {
    const auto* const data = static_cast<const TcpLinkData*>(link.DriverData);
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &data->Address, address, sizeof address);
    text += ' ' + TcpText(address, ntohs(static_cast<std::uint16_t>(data->Port)),
                          data->ReceiveTimeout / 20, data->SendTimeout, data->ConnectTimeout);
  } else if (protocol == "LOCALS") {
    text += ' ' + std::to_string(static_cast<const LSockLinkData*>(link.DriverData)->Mbx);
  } else if (protocol == "LOCALI") {
    text += ' ' + std::to_string(static_cast<const LIpcLinkData*>(link.DriverData)->Key);
  }
  return text;
}

std::string TextOf(const lumo::ctl::TableLine& line) {
  switch (line.ProtocolKind) {
    case Kind::Tcpip:
      return line.Name + " TCPIP " +
             TcpText(line.Tcp.Addresses.at(0), line.Tcp.Port, line.Tcp.ReceiveTimeout,
                     line.Tcp.SendTimeout, line.Tcp.ConnectTimeout);
    case Kind::Locals:
      return line.Name + " LOCALS " + std::to_string(line.Local);
    case Kind::Locali:
      return line.Name + " LOCALI " + std::to_string(line.Local);
    case Kind::None:
    case Kind::Unsupported:
      break;
  }
  return line.Name + " DUMMY";
}

class NodeTableModel : public AgentTest {
 protected:
  std::string OfAgent(const std::string& table) {
    std::string path = testing::TempDir() + "nodetab-XXXXXX";
    close(mkstemp(path.data()));
    std::ofstream(path, std::ios::binary) << table;
    g_DbcI.NodetabPath = path.data();
    {
      const CapturedStdout out;
      const CapturedStderr log;
      InitLinkQueueFromNodetab("test", 1);
    }
    unlink(path.c_str());
    std::string nodes;
    const Link* link = g_DbcI.LinkList;
    while (link) {
      nodes += TextOf(*link) + '\n';
      link = link->Next == g_DbcI.LinkList ? nullptr : link->Next;
    }
    TearDown();
    SetUp();
    return nodes;
  }
  static std::string OfModel(const std::string& table) {
    std::string nodes;
    const lumo::ctl::Table read = lumo::ctl::ReadTable(table, lumo::ctl::SystemResolver(), 20562);
    for (const lumo::ctl::TableLine* line : read.Nodes()) nodes += TextOf(*line) + '\n';
    return nodes;
  }
  void ExpectEqual(const std::string& table) {
    EXPECT_EQ(OfModel(table), OfAgent(table)) << testing::PrintToString(table);
  }
};

TEST_F(NodeTableModel, AgreesWithTheAgentOnHandWrittenTables) {
  for (const char* table : {
           "A TCPIP 127.0.0.1\nB TCPIP 127.0.0.1 70000 -1 -2 -3\nC TCPIP 127.0.0.1 0 0 0 0\n",
           "A TCPIP 127.0.0.1 0x424 0x5 010 08\nB TCPIP 127.0.0.1 x y z w\nC TCPIP 1060\n",
           "A TCPIP 127.0.0.1\nB TCPIP 127.0.0.1\nA TCPIP 127.0.0.1\n",
           "A TCPIP 127.0.0.1\nB TCPIP 127.0.0.1\nB TCPIP 127.0.0.1\n",
           "A TCPIP 127.0.0.1\nB TCPIP 127.0.0.1\na TCPIP 127.0.0.1\n",
           "A REZ\nB DUMMY\n",
           "B DUMMY\nA REZ\n",
           "NINECHARS REZ\nB DUMMY\n",
           "A LOCAL -5\nB LOCALS 0x10\nC LOCALS 12x\nD LOCALI 0x10 z\nE LOCALI -1\nF LOCALI 010\n",
           "  A\tTCPIP\v127.0.0.1\r\n ;B REZ\n#C REZ\n\n \t\nD\nE NoSuch x\nF tcpips",
           "A TCPIP 127.0.0.1 99999999999999999999 99999999999999999999 99999999999999999999 5\n",
       })
    ExpectEqual(table);
}

TEST_F(NodeTableModel, AgreesWithTheAgentOnLongLinesAndNulBytes) {
  ExpectEqual("#" + std::string(1022, 'x') + "A REZ\nB REZ\n");
  ExpectEqual("#" + std::string(1021, 'x') + "A REZ\nB REZ\n");
  ExpectEqual("A TCPIP 127.0.0.1" + std::string(1010, ' ') + "7\nB REZ\n");
  ExpectEqual("A REZ\0B REZ\nC\0D REZ\n\0E REZ\nF REZ"s);
}

// Lines put together from words that matter, in tables of up to six.
TEST_F(NodeTableModel, AgreesWithTheAgentOnRandomTables) {
  static constexpr std::array kNames{"A", "a", "B", "b", "LONGNAME", "TOOLONGNAME", "U", "#A"};
  static constexpr std::array kProtocols{"TCPIP", "tcpip", "LOCAL", "LOCALS", "LOCALI", "REZ",
                                         "DUMMY", "tsr",   "UDP",   "",       "NPIPE",  "REZA"};
  static constexpr std::array kWords{"127.0.0.1", "10.1", "0x7f.1", "256.1.1.1", "5",  "0",    "-5",
                                     "0x1F",      "017",  "9z",     "",          "\v", "70000"};
  static constexpr std::array kEnds{"\n", "\r\n", " \n", "\n\n", "\n#x\n"};
  std::mt19937 random(20562);
  const auto pick = [&random](const auto& words) { return words[random() % words.size()]; };
  for (int round = 0; round < 400; ++round) {
    std::string table;
    for (std::size_t lines = 1 + random() % 6; lines > 0; --lines) {
      table += std::string(pick(kNames)) + ' ' + pick(kProtocols);
      for (std::size_t words = random() % 6; words > 0; --words)
        table += std::string(" ") + pick(kWords);
      table += pick(kEnds);
    }
    ExpectEqual(table);
    if (HasFailure()) return;
  }
}

// The model finds an option in an argument when, and only when, the agent does.
TEST_F(NodeTableModel, AgreesWithTheAgentOnWhatSpellsAnOption) {
  std::istringstream words(
      "H ? HELP VERSION U N NODETAB M S DEFAULT A AUTOCHANGE G AUTOCONNECT AUTOCONNECTTIMEOUT "
      "ERR1001 CONNECTONLOAD CONNERROR K PKILL NODAEMON PCHECK C P PIDFILE PING");
  const std::vector<std::string> keys{std::istream_iterator<std::string>(words), {}};
  std::vector<std::string> arguments{
      "",    "-",  "/",  "--ping", "pi-ng", "U=1",          "U=", "u 1", "=",
      "SRV", "/s", "N-", "-N-=x",  "PINGS", "auto/connect", "Mx", "M 0"};
  for (const std::string& key : keys) arguments.insert(arguments.end(), {key, "-" + key});
  for (std::string argument : arguments) {
    char program[] = "lumo_tcp";
    char* argv[] = {program, argument.data(), nullptr};
    std::string found;
    for (const std::string& key : keys)
      if (GetArgument(1, argv, key.c_str())) found = key;
    EXPECT_EQ(lumo::ctl::OptionSpelled(argument), found) << argument;
  }
}

}  // namespace
