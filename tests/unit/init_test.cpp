// The texts that tell the version, and the arguments.
#include "core/init.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

TEST(VersionText, HasASelectorForEachForm) {
  EXPECT_STREQ(GetVersionString(0), "Vanx Embedded v. 6.0.42.18 for LINUX (Socket)");
  EXPECT_STREQ(GetVersionString(2), "6.0.42.18");
  EXPECT_STREQ(GetVersionString(3), "Vanx Embedded");
  EXPECT_STREQ(GetVersionString(4), "Vanx Embedded v. 6.0.42.18");
}

TEST(VersionText, TheLegalNoticeHasThreeLinesAndFitsTheBuffer) {
  const std::string notice = GetVersionString(1);
  EXPECT_EQ(std::count(notice.begin(), notice.end(), '\n'), 2);
  EXPECT_GT(notice.size(), 100u);
  EXPECT_LT(notice.size(), 255u) << "or it was cut";
}

TEST(VersionText, IsEmptyForOtherSelectorsAndClearedBetween) {
  const char* const text = GetVersionString(0);
  EXPECT_EQ(GetVersionString(5), text) << "one buffer for all";
  EXPECT_STREQ(text, "");
  EXPECT_STREQ(GetVersionString(-1), "");
  EXPECT_TRUE(std::all_of(text, text + 256, [](char c) { return c == '\0'; }));
}

TEST(Arguments, AreFoundByTheirKeyOnly) {
  char name[] = "lumo_tcp", key[] = "-M", value[] = "5";
  char* all[] = {name, key, value, nullptr};
  EXPECT_STREQ(GetArgument(1, all, "M"), "5");
  EXPECT_EQ(GetArgument(1, all, "N"), nullptr);
}

TEST(Arguments, WithoutANameThereAreNone) {
  char key[] = "-M", value[] = "5";
  char* none[] = {nullptr, key, value, nullptr};
  EXPECT_EQ(GetArgument(1, none, "M"), nullptr);
  EXPECT_EQ(GetArgument(1, nullptr, "M"), nullptr);
}

}  // namespace
