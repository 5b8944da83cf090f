// The descriptor that is kept so that connections can be refused when all others are in use.
#include <sys/resource.h>

#include <filesystem>

#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/unit/agent_test.h"

namespace {

class Reserve : public AgentTest {
 protected:
  void SetUp() override {
    AgentTest::SetUp();
    setenv("TAVRIN_TMP", folder_.Path().c_str(), 1);
    g_DbcI.NetMbx = 1;
    const CapturedStdout stdoutText;
    ASSERT_EQ(InitialiseClientQueue(kHere, 1), 0);
    client_ = test::ConnectRaw(folder_.Path() / "tavrin.1");
  }
  void TearDown() override {
    for (int fd = kFirstDescriptor; fd < FD_SETSIZE; ++fd)
      if (FD_ISSET(fd, &g_DbcI.ClientSockets)) CloseClient(fd);
    close(client_);
    close(g_DbcI.ClientListenSocket);
    UninitClientQueue(kHere, 1);
    unsetenv("TAVRIN_TMP");
    AgentTest::TearDown();
  }
  static int AcceptWithoutDescriptors() {
    rlimit former;
    getrlimit(RLIMIT_NOFILE, &former);
    const rlimit none = {.rlim_cur = kFirstDescriptor, .rlim_max = former.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const int result = AcceptNewClientConnection(kHere, 1);
    setrlimit(RLIMIT_NOFILE, &former);
    return result;
  }

 private:
  test::TemporaryDirectory folder_;
  int client_ = -1;
};

TEST_F(Reserve, IsBackWithTheNextConnection) {
  const int before = OpenDescriptors();
  EXPECT_EQ(AcceptWithoutDescriptors(), -1);
  EXPECT_EQ(OpenDescriptors(), before - 1) << "it was given up in vain";
  EXPECT_EQ(AcceptNewClientConnection(kHere, 1), 0);
  EXPECT_EQ(OpenDescriptors(), before + 1);
}

}  // namespace
