#include "tests/simulate/ledger.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "client/primitiv.h"
#include "core/dbc.h"
#include "core/status.h"
#include "link/link.h"
#include "tests/fuzz/world.h"
#include "tests/simulate/codes.h"

namespace {

using world::At;
using world::Call;

constexpr std::size_t kDigits = 8;
constexpr std::uint16_t kFirstManagementTag = 60000;
constexpr char kRow[] = "row", kWrong[] = "wrong";

enum class Fate : std::uint8_t { Unsent, Open, ByNode, ByAgent, Dropped };

struct Request {
  ::Tag Tag = {};
  int Client = -1;
  std::uint32_t Connection = 0;
  std::string Node;  // as asked for; empty: the default
  int AskedAt = 0;
  std::size_t Content = 0;
  int NodeFd = -1;  // that it has reached
  std::uint32_t NodeConnection = 0;
  bool Arrived = false, Given = false;
  Fate Is = Fate::Unsent;
};

// Why a link failed, or could not be used.
struct Cause {
  int At;
  std::string Node;  // empty: any
  int Code, Error;
};

struct NodeLine {
  std::string Name, Protocol;
  int SendTimeout = 0, ConnectTimeout = 0;
};

// A connection of the agent to a node, by the clock.
struct Line {
  std::uint32_t Serial = 0;
  std::string Node;
  bool Connected = false, Loose = false;  // Loose: it is not known when whole packets come
  bool ByTimer = false;                   // the timer has begun it, and may have counted it already
  int Since = 0;                          // tick of the connect, or of the last input
};

struct Rules {
  bool AutoConnect, Modes, ConnError, Edits, Faults;
  int CircleFailure;
  std::string Default;  // the node that requests without a name go to; empty: it changes
  int CircleTicks;      // that the circle goes on for; 0: it does not wait
};

// How long the circle still waits for the timer.
struct CircleTimer {
  int Ticks;
  bool WasOver;      // at some time since the last wait
  int LastOver;      // the last wait before which it was
  bool IsUncertain;  // requests were served without being read: what followed a failed send
};

using Key = std::tuple<int, std::uint32_t, Tag>;

struct Books {
  std::vector<Request> Requests;
  std::map<Key, int> ByTag;       // requests without an answer
  std::map<Key, int> Unnumbered;  // management and what bytes happened to be
  std::vector<Cause> Causes;
  std::map<std::string, NodeLine> Nodes;      // by name
  std::map<std::string, std::string> Places;  // names by address
  std::map<int, Line> Lines;
  std::map<std::pair<int, std::uint32_t>, std::deque<ledger::Owed>> Owed;
  std::map<int, std::pair<std::uint32_t, bool>> Clients;  // serial, and that it may be closed
  std::set<std::string> LeftBroken;  // nodes whose link has no descriptor and still connects
  std::map<std::string, unsigned> Drops;
  std::set<std::uint32_t> Misbehaving;  // connections of nodes
  std::set<std::uint32_t> Doubtful;     // connections of clients
  std::set<std::uint32_t> Slow;         // connections of clients that did not take all at once
  std::set<pid_t> Dead;                 // since before this pass
  struct Rules Rules;
  CircleTimer Circle;
  std::set<std::string> Connected;  // nodes, since the last wait
  bool ReaderDied;
  int Now, Ticks;
  std::uint16_t LastManagementTag;
  bool InTimer;  // until the next wait
  bool Stopping;
  ledger::Totals Totals;
};
Books books;

// The digest

void Note(std::uint64_t value) {
  for (int i = 0; i < 8; ++i, value >>= 8)
    books.Totals.Digest = (books.Totals.Digest ^ (value & 0xFF)) * 0x100000001B3U;
}

template <class... Values>
void NoteAll(Values... values) {
  (Note(static_cast<std::uint64_t>(values)), ...);
}

// Frames

template <class T>
T FieldAt(const std::string& frame, std::size_t at) {
  T value;
  std::memcpy(&value, frame.data() + at, sizeof value);
  return value;
}

std::string TextAt(const std::string& frame, std::size_t at) {
  if (at + 2 > frame.size()) return {};
  return frame.substr(at + 2, FieldAt<std::uint16_t>(frame, at));
}

std::string Numbered(int number, std::string_view rest) {
  char digits[kDigits + 1];
  std::snprintf(digits, sizeof digits, "%08d", number);
  return digits + std::string(rest);
}

// Of all but the head and the trailer, in which the agent and the transports leave marks.
std::size_t ContentOf(const std::string& frame, std::size_t cbl) {
  return std::hash<std::string>()(frame.substr(cbl, frame.size() - kTrailerSize - cbl));
}

bool IsManagement(const std::string& frame) {
  return frame.compare(kCblAt + offsetof(Cbl, Command), 4, "DBCA") == 0;
}

// Causes

void AddCause(const std::string& node, int code, int error) {
  books.Causes.push_back({books.Now, node, code, error});
}

void AddCauseOfReader(int code, int error) {
  for (const auto& [name, node] : books.Nodes) {
    if (node.Protocol == "LOCALI") AddCause(name, code, error);
  }
}

std::string NodeAt(int fd) {
  const auto place = books.Places.find(At(fd).Address);
  if (place != books.Places.end()) return place->second;
  for (const auto& [name, node] : books.Nodes) {
    if (node.Protocol == "LOCALS" && At(fd).Address.find('/') != std::string::npos) return name;
  }
  return {};
}

bool IsNode(int fd) {
  return At(fd).What == world::Kind::Node || At(fd).What == world::Kind::Kernel;
}

void ConnectEnded(int fd, int error) {
  const std::string node = NodeAt(fd);
  Line& line = books.Lines[fd];
  const bool known = line.Serial == At(fd).Serial;
  if (error == EINPROGRESS || (error == 0 && !known))
    line = {.Serial = At(fd).Serial, .Node = node, .ByTimer = books.InTimer, .Since = books.Ticks};
  if (!known && !books.Rules.Edits) books.LeftBroken.erase(node);  // else two may have the name
  if (error == 0 || error == EINPROGRESS || error == EALREADY || error == EISCONN) return;
  AddCause(node, kStatusConnect, known ? 0 : error);  // the timer repeats it, and tells no error
  if (known && books.Rules.AutoConnect) books.LeftBroken.insert(node);
}

// A link over a socket of the local kernel makes no difference between the end and an error.
void StreamFailed(int fd, int code, int error) {
  const bool ended = code == kStatusPeerClosed && At(fd).What == world::Kind::Kernel;
  AddCause(NodeAt(fd), ended ? kStatusReceive : code, error);
}

void CallFailed(Call call, int error) {
  books.Circle.IsUncertain = true;
  if (call == Call::Allocate) error = ENOMEM;  // whatever it was made to fail with
  for (const int code : codes::Of(call)) {
    AddCause({}, code, error);
    AddCause({}, code, 0);
  }
  // A request that could not be recorded ends its link with what its client's answer came to.
  for (const int ofClient : {EPIPE, EBADF, ECONNRESET})
    if (call == Call::Allocate) AddCause({}, kStatusSend, ofClient);
  // The circle may leave a link that has lost its descriptor as if it were connected or connecting.
  if (!books.Rules.AutoConnect || (call != Call::Fcntl && call != Call::Connect)) return;
  AddCause({}, kStatusSend, EBADF);
  AddCause({}, kStatusOption, 0);
  AddCause({}, kStatusConnectTimeout, 0);
}

// The reader child's pipe, and what it hands over beside it.
void OfReader(int fd, long result, int error) {
  const bool ended = result == 0 && At(fd).What == world::Kind::Pipe;
  if (!ended && (result >= 0 || error == EINTR)) return;
  if (error == EAGAIN && At(fd).What == world::Kind::Pipe) return;
  AddCauseOfReader(ended ? kStatusPeerClosed : kStatusReceive, ended ? 0 : error);
}

// A frame that is none, or one without a body.
void Misbehaves(int fd) {
  AddCause(NodeAt(fd), kStatusReceive, 0);
  if (At(fd).What == world::Kind::Node) AddCause(NodeAt(fd), kStatusPeerClosed, 0);
}

bool IsReader(int fd) {
  return At(fd).What == world::Kind::Pipe || At(fd).What == world::Kind::Pair;
}

void OnOutcome(Call call, int fd, long result, int error) {
  if (fd < 0) return CallFailed(call, error);  // it was made to fail
  if (call == Call::Connect) return ConnectEnded(fd, result < 0 ? error : 0);
  if (IsReader(fd)) return OfReader(fd, result, error);
  if (!IsNode(fd)) return;
  Line& line = books.Lines[fd];
  if (call == Call::GetSockOpt && result == 0) {
    books.Connected.insert(NodeAt(fd));
    line.Connected = true;
    line.Since = books.Ticks;
  } else if (call == Call::GetSockOpt) {
    AddCause(NodeAt(fd), kStatusConnect, At(fd).ConnectError);
  } else if (call == Call::Recv && result > 0) {
    line.Since = books.Ticks;
    if (books.Misbehaving.contains(At(fd).Serial)) Misbehaves(fd);
  } else if (call == Call::Recv && result == 0) {
    StreamFailed(fd, kStatusPeerClosed, 0);
  } else if (result < 0 && error != EAGAIN && error != EINTR) {
    line.Loose = true;  // the circle may leave it as it is
    books.Circle.IsUncertain = true;
    StreamFailed(fd, call == Call::Recv ? kStatusReceive : kStatusSend, error);
  }
}

bool Concerns(const Cause& cause, const Request& request) {
  return cause.Node.empty() || request.Node.empty() || books.Rules.Edits ||
         cause.Node == request.Node;
}

bool Explains(const Cause& cause, int code, int error) {
  const bool codeFits = cause.Code == code;
  // The circle passes no error on; the request in hand is told the one that stands when all others
  // have been answered, among them perhaps a client that is dead.
  const bool errorFits = cause.Error == error || (books.Rules.Modes && error == 0) ||
                         (error == ESRCH && !world::state.Dead.empty());
  return codeFits && errorFits;
}

// The circle answers those who followed the default with a code of its own when it need not wait
// for the timer; so does the timer those who wait for a link that is down with nothing under way,
// as an edit may leave it.
bool IsOfCircle(const Request& request, int code, int error) {
  if (code != books.Rules.CircleFailure || error != 0) return false;
  const bool late = books.Slow.contains(request.Connection);
  const bool wasOver = books.Circle.WasOver || (late && books.Circle.LastOver >= request.AskedAt);
  return books.Rules.Edits || (books.Rules.AutoConnect && wasOver);
}

bool IsForConnecting(int code, int error) {
  return books.Rules.ConnError && code == books.Rules.CircleFailure && error == EINPROGRESS;
}

bool IsForUnknownNode(const Request& request, int code, int error) {
  const bool known = request.Node.empty() || books.Nodes.contains(request.Node);
  return code == kStatusUnknownNode && error == 0 && (!known || books.Rules.Edits);
}

bool IsUnsupported(const std::pair<const std::string, NodeLine>& node) {
  return node.second.Protocol == "DECNET";
}

bool SomeAreUnsupported() {
  return std::any_of(books.Nodes.begin(), books.Nodes.end(), IsUnsupported);
}

bool IsForUnsupported(const Request& request, int code, int error) {
  const auto node = books.Nodes.find(request.Node);
  const bool may = node != books.Nodes.end() ? IsUnsupported(*node)
                                             : request.Node.empty() && SomeAreUnsupported();
  return code == kStatusUnsupported && error == 0 && may;
}

bool IsForStop(int code, int error) { return books.Stopping && (code == 0 || error == ECANCELED); }

bool MayBeAnswered(const Request& request, int code, int error) {
  if (IsForUnknownNode(request, code, error) || IsForUnsupported(request, code, error) ||
      IsForConnecting(code, error) || IsForStop(code, error))
    return true;
  // A link that is not supported fails without a call.
  const bool ofCircle = IsOfCircle(request, code, error) &&
                        (request.Node.empty() || books.Rules.AutoConnect || books.Rules.Edits);
  if (ofCircle && (SomeAreUnsupported() || books.Rules.Edits)) return true;
  // What was found broken may stay as it is while another link is the default.
  const bool mayLast = books.Rules.AutoConnect && (error == 0 || books.Rules.Faults);
  for (auto cause = books.Causes.rbegin(); cause != books.Causes.rend(); ++cause) {
    const bool before = cause->At < request.AskedAt;
    if (before && !mayLast) return false;
    if ((ofCircle && !before) || (Concerns(*cause, request) && Explains(*cause, code, error)))
      return true;
  }
  return ofCircle && !books.Rules.AutoConnect;
}

// What the peers see

Key KeyOf(int client, const Tag& tag) { return {client, At(client).Serial, tag}; }

void Asked(int client, const Tag& tag, const std::string& frame) {
  const int number = ledger::NumberIn(frame, kStringsAt);
  if (number < 0 || IsManagement(frame) || books.ByTag.contains(KeyOf(client, tag)) ||
      books.Requests[static_cast<std::size_t>(number)].Is != Fate::Unsent) {
    ++books.Unnumbered[KeyOf(client, tag)];
    return;
  }
  Request& request = books.Requests[static_cast<std::size_t>(number)];
  request.Tag = tag;
  request.Client = client;
  request.Connection = At(client).Serial;
  const char* const node = frame.data() + kCblAt + offsetof(Cbl, Node);
  request.Node.assign(node, strnlen(node, sizeof Cbl::Node));
  if (request.Node.empty()) request.Node = books.Rules.Default;
  request.AskedAt = books.Now;
  request.Content = ContentOf(frame, kCblAt);
  request.Is = Fate::Open;
  books.ByTag[KeyOf(client, tag)] = number;
  ++books.Totals.Requests;
}

void Arrived(int fd, const Tag& tag, const std::string& frame) {
  const std::size_t shift = fd < 0 ? 4 : 0;  // in a queue there is no length word
  const int number = ledger::NumberIn(frame, kStringsAt - shift);
  if (number < 0) return;
  Request& request = books.Requests[static_cast<std::size_t>(number)];
  if (request.Is == Fate::Unsent) return;
  if (request.Arrived) world::Violated("request %d has reached a node twice", number);
  if (request.Tag != tag) world::Violated("request %d has another tag at its node", number);
  if (request.Content != ContentOf(frame, kCblAt - shift))
    world::Violated("request %d is another one at its node", number);
  if (fd >= 0 && !request.Node.empty() && !books.Rules.Edits && NodeAt(fd) != request.Node)
    world::Violated("request %d for %s has reached %s", number, request.Node.c_str(),
                    NodeAt(fd).c_str());
  request.Arrived = true;
  request.NodeFd = fd;
  request.NodeConnection = fd < 0 ? 0 : At(fd).Serial;
  ledger::OwedBy(fd).push_back({number, tag});
  NoteAll(1, request.NodeConnection, number);
}

void AnsweredByNode(int client, const Tag& tag, const std::string& frame, int number) {
  Request& request = books.Requests[static_cast<std::size_t>(number)];
  if (request.Is != Fate::Open) world::Violated("request %d is answered, it is not open", number);
  if (request.Client != client || request.Connection != At(client).Serial || request.Tag != tag)
    world::Violated("the answer to request %d goes to connection %d", number, client);
  if (!request.Given || TextAt(frame, kStringsAt) != Numbered(number, kRow))
    world::Violated("request %d gets an answer that its node did not give", number);
  request.Is = Fate::ByNode;
  books.ByTag.erase(KeyOf(client, tag));
  ++books.Totals.ByNodes;
}

bool IsUnnumbered(const Key& key) {
  const auto found = books.Unnumbered.find(key);
  if (found == books.Unnumbered.end()) return false;
  if (--found->second == 0) books.Unnumbered.erase(found);
  return true;
}

void AnsweredByAgent(int client, const Tag& tag, int code, int error) {
  const auto found = books.ByTag.find(KeyOf(client, tag));
  if (found == books.ByTag.end()) {
    if (!IsUnnumbered(KeyOf(client, tag)))
      world::Violated("an answer (%d, %u) that nobody waits for", tag.first, tag.second);
    return;
  }
  Request& request = books.Requests[static_cast<std::size_t>(found->second)];
  if (!MayBeAnswered(request, code, error))
    world::Violated("request %d for '%s' is answered with %d, %d, for which there is no cause",
                    found->second, request.Node.c_str(), code, error);
  request.Is = Fate::ByAgent;
  books.ByTag.erase(found);
  ++books.Totals.ByAgent;
}

// The reader child gives its answers past the agent.
void CheckAlive(int client, const Tag& tag, int number) {
  if (!books.Dead.contains(tag.first) || books.Slow.contains(At(client).Serial)) return;
  if (number >= 0 && books.Requests[static_cast<std::size_t>(number)].NodeFd < 0) return;
  world::Violated("process %d is dead and gets an answer", tag.first);
}

void Answered(int client, const Tag& tag, const std::string& frame) {
  const auto code = FieldAt<std::int32_t>(frame, kCblAt + offsetof(Cbl, CodErr));
  const auto error = FieldAt<std::int32_t>(frame, kCblAt + offsetof(Cbl, SysErr));
  const int number = ledger::NumberIn(frame, kStringsAt);
  NoteAll(2, At(client).Serial, tag.first, tag.second, code, error, number);
  CheckAlive(client, tag, number);
  if (tag.second >= kFirstManagementTag && IsUnnumbered(KeyOf(client, tag))) return;
  if (number >= 0)
    AnsweredByNode(client, tag, frame, number);
  else
    AnsweredByAgent(client, tag, code, error);
}

constexpr peers::Watch kWatch = {.Asked = Asked, .Arrived = Arrived, .Answered = Answered};

// The clock

// A link gives up with the tick after its count has run out.
bool IsOver(int since, int timeout) {
  return timeout > 0 && books.Ticks - since >= timeout / 2 + 2;
}

void TickLine(int fd, const Line& line) {
  if (line.Serial == 0 || At(fd).Serial != line.Serial || !IsNode(fd)) return;
  const NodeLine& node = books.Nodes[line.Node];
  if (!line.Connected && IsOver(line.Since - line.ByTimer, node.ConnectTimeout))
    AddCause(line.Node, kStatusConnectTimeout, 0);
  if (line.Connected && (line.Loose || IsOver(line.Since, node.SendTimeout)))
    AddCause(line.Node, kStatusReceiveTimeout, 0);
}

// With a mode on, a link that was found broken may stay as it is while another one takes over.
void CheckLines() {
  if (books.Rules.Modes || books.Rules.Edits || books.Rules.Faults) return;
  for (const auto& [fd, line] : books.Lines) {
    if (line.Serial == 0 || At(fd).Serial != line.Serial || !IsNode(fd)) continue;
    const NodeLine& node = books.Nodes[line.Node];
    const int timeout = line.Connected ? node.SendTimeout : node.ConnectTimeout;
    if (IsOver(line.Since, timeout) && !line.Loose)
      world::Violated("%s is %s for %d ticks", line.Node.c_str(),
                      line.Connected ? "silent" : "connecting", books.Ticks - line.Since);
  }
}

// The circle's timer

void CheckCircle() {
  if (books.Rules.CircleTicks == 0) return;
  const int counted = g_DbcI.CircleTimeCount;
  const bool mayDiffer =
      books.Circle.IsUncertain && (counted == 0 || counted == books.Rules.CircleTicks);
  if (counted != books.Circle.Ticks && !mayDiffer)
    world::Violated("the circle waits for %d ticks, not %d", counted, books.Circle.Ticks);
  if (books.Circle.WasOver) books.Circle.LastOver = books.Now;
  books.Circle.Ticks = counted;
  books.Circle.WasOver = counted == 0;
  books.Circle.IsUncertain = false;
}

// The circle begins and ends at the default link that was connected last.
void CheckCircleStart() {
  const Link* const link = g_DbcI.DefaultLink;
  const bool isSure = books.Rules.AutoConnect && !books.Rules.Edits && !books.Rules.Faults;
  if (isSure && link->State == kLinkConnected && books.Connected.contains(link->NodeName) &&
      g_DbcI.CircleStartLink != link)
    world::Violated("the circle does not begin at %.8s, which was connected", link->NodeName);
  books.Connected.clear();
}

// Connections

bool MayClose(int fd) {
  const world::Socket& socket = At(fd);
  return books.Doubtful.contains(socket.Serial) || socket.PeerGone || socket.Error != 0 ||
         peers::IsBroken(fd) || socket.Room != world::Socket::kEndless || books.Rules.Faults;
}

void CheckClosed() {
  for (const auto& [fd, before] : books.Clients) {
    const auto [serial, may] = before;
    if (!may && At(fd).Serial != serial)
      world::Violated("connection %d was closed for no reason", fd);
  }
}

// The end

// The rule by which a request goes without an answer, or null.
const char* RuleFor(const Request& request, bool known) {
  if (At(request.Client).Serial != request.Connection) return "its connection was closed";
  if (peers::IsBroken(request.Client)) return "a frame before it was refused";
  if (!world::IsAlive(request.Tag.first)) return "its process is dead";
  if (!known && books.Rules.Edits) return "its node was deleted";
  if (!known && world::AnyFaultUsed()) return "a call failed";
  return nullptr;
}

bool AnswerIsUnderWay(const Request& request) {
  if (!request.Given || request.NodeFd < 0) return false;
  const world::Socket& node = At(request.NodeFd);
  return node.Serial == request.NodeConnection && !node.PeerGone && node.Error == 0;
}

void Close(int number, Request& request) {
  const bool known = peers::IsKnown(request.Client, request.Tag);
  if (const char* const rule = RuleFor(request, known)) {
    request.Is = Fate::Dropped;
    ++books.Totals.Dropped;
    ++books.Drops[rule];
    return;
  }
  if (!known) world::Violated("request %d is lost", number);
  if (AnswerIsUnderWay(request) && !world::AnyFaultUsed())
    world::Violated("the answer to request %d is not passed on", number);
  ++books.Totals.Open;
}

NodeLine Parse(const std::string& line, std::string* address) {
  char name[16] = "", protocol[16] = "", place[64] = "";
  NodeLine node;
  std::sscanf(line.c_str(), "%15s %15s %63s %*d %*d %d %d", name, protocol, place,
              &node.SendTimeout, &node.ConnectTimeout);
  node.Name = name;
  node.Protocol = protocol;
  *address = place;
  return node;
}

bool MaySetDefault(const story::Story& story) {
  if (story.Nodes.size() == 1) return story.Edits;
  return story.Edits || story::Has(story, "-AUTOCONNECT") || story::Has(story, "-AUTOCHANGE") ||
         story::Has(story, "-CONNECTONLOAD");
}

std::string DefaultOf(const story::Story& story) {
  if (MaySetDefault(story)) return {};
  for (const std::string& line : story.Nodes) {
    if (story::Has(story, "-DEFAULT=SRV2") && line.starts_with("SRV2 ")) return "SRV2";
  }
  return story.Nodes.front().substr(0, story.Nodes.front().find(' '));
}

}  // namespace

