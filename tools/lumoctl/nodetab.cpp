#include "tools/lumoctl/nodetab.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <utility>

namespace lumo::ctl {
namespace {

constexpr std::size_t kNameMax = 8, kLineMax = 1023, kWaitingLineMax = 299;
constexpr std::uint16_t kDefaultPort = 1060;
constexpr std::int32_t kTimeoutMax = 0xFFFF, kReceiveTimeoutMax = INT32_MAX / 20;
constexpr char kBlanks[] = " \t\n\v\f\r";
constexpr const char* kUnsupported[] = {"ATCPIP", "ATCPIPS", "REZ",    "IPX/SPX", "NPIPE",
                                        "DECNET", "TSR",     "TCPIPS", "NETBIOS"};
constexpr char kPlaceholder[] = "DUMMY";

// Takes the next word off the text; the white space round it goes too.
std::string TakeWord(std::string* text) {
  const std::size_t begin = std::min(text->find_first_not_of(kBlanks), text->size());
  const std::size_t end = std::min(text->find_first_of(kBlanks, begin), text->size());
  std::string word = text->substr(begin, end - begin);
  text->erase(0, std::min(text->find_first_not_of(kBlanks, end), text->size()));
  return word;
}

void Add(std::vector<Fault>* faults, Severity level, const char* rule, std::string text) {
  faults->push_back({level, rule, std::move(text)});
}
void Refuse(TableLine* line, const char* rule, std::string text) {
  Add(&line->Faults, Severity::Error, rule, std::move(text));
}
void Warn(TableLine* line, const char* rule, std::string text) {
  Add(&line->Faults, Severity::Warning, rule, std::move(text));
}
void Note(TableLine* line, const char* rule, std::string text) {
  Add(&line->Faults, Severity::Note, rule, std::move(text));
}
bool IsRefused(const TableLine& line) {
  return std::any_of(line.Faults.begin(), line.Faults.end(),
                     [](const Fault& fault) { return fault.Level == Severity::Error; });
}

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

// Reads a number as the agent does, and says so when the word is not just that number.
long ReadNumber(TableLine* line, const std::string& word, int base, const char* what) {
  char* end = nullptr;
  const long number = std::strtol(word.c_str(), &end, base);
  if (*end != '\0')
    Warn(line, "bad-number",
         std::string(what) + " " + Quoted(word) + " is read as " + std::to_string(number));
  const std::size_t digits = word.find_first_not_of("+-");
  const bool octal = base == 0 && digits != std::string::npos && word[digits] == '0' &&
                     digits + 1 < word.size() && word[digits + 1] >= '0' && word[digits + 1] <= '9';
  if (octal && *end == '\0')
    Warn(line, "octal",
         std::string(what) + " " + Quoted(word) + " is octal: " + std::to_string(number));
  return number;
}

std::int32_t To32(long number) {
  return static_cast<std::int32_t>(std::clamp<long>(number, INT32_MIN, INT32_MAX));
}

void CheckExtraWords(TableLine* line, std::string rest) {
  const std::string word = TakeWord(&rest);
  if (!word.empty())
    Warn(line, "extra-words", "the words from " + Quoted(word) + " on have no effect");
}

std::uint16_t ReadPort(TableLine* line, const std::string& word) {
  if (word.empty()) return kDefaultPort;
  const long number = ReadNumber(line, word, 0, "port");
  const auto port = static_cast<std::uint16_t>(number);
  const std::uint16_t used = port ? port : kDefaultPort;
  if (number < 1 || number > 0xFFFF)
    Warn(line, "port-range",
         "port " + Quoted(word) + " is outside 1 to 65535: " + std::to_string(used) + " is used");
  return used;
}

void CheckTimeoutRange(TableLine* line, long number, const char* what) {
  if (number > kTimeoutMax)
    Warn(line, "timeout-range",
         std::string(what) + " " + std::to_string(number) +
             " is above 65535: the node or those who ask the agent are told less");
}

std::int32_t ReadReceiveTimeout(TableLine* line, const std::string& word) {
  if (word.empty()) return 1;
  const long number = ReadNumber(line, word, 0, "receive time-out");
  CheckTimeoutRange(line, number, "receive time-out");
  if (number >= 1) return static_cast<std::int32_t>(std::min<long>(number, kReceiveTimeoutMax));
  if (word[0] != '0') {
    Warn(line, "timeout-range",
         "receive time-out " + Quoted(word) + " counts as 1; only a written 0 means none");
    return 1;
  }
  Note(line, "no-alive-packets", "receive time-out 0: no alive packets are sent to the node");
  return 0;
}

std::int32_t ReadTimeout(TableLine* line, const std::string& word, const char* what) {
  if (word.empty()) return 0;
  const long number = ReadNumber(line, word, 0, what);
  CheckTimeoutRange(line, number, what);
  if (number < 0)
    Warn(line, "timeout-range", std::string(what) + " " + Quoted(word) + " counts as 0");
  return std::max(To32(number), 0);
}

const char* Given(const std::string& word) { return word.empty() ? "no" : "0 as"; }

std::string Dotted(const void* address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, address, text, sizeof text);
  return text;
}

// "SRV TCPIP 1060" has lost its host, and its port passes for one.
void CheckDotted(TableLine* line, const std::string& host) {
  in_addr address{};
  if (inet_aton(host.c_str(), &address) == 0) return;
  in_addr strict{};
  if (inet_pton(AF_INET, host.c_str(), &strict) == 1) return;
  Warn(line, "odd-address", "host " + Quoted(host) + " is read as the address " + Dotted(&address));
}

}  // namespace

