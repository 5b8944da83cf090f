// The loop's wait and the signals whose flags the loop looks at before it.
#include "core/wait.h"

#include <sys/resource.h>
#include <sys/time.h>

#include <csignal>

#include "core/init.h"
#include "tests/unit/agent_test.h"
#include "tests/unit/system_faults.h"

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
    REGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, ends_[0]);
  }
  void TearDown() override {
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &formerAction_, nullptr);
    for (const int signal : {SIGIO, SIGCHLD, SIGTERM, SIGINT}) std::signal(signal, SIG_DFL);
    close(ends_[0]);
    close(ends_[1]);
    EndWait();
    RetryOutput = nullptr;
    AgentTest::TearDown();
  }

  static int Wait(bool atOnce) {
    RetryOutput = atOnce ? +[] { return 0; } : nullptr;
    return WaitForEvents();
  }
  bool Found() const { return FD_ISSET(ends_[0], &g_Ready.Read); }

  static void ExpectFailure(bool atOnce, int error) {
    EXPECT_EQ(Wait(atOnce), -1);
    EXPECT_EQ(errno, error);
  }
  // Something comes, and the wait finds it among so many events.
  void ExpectFound(bool atOnce, int events = 1) {
    ASSERT_EQ(write(ends_[1], "x", 1), 1);
    EXPECT_EQ(Wait(atOnce), events);
    EXPECT_TRUE(Found());
  }

  int ends_[2] = {};
  struct sigaction formerAction_ = {};
};

TEST_F(Waiting, HasNoEndButAnEventOrASignal) {
  ExpectFailure(false, EINTR);
  ExpectFound(false);
}

TEST_F(Waiting, OnlyLooksWhenItIsToldTo) {
  EXPECT_EQ(Wait(true), 0);
  ExpectFound(true);
}

TEST_F(Waiting, FindsInputBehindEpollToo) {
  PrepareWait();
  EXPECT_EQ(Wait(true), 0);
  ExpectFound(false);
}

TEST_F(Waiting, BehindEpollHasNoEndButAnEventOrASignal) {
  PrepareWait();
  ExpectFailure(false, EINTR);
}

TEST_F(Waiting, FindsRoomForOutputBesideInputBehindEpoll) {
  PrepareWait();
  REGISTER_SOCKET_FOR_WRITE_EVENT(kHere, 1, ends_[1]);
  EXPECT_EQ(Wait(false), 1);
  EXPECT_TRUE(FD_ISSET(ends_[1], &g_Ready.Write));
  ExpectFound(false, 2);
}

TEST_F(Waiting, OneDescriptorMayWaitForBothBehindEpoll) {
  const FakeClient client;
  const int fd = client.Socket();
  PrepareWait();
  REGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, fd);
  EXPECT_EQ(Wait(true), 0);
  const FailingSystemCall looks(SystemCall::Select, 0, 1000000, 0);
  REGISTER_SOCKET_FOR_WRITE_EVENT(kHere, 1, fd);
  EXPECT_EQ(Wait(false), 1);
  EXPECT_TRUE(FD_ISSET(fd, &g_Ready.Write));
  EXPECT_EQ(looks.Calls(), 0);
  UNREGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, fd);
  UNREGISTER_SOCKET_FOR_WRITE_EVENT(kHere, 1, fd);
}

TEST_F(Waiting, FindsInputOfWhatEpollRefuses) {
  PrepareWait();
  const int device = open("/dev/null", O_RDWR | O_CLOEXEC);
  REGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, device);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(Wait(false), 1) << i;
    EXPECT_TRUE(FD_ISSET(device, &g_Ready.Read)) << i;
  }
  UNREGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, device);
  REGISTER_SOCKET_FOR_WRITE_EVENT(kHere, 1, device);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(Wait(false), 1) << i;
  UNREGISTER_SOCKET_FOR_WRITE_EVENT(kHere, 1, device);
  close(device);
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
  UNREGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, ends_[0]);
  close(ends_[0]);
  ASSERT_EQ(write(ends_[1], "x", 1), 1);
  EXPECT_EQ(Wait(false), kInterrupted);
  close(copy);
}

TEST_F(Waiting, IsNotEndedByAClientWhoseConnectionIsClosedHereOnly) {
  PrepareWait();
  int connection[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, connection), 0);
  REGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, connection[0]);
  FD_SET(connection[0], &g_DbcI.ClientSockets);
  EXPECT_EQ(Wait(true), 0);
  const int copy = dup(connection[0]);
  CloseClient(connection[0]);
  EXPECT_EQ(Wait(false), kInterrupted);
  close(copy);
  close(connection[1]);
}

// A parked connection's frames wait until it is read again.
TEST_F(Waiting, IsNotEndedByFramesOfADescriptorThatIsNotRead) {
  PrepareWait();
  const FakeClient client;
  const int fd = client.Socket();
  for (int i = 0; i < 2; ++i) client.Send(BytesOf(8) + BytesOf(0));
  constexpr FrameFormat kFrame = {.LengthCounts = 4,
                                  .SmallestLength = 4,
                                  .LargestLength = 8,
                                  .TraceReceive = nullptr,
                                  .TraceLength = nullptr};
  unsigned char area[8192];
  ASSERT_EQ(ReadFrame(fd, area, kFrame), FrameRead::Whole);
  ASSERT_TRUE(FrameWaits(fd));
  REGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, fd);
  EXPECT_EQ(Wait(false), 1);
  EXPECT_TRUE(FD_ISSET(fd, &g_Ready.Read));
  UNREGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, fd);
  EXPECT_EQ(Wait(false), kInterrupted);
  ExpectFound(false);
  EXPECT_FALSE(FD_ISSET(fd, &g_Ready.Read));
}