void ledger::Begin(const story::Story& story) {
  const bool several = story.Nodes.size() > 1 || story.Edits;  // else the modes do not apply
  const bool connect = several && story::Has(story, "-AUTOCONNECT");
  const bool change = several && story::Has(story, "-AUTOCHANGE");
  const bool waits = connect && !story.Edits && story::Has(story, "-AUTOCONNECTTIMEOUT=6");
  books = {};
  books.Rules = {
      .AutoConnect = connect,
      .Modes = connect || change,
      .ConnError = story::Has(story, "-CONNERROR"),
      .Edits = story.Edits,
      .Faults = story.Faults,
      .CircleFailure = story::Has(story, "-ERR1001") ? kStatusCircleFailed : kStatusConnect,
      .Default = DefaultOf(story),
      .CircleTicks = waits ? 3 : 0};
  books.Circle.WasOver = true;
  books.Totals.Digest = 0xCBF29CE484222325U;
  books.LastManagementTag = kFirstManagementTag;
  for (const std::string& line : story.Nodes) {
    std::string address;
    const NodeLine node = Parse(line, &address);
    books.Nodes[node.Name] = node;
    if (node.Protocol == "TCPIP") books.Places[address] = node.Name;
  }
  peers::SetWatch(&kWatch);
  world::state.OnOutcome = OnOutcome;
}

