// What a service manager hears.
#include "core/notify.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/agent.h"

namespace {

class Notify : public testing::Test {
 protected:
  Notify() {
    path_ = folder_.Path() / "notify";
    EXPECT_TRUE(Listen(path_));
    setenv("NOTIFY_SOCKET", path_.c_str(), 1);
  }
  ~Notify() override {
    close(socket_);
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
    InitialiseNotify();
  }
  // '@' stands for the first byte of an abstract name.
  bool Listen(const std::string& name) {
    if (socket_ >= 0) close(socket_);
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    return bind(socket_, reinterpret_cast<sockaddr*>(&address), length) == 0;
  }
  std::vector<std::string> Heard() const {
    std::vector<std::string> texts;
    char text[256];
    for (ssize_t got; (got = recv(socket_, text, sizeof text, 0)) > 0;)
      texts.emplace_back(text, static_cast<std::size_t>(got));
    return texts;
  }

  using Texts = std::vector<std::string>;
  test::TemporaryDirectory folder_;
  std::string path_;
  int socket_ = -1;
};

TEST_F(Notify, ManagerHearsOfBeginningStateAndEnd) {
  InitialiseNotify();
  NotifyReady();
  NotifyTick(12, 3, "SRV1");
  NotifyTick(12, 3, "SRV1");  // nothing new
  NotifyTick(0, 0, nullptr);
  NotifyStopping();
  EXPECT_EQ(Heard(), (Texts{"READY=1", "STATUS=12 clients, 3 nodes, default SRV1",
                            "STATUS=0 clients, 0 nodes, no default", "STOPPING=1"}));
}

TEST_F(Notify, SignOfLifeIsGivenWhenItIsAskedFor) {
  setenv("WATCHDOG_USEC", "30000000", 1);
  InitialiseNotify();
  NotifyTick(0, 1, "A");
  NotifyTick(0, 1, "A");
  EXPECT_EQ(Heard(), (Texts{"WATCHDOG=1", "STATUS=0 clients, 1 nodes, default A", "WATCHDOG=1"}));
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  InitialiseNotify();
  NotifyTick(0, 1, "A");
  EXPECT_EQ(Heard().front(), "WATCHDOG=1");
  setenv("WATCHDOG_PID", "1", 1);  // another process is meant
  InitialiseNotify();
  NotifyTick(0, 1, "A");
  EXPECT_EQ(Heard(), Texts{"STATUS=0 clients, 1 nodes, default A"});
}

TEST_F(Notify, AbstractNamesAreUnderstood) {
  const std::string name = "@lumo-notify-" + std::to_string(getpid());
  ASSERT_TRUE(Listen(name));
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  InitialiseNotify();
  NotifyReady();
  EXPECT_EQ(Heard(), Texts{"READY=1"});
}

TEST_F(Notify, AbstractNameMayBeOneByte) {
  std::string name = "@!";
  while (!Listen(name) && name[1] != '~') ++name[1];  // another test may have it
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  InitialiseNotify();
  NotifyReady();
  EXPECT_EQ(Heard(), Texts{"READY=1"});
}

TEST_F(Notify, NobodyIsToldWithoutAManager) {
  for (const char* name : {"", "/", "relative"}) {
    setenv("NOTIFY_SOCKET", name, 1);
    InitialiseNotify();
    NotifyReady();
  }
  unsetenv("NOTIFY_SOCKET");
  InitialiseNotify();
  NotifyReady();
  NotifyTick(1, 1, "A");
  setenv("NOTIFY_SOCKET", std::string(200, '/').c_str(), 1);
  InitialiseNotify();
  NotifyReady();
  EXPECT_EQ(Heard(), Texts{});
}

TEST_F(Notify, ManagerThatDoesNotListenHoldsNothingUp) {
  InitialiseNotify();
  for (int i = 0; i < 2000; ++i) NotifyTick(i, 1, "A");  // its queue is full long before
  close(socket_);
  socket_ = -1;
  errno = 77;
  NotifyReady();
  EXPECT_EQ(errno, 77);
}

}  // namespace
