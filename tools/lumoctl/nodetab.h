// A node table as the agent reads it: which lines make a node, which node, and what is wrong with
// or worth knowing of each. Needs no agent.
#pragma once
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace lumo::ctl {

enum class Severity {
  Note,     // worth knowing, as intended perhaps
  Warning,  // the agent takes it, but hardly as it was meant
  Error,    // the agent makes no node of the line
};

struct Fault {
  Severity Level;
  std::string Rule;  // a short name that does not change
  std::string Text;
};

enum class Kind { None, Tcpip, Locals, Locali, Unsupported };

struct TcpAddress {
  std::string Host;
  std::vector<std::string> Addresses;  // dotted, the first is the one used; empty: not looked up
  std::uint16_t Port = 0;
  std::int32_t ReceiveTimeout = 0, SendTimeout = 0, ConnectTimeout = 0;  // in force, as numbers
};

// One line that is neither empty nor a comment.
struct TableLine {
  int Number = 0;        // in the file, from 1
  std::string Text;      // from the name on, without the line end
  std::string Word;      // the name as written
  std::string Name;      // as the agent keeps it: upper case
  std::string Protocol;  // upper case
  Kind ProtocolKind = Kind::None;
  TcpAddress Tcp;          // of TCPIP
  std::int32_t Local = 0;  // exchange number of LOCALS, key of LOCALI
  bool MakesNode = false;
  std::vector<Fault> Faults;
};

// The IPv4 addresses of a host: nothing when it was not looked up, none when it has none.
using Resolver = std::function<std::optional<std::vector<std::string>>(const std::string& host)>;
Resolver SystemResolver();   // as the agent does it
Resolver NumericResolver();  // addresses only, no name is looked up

// Reads lines in their order: duplicates and protocols depend on the lines before.
class TableReader {
 public:
  TableReader(Resolver resolver, int exchangeId);

  // A line that makes a node when it begins with neither '#' nor ';'; the text from its first
  // character that is not white space.
  TableLine Read(int number, const std::string& text);
  const std::vector<TableLine>& Lines() const { return lines_; }

 private:
  void CheckName(TableLine* line) const;
  void CheckTwin(TableLine* line) const;
  void ReadProtocol(TableLine* line);
  void ReadAddress(TableLine* line, const std::string& address);
  void ReadTcp(TableLine* line, const std::string& address) const;
  void ReadLocals(TableLine* line, const std::string& address) const;
  void ReadLocali(TableLine* line, const std::string& address) const;

  Resolver resolver_;
  int exchangeId_;
  bool placeholderLoaded_ = false;  // its own name is a protocol as soon as it is loaded
  std::vector<TableLine> lines_;    // all that were read
  std::vector<std::size_t> nodes_;  // those that make a node, in their order
};

struct Table {
  std::vector<TableLine> Lines;
  std::vector<Fault> Faults;  // of the whole file

  std::vector<const TableLine*> Nodes() const;
  const TableLine* Find(const std::string& name) const;  // case does not matter; the first
  int Count(Severity level) const;
};

Table ReadTable(const std::string& fileText, const Resolver& resolver, int exchangeId);

// What is wrong with a command line of the agent, beside this table.
std::vector<Fault> CheckOptions(const std::vector<std::string>& arguments, const Table& table);

// What the system gives a socket's buffer at most, in bytes; 0: not known.
struct BufferLimits {
  long Receive = 0, Send = 0;
};
BufferLimits SystemBufferLimits();
// What of the buffers that the agent asks for (LUMO_LINK_BUFFER, or null) the system does not give,
// when the table has a TCP node on another machine: on this one they do not matter.
std::vector<Fault> CheckLinkBuffer(const Table& table, const char* asked,
                                   const BufferLimits& limits);

// The option that the agent finds in an argument, such as "PING" in "--ping"; empty: none.
std::string OptionSpelled(const std::string& argument);

// The value that the agent finds for an option, as "NODETAB", in its arguments, those behind the
// program's name; of one without a value the argument behind it. Nothing: the option is not there.
std::optional<std::string> OptionValue(const std::vector<std::string>& arguments,
                                       const std::string& key);

std::string UpperCaseOf(std::string text);
const char* SeverityText(Severity level);

}  // namespace lumo::ctl
