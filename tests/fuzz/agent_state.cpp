#include "tests/fuzz/agent_state.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/clntxch.h"
#include "client/primitiv.h"
#include "core/loop.h"
#include "core/stream.h"
#include "link/link.h"
#include "protocols/protload.h"
#include "tests/fuzz/world.h"

namespace {

constexpr std::size_t kLinksMax = 100000;  // more than any input can make

void FreeLinks() {
  Link* const first = g_DbcI.LinkList;
  g_DbcI.LinkList = nullptr;
  for (Link* link = first; link;) {
    Link* const next = link->Next;
    link->Protocol->UninitLink(kFuzz, __LINE__, link);
    std::free(link);
    link = next == first ? nullptr : next;
  }
  FreeRetiredLinks();
}

void FreeProtocols() {
  while (Protocol* const protocol = g_DbcI.ProtocolList) {
    g_DbcI.ProtocolList = protocol->Next;
    std::free(protocol);
  }
}

std::set<const Link*> LinksOfCircle() {
  std::set<const Link*> links;
  for (const Link* link = g_DbcI.LinkList; link && links.insert(link).second;) {
    if (!link->Next) world::Violated("link %.8s has no successor", link->NodeName);
    if (links.size() > kLinksMax) world::Violated("endless circle");
    link = link->Next;
    if (links.contains(link) && link != g_DbcI.LinkList)
      world::Violated("the circle does not come back to its entry");
  }
  return links;
}

void MustBeIn(const std::set<const Link*>& links, const Link* link, const char* who) {
  if (link && !links.contains(link)) world::Violated("%s is not in the circle", who);
}

void CheckRequests(const std::set<const Link*>& links) {
  std::int32_t inFlight = 0;
  for (const MsgInfo& info : g_DbcI.MsgInfoArray) {
    if (!InUse(info)) continue;
    ++inFlight;
    MustBeIn(links, info.Link, "the link of a request in flight");
    if (info.Link->State != kLinkConnected)
      world::Violated("a request is in flight over %.8s, which is not connected",
                      info.Link->NodeName);
    if (info.Socket >= kFirstDescriptor && world::state.Active &&
        !FD_ISSET(info.Socket, &g_DbcI.ClientSockets))
      world::Violated("a request in flight names the closed connection %d", info.Socket);
  }
  if (inFlight != RequestsInFlight())
    world::Violated("%d requests in flight are counted, %d are recorded", RequestsInFlight(),
                    inFlight);
  for (const SavedMessage& saved : g_DbcI.SavedArray) {
    if (InUse(saved)) MustBeIn(links, saved.Link, "the link of a waiting request");
  }
}

void CheckDescriptors() {
  const int end = EndOfDescriptors();
  for (int fd = kFirstDescriptor; fd < end; ++fd) {
    const bool registered = FD_ISSET(fd, &g_DbcI.SocketSets.ReadSet) ||
                            FD_ISSET(fd, &g_DbcI.SocketSets.WriteSet) ||
                            FD_ISSET(fd, &g_DbcI.ClientSockets) || LinkOfSocket(fd);
    if (registered && !world::IsOpen(fd)) world::Violated("descriptor %d is registered", fd);
    if (registered && fd >= g_DbcI.SocketSets.MaxSocket)
      world::Violated("descriptor %d is beyond the highest", fd);
    if (UnsentBytes(fd) > 0 && !FD_ISSET(fd, &g_DbcI.SocketSets.WriteSet))
      world::Violated("descriptor %d keeps bytes and waits for nothing", fd);
  }
}

void CopyText(unsigned char* to, std::string_view text, std::size_t room) {
  for (std::size_t i = 0; i < std::min(text.size(), room); ++i)
    to[i] = static_cast<unsigned char>(text[i]);
}

// Every open descriptor of a client or a node is known to the agent, or it is lost.
void CheckForLostDescriptors() {
  if (world::AnyFaultUsed()) return;  // some failures leave a descriptor open on purpose
  for (int fd = kFirstDescriptor; fd <= world::state.Highest; ++fd) {
    const world::Kind kind = world::At(fd).What;
    if (kind == world::Kind::Client && !FD_ISSET(fd, &g_DbcI.ClientSockets))
      world::Violated("the connection %d is lost", fd);
    if (kind == world::Kind::Node && !LinkOfSocket(fd))
      world::Violated("the link descriptor %d is lost", fd);
  }
}

}  // namespace

int EndOfDescriptors() {
  return std::max({g_DbcI.SocketSets.MaxSocket, world::state.Highest + 1, 64});
}

void StartAgent(std::uint8_t logLevel) {
  g_DbcI = {};
  g_DbcI.DefaultNode = "";
  g_DbcI.LogLevel = logLevel;
  g_DbcI.LastLinkSocket = g_DbcI.LastClientSocket = kNoDescriptorYet;
  g_DbcI.ClientListenSocket = -1;
  g_DbcI.SocketSets.AgentPid = 1;
  g_DbcI.GetMsg = GetMsgFromClient;
  g_DbcI.PutMsg = PutMsgToClient;
  ClientTimeout = kClientTimeout;
}

SimulatedAgent::SimulatedAgent(std::size_t inputSize) {
  world::Begin();
  StartAgent((inputSize & 1) != 0 ? 15 : 0);
}

SimulatedAgent::~SimulatedAgent() {
  EndAgent();
  world::End();
}

