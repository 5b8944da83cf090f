// The node table file and the links made of its lines.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/primitiv.h"
#include "core/stats.h"
#include "core/trace.h"
#include "link/link.h"
#include "protocols/address_text.h"
#include "protocols/protload.h"

static constexpr char Module[] = "link";

namespace {

constexpr std::size_t kCurrentDirectoryMax = 250;
constexpr char kFileName[] = "/nodetab";

// A candidate and the stream it opened.
struct NodetabFile {
  std::FILE* Stream;
  char Path[PATH_MAX];
};

// Opening what is no ordinary file may take until somebody writes to it.
std::FILE* OpenRepeatedly(const char* path) {
  std::FILE* stream;
  do {
    stream = std::fopen(path, "re");
  } while (!stream && errno == EINTR && !Stopping());
  return stream;
}

// Opens directory (of `length` characters) followed by `name`; a path too long does not open.
bool TryPath(NodetabFile* found, const char* directory, std::size_t length, const char* name) {
  const int size = std::snprintf(found->Path, sizeof found->Path, "%.*s%s",
                                 static_cast<int>(length), directory, name);
  if (size >= 0 && static_cast<std::size_t>(size) < sizeof found->Path)
    found->Stream = OpenRepeatedly(found->Path);
  if (!found->Stream) LOG(kLogTrace, "Open nodetab file \"%s\" failed", found->Path);
  return found->Stream != nullptr;
}

bool TryDirectory(NodetabFile* found, const char* directory) {
  return TryPath(found, directory, std::strlen(directory), kFileName);
}

// Reported with the full path of the directory where that can be told.
bool TryCurrentDirectory(NodetabFile* found) {
  if (!TryDirectory(found, ".")) return false;
  char directory[kCurrentDirectoryMax + 1];
  if (getcwd(directory, sizeof directory))
    std::snprintf(found->Path, sizeof found->Path, "%s%s", directory, kFileName);
  return true;
}

// kept: the '/' of the program's directory stays, so the path has two; a bare program name gives
// the root directory.
bool TryProgramDirectory(NodetabFile* found) {
  const char* const program = g_DbcI.Argv && g_DbcI.Argv[0] ? g_DbcI.Argv[0] : "";
  LOG(kLogTrace, "g_DbcI.Argv[0] %s", program);
  const char* const slash = std::strrchr(program, '/');
  return TryPath(found, program, slash ? static_cast<std::size_t>(slash + 1 - program) : 0,
                 kFileName);
}

bool TryHome(NodetabFile* found) {
  const char* const home = std::getenv("HOME");
  return home && TryDirectory(found, home);
}

bool TrySearchPath(NodetabFile* found) {
  const char* directory = std::getenv("PATH");
  while (directory) {
    const char* const end = std::strchr(directory, ':');
    const std::size_t length =
        end ? static_cast<std::size_t>(end - directory) : std::strlen(directory);
    if (TryPath(found, directory, length, kFileName)) return true;
    directory = end ? end + 1 : nullptr;
  }
  return false;
}

bool FindFile(NodetabFile* found) {
  if (g_DbcI.NodetabPath)
    return TryPath(found, g_DbcI.NodetabPath, std::strlen(g_DbcI.NodetabPath), "");
  return TryCurrentDirectory(found) || TryProgramDirectory(found) || TryHome(found) ||
         TrySearchPath(found);
}

Link* SkipNode(const char* node) {
  LOG(kLogResult, "Node name '%s' skipped", node);
  return nullptr;
}

// kept: the name as written is compared with every link but the last of the circle.
bool NameIsTaken(const char* name) {
  const Link* const first = g_DbcI.LinkList;
  for (const Link* link = first; link && link->Next && link->Next != first; link = link->Next) {
    if (std::strcmp(name, link->NodeName) == 0) return true;
  }
  return false;
}

void AppendLink(Link* link) {
  if (!g_DbcI.LinkList) {
    g_DbcI.LinkList = link->Next = link;
    return;
  }
  Link* last = g_DbcI.LinkList;
  while (last->Next != g_DbcI.LinkList) last = last->Next;
  last->Next = link;
  link->Next = g_DbcI.LinkList;
}

// What is shown of an address; what follows in the line may be anything.
void CopyPlace(char (&place)[kPlaceSize], const char* address) {
  int end = 0;
  std::sscanf(address, "%*s%n%*s%n", &end, &end);
  while (IsBlank(*address) && end > 0) ++address, --end;
  std::snprintf(place, sizeof place, "%.*s", end, address);
}

// A link of the protocol with its address parsed, not in the circle; null: refused.
Link* CreateLink(const char* node, Protocol* protocol, const char* protocolWord, char* address) {
  Link* const link = static_cast<Link*>(std::calloc(1, sizeof(Link)));
  if (!link) {
    LOG(kLogResult, "Memory allocation failed");
    return SkipNode(node);
  }
  std::snprintf(link->NodeName, sizeof link->NodeName, "%s", node);
  UpperCase(link->NodeName);
  link->Protocol = protocol;
  link->Books.StatsRow = kNoStatsRow;
  CopyPlace(link->Place, address);
  // kept: only an odd result refuses the line.
  if ((protocol->InitLink(HERE, link, address) & 1) == 0) return link;
  LOG(kLogResult, "Initialization of link '%.8s' for protocol '%s' failed", link->NodeName,
      protocolWord);
  std::free(link);
  return SkipNode(node);
}

// Makes links of all lines; returns how many lines produced one.
int ReadNodetab(std::FILE* stream) {
  char line[kNodetabLineSize];
  int count = 0;
  while (ReadNodetabLine(line, stream)) {
    char* const node = NodeOfNodetabLine(line);
    if (node && ParseNodetabString(HERE, node, 1)) ++count;
  }
  return count;
}

// The link that -DEFAULT names becomes the circle's entry; the first link when none does.
void ChooseDefaultLink() {
  Link* link = g_DbcI.FirstLink;
  g_DbcI.DefaultLink = link;
  do {
    if (CompareNodeName(link->NodeName, g_DbcI.DefaultNode) == 0) {
      g_DbcI.DefaultLink = g_DbcI.LinkList = link;
      break;
    }
    link = link->Next;
  } while (link != g_DbcI.FirstLink);
  g_DbcI.CircleStartLink = g_DbcI.DefaultLink;
  PrintText("Default server: %.8s\n", g_DbcI.DefaultLink->NodeName);
}

void SwitchOffModesOfOneNode(int count) {
  if (count != 1 || (!g_DbcI.AutoConnect && !g_DbcI.AutoChange)) return;
  PrintText(
      "Only one server is in the nodetab file. \n"
      "The autoconnect and autochange modes have disabled");
  g_DbcI.AutoConnect = 0;
  g_DbcI.AutoChange = 0;
}

}  // namespace

