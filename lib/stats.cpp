// Reads the statistics page. By calls, not by a mapping: a file that is cut short while it is read
// gives an error and no signal.
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "lib/entry.h"
#include "lib/include/lumo_stats.h"
#include "lib/socket_path.h"
#include "lib/socket_places.h"

struct lumo_stats {
  int File = -1;
  lumo_stats_header Header{};

  lumo_stats() = default;
  ~lumo_stats() {
    if (File >= 0) close(File);
  }
  lumo_stats(const lumo_stats&) = delete;
  lumo_stats& operator=(const lumo_stats&) = delete;
};

namespace {

using lumo::detail::Entry;
using lumo::detail::Outcome;

constexpr int kTries = 1000;  // to see a row at rest
constexpr std::uint32_t kRowMax = 1 << 20;

Outcome ReadAt(int file, std::uint64_t at, void* bytes, std::size_t count) {
  auto* to = static_cast<char*>(bytes);
  while (count > 0) {
    const ssize_t got = pread(file, to, count, static_cast<off_t>(at));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return {LUMO_SYSTEM, got < 0 ? errno : ENODATA};
    to += got;
    at += static_cast<std::uint64_t>(got);
    count -= static_cast<std::size_t>(got);
  }
  return {};
}

// A row by its offset, cut or filled to `size` bytes.
Outcome ReadRow(int file, std::uint64_t at, std::size_t rowSize, void* row, std::size_t size) {
  std::vector<char> copy(rowSize);
  Outcome end{LUMO_TIMEOUT};
  for (int i = 0; i < kTries && end.Status == LUMO_TIMEOUT; ++i) {
    if (i > 0) sched_yield();
    std::uint32_t before = 0, after = 0;
    Outcome read = ReadAt(file, at, &before, sizeof before);
    if (read.Good()) read = ReadAt(file, at, copy.data(), copy.size());
    if (read.Good()) read = ReadAt(file, at, &after, sizeof after);
    if (!read.Good()) return read;
    if (before == after && before % 2 == 0) end = {};
  }
  std::memset(row, 0, size);
  std::memcpy(row, copy.data(), std::min(size, copy.size()));
  return end;
}

Outcome ReadIndexed(const lumo_stats* stats, std::uint32_t row, std::uint32_t count,
                    std::uint32_t begin, std::uint32_t rowSize, void* to, std::size_t size) {
  if (row >= count) return {LUMO_BAD_ARGUMENT};
  return ReadRow(stats->File, begin + std::uint64_t{row} * rowSize, rowSize, to, size);
}

bool IsRow(std::uint32_t size) { return size >= 2 * sizeof(std::uint32_t) && size <= kRowMax; }

bool IsKnown(const lumo_stats_header& header) {
  return std::memcmp(header.magic, LUMO_STATS_MAGIC, sizeof header.magic) == 0 &&
         header.layout == LUMO_STATS_LAYOUT &&
         header.header_size >= offsetof(lumo_stats_header, ended) && IsRow(header.agent_size) &&
         IsRow(header.client_size) && IsRow(header.link_size);
}

Outcome Open(const char* path, lumo_stats* stats) {
  stats->File = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (stats->File < 0) return {LUMO_NO_AGENT, errno};
  struct stat status {};
  if (fstat(stats->File, &status) != 0 || !S_ISREG(status.st_mode)) return {LUMO_BAD_GREETING};
  lumo_stats_header& header = stats->Header;
  if (!ReadAt(stats->File, 0, &header, sizeof header).Good() || !IsKnown(header))
    return {LUMO_BAD_GREETING};
  return {};
}

// When a process began, in the system's own count; 0 when there is none.
unsigned long long ProcessStart(pid_t pid) {
  std::array<char, 64> path;
  std::snprintf(path.data(), path.size(), "/proc/%d/stat", pid);
  const int file = open(path.data(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return 0;
  std::array<char, 1024> text{};
  const ssize_t got = read(file, text.data(), text.size() - 1);
  close(file);
  const char* const name = got > 0 ? std::strrchr(text.data(), ')') : nullptr;
  unsigned long long start = 0;
  if (!name) return 0;
  std::sscanf(name + 1,
              " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d"
              " %*d %llu",
              &start);
  return start;
}

// Beside the agent's socket.
std::string PageOf(int exchangeId) {
  return lumo::detail::ChoosePlace(lumo::detail::SocketPlaces(exchangeId)) + ".stats";
}

}  // namespace

lumo_status lumo_stats_path(int exchange_id, char* path, size_t size) {
  if (!path || size == 0) return LUMO_BAD_ARGUMENT;
  path[0] = '\0';
  return Entry([&]() -> Outcome {
    const std::string text = PageOf(exchange_id ? exchange_id : lumo::ExchangeId());
    if (text.size() >= size) return {LUMO_TOO_LONG};
    std::memcpy(path, text.c_str(), text.size() + 1);
    return {};
  });
}

lumo_status lumo_stats_open(const char* path, lumo_stats** stats) {
  if (!stats) return LUMO_BAD_ARGUMENT;
  *stats = nullptr;
  return Entry([&]() -> Outcome {
    const std::string text = path && *path ? path : PageOf(lumo::ExchangeId());
    auto opened = std::make_unique<lumo_stats>();
    const Outcome outcome = Open(text.c_str(), opened.get());
    if (outcome.Good()) *stats = opened.release();
    return outcome;
  });
}

void lumo_stats_close(lumo_stats* stats) { delete stats; }

int lumo_stats_alive(const lumo_stats* stats) {
  if (!stats) return 0;
  std::uint32_t ended = 0;
  if (!ReadAt(stats->File, offsetof(lumo_stats_header, ended), &ended, sizeof ended).Good())
    return 0;
  if (ended != 0) return 0;
  const unsigned long long start = ProcessStart(stats->Header.pid);
  if (start != 0) return start == stats->Header.process_start;
  return kill(stats->Header.pid, 0) == 0 || errno == EPERM;  // it is hidden from this process
}

lumo_status lumo_stats_read_header(const lumo_stats* stats, lumo_stats_header* header,
                                   size_t size) {
  if (!stats || !header) return LUMO_BAD_ARGUMENT;
  return Entry([&]() -> Outcome {
    std::memset(header, 0, size);
    return ReadAt(stats->File, 0, header, std::min<std::size_t>(size, stats->Header.header_size));
  });
}

lumo_status lumo_stats_read_agent(const lumo_stats* stats, lumo_stats_agent* agent, size_t size) {
  if (!stats || !agent) return LUMO_BAD_ARGUMENT;
  return Entry([&] {
    const lumo_stats_header& header = stats->Header;
    return ReadIndexed(stats, 0, 1, header.agent_at, header.agent_size, agent, size);
  });
}

lumo_status lumo_stats_read_client(const lumo_stats* stats, uint32_t row, lumo_stats_client* client,
                                   size_t size) {
  if (!stats || !client) return LUMO_BAD_ARGUMENT;
  return Entry([&] {
    const lumo_stats_header& header = stats->Header;
    return ReadIndexed(stats, row, header.client_count, header.clients_at, header.client_size,
                       client, size);
  });
}

lumo_status lumo_stats_read_link(const lumo_stats* stats, uint32_t row, lumo_stats_link* link,
                                 size_t size) {
  if (!stats || !link) return LUMO_BAD_ARGUMENT;
  return Entry([&] {
    const lumo_stats_header& header = stats->Header;
    return ReadIndexed(stats, row, header.link_count, header.links_at, header.link_size, link,
                       size);
  });
}

const char* lumo_stats_reason_text(int reason) {
  static constexpr const char* kTexts[] = {"hung up",     "receive failed", "bad message",
                                           "send failed", "not reading",    "other",
                                           "stopping"};
  return reason >= 0 && reason < static_cast<int>(std::size(kTexts)) ? kTexts[reason]
                                                                     : "unknown reason";
}

double lumo_stats_percentile(const uint64_t* latency, double share) {
  if (!latency) return 0;
  std::uint64_t total = 0;
  for (std::uint32_t i = 0; i < LUMO_STATS_BUCKETS; ++i) total += latency[i];
  const double wanted = std::ceil(std::clamp(share, 0.0, 1.0) * static_cast<double>(total));
  const std::uint64_t rank = std::max<std::uint64_t>(static_cast<std::uint64_t>(wanted), 1);
  std::uint64_t seen = 0;
  for (std::uint32_t i = 0; i < LUMO_STATS_BUCKETS; ++i) {
    seen += latency[i];
    if (seen < rank) continue;
    const double low = static_cast<double>(lumo_stats_bucket_floor(i));
    return (low + static_cast<double>(lumo_stats_bucket_floor(i + 1) - 1)) / 2;
  }
  return 0;
}
