#!/usr/bin/env python3
"""Compares the manual pages with the sources: pages_check.py ROOT AGENT LUMOCTL"""

import re
import sys
import unittest
from pathlib import Path

import roff
import sources
from control import ControlPage

ROOT = Path(sys.argv[1])
AGENT = sys.argv[2]
BUILD = Path(sys.argv[2]).parent
MAN = ROOT / "man"
ControlPage.ROOT = ROOT
ControlPage.PROGRAM = Path(sys.argv[3])


def page(name):
    return roff.Page(MAN / name)


class EveryPage(unittest.TestCase):
    """Form, and that every page is installed."""

    def check(self, command, name):
        run = sources.run(*command, name, cwd=MAN, check=False)
        # The pages' footer names this system; manuals of the BSDs leave that to the formatter.
        said = [line for line in (run.stdout + run.stderr).splitlines()
                if "operating system explicitly specified" not in line]
        self.assertEqual(said, [])

    def test_form(self):
        pages = sorted(path.name for path in MAN.glob("*.[1-8]"))
        self.assertGreaterEqual(len(pages), 4)
        for name in pages:
            with self.subTest(page=name):
                self.check(["mandoc", "-Tlint"], name)
                self.check(["groff", "-ww", "-mdoc", "-Tutf8", "-z"], name)

    def test_footer_names_the_system(self):
        for path in MAN.glob("*.[1-8]"):
            text = sources.run("groff", "-mdoc", "-Tascii", path).stdout
            self.assertTrue(text.rstrip().splitlines()[-1].startswith("lumo_tcp"), path.name)

    def test_all_are_installed(self):
        listed = re.search(r"foreach\(page ([^)]+)\)", sources.read(MAN / "CMakeLists.txt"))
        self.assertEqual(set(listed.group(1).split()), {p.name for p in MAN.glob("*.[1-8]")})

    def test_references_exist(self):
        for path in MAN.glob("*.[1-8]"):
            for name, section in re.findall(r"^\.Xr (\S+) (\d)", path.read_text(), re.M):
                self.assertTrue((MAN / f"{name}.{section}").exists(), f"{path.name}: {name}")


class AgentPage(unittest.TestCase):
    """lumo_tcp(8)"""

    def setUp(self):
        self.page = page("lumo_tcp.8")

    def documented(self):
        found = {}
        for item in self.page.items("DESCRIPTION"):
            for option in roff.plain(item).split(" , "):
                words = option.split()
                self.assertEqual(words[0], "Fl")
                found[words[1]] = words[2:3] == ["Ar"]
        return found

    def test_options_are_those_of_the_source(self):
        self.assertEqual(self.documented(), sources.options(ROOT))

    def test_options_are_those_of_the_help(self):
        usage, status = sources.usage_options(AGENT)
        self.assertEqual(set(self.documented()), usage)
        self.assertEqual(status, 255)

    def test_options_of_text_and_examples_are_options(self):
        known = set(sources.options(ROOT))
        for path in MAN.glob("*.[5-8]"):
            for line in path.read_text().splitlines():
                if line.startswith("."):
                    for option in re.findall(r"\bFl (?:\\&)?(\S+)", line):
                        self.assertIn(option, known, f"{path.name}: {line}")
        for block in self.page.literals("EXAMPLES"):
            for option in re.findall(r" -([^ =\n]+)", block):
                self.assertIn(option, known)

    def test_environment(self):
        names = {item.removeprefix("Ev ") for item in self.page.items("ENVIRONMENT")}
        self.assertEqual(names, sources.environment(ROOT))

    def test_verdicts(self):
        expected = [(code, text) for code, text in sources.verdicts(ROOT)]
        rows = self.page.rows("EXIT STATUS")
        for status, code, _ in rows:
            self.assertEqual(int(status), (int(code) - 4000) % 256)
        refused = sources.status_numbers(ROOT)["kStatusConnect"]
        self.assertEqual([(int(code), text) for _, code, text in rows if int(code) != refused],
                         expected)
        source = sources.read(ROOT / "ping/ping.cpp")
        for text in [row[2] for row in rows if int(row[1]) == refused]:
            self.assertIn(re.sub(r" \d+: Ns Ar errno$", ' %d:%d"', text), source)

    def test_form_of_a_log_line(self):
        text = re.search(r'"(lumo_tcp:\[[^"]+)"', sources.read(ROOT / "core/trace.cpp")).group(1)
        header = text.replace("lld", "d") % (3, "lumo_tcp", 347, 1700000000)
        self.assertTrue(self.page.literals("LOGGING")[0].startswith(header))

    def test_numbers(self):
        for path, name in (("core/init.cpp", "kDefaultNetMbx"), ("core/init.cpp", "kTickSeconds"),
                           ("core/mailbox.cpp", "kDefaultDirectory\\[\\]"),
                           ("core/dbc.h", "kMaxDescriptors")):
            value = re.search(rf"{name} = \"?([^\";]+)", sources.read(ROOT / path)).group(1)
            self.assertIn(value, self.page.text)