TEST_F(Waiting, FindsInputOfAConnectionThatHasTheNumberOfAFormerOne) {
  PrepareWait();
  EXPECT_EQ(Wait(true), 0);
  UNREGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, ends_[0]);
  const int number = ends_[0];
  close(ends_[0]);
  close(ends_[1]);
  ASSERT_EQ(pipe(ends_), 0);
  ASSERT_EQ(ends_[0], number);
  REGISTER_SOCKET_FOR_READ_EVENT(kHere, 1, ends_[0]);
  ExpectFound(true);
}

// As select does; the loop then looks for the bad one.
TEST_F(Waiting, FailsWhenWhatIsRegisteredIsNotOpen) {
  PrepareWait();
  close(ends_[0]);
  ExpectFailure(true, EBADF);
}

TEST_F(Waiting, AWaitForAllNoticesADescriptorThatWasClosedMeanwhile) {
  PrepareWait();
  EXPECT_EQ(Wait(true), 0);
  close(ends_[0]);
  EXPECT_EQ(Wait(true), 0) << "epoll does not notice";
  LookAtAllNext();
  ExpectFailure(true, EBADF);
}

TEST_F(Waiting, LeavesTheDescriptorsToOthersWhereThereAreFew) {
  rlimit former;
  getrlimit(RLIMIT_NOFILE, &former);
  const rlimit few = {.rlim_cur = 63, .rlim_max = former.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  const int before = OpenDescriptors();
  PrepareWait();
  setrlimit(RLIMIT_NOFILE, &former);
  EXPECT_EQ(OpenDescriptors(), before);
  ExpectFound(false);
}

// Else a signal would write to whatever gets its number.
TEST_F(Waiting, GivesUpItsOwnDescriptorsTogether) {
  const int before = OpenDescriptors(), own = NextDescriptor();
  PrepareWait();
  EXPECT_EQ(OpenDescriptors(), before + 2);
  StopWaitingFor(own);
  EXPECT_EQ(OpenDescriptors(), before);
  WakeUp();
  EXPECT_EQ(Wait(false), 0);
  ForgetWakeUp();
  EXPECT_EQ(Wait(false), kInterrupted);
}

// One that comes between the look at its flag and the wait would else lie until the next event.
TEST_F(Waiting, IsEndedByASignalThatCameBefore) {
  InitialiseSignalHandlers(kHere, 1);
  InitialiseTimer("wait", __LINE__);
  PrepareWait();
  for (const int signal : {SIGALRM, SIGTERM, SIGINT}) {
    EXPECT_EQ(Wait(true), 0);
    raise(signal);
    ExpectFailure(true, EINTR);
    ForgetWakeUp();
  }
  EXPECT_EQ(g_DbcI.AlarmFlag, 1);
  EXPECT_TRUE(Stopping());
  alarm(0);
}

// With epoll, and with select alone.
class WakingUp : public Waiting, public testing::WithParamInterface<bool> {
 protected:
  static void Prepare() {
    PrepareWait();
    if (!GetParam()) LookAtAllNext();
  }
};

TEST_P(WakingUp, EndsTheNextWaitOnce) {
  Prepare();
  WakeUp();
  ExpectFailure(false, EINTR);
  ForgetWakeUp();
  EXPECT_EQ(Wait(true), 0);
}

TEST_P(WakingUp, IsNoEventBesideOthers) {
  Prepare();
  WakeUp();
  ExpectFound(false);
  for (int fd = 0; fd < FD_SETSIZE; ++fd) EXPECT_EQ(FD_ISSET(fd, &g_Ready.Read), fd == ends_[0]);
}

TEST_P(WakingUp, EndsAWaitForRoomToo) {
  Prepare();
  int full[2];
  ASSERT_EQ(pipe2(full, O_NONBLOCK), 0);
  while (write(full[1], "0123456789", 10) > 0) continue;
  REGISTER_SOCKET_FOR_WRITE_EVENT(kHere, 1, full[1]);
  WakeUp();
  EXPECT_LE(Wait(false), 0);
  close(full[0]);
  close(full[1]);
}

TEST_F(Waiting, KeepsErrnoWhateverItsStepsSay) {
  PrepareWait();
  ASSERT_EQ(write(ends_[1], "x", 1), 1);
  RetryOutput = [] {
    errno = EIO;
    return 0;
  };
  EXPECT_EQ(KeepingErrno(WaitForEvents), 1);
  errno = 77;
  close(ends_[0]);
  StopWaitingFor(ends_[0]);
  EXPECT_EQ(errno, 77);
}

TEST_F(Waiting, ASignalKeepsErrnoWhereTheWaitsDescriptorIsGone) {
  const int own = NextDescriptor();
  PrepareWait();
  close(own);
  errno = 77;
  WakeUp();
  EXPECT_EQ(errno, 77);
}

// Looking for children that have ended finds none here, which is an error of its own.
TEST_F(Waiting, ASignalOfAChildKeepsErrno) {
  InitialiseSignalHandlers(kHere, 1);
  errno = 77;
  raise(SIGCHLD);
  EXPECT_EQ(errno, 77);
}

TEST_F(Waiting, OnlyLooksAfterAWakeUpThatHasNoDescriptor) {
  EndWait();
  WakeUp();
  EXPECT_EQ(Wait(false), 0);
  ForgetWakeUp();
}

TEST_P(WakingUp, KeepsErrno) {
  Prepare();
  errno = 77;
  WakeUp();
  ForgetWakeUp();
  EXPECT_EQ(errno, 77);
}

INSTANTIATE_TEST_SUITE_P(Both, WakingUp, testing::Bool(),
                         [](const auto& with) { return with.param ? "epoll" : "select"; });

}  // namespace
