// What the log writes of a line, whatever its length.
#include "core/trace.h"

#include "tests/unit/agent_test.h"

namespace {

TEST(LogLine, IsWrittenWholeHoweverLongItIs) {
  for (const std::size_t size : {1U, 4085U, 4086U, 4087U, 4096U, 20000U}) {
    const CapturedStderr written;
    const std::string text(size, 'x');
    log(kHere, 1, kLogResult, "%sEND", text.c_str());
    EXPECT_EQ(written.Text(), "lumo_tcp:" + text + "END\n") << size;
  }
}

}  // namespace
