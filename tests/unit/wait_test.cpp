// The loop's wait and the signals whose flags the loop looks at before it.
#include "core/wait.h"

#include <sys/resource.h>
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
    EndWait();
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

TEST_F(Waiting, FindsInputBehindEpollToo) {
  PrepareWait();
  EXPECT_EQ(Wait(true), 0);
  ASSERT_EQ(write(ends_[1], "x", 1), 1);
  EXPECT_EQ(Wait(false), 1);
  EXPECT_TRUE(Found());
}

TEST_F(Waiting, BehindEpollHasNoEndButAnEventOrASignal) {
  PrepareWait();
  EXPECT_EQ(Wait(false), kInterrupted);
  EXPECT_EQ(errno, EINTR);
  g_DbcI.AlarmFlag = 1;
  EXPECT_EQ(Wait(false), 0);
}

TEST_F(Waiting, FindsRoomForOutputBesideInputBehindEpoll) {
  PrepareWait();
  REGISTER_SOCKET_FOR_WRITE_EVENT("wait", __LINE__, ends_[1]);
  EXPECT_EQ(Wait(false), 1);
  EXPECT_TRUE(FD_ISSET(ends_[1], &readyForWrite_));
  ASSERT_EQ(write(ends_[1], "x", 1), 1);
  EXPECT_EQ(Wait(false), 2);
  EXPECT_TRUE(Found());
}

TEST_F(Waiting, EndOfTheStreamCountsAsInput) {
  PrepareWait();
  close(ends_[1]);
  EXPECT_EQ(Wait(false), 1);
  EXPECT_TRUE(Found());
}

// Another process may have a copy of what is closed here, as the readers of local queues have.
TEST_F(Waiting, ReportsNothingOfADescriptorThatIsClosedHereOnly) {
  PrepareWait();
  EXPECT_EQ(Wait(true), 0);
  const int copy = dup(ends_[0]);
  UNREGISTER_SOCKET_FOR_READ_EVENT("wait", __LINE__, ends_[0]);
  close(ends_[0]);
  ASSERT_EQ(write(ends_[1], "x", 1), 1);
  EXPECT_EQ(Wait(true), 0);
  close(copy);
}

TEST_F(Waiting, FindsInputOfAConnectionThatHasTheNumberOfAFormerOne) {
  PrepareWait();
  EXPECT_EQ(Wait(true), 0);
  UNREGISTER_SOCKET_FOR_READ_EVENT("wait", __LINE__, ends_[0]);
  const int number = ends_[0];
  close(ends_[0]);
  close(ends_[1]);
  ASSERT_EQ(pipe(ends_), 0);
  ASSERT_EQ(ends_[0], number);
  REGISTER_SOCKET_FOR_READ_EVENT("wait", __LINE__, ends_[0]);
  ASSERT_EQ(write(ends_[1], "x", 1), 1);
  EXPECT_EQ(Wait(true), 1);
}

// As select does; the loop then looks for the bad one.
TEST_F(Waiting, FailsWhenWhatIsRegisteredIsNotOpen) {
  PrepareWait();
  close(ends_[0]);
  EXPECT_EQ(Wait(true), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(Waiting, AWaitForAllNoticesADescriptorThatWasClosedMeanwhile) {
  PrepareWait();
  EXPECT_EQ(Wait(true), 0);
  close(ends_[0]);
  EXPECT_EQ(Wait(true), 0) << "epoll does not notice";
  LookAtAllNext();
  EXPECT_EQ(Wait(true), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(Waiting, TakesNoNumberThatALinkCouldHave) {
  const int before = dup(ends_[0]);
  close(before);
  PrepareWait();
  const int after = dup(ends_[0]);
  close(after);
  EXPECT_EQ(after, before);
}

TEST_F(Waiting, DoesWithoutEpollWhereThereAreTooFewDescriptors) {
  rlimit former;
  getrlimit(RLIMIT_NOFILE, &former);
  const rlimit few = {.rlim_cur = 300, .rlim_max = former.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  const int before = OpenDescriptors();
  PrepareWait();
  setrlimit(RLIMIT_NOFILE, &former);
  EXPECT_EQ(OpenDescriptors(), before);
  ASSERT_EQ(write(ends_[1], "x", 1), 1);
  EXPECT_EQ(Wait(false), 1);
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
