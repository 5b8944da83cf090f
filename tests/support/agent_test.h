// The fixture of the tests with one agent, which all use the agent and clients of it.
#pragma once
#include <gtest/gtest.h>

#include <string>

#include "tests/support/agent.h"
#include "tests/support/client.h"
#include "tests/support/place.h"

namespace test {

class AgentTest : public testing::Test {
 protected:
  // The agent runs, with this node table; otherwise the test is over.
  void StartAgent(const Place& place = Place::Here());
  void StartAgent(const std::string& nodetab, const Place& place = Place::Here());
  // The same, and a client of it.
  Client StartWithClient(const Place& place = Place::Here());
  Client StartWithClient(const std::string& nodetab, const Place& place = Place::Here());
  // The same with another agent.
  static void StartAgent(Agent& agent, const Place& place = Place::Here());
  static Client StartWithClient(Agent& agent, const Place& place = Place::Here());
  // The agent, if the test has not seen its end, has lived on and stops in order.
  void TearDown() override;

  Agent agent_;
};

// The server's answer with this text, to what it has received, reaches the client.
template <class Server, class Received>
void ExpectAnswered(Client& client, const lumo::Message& request, Server& server,
                    const Received& received, const std::string& text = {},
                    const Place& place = Place::Here()) {
  const testing::ScopedTrace trace(place.File, place.Line, "");
  EXPECT_TRUE(server.Answer(received, text));
  EXPECT_EQ(client.ExpectAnswer(request).Strings[0], text);
}

// The request has come to the server, whose answer with this text reaches the client.
template <class Server>
void ExpectExchange(Client& client, const lumo::Message& request, Server& server,
                    const std::string& text = {}, const Place& place = Place::Here()) {
  ExpectAnswered(client, request, server, server.ExpectRequest(place), text, place);
}

// The same over the server's next connection.
template <class Server>
void ExpectFirstExchange(Client& client, const lumo::Message& request, Server& server,
                         const std::string& text = {}, const Place& place = Place::Here()) {
  if (!server.Accept()) ADD_FAILURE_AT(place.File, place.Line) << "the agent does not connect";
  ExpectExchange(client, request, server, text, place);
}

}  // namespace test
