// What a service manager hears.
#include "core/notify.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "tests/stats/notify_socket.h"

namespace {

class Notify : public testing::Test {
 protected:
  Notify() {
    EXPECT_TRUE(manager_.Listen(manager_.Path()));
    setenv("NOTIFY_SOCKET", manager_.Path().c_str(), 1);
  }
  ~Notify() override {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
    InitialiseNotify();
  }

  static void Begin() {
    InitialiseNotify();
    NotifyReady();
  }

  using Texts = std::vector<std::string>;
  test::NotifySocket manager_;
};

TEST_F(Notify, ManagerHearsOfBeginningStateAndEnd) {
  Begin();
  NotifyTick(12, 3, "SRV1");
  NotifyTick(12, 3, "SRV1");  // nothing new
  NotifyTick(0, 0, nullptr);
  NotifyStopping();
  EXPECT_EQ(manager_.Heard(), (Texts{"READY=1", "STATUS=12 clients, 3 nodes, default SRV1",
                                     "STATUS=0 clients, 0 nodes, no default", "STOPPING=1"}));
}

TEST_F(Notify, SignOfLifeIsGivenWhenItIsAskedFor) {
  setenv("WATCHDOG_USEC", "30000000", 1);
  InitialiseNotify();
  NotifyTick(0, 1, "A");
  NotifyTick(0, 1, "A");
  EXPECT_EQ(manager_.Heard(),
            (Texts{"WATCHDOG=1", "STATUS=0 clients, 1 nodes, default A", "WATCHDOG=1"}));
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  InitialiseNotify();
  NotifyTick(0, 1, "A");
  EXPECT_EQ(manager_.Heard().front(), "WATCHDOG=1");
  setenv("WATCHDOG_PID", "1", 1);  // another process is meant
  InitialiseNotify();
  NotifyTick(0, 1, "A");
  EXPECT_EQ(manager_.Heard(), Texts{"STATUS=0 clients, 1 nodes, default A"});
}

TEST_F(Notify, AbstractNamesAreUnderstood) {
  const std::string name = "@lumo-notify-" + std::to_string(getpid());
  ASSERT_TRUE(manager_.Listen(name));
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  Begin();
  EXPECT_EQ(manager_.Heard(), Texts{"READY=1"});
}

TEST_F(Notify, AbstractNameMayBeOneByte) {
  std::string name = "@!";
  while (!manager_.Listen(name) && name[1] != '~') ++name[1];  // another test may have it
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  Begin();
  EXPECT_EQ(manager_.Heard(), Texts{"READY=1"});
}

TEST_F(Notify, NobodyIsToldWithoutAManager) {
  for (const char* name : {"", "/", "relative"}) {
    setenv("NOTIFY_SOCKET", name, 1);
    InitialiseNotify();
    NotifyReady();
  }
  unsetenv("NOTIFY_SOCKET");
  Begin();
  NotifyTick(1, 1, "A");
  setenv("NOTIFY_SOCKET", std::string(200, '/').c_str(), 1);
  Begin();
  EXPECT_EQ(manager_.Heard(), Texts{});
}

TEST_F(Notify, ManagerThatDoesNotListenHoldsNothingUp) {
  InitialiseNotify();
  for (int i = 0; i < 2000; ++i) NotifyTick(i, 1, "A");  // its queue is full long before
  manager_.Close();
  errno = 77;
  NotifyReady();
  EXPECT_EQ(errno, 77);
}

}  // namespace