// What nodes still owed was answered when the agent was stopped.
void ledger::End() {
  const Totals& totals = books.Totals;
  const unsigned long ended = totals.ByNodes + totals.ByAgent + totals.Dropped;
  if (ended != totals.Requests)
    world::Violated("of %lu requests %lu have ended with the agent", totals.Requests, ended);
  peers::SetWatch(nullptr);
}

std::string ledger::NextText(std::size_t size) {
  const int number = static_cast<int>(books.Requests.size());
  books.Requests.emplace_back();
  return Numbered(number, std::string(size, 'q'));
}

std::uint16_t ledger::NextTag() {
  return static_cast<std::uint16_t>(books.Requests.size() % kFirstManagementTag);
}

std::uint16_t ledger::NextManagementTag() { return books.LastManagementTag++; }

int ledger::NumberIn(const std::string& frame, std::size_t stringsAt) {
  const std::string text = TextAt(frame, stringsAt);
  if (text.size() < kDigits) return -1;
  int number = 0;
  for (const char digit : text.substr(0, kDigits)) {
    if (digit < '0' || digit > '9') return -1;
    number = 10 * number + (digit - '0');
  }
  return static_cast<std::size_t>(number) < books.Requests.size() ? number : -1;
}

std::deque<ledger::Owed>& ledger::OwedBy(int node) {
  return books.Owed[{node, node < 0 ? 0 : At(node).Serial}];
}

