// top: a live screen of nodes and the busiest clients.
#include <curses.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <iostream>
#include <optional>
#include <thread>

#include "tools/lumoctl/commands.h"
#include "tools/lumoctl/exits.h"
#include "tools/lumoctl/top_view.h"

namespace lumo::ctl {
namespace {

using Clock = std::chrono::steady_clock;

class Screen {
 public:
  explicit Screen(const Options& options) {
    std::setlocale(LC_ALL, "");
    screen_ = newterm(nullptr, stdout, stdin);
    if (!screen_) throw Failure(kFailed, "this terminal cannot show a screen; see --json");
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    curs_set(0);
    if (options.Color && has_colors()) {
      start_color();
      use_default_colors();
      init_pair(1, COLOR_RED, -1);
      init_pair(2, COLOR_YELLOW, -1);
      colors_ = true;
    }
  }
  ~Screen() {
    endwin();
    delscreen(screen_);
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  void Show(const std::vector<TopLine>& lines) {
    erase();
    for (std::size_t i = 0; i < lines.size(); ++i) {
      const chtype look = Attribute(lines[i].Look);
      attron(look);
      mvaddstr(static_cast<int>(i), 0, lines[i].Text.c_str());
      attroff(look);
    }
    refresh();
  }
  // A key, or ERR when the time is over.
  int Key(int milliseconds) {
    timeout(milliseconds);
    return getch();
  }
  int Height() const { return getmaxy(stdscr); }
  int Width() const { return getmaxx(stdscr); }

 private:
  chtype Attribute(Style look) const {
    switch (look) {
      case Style::Strong:
        return A_BOLD;
      case Style::Faint:
        return A_DIM;
      case Style::Bad:
        return A_BOLD | (colors_ ? COLOR_PAIR(1) : 0);
      case Style::Doubtful:
        return colors_ ? COLOR_PAIR(2) : A_NORMAL;
      case Style::Plain:
      case Style::Good:
        break;
    }
    return A_NORMAL;
  }

  SCREEN* screen_;
  bool colors_ = false;
};

std::optional<TopOrder> OrderOfKey(int key) {
  switch (key) {
    case 'n':
      return TopOrder::Name;
    case 'r':
      return TopOrder::Requests;
    case 'l':
      return TopOrder::Latency;
    case 'f':
      return TopOrder::InFlight;
    case 'w':
      return TopOrder::Waiting;
    default:
      return std::nullopt;
  }
}

// The latest two readings. A page that is gone for a while leaves the last one.
struct Readings {
  Page Before, Now;
  std::string Message;

  explicit Readings(const Options& options) : Now(ReadPage(options)) {
    Before = Now;
    Look();
  }
  void Read(const Options& options) {
    try {
      Page next = ReadPage(options);
      Before = std::exchange(Now, std::move(next));
      Look();
    } catch (const Failure& failure) {
      Message = failure.what();
    }
  }

 private:
  void Look() {
    Message = !Now.Alive    ? "the agent has ended: this is what it left behind"
              : Now.Stuck() ? "the agent is stuck or stopped: its last pass began " +
                                  DurationText(Now.SecondsSincePass()) + " ago"
                            : "";
  }
};

int ShowJson(const Options& options, std::chrono::milliseconds delay) {
  Readings readings(options);
  for (int shown = 0; options.Count == 0 || shown < options.Count; ++shown) {
    std::this_thread::sleep_for(delay);
    readings.Read(options);
    const TopView view = Compare(readings.Before, readings.Now, TopOrder::Requests);
    std::cout << TopJson(readings.Now, view).dump(-1, ' ', false, Json::error_handler_t::replace)
              << std::endl;
    if (!std::cout) return kFailed;
  }
  return kDone;
}

int ShowScreen(const Options& options, std::chrono::milliseconds delay) {
  Readings readings(options);  // fails before the screen is changed
  Screen screen(options);
  TopOrder order = TopOrder::Requests;
  Clock::time_point next = Clock::now();
  for (int shown = 0; options.Count == 0 || shown < options.Count;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    const int key = screen.Key(static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    if (key == 'q' || key == 3) break;
    if (const auto wanted = OrderOfKey(key)) order = *wanted;
    if (key == ERR && Clock::now() >= next) {
      readings.Read(options);
      next = Clock::now() + delay;
      ++shown;
    }
    const TopView view = Compare(readings.Before, readings.Now, order);
    screen.Show(
        TopLines(readings.Now, view, order, readings.Message, screen.Height(), screen.Width()));
  }
  return kDone;
}

}  // namespace

int RunTop(const Options& options) {
  const std::chrono::milliseconds delay(static_cast<int>(options.DelaySeconds * 1000));
  if (options.Json) return ShowJson(options, delay);
  if (!isatty(STDOUT_FILENO) || !isatty(STDIN_FILENO))
    throw Failure(kUsage, "top needs a terminal; without one use --json");
  return ShowScreen(options, delay);
}

}  // namespace lumo::ctl
