#include "core/stats.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <type_traits>

#include "core/environment.h"
#include "core/init.h"
#include "core/mailbox.h"
#include "core/trace.h"

static constexpr char Module[] = "stats";

StatsPage g_Stats;

namespace {

constexpr std::size_t kPageUnit = 4096;
constexpr std::size_t kAgentAt = sizeof(lumo_stats_header);
constexpr std::size_t kClientsAt = kPageUnit;
constexpr std::size_t kClientCount = FD_SETSIZE;
constexpr std::size_t kLinksAt = kClientsAt + kClientCount * sizeof(lumo_stats_client);
constexpr std::size_t kLinkCount = 512;
constexpr std::size_t kPageSize = kLinksAt + kLinkCount * sizeof(lumo_stats_link);
constexpr int kDescriptorsOfOthers = 6;  // streams, listener, reserve, alarm's wake-up
constexpr int kNameTries = 16;
constexpr mode_t kPageMode = 0640;

static_assert(sizeof(lumo_stats_header) == 128 && offsetof(lumo_stats_header, ended) == 80);
static_assert(sizeof(lumo_stats_agent) == 1280 && offsetof(lumo_stats_agent, clients) == 512 &&
              offsetof(lumo_stats_agent, requests) == 624 &&
              offsetof(lumo_stats_agent, codes) == 736);
static_assert(sizeof(lumo_stats_client) == 64 && offsetof(lumo_stats_client, last_code) == 56);
static_assert(sizeof(lumo_stats_link) == 3200 && offsetof(lumo_stats_link, requests) == 160 &&
              offsetof(lumo_stats_link, latency_sum) == 232 &&
              offsetof(lumo_stats_link, latency) == 256);
static_assert(kAgentAt + sizeof(lumo_stats_agent) <= kClientsAt);

struct PageFile {
  dev_t Device;
  ino_t Number;
};
PageFile pageFile;
std::uint32_t lastLinkSerial;

// What changes with each request, put into the agent's row once a pass.
struct Traffic {
  std::uint64_t Requests, Management, NodeAnswers, BytesIn, BytesOut;
};
Traffic traffic;
std::int64_t timeOfDayOffset;  // to be added to the monotonic clock

template <class Row>
Row* RowAt(std::size_t offset) {
  return reinterpret_cast<Row*>(g_Stats.Base + offset);
}
lumo_stats_header* Header() { return RowAt<lumo_stats_header>(0); }
lumo_stats_agent* AgentRow() { return RowAt<lumo_stats_agent>(kAgentAt); }

// Null for a number that no row has.
lumo_stats_client* AnyClientRow(int fd) {
  if (fd < 0 || fd >= static_cast<int>(kClientCount)) return nullptr;
  const std::size_t at = kClientsAt + static_cast<std::size_t>(fd) * sizeof(lumo_stats_client);
  return RowAt<lumo_stats_client>(at);
}

// Null also when the row is not in use.
lumo_stats_client* ClientRow(int fd) {
  lumo_stats_client* const client = AnyClientRow(fd);
  return client && client->used != 0 ? client : nullptr;
}

lumo_stats_link* AnyLinkRow(int row) {
  if (row < 0 || row >= static_cast<int>(kLinkCount)) return nullptr;
  return RowAt<lumo_stats_link>(kLinksAt + static_cast<std::size_t>(row) * sizeof(lumo_stats_link));
}

lumo_stats_link* LinkRow(int row) {
  lumo_stats_link* const link = AnyLinkRow(row);
  return link && link->used != 0 ? link : nullptr;
}

// A reader may look at any moment: plain stores, none torn, none invented.
template <class T>
void Set(T& field, std::type_identity_t<T> value) {
  std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}
template <class T>
void Add(T& field, std::type_identity_t<T> value = 1) {
  Set(field, static_cast<T>(field + value));
}
template <std::size_t Size>
void SetText(char (&field)[Size], const char* text) {
  const std::size_t length = text ? std::min(std::strlen(text), Size - 1) : 0;
  for (std::size_t i = 0; i < Size; ++i) Set(field[i], i < length ? text[i] : '\0');
}

// While it lives, the row is being written: its number is odd.
class Writing {
 public:
  explicit Writing(std::uint32_t* sequence) : sequence_(sequence) {
    Set(*sequence_, *sequence_ | 1U);
    std::atomic_thread_fence(std::memory_order_release);
  }
  ~Writing() {
    std::atomic_ref<std::uint32_t>(*sequence_).store(*sequence_ + 1, std::memory_order_release);
  }
  Writing(const Writing&) = delete;

