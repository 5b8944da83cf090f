// What the agent wrote to its log, as texts to be compared in one piece.
#pragma once
#include <string>
#include <vector>

#include "tests/unit/log_lines.h"

// The lines of a log with their headers taken off. A line of level 0 or 1 comes as its text, one
// with a header as "LEVEL MODULE|text".
inline std::vector<std::string> LogTexts(const std::string& log) {
  std::vector<std::string> texts;
  for (const CapturedLine& line : CapturedLines(log)) {
    const std::string header =
        line.Level > 1 ? std::to_string(line.Level) + " " + line.Module + "|" : std::string();
    texts.push_back(header + line.Text);
  }
  return texts;
}

// Those of the lines that begin with one of the prefixes.
inline std::vector<std::string> Beginning(const std::vector<std::string>& lines,
                                          const std::vector<std::string>& prefixes) {
  std::vector<std::string> chosen;
  for (const std::string& line : lines) {
    for (const std::string& prefix : prefixes) {
      if (line.rfind(prefix, 0) != 0) continue;
      chosen.push_back(line);
      break;
    }
  }
  return chosen;
}
