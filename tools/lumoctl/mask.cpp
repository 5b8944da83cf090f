#include "tools/lumoctl/mask.h"

#include <arpa/inet.h>

#include <algorithm>
#include <sstream>

namespace lumo::ctl {
namespace {

// Of which no number consists.
constexpr char kLetters[] = "ghijklmnopqrstuvwyzGHIJKLMNOPQRSTUVWYZ";
// What no name of a node or host in a text is stuck to: names go from one of these to the next.
constexpr char kBoundaries[] = " \t\n\v\f\r\"',;()[]<>|";

}  // namespace

void Masker::Add(Words* words, const char* prefix, const std::string& word) {
  if (!word.empty())
    words->try_emplace(UpperCaseOf(word), prefix + std::to_string(words->size() + 1));
}

// What stands behind the address without a meaning, such as a remark: the trace has whole lines.
void Masker::AddOtherWords(const std::string& line) {
  std::istringstream words(line);
  std::string word;
  for (int i = 0; words >> word; ++i)
    if (i > 2 && word.find_first_of(kLetters) != std::string::npos) Add(&hosts_, "WORD", word);
}

void Masker::AddTable(const Table& table) {
  for (const TableLine& line : table.Lines) {
    AddNode(line.Word);
    AddHost(line.Tcp.Host);
    for (const std::string& address : line.Tcp.Addresses) AddHost(address);
    AddOtherWords(line.Text);
  }
}

std::string Masker::Replaced(const std::string& token) {
  const std::string upper = UpperCaseOf(token);
  if (const auto node = nodes_.find(upper); node != nodes_.end()) return node->second;
  if (const auto host = hosts_.find(upper); host != hosts_.end()) return host->second;
  in_addr address{};
  if (inet_pton(AF_INET, token.c_str(), &address) == 1) {
    AddHost(token);
    return hosts_.at(upper);
  }
  // Such as ADDRESS:PORT, -DEFAULT=NAME, /NAME: what stands between the marks is looked at alone.
  const std::size_t mark = token.find_first_of(":=/");
  if (mark == std::string::npos) return token;
  return Replaced(token.substr(0, mark)) + token[mark] + Replaced(token.substr(mark + 1));
}

std::string Masker::Text(const std::string& text) {
  if (!masks_) return text;
  std::string masked;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find_first_of(kBoundaries, at), text.size());
    if (end == at) {
      masked += text[at++];
      continue;
    }
    const std::string token = text.substr(at, end - at);
    // The agent's trace has resolved addresses as hexadecimal numbers.
    if (masked.ends_with("Network address ")) AddHost(token);
    masked += Replaced(token);
    at = end;
  }
  return masked;
}

void Masker::Apply(Json* value) {
  if (!masks_) return;
  if (value->is_string()) *value = Text(value->get<std::string>());
  if (value->is_structured())
    for (Json& part : *value) Apply(&part);
}

}  // namespace lumo::ctl
