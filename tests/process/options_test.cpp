// The command line and the environment.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/agent.h"

namespace test {
namespace {

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

class Help : public testing::TestWithParam<const char*> {};

TEST_P(Help, PrintsBannerNoticeAndUsageAndEndsWith255) {
  Agent agent;
  agent.Option(GetParam());
  EXPECT_EQ(agent.Run(), 255);
  EXPECT_EQ(AfterLegalNotice(agent.Stdout()), std::string(kUsage) + "\n");
  EXPECT_EQ(agent.Results(), "");
  EXPECT_NE(access(agent.SocketPath().c_str(), F_OK), 0);
}

INSTANTIATE_TEST_SUITE_P(Spellings, Help,
                         testing::Values("-h", "/HELP", "--?", "-H", "--help", "/help", "-HE-LP",
                                         "?", "-?-", "hElP", "-H=x"));

TEST(Version, IsPrintedAfterBannerAndNoticeAndEndsWith255) {
  for (const char* spelling : {"-VERSION", "--version", "/Version"}) {
    Agent agent;
    agent.Option(spelling);
    EXPECT_EQ(agent.Run(), 255);
    EXPECT_EQ(AfterLegalNotice(agent.Stdout()), "Vanx Embedded v. 6.0.42.18 for LINUX (Socket)\n");
  }
}

TEST(Version, GivesWayToHelp) {
  Agent agent;
  agent.Options({"-VERSION", "-H"}).Trace();
  EXPECT_EQ(agent.Run(), 255);
  EXPECT_EQ(AfterLegalNotice(agent.Stdout()), std::string(kUsage) + "\n");
  EXPECT_TRUE(OptionTraced(agent, "'DbcInitGlobalInternal' Leave Print help"));
}

TEST(Version, IsTracedAsTheReasonOfTheEnd) {
  Agent agent;
  agent.Option("-VERSION").Trace();
  EXPECT_EQ(agent.Run(), 255);
  EXPECT_TRUE(OptionTraced(agent, "'DbcInitGlobalInternal' Leave Print version"));
}

TEST(Banner, AndNoticeArePrintedAtEveryStart) {
  Agent agent;
  ASSERT_TRUE(agent.Start());
  std::string notice;
  const std::string rest = AfterLegalNotice(agent.Stdout(), &notice);
  EXPECT_EQ(rest.rfind("The agent has used communication identifier", 0), 0u) << rest;
  EXPECT_LE(notice.size(), 256u);  // with the newline that ends it
  EXPECT_EQ(agent.Stdout().find(kBanner, 1), std::string::npos) << "printed twice";
}

TEST(Banner, IsPrintedOnceByADaemon) {
  Agent agent;
  ASSERT_TRUE(agent.StartDaemon());
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_EQ(agent.Stdout().rfind(kBanner), 0u) << agent.Stdout();
}

TEST(Banner, IsPrintedByAPingRun) {
  Agent agent;
  agent.Option("-PING");
  EXPECT_EQ(agent.Run(), 66);
  EXPECT_EQ(AfterLegalNotice(agent.Stdout()),
            "Nodetab found: \"" + agent.NodetabPath().string() + "\"\n");
}

class NodetabOption : public testing::TestWithParam<Arguments> {};

TEST_P(NodetabOption, GivesThePath) {
  Agent agent;
  std::filesystem::rename(agent.NodetabPath(), agent.Folder() / "work" / "table");
  agent.WithoutNodetab().Trace();
  agent.Options(GetParam());
  ASSERT_TRUE(agent.Start());
  EXPECT_TRUE(OptionTraced(agent, "Option NODETAB set \"table\"")) << agent.Log();
  EXPECT_NE(agent.Stdout().find("Nodetab found: \"table\"\n"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Spellings, NodetabOption,
    testing::Values(Arguments{"-N", "table"}, Arguments{"-NODETAB", "table"}, Arguments{"-n=table"},
                    Arguments{"-N table"}, Arguments{"--nodetab=table"},
                    Arguments{"/NODE-TAB", "table"}, Arguments{"n", "table"},
                    Arguments{"-NODETAB", "other", "-N", "table"},  // the short form first
                    Arguments{"-N", "table", "-N", "other"}));      // the first of two

TEST(NodetabOptionWithoutValue, IsAsIfItWereAbsent) {
  Agent agent;
  std::filesystem::rename(agent.NodetabPath(), agent.Folder() / "work" / "nodetab");
  agent.WithoutNodetab().Trace().Options({"-NODAEMON", "-N"});
  agent.Spawn();
  ASSERT_TRUE(agent.WaitUntilReady());
  EXPECT_EQ(CountContaining(agent, "Option NODETAB set"), 0u);
  EXPECT_NE(agent.Stdout().find((agent.Folder() / "work" / "nodetab").string()), std::string::npos);
}

TEST(NodetabOptionWithoutValue, TakesTheNextOptionForItsValue) {
  Agent agent;
  agent.WithoutNodetab().Trace().Options({"-NODAEMON", "-N", "-S", "srv7"});
  EXPECT_EQ(agent.Run(), 254);
  EXPECT_TRUE(OptionTraced(agent, "Option NODETAB set \"-S\""));
  EXPECT_TRUE(OptionTraced(agent, "Default node set \"srv7\""));
}

TEST(ALongerKey, IsNotTakenForAShortOne) {
  Agent agent;
  agent.Trace().Options({"-NODETABLE", "x", "-NX=y", "-N=", "-Mx", "7"});
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(CountContaining(agent, "Option NODETAB set"), 1u);
  EXPECT_TRUE(OptionTraced(agent, "Option NODETAB set \"" + agent.NodetabPath().string() + "\""));
  EXPECT_TRUE(OptionTraced(agent, "Use NET_MBX = " + std::to_string(agent.ExchangeId())));
}

TEST(UnknownOptions, AreIgnored) {
  Agent agent;
  agent.Options({"-NOSUCH", "", "-", "/", "value", "--x=1"});
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(agent.Stop(), 0);
  EXPECT_EQ(agent.Results(), "");
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

class NetMbx : public testing::TestWithParam<MbxCase> {};

TEST_P(NetMbx, NamesTheClientSocket) {
  Agent agent;
  agent.WithoutExchangeOption().ExchangeId(GetParam().Expected).Trace();
  if (GetParam().Environment) agent.Environment("NET_MBX", GetParam().Environment);
  agent.Option("-NODAEMON");
  agent.Options(GetParam().Options);
  agent.Spawn();
  ASSERT_TRUE(agent.WaitUntilReady());
  const std::string number = std::to_string(GetParam().Expected);
  EXPECT_TRUE(OptionTraced(agent, "Use NET_MBX = " + number));
  EXPECT_NE(
      agent.Stdout().find("The agent has used communication identifier (NET_MBX) " + number + "\n"),
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

TEST(Defaults, LeaveTheOptionalLinesOut) {
  Agent agent;
  agent.Trace();
  ASSERT_TRUE(agent.Start());
  for (const char* text :
       {"Default node set", "Return 1001 error", "Need to send signal", "Exit after dead parent",
        "Create pid file", "Circle connect timeout set", "Set ping flag = 1"})
    EXPECT_EQ(CountContaining(agent, text), 0u) << text;
  EXPECT_TRUE(OptionTraced(agent, "Parent precess has PID " + std::to_string(getpid())));
  EXPECT_TRUE(OptionTraced(agent, "Do not fork"));
}

TEST(Options, AreTracedInTheirOrder) {
  Agent agent;
  const AwaitedSignal signal(SIGUSR1);
  const std::string pidFile = agent.Folder() / "agent.pid";
  agent.Trace().Options({"-PIDFILE", pidFile, "-PCHECK", "-PKILL", std::to_string(SIGUSR1),
                         "-CONNERROR", "-CONNECTONLOAD", "-ERR1001", "-AUTOCONNECTTIMEOUT", "30",
                         "-AUTOCONNECT", "-DEFAULT", "nowhere"});
  ASSERT_TRUE(agent.Start());
  const std::vector<std::string> expected = {
      "Option NODETAB set \"" + agent.NodetabPath().string() + "\"",
      "Use NET_MBX = " + std::to_string(agent.ExchangeId()),
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
  for (const LogLine& line : agent.LogLines()) {
    if (next < expected.size() && line.Text == expected[next]) ++next;
  }
  EXPECT_EQ(next, expected.size()) << "missing, or not in its place: " << expected[next];
}

TEST(ShortOptions, MeanTheSameAsLongOnes) {
  Agent agent;
  const AwaitedSignal signal(SIGUSR1);
  const std::string pidFile = agent.Folder() / "agent.pid";
  agent.Trace().Options({"-p=" + pidFile, "/c", "-K", std::to_string(SIGUSR1), "-g", "-s=abc"});
  ASSERT_TRUE(agent.Start());
  for (const std::string& line :
       {std::string("Default node set \"abc\""),
        std::string("Flag circle default connect set \"1\""), std::string("Exit after dead parent"),
        "Create pid file " + pidFile})
    EXPECT_TRUE(OptionTraced(agent, line)) << line;
  EXPECT_EQ(ReadFile(pidFile), std::to_string(agent.Pid()) + "\n");
}

TEST(AutoChange, IsSetByEitherKey) {
  for (const char* key : {"-A", "-AUTOCHANGE"}) {
    Agent agent;
    agent.Trace().Option(key);
    ASSERT_TRUE(agent.Start());
    EXPECT_TRUE(OptionTraced(agent, "Flag change default node to next set \"1\""));
  }
}

// With one node both modes are switched off, so there are two that cannot be connected.
TEST(AutoChange, GivesWayToAutoConnect) {
  Agent agent;
  agent.Nodetab("A REZ\nB REZ\n").Options({"-A", "-G"}).LogLevel("1");
  ASSERT_TRUE(agent.Start());
  lumo::Message request;
  request.TaskName = getpid();
  request.SetAstInd(1);
  ASSERT_TRUE(agent.Control().Ask(request, static_cast<int>(kPatience.count())));
  EXPECT_TRUE(agent.Logged(1, "", "Set link  B as default")) << agent.Log();
  EXPECT_FALSE(agent.LogContains("New default link is")) << agent.Log();
}

TEST(AutoConnectTimeout, IsIgnoredWithoutAutoConnect) {
  Agent agent;
  agent.Trace().Options({"-AUTOCONNECTTIMEOUT", "30", "-A"});
  ASSERT_TRUE(agent.Start());
  EXPECT_EQ(CountContaining(agent, "Circle connect timeout set"), 0u);
}

TEST(AutoConnectTimeout, TakesAnyBaseAndKeeps16Bits) {
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

class ParentSignal : public testing::TestWithParam<SignalCase> {};

TEST_P(ParentSignal, IsSentToTheStarter) {
  AwaitedSignal signal(GetParam().Signal);
  Agent agent;
  agent.Trace().Option("-NODAEMON");
  agent.Options(GetParam().Options);
  agent.Spawn();
  ASSERT_TRUE(agent.WaitUntilReady());
  EXPECT_EQ(signal.Sender(), agent.Pid());
  const std::string number = std::to_string(GetParam().Signal);
  EXPECT_TRUE(OptionTraced(
      agent, "Need to send signal " + number + " g_DbcI.SignalToParentProcess to parent process"));
  EXPECT_TRUE(agent.Logged(
      15, "dbc", "Send signal " + number + " to parent process " + std::to_string(getpid())));
}

INSTANTIATE_TEST_SUITE_P(
    Values, ParentSignal,
    testing::Values(SignalCase{{"-PKILL"}, SIGTERM}, SignalCase{{"-K"}, SIGTERM},
                    SignalCase{{"-K", "0"}, SIGTERM}, SignalCase{{"-K", "-5"}, SIGTERM},
                    SignalCase{{"-PKILL", "word"}, SIGTERM}, SignalCase{{"-PKILL", "10"}, 10},
                    SignalCase{{"-K=0xc"}, 12}, SignalCase{{"-K", "012"}, 10},
                    SignalCase{{"-PKILL", "10", "-K", "12"}, 12}));

TEST(Ping, ImpliesTheForeground) {
  Agent agent;
  agent.Trace().Option("-PING");
  EXPECT_EQ(agent.Run(), 66) << "a background start would give 0";
  EXPECT_TRUE(OptionTraced(agent, "Set ping flag = 1"));
}

TEST(AnEmptyPidFileOption, CountsAsAbsent) {
  Agent agent;
  agent.Trace().Options({"-NODAEMON", "-PIDFILE"});
  agent.Spawn();
  ASSERT_TRUE(agent.WaitUntilReady());
  EXPECT_EQ(CountContaining(agent, "Create pid file"), 0u);
  EXPECT_FALSE(agent.LogContains("File open failed"));
}

}  // namespace
}  // namespace test