// With `foundPath` (kNodetabPathSize bytes) the path of the file is copied there; it is left empty
// when it does not fit.
std::FILE* SearchForNodetab(const char* file, int line, char* foundPath) {
  ENTER();
  NodetabFile found;
  found.Stream = nullptr;
  if (!FindFile(&found)) return LEAVE(static_cast<std::FILE*>(nullptr), "FAILED not found");
  PrintText("Nodetab found: \"%s\"\n", found.Path);
  LOG(kLogTrace, "File \"%s\" opened\n", found.Path);
  if (foundPath) {
    foundPath[0] = '\0';
    const std::size_t size = std::strlen(found.Path) + 1;
    if (size <= kNodetabPathSize) std::memcpy(foundPath, found.Path, size);
  }
  return found.Stream;
}

bool ReadNodetabLine(char (&line)[kNodetabLineSize], std::FILE* stream) {
  int length = 0;
  while (length < kNodetabLineSize - 1 && !Stopping()) {
    const int c = std::fgetc(stream);
    if (c == EOF && std::ferror(stream) && errno == EINTR) {
      std::clearerr(stream);
      continue;
    }
    if (c == EOF) break;
    line[length++] = static_cast<char>(c);
    if (c == '\n') break;
  }
  line[length] = '\0';
  return length > 0;
}

std::FILE* OpenNodetabFile(const char* file, int line) {
  ENTER();
  return SearchForNodetab(HERE, nullptr);
}

char* NodeOfNodetabLine(char* line) {
  while (IsBlank(*line)) ++line;
  const bool holdsNone = std::strchr("#;", *line) != nullptr;  // the NUL counts as well
  return holdsNone ? nullptr : line;
}

Link* ParseNodetabString(const char* file, int line, char* text, int addToList) {
  ENTER();
  LOG(kLogTrace, "Nodetab string:\n%s", text);
  char* const node = NextWord(&text);
  if (std::strlen(node) > kNodeNameMax) {
    LOG(kLogResult, "Node name '%s' is too long. Maximum length is 8 chars", node);
    return LEAVE(SkipNode(node), "FAILED node name");
  }
  char* const word = NextWord(&text);
  Protocol* const protocol = AddProtocol(HERE, word);
  if (!protocol) {
    LOG(kLogResult, "The network agent doesn't support protocol  '%s' for node '%s'.", word, node);
    return LEAVE(SkipNode(node), "FAILED protocol");
  }
  if (addToList && NameIsTaken(node)) {
    LOG(kLogResult, "Dublicate node name found in nodetab file");
    LOG(kLogResult, "Node name '%s' skip", node);
    return LEAVE(static_cast<Link*>(nullptr), "FAILED node name");
  }
  Link* const link = CreateLink(node, protocol, word, text);
  if (!link) return LEAVE(link, "FAILED create link");
  if (!addToList) return link;
  AppendLink(link);
  link->Books.StatsRow = NewLinkStats(link->NodeName, protocol->Name, link->Place);
  return link;
}

int InitLinkQueueFromNodetab(const char* file, int line) {
  ENTER();
  std::FILE* const stream = OpenNodetabFile(HERE);
  if (!stream) {
    LOG(kLogResult, "File nodetab is not found. Exit.");
    return LEAVE(-1, "FAILED no nodetab");
  }
  const int count = ReadNodetab(stream);
  std::fclose(stream);
  if (!g_DbcI.ProtocolList) {
    LOG(kLogResult, "Supported protocols are not found in the nodetab file. Exit");
    return LEAVE(-1, "FAILED no protocols");
  }
  if (!g_DbcI.LinkList) {
    LOG(kLogResult, "There are no nodes in the nodetab file. Exit");
    return LEAVE(-1, "FAILED no nodes");
  }
  g_DbcI.FirstLink = g_DbcI.LinkList;
  ChooseDefaultLink();
  SwitchOffModesOfOneNode(count);
  return 0;
}
