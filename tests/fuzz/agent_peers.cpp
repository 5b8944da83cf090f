#include "tests/fuzz/agent_peers.h"

#include <cerrno>
#include <cstring>

#include "client/message.h"
#include "client/primitiv.h"
#include "core/dbc.h"
#include "core/stream.h"
#include "tests/fuzz/agent_state.h"
#include "tests/fuzz/world.h"

namespace {

using world::At;
using world::Kind;

constexpr std::size_t kGreetingSize = 60;
constexpr std::size_t kSeenMax = 64;
constexpr std::size_t kInputMax = 65536;  // of a connection, not read by the agent yet
constexpr std::size_t kSmallestAnswer = 108;

std::map<int, ClientPeer> clients;
std::deque<Tag> seen;
const peers::Watch* watch;
bool anythingMayCome;

std::uint32_t Word(const std::string& bytes, std::size_t at = 0) {
  std::uint32_t word;
  std::memcpy(&word, bytes.data() + at, sizeof word);
  return word;
}

Tag TagAt(const std::string& frame, std::int32_t taskName, std::size_t trailer) {
  const unsigned char* const bytes = reinterpret_cast<const unsigned char*>(frame.data()) + trailer;
  return {taskName, Get(bytes, kTrailerAstInd)};
}

// The tag of a request, or false: the agent refuses the frame.
bool TagOfRequest(const std::string& frame, Tag* tag) {
  static ClientMessage msg;
  std::memcpy(Wire(&msg), frame.data(), frame.size());
  if (LocateTrailer(&msg, frame.size(), kMessageMax) != 0) return false;
  *tag = {msg.TaskName, Get(Trailer(&msg), kTrailerAstInd)};
  return true;
}

// Cuts what has arrived into requests, as the agent has to.
void NoteRequests(int fd, ClientPeer* client) {
  std::string& bytes = client->Unparsed;
  while (!client->Broken && bytes.size() >= 4) {
    const std::uint32_t length = Word(bytes);
    if (length <= 4 || length > kMessageMax) {
      client->Broken = true;
      return;
    }
    if (bytes.size() < length) return;
    Tag tag;
    if (!TagOfRequest(bytes.substr(0, length), &tag)) {
      client->Broken = true;
      return;
    }
    ++client->Waiting[tag];
    if (watch) watch->Asked(fd, tag, bytes.substr(0, length));
    bytes.erase(0, length);
  }
}

void TakeAnswer(int fd, ClientPeer* client, const std::string& frame) {
  const Tag tag =
      TagAt(frame, static_cast<std::int32_t>(Word(frame, 4)), frame.size() - kTrailerSize);
  const auto waiting = client->Waiting.find(tag);
  if (waiting == client->Waiting.end() && anythingMayCome) return;
  if (waiting == client->Waiting.end())
    world::Violated("an answer (%d, %u) on connection %d that nobody asked for", tag.first,
                    tag.second, fd);
  if (--waiting->second == 0) client->Waiting.erase(waiting);
  if (watch) watch->Answered(fd, tag, frame);
}

void TakeAnswers(int fd, ClientPeer* client) {
  std::string& bytes = client->Received;
  bytes += At(fd).Output;
  At(fd).Output.clear();
  if (!client->Greeted && bytes.size() >= kGreetingSize) {
    bytes.erase(0, kGreetingSize);
    client->Greeted = true;
  }
  while (client->Greeted && bytes.size() >= 4) {
    const std::uint32_t length = Word(bytes);
    if (length < kSmallestAnswer || length > kMessageArea + 4)
      world::Violated("an answer of %u bytes", length);
    if (bytes.size() < length) return;
    TakeAnswer(fd, client, bytes.substr(0, length));
    bytes.erase(0, length);
  }
}

void Remember(int node, const std::string& frame, std::int32_t taskName) {
  seen.push_back(TagAt(frame, taskName, frame.size() - kTrailerSize));
  if (watch) watch->Arrived(node, seen.back(), frame);
  if (seen.size() > kSeenMax) seen.pop_front();
}

// What a node or kernel has received: whole frames are remembered, the rest stays.
void TakeRequests(int fd) {
  std::string& bytes = At(fd).Output;
  const std::size_t extra = At(fd).What == Kind::Node ? 4 : 0;
  while (bytes.size() >= 4) {
    const std::size_t size = Word(bytes) + extra;
    if (size < 12 || size > kMessageArea + 4) world::Violated("a request of %zu bytes", size);
    if (bytes.size() < size) return;
    if (size >= kSmallestAnswer)
      Remember(fd, bytes.substr(0, size), static_cast<std::int32_t>(Word(bytes, 4)));
    bytes.erase(0, size);
  }
}

// In the queue the task name is the reader's; the client's is in the trailer.
void TakeQueue() {
  for (const std::string& body : world::state.ToKernel) {
    if (body.size() < kSmallestAnswer - 4) continue;
    Remember(-1, body, static_cast<std::int32_t>(Word(body, body.size() - kTrailerSize)));
  }
  world::state.QueueRoom += world::state.ToKernel.size();
  world::state.ToKernel.clear();
}

using Request = std::pair<int, Tag>;  // of a connection

std::map<Request, int> KnownToAgent() {
  std::map<Request, int> known;
  for (const MsgInfo& info : g_DbcI.MsgInfoArray) {
    if (InUse(info)) ++known[{info.Socket, {info.TaskName, info.AstInd}}];
  }
  for (const SavedMessage& saved : g_DbcI.SavedArray) {
    const ClientMessage& msg = saved.Message;
    if (InUse(saved))
      ++known[{msg.ClientSocket, {msg.TaskName, Get(Trailer(&msg), kTrailerAstInd)}}];
  }
  return known;
}

std::vector<int> Having(Kind a, Kind b) {
  std::vector<int> found;
  for (int fd = kFirstDescriptor; fd <= world::state.Highest; ++fd) {
    if (At(fd).What == a || At(fd).What == b) found.push_back(fd);
  }
  return found;
}

}  // namespace

