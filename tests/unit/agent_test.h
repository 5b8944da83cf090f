// What the unit tests of the agent stand on: a fresh state record for every test, protocols whose
// operations are scripted and recorded, and the answers that went to clients; and the headers that
// most of them need.
#pragma once
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "client/clntxch.h"
#include "client/message.h"
#include "client/parking.h"
#include "client/primitiv.h"
#include "core/dbc.h"
#include "core/stream.h"
#include "core/trace.h"
#include "core/wait.h"
#include "lib/message_codec.h"
#include "link/link.h"
#include "protocols/protload.h"
#include "tests/unit/captured_log.h"

inline constexpr char kHere[] = "test";  // the module that calls

// The tags of requests.
using Tags = std::vector<int>;
inline int TagOf(const ClientMessage& msg) { return Get(Trailer(&msg), kTrailerAstInd); }

// A protocol for the registry. Every call is recorded as "Operation NODE"; the results are set by
// the test. Without a script, InitLink accepts any address but "bad" (kept, as a text, in
// DriverData) and ConnectLink connects at once.
class FakeProtocol {
 public:
  explicit FakeProtocol(const char* name) {
    Record = {.Name = name,
              .InitLink = Init,
              .UninitLink = Uninit,
              .ConnectLink = Connect,
              .ReadyForWrite = Write,
              .ReadyForRead = Read,
              .DisconnectLink = Disconnect,
              .TimerEvent = Timer,
              .SendToNetwork = Send,
              .ClientDeadEvent = Dead,
              .Next = nullptr};
    All.push_back(this);
  }
  ~FakeProtocol() { std::erase(All, this); }
  FakeProtocol(const FakeProtocol&) = delete;
  FakeProtocol& operator=(const FakeProtocol&) = delete;

  Protocol Record;
  std::vector<std::string> Calls;
  std::vector<ClientMessage> Sent;
  std::vector<int> DeadClients;
  int InitResult = 0;
  int WriteResult = 0;
  int ReadResult = 0;
  int TimerResult = 0;
  int SendResult = 0;
  // Replaces the connecting of a link: sets State, returns the status.
  std::function<int(Link*)> OnConnect;
  // Carried out by the operation, after it was recorded.
  std::function<int(Link*)> OnRead;
  std::function<void()> OnTimer;
  std::function<void(Link*)> OnDisconnect;
  std::function<void(Link*)> OnDead;
  std::function<int(Link*, ClientMessage*)> OnSend;

  // From now on the operation fails with this status, and this error unless it is 0.
  void FailToConnect(int status, int error) {
    OnConnect = [=](Link*) { return Failure(status, error); };
  }
  void FailToSend(int status, int error) {
    OnSend = [=](Link*, ClientMessage*) { return Failure(status, error); };
  }
  void StayConnecting() {
    OnConnect = [](Link* link) {
      link->State = kLinkConnecting;
      return 0;
    };
  }

  int Count(const std::string& call) const {
    return static_cast<int>(std::count(Calls.begin(), Calls.end(), call));
  }
  Tags SentTags() const {
    Tags tags;
    for (const ClientMessage& msg : Sent) tags.push_back(TagOf(msg));
    return tags;
  }

 private:
  inline static std::vector<FakeProtocol*> All;

