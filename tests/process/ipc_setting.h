// An agent with a local kernel behind a message queue, for the tests of both sides.
#pragma once
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <optional>

#include "tests/process/manager.h"
#include "tests/support/kernel.h"
#include "tests/support/process.h"

namespace test {

// An agent with one kernel, and a client of it whose connection is older than the link.
class IpcTest : public ManagerTest {
 protected:
  IpcTest() { agent_.Nodetab(kernel_.Line("K") + "OTHER REZ\n"); }
  void Start(const Place& place = Place::Here()) { client_.emplace(StartWithClient(place)); }
  // A request over the link, answered. Returns the process id of the reader.
  pid_t Use(Client* client, const Place& place = Place::Here()) {
    const lumo::Message request = client->Send("K", "question");
    const IpcKernel::Request received = kernel_.ExpectRequest(place);
    EXPECT_EQ(received.Message.Strings[0], "question");
    ExpectAnswered(*client, request, kernel_, received, "answer", place);
    return received.Reader;
  }
  pid_t Use(const Place& place = Place::Here()) { return Use(&*client_, place); }
  // Starts, brings the link up and returns the reader.
  pid_t Connect(const Place& place = Place::Here()) {
    Start(place);
    return Use(place);
  }
  // A request that the kernel has read.
  lumo::Message InFlight() {
    const lumo::Message request = client_->Send("K");
    kernel_.ExpectRequest();
    return request;
  }
  // The reader waits for the next answer, and the agent knows of those that it gave.
  void Settle(pid_t reader) {
    EXPECT_TRUE(WaitFor([&] { return Sleeps(reader); }));
    agent_.Barrier();
  }
  pid_t ConnectAndSettle(const Place& place = Place::Here()) {
    const pid_t reader = Connect(place);
    Settle(reader);
    return reader;
  }
  int Attached() const {
    shmid_ds state{};
    shmctl(shmget(kernel_.Key(), 0, 0), IPC_STAT, &state);
    return static_cast<int>(state.shm_nattch);
  }

  IpcKernel kernel_;
  std::optional<Client> client_;
};

}  // namespace test
