// lint: each fault, its line, and what counts.
#include "tests/lumoctl/control.h"
#include "tests/support/text.h"
#include "tools/lumoctl/nodetab.h"

namespace {

// "line severity rule" of every fault, but for the notes that most tables have.
std::string Faults(const std::string& table, const std::vector<std::string>& options = {},
                   const lumo::ctl::Resolver& resolver = lumo::ctl::SystemResolver()) {
  const lumo::ctl::Table read = lumo::ctl::ReadTable(table, resolver, 20562);
  std::string text;
  const auto add = [&text](int line, const std::vector<lumo::ctl::Fault>& faults) {
    for (const lumo::ctl::Fault& fault : faults)
      if (fault.Rule != "no-watchdog" && fault.Rule != "connect-for-ever")
        text += std::to_string(line) + ' ' + SeverityText(fault.Level) + ' ' + fault.Rule + '\n';
  };
  for (const lumo::ctl::TableLine& line : read.Lines) add(line.Number, line.Faults);
  add(0, read.Faults);
  add(0, CheckOptions(options, read));
  return text;
}

class Lint : public test::ControlTest {};

constexpr char kSound[] = "SRV1 TCPIP 127.0.0.1 1060 3 60 10\n";

TEST_F(Lint, FindsNothingInASoundTable) {
  const std::string path = Write("table", std::string("# a table\n\n") + kSound +
                                              "HERE LOCALS 20999\n; more\nKERNEL LOCALI 0x5052\n");
  Expect({"lint", path}, 0, "3 nodes, 0 errors, 0 warnings, 0 notes\n");
}

TEST_F(Lint, SaysTheLineAndTheReason) {
  const std::string path = Write("table", std::string(kSound) + "\nNINECHARS TCPIP 127.0.0.1\n");
  const test::CtlOutcome outcome = Run({"lint", path, "--strict"});
  EXPECT_EQ(outcome.Status, 1);
  const auto lines = test::Lines(outcome.Out);
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0], path +
                          ":3: error: the name 'NINECHARS' has 9 characters; the most is 8 "
                          "[name-too-long]");
  EXPECT_EQ(lines[3], "1 node, 1 error, 0 warnings, 2 notes");
}

struct LintCase {
  const char *Table, *Faults;
};

TEST_F(Lint, FindsEachFaultOfALine) {
  const LintCase cases[] = {
      {"X\n", "1 error no-protocol\n"},
      {"X UDP 127.0.0.1\n", "1 error unknown-protocol\n"},
      {"X REZ\n", "1 warning unsupported-protocol\n"},
      {"X TCPIP\n", "1 error no-address\n"},
      {"X TCPIP 256.1.1.1\n", "1 error unresolved\n"},
      {"X TCPIP 1060\n", "1 warning odd-address\n"},
      {"X TCPIP 127.0.0.1 1060x\n", "1 warning bad-number\n"},
      {"X TCPIP 127.0.0.1 70000\n", "1 warning port-range\n"},
      {"X TCPIP 127.0.0.1 01060\n", "1 warning octal\n"},
      {"X TCPIP 127.0.0.1 1060 0\n", "1 note no-alive-packets\n"},
      {"X TCPIP 127.0.0.1 1060 -3\n", "1 warning timeout-range\n"},
      {"X TCPIP 127.0.0.1 1060 1 70000 -1\n", "1 warning timeout-range\n1 warning timeout-range\n"},
      {"X TCPIP 127.0.0.1 1060 1 5 5 x\n", "1 warning extra-words\n"},
      {"X LOCALI 5 # comment\n", "1 warning extra-words\n1 warning trailing-comment\n"},
      {"X LOCALS\n", "1 error no-address\n"},
      {"X LOCALS 0x5\n", "1 error bad-exchange\n"},
      {"X LOCALS 5x y\n", "1 warning bad-number\n1 warning extra-words\n"},
      {"X LOCALS -5\n", "1 warning negative-exchange\n"},
      {"X LOCALI\n", "1 error no-address\n"},
      {"X LOCALI 0\n", "1 error bad-key\n"},
      {"X LOCALI 5\nY LOCALI 6\n", "2 warning second-locali\n"},
      {"PING LOCALI 5\n", "1 warning option-key\n"},
      {"X REZ\nY REZ\nX LOCALI 5\n",
       "1 warning unsupported-protocol\n2 warning unsupported-protocol\n3 error duplicate\n"},
      {"X LOCALI 5\nX LOCALS 5\n", "2 warning duplicate-accepted\n"},
      {"X LOCALI 5\nY LOCALS 5\ny LOCALS 6\nx LOCALS 7\n",
       "3 warning duplicate-accepted\n4 warning duplicate-accepted\n"},
  };
  for (const LintCase& one : cases)
    EXPECT_EQ(Faults(std::string(one.Table) + "Z LOCALS 99\n"), one.Faults) << one.Table;
}