  static int Failure(int status, int error) {
    if (error != 0) errno = error;
    return status;
  }
  static FakeProtocol* Of(const char* operation, const Link* link) {
    for (FakeProtocol* fake : All) {
      if (link->Protocol != &fake->Record) continue;
      fake->Calls.push_back(std::string(operation) + " " + link->NodeName);
      return fake;
    }
    std::abort();  // a link of another protocol
  }
  static int Init(const char*, int, Link* link, char* address) {
    FakeProtocol* const fake = Of("InitLink", link);
    if (fake->InitResult & 1 || std::strncmp(address, "bad", 3) == 0) return fake->InitResult | 1;
    link->DriverData = strdup(address);
    return fake->InitResult;
  }
  static int Uninit(const char*, int, Link* link) {
    Of("UninitLink", link);
    if (link->State != kLinkDisconnected) DisconnectLink("test", __LINE__, link, 0, 0);
    std::free(link->DriverData);
    link->DriverData = nullptr;
    return 0;
  }
  static int Connect(const char*, int, Link* link) {
    FakeProtocol* const fake = Of("ConnectLink", link);
    if (fake->OnConnect) return fake->OnConnect(link);
    link->State = kLinkConnected;
    return 0;
  }
  static int Write(const char*, int, Link* link) { return Of("ReadyForWrite", link)->WriteResult; }
  static int Read(const char*, int, Link* link) {
    FakeProtocol* const fake = Of("ReadyForRead", link);
    return fake->OnRead ? fake->OnRead(link) : fake->ReadResult;
  }
  static int Disconnect(const char*, int, Link* link) {
    FakeProtocol* const fake = Of("DisconnectLink", link);
    link->State = kLinkDisconnected;
    if (fake->OnDisconnect) fake->OnDisconnect(link);
    return 0;
  }
  static int Timer(const char*, int, Link* link) {
    FakeProtocol* const fake = Of("TimerEvent", link);
    if (fake->OnTimer) fake->OnTimer();
    return fake->TimerResult;
  }
  static int Send(const char*, int, Link* link, ClientMessage* msg) {
    FakeProtocol* const fake = Of("SendToNetwork", link);
    fake->Sent.push_back(*msg);
    return fake->OnSend ? fake->OnSend(link, msg) : fake->SendResult;
  }
  static int Dead(const char*, int, Link* link, int pid) {
    FakeProtocol* const fake = Of("ClientDeadEvent", link);
    fake->DeadClients.push_back(pid);
    if (fake->OnDead) fake->OnDead(link);
    return 0;
  }
};

// The number of open descriptors, to show that none is lost.
inline int OpenDescriptors() {
  int count = 0;
  for (int fd = 0; fd < FD_SETSIZE; ++fd) count += fcntl(fd, F_GETFD) != -1;
  return count;
}

// The number that the next descriptor gets.
inline int NextDescriptor() {
  const int fd = dup(0);
  close(fd);
  return fd;
}

inline bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }
inline bool IsRead(int fd) { return FD_ISSET(fd, &g_DbcI.SocketSets.ReadSet); }
inline bool IsWritten(int fd) { return FD_ISSET(fd, &g_DbcI.SocketSets.WriteSet); }

// What a call comes to that leaves errno as it was.
template <class Call>
auto KeepingErrno(Call call) {
  errno = 77;
  const auto result = call();
  EXPECT_EQ(errno, 77);
  return result;
}

// What has come to a socket, without waiting.
inline std::string ReceiveAll(int fd) {
  std::string all;
  char part[65536];
  for (ssize_t got; (got = recv(fd, part, sizeof part, MSG_DONTWAIT)) > 0;)
    all.append(part, static_cast<std::size_t>(got));
  return all;
}
inline void SendAll(int fd, const std::string& bytes) {
  EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
}

inline std::string BytesOf(std::uint32_t word) {
  return std::string(reinterpret_cast<const char*>(&word), sizeof word);
}
// Bytes of the message, counted from its length word.
inline std::string WireBytes(const ClientMessage& msg, std::size_t from, std::size_t count) {
  return std::string(reinterpret_cast<const char*>(Wire(&msg)) + from, count);
}

// A request as a client sends it, located in memory as the reader leaves it.
inline ClientMessage MakeRequest(std::int32_t task, int socket, std::uint16_t astInd,
                                 std::initializer_list<std::string> strings = {}) {
  ClientMessage msg = {};
  msg.TaskName = task;
  msg.ClientSocket = socket;
  std::size_t at = 0;
  for (const std::string& text : strings) {
    const auto count = static_cast<std::uint16_t>(text.size());
    Put(msg.Strings, WireField<std::uint16_t>{at}, count);
    std::memcpy(msg.Strings + at + 2, text.data(), text.size());
    at += CountedSize(count);
  }
  EXPECT_EQ(LocateTrailer(&msg, kMessageArea, kMessageArea), 0);
  Put(Trailer(&msg), kTrailerTaskName, task);
  Put(Trailer(&msg), kTrailerAstInd, astInd);
  return msg;
}

