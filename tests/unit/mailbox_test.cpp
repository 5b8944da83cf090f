// Where the socket files of the machine lie, and the words of a node table line's address.
#include "core/mailbox.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include "protocols/address_text.h"

namespace {

class Mailbox : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* const value = std::getenv("TAVRIN_TMP")) saved_ = value;
  }
  void TearDown() override {
    if (saved_.empty())
      unsetenv("TAVRIN_TMP");
    else
      setenv("TAVRIN_TMP", saved_.c_str(), 1);
  }
  static void SetDirectory(const std::string& directory) {
    setenv("TAVRIN_TMP", directory.c_str(), 1);
  }
  static std::string PathOf(int mbx) {
    MailboxAddress address;
    MakeMailboxAddress(&address, mbx);
    return address.Path;
  }

 private:
  std::string saved_;
};

TEST_F(Mailbox, DirectoryIsTheDefaultOneWithoutTheVariable) {
  unsetenv("TAVRIN_TMP");
  EXPECT_STREQ(MailboxDirectory(), "/tmp/tavrin");
  EXPECT_EQ(PathOf(20562), "/tmp/tavrin/tavrin.20562");
}

TEST_F(Mailbox, DirectoryIsTheVariableUpTo227Characters) {
  const std::string longest(227, 'd');
  SetDirectory(longest);
  EXPECT_EQ(MailboxDirectory(), longest);
  EXPECT_EQ(PathOf(INT_MIN), longest + "/tavrin.-2147483648");
}

TEST_F(Mailbox, DirectoryIsTheDefaultOneFrom228Characters) {
  SetDirectory(std::string(228, 'd'));
  EXPECT_STREQ(MailboxDirectory(), "/tmp/tavrin");
}

TEST_F(Mailbox, EmptyVariableCountsAsSet) {
  SetDirectory("");
  EXPECT_EQ(PathOf(7), "/tavrin.7");
}

TEST_F(Mailbox, AddressIsOfTheUnixFamilyAndThreeBytesLongerThanItsPath) {
  SetDirectory("/some/where");
  MailboxAddress address;
  MakeMailboxAddress(&address, -5);
  EXPECT_STREQ(address.Path, "/some/where/tavrin.-5");
  EXPECT_EQ(address.Length, std::string("/some/where/tavrin.-5").size() + 3);
  EXPECT_EQ(reinterpret_cast<const sockaddr*>(address.Bytes)->sa_family, AF_UNIX);
}

TEST_F(Mailbox, PathThatIsTooLongIsRefusedByTheSystem) {
  SetDirectory(std::string(200, 'd'));
  MailboxAddress address;
  MakeMailboxAddress(&address, 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  errno = 0;
  EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(address.Bytes), address.Length), -1);
  EXPECT_EQ(errno, EINVAL);
  close(fd);
}

TEST(AddressText, WordsAreCutOutOneByOne) {
  char text[] = " \thost  1060\n 0x10";
  char* rest = text;
  EXPECT_STREQ(NextWord(&rest), "host");
  EXPECT_STREQ(NextWord(&rest), "1060");
  EXPECT_STREQ(NextWord(&rest), "0x10");
  EXPECT_STREQ(NextWord(&rest), "");
  EXPECT_STREQ(NextWord(&rest), "");
}

TEST(AddressText, WhiteSpaceRoundAWordBecomesNuls) {
  char text[] = "  ab \t c";
  char* rest = text;
  NextWord(&rest);
  EXPECT_EQ(std::string(text, sizeof text - 1), std::string("\0\0ab\0\0\0c", 8));
}

TEST(AddressText, NumbersAreReadInTheBaseAndKeptInTheirBounds) {
  EXPECT_EQ(WordToNumber("20562abc", 10), 20562);
  EXPECT_EQ(WordToNumber("-5", 10), -5);
  EXPECT_EQ(WordToNumber("0x10", 10), 0);
  EXPECT_EQ(WordToNumber("0x5052", 0), 0x5052);
  EXPECT_EQ(WordToNumber("024", 0), 20);
  EXPECT_EQ(WordToNumber("word", 0), 0);
  EXPECT_EQ(WordToNumber("0xFFFFFFFF", 0), INT_MAX);
  EXPECT_EQ(WordToNumber("-99999999999", 0), INT_MIN);
}

}  // namespace
