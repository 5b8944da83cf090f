// A link that is brought up and broken by its stand-in server.
#pragma once
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tests/process/manager.h"
#include "tests/support/node.h"

namespace test {

// The next request; control packets that come before it are passed over.
inline std::optional<lumo::Message> NextRequest(Node* node) {
  constexpr std::size_t kControlSize = 12;
  std::optional<std::string> frame;
  do {
    frame = node->ReadFrame();
  } while (frame && frame->size() == kControlSize);
  return frame ? lumo::Decode(*frame) : std::nullopt;
}

// One request over the node's link, answered: the link is up.
inline void UseNode(Client* client, Node* node, const std::string& name) {
  const lumo::Message request = client->Send(name, "up");
  ASSERT_TRUE(node->Accept());
  const auto received = NextRequest(node);
  ASSERT_TRUE(received);
  ASSERT_TRUE(node->Answer(*received, "down"));
  EXPECT_EQ(client->ExpectAnswer(request).Strings[0], "down");
}

// An agent that is managed while one of its nodes is in use.
class NodeInUseTest : public ManagerTest {
 protected:
  // The agent runs with this node, between others, and its link is up.
  Manager StartInUse(const std::string& name, const std::string& before = {},
                     const std::string& after = {}) {
    client_.emplace(StartWithClient(before + node_.Line(name) + after));
    UseNode(&*client_, &node_, name);
    return Manager(agent_);
  }
  // The link breaks, and the agent has seen it.
  void Break() {
    node_.Close();
    agent_.Barrier();
  }

  Node node_;
  std::optional<Client> client_;
};

}  // namespace test
