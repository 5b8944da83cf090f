// The system under the agent, simulated: descriptors and the peers behind them, processes, local
// kernels and the clock. Inputs run without the real system: fast, repeatable, and nothing that
// an input says reaches a process, a file or a network of this machine.
//
// The agent's system calls are directed here at link time. While `Active` is false they go to the
// real system (the targets that use real sockets), but for those that could reach other processes
// or the network: these are simulated while `Quiet` is true, which also drops the agent's output.
#pragma once
#include <sys/select.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <set>
#include <string>

namespace world {

enum class Kind : std::uint8_t { None, File, Listener, Client, Node, Kernel, Pipe, Pair };

// A descriptor of the agent and the peer behind it.
struct Socket {
  Kind What = Kind::None;           // None: closed
  std::string Input;                // for the agent to read
  std::deque<std::string> Packets;  // of a Pair: whole messages to read
  std::string Output;               // what the agent has sent
  std::size_t Room = kEndless;      // that the peer still takes
  std::size_t Piece = kEndless;     // the most that one call transfers
  bool Refused = false;             // it took nothing when the agent last tried to send
  int Error = 0;                    // of the next call, which ends the connection; 0: none
  bool PeerGone = false;
  bool Connecting = false;
  bool ConnectOver = false;  // a pending connection is decided
  int ConnectError = 0;      // how
  int EmptyReads = 0;        // reads at the end
  std::string Address;       // that was connected to
  std::uint32_t Serial = 0;  // tells one connection from a later one with the same number

  static constexpr std::size_t kEndless = SIZE_MAX;
};

// The calls that can be made to fail.
enum class Call : std::uint8_t {
  Socket,
  Bind,
  Listen,
  Accept,
  Connect,
  Send,
  Recv,
  Read,
  Write,
  Select,
  Fcntl,
  SetSockOpt,
  GetSockOpt,
  Pipe,
  SocketPair,
  Fork,
  Open,
  ShmGet,
  ShmAt,
  ShmCtl,
  MsgGet,
  MsgSnd,
  SemGet,
  SemOp,
  EpollCreate,
  EpollCtl,
  Allocate,
  Count
};

enum class Plan : std::uint8_t { Pending, AtOnce, Refused, Unreachable, Count };

// What is the same at the beginning of every run.
struct Beginning {
  int Limit = FD_SETSIZE;
  bool HasEpoll = true;  // else select does all the waiting
  int Backlog = 0;       // connections that wait to be accepted
  std::uint32_t LastSerial = 0;

  std::deque<Plan> Connects;  // how the next connects to nodes go; empty: Pending
  std::string Greeting = std::string(60, '\0');  // of a local kernel
  bool KernelCloses = false;                     // after its greeting
  bool KernelsListen = false;  // a connect that has no plan succeeds, else it is refused

  std::string Nodetab;  // what every node table file holds
  bool HasNodetab = true;

  std::deque<std::string> ToKernel, FromKernel;  // messages of the queue, from TaskName on
  std::size_t QueueRoom = 64;                    // messages
  void (*OnReceive)() = nullptr;                 // called when the queue is waited for
  pid_t KernelPid = 4711;
  std::size_t SegmentSize = 64;

  std::time_t Now = 1000000;
  std::int64_t Monotonic = 1;  // milliseconds

  // Called when the agent's loop waits, not when it only looks; false: it is interrupted.
  bool (*OnWait)() = nullptr;

  // Told what connect, send, recv, read and the look at a pending connection (GetSockOpt) have come
  // to, and with descriptor -1 which call was made to fail.
  void (*OnOutcome)(Call call, int fd, long result, int error) = nullptr;
};

struct State : Beginning {
  bool Active = false;
  bool Quiet = false;
  bool ShowLog = false;  // LUMO_FUZZ_LOG in the environment: the agent's log is not dropped
  std::array<Socket, FD_SETSIZE> Sockets;
  int Highest = 2;              // of the descriptors in use
  unsigned long Transfers = 0;  // counts what goes in and out, to see whether anything does
  std::set<pid_t> Dead;
  pid_t LastChild = 0;
  void (*Handlers[65])(int) = {};  // of signals
};
extern State state;

// A fresh system; the streams of the test itself are left alone.
void Begin();
void End();

// Only output, processes and names are simulated, until End.
void BeginQuiet();

int Open(Kind kind);  // the lowest free number, or -1 with errno
bool IsOpen(int fd);
bool IsReadable(int fd);
bool IsWritable(int fd);
inline Socket& At(int fd) { return state.Sockets[static_cast<std::size_t>(fd)]; }

// After `successes` more calls one call fails.
void LetFail(Call call, int error, int successes = 0);
void ForgetFaults();
bool AnyFaultUsed();

bool IsAlive(pid_t pid);
void Signal(int number);  // as if it had come

// Ends the run: something that must never happen has happened.
[[noreturn, gnu::format(printf, 1, 2)]] void Violated(const char* format, ...);

}  // namespace world
