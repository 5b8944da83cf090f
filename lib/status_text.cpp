#include "lib/status_text.h"

#include "core/status.h"

namespace lumo {

const char* StatusText(int code) {
  switch (code) {
    case kStatusCircleFailed:
      return "no node of the circle could be connected";
    case kStatusSocket:
      return "a socket could not be created";
    case kStatusOption:
      return "a descriptor mode or socket option could not be set";
    case kStatusBadDescriptor:
      return "a descriptor of the link was found bad";
    case kStatusConnect:
      return "the connection to the node failed";
    case kStatusSend:
      return "sending to the node failed";
    case kStatusReceive:
      return "receiving from the node failed or its packet was malformed";
    case kStatusPeerClosed:
      return "the node closed the connection";
    case kStatusUnknownNode:
      return "the node table has no such node";
    case kStatusDescriptor:
      return "the agent has no descriptor left for the link";
    case kStatusReaderGone:
      return "the reader of the local link has gone";
    case kStatusConnectTimeout:
      return "the connection to the node was not made in time";
    case kStatusReceiveTimeout:
      return "the node sent nothing within the send time-out";
    case kStatusUnsupported:
      return "the node's protocol is not supported";
    case kStatusSecureRefused:
      return "the node refused the secure connection";
    case kStatusNotRecorded:
      return "the agent could not record the request";
    case kStatusNotPermitted:
      return "the client is not permitted to ask for this";
    default:
      return nullptr;
  }
}

}  // namespace lumo
