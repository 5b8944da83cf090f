// An agent with a local kernel behind a message queue, for the tests of both sides.
#pragma once
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <optional>

#include "tests/process/local_kernel.h"
#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/kernel.h"
#include "tests/support/process.h"

namespace test {

// An agent with one kernel, and a client of it whose connection is older than the link.
struct IpcSetting {
  IpcSetting() { Subject.Nodetab(Kernel.Line("K") + "OTHER REZ\n"); }
  bool Start() {
    if (!Subject.Start()) return false;
    Application.emplace(Subject);
    return true;
  }
  // A request over the link, answered. Returns the process id of the reader.
  pid_t Use(Client* client) {
    const lumo::Message request = client->Send("K", "question");
    const auto received = Kernel.ReadRequest();
    if (!received) return 0;
    EXPECT_EQ(received->Message.Strings[0], "question");
    EXPECT_TRUE(Kernel.Answer(*received, "answer"));
    EXPECT_EQ(client->ExpectAnswer(request).Strings[0], "answer");
    return received->Reader;
  }
  pid_t Use() { return Use(&*Application); }
  // Starts, brings the link up and returns the reader.
  pid_t Connect() { return Start() ? Use() : 0; }
  // A request that the kernel has read.
  lumo::Message InFlight() {
    const lumo::Message request = Application->Send("K");
    Kernel.ExpectRequest();
    return request;
  }
  // The reader waits for the next answer, and the agent knows of those that it gave.
  void Settle(pid_t reader) {
    EXPECT_TRUE(WaitFor([&] { return ProcessStatus(reader, "State").rfind('S', 0) == 0; }));
    Subject.Barrier();
  }
  int Attached() const {
    shmid_ds state{};
    shmctl(shmget(Kernel.Key(), 0, 0), IPC_STAT, &state);
    return static_cast<int>(state.shm_nattch);
  }

  IpcKernel Kernel;
  Agent Subject;
  std::optional<Client> Application;
};

class IpcTest : public testing::Test, protected IpcSetting {};

}  // namespace test
