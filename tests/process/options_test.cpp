// The command line and the environment.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/agent_test.h"

namespace test {
namespace {

using Version = AgentTest;
using Banner = AgentTest;
using NodetabOptionWithoutValue = AgentTest;
using ALongerKey = AgentTest;
using UnknownOptions = AgentTest;
using Defaults = AgentTest;
using Options = AgentTest;
using ShortOptions = AgentTest;
using AutoChange = AgentTest;
using AutoConnectTimeout = AgentTest;
using AnEmptyPidFileOption = AgentTest;

constexpr char kBanner[] = "TCP/IP agent (client driver). v. 5.0 for RDBMS Tavrin SQL v. 6.0\n";

constexpr char kUsage[] =
    R"(Usage: lumo_tcp [option(s)]
Valid options:
 [-H][-HELP][-?] - this help screen
 [-N Path]
 [-NODETAB Path] - path to "nodetab" file - configuration file of lumo_tcp
 [-S][-DEFAULT]  - set default server name
 [-M ExchangeId] - set interprocess communication identifier.
                   Also can be set by NET_MBX environment variable.
 [-K Signal]
 [-PKILL Signal] - send signal to parent process after initialization
 [-C][-PCHECK]   - check if the parent process is alive. A work of the program
                   will be stopped after death of the parent process
 [-NODAEMON]     - do not enter background mode.
 [-A][-AUTOCHANGE] - if default link is down at connecting time to
             default server, change the default connection to next
 [-G][-AUTOCONNECT] - if default server connection fails, try to connect
                      to the next server. Connection error will be returned to
                      application only if all connection attempts fail.
 [-ERR1001]         - return 1001 code if autoconnect failed.
 [-AUTOCONNECTTIMEOUT] - timeout in autoconnect mode.
 [-CONNECTONLOAD] - set connection immediately after running (not after
                     receiving the first request from application).
 [-CONNERROR]     - return error to application at connection time.
 [-P FilePath]
 [-PIDFILE FilePath] - write pid of the agent to the file.
 [-PING]          - test the default link.
 [-U]            - unload the agent
 -VERSION        - show version of the product
)";

// What follows the banner and the three lines of the legal notice.
std::string AfterLegalNotice(const std::string& text, std::string* notice = nullptr) {
  if (text.rfind(kBanner, 0) != 0) return "no banner: " + text;
  const std::size_t begin = sizeof kBanner - 1;
  std::size_t end = begin;
  for (int line = 0; line < 3; ++line) end = text.find('\n', end) + 1;
  if (notice) *notice = text.substr(begin, end - begin);
  return text.substr(end);
}

bool OptionTraced(const Agent& agent, const std::string& text) {
  return agent.Logged(15, "init", text);
}

std::size_t CountContaining(const Agent& agent, const std::string& text) {
  std::size_t count = 0;
  for (const LogLine& line : agent.LogLines()) count += line.Text.find(text) != std::string::npos;
  return count;
}

using Arguments = std::vector<std::string>;

class Help : public AgentTest, public testing::WithParamInterface<const char*> {};

TEST_P(Help, PrintsBannerNoticeAndUsageAndEndsWith255) {
  agent_.Option(GetParam());
  EXPECT_EQ(agent_.Run(), 255);
  EXPECT_EQ(AfterLegalNotice(agent_.Stdout()), std::string(kUsage) + "\n");
  EXPECT_EQ(agent_.Results(), "");
  EXPECT_NE(access(agent_.SocketPath().c_str(), F_OK), 0);
}

INSTANTIATE_TEST_SUITE_P(Spellings, Help,
                         testing::Values("-h", "/HELP", "--?", "-H", "--help", "/help", "-HE-LP",
                                         "?", "-?-", "hElP", "-H=x"));

TEST_F(Version, IsPrintedAfterBannerAndNoticeAndEndsWith255) {
  for (const char* spelling : {"-VERSION", "--version", "/Version"}) {
    Agent agent;
    agent.Option(spelling);
    EXPECT_EQ(agent.Run(), 255);
    EXPECT_EQ(AfterLegalNotice(agent.Stdout()), "Vanx Embedded v. 6.0.42.18 for LINUX (Socket)\n");
  }
}

TEST_F(Version, GivesWayToHelp) {
  agent_.Options({"-VERSION", "-H"}).Trace();
  EXPECT_EQ(agent_.Run(), 255);
  EXPECT_EQ(AfterLegalNotice(agent_.Stdout()), std::string(kUsage) + "\n");
  EXPECT_TRUE(OptionTraced(agent_, "'DbcInitGlobalInternal' Leave Print help"));
}

TEST_F(Version, IsTracedAsTheReasonOfTheEnd) {
  agent_.Option("-VERSION").Trace();
  EXPECT_EQ(agent_.Run(), 255);
  EXPECT_TRUE(OptionTraced(agent_, "'DbcInitGlobalInternal' Leave Print version"));
}

TEST_F(Banner, AndNoticeArePrintedAtEveryStart) {
  StartAgent();
  std::string notice;
  const std::string rest = AfterLegalNotice(agent_.Stdout(), &notice);
  EXPECT_EQ(rest.rfind("The agent has used communication identifier", 0), 0u) << rest;
  EXPECT_LE(notice.size(), 256u);  // with the newline that ends it
  EXPECT_EQ(agent_.Stdout().find(kBanner, 1), std::string::npos) << "printed twice";
}

TEST_F(Banner, IsPrintedOnceByADaemon) {
  ASSERT_TRUE(agent_.StartDaemon());
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_EQ(agent_.Stdout().rfind(kBanner), 0u) << agent_.Stdout();
}

TEST_F(Banner, IsPrintedByAPingRun) {
  agent_.Option("-PING");
  EXPECT_EQ(agent_.Run(), 66);
  EXPECT_EQ(AfterLegalNotice(agent_.Stdout()),
            "Nodetab found: \"" + agent_.NodetabPath().string() + "\"\n");
}

class NodetabOption : public AgentTest, public testing::WithParamInterface<Arguments> {};

TEST_P(NodetabOption, GivesThePath) {
  std::filesystem::rename(agent_.NodetabPath(), agent_.Folder() / "work" / "table");
  agent_.WithoutNodetab().Trace().Options(GetParam());
  StartAgent();
  EXPECT_TRUE(OptionTraced(agent_, "Option NODETAB set \"table\"")) << agent_.Log();
  EXPECT_NE(agent_.Stdout().find("Nodetab found: \"table\"\n"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Spellings, NodetabOption,
    testing::Values(Arguments{"-N", "table"}, Arguments{"-NODETAB", "table"}, Arguments{"-n=table"},
                    Arguments{"-N table"}, Arguments{"--nodetab=table"},
                    Arguments{"/NODE-TAB", "table"}, Arguments{"n", "table"},
                    Arguments{"-NODETAB", "other", "-N", "table"},  // the short form first
                    Arguments{"-N", "table", "-N", "other"}));      // the first of two

TEST_F(NodetabOptionWithoutValue, IsAsIfItWereAbsent) {
  std::filesystem::rename(agent_.NodetabPath(), agent_.Folder() / "work" / "nodetab");
  agent_.WithoutNodetab().Trace().Option("-N");
  StartAgent();
  EXPECT_EQ(CountContaining(agent_, "Option NODETAB set"), 0u);
  EXPECT_NE(agent_.Stdout().find((agent_.Folder() / "work" / "nodetab").string()),
            std::string::npos);
}

TEST_F(NodetabOptionWithoutValue, TakesTheNextOptionForItsValue) {
  agent_.WithoutNodetab().Trace().Options({"-NODAEMON", "-N", "-S", "srv7"});
  EXPECT_EQ(agent_.Run(), 254);
  EXPECT_TRUE(OptionTraced(agent_, "Option NODETAB set \"-S\""));
  EXPECT_TRUE(OptionTraced(agent_, "Default node set \"srv7\""));
}

TEST_F(ALongerKey, IsNotTakenForAShortOne) {
  agent_.Trace().Options({"-NODETABLE", "x", "-NX=y", "-N=", "-Mx", "7"});
  StartAgent();
  EXPECT_EQ(CountContaining(agent_, "Option NODETAB set"), 1u);
  EXPECT_TRUE(OptionTraced(agent_, "Option NODETAB set \"" + agent_.NodetabPath().string() + "\""));
  EXPECT_TRUE(OptionTraced(agent_, "Use NET_MBX = " + std::to_string(agent_.ExchangeId())));
}

TEST_F(UnknownOptions, AreIgnored) {
  agent_.Options({"-NOSUCH", "", "-", "/", "value", "--x=1"});
  StartAgent();
  EXPECT_EQ(agent_.Stop(), 0);
  EXPECT_EQ(agent_.Results(), "");
}

struct MbxCase {
  Arguments Options;
  const char* Environment;  // NET_MBX, or null
  int Expected;
};

void PrintTo(const MbxCase& given, std::ostream* out) {
  *out << testing::PrintToString(given.Options) << " NET_MBX "
       << (given.Environment ? given.Environment : "unset");
}

class NetMbx : public AgentTest, public testing::WithParamInterface<MbxCase> {};

TEST_P(NetMbx, NamesTheClientSocket) {
  agent_.WithoutExchangeOption().ExchangeId(GetParam().Expected).Trace();
  if (GetParam().Environment) agent_.Environment("NET_MBX", GetParam().Environment);
  agent_.Options(GetParam().Options);
  StartAgent();
  const std::string number = std::to_string(GetParam().Expected);
  EXPECT_TRUE(OptionTraced(agent_, "Use NET_MBX = " + number));
  EXPECT_NE(agent_.Stdout().find("The agent has used communication identifier (NET_MBX) " + number +
                                 "\n"),
            std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Values, NetMbx,
    testing::Values(MbxCase{{}, nullptr, 20562}, MbxCase{{}, "", 20562}, MbxCase{{}, "0", 20562},
                    MbxCase{{}, "abc", 20562}, MbxCase{{}, "345", 345}, MbxCase{{}, "0x10", 20562},
                    MbxCase{{"-M", "0"}, nullptr, 20562}, MbxCase{{"-M", "abc"}, nullptr, 20562},
                    MbxCase{{"-M", "0x10"}, nullptr, 20562}, MbxCase{{"-M", "77"}, "345", 77},
                    MbxCase{{"-M", "0"}, "345", 20562}, MbxCase{{"-M"}, "345", 20562},
                    MbxCase{{"-m=12tail"}, nullptr, 12}, MbxCase{{"-M", "-5"}, nullptr, -5},
                    MbxCase{{"-M", "010"}, nullptr, 10}));

TEST_F(Defaults, LeaveTheOptionalLinesOut) {
  agent_.Trace();
  StartAgent();
  for (const char* text :
       {"Default node set", "Return 1001 error", "Need to send signal", "Exit after dead parent",
        "Create pid file", "Circle connect timeout set", "Set ping flag = 1"})
    EXPECT_EQ(CountContaining(agent_, text), 0u) << text;
  EXPECT_TRUE(OptionTraced(agent_, "Parent precess has PID " + std::to_string(getpid())));
  EXPECT_TRUE(OptionTraced(agent_, "Do not fork"));
}

TEST_F(Options, AreTracedInTheirOrder) {
  const AwaitedSignal signal(SIGUSR1);
  const std::string pidFile = agent_.Folder() / "agent.pid";
  agent_.Trace().Options({"-PIDFILE", pidFile, "-PCHECK", "-PKILL", std::to_string(SIGUSR1),
                          "-CONNERROR", "-CONNECTONLOAD", "-ERR1001", "-AUTOCONNECTTIMEOUT", "30",
                          "-AUTOCONNECT", "-DEFAULT", "nowhere"});
  StartAgent();
  const std::vector<std::string> expected = {
      "Option NODETAB set \"" + agent_.NodetabPath().string() + "\"",
      "Use NET_MBX = " + std::to_string(agent_.ExchangeId()),
      "Default node set \"nowhere\"",
      "Flag circle default connect set \"1\"",
      "Circle connect timeout set 30",
      "Return 1001 error if connect failed",
      "Flag connect after run set \"1\"",
      "Flag return error if connect in progress set \"1\"",
      "Parent precess has PID " + std::to_string(getpid()),
      "Need to send signal " + std::to_string(SIGUSR1) +
          " g_DbcI.SignalToParentProcess to parent process",
      "Do not fork",
      "Exit after dead parent",
      "Create pid file " + pidFile};
  std::size_t next = 0;
  for (const LogLine& line : agent_.LogLines()) {
    if (next < expected.size() && line.Text == expected[next]) ++next;
  }
  EXPECT_EQ(next, expected.size()) << "missing, or not in its place: " << expected[next];
}

TEST_F(ShortOptions, MeanTheSameAsLongOnes) {
  const AwaitedSignal signal(SIGUSR1);
  const std::string pidFile = agent_.Folder() / "agent.pid";
  agent_.Trace().Options({"-p=" + pidFile, "/c", "-K", std::to_string(SIGUSR1), "-g", "-s=abc"});
  StartAgent();
  for (const std::string& line :
       {std::string("Default node set \"abc\""),
        std::string("Flag circle default connect set \"1\""), std::string("Exit after dead parent"),
        "Create pid file " + pidFile})
    EXPECT_TRUE(OptionTraced(agent_, line)) << line;
  EXPECT_EQ(ReadFile(pidFile), std::to_string(agent_.Pid()) + "\n");
}

TEST_F(AutoChange, IsSetByEitherKey) {
  for (const char* key : {"-A", "-AUTOCHANGE"}) {
    Agent agent;
    agent.Trace().Option(key);
    ASSERT_TRUE(agent.Start());
    EXPECT_TRUE(OptionTraced(agent, "Flag change default node to next set \"1\""));
  }
}

// With one node both modes are switched off, so there are two that cannot be connected.
TEST_F(AutoChange, GivesWayToAutoConnect) {
  agent_.Options({"-A", "-G"}).LogLevel("1");
  Client client = StartWithClient("A REZ\nB REZ\n");
  client.ExpectAnswer(client.Send());
  EXPECT_TRUE(agent_.Logged(1, "", "Set link  B as default")) << agent_.Log();
  EXPECT_FALSE(agent_.LogContains("New default link is")) << agent_.Log();
}

TEST_F(AutoConnectTimeout, IsIgnoredWithoutAutoConnect) {
  agent_.Trace().Options({"-AUTOCONNECTTIMEOUT", "30", "-A"});
  StartAgent();
  EXPECT_EQ(CountContaining(agent_, "Circle connect timeout set"), 0u);
}

TEST_F(AutoConnectTimeout, TakesAnyBaseAndKeeps16Bits) {
  const std::pair<const char*, const char*> cases[] = {
      {"30", "30"}, {"0x1e", "30"}, {"036", "30"}, {"65566", "30"}, {"x", "0"}};
  for (const auto& [value, stored] : cases) {
    Agent agent;
    agent.Trace().Options({"-G", "-AUTOCONNECTTIMEOUT", value});
    ASSERT_TRUE(agent.Start());
    EXPECT_TRUE(OptionTraced(agent, std::string("Circle connect timeout set ") + stored)) << value;
  }
}

struct SignalCase {
  Arguments Options;
  int Signal;
};

void PrintTo(const SignalCase& given, std::ostream* out) {
  *out << testing::PrintToString(given.Options);
}

class ParentSignal : public AgentTest, public testing::WithParamInterface<SignalCase> {};

TEST_P(ParentSignal, IsSentToTheStarter) {
  AwaitedSignal signal(GetParam().Signal);
  agent_.Trace().Options(GetParam().Options);
  StartAgent();
  EXPECT_EQ(signal.Sender(), agent_.Pid());
  const std::string number = std::to_string(GetParam().Signal);
  EXPECT_TRUE(OptionTraced(
      agent_, "Need to send signal " + number + " g_DbcI.SignalToParentProcess to parent process"));
  EXPECT_TRUE(agent_.Logged(
      15, "dbc", "Send signal " + number + " to parent process " + std::to_string(getpid())));
}

INSTANTIATE_TEST_SUITE_P(
    Values, ParentSignal,
    testing::Values(SignalCase{{"-PKILL"}, SIGTERM}, SignalCase{{"-K"}, SIGTERM},
                    SignalCase{{"-K", "0"}, SIGTERM}, SignalCase{{"-K", "-5"}, SIGTERM},
                    SignalCase{{"-PKILL", "word"}, SIGTERM}, SignalCase{{"-PKILL", "10"}, 10},
                    SignalCase{{"-K=0xc"}, 12}, SignalCase{{"-K", "012"}, 10},
                    SignalCase{{"-PKILL", "10", "-K", "12"}, 12}));

TEST_F(AnEmptyPidFileOption, CountsAsAbsent) {
  agent_.Trace().Option("-PIDFILE");
  StartAgent();
  EXPECT_EQ(CountContaining(agent_, "Create pid file"), 0u);
  EXPECT_FALSE(agent_.LogContains("File open failed"));
}

}  // namespace
}  // namespace test
