// The codes that reach a client as `CodErr`, each named once. 0 is success.
#pragma once

enum : int {
  kStatusCircleFailed = 1001,    // with -ERR1001: no node of the circle could be connected
  kStatusSocket = 4001,          // a socket could not be created
  kStatusOption = 4002,          // a descriptor mode or socket option could not be set
  kStatusBadDescriptor = 4005,   // a descriptor was found bad after a failed select
  kStatusConnect = 4006,         // the connection failed
  kStatusSend = 4007,            // sending failed
  kStatusReceive = 4008,         // receiving failed, or the packet was malformed
  kStatusPeerClosed = 4009,      // the peer closed the connection
  kStatusUnknownNode = 4050,     // the node table has no such node
  kStatusDescriptor = 4052,      // the descriptor number is too big, or there is none
  kStatusReaderGone = 4053,      // the reader child of a local link has gone
  kStatusConnectTimeout = 4058,  // the connection was not made in time
  kStatusReceiveTimeout = 4065,  // no packet came within the send time-out
  kStatusUnsupported = 4066,     // the protocol is not supported
  kStatusSecureRefused = 4156,   // the peer refused the secure connection
  kStatusNotRecorded = 4200,     // the request could not be recorded
  kStatusNotPermitted = 4201,    // the client may not ask for this
};
