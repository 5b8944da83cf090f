#include "tools/lumo_node/event_log.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <stdexcept>

namespace lumo::node {
namespace {

constexpr std::size_t kLongest = 200;

std::string TimeText() {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  std::array<char, 32> text;
  const std::size_t size = std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
  std::snprintf(text.data() + size, text.size() - size, ".%03d ", static_cast<int>(millis));
  return text.data();
}

}  // namespace

EventLog::EventLog(const std::string& fileName) {
  if (fileName.empty()) return;
  file_.open(fileName, std::ios::app);
  if (!file_) throw std::runtime_error("the log " + fileName + " cannot be opened");
}

void EventLog::Write(const std::string& event) {
  std::ostream& out = file_.is_open() ? file_ : std::cerr;
  out << TimeText() + event + '\n' << std::flush;
}

std::string Printable(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (out.size() >= kLongest) return out + "...";
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F && byte != '\\') {
      out += c;
    } else {
      std::array<char, 8> escape;
      std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned>(byte));
      out += escape.data();
    }
  }
  return out;
}

}  // namespace lumo::node
