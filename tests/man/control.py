"""lumoctl(1) against the program's help and sources."""

import functools
import re
import unittest

import roff
import sources

FAULT = re.compile(r'\b(Refuse|Warn|Note|Severity::\w+)(?:\([^",]*)?,\s*"([\w-]+)",')
SEVERITIES = {"Refuse": "error", "Warn": "warning", "Note": "note",
              "Severity::Error": "error", "Severity::Warning": "warning", "Severity::Note": "note"}


METRIC = re.compile(r'(LUMO_AGENT\(|LUMO_NODE\(|\{|\b[Aa]dd\w*\()\s*"(\w+)",\s*"([^"]+\.)"')
METRIC_PREFIX = {"LUMO_AGENT(": "lumo_", "LUMO_NODE(": "lumo_node_"}


class ControlPage(unittest.TestCase):
    ROOT = PROGRAM = None

    def setUp(self):
        self.page = roff.Page(self.ROOT / "man/lumoctl.1")
        self.assertTrue(self.PROGRAM.is_file(), "lumoctl is not in the build: nothing to check with")

    @classmethod
    @functools.cache
    def help(cls, *command):
        return sources.run(cls.PROGRAM, *command, "--help").stdout

    @staticmethod
    def options_of_help(text):
        """The options that a help lists, each at the begin of a line; without the general ones."""
        text = text.split("General options:")[0]
        found = set()
        for line in text.splitlines():
            head = re.match(r"\s+(-\S+)", line)
            if head:
                found |= {name for name in head.group(1).split(",") if name.startswith("-")}
        return found - {"-h", "--help"}

    @staticmethod
    def options_of_head(item):
        return {"-" + name for name in re.findall(r"\bFl (\S+)", roff.plain(item))}

    def commands(self):
        return {item.split()[1]: item for item in self.page.items("COMMANDS")
                if item.startswith("Cm ")}

    def test_commands(self):
        text = self.help()
        listed = text[text.index("Subcommands:"):].splitlines()[1:]
        names = {match.group(1) for match in (re.match(r"  ([a-z]+) ", line) for line in listed)
                 if match}
        self.assertEqual(set(self.commands()), names)

    def test_options_of_commands(self):
        for name, head in self.commands().items():
            with self.subTest(command=name):
                self.assertEqual(self.options_of_head(head), self.options_of_help(self.help(name)))

    def test_options_of_all_commands(self):
        heads = self.page.items("DESCRIPTION")
        listed = set().union(*map(self.options_of_head, heads)) - {"-h", "--help"}
        text = self.help()
        self.assertEqual(listed, self.options_of_help(text[:text.index("Subcommands:")]))

    def test_commands_that_wait_longer(self):
        listed = re.findall(r"^  ([a-z]+) .*\(30 s\)$", self.help(), re.M)
        text = "\n".join(self.page.section("DESCRIPTION"))
        told = re.search(r"5 seconds, 30 for\n(.*?)\n\.It", text, re.S).group(1)
        self.assertEqual(set(re.findall(r"^\.Cm (\w+)", told, re.M)), set(listed))

    def test_exit_statuses(self):
        listed = re.findall(r"\.It (\d)\n(.*)", "\n".join(self.page.section("EXIT STATUS")))
        told = re.findall(r"^\s+(\d)  (.*)$", self.help(), re.M)
        self.assertEqual(listed, told)

    def test_metrics(self):
        defined = {}
        for name in ("metrics", "export"):
            source = sources.read(self.ROOT / f"tools/lumoctl/{name}.cpp")
            for how, metric, words in re.findall(METRIC, source):
                defined[METRIC_PREFIX.get(how, "") + metric] = words
        self.assertGreater(len(defined), 50)
        text = "\n".join(self.page.section("Metrics"))
        self.assertEqual(dict(re.findall(r"\.It Li (\w+)\n(.*)", text)), defined)

    def test_rules_of_lint(self):
        found = set()
        for path in sorted((self.ROOT / "tools/lumoctl").glob("*.cpp")):
            for call, rule in re.findall(FAULT, sources.read(path)):
                found.add((rule, SEVERITIES[call]))
        rows = self.page.rows("Faults that lint finds")
        self.assertEqual({(row[0], row[1]) for row in rows}, found)

    def test_options_of_the_examples(self):
        known = self.options_of_help(self.help()).union(
            *(self.options_of_help(self.help(name)) for name in self.commands()))
        for block in self.page.literals("EXAMPLES"):
            for line in block.splitlines():
                words = line.split(" -- ")[0].split()
                self.assertIn(words[1], self.commands())
                self.assertLessEqual({word for word in words if word.startswith("-")}, known)
