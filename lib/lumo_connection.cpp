// Connections and requests.
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

#include "lib/entry.h"
#include "lib/exchange.h"
#include "lib/socket_path.h"
#include "lib/socket_places.h"

using namespace lumo::detail;

struct lumo_connection {
  std::string Path;
  std::atomic<Exchange*> Side;  // of the process that used it last
};

namespace {

constexpr std::size_t kNodeSize = 8, kCommandSize = 4;
constexpr char kManagement[] = "DBCA";

// The side of this process. Without a lock: the parent's threads may have held it during the fork.
Exchange& SideOf(lumo_connection* connection) {
  Exchange* side = connection->Side;
  if (side->Pid() == getpid()) return *side;
  Exchange* const own = new Exchange(connection->Path, side);
  if (connection->Side.compare_exchange_strong(side, own)) {
    side->LeaveToParent();
    return *own;
  }
  delete own;
  return *side;
}

// As SideOf for questions that change nothing: null when it is still the parent's.
Exchange* OwnSide(const lumo_connection* connection) {
  Exchange* const side = connection ? connection->Side.load() : nullptr;
  return side && side->Pid() == getpid() ? side : nullptr;
}

bool Fits(const char* text, std::size_t size) { return !text || strnlen(text, size + 1) <= size; }

Outcome CheckStrings(const lumo_request& request) {
  for (const lumo_bytes& bytes : request.strings) {
    if (bytes.size > lumo::kMaxMessage) return {LUMO_TOO_LONG};
    if (!bytes.data && bytes.size > 0) return {LUMO_BAD_ARGUMENT};
  }
  return {};
}

void CopyFields(const lumo_request& from, lumo::Message* to) {
  to->Node = from.node ? from.node : "";
  to->Command = from.command ? from.command : "";
  to->RowId = from.row_id;
  to->RowCount = from.row_count;
  to->PrzExe = from.prz_exe;
  to->Prior = from.prior;
  to->NumChan = from.num_chan;
  to->LnBufRow = from.ln_buf_row;
  to->DbcApiCode = from.dbc_api_code;
  std::ranges::copy(from.spare, to->Uninterpreted.begin());
  std::ranges::copy(from.trailer, to->Trailer.begin());
  for (std::size_t i = 0; i < to->Strings.size(); ++i) {
    const lumo_bytes& bytes = from.strings[i];
    if (bytes.size > 0) to->Strings[i].assign(static_cast<const char*>(bytes.data), bytes.size);
  }
}

Outcome ToMessage(const lumo_request* from, lumo::Message* to) {
  // A caller with a newer header would expect more of us than we know.
  if (!from || from->struct_size != sizeof *from) return {LUMO_BAD_ARGUMENT};
  if (!Fits(from->node, kNodeSize) || !Fits(from->command, kCommandSize)) return {LUMO_TOO_LONG};
  const Outcome strings = CheckStrings(*from);
  if (!strings.Good()) return strings;
  CopyFields(*from, to);
  if (lumo::EncodedSize(*to) > lumo::kMaxMessage) return {LUMO_TOO_LONG};
  return {};
}

std::vector<std::string> PlacesOf(int exchangeId) {
  return SocketPlaces(exchangeId ? exchangeId : lumo::ExchangeId());
}

Outcome CopyOut(const std::string& text, char* path, std::size_t size) {
  if (text.size() >= size) return {LUMO_TOO_LONG};
  std::memcpy(path, text.c_str(), text.size() + 1);
  return {};
}

Kind KindOf(const lumo::Message& message) {
  return message.Command == kManagement ? Kind::Management : Kind::Request;
}

}  // namespace

namespace lumo::detail {

Outcome AskAgent(lumo_connection* connection, std::uint16_t command, std::int32_t argument,
                 std::string_view text, int deadlineMs, AnswerPointer* answer) {
  if (!connection) return {LUMO_BAD_ARGUMENT};
  const Deadline deadline(deadlineMs);
  Message request;
  request.Command = kManagement;
  request.DbcApiCode = command;
  request.RowId = argument;
  request.Strings[0] = text;
  if (EncodedSize(request) > kMaxMessage) return {LUMO_TOO_LONG};
  Outcome end = SideOf(connection).Ask(request, Kind::Management, deadline, answer);
  if (end.Status == LUMO_ERROR) end.Error = (*answer)->Message.SysErr;
  return end;
}

}  // namespace lumo::detail

lumo_status lumo_socket_path(int exchange_id, char* path, size_t size) {
  if (!path || size == 0) return LUMO_BAD_ARGUMENT;
  path[0] = '\0';
  return Entry([&] { return CopyOut(ChoosePlace(PlacesOf(exchange_id)), path, size); });
}

lumo_status lumo_socket_place(int exchange_id, size_t index, char* path, size_t size) {
  if (!path || size == 0) return LUMO_BAD_ARGUMENT;
  path[0] = '\0';
  return Entry([&]() -> Outcome {
    const std::vector<std::string> places = PlacesOf(exchange_id);
    if (index >= places.size()) return {LUMO_BAD_ARGUMENT};
    return CopyOut(places[index], path, size);
  });
}

