// A statistics page that the test writes with the agent's module, in a directory of its own.
#pragma once
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>

#include "core/dbc.h"
#include "core/stats.h"
#include "lib/include/lumo_stats.h"
#include "tests/support/agent.h"

namespace test {

// Reads the rows of an open page.
class StatsReader {
 protected:
  ~StatsReader() { lumo_stats_close(stats_); }
  lumo_stats_header Header() const {
    lumo_stats_header header;
    EXPECT_EQ(lumo_stats_read_header(stats_, &header, sizeof header), LUMO_OK);
    return header;
  }
  lumo_stats_agent Agent() const {
    lumo_stats_agent agent;
    EXPECT_EQ(lumo_stats_read_agent(stats_, &agent, sizeof agent), LUMO_OK);
    return agent;
  }
  lumo_stats_client Client(std::uint32_t row) const {
    lumo_stats_client client;
    EXPECT_EQ(lumo_stats_read_client(stats_, row, &client, sizeof client), LUMO_OK);
    return client;
  }
  lumo_stats_link Link(int row) const {
    lumo_stats_link link;
    EXPECT_EQ(lumo_stats_read_link(stats_, static_cast<std::uint32_t>(row), &link, sizeof link),
              LUMO_OK);
    return link;
  }

  lumo_stats* stats_ = nullptr;
};

class StatsPageTest : public ::testing::Test, protected StatsReader {
 protected:
  StatsPageTest() {
    setenv("TAVRIN_TMP", folder_.Path().c_str(), 1);
    setenv("LUMO_STATS", "1", 1);
    g_DbcI = {};
    g_DbcI.NetMbx = 4711;
    g_DbcI.Argv = arguments_.data();
  }
  ~StatsPageTest() override {
    if (KeepsStats()) End();
    unsetenv("LUMO_STATS");
    unsetenv("TAVRIN_TMP");
    g_DbcI = {};
  }

  void Begin() { InitialiseStats(); }
  void End() { UninitStats(); }
  std::string Path() const { return (folder_.Path() / "tavrin.4711.stats").string(); }
  lumo_status Open() {
    lumo_stats_close(stats_);
    return lumo_stats_open(Path().c_str(), &stats_);
  }
  void Start() {
    Begin();
    ASSERT_TRUE(KeepsStats());
    ASSERT_EQ(Open(), LUMO_OK);
  }

  TemporaryDirectory folder_;
  std::array<char*, 4> arguments_{const_cast<char*>("lumo_tcp"), const_cast<char*>("-M"),
                                  const_cast<char*>("4711"), nullptr};
};

}  // namespace test
