// The lines of the log that a unit test captured.
#pragma once
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

struct CapturedLine {
  int Level = 0;  // 0 stands for 0 and 1: their lines carry no header
  std::string Module, Text;
};

inline CapturedLine ParseCapturedLine(const std::string& line) {
  static const std::string kPrefix = "lumo_tcp:";
  CapturedLine parsed;
  char module[32] = "";
  int number, length = 0;
  long clock;
  if (std::sscanf(line.c_str(), "lumo_tcp:[%d] %31[^:]:%d %ld|%n", &parsed.Level, module, &number,
                  &clock, &length) == 4 &&
      length > 0) {
    parsed.Module = module + std::string(module).find_first_not_of(' ');
    parsed.Text = line.substr(static_cast<std::size_t>(length));
  } else {
    parsed.Level = 0;
    parsed.Text = line.substr(line.rfind(kPrefix, 0) == 0 ? kPrefix.size() : 0);
  }
  return parsed;
}

inline std::vector<CapturedLine> CapturedLines(const std::string& log) {
  std::vector<CapturedLine> lines;
  std::istringstream text(log);
  for (std::string line; std::getline(text, line);) lines.push_back(ParseCapturedLine(line));
  return lines;
}

// How many lines have this level, this module (of levels above 1) and exactly this text.
inline int CountCaptured(const std::string& log, int level, const std::string& module,
                         const std::string& text) {
  int count = 0;
  for (const CapturedLine& line : CapturedLines(log)) {
    if (level <= 1 ? line.Level != 0 : line.Level != level || line.Module != module) continue;
    count += line.Text == text;
  }
  return count;
}

// The place in the log, in lines, of a text; -1 when it is not there.
inline int PlaceOf(const std::string& log, const std::string& text) {
  const std::vector<CapturedLine> lines = CapturedLines(log);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].Text == text) return static_cast<int>(i);
  }
  return -1;
}
