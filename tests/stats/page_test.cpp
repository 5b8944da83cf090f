// The page as the agent writes it and as the library reads it.
#include "tests/stats/page.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "core/status.h"

// Calls of the agent's modules, wrapped at link time: no room on the disk, when a test says so.
static bool noRoom;
extern "C" int __real_posix_fallocate(int fd, off_t at, off_t size);
extern "C" int __wrap_posix_fallocate(int fd, off_t at, off_t size);
int __wrap_posix_fallocate(int fd, off_t at, off_t size) {
  return noRoom ? ENOSPC : __real_posix_fallocate(fd, at, size);
}

namespace {

namespace fs = std::filesystem;

TEST(StatsReasons, HaveTextsAsFarAsTheyAreKnown) {
  EXPECT_STREQ(lumo_stats_reason_text(0), "hung up");
  EXPECT_STREQ(lumo_stats_reason_text(6), "stopping");
  EXPECT_STREQ(lumo_stats_reason_text(-1), "unknown reason");
  EXPECT_STREQ(lumo_stats_reason_text(7), "unknown reason");
}

class StatsPageFile : public test::StatsPageTest {
 protected:
  std::size_t Files() const {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder_.Path()), fs::directory_iterator()));
  }
  // What Begin writes to the log at level 2.
  std::string BeginAndLog() {
    g_DbcI.LogLevel = 2;
    testing::internal::CaptureStderr();
    Begin();
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(StatsPageFile, IsThereFromBeginToEndForItsGroup) {
  Start();
  struct stat status {};
  ASSERT_EQ(lstat(Path().c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777, 0640U);
  EXPECT_EQ(Files(), 1U);
  EXPECT_EQ(lumo_stats_alive(stats_), 1);
  End();
  EXPECT_EQ(Files(), 0U);
  EXPECT_EQ(lumo_stats_alive(stats_), 0);
  EXPECT_EQ(Header().ended, 1U);
}

TEST_F(StatsPageFile, IsNotMadeUnlessAskedFor) {
  setenv("LUMO_STATS", "0", 1);
  EXPECT_EQ(BeginAndLog(), "");
  EXPECT_FALSE(KeepsStats());
  unsetenv("LUMO_STATS");
  Begin();
  EXPECT_EQ(Files(), 0U);
}

TEST_F(StatsPageFile, ValueThatCannotBeUsedIsToldAndCountsAsUnset) {
  setenv("LUMO_STATS", "yes", 1);
  EXPECT_EQ(BeginAndLog(),
            "lumo_tcp:LUMO_STATS cannot be used: \"yes\" is no number from 0 to 1\n");
  EXPECT_FALSE(KeepsStats());
}

TEST_F(StatsPageFile, ReplacesWhatIsThereWhole) {
  test::WriteFile(Path(), "old");
  struct stat before {
  }, after{};
  ASSERT_EQ(lstat(Path().c_str(), &before), 0);
  Start();
  ASSERT_EQ(lstat(Path().c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino);
  EXPECT_EQ(Header().pid, getpid());
}

TEST_F(StatsPageFile, NeverFollowsALink) {
  const std::string victim = folder_.Path() / "victim";
  test::WriteFile(victim, "untouched");
  fs::create_symlink(victim, Path());
  fs::create_symlink(victim, Path() + "." + std::to_string(getpid()) + ".0");
  Start();
  EXPECT_FALSE(fs::is_symlink(Path()));
  EXPECT_EQ(test::ReadFile(victim), "untouched");
  End();
  EXPECT_EQ(test::ReadFile(victim), "untouched");
}

TEST_F(StatsPageFile, AnyOfItsPassingNamesMayBeTaken) {
  const std::string name = Path() + "." + std::to_string(getpid()) + ".";
  for (int i = 0; i < 16; ++i) test::WriteFile(name + std::to_string(i), "taken");
  for (const char* free : {"0", "15"}) {
    fs::remove(name + free);
    Start();
    End();
    test::WriteFile(name + free, "taken");
  }
  EXPECT_EQ(Files(), 16U);
}

TEST_F(StatsPageFile, MayBeTheFirstDescriptorOfAll) {
  const int input = dup(0);
  close(0);
  Start();
  dup2(input, 0);
  close(input);
  EXPECT_EQ(Files(), 1U);
}

TEST_F(StatsPageFile, IsNotMadeWhereTheSystemHasNoRoomForIt) {
  noRoom = true;
  const std::string log = BeginAndLog();
  noRoom = false;
  EXPECT_FALSE(KeepsStats());
  EXPECT_NE(log.find("cannot be made. Errno " + std::to_string(ENOSPC)), std::string::npos) << log;
  EXPECT_EQ(Files(), 0U);
}

TEST_F(StatsPageFile, AProcessWithoutAnyArgumentHasNoOptions) {
  arguments_ = {nullptr, const_cast<char*>("NAME=of the environment"), nullptr, nullptr};
  Start();
  EXPECT_STREQ(Agent().options, "");
}

TEST_F(StatsPageFile, TellsTheLogLevelFromTheStart) {
  g_DbcI.LogLevel = 5;
  Start();
  EXPECT_EQ(Agent().log_level, 5U);
}

TEST_F(StatsPageFile, OneLineAtLevel2WhenItCannotBeMade) {
  fs::create_directories(fs::path(Path()) / "full");
  const std::string log = BeginAndLog();
  EXPECT_FALSE(KeepsStats());
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
  EXPECT_EQ(log.rfind("lumo_tcp:[ 2]", 0), 0U) << log;
  EXPECT_NE(log.find("Statistics page " + Path() + " cannot be made. Errno"), std::string::npos);
  EXPECT_EQ(Files(), 1U);  // nothing half made is left
  StatsPass();             // and the calls do nothing
  EXPECT_EQ(NewLinkStats("A", "TCPIP", ""), kNoStatsRow);
}

TEST_F(StatsPageFile, AnothersFileIsNotRemovedAtTheEnd) {
  Start();
  fs::rename(Path(), Path() + ".moved");
  test::WriteFile(Path(), "another's");
  End();
  EXPECT_EQ(test::ReadFile(Path()), "another's");
}

TEST_F(StatsPageFile, PageOfAKilledAgentIsKnownForWhatItIs) {
  const pid_t child = fork();
  if (child == 0) {
    Begin();
    kill(getpid(), SIGKILL);
  }
  waitpid(child, nullptr, 0);
  ASSERT_EQ(Open(), LUMO_OK);
  EXPECT_EQ(Header().pid, child);
  EXPECT_EQ(Header().ended, 0U);
  EXPECT_EQ(lumo_stats_alive(stats_), 0);
}

TEST_F(StatsPageFile, ProcessThatGotTheNumberLaterIsNotTakenForTheAgent) {
  Start();
  std::string page = test::ReadFile(Path());
  const std::uint64_t other = Header().process_start + 1;
  std::memcpy(page.data() + offsetof(lumo_stats_header, process_start), &other, sizeof other);
  End();
  test::WriteFile(Path(), page);
  ASSERT_EQ(Open(), LUMO_OK);
  EXPECT_EQ(lumo_stats_alive(stats_), 0);
}

TEST_F(StatsPageFile, ChildOfTheAgentWritesNothing) {
  Start();
  const pid_t child = fork();
  if (child == 0) {
    ForgetStats();
    StatsPass();
    UninitStats();
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Agent().passes, 0U);
  EXPECT_TRUE(fs::exists(Path()));
}

TEST_F(StatsPageFile, WhatIsNoPageIsRefused) {
  EXPECT_EQ(Open(), LUMO_NO_AGENT);
  EXPECT_EQ(errno, ENOENT);
  test::WriteFile(Path(), "short");
  EXPECT_EQ(Open(), LUMO_BAD_GREETING);
  test::WriteFile(Path(), std::string(70000, 'x'));
  EXPECT_EQ(Open(), LUMO_BAD_GREETING);
  fs::remove(Path());
  ASSERT_EQ(mkfifo(Path().c_str(), 0600), 0);
  EXPECT_EQ(Open(), LUMO_BAD_GREETING);  // and does not wait for a writer
  fs::remove(Path());
  fs::create_symlink("/dev/null", Path());
  EXPECT_EQ(Open(), LUMO_NO_AGENT);
}

TEST_F(StatsPageFile, PageCutShortIsAnErrorAndNoSignal) {
  Start();
  const int row = NewLinkStats("A", "TCPIP", "");
  fs::copy_file(Path(), Path() + ".copy");
  fs::resize_file(Path() + ".copy", 5000);
  lumo_stats* copy = nullptr;
  ASSERT_EQ(lumo_stats_open((Path() + ".copy").c_str(), &copy), LUMO_OK);
  lumo_stats_link link;
  EXPECT_EQ(lumo_stats_read_link(copy, static_cast<std::uint32_t>(row), &link, sizeof link),
            LUMO_SYSTEM);
  lumo_stats_close(copy);
}

TEST_F(StatsPageFile, DirectoryMayBeAsLongAsTheSocketsMayBe) {
  const std::string folder = folder_.Path().string() + '/';
  const std::string longest = folder + std::string(227 - folder.size(), 'd');
  fs::create_directory(longest);
  setenv("TAVRIN_TMP", longest.c_str(), 1);
  Begin();
  EXPECT_TRUE(fs::exists(longest + "/tavrin.4711.stats"));
  EXPECT_EQ(NewLinkStats("SRV", "TCPIP", ""), 0);
  End();
  EXPECT_TRUE(fs::is_empty(longest));
}

TEST_F(StatsPageFile, PathStandsBesideTheSocket) {
  char path[300];
  EXPECT_EQ(lumo_stats_path(4711, path, sizeof path), LUMO_OK);
  EXPECT_EQ(path, Path());
  EXPECT_EQ(lumo_stats_path(4711, path, 5), LUMO_TOO_LONG);
  EXPECT_EQ(lumo_stats_path(4711, nullptr, 5), LUMO_BAD_ARGUMENT);
}

class StatsPageRows : public test::StatsPageTest {
 protected:
  void SetUp() override { Start(); }
  // A link that is connected, at the second try.
  static int NewConnectedLink() {
    const int row = NewLinkStats("SRV1", "TCPIP", "127.0.0.1 1060");
    StatsConnectTried(row);
    StatsLinkState(row, LUMO_STATS_CONNECTING);
    StatsConnectFailed(row, 4006, ECONNREFUSED);
    StatsLinkState(row, LUMO_STATS_DISCONNECTED);
    StatsConnectTried(row);
    StatsLinkState(row, LUMO_STATS_CONNECTED);
    return row;
  }
};

TEST_F(StatsPageRows, HeaderTellsWhoseItIs) {
  const lumo_stats_header header = Header();
  EXPECT_EQ(header.exchange_id, 4711);
  EXPECT_EQ(header.pid, getpid());
  EXPECT_LT(std::abs(header.start_time / 1000000 - time(nullptr)), 5);
  const int row = NewLinkStats("SRV", "TCPIP", "");
  const std::uint32_t written = Link(row).sequence;
  StatsLinkUnsent(row, 0);
  EXPECT_EQ(Link(row).sequence, written) << "who reads has nothing to read again";
  EXPECT_LT(std::abs(Link(row).since / 1000000 - time(nullptr)), 5);
  EXPECT_STREQ(Agent().options, "-M 4711");
  EXPECT_NE(Agent().version[0], '\0');
  EXPECT_EQ(Agent().default_link, -1);
}

TEST_F(StatsPageRows, PassesAndTicksAreCounted) {
  const std::int64_t before = Agent().last_pass;
  StatsPass();
  StatsPass();
  StatsTick();
  EXPECT_EQ(Agent().passes, 2U);
  EXPECT_EQ(Agent().ticks, 1U);
  EXPECT_GE(Agent().last_pass, before);
  EXPECT_EQ(Agent().last_pass, StatsClock());
}

TEST_F(StatsPageRows, LongestPassIsTheLongest) {
  StatsPass();
  g_Stats.Clock -= 50000;
  StatsEndPass({});
  const std::uint64_t longest = Agent().longest_pass;
  EXPECT_GE(longest, 30000U);  // the coarse clock lags a few milliseconds
  EXPECT_LE(longest, 5000000U);
  StatsPass();
  StatsEndPass({});
  EXPECT_EQ(Agent().longest_pass, longest);
}

TEST_F(StatsPageRows, ConnectionHasARowWhileItIsOpen) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const auto row = static_cast<std::uint32_t>(pair[0]);
  StatsClientOpened(pair[0], 7);
  StatsRequest(pair[0], 99, 108, false);
  StatsRequest(pair[0], 98, 100, true);
  StatsSent(kNoStatsRow, 108, {}, pair[0], {1, 2});
  lumo_stats_client client = Client(row);
  EXPECT_EQ(client.in_flight, 1U);
  EXPECT_EQ(client.waiting, 2U);
  StatsTellCounts(kNoStatsRow, {}, pair[0], {0, 1});
  EXPECT_EQ(Client(row).waiting, 1U);
  StatsAnswer(pair[0], {4006, 110, 78}, {3, 2});
  EXPECT_EQ(Client(row).unsent, 78U);
  StatsClientUnsent(pair[0], 77);
  StatsClientParked(pair[0], true, 1);
  client = Client(row);
  EXPECT_EQ(client.used, 1U);
  EXPECT_EQ(client.serial, 7U);
  EXPECT_EQ(client.named_pid, 98);
  EXPECT_EQ(client.system_pid, getpid());
  EXPECT_EQ(client.requests, 2U);
  EXPECT_EQ(client.answers, 1U);
  EXPECT_EQ(client.last_code, 4006);
  EXPECT_EQ(client.in_flight, 3U);
  EXPECT_EQ(client.waiting, 2U);
  EXPECT_EQ(client.unsent, 77U);
  EXPECT_EQ(client.parked, 1U);
  StatsEndPass({});
  lumo_stats_agent agent = Agent();
  EXPECT_EQ(agent.clients, 1U);
  EXPECT_EQ(agent.accepted, 1U);
  EXPECT_EQ(agent.requests, 1U);
  EXPECT_EQ(agent.management, 1U);
  EXPECT_EQ(agent.bytes_in, 208U);
  EXPECT_EQ(agent.bytes_out, 110U);
  EXPECT_EQ(agent.parked, 1U);
  StatsClientClosed(pair[0], LUMO_STATS_NOT_READING);
  StatsClientClosed(pair[0], LUMO_STATS_OTHER);  // once is enough
  EXPECT_EQ(Client(row).used, 0U);
  agent = Agent();
  EXPECT_EQ(agent.clients, 0U);
  EXPECT_EQ(agent.clients_most, 1U);
  EXPECT_EQ(agent.closed[LUMO_STATS_NOT_READING], 1U);
  EXPECT_EQ(agent.closed[LUMO_STATS_OTHER], 0U);
  close(pair[0]);
  close(pair[1]);
}

TEST_F(StatsPageRows, NumbersThatNoRowHasAreIgnored) {
  for (const int fd : {-1, 1024, 99999}) {
    StatsClientOpened(fd, 1);
    StatsRequest(fd, 1, 1, false);
    StatsAnswer(fd, {0, 1, 0}, {1, 1});
    StatsTellCounts(0, {}, fd, {1, 1});
    StatsClientClosed(fd, LUMO_STATS_HUNG_UP);
  }
  for (const int row : {-1, 0, 512}) {
    StatsSent(row, 1, {1, 1}, row, {1, 1});
    StatsNodeAnswer(row, 1, 0, {1, 1});
    StatsLinkState(row, 1);
    StatsTellCounts(row, {1, 1}, row, {1, 1});
  }
  EXPECT_EQ(Agent().clients, 0U);
  lumo_stats_link link;
  EXPECT_EQ(lumo_stats_read_link(stats_, Header().link_count, &link, sizeof link),
            LUMO_BAD_ARGUMENT);
}

TEST_F(StatsPageRows, LinkTellsItsWay) {
  const int row = NewConnectedLink();
  StatsLinkState(row, LUMO_STATS_CONNECTED);
  StatsPass();
  const std::int64_t sent = StatsClock();
  StatsSent(row, 108, {2, 4}, -1, {});
  EXPECT_EQ(Link(row).in_flight, 2U);
  EXPECT_EQ(Link(row).waiting, 4U);
  StatsTellCounts(row, {2, 3}, -1, {});
  EXPECT_EQ(Link(row).waiting, 3U);
  g_Stats.Clock = sent + 1000;
  StatsNodeAnswer(row, 120, sent, {1, 5});
  StatsUnasked(row);
  StatsWatchdog(row);
  StatsFailedRequest(row);
  StatsLinkUnsent(row, 9);
  const lumo_stats_link link = Link(row);
  EXPECT_STREQ(link.name, "SRV1");
  EXPECT_STREQ(link.protocol, "TCPIP");
  EXPECT_STREQ(link.address, "127.0.0.1 1060");
  EXPECT_EQ(link.state, static_cast<std::uint32_t>(LUMO_STATS_CONNECTED));
  EXPECT_EQ(link.connects_tried, 2U);
  EXPECT_EQ(link.connects_made, 1U);
  EXPECT_EQ(link.connects_failed, 1U);
  EXPECT_EQ(link.failed_code, 4006);
  EXPECT_EQ(link.failed_errno, ECONNREFUSED);
  EXPECT_NE(link.failed_at, 0);
  EXPECT_EQ(link.requests, 1U);
  EXPECT_EQ(link.answers, 1U);
  EXPECT_EQ(link.unasked, 1U);
  EXPECT_EQ(link.bytes_out, 108U);
  EXPECT_EQ(link.bytes_in, 120U);
  EXPECT_EQ(link.watchdogs, 1U);
  EXPECT_EQ(link.failed_requests, 1U);
  EXPECT_EQ(link.in_flight, 1U);
  EXPECT_EQ(link.waiting, 5U);
  EXPECT_EQ(link.unsent, 9U);
  EXPECT_EQ(link.latency_sum, 1000U);
  EXPECT_EQ(link.latency_count, 1U);
  EXPECT_EQ(link.latency[lumo_stats_bucket(1000)], 1U);
  EXPECT_EQ(Agent().node_answers, 0U);  // the agent's traffic is shown once a pass
  StatsEndPass({2, 6});
  EXPECT_EQ(Agent().node_answers, 1U);
  EXPECT_EQ(Agent().in_flight, 2U);
  EXPECT_EQ(Agent().waiting, 6U);
}

TEST_F(StatsPageRows, RowOfADeletedLinkServesTheNextOne) {
  const int first = NewLinkStats("ONE", "TCPIP", "");
  const int second = NewLinkStats("TWO", "REZ", nullptr);
  StatsSent(first, 5, {}, -1, {});
  StatsDefaultLink(first);
  const std::uint32_t serial = Link(first).serial;
  FreeLinkStats(first);
  EXPECT_EQ(Link(first).used, 0U);
  EXPECT_EQ(Agent().default_link, -1);
  EXPECT_EQ(Agent().links, 1U);
  EXPECT_EQ(NewLinkStats("THREE", "TCPIP", "h"), first);
  EXPECT_STREQ(Link(first).name, "THREE");
  EXPECT_EQ(Link(first).requests, 0U);
  EXPECT_NE(Link(first).serial, serial);
  RenewLinkStats(second, "TCPIP", "elsewhere");
  EXPECT_STREQ(Link(second).address, "elsewhere");
}

TEST_F(StatsPageRows, MoreLinksThanRowsAreCountedOnly) {
  const int count = static_cast<int>(Header().link_count);
  for (int i = 0; i < count; ++i) ASSERT_EQ(NewLinkStats("N", "REZ", ""), i);
  EXPECT_EQ(NewLinkStats("LAST", "REZ", ""), kNoStatsRow);
  EXPECT_EQ(Agent().links, static_cast<std::uint32_t>(count) + 1);
  FreeLinkStats(kNoStatsRow);
  EXPECT_EQ(Agent().links, static_cast<std::uint32_t>(count));
}

TEST_F(StatsPageRows, DefaultThatMovesIsCounted) {
  StatsDefaultLink(3);
  EXPECT_EQ(Agent().default_moves, 0U);
  StatsDefaultLink(3);
  StatsDefaultLink(4);
  StatsDefaultLink(3);
  EXPECT_EQ(Agent().default_moves, 2U);
  EXPECT_EQ(Agent().default_link, 3);
}

TEST_F(StatsPageRows, AnswersOfTheAgentAreCountedByCode) {
  for (int i = 0; i < 3; ++i) StatsAgentAnswer(kStatusConnect);
  StatsAgentAnswer(0);
  for (int code = 1; code <= 40; ++code) StatsAgentAnswer(code);
  const lumo_stats_agent agent = Agent();
  EXPECT_EQ(agent.agent_answers, 44U);
  EXPECT_EQ(agent.codes[0].code, kStatusConnect);
  EXPECT_EQ(agent.codes[0].count, 3U);
  EXPECT_EQ(agent.codes[1].code, 0);
  EXPECT_EQ(agent.codes[1].used, 1U);
  EXPECT_EQ(agent.codes[LUMO_STATS_CODES - 1].used, 0U);
  EXPECT_EQ(agent.codes[LUMO_STATS_CODES - 1].count, 11U);  // 29 of the 40 had a place
}

TEST_F(StatsPageRows, RestIsAsItIsTold) {
  StatsClientRefused();
  StatsLogLost(12);
  StatsLogLevel(15);
  const lumo_stats_agent agent = Agent();
  EXPECT_EQ(agent.refused, 1U);
  EXPECT_EQ(agent.log_lost, 12U);
  EXPECT_EQ(agent.log_level, 15U);
}

// A writer that never rests and readers of each row: what belongs together is seen together.
TEST_F(StatsPageRows, ReadersGetEachRowWhole) {
  const int row = NewLinkStats("SRV1", "TCPIP", "");
  std::jthread writer([&](const std::stop_token& stop) {
    for (std::int32_t i = 1; !stop.stop_requested(); ++i) {
      StatsSent(row, 7, {i, i}, -1, {});  // bytes_out is 7 times requests
      StatsNodeAnswer(row, 3, StatsClock() - 100, {-i, -i});
      StatsRequest(-1, 0, 11, false);
      StatsEndPass({i, i});
      if (i % 256 == 0) std::this_thread::yield();
    }
  });
  int whole = 0;
  while (whole < 3000) {
    lumo_stats_link link;
    const lumo_status status =
        lumo_stats_read_link(stats_, static_cast<std::uint32_t>(row), &link, sizeof link);
    if (status == LUMO_TIMEOUT) continue;
    ASSERT_EQ(status, LUMO_OK);
    ++whole;
    ASSERT_EQ(link.bytes_out, link.requests * 7);
    ASSERT_EQ(link.in_flight, link.waiting);
    ASSERT_EQ(link.latency_sum, link.latency_count * 100);
    ASSERT_EQ(link.latency[lumo_stats_bucket(100)], link.answers);
    lumo_stats_agent agent;
    if (lumo_stats_read_agent(stats_, &agent, sizeof agent) != LUMO_OK) continue;
    ASSERT_EQ(agent.bytes_in, agent.requests * 11);
  }
}

TEST_F(StatsPageRows, RowThatIsBeingWrittenIsToldAsSuch) {
  const int row = NewLinkStats("SRV1", "TCPIP", "");
  const std::size_t at = Header().links_at + static_cast<std::size_t>(row) * Header().link_size;
  std::uint32_t sequence;
  std::memcpy(&sequence, g_Stats.Base + at, sizeof sequence);
  const std::uint32_t odd = sequence + 1;
  std::memcpy(g_Stats.Base + at, &odd, sizeof odd);
  lumo_stats_link link;
  EXPECT_EQ(lumo_stats_read_link(stats_, static_cast<std::uint32_t>(row), &link, sizeof link),
            LUMO_TIMEOUT);
  EXPECT_STREQ(link.name, "SRV1");
  StatsSent(row, 1, {}, -1, {});  // the next writer brings the row to rest
  EXPECT_EQ(Link(row).requests, 1U);
}

// A page of a later agent: a longer header, longer rows, more of them; and of an earlier one.
class StatsPageGrowth : public test::StatsPageTest {
 protected:
  void Write(std::uint32_t headerSize, std::uint32_t agentSize, std::uint32_t clientSize,
             std::uint32_t linkSize) {
    lumo_stats_header header{};
    std::memcpy(header.magic, LUMO_STATS_MAGIC, sizeof header.magic);
    header.layout = LUMO_STATS_LAYOUT;
    header.header_size = headerSize;
    header.pid = 1;
    header.agent_at = headerSize;
    header.agent_size = agentSize;
    header.clients_at = headerSize + agentSize;
    header.client_size = clientSize;
    header.client_count = 3;
    header.links_at = header.clients_at + 3 * clientSize;
    header.link_size = linkSize;
    header.link_count = 2;
    std::string page(header.links_at + 2 * linkSize, '\x55');
    std::memcpy(page.data(), &header, std::min<std::size_t>(sizeof header, headerSize));
    lumo_stats_agent agent{};
    agent.requests = 12;
    std::memset(page.data() + header.agent_at, 0, 8);
    std::memcpy(page.data() + header.agent_at, &agent,
                std::min(sizeof agent, std::size_t{agentSize}));
    lumo_stats_client client{};
    client.named_pid = 34;
    client.serial = 35;
    std::memcpy(page.data() + header.clients_at + 2 * clientSize, &client,
                std::min(sizeof client, std::size_t{clientSize}));
    lumo_stats_link link{};
    std::strcpy(link.name, "SRV1");
    link.requests = 56;
    link.latency[LUMO_STATS_BUCKETS - 1] = 78;
    std::memcpy(page.data() + header.links_at + linkSize, &link,
                std::min(sizeof link, std::size_t{linkSize}));
    test::WriteFile(Path(), page);
    ASSERT_EQ(Open(), LUMO_OK);
  }
};

TEST_F(StatsPageGrowth, LongerRowsAreReadAsFarAsTheyAreKnown) {
  Write(192, 2048, 96, 4096);
  EXPECT_EQ(Agent().requests, 12U);
  EXPECT_EQ(Client(2).named_pid, 34);
  EXPECT_EQ(Client(2).serial, 35U);
  EXPECT_STREQ(Link(1).name, "SRV1");
  EXPECT_EQ(Link(1).latency[LUMO_STATS_BUCKETS - 1], 78U);
}

TEST_F(StatsPageGrowth, WhatAnOlderPageDoesNotHaveIsZero) {
  Write(128, 632, 56, 168);
  EXPECT_EQ(Agent().requests, 12U);
  EXPECT_EQ(Agent().management, 0U);
  EXPECT_EQ(Client(2).named_pid, 34);
  EXPECT_EQ(Client(2).serial, 0U);
  EXPECT_EQ(Link(1).requests, 56U);
  EXPECT_EQ(Link(1).answers, 0U);
  EXPECT_EQ(Link(1).latency[0], 0U);
}

TEST_F(StatsPageGrowth, CallerWithAShorterRecordGetsItsPart) {
  Write(128, 1280, 64, 3200);
  unsigned char part[24];
  std::memset(part, 0xAA, sizeof part);
  EXPECT_EQ(lumo_stats_read_client(stats_, 2, reinterpret_cast<lumo_stats_client*>(part), 16),
            LUMO_OK);
  std::int32_t pid;
  std::memcpy(&pid, part + offsetof(lumo_stats_client, named_pid), sizeof pid);
  EXPECT_EQ(pid, 34);
  EXPECT_EQ(part[16], 0xAA);
}

TEST_F(StatsPageGrowth, AnotherLayoutIsRefused) {
  Write(128, 1280, 64, 3200);
  std::string page = test::ReadFile(Path());
  page[8] = 2;
  test::WriteFile(Path(), page);
  EXPECT_EQ(Open(), LUMO_BAD_GREETING);
}

TEST(StatsHistogram, EachTimeIsInAPlaceWhoseMiddleIsNear) {
  std::vector<std::uint64_t> times;
  for (std::uint64_t t = 1; t < 5000; ++t) times.push_back(t);
  for (double t = 5000; t <= 60e6; t *= 1.003) times.push_back(static_cast<std::uint64_t>(t));
  times.push_back(60000000);
  double worst = 0;
  for (const std::uint64_t time : times) {
    const std::uint32_t bucket = lumo_stats_bucket(time);
    ASSERT_LT(bucket, static_cast<std::uint32_t>(LUMO_STATS_BUCKETS - 1));
    ASSERT_LE(lumo_stats_bucket_floor(bucket), time);
    ASSERT_GT(lumo_stats_bucket_floor(bucket + 1), time);
    std::vector<std::uint64_t> counts(LUMO_STATS_BUCKETS);
    counts[bucket] = 1;
    const double told = lumo_stats_percentile(counts.data(), 0.5);
    worst = std::max(worst, std::abs(told - static_cast<double>(time)) / static_cast<double>(time));
  }
  EXPECT_LE(worst, 0.032);
  EXPECT_EQ(lumo_stats_bucket(0), 0U);
  EXPECT_EQ(lumo_stats_bucket(UINT64_MAX), static_cast<std::uint32_t>(LUMO_STATS_BUCKETS - 1));
  EXPECT_EQ(lumo_stats_bucket(std::uint64_t{3600} * 1000000),
            static_cast<std::uint32_t>(LUMO_STATS_BUCKETS - 1));
}

TEST(StatsHistogram, PercentilesStandWhereTheyShould) {
  std::vector<std::uint64_t> counts(LUMO_STATS_BUCKETS);
  EXPECT_EQ(lumo_stats_percentile(counts.data(), 0.5), 0);
  EXPECT_EQ(lumo_stats_percentile(nullptr, 0.5), 0);
  counts[10] = 98;
  counts[lumo_stats_bucket(1000)] = 2;
  EXPECT_EQ(lumo_stats_percentile(counts.data(), 0), 10);
  EXPECT_EQ(lumo_stats_percentile(counts.data(), 0.5), 10);
  EXPECT_EQ(lumo_stats_percentile(counts.data(), 0.98), 10);
  EXPECT_NEAR(lumo_stats_percentile(counts.data(), 0.99), 1000, 31);
  EXPECT_NEAR(lumo_stats_percentile(counts.data(), 1), 1000, 31);
  counts[0] = 100;
  EXPECT_EQ(lumo_stats_percentile(counts.data(), 0.5), 0);
  EXPECT_EQ(lumo_stats_percentile(counts.data(), 0.99), 10);
  EXPECT_NEAR(lumo_stats_percentile(counts.data(), 1), 1000, 31);
}

}  // namespace
