// The table of codes: against the agent's own list, and against the header's enumeration.
#include <cerrno>
#include <fstream>
#include <map>
#include <set>

#include "tests/lib/lib_setting.h"

namespace {

// Name and number of each enumerator of a header whose name begins so.
std::map<std::string, int> Enumerators(const std::string& header, const std::string& prefix) {
  std::map<std::string, int> found;
  std::ifstream words(std::string(LUMO_SOURCE_DIR) + header);
  for (std::string name, equals, number; words >> name;) {
    if (name.rfind(prefix, 0) != 0 || !(words >> equals) || equals != "=") continue;
    if (words >> number) found[name] = std::stoi(number);
  }
  return found;
}

std::set<int> CodesOfTheTable() {
  std::set<int> codes;
  std::int32_t code = 0;
  for (std::size_t i = 0; lumo_code_at(i, &code) == LUMO_OK; ++i) codes.insert(code);
  return codes;
}

TEST(Codes, TableHasExactlyTheAgentsCodes) {
  std::set<int> codes{0, -1};  // success, and what a local socket's driver returns by itself
  for (const auto& [name, number] : Enumerators("/core/status.h", "kStatus")) codes.insert(number);
  EXPECT_GT(codes.size(), 10u);
  EXPECT_EQ(CodesOfTheTable(), codes);
}

TEST(Codes, EachHasTheNameOfItsEnumerator) {
  const auto enumerators = Enumerators("/lib/include/lumo.h", "LUMO_CODE_");
  EXPECT_EQ(enumerators.size(), CodesOfTheTable().size());
  for (const auto& [name, number] : enumerators) EXPECT_STREQ(lumo_code_name(number), name.c_str());
}

TEST(Codes, EachHasWordsAndAdvice) {
  for (const int code : CodesOfTheTable()) {
    ASSERT_NE(lumo_code_text(code), nullptr) << code;
    EXPECT_GT(std::string(lumo_code_text(code)).size(), 5u);
    EXPECT_EQ(lumo_code_advice(code, 0) == LUMO_ADVICE_NONE, code == 0) << code;
  }
}

TEST(Codes, AnotherNumberHasNothing) {
  for (const int code : {1, -2, 4003, 9999}) {
    EXPECT_EQ(lumo_code_name(code), nullptr);
    EXPECT_EQ(lumo_code_text(code), nullptr);
    EXPECT_EQ(lumo_code_advice(code, EIO), LUMO_ADVICE_NONE);
  }
}

// The circle gives these two also to requests that went out over the link that broke.
TEST(Codes, AFailedConnectionIsOnlySafeToRepeatWithASystemError) {
  for (const int code : {1001, 4006}) {
    EXPECT_EQ(lumo_code_advice(code, ECONNREFUSED), LUMO_ADVICE_RETRY);
    EXPECT_EQ(lumo_code_advice(code, 0), LUMO_ADVICE_UNSURE);
  }
  EXPECT_EQ(lumo_code_advice(4009, 0), LUMO_ADVICE_UNSURE);
  EXPECT_EQ(lumo_code_advice(4050, 0), LUMO_ADVICE_FIX_TABLE);
  EXPECT_EQ(lumo_code_advice(4200, 0), LUMO_ADVICE_RETRY);
}

TEST(Codes, EndOfTheListIsTold) {
  std::int32_t code = 7;
  EXPECT_EQ(lumo_code_at(1000, &code), LUMO_BAD_ARGUMENT);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(lumo_code_at(0, nullptr), LUMO_BAD_ARGUMENT);
}

TEST(Codes, EachStatusHasTheNameOfItsEnumerator) {
  const std::map<std::string, int> all = Enumerators("/lib/include/lumo.h", "LUMO_");
  std::map<std::string, int> found;
  for (const auto& [name, number] : all)
    if (lumo_status_name(number) == name) found[name] = number;
  ASSERT_EQ(found.size(), static_cast<std::size_t>(all.at("LUMO_BAD_ANSWER")) + 1);
  for (const auto& [name, number] : found)
    EXPECT_STRNE(lumo_status_text(number), "unknown status") << name;
  EXPECT_STREQ(lumo_status_name(99), "LUMO_STATUS_UNKNOWN");
  EXPECT_STREQ(lumo_status_text(-1), "unknown status");
}

TEST(Codes, OtherNumbersHaveWords) {
  std::set<std::string> texts;
  for (int reason = LUMO_REASON_NONE; reason <= LUMO_REASON_NO_MEMORY; ++reason)
    texts.insert(lumo_reason_text(reason));
  EXPECT_EQ(texts.size(), 6u);
  for (int advice = LUMO_ADVICE_NONE; advice <= LUMO_ADVICE_ASK_PERMISSION; ++advice)
    texts.insert(lumo_advice_text(advice));
  EXPECT_EQ(texts.size(), 11U);
  for (const int result : {0, 1, 3, 4, 5, 17, 33, 129}) texts.insert(lumo_result_text(result));
  EXPECT_EQ(texts.size(), 19U);
  EXPECT_STREQ(lumo_result_text(2), "unknown result");
}

TEST(Version, LibraryAndHeaderAgree) {
  EXPECT_STREQ(lumo_version(), LUMO_VERSION);
  EXPECT_EQ(std::string(LUMO_VERSION), std::to_string(LUMO_VERSION_MAJOR) + "." +
                                           std::to_string(LUMO_VERSION_MINOR) + "." +
                                           std::to_string(LUMO_VERSION_PATCH));
}

}  // namespace
