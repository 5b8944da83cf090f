#include "core/init.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/environment.h"
#include "core/trace.h"
#include "core/wait.h"

static constexpr char Module[] = "init";

namespace {

constexpr int kDefaultNetMbx = 20562;
constexpr unsigned kTickSeconds = 2;
constexpr long kBannerVersion[] = {6, 0};
constexpr long kLinkBuffer = 262144, kLinkBufferMax = 4194304;  // bytes

struct VersionRecord {
  const char* BuildStamp;
  long Numbers[4];
  const char* Platform;
  const char* Variant;
};
constexpr VersionRecord kVersion = {"20191106-11-05", {6, 0, 42, 18}, "LINUX", "(Socket)"};
constexpr char kEdition[] = "Vanx Embedded";
constexpr char kLegalNotice[] =
    "Tavrin SQL network agent. All rights reserved.\n"
    "This program is a part of RDBMS Tavrin SQL and is used under its license.\n"
    "It comes without warranty of any kind, as far as the law permits.";

constexpr char kUsage[] =
    R"(Usage: lumo_tcp [option(s)]
Valid options:
 [-H][-HELP][-?] - this help screen
 [-N Path]
 [-NODETAB Path] - path to "nodetab" file - configuration file of lumo_tcp
 [-S][-DEFAULT]  - set default server name
 [-M ExchangeId] - set interprocess communication identifier.
                   Also can be set by NET_MBX environment variable.
 [-K Signal]
 [-PKILL Signal] - send signal to parent process after initialization
 [-C][-PCHECK]   - check if the parent process is alive. A work of the program
                   will be stopped after death of the parent process
 [-NODAEMON]     - do not enter background mode.
 [-A][-AUTOCHANGE] - if default link is down at connecting time to
             default server, change the default connection to next
 [-G][-AUTOCONNECT] - if default server connection fails, try to connect
                      to the next server. Connection error will be returned to
                      application only if all connection attempts fail.
 [-ERR1001]         - return 1001 code if autoconnect failed.
 [-AUTOCONNECTTIMEOUT] - timeout in autoconnect mode.
 [-CONNECTONLOAD] - set connection immediately after running (not after
                     receiving the first request from application).
 [-CONNERROR]     - return error to application at connection time.
 [-P FilePath]
 [-PIDFILE FilePath] - write pid of the agent to the file.
 [-PING]          - test the default link.
 [-U]            - unload the agent
 -VERSION        - show version of the product
)";

char* SkipOptionMarks(char* argument) {
  while (*argument == '-' || *argument == '/') ++argument;
  return argument;
}

// Where the argument goes on after the key, or null when it does not begin with it.
char* AfterKey(char* argument, const char* key) {
  for (; *key != '\0'; ++key, ++argument) {
    argument = SkipOptionMarks(argument);
    if (std::toupper(static_cast<unsigned char>(*argument)) !=
        std::toupper(static_cast<unsigned char>(*key)))
      return nullptr;
  }
  return SkipOptionMarks(argument);
}

// The first key's value, or the second's when the first is absent.
char* FindOption(const char* key, const char* otherKey) {
  char* const value = GetArgument(__LINE__, g_DbcI.Argv, key);
  return value ? value : GetArgument(__LINE__, g_DbcI.Argv, otherKey);
}

bool HasOption(const char* key) { return GetArgument(__LINE__, g_DbcI.Argv, key) != nullptr; }

char* NonEmpty(char* value) { return value && *value != '\0' ? value : nullptr; }

void ClearState(char** argv) {
  g_DbcI.Argv = argv;
  g_DbcI.Unload = HasOption("U");
  g_DbcI.ExitStatus = g_DbcI.Unload ? -1 : 0;
  g_DbcI.ClientListenSocket = -1;
  g_DbcI.LinkList = g_DbcI.DefaultLink = g_DbcI.FirstLink = g_DbcI.CircleStartLink = nullptr;
  g_DbcI.ProtocolList = nullptr;
  FD_ZERO(&g_DbcI.ClientSockets);
}

// What does not fit the field counts as no number, 0, not as its lower bits.
int NumberOf(const char* text, int base) {
  const long number = std::strtol(text, nullptr, base);
  return number >= INT_MIN && number <= INT_MAX ? static_cast<int>(number) : 0;
}

int ReadNetMbx() {
  const char* text = GetArgument(__LINE__, g_DbcI.Argv, "M");
  if (!text) text = std::getenv("NET_MBX");
  const int value = text ? NumberOf(text, 10) : 0;
  return value != 0 ? value : kDefaultNetMbx;
}