void peers::Reset() {
  clients.clear();
  seen.clear();
  anythingMayCome = false;
}

void peers::ExpectAnything() { anythingMayCome = true; }

void peers::Follow() {
  for (auto it = clients.begin(); it != clients.end();) {
    const world::Socket& socket = At(it->first);
    const bool same = socket.What == Kind::Client && socket.Serial == it->second.Serial;
    it = same ? std::next(it) : clients.erase(it);
  }
  for (const int fd : Clients()) {
    ClientPeer& client = clients[fd];
    client.Serial = At(fd).Serial;
    TakeAnswers(fd, &client);
  }
  for (const int fd : Nodes()) TakeRequests(fd);
  TakeQueue();
}

std::vector<int> peers::Clients() { return Having(Kind::Client, Kind::Client); }
std::vector<int> peers::Nodes() { return Having(Kind::Node, Kind::Kernel); }

int peers::Choose(const std::vector<int>& descriptors, unsigned number) {
  return descriptors.empty() ? -1 : descriptors[number % descriptors.size()];
}

void peers::Send(int client, const std::string& bytes, std::size_t count) {
  if (client < 0 || !clients.contains(client) || At(client).Input.size() > kInputMax) return;
  if (At(client).PeerGone || At(client).Error != 0) return;  // what it sent before may be lost
  ClientPeer& peer = clients[client];
  peer.Staged += bytes;
  const std::string arrives = peer.Staged.substr(0, count);
  peer.Staged.erase(0, arrives.size());
  At(client).Input += arrives;
  peer.Unparsed += arrives;
  NoteRequests(client, &peer);
}

void peers::HangUp(int fd, bool broken) {
  if (broken) At(fd).Error = ECONNRESET;
  At(fd).PeerGone = true;
}

void peers::SetRoom(int fd, unsigned room) {
  At(fd).Room = room < 200 ? room * room : world::Socket::kEndless;
}

std::string peers::AnswerFrame(const Tag& tag, const std::string& text, std::uint32_t counted) {
  std::string frame = MakeMessage({.TaskName = tag.first, .AstInd = tag.second, .Text = text});
  SetLengthWord(&frame, static_cast<std::uint32_t>(frame.size()) - 4 + counted);
  return frame;
}

void peers::Answer(int node, const Tag& tag, const std::string& text) {
  At(node).Input += AnswerFrame(tag, text, At(node).What == Kind::Kernel ? 4 : 0);
}

void peers::AnswerCame(int client, const std::string& frame) {
  const auto peer = clients.find(client);
  if (peer != clients.end()) TakeAnswer(client, &peer->second, frame);
}

void peers::SetWatch(const Watch* who) { watch = who; }

bool peers::IsBroken(int client) {
  const auto peer = clients.find(client);
  return peer != clients.end() && peer->second.Broken;
}

const std::deque<Tag>& peers::Seen() { return seen; }

bool peers::IsKnown(int client, const Tag& tag) { return KnownToAgent().contains({client, tag}); }

void peers::CheckNoneIsLost() {
  std::map<Request, int> known = KnownToAgent();
  for (const auto& [fd, client] : clients) {
    const world::Socket& socket = At(fd);
    if (client.Broken || socket.PeerGone || socket.Error != 0) continue;
    if (!socket.Input.empty() || FrameWaits(fd)) continue;  // not all requests have been read
    if (UnsentBytes(fd) > 0) continue;                      // answers are under way
    for (const auto& [tag, count] : client.Waiting) {
      if (!world::IsAlive(tag.first)) continue;
      if (known[{fd, tag}] < count)
        world::Violated("%d requests (%d, %u) of connection %d wait, the agent knows %d", count,
                        tag.first, tag.second, fd, known[{fd, tag}]);
    }
  }
}