TEST_F(Lint, FindsWhatIsWrongWithTheFileItself) {
  EXPECT_EQ(Faults("# nothing\n"), "0 error no-nodes\n");
  EXPECT_EQ(Faults("X LOCALS 5" + std::string(1013, ' ') + "Y LOCALS 6\n"),
            "1 warning long-line\n");
  EXPECT_EQ(Faults(std::string("X LOCALS 5\0 6\n", 14)), "1 warning nul-byte\n");
  EXPECT_EQ(Faults("X LOCALS 5" + std::string(300, ' ') + "x\n"),
            "1 warning extra-words\n1 note cut-when-waiting\n");
  EXPECT_EQ(Faults("X LOCALS 20562\n"), "1 warning own-exchange\n");
}

TEST_F(Lint, ZeroTimeoutsAreNotes) {
  const std::string path = Write("table", "X TCPIP 127.0.0.1 1060 1 0\n");
  Expect({"lint", path}, 0,
         path +
             ":1: note: 0 as send time-out: no watchdog, a silent node is never given up "
             "[no-watchdog]\n" +
             path +
             ":1: note: no connect time-out: connecting is tried for ever "
             "[connect-for-ever]\n1 node, 0 errors, 0 warnings, 2 notes\n");
  EXPECT_EQ(Run({"lint", path, "--strict"}).Status, 1);
}

TEST_F(Lint, LooksHostsUpUnlessToldNotTo) {
  EXPECT_EQ(Faults("X TCPIP 300.300.300.300 1060 1 5 5\n"),
            "1 error unresolved\n0 error no-nodes\n");
  EXPECT_EQ(Faults("X TCPIP 300.300.300.300 1060 1 5 5\n", {}, lumo::ctl::NumericResolver()), "");
}

TEST_F(Lint, LooksAtTheAgentsOptions) {
  const std::string table = "X LOCALS 5\n";
  EXPECT_EQ(Faults(table, {"-NODETAB", "/etc/n", "--default=x", "-M", "7"}), "");
  EXPECT_EQ(Faults(table, {"-NODETAB", "nodetab", "-PIDFILE=U"}), "");
  EXPECT_EQ(Faults(table, {"-DEFAULT", "U"}), "0 warning option-key\n0 warning default-unknown\n");
  EXPECT_EQ(Faults(table, {"-FOO", "-N"}), "0 warning unknown-option\n0 warning no-value\n");
  EXPECT_EQ(Faults(table, {"-M", "0x7", "-G"}), "0 warning bad-exchange\n0 warning one-node\n");
}

// The agent's own words about the same table.
TEST_F(Lint, RefusesWhatTheAgentRefuses) {
  const std::string table =
      "X TCPIP 127.0.0.1\nY REZ\nX REZ\nNINECHARS REZ\nV UDP\nD TCPIP\nE LOCALS 0\nF LOCALI 0\n";
  Start(table);
  for (const char* text :
       {"Dublicate node name found in nodetab file", "Node name 'X' skip",
        "Node name 'NINECHARS' skipped", "Node name 'V' skipped", "Node name 'D' skipped",
        "Node name 'E' skipped", "Node name 'F' skipped"})
    EXPECT_TRUE(agent_.Logged(0, "", text)) << text;
  EXPECT_EQ(Names(), "X\nY\n");
  EXPECT_EQ(Faults(table),
            "2 warning unsupported-protocol\n3 warning unsupported-protocol\n3 error duplicate\n"
            "4 error name-too-long\n4 warning unsupported-protocol\n5 error unknown-protocol\n"
            "6 error no-address\n7 error bad-exchange\n8 error bad-key\n");
}

