// What lumoctl prints: one JSON value, or text in columns for people.
#pragma once
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/lumoctl/options.h"

namespace lumo::ctl {

using Json = nlohmann::ordered_json;

enum class Style { Plain, Strong, Good, Bad, Doubtful, Faint };

// With the codes of a terminal when the options ask for colours.
std::string Painted(const Options& options, Style style, const std::string& text);

struct Cell {
  Cell(std::string text, Style style = Style::Plain) : Text(std::move(text)), Look(style) {}
  Cell(const char* text, Style style = Style::Plain) : Text(text), Look(style) {}
  std::string Text;
  Style Look;
};

class TextTable {
 public:
  explicit TextTable(std::vector<std::string> heads) : heads_(std::move(heads)) {}
  void Row(std::vector<Cell> cells) { rows_.push_back(std::move(cells)); }
  std::string Text(const Options& options) const;

 private:
  std::vector<std::string> heads_;
  std::vector<std::vector<Cell>> rows_;
};

inline std::string Number(std::uint64_t number) { return std::to_string(number); }

// The value with --json, else the text.
void Show(const Options& options, const Json& value, const std::string& text);
std::string JsonText(const Json& value);
// Bytes that could steer a terminal become '?'.
std::string Printable(std::string text);

}  // namespace lumo::ctl
