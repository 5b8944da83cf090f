// Names, words and advice for every number that the library gives out.
#include <algorithm>
#include <array>
#include <cstddef>

#include "lib/include/lumo.h"
#include "lib/node_description.h"
#include "lib/status_text.h"

namespace {

// The advice where it depends on whether the system's error came with the code: a request that only
// waited for a connection has it; one that went out over the link that broke has 0.
constexpr int kBySystemError = -1;

struct Code {
  std::int32_t Number;
  const char* Name;
  int Advice;
};

#define LUMO_ENTRY(name, advice) \
  Code { name, #name, advice }
constexpr std::array kCodes{
    LUMO_ENTRY(LUMO_CODE_LOCAL_SOCKET, LUMO_ADVICE_RETRY),
    LUMO_ENTRY(LUMO_CODE_SUCCESS, LUMO_ADVICE_NONE),
    LUMO_ENTRY(LUMO_CODE_CIRCLE_FAILED, kBySystemError),
    LUMO_ENTRY(LUMO_CODE_SOCKET, LUMO_ADVICE_RETRY),
    LUMO_ENTRY(LUMO_CODE_OPTION, LUMO_ADVICE_RETRY),
    LUMO_ENTRY(LUMO_CODE_BAD_DESCRIPTOR, LUMO_ADVICE_UNSURE),
    LUMO_ENTRY(LUMO_CODE_CONNECT, kBySystemError),
    LUMO_ENTRY(LUMO_CODE_SEND, LUMO_ADVICE_UNSURE),
    LUMO_ENTRY(LUMO_CODE_RECEIVE, LUMO_ADVICE_UNSURE),
    LUMO_ENTRY(LUMO_CODE_PEER_CLOSED, LUMO_ADVICE_UNSURE),
    LUMO_ENTRY(LUMO_CODE_UNKNOWN_NODE, LUMO_ADVICE_FIX_TABLE),
    LUMO_ENTRY(LUMO_CODE_DESCRIPTOR, LUMO_ADVICE_RETRY),
    LUMO_ENTRY(LUMO_CODE_READER_GONE, LUMO_ADVICE_UNSURE),
    LUMO_ENTRY(LUMO_CODE_CONNECT_TIMEOUT, LUMO_ADVICE_RETRY),
    LUMO_ENTRY(LUMO_CODE_RECEIVE_TIMEOUT, LUMO_ADVICE_UNSURE),
    LUMO_ENTRY(LUMO_CODE_UNSUPPORTED, LUMO_ADVICE_FIX_TABLE),
    LUMO_ENTRY(LUMO_CODE_SECURE_REFUSED, LUMO_ADVICE_FIX_TABLE),
    LUMO_ENTRY(LUMO_CODE_NOT_RECORDED, LUMO_ADVICE_RETRY),
    LUMO_ENTRY(LUMO_CODE_NOT_PERMITTED, LUMO_ADVICE_ASK_PERMISSION),
};
static_assert(std::ranges::is_sorted(kCodes, {}, &Code::Number));

const Code* Find(std::int32_t number) {
  const auto found = std::ranges::find(kCodes, number, &Code::Number);
  return found == kCodes.end() ? nullptr : &*found;
}

struct Status {
  const char *Name, *Text;
};

#define LUMO_STATUS(status, text) \
  Status { #status, text }
// In the order of their numbers.
constexpr std::array kStatuses{
    LUMO_STATUS(LUMO_OK, "done"),
    LUMO_STATUS(LUMO_ERROR, "the agent answered with an error"),
    LUMO_STATUS(LUMO_UNSURE, "it is not known whether the request was carried out"),
    LUMO_STATUS(LUMO_REFUSED, "refused: a request by the node, a command by the agent"),
    LUMO_STATUS(LUMO_TIMEOUT, "the time is over"),
    LUMO_STATUS(LUMO_NO_AGENT, "no agent answers at the socket"),
    LUMO_STATUS(LUMO_BAD_GREETING, "what answers at the socket is no agent"),
    LUMO_STATUS(LUMO_BAD_ARGUMENT, "an argument is missing or out of its range"),
    LUMO_STATUS(LUMO_TOO_LONG, "a name, a path or the message is too long"),
    LUMO_STATUS(LUMO_NO_TAG, "too many requests of this process are in flight"),
    LUMO_STATUS(LUMO_NO_TICKET, "no such request is in flight"),
    LUMO_STATUS(LUMO_NOTHING_SENT, "no request is in flight"),
    LUMO_STATUS(LUMO_FORKED, "the request was sent by the parent process"),
    LUMO_STATUS(LUMO_NO_MEMORY, "there is no memory left"),
    LUMO_STATUS(LUMO_SYSTEM, "a system call failed"),
    LUMO_STATUS(LUMO_BAD_ANSWER, "the answer does not have the form that its command has"),
};
static_assert(kStatuses.size() == LUMO_BAD_ANSWER + 1);

const Status* FindStatus(int number) {
  if (number < 0 || static_cast<std::size_t>(number) >= kStatuses.size()) return nullptr;
  return &kStatuses[static_cast<std::size_t>(number)];
}

}  // namespace

const char* lumo_version(void) { return LUMO_VERSION; }

const char* lumo_status_name(int status) {
  const Status* const found = FindStatus(status);
  return found ? found->Name : "LUMO_STATUS_UNKNOWN";
}

const char* lumo_status_text(int status) {
  const Status* const found = FindStatus(status);
  return found ? found->Text : "unknown status";
}

const char* lumo_reason_text(int reason) {
  switch (reason) {
    case LUMO_REASON_NONE:
      return "the end of the request is known";
    case LUMO_REASON_CONNECTION_LOST:
      return "the connection to the agent was lost after the request was sent";
    case LUMO_REASON_AGENT_STOPPED:
      return "the agent ended the link before an answer came";
    case LUMO_REASON_DEADLINE:
      return "no answer came in time after the request was sent";
    case LUMO_REASON_BAD_ANSWER:
      return "the connection was given up because what came over it was no message";
    case LUMO_REASON_NO_MEMORY:
      return "there was no memory to take the answer";
  }
  return "unknown reason";
}

const char* lumo_code_name(int32_t code) {
  const Code* const found = Find(code);
  return found ? found->Name : nullptr;
}

const char* lumo_code_text(int32_t code) {
  if (code == LUMO_CODE_SUCCESS) return "success";
  if (code == LUMO_CODE_LOCAL_SOCKET) return "a socket to the local kernel could not be created";
  return lumo::StatusText(code);
}

lumo_advice lumo_code_advice(int32_t code, int32_t sys_error) {
  const Code* const found = Find(code);
  if (!found) return LUMO_ADVICE_NONE;
  if (found->Advice == kBySystemError) return sys_error ? LUMO_ADVICE_RETRY : LUMO_ADVICE_UNSURE;
  return static_cast<lumo_advice>(found->Advice);
}

const char* lumo_advice_text(int advice) {
  switch (advice) {
    case LUMO_ADVICE_NONE:
      return "nothing to do";
    case LUMO_ADVICE_RETRY:
      return "the node has not got the request: send it again, later or to another node";
    case LUMO_ADVICE_FIX_TABLE:
      return "the node has not got the request: correct the node table";
    case LUMO_ADVICE_ASK_PERMISSION:
      return "nothing was carried out: the administrator of the agent has to permit it";
    case LUMO_ADVICE_UNSURE:
      return "the node may have carried the request out: look before sending it again";
  }
  return "unknown advice";
}

lumo_status lumo_code_at(size_t index, int32_t* code) {
  if (!code) return LUMO_BAD_ARGUMENT;
  *code = index < kCodes.size() ? kCodes[index].Number : 0;
  return index < kCodes.size() ? LUMO_OK : LUMO_BAD_ARGUMENT;
}

const char* lumo_result_text(int32_t result) {
  switch (result) {
    case LUMO_RESULT_DONE:
      return "done";
    case LUMO_RESULT_NOT_ADDED:
      return "the line makes no node";
    case LUMO_RESULT_PATH_TOO_LONG:
      return "the path is too long";
    case LUMO_RESULT_HELD_BY_CALLER:
      return "the caller holds the lock";
    case LUMO_RESULT_HELD_BY_OTHER:
      return "another owner holds the lock";
    case LUMO_RESULT_NO_SUCH_NODE:
      return "there is no such node";
    case LUMO_RESULT_PENDING:
      return "the node goes when its link is taken down";
    case LUMO_RESULT_NO_NODETAB:
      return "there is no node table file";
    default:
      return "unknown result";
  }
}

const char* lumo_protocol_name(uint32_t protocol) { return lumo::ProtocolText(protocol); }
