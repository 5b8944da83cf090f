// trace: a level 15 log, one line a request.
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>

#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/output.h"
#include "tools/lumoctl/page.h"
#include "tools/lumoctl/trace_log.h"

namespace lumo::ctl {
namespace {

double ClockNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::string ClockText(double seconds, bool exact) {
  if (seconds == 0) return "-";
  const auto whole = static_cast<std::time_t>(seconds);
  std::tm fields{};
  localtime_r(&whole, &fields);
  char text[48];
  const std::size_t length = std::strftime(text, sizeof text, "%H:%M:%S", &fields);
  if (exact)
    std::snprintf(text + length, sizeof text - length, ".%06d",
                  static_cast<int>((seconds - static_cast<double>(whole)) * 1e6));
  return text;
}

class Report {
 public:
  explicit Report(const Options& options) : options_(options) {}

  void Take(const TracedRequest& request) {
    if (!Wanted(request)) return;
    ++requests_;
    if (request.Answered) times_.push_back(request.Seconds());
    if (options_.Slowest > 0) {
      Keep(request);
    } else {
      Print(request);
    }
  }
  void End(const TraceReader& reader) {
    std::sort(slowest_.begin(), slowest_.end(), [](const TracedRequest& a, const TracedRequest& b) {
      return std::pair(-a.Seconds(), a.Line) < std::pair(-b.Seconds(), b.Line);
    });
    for (const TracedRequest& request : slowest_) Print(request);
    std::sort(times_.begin(), times_.end());
    if (options_.Json)
      PrintSummaryJson(reader);
    else
      PrintSummary(reader);
  }

 private:
  bool Wanted(const TracedRequest& request) const {
    if (options_.Tag && request.Tag != *options_.Tag) return false;
    if (options_.Pid && request.Pid != *options_.Pid) return false;
    const std::string& node = request.Link.empty() ? request.Node : request.Link;
    return options_.Node.empty() || strcasecmp(node.c_str(), options_.Node.c_str()) == 0;
  }
  // The N slowest so far: a heap whose top is the fastest of them.
  void Keep(const TracedRequest& request) {
    const auto slower = [](const TracedRequest& a, const TracedRequest& b) {
      return a.Seconds() > b.Seconds();
    };
    slowest_.push_back(request);
    std::push_heap(slowest_.begin(), slowest_.end(), slower);
    if (slowest_.size() <= static_cast<std::size_t>(options_.Slowest)) return;
    std::pop_heap(slowest_.begin(), slowest_.end(), slower);
    slowest_.pop_back();
  }
  double Percentile(double share) const {
    if (times_.empty()) return 0;
    const auto at = static_cast<std::size_t>(share * static_cast<double>(times_.size()));
    return times_[std::min(at, times_.size() - 1)];
  }
  void Print(const TracedRequest& request) {
    if (options_.Json) return PrintJson(request);
    if (!headed_)
      std::printf("%10s %9s %6s %-8s %-24s %-15s %-15s %-15s %s\n", "LINE", "CLIENT", "TAG", "NODE",
                  "PATH", "READ", "SENT", "ANSWERED", "SECONDS");
    headed_ = true;
    const std::string tag = request.Tag < 0 ? "-" : std::to_string(request.Tag);
    std::string node = Printable(request.Link.empty() ? request.Node : request.Link);
    std::printf("%10llu %9d %6s %-8.8s %-24s %-15s %-15s %-15s %.6f\n",
                static_cast<unsigned long long>(request.Line), request.Pid, tag.c_str(),
                node.c_str(), request.Path().c_str(),
                ClockText(request.Read, options_.Live).c_str(),
                ClockText(request.SentAt, options_.Live).c_str(),
                ClockText(request.AnsweredAt, options_.Live).c_str(), request.Seconds());
    if (options_.Live) std::fflush(stdout);
  }
  void PrintJson(const TracedRequest& request) {
    const auto time = [](double value) { return value == 0 ? Json() : Json(value); };
    const Json value{{"line", request.Line},
                     {"pid", request.Pid},
                     {"tag", request.Tag < 0 ? Json() : Json(request.Tag)},
                     {"socket", request.Socket},
                     {"node", request.Link.empty() ? request.Node : request.Link},
                     {"path", request.Path()},
                     {"code", request.Answered ? Json(request.Code) : Json()},
                     {"read", time(request.Read)},
                     {"sent", time(request.SentAt)},
                     {"answered", time(request.AnsweredAt)},
                     {"seconds", request.Answered ? Json(request.Seconds()) : Json()}};
    PrintLine(value);
  }
  void PrintLine(const Json& value) const {
    std::printf("%s\n", value.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    if (options_.Live) std::fflush(stdout);
  }
  void PrintSummary(const TraceReader& reader) const {
    std::printf("%llu lines, %llu requests, %zu answered, %llu answers to nothing; seconds: ",
                static_cast<unsigned long long>(reader.Lines()),
                static_cast<unsigned long long>(requests_), times_.size(),
                static_cast<unsigned long long>(reader.Unasked()));
    std::printf("p50 %.6f, p90 %.6f, p99 %.6f, longest %.6f\n", Percentile(0.5), Percentile(0.9),
                Percentile(0.99), Percentile(1));
  }
  void PrintSummaryJson(const TraceReader& reader) const {
    PrintLine(Json{{"summary",
                    {{"lines", reader.Lines()},
                     {"requests", requests_},
                     {"answered", times_.size()},
                     {"unasked", reader.Unasked()},
                     {"p50", Percentile(0.5)},
                     {"p90", Percentile(0.9)},
                     {"p99", Percentile(0.99)},
                     {"longest", Percentile(1)}}}});
  }

  const Options& options_;
  std::vector<TracedRequest> slowest_;
  std::vector<double> times_;
  std::uint64_t requests_ = 0;
  bool headed_ = false;
};

// Hands out whole lines as they come; a last one without an end, too.
void ReadLines(std::FILE* file, TraceReader* reader, bool live) {
  std::vector<char> buffer(1 << 20);
  std::size_t have = 0;
  for (;;) {
    const ssize_t got = read(fileno(file), buffer.data() + have, buffer.size() - have);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    const double now = live ? ClockNow() : 0;
    have += static_cast<std::size_t>(got);
    std::size_t from = 0;
    while (const void* const found = std::memchr(buffer.data() + from, '\n', have - from)) {
      const auto end = static_cast<std::size_t>(static_cast<const char*>(found) - buffer.data());
      reader->Line({buffer.data() + from, end - from}, now);
      from = end + 1;
    }
    have -= from;
    std::memmove(buffer.data(), buffer.data() + from, have);
    if (have == buffer.size()) buffer.resize(2 * buffer.size());
  }
  if (have > 0) reader->Line({buffer.data(), have}, live ? ClockNow() : 0);
}

struct FileCloser {
  void operator()(std::FILE* file) const {
    if (file != stdin) std::fclose(file);
  }
};

}  // namespace

int RunTrace(const Options& options) {
  const std::unique_ptr<std::FILE, FileCloser> file(
      options.File == "-" ? stdin : std::fopen(options.File.c_str(), "re"));
  if (!file) throw Failure(kUsage, options.File + " cannot be read: " + std::strerror(errno));
  Report report(options);
  TraceReader reader([&](const TracedRequest& request) { report.Take(request); });
  ReadLines(file.get(), &reader, options.Live);
  reader.Finish();
  report.End(reader);
  return kDone;
}

}  // namespace lumo::ctl