lumo_status lumo_open(const char* path, int deadline_ms, lumo_connection** connection) {
  if (!connection) return LUMO_BAD_ARGUMENT;
  *connection = nullptr;
  return Entry([&]() -> Outcome {
    const Deadline deadline(deadline_ms);
    const std::string text = path && *path ? path : ChoosePlace(PlacesOf(0));
    auto side = std::make_unique<Exchange>(text, nullptr);
    const Outcome connected = side->Connect(deadline);
    if (!connected.Good()) return connected;
    *connection = new lumo_connection{text, side.get()};
    static_cast<void>(side.release());
    return {};
  });
}

void lumo_close(lumo_connection* connection) {
  if (!connection) return;
  Entry([&]() -> Outcome {
    Exchange* const side = connection->Side;
    if (side->Pid() == getpid()) {
      delete side;
    } else {
      side->LeaveToParent();
    }
    delete connection;
    return {};
  });
}

lumo_status lumo_reconnect(lumo_connection* connection, int deadline_ms) {
  if (!connection) return LUMO_BAD_ARGUMENT;
  return Entry([&] { return SideOf(connection).Connect(Deadline(deadline_ms)); });
}

int32_t lumo_agent_pid(const lumo_connection* connection) {
  return connection ? connection->Side.load()->AgentPid() : 0;
}

const char* lumo_connection_path(const lumo_connection* connection) {
  return connection ? connection->Path.c_str() : nullptr;
}

size_t lumo_in_flight(const lumo_connection* connection) {
  Exchange* const side = OwnSide(connection);
  std::size_t count = 0;
  if (side) {
    Entry([&]() -> Outcome {
      count = side->InFlight();
      return {};
    });
  }
  return count;
}

int lumo_descriptor(const lumo_connection* connection) {
  const Exchange* const side = OwnSide(connection);
  return side ? side->Descriptor() : -1;
}

lumo_status lumo_send(lumo_connection* connection, const lumo_request* request, int deadline_ms,
                      lumo_ticket* ticket) {
  if (ticket) *ticket = 0;
  if (!connection || !ticket) return LUMO_BAD_ARGUMENT;
  return Entry([&]() -> Outcome {
    const Deadline deadline(deadline_ms);
    lumo::Message message;
    const Outcome made = ToMessage(request, &message);
    if (!made.Good()) return made;
    return SideOf(connection).Send(message, KindOf(message), deadline, ticket);
  });
}

lumo_status lumo_receive(lumo_connection* connection, lumo_ticket ticket, int deadline_ms,
                         lumo_answer** answer) {
  if (answer) *answer = nullptr;
  if (!connection || !answer) return LUMO_BAD_ARGUMENT;
  return Entry([&]() -> Outcome {
    AnswerPointer end;
    const Outcome received = SideOf(connection).Receive(ticket, Deadline(deadline_ms), &end);
    *answer = end.release();
    return received;
  });
}

lumo_status lumo_receive_any(lumo_connection* connection, int deadline_ms, lumo_ticket* ticket,
                             lumo_answer** answer) {
  if (ticket) *ticket = 0;
  if (answer) *answer = nullptr;
  if (!connection || !ticket || !answer) return LUMO_BAD_ARGUMENT;
  return Entry([&]() -> Outcome {
    AnswerPointer end;
    const Outcome received = SideOf(connection).ReceiveAny(Deadline(deadline_ms), ticket, &end);
    *answer = end.release();
    return received;
  });
}

lumo_status lumo_abandon(lumo_connection* connection, lumo_ticket ticket) {
  if (!connection) return LUMO_BAD_ARGUMENT;
  return Entry([&] { return SideOf(connection).Abandon(ticket); });
}

lumo_status lumo_ask(lumo_connection* connection, const lumo_request* request, int deadline_ms,
                     lumo_answer** answer) {
  if (answer) *answer = nullptr;
  if (!connection || !answer) return LUMO_BAD_ARGUMENT;
  return Entry([&]() -> Outcome {
    const Deadline deadline(deadline_ms);
    lumo::Message message;
    const Outcome made = ToMessage(request, &message);
    if (!made.Good()) return made;
    AnswerPointer end;
    const Outcome asked = SideOf(connection).Ask(message, KindOf(message), deadline, &end);
    *answer = end.release();
    return asked;
  });
}

lumo_status lumo_ask_text(lumo_connection* connection, const char* node, const char* text,
                          int deadline_ms, lumo_answer** answer) {
  if (answer) *answer = nullptr;
  if (!text) return LUMO_BAD_ARGUMENT;
  lumo_request request = lumo_request_make();
  request.node = node;
  request.strings[LUMO_TEXT] = {text, std::strlen(text)};
  return lumo_ask(connection, &request, deadline_ms, answer);
}
