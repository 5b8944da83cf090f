#include "client/permission.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/message.h"
#include "core/trace.h"

static constexpr char Module[] = "clntxch";

bool permissionsAsked;

namespace {

constexpr std::size_t kManagersMax = 64;  // users, and as many groups
constexpr std::size_t kWordMax = 63;
constexpr char kSeparators[] = ", \t";

struct IdList {
  std::array<id_t, kManagersMax> Ids;
  std::size_t Count;

  bool Add(id_t id) {
    if (Count == Ids.size()) return false;
    Ids[Count++] = id;
    return true;
  }
  bool Holds(id_t id) const {
    const auto end = Ids.begin() + Count;
    return std::find(Ids.begin(), end, id) != end;
  }
};

bool managersOnly, strictTasks;
IdList users, groups;

// What is known of a connection: whom the system names as its other end when it was made, and what
// has been found out for it.
enum class Verdict : std::uint8_t { Unknown, No, Yes };
struct Peer {
  bool Known;
  Verdict Manages;
  std::uint8_t NextTask;
  ucred Credentials;
  std::array<std::int32_t, 8> Tasks;  // other processes of the user, 0: none
};
Peer peers[FD_SETSIZE];

// The number of a user, or with '@' of a group: a name or a number.
bool Resolve(const char* word, id_t* id) {
  const bool isGroup = *word == '@';
  const char* const name = word + isGroup;
  if (*name != '\0' && name[std::strspn(name, "0123456789")] == '\0') {
    *id = static_cast<id_t>(std::strtoul(name, nullptr, 10));
    return true;
  }
  if (isGroup) {
    const group* const found = getgrnam(name);
    if (found) *id = found->gr_gid;
    return found != nullptr;
  }
  const passwd* const found = getpwnam(name);
  if (found) *id = found->pw_uid;
  return found != nullptr;
}

// A word that names nobody permits nothing; the others hold.
void AddManager(const char* word) {
  id_t id = 0;
  if (!Resolve(word, &id))
    LOG(kLogResult, "LUMO_MANAGERS: '%s' is no user, group or number", word);
  else if (!(*word == '@' ? groups : users).Add(id))
    LOG(kLogResult, "LUMO_MANAGERS: '%s' is one too many", word);
}

void ReadManagers(const char* text) {
  users.Count = groups.Count = 0;
  if (!text) text = "";
  text += std::strspn(text, kSeparators);
  managersOnly = *text != '\0';
  while (*text != '\0') {
    const std::size_t length = std::strcspn(text, kSeparators);
    char word[kWordMax + 1] = "";
    std::memcpy(word, text, std::min(length, kWordMax));
    AddManager(word);
    text += length;
    text += std::strspn(text, kSeparators);
  }
}

void ReadStrictTasks(const char* text) {
  if (!text) text = "";
  strictTasks = std::strcmp(text, "1") == 0;
  if (!strictTasks && *text != '\0' && std::strcmp(text, "0") != 0)
    LOG(kLogResult, "LUMO_STRICT_TASKS: '%s' is neither 0 nor 1", text);
}

// Null: the system does not tell.
Peer* PeerOf(int socket) {
  if (socket < 0 || socket >= FD_SETSIZE) return nullptr;
  Peer& peer = peers[socket];
  if (peer.Known) return &peer;
  socklen_t size = sizeof peer.Credentials;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer.Credentials, &size) != 0) return nullptr;
  peer.Known = true;
  return &peer;
}

bool IsInGroups(int socket, gid_t ownGroup) {
  static gid_t list[65536];  // the system's most; only as much of it is touched as is told
  socklen_t size = sizeof list;
  if (groups.Count == 0) return false;
  if (groups.Holds(ownGroup)) return true;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, list, &size) != 0) return false;
  return std::any_of(list, list + size / sizeof *list, [](gid_t id) { return groups.Holds(id); });
}

bool IsManager(int socket, const ucred& peer) {
  return peer.uid == 0 || peer.uid == geteuid() || users.Holds(peer.uid) ||
         IsInGroups(socket, peer.gid);
}

// Whether the process is one of the user's, by its effective one.
bool IsOfUser(std::int32_t pid, uid_t user) {
  char text[1024];
  std::snprintf(text, sizeof text, "/proc/%d/status", pid);
  const int file = open(text, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  const ssize_t size = read(file, text, sizeof text - 1);
  close(file);
  text[std::max<ssize_t>(size, 0)] = '\0';
  const char* const line = std::strstr(text, "\nUid:");
  unsigned real = 0, effective = 0;
  return line && std::sscanf(line, "\nUid: %u %u", &real, &effective) == 2 && effective == user;
}

// The commands that change nodes, the default, or the lock on the table.
bool ChangesSomething(std::uint16_t command) {
  return command == 106 || (command >= 117 && command <= 119) || (command >= 123 && command <= 128);
}

}  // namespace

void ReadPermissions() {
  ReadManagers(std::getenv("LUMO_MANAGERS"));
  ReadStrictTasks(std::getenv("LUMO_STRICT_TASKS"));
  permissionsAsked = managersOnly || strictTasks;
}

void ForgetPermissions(int socket) {
  if (permissionsAsked && socket >= 0 && socket < FD_SETSIZE) peers[socket] = {};
}

bool MayManage(int socket) {
  if (!managersOnly) return true;
  Peer* const peer = PeerOf(socket);
  if (!peer) return false;
  if (peer->Manages == Verdict::Unknown)
    peer->Manages = IsManager(socket, peer->Credentials) ? Verdict::Yes : Verdict::No;
  return peer->Manages == Verdict::Yes;
}

bool MayNameTask(int socket, std::int32_t taskName) {
  if (!strictTasks) return true;
  Peer* const peer = PeerOf(socket);
  if (!peer || taskName <= 0) return false;
  if (taskName == peer->Credentials.pid) return true;
  if (std::find(peer->Tasks.begin(), peer->Tasks.end(), taskName) != peer->Tasks.end()) return true;
  if (!IsOfUser(taskName, peer->Credentials.uid)) return false;
  peer->Tasks[peer->NextTask] = taskName;
  peer->NextTask = static_cast<std::uint8_t>((peer->NextTask + 1) % peer->Tasks.size());
  return true;
}

bool CheckPermissions(const ClientMessage* msg) {
  const int socket = msg->ClientSocket;
  const std::uint16_t command = IsManagement(msg) ? msg->CBL.DbcApiCode : std::uint16_t{0};
  const bool named = MayNameTask(socket, msg->TaskName);
  if (named && (!ChangesSomething(command) || MayManage(socket))) return true;
  const Peer* const peer = PeerOf(socket);
  const int pid = peer ? peer->Credentials.pid : 0;
  const unsigned user = peer ? peer->Credentials.uid : ~0U;
  if (named)
    LOG(kLogError, "Management command %d of process %d, user %u is not permitted", command, pid,
        user);
  else
    LOG(kLogError, "Request in the name of process %d from process %d, user %u is not permitted",
        msg->TaskName, pid, user);
  return false;
}