void ReadNodeOptions() {
  g_DbcI.NodetabPath = NonEmpty(FindOption("N", "NODETAB"));
  if (g_DbcI.NodetabPath) LOG(kLogTrace, "Option NODETAB set \"%s\"", g_DbcI.NodetabPath);
  g_DbcI.NetMbx = ReadNetMbx();
  LOG(kLogTrace, "Use NET_MBX = %d", g_DbcI.NetMbx);
  const char* const node = FindOption("S", "DEFAULT");
  g_DbcI.DefaultNode = node ? node : "";
  if (node) LOG(kLogTrace, "Default node set \"%s\"", node);
}

void ReadReconnectionOptions() {
  g_DbcI.AutoChange = FindOption("A", "AUTOCHANGE") != nullptr;
  if (g_DbcI.AutoChange)
    LOG(kLogTrace, "Flag change default node to next set \"%d\"", g_DbcI.AutoChange);
  g_DbcI.AutoConnect = FindOption("G", "AUTOCONNECT") != nullptr;
  g_DbcI.AutoConnectTimeout = 0;
  g_DbcI.CircleTimeCount = 0;
  if (g_DbcI.AutoConnect) {
    g_DbcI.AutoChange = 0;
    LOG(kLogTrace, "Flag circle default connect set \"%d\"", g_DbcI.AutoConnect);
    const char* const seconds = GetArgument(__LINE__, g_DbcI.Argv, "AUTOCONNECTTIMEOUT");
    if (seconds) {
      g_DbcI.AutoConnectTimeout = static_cast<std::uint16_t>(std::strtol(seconds, nullptr, 0));
      LOG(kLogTrace, "Circle connect timeout set %d", g_DbcI.AutoConnectTimeout);
    }
  }
  g_DbcI.Err1001 = HasOption("ERR1001");
  if (g_DbcI.Err1001) LOG(kLogTrace, "Return 1001 error if connect failed");
  g_DbcI.ConnectOnLoad = HasOption("CONNECTONLOAD");
  if (g_DbcI.ConnectOnLoad)
    LOG(kLogTrace, "Flag connect after run set \"%d\"", g_DbcI.ConnectOnLoad);
  g_DbcI.ConnError = HasOption("CONNERROR");
  if (g_DbcI.ConnError)
    LOG(kLogTrace, "Flag return error if connect in progress set \"%d\"", g_DbcI.ConnError);
}

int SignalNumber(const char* text) {
  const int number = NumberOf(text, 0);
  return number > 0 ? number : SIGTERM;
}

void ReadProcessOptions() {
  g_DbcI.ParentPid = getppid();
  LOG(kLogTrace, "Parent precess has PID %d", g_DbcI.ParentPid);
  const char* const signal = FindOption("K", "PKILL");
  g_DbcI.SignalToParentProcess = signal ? SignalNumber(signal) : 0;
  if (signal)
    LOG(kLogTrace, "Need to send signal %d g_DbcI.SignalToParentProcess to parent process",
        g_DbcI.SignalToParentProcess);
  g_DbcI.NoDaemon = HasOption("NODAEMON");
  if (g_DbcI.NoDaemon) LOG(kLogTrace, "Do not fork");
  g_DbcI.ParentCheck = FindOption("PCHECK", "C") != nullptr;
  if (g_DbcI.ParentCheck) LOG(kLogTrace, "Exit after dead parent");
  g_DbcI.PidFile = NonEmpty(FindOption("P", "PIDFILE"));
  if (g_DbcI.PidFile) LOG(kLogTrace, "Create pid file %s", g_DbcI.PidFile);
  g_DbcI.PingMode = HasOption("PING");
  if (g_DbcI.PingMode) {
    g_DbcI.NoDaemon = 1;
    LOG(kLogTrace, "Set ping flag = %d", g_DbcI.PingMode);
  }
}

// Whatever a handler interrupts goes on as if nothing had happened, but for the loop's wait.
void AlarmHandler(int) {
  const int savedErrno = errno;
  LogFromHandler(HERE, "AlarmHandler!");
  g_DbcI.AlarmFlag = 1;
  WakeUp();
  alarm(kTickSeconds);
  errno = savedErrno;
}

void IoHandler(int) {
  LogFromHandler(HERE, "Receive SIGIO");
  g_DbcI.SigIoFlag = 1;
}

// kept: a result of 0 (children live, none has exited) repeats the call, so that the handler polls
// until the last child has gone. A stop request ends it.
void ChildHandler(int signal) {
  const int savedErrno = errno;
  LogFromHandler(HERE, "Receive SIGCHLD ", &signal);
  while (waitpid(0, nullptr, WNOHANG) >= 0 && !Stopping()) continue;
  errno = savedErrno;
}

