#include "core/environment.h"

#include <cerrno>
#include <cstdlib>

#include "core/trace.h"

static constexpr char Module[] = "init";

long NumberFromEnvironment(const char* name, long least, long most, long unset) {
  const char* const text = std::getenv(name);
  if (!text) return unset;
  char* end;
  errno = 0;
  const long number = std::strtol(text, &end, 10);
  if (end != text && *end == '\0' && errno == 0 && number >= least && number <= most) return number;
  LOG(kLogResult, "%s cannot be used: \"%s\" is no number from %ld to %ld", name, text, least,
      most);
  return unset;
}
