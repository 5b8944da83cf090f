// What the failure of a call must come to, where a client or the log shows it.
#include "tests/faults/table.h"

namespace faults {

const std::vector<Expectation>& Expectations() {
  // Groups of errors
  static constexpr char kHard[] = "ECONNRESET EPIPE ENOBUFS ENOMEM ETIMEDOUT EIO";
  static constexpr char kRefused[] =
      "ECONNREFUSED ETIMEDOUT EHOSTUNREACH ENETUNREACH EADDRNOTAVAIL";
  static constexpr char kOpen[] = "EMFILE ENFILE EACCES ENOENT EISDIR";  // else it is repeated
  // Texts of several failures
  static constexpr char kTcpSocketFailed[] =
      "tcpip. Connect. socket(PF_INET..) return bad status. errno = %e";
  static constexpr char kTcpConnectFailed[] = "tcpip. connect(...) return bad status. errno = %e";
  static constexpr char kTcpWriteFailed[] =
      "TCPIP.Write into socket failed. Call:write. errno = %e";
  static constexpr char kTcpPacketFailed[] =
      "TCP.Send the CONNECTIONINFO fail. Call:send. errno %e";
  static constexpr char kUnixSocketFailed[] = "Call socket(PF_UNIX...) failed. errno = %e";
  static constexpr char kToClientFailed[] = "Send to client fail. Call:send. errno %e";
  static constexpr char kFromClientFailed[] =
      "Receive message from client fail. Call:recv. Errno %e";
  static constexpr char kClientIsDead[] = "The message wasn't send to client. Client is dead";
  static constexpr char kKernelIsDead[] = "LIPC send 0 signal to kernel failed. errno %e";
  static constexpr char kQueueFailed[] = "LIPC msgsnd failed. errno %e";
  static constexpr char kSemaphoreFailed[] = "LIPC semop failed. errno %e";
  static constexpr char kFromLocalFailed[] =
      "SOCK.Receive message from local tavrin. Call:recv. Errno %e";
  static const std::vector<Expectation> kExpectations = {
      // Start
      {Call::socket, "CreateSocket < PathIsServed", "", "ends 255", kUnixSocketFailed},
      {Call::socket, "CreateSocket < Listen", "", "ends 255", kUnixSocketFailed},
      {Call::bind, "", "", "ends 255", "failed. Errno %e"},
      {Call::setsockopt, "SetBufferSize < Listen", "", "ends 255",
       "Initialization of interprocess communication failed"},
      {Call::listen, "", "", "ends 255",
       "Listen state set for client socket fails. Call: listen. Errno %e"},
      {Call::open, "OpenStandardStreams", "", "-1 descriptor", ""},
      // The wait then goes without.
      {Call::eventfd, "PrepareWait", "", "-2 descriptor", ""},
      {Call::epoll_create1, "PrepareWait", "", "-1 descriptor", ""},
      {Call::epoll_ctl, "PrepareWait", "", "-1 descriptor", ""},
      {Call::epoll_wait, "WaitInEpoll", "EBADF", "-1 descriptor", ""},
      {Call::fork, "Detach", "", "no agent", ""},
      {Call::fopen, "WritePidFile", "", "unnoticed", "File open failed: pid. Status: %e."},
      {Call::fopen, "InitNodeForPing", kOpen, "none", "File nodetab is not found. Exit."},
      {Call::fopen, "InitLinkQueueFromNodetab", kOpen, "ends 254",
       "File nodetab is not found. Exit."},
      {Call::fopen, "ApiGetNodetabPath", kOpen, "result 129", ""},
      {Call::read, "ReadGreeting", "EAGAIN EIO", "lives",
       "SIGTERM has not been send to the agent. Status 3"},
      {Call::kill, "UnloadRunningAgent", "", "lives",
       "SIGTERM has not been send to the agent. Status %e"},
      {Call::pipe2, "OpenPipe", "", "none", "create pipe failed. Call pipe. errno %e"},
      {Call::write, "WriteRequest", "EPIPE EIO", "none",
       "create pipe failed. Call write. errno %e"},
      {Call::write, "PingPseudoPutMsgToClient", "EPIPE EIO", "none", ""},  // the line is lost

      // Nodes of which no memory makes a link
      {Call::calloc, "TcpInitLink < CreateLink < ParseNodetabString < ReadNodetab", "",
       "4050/0 -1 descriptor without T1", "Memory for TCP link allocation error"},
      {Call::calloc, "LSockInitLink < CreateLink < ParseNodetabString < ReadNodetab", "",
       "4050/0 -1 descriptor without L", "Initialization of link 'L' for protocol 'LOCALS' failed"},
      {Call::calloc, "LIpcInitLink < CreateLink < ParseNodetabString < ReadNodetab", "",
       "4050/0 -2 descriptor -1 child without K",
       "Initialization of link 'K' for protocol 'LOCALI' failed"},
      {Call::calloc, "AddProtocol < ParseNodetabString < ReadNodetab", "",
       "4050/0 -1 descriptor without T1", "Error allocation memory for protocol TCPIP data"},
      {Call::calloc, "CreateLink < ParseNodetabString < ReadNodetab", "",
       "4050/0 -1 descriptor without T1", "Memory allocation failed"},
      {Call::calloc, "InitNodeForPing", "", "none", "Node string has errors"},
      {Call::calloc, "TcpInitLink < CreateLink < ParseNodetabString < ApiAddNode", "",
       "result 1 4050/0 result 17 -1 descriptor", "Memory for TCP link allocation error"},
      {Call::calloc, "InitLink < CreateLink < ParseNodetabString < ApiAddNode", "",
       "result 1 result 17", "failed"},
      {Call::calloc, "AddProtocol < ParseNodetabString < ApiAddNode", "",
       "result 1 4050/0 result 17", "Error allocation memory for protocol REZ data"},
      {Call::calloc, "CreateLink < ParseNodetabString < ApiAddNode", "",
       "result 1 4050/0 result 17", "Memory allocation failed"},

      // Requests and what is kept of them
      {Call::calloc, "Grow < AddClientPidIntoList", "", "nothing", "AddClientPidIntoList failed"},
      {Call::calloc, "Grow < SaveUnsendMsg", "", "4200/0", ""},
      {Call::calloc, "Grow < ClientCanBeListed", "", "not alive ends 200", ""},
      {Call::realloc, "Enlarge < SaveUnsendMsg", "", "4200/0", ""},
      {Call::realloc, "Enlarge < SaveMsgInfo", "", "4200/0|4007/0 4200/0", ""},
      {Call::calloc, "SaveMsgInfo", "", "4200/0|4007/0 4200/0", ""},
      {Call::malloc, "SaveMsgInfo", "", "4200/0|4007/0 4200/0", ""},
      {Call::calloc, "LeaveOver", "", "4007/104", ""},  // ends with the link, as the first does
      {Call::malloc, "TakeBlock < GetMsgFromClient", "", "closed", kFromClientFailed},
      {Call::malloc, "TakeBlock < TcpReadyForRead", "", "4008/%e",
       "TCPIP.Receive network message fail."},
      {Call::malloc, "TakeBlock < LSockReadyForRead", "", "4008/%e", kFromLocalFailed},
      {Call::malloc, "TakeBlock < LookAhead", "", "4008/%e", ""},
      {Call::malloc, "< Join <", "", "unnoticed", ""},  // it goes by itself
      {Call::malloc, "< TcpSendToNetwork", "", "4007/%e", kTcpWriteFailed},
      {Call::malloc, "< LSockSendToNetwork", "", "4007/%e", ""},
      {Call::malloc, "< PutMsgToClient", "", "nothing|some are lost", kToClientFailed},

      // Clients
      {Call::accept, "RefuseConnection", "", "accepted", ""},  // it waits and is taken later
      {Call::accept, "AcceptNewClientConnection", "", "unnoticed",
       "Call accept has failed. Errno %e"},
      {Call::send, "SendNow < AcceptNewClientConnection", kHard, "unnoticed", kToClientFailed},
      {Call::send, "SendNow < PutMsgToClient < Manage", kHard, "unnoticed",
       kToClientFailed},  // of a command, which is asked again
      {Call::send, "SendNow < PutMsgToClient", kHard, "nothing", kToClientFailed},
      {Call::send, "FlushBytes < FlushClient < FlushClientsAtExit", kHard, "some are lost",
       kToClientFailed},
      {Call::send, "FlushBytes < FlushClient", kHard, "closed", kToClientFailed},
      {Call::select, "FlushClientsAtExit", "EBADF EINVAL ENOMEM", "some are lost", ""},
      {Call::recv, "GetMsgFromClient", kHard, "unnoticed", kFromClientFailed},
      {Call::kill, "ProcessIsAlive < PutMsgToClient < Manage", "ESRCH EINTR", "unnoticed",
       kClientIsDead},
      {Call::kill, "ProcessIsAlive < PutMsgToClient", "ESRCH EINTR", "nothing", kClientIsDead},
      // Nobody is permitted what cannot be looked up.
      {Call::getsockopt, "PeerOf", "", "4201/1", "is not permitted"},
      {Call::open, "IsOfUser", "", "4201/1", "is not permitted"},
      {Call::read, "IsOfUser", "", "4201/1", "is not permitted"},
      {Call::open, "MakeFile", "", "unnoticed", "cannot be made. Errno %e"},
      {Call::mmap, "MapFile", "", "unnoticed", "cannot be made. Errno %e"},
      {Call::kill, "WatchParent", "ESRCH EINTR", "ends 0", ""},

      // TCP links
      {Call::socket, "TcpConnectLink < ConnectTheLink < BringUpAndServe", "", "4001/%e",
       kTcpSocketFailed},
      {Call::socket, "TcpConnectLink < ConnectTheLink < ConnectSomeLink", "", "4008/0",
       kTcpSocketFailed},
      {Call::socket, "TcpConnectLink", "", "unnoticed", kTcpSocketFailed},
      {Call::fcntl, "SetNoBlockMode < CreateSocket", "", "4002/%e", ""},
      {Call::fcntl, "SetBlockMode < CompleteConnect", "", "4002/%e", ""},
      {Call::fcntl, "SetNoBlockMode < TickConnecting", "", "4002/0", ""},
      {Call::setsockopt, "SetOption", "", "unnoticed", ""},  // wishes
      {Call::setsockopt, "< CreateSocket < TcpConnectLink", "", "4002/%e +1 descriptor", ""},
      {Call::setsockopt, "SetNoDelay < TickConnecting", "", "4002/0", ""},
      {Call::connect, "TcpConnectLink < ConnectTheLink < BringUpAndServe", kRefused, "4006/%e",
       kTcpConnectFailed},
      {Call::connect, "TcpConnectLink < ConnectTheLink < ConnectSomeLink", kRefused, "4008/0",
       kTcpConnectFailed},
      {Call::connect, "TcpConnectLink", kRefused, "unnoticed", kTcpConnectFailed},
      {Call::connect, "RepeatConnect", kRefused, "4006/0",
       "tcpip. repeate connect(...) return bad status. errno = %e"},
      {Call::getsockopt, "CompleteConnect", "", "4006/0",
       "Call:getsockopt(SO_ERROR).Status 0. errno %e"},
      {Call::send, "SendNow < TcpSendToNetwork", kHard, "4007/%e", kTcpWriteFailed},
      {Call::send, "SendNow < AnnounceReceiveTimeout", kHard, "4007/%e", kTcpPacketFailed},
      {Call::send, "SendNow < AnnounceSendTimeout", kHard, "4007/%e", kTcpPacketFailed},
      {Call::send, "SendNow < TickConnected", kHard, "unnoticed", kTcpPacketFailed},
      {Call::send, "SendNow < SendJoinedOf", kHard, "4007/%e", kTcpWriteFailed},
      {Call::send, "FlushBytes < ServeWritableLink", kHard, "4007/%e", kTcpWriteFailed},
      {Call::recv, "Look < LookAhead", kHard, "4008/%e", ""},
      {Call::recv, "Look < TcpReadyForRead", kHard, "4008/%e",
       "TCPIP.Receive network message fail."},

      // The local node's socket
      {Call::socket, "ConnectToKernel", "", "-1/%e", kUnixSocketFailed},
      {Call::connect, "ConnectToKernel", "", "4006/%e", ""},
      {Call::fcntl, "SetNonBlocking", "", "4002/%e", ""},
      {Call::fcntl, "SetBlocking", "", "4002/%e", ""},
      {Call::setsockopt, "SetBuffers", "", "4002/%e +1 descriptor", ""},
      {Call::recv, "DrainGreeting", "EAGAIN", "4008/0", ""},  // the greeting comes as an answer
      {Call::recv, "DrainGreeting", kHard, "4006/%e +1 descriptor", ""},
      {Call::send, "SendNow < LSockSendToNetwork < SendMsgToLink", kHard, "4007/%e", ""},
      {Call::recv, "Look < LSockReadyForRead", kHard, "4008/%e", kFromLocalFailed},

      // The local node's queue
      {Call::shmget, "", "", "4006/%e", "LIPC shmget failed. errno = %e"},
      {Call::shmat, "", "", "4006/%e", "LIPC shmat failed. errno = %e"},
      {Call::shmctl, "", "", "4006/%e", kKernelIsDead},
      {Call::kill, "ProcessIsAlive < KernelIsAlive", "ESRCH EINTR", "4006/%e", kKernelIsDead},
      {Call::msgget, "", "", "4006/%e", "LIPC msgget failed. errno %e"},
      {Call::semget, "", "", "4006/%e", "LIPC msgget failed. errno %e"},
      {Call::pipe, "OpenChannels", "", "4006/%e", "LIPC pipe failed. errno %e"},
      {Call::socketpair, "", "", "4006/%e", "LIPC socketpair failed. errno %e"},
      {Call::mmap, "", "", "4006/%e", "LIPC mmap failed. errno %e"},
      {Call::fork, "StartReader", "", "4006/%e", "LIPC fork failed. errno %e"},
      {Call::fork, "LIpcConnectLink", "", "4006/%e", "LIPC fork failed. errno %e"},
      {Call::msgsnd, "PutIntoQueue < LIpcSendToNetwork < LIpcClientDeadEvent",
       "EIDRM EACCES EINVAL ENOMEM", "unnoticed", kQueueFailed},
      {Call::msgsnd, "PutIntoQueue", "EIDRM EACCES EINVAL ENOMEM", "4007/%e", kQueueFailed},
      {Call::semop, "WakeKernel < PutIntoQueue < LIpcSendToNetwork < LIpcClientDeadEvent",
       "EIDRM EAGAIN ERANGE EACCES ENOMEM", "unnoticed", kSemaphoreFailed},
      {Call::semop, "WakeKernel", "EIDRM EAGAIN ERANGE EACCES ENOMEM", "4007/%e", kSemaphoreFailed},
      {Call::kill, "ProcessIsAlive < PutIntoQueue", "ESRCH EINTR", "4007/11",
       "LIPC msgsnd failed. errno 11"},
      {Call::malloc, "Keep <", "", "4007/%e", kQueueFailed},
      {Call::recv, "PutHandedAnswers", "", "unnoticed", ""},
      // The answer is still there when the link is taken down.
      {Call::recv, "TakeHandedAnswer", "ECONNRESET ENOMEM", "unnoticed",
       "LIPC.Receive message from child fail."},
      // The next request may be on its way before the agent knows of the failure.
      {Call::read, "ReadRecords", "EIO", "unnoticed|4008/%e",
       "LIPC.Receive message from child fail."},
      {Call::msgrcv, "TakeFormerAnswers", "", "unnoticed", ""},
      {Call::msgrcv, "", "EIDRM EACCES E2BIG EINVAL", "4009/0", ""},
      {Call::send, "HandOver", kHard, "4009/0", "LIPC write failed. errno = %e"},
      {Call::write, "WriteRecord", "EPIPE EIO", "unnoticed|4009/0",
       "LIPC write failed. errno = %e"},
      {Call::waitpid, "Runs < LIpcTimerEvent", "", "unnoticed", "LIPC child proccess deaded"},
      // A reader that counts as gone in the middle of an answer: its client cannot know.
      {Call::waitpid, "Runs < SettleEntry", "", "closed",
       "The reader has ended while it wrote to a client. The connection is closed"},

      // After a first failure
      {Call::select, "SelectOne", "EBADF EINVAL ENOMEM", "-1 descriptor without T1 T2 L K", ""},
      {Call::select, "SelectOne", "EBADF EINVAL ENOMEM", "closed", "", kProbesBeforeClient},
      {Call::select, "SelectOne", "EBADF EINVAL ENOMEM", "4005/%e", "", kProbesBeforeLink},
  };
  return kExpectations;
}

}  // namespace faults
