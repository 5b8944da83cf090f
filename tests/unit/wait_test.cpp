// The loop's wait and the signals whose flags the loop looks at before it.
#include "core/wait.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/unit/agent_test.h"

namespace {

constexpr int kInterrupted = -1;  // by the alarm below: the wait had begun

class Waiting : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &formerAction_);
    const itimerval soonAndAgain = {{0, 100000}, {0, 100000}};
    setitimer(ITIMER_REAL, &soonAndAgain, nullptr);
    EXPECT_EQ(pipe(ends_), 0);
    REGISTER_SOCKET_FOR_READ_EVENT("wait", __LINE__, ends_[0]);
  }
  void TearDown() override {
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &formerAction_, nullptr);
    close(ends_[0]);
    close(ends_[1]);
    AgentTest::TearDown();
  }

  int Wait(bool atOnce) { return WaitForEvents(atOnce, &readyForRead_, &readyForWrite_, -1); }
  bool Found() const { return FD_ISSET(ends_[0], &readyForRead_); }

  int ends_[2] = {};
  fd_set readyForRead_ = {}, readyForWrite_ = {};
  struct sigaction formerAction_ = {};
};

TEST_F(Waiting, HasNoEndButAnEventOrASignal) {
  EXPECT_EQ(Wait(false), kInterrupted);
  EXPECT_EQ(errno, EINTR);
  ASSERT_EQ(write(ends_[1], "x", 1), 1);
  EXPECT_EQ(Wait(false), 1);
  EXPECT_TRUE(Found());
}

TEST_F(Waiting, OnlyLooksWhenItIsToldTo) {
  EXPECT_EQ(Wait(true), 0);
  ASSERT_EQ(write(ends_[1], "x", 1), 1);
  EXPECT_EQ(Wait(true), 1);
  EXPECT_TRUE(Found());
}

TEST_F(Waiting, EndsAtOnceForATickThatCameSinceTheFlagsWereLookedAt) {
  g_DbcI.AlarmFlag = 1;
  EXPECT_EQ(Wait(false), 0);
}

TEST_F(Waiting, EndsAtOnceForAStopThatCameSinceTheFlagsWereLookedAt) {
  g_DbcI.ExitStatus = -1;
  EXPECT_EQ(Wait(false), 0);
}

}  // namespace
