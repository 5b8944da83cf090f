// Pseudonyms for what a report shall not tell: the same word gets the same one all through it.
#pragma once
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/lumoctl/nodetab.h"
#include "tools/lumoctl/output.h"

namespace lumo::ctl {

class Masker {
 public:
  explicit Masker(bool masks) : masks_(masks) {}

  void AddNode(const std::string& name) { Add(&nodes_, "NODE", name); }
  void AddHost(const std::string& host) { Add(&hosts_, "HOST", host); }
  void AddTable(const Table& table);

  // The text with every known word replaced, and every IPv4 address.
  std::string Text(const std::string& text);
  // All texts in the value, not its keys.
  void Apply(Json* value);

 private:
  // Upper case word and pseudonym.
  using Words = std::map<std::string, std::string>;
  static void Add(Words* words, const char* prefix, const std::string& word);
  void AddOtherWords(const std::string& line);
  std::string Replaced(const std::string& token);

  bool masks_;
  Words nodes_, hosts_;
};

}  // namespace lumo::ctl
