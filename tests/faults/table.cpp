#include "tests/faults/table.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <set>
#include <sstream>

namespace faults {
namespace {

constexpr std::size_t kCallersShown = 3;

std::set<std::string> Words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

// Functions that pass a call on for others: who called them matters more.
const std::set<std::string> kPlumbing = Words(
    "SendOrKeep SendBytes ReserveOutput KeepOutput ReadFrame ReadRequest SetSendBuffer "
    "SetReceiveBuffer TestAliveClient ServeEvents AgentMain main RunLoop WritePass ReadPass "
    "ServeLastClient HandleMessageFromClientQueue ReadFromLink DrainLink ServeLastLink "
    "LIpcReadyForRead ServeRecord FindFile SearchForNodetab OpenNodetabFile SendControl "
    "TcpSendConnectionInfo SendConnectionInfo GrowMsgInfos RunReader StartReader Look ReadNext "
    "MakeRoom SendAnswer MoveTo SendKept SendJoined SendTogether SendToQueue SendJoinedRequests "
    "Enlarge ReserveSlots GrowSaved MakeNames Wait Serve WaitForEvents Deliver");

// Where the loop begins to serve one descriptor.
const std::set<std::string> kServing = Words(
    "HandleMessageFromClientQueue ReadFromLink ServeWritableLink TickLinks SendJoinedOf "
    "ReadMessageFromKernelAndSendToDbc");

struct ErrorsOfCall {
  Call Kind;
  std::vector<int> Errors;
};

const std::vector<ErrorsOfCall> kErrors = {
    {Call::socket, {EINTR, EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES}},
    {Call::bind, {EINTR, EADDRINUSE, EACCES, EINVAL, ENOENT}},
    {Call::listen, {EINTR, EADDRINUSE, EOPNOTSUPP}},
    {Call::accept, {EINTR, EAGAIN, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTO}},
    {Call::fcntl, {EINTR, EBADF, EINVAL}},
    {Call::setsockopt, {EINTR, ENOBUFS, ENOPROTOOPT, EINVAL}},
    {Call::getsockopt, {EINTR, EBADF, ENOBUFS}},
    {Call::send, {kShort, EINTR, EAGAIN, ECONNRESET, EPIPE, ENOBUFS, ENOMEM}},
    {Call::recv, {kShort, EINTR, EAGAIN, ECONNRESET, ETIMEDOUT, ENOMEM}},
    {Call::read, {kShort, EINTR, EAGAIN, EIO}},
    {Call::write, {kShort, EINTR, EPIPE, EIO}},
    {Call::select, {EINTR, EBADF, EINVAL, ENOMEM}},
    {Call::poll, {EINTR, ENOMEM}},
    {Call::pipe, {EINTR, EMFILE, ENFILE}},
    {Call::pipe2, {EINTR, EMFILE, ENFILE}},
    {Call::socketpair, {EINTR, EMFILE, ENFILE, ENOMEM}},
    {Call::eventfd, {EINTR, EMFILE, ENFILE, ENOMEM}},
    {Call::epoll_create1, {EINTR, EMFILE, ENFILE, ENOMEM}},
    {Call::epoll_ctl, {EINTR, ENOMEM, ENOSPC}},
    {Call::epoll_wait, {kShort, EINTR, EBADF}},
    {Call::fork, {EINTR, EAGAIN, ENOMEM}},
    {Call::waitpid, {EINTR, ECHILD}},
    {Call::open, {EINTR, EMFILE, ENFILE, EACCES, ENOENT}},
    {Call::fopen, {EINTR, EMFILE, ENFILE, EACCES, ENOENT, EISDIR}},
    {Call::malloc, {ENOMEM}},
    {Call::calloc, {ENOMEM}},
    {Call::realloc, {ENOMEM}},
    {Call::mmap, {EINTR, ENOMEM, EAGAIN}},
    {Call::shmget, {EINTR, ENOENT, EACCES, EINVAL}},
    {Call::shmat, {EINTR, EACCES, ENOMEM, EINVAL, EMFILE}},
    {Call::shmctl, {EINTR, EACCES, EINVAL, EIDRM}},
    {Call::msgget, {EINTR, ENOENT, EACCES, ENOMEM}},
    {Call::msgsnd, {EINTR, EAGAIN, EIDRM, EACCES, EINVAL, ENOMEM}},
    {Call::msgrcv, {EINTR, EIDRM, EACCES, E2BIG, EINVAL}},
    {Call::semget, {EINTR, ENOENT, EACCES, ENOSPC}},
    {Call::semop, {EINTR, EIDRM, EAGAIN, ERANGE, EACCES, ENOMEM}},
    {Call::kill, {EINTR, ESRCH, EPERM}},
    {Call::gethostbyname, {EINTR, ENOENT, ENOMEM}},
};

struct ErrorsOfPath {
  Call Kind;
  const char* Path;
  std::vector<int> Errors;
};

// The pair to the reader carries whole messages and is written before it is announced.
const std::vector<ErrorsOfPath> kErrorsOfPaths = {
    {Call::send, "HandOver", {EINTR, ECONNRESET, EPIPE, ENOBUFS, ENOMEM}},
    // The system does not call a child gone that lives, and two readers at a time are not meant.
    {Call::waitpid, "Runs < AllHaveEnded", {}},
    {Call::recv, "TakeHandedAnswer", {EINTR, ECONNRESET, ENOMEM}},
    {Call::connect,
     "ConnectSocket < TcpConnectLink",
     {EINTR, EINPROGRESS, ECONNREFUSED, ETIMEDOUT, EHOSTUNREACH, ENETUNREACH, EADDRNOTAVAIL}},
    {Call::connect,
     "ConnectSocket < RepeatConnect",
     {EINTR, EINPROGRESS, EALREADY, EISCONN, ECONNREFUSED, ETIMEDOUT, EHOSTUNREACH}},
    {Call::connect, "", {EINTR, ECONNREFUSED, ENOENT, EACCES, EAGAIN}},
};

// Names the call and its nearest callers that matter, and cuts the path behind what that took: how
// the loop came to serve the descriptor is not looked at.
std::string NameAndCut(FramePath& path, Program& program) {
  std::string name = program.PlaceOf(path.Frames[0]).Function;
  std::size_t callers = 0;
  for (std::uint32_t i = 1; i < path.Depth; ++i) {
    const std::string& caller = program.PlaceOf(path.Frames[i]).Function;
    if (!kPlumbing.contains(caller)) {
      name += " < " + caller;
      ++callers;
    }
    if (callers == kCallersShown || kServing.contains(caller)) path.Depth = i + 1;
  }
  return name;
}

void AddWord(std::string& words, const std::string& word) {
  if (word.empty()) return;
  words += (words.empty() ? "" : " ") + word;
}

std::string Signed(int number, const char* what) {
  return number == 0 ? "" : (number > 0 ? "+" : "") + std::to_string(number) + " " + what;
}

}  // namespace

std::vector<int> ErrorsOf(const CallPath& path) {
  for (const ErrorsOfPath& of : kErrorsOfPaths) {
    if (of.Kind == path.Kind && path.Function.find(of.Path) == 0) return of.Errors;
  }
  for (const ErrorsOfCall& of : kErrors) {
    if (of.Kind == path.Kind) return of.Errors;
  }
  return {};
}

std::string ErrorName(int error) {
  return error == kShort ? "short" : std::string(strerrorname_np(error));
}

std::string Filled(const char* pattern, int error) {
  std::string text = pattern;
  for (std::size_t at; (at = text.find("%e")) != std::string::npos;)
    text.replace(at, 2, std::to_string(error));
  return text;
}

// The probe of descriptors looks at the listener first, later at a client and at links.
std::vector<int> SkipsOf(const CallPath& path) {
  if (path.Function.find("SelectOne") == 0) return {0, kProbesBeforeClient, kProbesBeforeLink};
  return {0};
}

// The reader is the agent's own child: a signal does arrive.
bool IsPerformed(const CallPath& path, int error) {
  return error == EINPROGRESS || (path.Kind == Call::kill && path.Function.find("TellToEnd") == 0);
}

// Nobody has asked yet when links are connected at start or one after the other: what would be
// the answer to a request is then only logged.
bool IsUnasked(const CallPath& path) {
  return path.Function.find("ConnectOnLoad") != std::string::npos ||
         path.Function.find("ConnectSomeLink") != std::string::npos;
}

// Whether what came is one of the outcomes in the pattern, which has '|' between them.
bool IsExpected(const CallPath& path, const char* pattern, int error, const std::string& came) {
  std::istringstream patterns(pattern);
  for (std::string one; std::getline(patterns, one, '|');) {
    if (IsUnasked(path) && one.find("%e") != std::string::npos) {
      const std::size_t rest = one.find(' ');
      one = rest == std::string::npos ? "unnoticed" : one.substr(rest + 1);
    }
    if (Filled(one.c_str(), error) == came) return true;
  }
  return false;
}

bool MatchesPath(const std::string& function, const std::string& part) {
  if (part.empty() || part.back() != '$') return function.find(part) != std::string::npos;
  return function + "$" == part;
}

const Expectation* ExpectationOf(const CallPath& path, const Row& row) {
  for (const Expectation& one : Expectations()) {
    if (one.Kind != path.Kind || !MatchesPath(path.Function, one.Path)) continue;
    if (one.Skip != row.Skip) continue;
    if (*one.Errors == '\0' || Words(one.Errors).contains(ErrorName(row.Error))) return &one;
  }
  return nullptr;
}

std::string Difference(const Outcome& undisturbed, const Outcome& outcome) {
  std::string text, last;
  for (std::size_t i = 0; i < outcome.Events.size(); ++i) {
    const Seen& event = outcome.Events[i];
    const bool same = i < undisturbed.Events.size() && undisturbed.Events[i] == event;
    if (!same && event.What != last) AddWord(text, last = event.What);
  }
  if (outcome.Ended != undisturbed.Ended)
    AddWord(text, !outcome.Ended              ? "goes on"
                  : outcome.Ended == kNoAgent ? "no agent"
                                              : "ends " + std::to_string(*outcome.Ended));
  if (!outcome.Ended && !undisturbed.Ended) {
    AddWord(text, Signed(outcome.Descriptors - undisturbed.Descriptors, "descriptor"));
    AddWord(text, Signed(outcome.Children - undisturbed.Children, "child"));
  }
  if (!outcome.Unserved.empty()) AddWord(text, "without " + outcome.Unserved);
  if (outcome.Attempts > 0) AddWord(text, "served after ticks " + std::to_string(outcome.Attempts));
  return text.empty() ? "unnoticed" : text;
}

bool IsSame(const CallPath& a, const CallPath& b) {
  return a.Kind == b.Kind && a.Line == b.Line && a.Function == b.Function;
}

std::vector<CallPath> PathsOf(const SharedControl& control, std::size_t scenario,
                              Program& program) {
  std::vector<CallPath> paths;
  const std::uint32_t count = std::min(control->PathCount.load(), kPathsMax);
  std::vector<std::uint64_t> frames;
  for (std::uint32_t i = 0; i < count; ++i) {
    const FramePath& path = control->Paths[i].Path;
    frames.insert(frames.end(), path.Frames, path.Frames + path.Depth);
  }
  program.Look(frames);
  for (std::uint32_t i = 0; i < count; ++i) {
    const PathRecord& record = control->Paths[i];
    if (!record.Ready || record.Path.Depth == 0) continue;
    FramePath path = record.Path;
    const std::string function = NameAndCut(path, program);
    const CallPath fresh{static_cast<Call>(record.Call),
                         program.PlaceOf(path.Frames[0]).Line,
                         function,
                         scenario,
                         {}};
    auto known = std::find_if(paths.begin(), paths.end(),
                              [&](const CallPath& one) { return IsSame(one, fresh); });
    if (known == paths.end()) known = paths.insert(paths.end(), fresh);
    known->Variants.push_back(path);
  }
  return paths;
}

}  // namespace faults