void RunAgent(std::vector<std::string> options, int logLevel, bool (*onWait)()) {
  static char variable[16];
  std::snprintf(variable, sizeof variable, "DBC_LOG=%d", logLevel);
  putenv(variable);
  std::vector<char*> argv;
  for (std::string& option : options) argv.push_back(option.data());
  argv.push_back(nullptr);
  world::state.Connects = {world::Plan::Refused};  // nobody serves the agent's own path yet
  world::state.OnWait = onWait;
  AgentMain(static_cast<int>(options.size()), argv.data());
  world::state.OnWait = nullptr;
}

void EndAgent() {
  g_DbcI.ExitStatus = -1;  // nothing is connected or redefined any more
  g_DbcI.PingMode = 0;
  g_DbcI.LogLevel = 0;
  g_DbcI.ServedLink = nullptr;
  ForgetRequests();
  FreeLinks();
  for (int fd = EndOfDescriptors() - 1; fd >= kFirstDescriptor; --fd) {
    if (FD_ISSET(fd, &g_DbcI.ClientSockets)) CloseClient(fd);
    ForgetDescriptor(fd);
  }
  FreeProtocols();
  Free(g_DbcI.ClientPidList);
  FreeRefusedRecords();
  ForgetReserve();
  MayFlush = nullptr;
  g_DbcI = {};
}

void LoadNodetab(const std::string& text) {
  world::state.Nodetab = text;
  InitLinkQueueFromNodetab(kFuzz, __LINE__);
}

Link* LinkNumber(unsigned number) {
  unsigned count = 0;
  for (const Link* link = g_DbcI.FirstLink; link;) {
    ++count;
    link = link->Next;
    if (link == g_DbcI.FirstLink) break;
  }
  if (count == 0) return nullptr;
  Link* link = g_DbcI.FirstLink;
  for (number %= count; number > 0; --number) link = link->Next;
  return link;
}

void CheckRecords() {
  const std::set<const Link*> links = LinksOfCircle();
  MustBeIn(links, g_DbcI.DefaultLink, "DefaultLink");
  MustBeIn(links, g_DbcI.FirstLink, "FirstLink");
  MustBeIn(links, g_DbcI.CircleStartLink, "CircleStartLink");
  for (const ClientPid& client : g_DbcI.ClientPidList) {
    if (InUse(client)) MustBeIn(links, client.Link, "the link of a client");
  }
  for (const Link* link : links) {
    if (std::memchr(link->NodeName, '\0', sizeof link->NodeName) == nullptr)
      world::Violated("a node name has no end");
  }
  CheckRequests(links);
  CheckCounts(links);
}

void CheckAgent() {
  CheckRecords();
  CheckBooks(LinksOfCircle());
  CheckDescriptors();
  CheckForLostDescriptors();
}

void CheckNoneWaitsInVain() {
  for (const SavedMessage& saved : g_DbcI.SavedArray) {
    if (InUse(saved) && saved.Link->State == kLinkConnected)
      world::Violated("a request waits for %.8s, which is connected", saved.Link->NodeName);
  }
}

void CheckNoneIsStranded() {
  const bool timerGoesOn = g_DbcI.AutoConnect && g_DbcI.CircleTimeCount != 0;
  for (const SavedMessage& saved : g_DbcI.SavedArray) {
    if (InUse(saved) && saved.Link->State == kLinkDisconnected && !timerGoesOn)
      world::Violated("a request waits for %.8s, which is down", saved.Link->NodeName);
  }
}

void CheckDefaultRequests() {
  for (const SavedMessage& saved : g_DbcI.SavedArray) {
    if (InUse(saved) && NamesDefault(saved.Message.CBL.Node) && saved.Link != g_DbcI.DefaultLink)
      world::Violated("a request for the default waits for %.8s", saved.Link->NodeName);
  }
}

std::string MakeMessage(const MessageFields& fields) {
  const std::size_t text = std::min<std::size_t>(fields.Text.size(), 7000);
  const auto count = static_cast<std::uint16_t>(text);
  std::string bytes(kStringsAt + CountedSize(count) + 3 * 2 + kTrailerSize, '\0');
  unsigned char* const wire = reinterpret_cast<unsigned char*>(bytes.data());
  Put(wire, WireField<std::int32_t>{4}, fields.TaskName);
  unsigned char* const cbl = wire + kCblAt;
  CopyText(cbl + offsetof(Cbl, Command), fields.Command, sizeof Cbl::Command);
  CopyText(cbl + offsetof(Cbl, Node), fields.Node, sizeof Cbl::Node);
  Put(cbl, WireField<std::int32_t>{offsetof(Cbl, RowId)}, fields.RowId);
  Put(cbl, WireField<std::uint16_t>{offsetof(Cbl, DbcApiCode)}, fields.DbcApiCode);
  Put(wire, WireField<std::uint16_t>{kStringsAt}, count);
  CopyText(wire + kStringsAt + 2, fields.Text, text);
  unsigned char* const trailer = wire + bytes.size() - kTrailerSize;
  Put(trailer, kTrailerTaskName, fields.TaskName);
  Put(trailer, kTrailerAstInd, fields.AstInd);
  SetLengthWord(&bytes, static_cast<std::uint32_t>(bytes.size()));
  return bytes;
}

void SetLengthWord(std::string* message, std::uint32_t length) {
  std::memcpy(message->data(), &length, sizeof length);
}

std::string Input::Bytes(std::size_t count) {
  const std::size_t taken = std::min(count, static_cast<std::size_t>(end_ - at_));
  const std::string bytes(reinterpret_cast<const char*>(at_), taken);
  at_ += taken;
  return bytes;
}

std::string Input::Line() {
  const std::uint8_t* const end = std::find(at_, end_, std::uint8_t{'\n'});
  const std::string line(reinterpret_cast<const char*>(at_), static_cast<std::size_t>(end - at_));
  at_ = end == end_ ? end : end + 1;
  return line;
}