// The bytes of the counted string number `index`, 0 to 3.
inline std::string CountedString(const ClientMessage& msg, int index) {
  std::size_t at = 0;
  for (; index > 0; --index) at += CountedSize(Get(msg.Strings + at, WireField<std::uint16_t>{0}));
  const std::size_t count = Get(msg.Strings + at, WireField<std::uint16_t>{0});
  return std::string(reinterpret_cast<const char*>(msg.Strings) + at + 2, count);
}

// A client's end of a connection, for answers that go out through the real writer: those to the
// process of the test itself.
class FakeClient {
 public:
  FakeClient() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0); }
  ~FakeClient() {
    ForgetDescriptor(ends_[0]);
    close(ends_[0]);
    close(ends_[1]);
  }
  FakeClient(const FakeClient&) = delete;
  FakeClient& operator=(const FakeClient&) = delete;

  int Socket() const { return ends_[0]; }  // the agent's end

  void Send(const std::string& bytes) const { SendAll(ends_[1], bytes); }
  std::string ReceivedBytes() const { return ReceiveAll(ends_[1]); }
  // The agent's own answers that have come since the last look: "TAG: CODE, ERRNO".
  Texts Received() const {
    Texts answers;
    const std::string bytes = ReceivedBytes();
    for (std::size_t at = 0; at < bytes.size(); at += lumo::kEmptyMessage) {
      const auto answer = lumo::Decode(bytes.substr(at, lumo::kEmptyMessage));
      if (!answer) return {"not a message"};
      EXPECT_EQ(answer->TaskName, getpid());
      answers.push_back(std::to_string(answer->AstInd()) + ": " + std::to_string(answer->CodErr) +
                        ", " + std::to_string(answer->SysErr));
    }
    return answers;
  }

 private:
  int ends_[2];
};

class AgentTest : public testing::Test {
 protected:
  void SetUp() override {
    g_DbcI = {};
    g_SetsChanged = true;
    g_DbcI.DefaultNode = "";
    g_DbcI.LastLinkSocket = g_DbcI.LastClientSocket = kNoDescriptorYet;
    g_DbcI.ClientListenSocket = -1;
    g_DbcI.SocketSets.AgentPid = getpid();
    g_DbcI.GetMsg = GetMsgFromClient;
    g_DbcI.PutMsg = RecordAnswer;
    ClientTimeout = kClientTimeout;
    Answers.clear();
    PutResult = 0;
  }

  void TearDown() override {
    g_DbcI.ExitStatus = -1;  // nothing is connected or redefined any more
    g_DbcI.PingMode = 0;
    g_DbcI.LogLevel = 0;
    for (int fd = 0; fd < FD_SETSIZE; ++fd) ForgetParked(fd);
    ForgetRequests();
    Free(g_DbcI.ClientPidList);
    FreeLinks();
    FreeRetiredLinks();
    FreeProtocols();
    g_DbcI = {};
    g_SetsChanged = true;
  }

  // The protocol of that name, made at its first use and then in the registry until the test ends.
  FakeProtocol& Fake(const char* name = "FAKE") {
    for (FakeProtocol& fake : fakes_) {
      if (std::strcmp(fake.Record.Name, name) == 0) return fake;
    }
    FakeProtocol& fake = fakes_.emplace_back(name);
    fake.Record.Next = g_DbcI.ProtocolList;
    g_DbcI.ProtocolList = &fake.Record;
    return fake;
  }