TEST_F(Lint, FileThatCannotBeReadIsStatusTwo) {
  EXPECT_EQ(Run({"lint", agent_.Folder() / "none"}).Status, 2);
  EXPECT_EQ(Run({"lint", agent_.Folder()}).Status, 2);
}

// "severity text" of what is told of the buffers.
std::string BufferFault(const std::string& table, const char* asked,
                        const lumo::ctl::BufferLimits& limits) {
  const auto read = lumo::ctl::ReadTable(table, lumo::ctl::NumericResolver(), 20562);
  const auto faults = CheckLinkBuffer(read, asked, limits);
  return faults.empty() ? "" : SeverityText(faults.at(0).Level) + (' ' + faults.at(0).Text);
}

TEST(LinkBuffer, IsToldWhenTheSystemGivesLess) {
  const std::string far = "FAR TCPIP 192.0.2.1 1060 3 60 10\n";
  const std::string note =
      "note the agent asks for 262144 bytes of buffer for a TCP link (LUMO_LINK_BUFFER), but "
      "net.core.rmem_max is 212992, net.core.wmem_max is 212992: raise it for nodes at a distance";
  EXPECT_EQ(BufferFault(far, nullptr, {212992, 212992}), note);
  EXPECT_EQ(BufferFault(far, "no number", {212992, 212992}), note);
  EXPECT_EQ(BufferFault(far, "4194305", {212992, 212992}), note);
  EXPECT_EQ(BufferFault(far, nullptr, {262144, 262144}), "");
  EXPECT_EQ(BufferFault(far, "524288", {524288, 262144}),
            "warning the agent asks for 524288 bytes of buffer for a TCP link (LUMO_LINK_BUFFER), "
            "but net.core.wmem_max is 262144");
  EXPECT_EQ(BufferFault(far, "524288", {524288, 524288}), "");
  EXPECT_EQ(BufferFault(far, "0", {4096, 4096}), "");
  EXPECT_EQ(BufferFault(far, "524288", {}), "");  // limits that cannot be read
}

TEST(LinkBuffer, MattersToNodesOnOtherMachinesOnly) {
  for (const char* near : {"N TCPIP 127.0.0.1 1060\n", "N TCPIP localhost 1060\n", "N LOCALS 5\n"})
    EXPECT_EQ(BufferFault(near, "524288", {4096, 4096}), "") << near;
  EXPECT_NE(BufferFault("N LOCALS 5\nF TCPIP db1 1060\n", "524288", {4096, 4096}), "");
}

// With another limit than the machine's, in a mount namespace of its own.
TEST_F(Lint, LooksAtTheBuffersThatTheSystemGives) {
  const std::string path = Write("table", "FAR TCPIP 192.0.2.1 1060 3 60 10\n");
  const auto lint = [&](const std::string& most) {
    const std::string limit = Write("limit", most);
    test::Program program(
        "/usr/bin/unshare",
        {"--user", "--map-root-user", "--mount", "sh", "-euc",
         "for i in r w; do mount --bind \"$1\" /proc/sys/net/core/${i}mem_max; done"
         "; LUMO_LINK_BUFFER=500000 exec \"$2\" lint \"$3\"",
         "sh", limit, LUMOCTL_PATH, path});
    const auto status = program.Wait();
    EXPECT_EQ(program.Stderr(), "");
    return std::to_string(status.value_or(-1)) + ' ' + program.Stdout();
  };
  EXPECT_EQ(lint("499999"),
            "1 system: warning: the agent asks for 500000 bytes of buffer for a TCP link "
            "(LUMO_LINK_BUFFER), but net.core.rmem_max is 499999, net.core.wmem_max is 499999 "
            "[link-buffer]\n1 node, 0 errors, 1 warning, 0 notes\n");
  EXPECT_EQ(lint("500000"), "0 1 node, 0 errors, 0 warnings, 0 notes\n");
}

}  // namespace
