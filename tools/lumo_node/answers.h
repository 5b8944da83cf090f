// Answers to requests, good ones and bad ones.
#pragma once
#include <string>

#include "lib/message_codec.h"
#include "tools/lumo_node/database.h"
#include "tools/lumo_node/options.h"

namespace lumo::node {

// Room for the text of an answer whose other strings are empty.
constexpr std::size_t kMaxText = kMaxMessage - kEmptyMessage;

// The SQL of a request: its first counted string without a closing NUL.
std::string RequestSql(const Message& request);
// The link test asks for nothing but an answer.
bool IsLinkTest(const Message& request);
// The load generator wants no answer to it.
bool IsHeld(const Message& request);
// The agent's word that a client has died.
bool IsClientDeath(const Message& request);

// Copies what identifies the request and puts the result into the fourth counted string.
Message MakeAnswer(const Message& request, const QueryResult& result);

// Spoils a good packet.
std::string Spoil(const std::string& frame, Malformed kind);

}  // namespace lumo::node