std::string ledger::Give(int number, int node) {
  Request& request = books.Requests[static_cast<std::size_t>(number)];
  const bool reached = request.Arrived && request.NodeFd == node &&
                       (node < 0 || request.NodeConnection == At(node).Serial);
  request.Given = request.Given || reached;
  return Numbered(number, reached ? kRow : kWrong);
}

// A link that the circle left as it was, without a descriptor, cannot be given a mode; or its time
// is over first.
void ledger::Ticked() {
  ++books.Ticks;
  books.InTimer = true;
  if (books.Circle.Ticks > 0) books.Circle.WasOver = --books.Circle.Ticks == 0;
  if (books.ReaderDied) AddCauseOfReader(kStatusReaderGone, 0);
  books.ReaderDied = false;
  for (const std::string& node : books.LeftBroken) {
    AddCause(node, kStatusOption, 0);
    AddCause(node, kStatusConnectTimeout, 0);
  }
  for (auto& [fd, line] : books.Lines) {
    line.Loose = line.Loose || At(fd).Piece != world::Socket::kEndless;
    TickLine(fd, line);
  }
}

void ledger::ReaderDies() { books.ReaderDied = true; }

void ledger::RequestIsRead(const ClientMessage& msg) {
  const Link* const link = g_DbcI.DefaultLink;
  if (books.Rules.CircleTicks == 0 || !link) return;
  const bool forDefault =
      NamesDefault(msg.CBL.Node) || CompareNodeName(link->NodeName, msg.CBL.Node) == 0;
  if (std::memcmp(msg.CBL.Command, "DBCA", sizeof msg.CBL.Command) == 0) return;
  if (forDefault && link->State == kLinkDisconnected && books.Circle.Ticks == 0)
    books.Circle.Ticks = books.Rules.CircleTicks;
}