std::string UpperCaseOf(std::string text) {
  for (char& c : text)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return text;
}

const char* SeverityText(Severity level) {
  switch (level) {
    case Severity::Note:
      return "note";
    case Severity::Warning:
      return "warning";
    case Severity::Error:
      return "error";
  }
  return "";
}

Resolver NumericResolver() {
  return [](const std::string& host) -> std::optional<std::vector<std::string>> {
    const in_addr address{inet_addr(host.c_str())};
    if (address.s_addr == INADDR_NONE) return std::nullopt;
    return std::vector<std::string>{Dotted(&address)};
  };
}

Resolver SystemResolver() {
  return [](const std::string& host) -> std::optional<std::vector<std::string>> {
    std::vector<std::string> found;
    const hostent* const entry = gethostbyname(host.c_str());
    if (!entry || entry->h_addrtype != AF_INET)
      return NumericResolver()(host).value_or(std::vector<std::string>{});
    for (char** address = entry->h_addr_list; *address; ++address)
      found.push_back(Dotted(*address));
    return found;
  };
}

TableReader::TableReader(Resolver resolver, int exchangeId)
    : resolver_(std::move(resolver)), exchangeId_(exchangeId) {}

void TableReader::CheckName(TableLine* line) const {
  if (line->Word.size() > kNameMax)
    Refuse(line, "name-too-long",
           "the name " + Quoted(line->Word) + " has " + std::to_string(line->Word.size()) +
               " characters; the most is 8");
  const std::string option = OptionSpelled(line->Word);
  if (!option.empty())
    Warn(line, "option-key",
         "the name " + Quoted(line->Word) + " given as -DEFAULT is taken for the option -" +
             option + " as well");
}

// The agent compares the name as written with the upper-case names before it, all but the last.
void TableReader::CheckTwin(TableLine* line) const {
  const auto twin = std::find_if(nodes_.begin(), nodes_.end(),
                                 [&](std::size_t node) { return lines_[node].Name == line->Name; });
  if (twin == nodes_.end()) return;
  const std::string first = "line " + std::to_string(lines_[*twin].Number);
  const bool compared = std::any_of(nodes_.begin(), std::prev(nodes_.end()), [&](std::size_t node) {
    return lines_[node].Name == line->Word;
  });
  if (compared) {
    Refuse(line, "duplicate", "the name " + line->Name + " is taken by " + first);
    return;
  }
  const char* const reason = line->Word != line->Name
                                 ? "it is not written in upper case"
                                 : "the node right before a line is not compared with it";
  Warn(line, "duplicate-accepted",
       "the name " + line->Name + " is taken by " + first + ", but the agent makes a second node " +
           "of it: " + reason + "; one of the two cannot be reached");
}