void TermHandler(int signal) {
  LogFromHandler(HERE, "Receive SIGTERM ", &signal);
  g_DbcI.ExitStatus = -1;
  WakeUp();
}

// The level is the signal's distance from the first that is free. What is called here is safe in a
// handler.
void LogLevelHandler(int signal) {
  g_DbcI.LogLevel = static_cast<std::uint8_t>(signal - SIGRTMIN);
  WakeUp();
}

void Unblock(int signal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

// No automatic restart: the loop's wait is to end when a signal comes.
void Install(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, signal);
  sigaction(signal, &action, nullptr);
}

void InstallLogLevels() {
  sigset_t set;
  sigemptyset(&set);
  for (int level = kLogResult; level <= kLogTrace; ++level) {
    Install(SIGRTMIN + level, LogLevelHandler);
    sigaddset(&set, SIGRTMIN + level);
  }
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace

char* GetArgument(int line, char** argv, const char* key) {
  const char* const file = Module;
  ENTER();
  if (!argv || !argv[0]) return LEAVE(static_cast<char*>(nullptr), "Return NULL");
  for (char** argument = argv + 1; *argument; ++argument) {
    char* const rest = AfterKey(*argument, key);
    if (!rest) continue;
    if (*rest == '\0') return argument[1] ? argument[1] : rest;
    if ((*rest == ' ' || *rest == '=') && rest[1] != '\0') return rest + 1;
  }
  return LEAVE(static_cast<char*>(nullptr), "Return NULL");
}

int DbcInitGlobalInternal(const char* file, int line, char** argv) {
  ENTER();
  PrintText("TCP/IP agent (client driver). v. 5.0 for RDBMS Tavrin SQL v. %d.%d\n",
            static_cast<int>(kBannerVersion[0]), static_cast<int>(kBannerVersion[1]));
  PrintText("%s\n", GetVersionString(1));
  g_DbcI.Argv = argv;
  if (HasOption("H") || HasOption("?") || HasOption("HELP")) {
    PrintText("%s\n", kUsage);
    return LEAVE(-1, "Print help");
  }
  if (HasOption("VERSION")) {
    PrintText("%s\n", GetVersionString(0));
    return LEAVE(-1, "Print version");
  }
  ClearState(argv);
  ReadNodeOptions();
  ReadReconnectionOptions();
  ReadProcessOptions();
  g_DbcI.AlarmFlag = 0;
  g_DbcI.LastClientSocket = kNoDescriptorYet;
  g_DbcI.LastLinkSocket = kNoDescriptorYet;
  g_DbcI.SigIoFlag = 0;
  g_DbcI.LinkBuffer = static_cast<std::int32_t>(
      NumberFromEnvironment("LUMO_LINK_BUFFER", 0, kLinkBufferMax, kLinkBuffer));
  return 0;
}

const char* GetVersionString(int selector) {
  static char text[256];
  std::memset(text, 0, sizeof text);
  const long* const n = kVersion.Numbers;
  switch (selector) {
    case 0:
      std::snprintf(text, sizeof text, "%s v. %ld.%ld.%ld.%ld for %s %s", kEdition, n[0], n[1],
                    n[2], n[3], kVersion.Platform, kVersion.Variant);
      break;
    case 1:
      std::snprintf(text, sizeof text, "%s", kLegalNotice);
      break;
    case 2:
      std::snprintf(text, sizeof text, "%ld.%ld.%ld.%ld", n[0], n[1], n[2], n[3]);
      break;
    case 3:
      std::snprintf(text, sizeof text, "%s", kEdition);
      break;
    case 4:
      std::snprintf(text, sizeof text, "%s v. %ld.%ld.%ld.%ld", kEdition, n[0], n[1], n[2], n[3]);
      break;
    default:
      break;
  }
  return text;
}

int InitialiseSignalHandlers(const char* file, int line) {
  ENTER();
  Install(SIGIO, IoHandler);
  Unblock(SIGIO);
  signal(SIGPIPE, SIG_IGN);
  Install(SIGCHLD, ChildHandler);
  Unblock(SIGCHLD);
  Install(SIGTERM, TermHandler);
  Unblock(SIGTERM);
  Install(SIGINT, TermHandler);
  Unblock(SIGINT);
  InstallLogLevels();
  return 0;
}

int InitialiseTimer(const char* file, int line) {
  ENTER();
  Unblock(SIGALRM);
  Install(SIGALRM, AlarmHandler);
  alarm(kTickSeconds);
  return 0;
}

void UninitTimer(const char* file, int line) { ENTER(); }