void ledger::Doubt(int number) {
  books.Doubtful.insert(books.Requests[static_cast<std::size_t>(number)].Connection);
}

void ledger::MayFailAt(int node) {
  books.Lines[node].Loose = true;
  books.Misbehaving.insert(At(node).Serial);
}

void ledger::AtWait() {
  CheckClosed();
  CheckLines();
  CheckCircle();
  CheckCircleStart();
  ++books.Now;
  books.InTimer = false;
}

void ledger::BeforePass() {
  books.Clients.clear();
  for (const int fd : peers::Clients()) {
    books.Clients[fd] = {At(fd).Serial, MayClose(fd)};
    if (At(fd).Room != world::Socket::kEndless) books.Slow.insert(At(fd).Serial);
  }
  if (books.Dead.size() != world::state.Dead.size()) books.Dead = world::state.Dead;
}

void ledger::Settle() {
  int number = 0;
  for (Request& request : books.Requests) {
    if (request.Is == Fate::Open) Close(number, request);
    ++number;
  }
  books.Stopping = true;
}

const ledger::Totals& ledger::Result() { return books.Totals; }

std::string ledger::Drops() {
  std::string text;
  for (const auto& [rule, count] : books.Drops) text += std::to_string(count) + " " + rule + "; ";
  return text;
}