class TablePage(unittest.TestCase):
    """nodetab(5); the lines in it are tried by man_tests."""

    def test_protocols_that_are_not_carried(self):
        section = page("nodetab.5").section("Protocols that are known but not carried")
        names = {line.split()[1] for line in section if line.startswith(".Li ")}
        self.assertEqual(names, sources.carried_in_name_only(ROOT))

    def test_default_port(self):
        port = re.search(r"kDefaultPort = (\d+)", sources.read(ROOT / "protocols/lumo_tcp.cpp"))
        rows = {row[0]: row[1] for row in page("nodetab.5").rows("TCPIP") if len(row) == 3}
        self.assertEqual(rows["port"], port.group(1))


class MessagesPage(unittest.TestCase):
    """lumo-messages(7)"""

    def setUp(self):
        self.page = page("lumo-messages.7")

    def test_messages_are_those_of_the_sources(self):
        listed = []
        for item in self.page.items("MESSAGES"):
            match = re.fullmatch(r'Sy "(.*)" No \((\w+)\)', item)
            self.assertTrue(match, item)
            listed.append((match.group(2), roff.plain(match.group(1))))
        self.assertEqual(len(listed), len(set(listed)))
        self.assertEqual(set(listed), sources.messages(ROOT))
        self.assertGreater(len(listed), 60)

    def test_no_message_is_hidden_from_this_check(self):
        # The legal notice, the help, the version; and the verdict out of its table.
        self.assertEqual(sources.indirect_messages(ROOT), 4)
        self.assertEqual(sources.unknown_levels(ROOT), [])

    def test_each_has_an_explanation(self):
        lines = self.page.section("MESSAGES") + self.page.section("CODES")
        for i, line in enumerate(lines[:-1]):
            if line.startswith(".It "):
                self.assertFalse(lines[i + 1].startswith((".It", ".El", ".Ss")), line)

    def test_codes(self):
        numbers, texts = sources.status_texts(ROOT)
        listed = {}
        for item in self.page.items("CODES"):
            code, words = re.fullmatch(r'Sy (\S+) No "(.*)"', item).groups()
            listed[int(roff.plain(code))] = roff.plain(words)
        self.assertEqual(set(listed), set(numbers.values()) | {0, -1})
        self.assertEqual(texts, {code: words for code, words in listed.items() if code in texts})
        self.assertEqual(set(texts), set(numbers.values()))


class LibraryPage(unittest.TestCase):
    """liblumo(3)"""

    HEADER = ROOT / "lib/include/lumo.h"
    maxDiff = None

    def setUp(self):
        self.page = page("liblumo.3")

    def test_functions_are_those_of_the_header(self):
        text = "\n".join(self.page.section("SYNOPSIS"))
        listed = {}
        for result, name, arguments in re.findall(r"\.Ft (.+)\n\.Fo (\w+)\n((?:\.Fa .+\n)+)\.Fc",
                                                  text):
            listed[name] = (result, re.findall(r'\.Fa "?([^"\n]+)', arguments))
        self.assertEqual(text.count(".Fo "), len(listed))
        self.assertEqual(listed, sources.functions(self.HEADER))

    def test_functions_of_the_text_exist(self):
        known = set(sources.functions(self.HEADER))
        named = set(re.findall(r"^\.Fn (lumo_\w+)", self.page.text, re.M))
        self.assertEqual(named - known, set())

    def test_constants_are_those_of_the_header(self):
        rows = [row for title in ("Requests", "Management", "RETURN VALUES", "ERRORS")
                for row in self.page.rows(title)]
        listed = {row[0].removeprefix("Dv "): int(row[1]) for row in rows}
        self.assertEqual(len(listed), len(rows))
        self.assertEqual(listed, sources.constants(self.HEADER))
        self.assertEqual(sources.unnumbered(self.HEADER), [])

    def test_codes_are_those_of_the_agent(self):
        codes = {int(row[1]) for row in self.page.rows("ERRORS")}
        self.assertEqual(codes, set(sources.status_numbers(ROOT).values()) | {0, -1})

    def test_the_example_is_the_one_that_is_tested(self):
        self.assertEqual(self.page.literals("EXAMPLES")[0],
                         sources.read(ROOT / "lib/examples/example.c"))


class ProtocolPage(unittest.TestCase):
    """lumo-protocol(7); what its tables say is tried by man_tests."""

    def test_tables_are_those_of_the_document(self):
        run = sources.run(ROOT / "tools/protocol_page.py", "--check", check=False)
        self.assertEqual((run.stderr, run.returncode), ("", 0))


class DeveloperPages(unittest.TestCase):
    """lumo_node(1) and lumo_load(1)"""

    def check(self, name, program):
        self.assertTrue(program.is_file(), f"{program} is not in the build: nothing to check with")
        text = sources.run(program, "--help").stdout
        listed = set()
        for item in page(name).items("DESCRIPTION"):
            listed |= ControlPage.options_of_head(item)
        self.assertEqual(listed - {"-h", "--help"}, ControlPage.options_of_help(text))

    def test_node(self):
        self.check("lumo_node.1", BUILD / "tools/lumo_node/lumo_node")

    def test_load(self):
        self.check("lumo_load.1", BUILD / "bench/lumo_load")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