 private:
  std::uint32_t* sequence_;
};

std::int64_t Microseconds(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return now.tv_sec * std::int64_t{1000000} + now.tv_nsec / 1000;
}

std::int64_t TimeOfDay() { return g_Stats.Clock + timeOfDayOffset; }

// Field 22 of /proc/self/stat, counted from behind the name; 0 when it cannot be read.
std::uint64_t ProcessStart() {
  char text[1024] = "";
  const int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
  if (file < 0) return 0;
  const ssize_t got = read(file, text, sizeof text - 1);
  close(file);
  const char* at = got > 0 ? std::strrchr(text, ')') : nullptr;
  for (int field = 2; at && field < 22; ++field) at = std::strchr(at + 1, ' ');
  return at ? std::strtoull(at, nullptr, 10) : 0;
}

// Making the page

void PagePath(char* path, std::size_t size) {
  MailboxAddress address;
  MakeMailboxAddress(&address, g_DbcI.NetMbx);
  std::snprintf(path, size, "%s.stats", address.Path);
}

bool IsPage(const struct stat& status) {
  return status.st_dev == pageFile.Device && status.st_ino == pageFile.Number;
}

// Room in the file itself: a part that the system could not provide later would be a signal.
bool Reserve(int file, std::size_t at, std::size_t size) {
  errno = posix_fallocate(file, static_cast<off_t>(at), static_cast<off_t>(size));
  return errno == 0;
}

// No descriptor is kept for it: links are few, descriptors that clients can use may not be.
bool ReserveLink(const lumo_stats_link* link) {
  const int savedErrno = errno;
  char path[kMailboxPathMax + 16];
  PagePath(path, sizeof path);
  const int file = open(path, O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  struct stat status;
  const auto at =
      static_cast<std::size_t>(reinterpret_cast<const unsigned char*>(link) - g_Stats.Base);
  const bool reserved =
      file >= 0 && fstat(file, &status) == 0 && IsPage(status) && Reserve(file, at, sizeof *link);
  if (file >= 0) close(file);
  errno = savedErrno;
  return reserved;
}

// A new file beside the page's place, so that the page appears whole. Nothing that somebody has
// laid there is opened.
int MakeFile(const char* path, char* name, std::size_t size) {
  int file = -1;
  for (int i = 0; file < 0 && i < kNameTries; ++i) {
    std::snprintf(name, size, "%s.%d.%d", path, getpid(), i);
    file = open(name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kPageMode);
    if (file < 0 && errno != EEXIST) break;
  }
  return file;
}

bool MapFile(int file) {
  struct stat status;
  if (fchmod(file, kPageMode) != 0 || ftruncate(file, kPageSize) != 0) return false;
  if (!Reserve(file, 0, kLinksAt) || fstat(file, &status) != 0) return false;
  void* const base = mmap(nullptr, kPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (base == MAP_FAILED) return false;
  madvise(base, kPageSize, MADV_DONTFORK);
  pageFile = {status.st_dev, status.st_ino};
  g_Stats.Base = static_cast<unsigned char*>(base);
  traffic = {};
  return true;
}

template <class Row>
void ShowCounts(Row* row, StatsCounts counts) {
  Set(row->in_flight, static_cast<std::uint32_t>(counts.InFlight));
  Set(row->waiting, static_cast<std::uint32_t>(counts.Waiting));
}

void ShowTraffic(lumo_stats_agent* agent) {
  Set(agent->requests, traffic.Requests);
  Set(agent->management, traffic.Management);
  Set(agent->node_answers, traffic.NodeAnswers);
  Set(agent->bytes_in, traffic.BytesIn);
  Set(agent->bytes_out, traffic.BytesOut);
}

void ShowClientCounts(int fd, StatsCounts counts) {
  lumo_stats_client* const client = ClientRow(fd);
  if (!client) return;
  Writing writing(&client->sequence);
  ShowCounts(client, counts);
}

void Unmap() {
  munmap(g_Stats.Base, kPageSize);
  g_Stats.Base = nullptr;
}

void FillHeader() {
  lumo_stats_header* const header = Header();
  header->layout = LUMO_STATS_LAYOUT;
  header->header_size = sizeof *header;
  header->pid = getpid();
  header->exchange_id = g_DbcI.NetMbx;
  header->start_clock = g_Stats.Clock = Microseconds(CLOCK_MONOTONIC);
  header->start_time = Microseconds(CLOCK_REALTIME);
  timeOfDayOffset = header->start_time - header->start_clock;
  header->process_start = ProcessStart();
  header->agent_at = kAgentAt;
  header->agent_size = sizeof(lumo_stats_agent);
  header->clients_at = kClientsAt;
  header->client_size = sizeof(lumo_stats_client);
  header->client_count = kClientCount;
  header->links_at = kLinksAt;
  header->link_size = sizeof(lumo_stats_link);
  header->link_count = kLinkCount;
  std::memcpy(header->magic, LUMO_STATS_MAGIC, sizeof header->magic);
}

// Arguments with blanks between them.
void FillOptions(lumo_stats_agent* row) {
  std::size_t length = 0;
  for (char** argument = g_DbcI.Argv; argument && argument[0] && argument[1]; ++argument) {
    const std::size_t room = sizeof row->options - length;
    const int wanted =
        std::snprintf(row->options + length, room, "%s%s", length ? " " : "", argument[1]);
    length += std::min(static_cast<std::size_t>(std::max(wanted, 0)), room - 1);
  }
}

void FillAgent() {
  lumo_stats_agent* const row = AgentRow();
  std::snprintf(row->version, sizeof row->version, "%s", GetVersionString(2));
  FillOptions(row);
  row->log_level = g_DbcI.LogLevel;
  row->default_link = kNoStatsRow;
  row->last_pass = g_Stats.Clock;
  const long files = sysconf(_SC_OPEN_MAX);
  const long usable = files > 0 ? std::min<long>(files, FD_SETSIZE) : FD_SETSIZE;
  row->clients_ceiling = static_cast<std::uint32_t>(std::max(usable - kDescriptorsOfOthers, 0L));
}

// What could not be finished is taken away; errno says why.
bool MakePage(const char* path) {
  char name[kMailboxPathMax + 64];
  const int file = MakeFile(path, name, sizeof name);
  if (file < 0) return false;
  bool made = MapFile(file);
  if (made) {
    FillHeader();
    FillAgent();
    made = rename(name, path) == 0;
  }
  const int error = errno;
  close(file);
  if (made) return true;
  unlink(name);
  if (g_Stats.Base) Unmap();
  errno = error;
  return false;
}

void DescribeLink(lumo_stats_link* link, const char* protocol, const char* address) {
  SetText(link->protocol, protocol);
  SetText(link->address, address);
}

}  // namespace

void InitialiseStats() {
  if (NumberFromEnvironment("LUMO_STATS", 0, 1, 0) == 0) return;
  char path[kMailboxPathMax + 16];
  PagePath(path, sizeof path);
  if (!MakePage(path)) LOG(kLogError, "Statistics page %s cannot be made. Errno %d", path, errno);
}

// Another file that has taken the page's place meanwhile is not removed.
void UninitStats() {
  if (!KeepsStats()) return;
  Add(AgentRow()->closed[LUMO_STATS_STOPPING], AgentRow()->clients);
  Set(Header()->ended, 1);
  char path[kMailboxPathMax + 16];
  PagePath(path, sizeof path);
  struct stat status;
  if (lstat(path, &status) == 0 && IsPage(status)) unlink(path);
  Unmap();
}

void ForgetStats() { g_Stats.Base = nullptr; }

int NewLinkStats(const char* name, const char* protocol, const char* address) {
  if (!KeepsStats()) return kNoStatsRow;
  Writing agent(&AgentRow()->sequence);
  Add(AgentRow()->links);
  int row = 0;
  while (row < static_cast<int>(kLinkCount) && AnyLinkRow(row)->used != 0) ++row;
  lumo_stats_link* const link = AnyLinkRow(row);
  if (!link || !ReserveLink(link)) return kNoStatsRow;
  Writing writing(&link->sequence);
  const std::uint32_t sequence = link->sequence;
  std::memset(static_cast<void*>(link), 0, sizeof *link);
  link->sequence = sequence;
  SetText(link->name, name);
  DescribeLink(link, protocol, address);
  Set(link->since, TimeOfDay());
  Set(link->serial, ++lastLinkSerial);
  Set(link->used, 1);
  return row;
}

void RenewLinkStats(int row, const char* protocol, const char* address) {
  lumo_stats_link* const link = KeepsStats() ? LinkRow(row) : nullptr;
  if (!link) return;
  Writing writing(&link->sequence);
  DescribeLink(link, protocol, address);
}

void FreeLinkStats(int row) {
  if (!KeepsStats()) return;
  lumo_stats_link* const link = LinkRow(row);
  Writing agent(&AgentRow()->sequence);
  Add(AgentRow()->links, ~0U);
  if (AgentRow()->default_link == row) Set(AgentRow()->default_link, kNoStatsRow);
  if (!link) return;
  Writing writing(&link->sequence);
  Set(link->used, 0);
}

namespace stats {

void Pass() {
  g_Stats.Clock = Microseconds(CLOCK_MONOTONIC);
  lumo_stats_agent* const agent = AgentRow();
  Writing writing(&agent->sequence);
  Add(agent->passes);
  Set(agent->last_pass, g_Stats.Clock);
}

// The coarse clock costs next to nothing; a pass that takes milliseconds is what matters.
void EndPass(StatsCounts all) {
  lumo_stats_agent* const agent = AgentRow();
  const std::int64_t lasted = Microseconds(CLOCK_MONOTONIC_COARSE) - g_Stats.Clock;
  Writing writing(&agent->sequence);
  ShowTraffic(agent);
  ShowCounts(agent, all);
  if (agent->passes == 0 || lasted <= static_cast<std::int64_t>(agent->longest_pass)) return;
  Set(agent->longest_pass, static_cast<std::uint64_t>(lasted));
}

void Tick() {
  Writing writing(&AgentRow()->sequence);
  Add(AgentRow()->ticks);
}

void ClientOpened(int fd, std::uint32_t serial) {
  lumo_stats_client* const client = AnyClientRow(fd);
  if (!client) return;
  lumo_stats_agent* const agent = AgentRow();
  {
    Writing writing(&agent->sequence);
    Add(agent->accepted);
    Add(agent->clients);
    if (agent->clients > agent->clients_most) Set(agent->clients_most, agent->clients);
  }
  Writing writing(&client->sequence);
  const std::uint32_t sequence = client->sequence;
  std::memset(static_cast<void*>(client), 0, sizeof *client);
  client->sequence = sequence;
  ucred peer = {};
  socklen_t size = sizeof peer;
  const int savedErrno = errno;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) client->system_pid = peer.pid;
  errno = savedErrno;
  Set(client->since, TimeOfDay());
  Set(client->serial, serial);
  Set(client->used, 1);
}

void ClientRefused() {
  Writing writing(&AgentRow()->sequence);
  Add(AgentRow()->refused);
}

void ClientClosed(int fd, lumo_stats_reason reason) {
  lumo_stats_client* const client = ClientRow(fd);
  if (!client) return;
  lumo_stats_agent* const agent = AgentRow();
  Writing agentWriting(&agent->sequence);
  Add(agent->closed[reason]);
  Add(agent->clients, ~0U);
  Writing writing(&client->sequence);
  Set(client->used, 0);
}

void Request(int fd, std::int32_t pid, std::size_t bytes, bool management) {
  ++(management ? traffic.Management : traffic.Requests);
  traffic.BytesIn += bytes;
  lumo_stats_client* const client = ClientRow(fd);
  if (!client) return;
  Writing writing(&client->sequence);
  Set(client->named_pid, pid);
  Add(client->requests);
}

void Answer(int fd, const StatsReply& reply, StatsCounts counts) {
  traffic.BytesOut += reply.Bytes;
  lumo_stats_client* const client = ClientRow(fd);
  if (!client) return;
  Writing writing(&client->sequence);
  Set(client->last_code, reply.Code);
  Set(client->unsent, static_cast<std::uint32_t>(reply.Unsent));
  Add(client->answers);
  ShowCounts(client, counts);
}

// A code gets its place when it comes for the first time.
void AgentAnswer(std::int32_t code) {
  lumo_stats_agent* const agent = AgentRow();
  Writing writing(&agent->sequence);
  Add(agent->agent_answers);
  lumo_stats_code* place = agent->codes;
  lumo_stats_code* const last = agent->codes + LUMO_STATS_CODES - 1;
  while (place != last && place->used != 0 && place->code != code) ++place;
  if (place != last && place->used == 0) {
    Set(place->code, code);
    Set(place->used, 1);
  }
  Add(place->count);
}

void ClientUnsent(int fd, std::size_t bytes) {
  lumo_stats_client* const client = ClientRow(fd);
  if (!client || client->unsent == bytes) return;
  Writing writing(&client->sequence);
  Set(client->unsent, static_cast<std::uint32_t>(bytes));
}

void ClientParked(int fd, bool parked, std::uint32_t all) {
  Writing agent(&AgentRow()->sequence);
  Set(AgentRow()->parked, all);
  lumo_stats_client* const client = ClientRow(fd);
  if (!client) return;
  Writing writing(&client->sequence);
  Set(client->parked, parked);
}

void Sent(int row, std::size_t bytes, StatsCounts linkCounts, int fd, StatsCounts clientCounts) {
  ShowClientCounts(fd, clientCounts);
  lumo_stats_link* const link = LinkRow(row);
  if (!link) return;
  Writing writing(&link->sequence);
  Add(link->requests);
  Add(link->bytes_out, bytes);
  ShowCounts(link, linkCounts);
}

void NodeAnswer(int row, std::size_t bytes, std::int64_t sentAt, StatsCounts counts) {
  ++traffic.NodeAnswers;
  lumo_stats_link* const link = LinkRow(row);
  if (!link) return;
  const auto latency =
      static_cast<std::uint64_t>(std::max<std::int64_t>(g_Stats.Clock - sentAt, 0));
  Writing writing(&link->sequence);
  Add(link->answers);
  Add(link->bytes_in, bytes);
  Add(link->latency_sum, latency);
  Add(link->latency_count);
  Add(link->latency[lumo_stats_bucket(latency)]);
  ShowCounts(link, counts);
}

void Unasked(int row) {
  lumo_stats_link* const link = LinkRow(row);
  if (!link) return;
  Writing writing(&link->sequence);
  Add(link->unasked);
}

void FailedRequest(int row) {
  lumo_stats_link* const link = LinkRow(row);
  if (!link) return;
  Writing writing(&link->sequence);
  Add(link->failed_requests);
}

void Counts(int row, StatsCounts linkCounts, int fd, StatsCounts clientCounts) {
  ShowClientCounts(fd, clientCounts);
  lumo_stats_link* const link = LinkRow(row);
  if (!link) return;
  Writing writing(&link->sequence);
  ShowCounts(link, linkCounts);
}

void LinkUnsent(int row, std::size_t bytes) {
  lumo_stats_link* const link = LinkRow(row);
  if (!link || link->unsent == bytes) return;
  Writing writing(&link->sequence);
  Set(link->unsent, bytes);
}

void LinkState(int row, std::uint8_t state) {
  lumo_stats_link* const link = LinkRow(row);
  if (!link || link->state == state) return;
  Writing writing(&link->sequence);
  Set(link->state, state);
  Set(link->since, TimeOfDay());
  if (state == LUMO_STATS_CONNECTED) Add(link->connects_made);
}

void ConnectTried(int row) {
  lumo_stats_link* const link = LinkRow(row);
  if (!link) return;
  Writing writing(&link->sequence);
  Add(link->connects_tried);
}

void ConnectFailed(int row, int code, int error) {
  lumo_stats_link* const link = LinkRow(row);
  if (!link) return;
  Writing writing(&link->sequence);
  Add(link->connects_failed);
  Set(link->failed_at, TimeOfDay());
  Set(link->failed_code, code);
  Set(link->failed_errno, error);
}

void Watchdog(int row) {
  lumo_stats_link* const link = LinkRow(row);
  if (!link) return;
  Writing writing(&link->sequence);
  Add(link->watchdogs);
}

// The first default is no move.
void DefaultLink(int row) {
  lumo_stats_agent* const agent = AgentRow();
  if (agent->default_link == row) return;
  Writing writing(&agent->sequence);
  if (agent->default_link != kNoStatsRow && row != kNoStatsRow) Add(agent->default_moves);
  Set(agent->default_link, row);
}

void LogLost(std::uint64_t lines) {
  if (AgentRow()->log_lost == lines) return;
  Writing writing(&AgentRow()->sequence);
  Set(AgentRow()->log_lost, lines);
}

void LogLevel(std::uint8_t level) {
  if (AgentRow()->log_level == level) return;
  Writing writing(&AgentRow()->sequence);
  Set(AgentRow()->log_level, level);
}

}  // namespace stats
