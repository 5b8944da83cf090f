// What every entry of the C interface has in common.
#pragma once
#include <pthread.h>

#include <cerrno>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "lib/agent_socket.h"
#include "lib/answer.h"
#include "lib/deadline.h"
#include "lib/include/lumo.h"

namespace lumo::detail {

// A thread that is cancelled goes on until the call is over: nothing may stay half done.
class NoCancellation {
 public:
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~NoCancellation() { pthread_setcancelstate(before_, nullptr); }
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;

 private:
  int before_ = 0;
};

// No exception leaves the library, and errno is set last.
template <class Body>
lumo_status Entry(Body body) noexcept {
  const NoCancellation noCancellation;
  Outcome outcome;
  try {
    outcome = body();
  } catch (const std::bad_alloc&) {
    outcome = {LUMO_NO_MEMORY};
  } catch (const std::length_error&) {
    outcome = {LUMO_TOO_LONG};
  } catch (const std::system_error& error) {
    outcome = {LUMO_SYSTEM, error.code().value()};
  } catch (...) {
    outcome = {LUMO_SYSTEM, EIO};
  }
  if (outcome.Error != 0 || outcome.Status == LUMO_ERROR) errno = outcome.Error;
  return outcome.Status;
}

// lumo_ask for a management command; the text goes out as given.
Outcome AskAgent(lumo_connection* connection, std::uint16_t command, std::int32_t argument,
                 std::string_view text, int deadlineMs, AnswerPointer* answer);

}  // namespace lumo::detail