void TableReader::ReadProtocol(TableLine* line) {
  const std::string& word = line->Protocol;
  if (word == "TCPIP") {
    line->ProtocolKind = Kind::Tcpip;
  } else if (word == "LOCALS" || word == "LOCAL") {
    line->ProtocolKind = Kind::Locals;
  } else if (word == "LOCALI") {
    line->ProtocolKind = Kind::Locali;
  } else if (std::find(std::begin(kUnsupported), std::end(kUnsupported), word) !=
                 std::end(kUnsupported) ||
             (word == kPlaceholder && placeholderLoaded_)) {
    line->ProtocolKind = Kind::Unsupported;
    // A name that is too long is refused before its protocol is loaded.
    if (line->Word.size() <= kNameMax) placeholderLoaded_ = true;
    Warn(line, "unsupported-protocol",
         "the agent knows the protocol " + word + " but does not carry it: every connection fails");
  } else if (word.empty()) {
    Refuse(line, "no-protocol", "there is no protocol behind the name");
  } else {
    Refuse(line, "unknown-protocol", "the protocol " + Quoted(word) + " is unknown");
  }
}

void TableReader::ReadAddress(TableLine* line, const std::string& address) {
  switch (line->ProtocolKind) {
    case Kind::Tcpip:
      return ReadTcp(line, address);
    case Kind::Locals:
      return ReadLocals(line, address);
    case Kind::Locali:
      return ReadLocali(line, address);
    case Kind::None:
    case Kind::Unsupported:
      return;
  }
}

void TableReader::ReadTcp(TableLine* line, const std::string& address) const {
  std::string rest = address;
  TcpAddress* const tcp = &line->Tcp;
  tcp->Host = TakeWord(&rest);
  if (tcp->Host.empty()) return Refuse(line, "no-address", "there is no host behind the protocol");
  CheckDotted(line, tcp->Host);
  const auto addresses = resolver_(tcp->Host);
  tcp->Addresses = addresses.value_or(std::vector<std::string>{});
  if (addresses && addresses->empty())
    Refuse(line, "unresolved", "the host " + Quoted(tcp->Host) + " has no IPv4 address");
  tcp->Port = ReadPort(line, TakeWord(&rest));
  tcp->ReceiveTimeout = ReadReceiveTimeout(line, TakeWord(&rest));
  const std::string send = TakeWord(&rest), connect = TakeWord(&rest);
  tcp->SendTimeout = ReadTimeout(line, send, "send time-out");
  tcp->ConnectTimeout = ReadTimeout(line, connect, "connect time-out");
  if (tcp->SendTimeout == 0)
    Note(line, "no-watchdog",
         std::string(Given(send)) + " send time-out: no watchdog, a silent node is never given up");
  if (tcp->ConnectTimeout == 0)
    Note(line, "connect-for-ever",
         std::string(Given(connect)) + " connect time-out: connecting is tried for ever");
  CheckExtraWords(line, rest);
}

void TableReader::ReadLocals(TableLine* line, const std::string& address) const {
  std::string rest = address;
  const std::string word = TakeWord(&rest);
  if (word.empty())
    return Refuse(line, "no-address", "there is no exchange number behind the protocol");
  line->Local = To32(std::strtol(word.c_str(), nullptr, 10));
  if (line->Local == 0)
    return Refuse(line, "bad-exchange",
                  "the exchange number " + Quoted(word) + " is not a decimal number other than 0");
  ReadNumber(line, word, 10, "exchange number");
  if (line->Local < 0) Warn(line, "negative-exchange", "the exchange number is negative");
  if (line->Local == exchangeId_)
    Warn(line, "own-exchange",
         "the exchange number " + word + " is the agent's own: it would connect to itself");
  CheckExtraWords(line, rest);
}

void TableReader::ReadLocali(TableLine* line, const std::string& address) const {
  std::string rest = address;
  const std::string word = TakeWord(&rest);
  if (word.empty()) return Refuse(line, "no-address", "there is no key behind the protocol");
  line->Local = To32(std::strtol(word.c_str(), nullptr, 0));
  if (line->Local < 1)
    return Refuse(line, "bad-key", "the key " + Quoted(word) + " is not a number above 0");
  ReadNumber(line, word, 0, "key");
  const bool second = std::any_of(nodes_.begin(), nodes_.end(), [this](std::size_t node) {
    return lines_[node].ProtocolKind == Kind::Locali;
  });
  if (second) Warn(line, "second-locali", "an agent should have one LOCALI node, not several");
  CheckExtraWords(line, rest);
}