  // A link in a circle of its own.
  static Link* MakeLink(const char* name, Protocol* protocol) {
    Link* const link = static_cast<Link*>(std::calloc(1, sizeof(Link)));
    link->Protocol = protocol;
    std::snprintf(link->NodeName, sizeof link->NodeName, "%s", name);
    link->Next = link;
    return link;
  }
  // Appends a link to the circle; the first one is also first node, default and circle start.
  Link* AddLink(const char* name, FakeProtocol& fake) {
    Link* const link = MakeLink(name, &fake.Record);
    link->DriverData = strdup(name);
    if (!g_DbcI.LinkList) {
      g_DbcI.LinkList = g_DbcI.FirstLink = g_DbcI.DefaultLink = g_DbcI.CircleStartLink = link;
      return link;
    }
    Link* last = g_DbcI.LinkList;
    while (last->Next != g_DbcI.LinkList) last = last->Next;
    last->Next = link;
    link->Next = g_DbcI.LinkList;
    return link;
  }
  Link* AddLink(const char* name) { return AddLink(name, Fake()); }
  void AddTwoLinks() {
    A = AddLink("A");
    B = AddLink("B");
  }
  void AddThreeLinks() {
    AddTwoLinks();
    C = AddLink("C");
  }
  void RemoveLinks() {
    FreeLinks();
    g_DbcI.FirstLink = g_DbcI.DefaultLink = g_DbcI.CircleStartLink = nullptr;
  }

  // The names of the circle, from LinkList on.
  static std::string Circle() {
    std::string names;
    const Link* link = g_DbcI.LinkList;
    while (link) {
      names += (names.empty() ? "" : " ") + std::string(link->NodeName);
      link = link->Next;
      if (link == g_DbcI.LinkList) break;
    }
    return names;
  }

  // A request that went to the link, and one that waits for it.
  static void Note(Link* link, std::int32_t task, int socket, std::uint16_t astInd) {
    const MsgInfo info = {.Link = link, .TaskName = task, .Socket = socket, .AstInd = astInd};
    EXPECT_EQ(SaveMsgInfo(kHere, 1, &info), 0);
  }
  static void Save(const ClientMessage& msg, Link* link) {
    EXPECT_EQ(SaveUnsendMsg(kHere, 1, &msg, link), 0);
  }
  static Tags Waiting(const Link* link) {
    Tags tags;
    for (const SavedMessage& saved : g_DbcI.SavedArray)
      if (saved.Link == link) tags.push_back(TagOf(saved.Message));
    return tags;
  }
  // The requests that are noted as sent, and those that wait.
  static int InFlight() {
    int count = 0;
    for (const MsgInfo& info : g_DbcI.MsgInfoArray) count += InUse(info);
    return count;
  }
  static int Waiting() {
    int count = 0;
    for (const SavedMessage& saved : g_DbcI.SavedArray) count += InUse(saved);
    return count;
  }

  // Answers that the agent put through g_DbcI.PutMsg, in order.
  inline static std::vector<ClientMessage> Answers;
  inline static int PutResult;

  Link *A = nullptr, *B = nullptr, *C = nullptr;

 private:
  static int RecordAnswer(const char*, int, ClientMessage* msg) {
    Answers.push_back(*msg);
    return PutResult;
  }

  static void FreeLinks() {
    Link* const first = g_DbcI.LinkList;
    g_DbcI.LinkList = nullptr;
    for (Link* link = first; link;) {
      Link* const next = link->Next;
      link->Protocol->UninitLink("test", __LINE__, link);
      std::free(link);
      link = next == first ? nullptr : next;
    }
  }

  void FreeProtocols() {
    while (Protocol* const protocol = g_DbcI.ProtocolList) {
      g_DbcI.ProtocolList = protocol->Next;
      bool loaded = true;
      for (const FakeProtocol& fake : fakes_) loaded = loaded && protocol != &fake.Record;
      if (loaded) std::free(protocol);
    }
  }

  std::deque<FakeProtocol> fakes_;
};
