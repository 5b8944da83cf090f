#include "tests/simulate/codes.h"

#include "core/status.h"

using world::Call;

std::vector<int> codes::Of(Call call) {
  switch (call) {
    case Call::Socket:
      return {kStatusSocket, -1};
    case Call::Connect:
    case Call::GetSockOpt:
    case Call::Pipe:
    case Call::SocketPair:
    case Call::Fork:
    case Call::ShmGet:
    case Call::ShmAt:
    case Call::ShmCtl:
    case Call::MsgGet:
    case Call::SemGet:
      return {kStatusConnect};
    case Call::Fcntl:
    case Call::SetSockOpt:
      return {kStatusOption};
    case Call::Send:
    case Call::MsgSnd:
    case Call::SemOp:
      return {kStatusSend};
    case Call::Recv:
      return {kStatusReceive, kStatusConnect};  // a greeting
    case Call::Read:
      return {kStatusReceive};
    case Call::Allocate:
      return {kStatusNotRecorded, kStatusReceive, kStatusSend, kStatusConnect};
    default:
      return {};
  }
}