namespace {

void CheckComment(TableLine* line, std::string rest) {
  for (std::string word = TakeWord(&rest); !word.empty(); word = TakeWord(&rest)) {
    if (word[0] != '#' && word[0] != ';') continue;
    return Warn(line, "trailing-comment",
                Quoted(word) + " begins no comment: only a line that begins with it is one");
  }
}

}  // namespace

TableLine TableReader::Read(int number, const std::string& text) {
  TableLine line;
  line.Number = number;
  line.Text = text.substr(0, text.find_last_not_of(kBlanks) + 1);
  std::string rest = line.Text;
  line.Word = TakeWord(&rest);
  line.Name = UpperCaseOf(line.Word);
  line.Protocol = UpperCaseOf(TakeWord(&rest));
  CheckName(&line);
  ReadProtocol(&line);
  CheckTwin(&line);
  ReadAddress(&line, rest);
  CheckComment(&line, rest);
  if (line.Text.size() > kWaitingLineMax)
    Note(&line, "cut-when-waiting",
         "the line has more than 299 characters: as a redefinition of a node in use it is cut");
  line.MakesNode = !IsRefused(line);
  if (line.MakesNode) nodes_.push_back(lines_.size());
  lines_.push_back(line);
  return line;
}

namespace {

// What the agent gets with one read: up to 1023 characters, or to the end of the line.
struct Piece {
  int Line;
  bool Begins;  // at the beginning of a line
  std::string Text;
};

std::vector<Piece> CutIntoPieces(const std::string& fileText) {
  std::vector<Piece> pieces;
  int line = 1;
  bool begins = true;
  for (std::size_t at = 0; at < fileText.size();) {
    const std::size_t newline = fileText.find('\n', at);
    const std::size_t end = newline == std::string::npos ? fileText.size() : newline + 1;
    const std::size_t size = std::min(end - at, kLineMax);
    pieces.push_back({line, begins, fileText.substr(at, size)});
    at += size;
    begins = fileText[at - 1] == '\n';
    if (begins) ++line;
  }
  return pieces;
}

void CheckPiece(const Piece& piece, TableLine* line) {
  if (!piece.Begins)
    Warn(line, "long-line",
         "the file's line has more than 1023 characters: this rest of it is read as a line");
  if (piece.Text.find('\0') != std::string::npos)
    Warn(line, "nul-byte", "what stands behind a NUL byte has no effect");
}

}  // namespace

Table ReadTable(const std::string& fileText, const Resolver& resolver, int exchangeId) {
  Table table;
  TableReader reader(resolver, exchangeId);
  for (const Piece& piece : CutIntoPieces(fileText)) {
    const std::string text = piece.Text.substr(0, piece.Text.find('\0'));
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string::npos || text[begin] == '#' || text[begin] == ';') continue;
    TableLine line = reader.Read(piece.Line, text.substr(begin));
    CheckPiece(piece, &line);
    table.Lines.push_back(std::move(line));
  }
  if (table.Nodes().empty())
    Add(&table.Faults, Severity::Error, "no-nodes",
        "no line makes a node: an agent with this table does not start");
  return table;
}

std::vector<const TableLine*> Table::Nodes() const {
  std::vector<const TableLine*> nodes;
  for (const TableLine& line : Lines)
    if (line.MakesNode) nodes.push_back(&line);
  return nodes;
}

const TableLine* Table::Find(const std::string& name) const {
  const std::string wanted = UpperCaseOf(name);
  const auto found = std::find_if(Lines.begin(), Lines.end(), [&](const TableLine& line) {
    return line.MakesNode && line.Name == wanted;
  });
  return found == Lines.end() ? nullptr : &*found;
}

int Table::Count(Severity level) const {
  const auto count = [level](const std::vector<Fault>& faults) {
    return std::count_if(faults.begin(), faults.end(),
                         [level](const Fault& fault) { return fault.Level == level; });
  };
  auto sum = count(Faults);
  for (const TableLine& line : Lines) sum += count(line.Faults);
  return static_cast<int>(sum);
}

}  // namespace lumo::ctl
