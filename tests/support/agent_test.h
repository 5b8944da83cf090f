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

  Agent agent_;
};

// The request has come to the server, whose answer with this text reaches the client.
template <class Server>
void ExpectExchange(Client& client, const lumo::Message& request, Server& server,
                    const std::string& text = {}, const Place& place = Place::Here()) {
  const auto received = server.ExpectRequest(place);
  const testing::ScopedTrace trace(place.File, place.Line, "");
  EXPECT_TRUE(server.Answer(received, text));
  EXPECT_EQ(client.ExpectAnswer(request).Strings[0], text);
}

// The same over the server's next connection.
template <class Server>
void ExpectFirstExchange(Client& client, const lumo::Message& request, Server& server,
                         const std::string& text = {}, const Place& place = Place::Here()) {
  if (!server.Accept()) ADD_FAILURE_AT(place.File, place.Line) << "the agent does not connect";
  ExpectExchange(client, request, server, text, place);
}

}  // namespace test
