"""What the sources say: messages, codes, options, names."""

import re
import subprocess

LEVELS = {"kLogResult": "0", "kLogDefault": "1", "kLogError": "2", "kLogDriver": "3"}
AGENT = ("core", "client", "link", "protocols", "api", "ping")
ARGUMENT = "<>"  # stands for whatever a message is filled with
LITERAL = r'"((?:[^"\\]|\\.)*)"'
CONVERSION = re.compile(r"%[-+ 0-9.*]*(?:hh|h|ll|l|z)?[diuxXcsp]")


def run(*command, check=True, **how):
    return subprocess.run(command, capture_output=True, text=True, timeout=60, check=check, **how)


def agent_sources(root):
    return [path for folder in AGENT for path in sorted((root / folder).glob("*.cpp"))]


def read(path):
    return path.read_text(encoding="utf-8")


def unescape(text):
    return text.encode("ascii").decode("unicode_escape")


def join_literals(text):
    """The text of adjacent string literals at the start of `text`, None when it starts with none."""
    joined = re.match(r"\s*(?:" + LITERAL + r"\s*)+", text)
    if not joined:
        return None
    return unescape("".join(re.findall(LITERAL, joined.group())))


def normal(message):
    """One line, conversions as arguments; blanks inside a line are kept as they are."""
    return re.sub(r"\s*\n\s*", " ", CONVERSION.sub(ARGUMENT, message).strip("\n"))


def messages(root):
    """All messages of level 0 to 3 as {(level, text)}; level "out" for what is printed."""
    found = set()
    call = re.compile(r"\bLOG\(\s*(kLog\w+)\s*,|\bPrintText\(")
    for path in agent_sources(root):
        source = read(path)
        for match in call.finditer(source):
            level = LEVELS.get(match.group(1)) if match.group(1) else "out"
            text = join_literals(source[match.end():])
            if level is None or text is None or text.strip() == "%s":
                continue  # a trace line, a declaration, or a text of its own (see verdicts)
            found.add((level, normal(text)))
    return found | {("0", text) for _, text in verdicts(root)}


def indirect_messages(root):
    """How many calls take their text from elsewhere: each is known to the checks above."""
    return sum(len(re.findall(r'\b(?:LOG\(\s*kLog(?:Result|Default|Error|Driver)\s*,|PrintText\()'
                              r'\s*"%s(?:\\n)?"', read(path))) for path in agent_sources(root))


def unknown_levels(root):
    """Calls of the log whose level is not written as one of the constants."""
    known = set(LEVELS) | {"kLogDetail", "kLogTrace"}
    return [f"{path.name}: {level}" for path in agent_sources(root)
            for level in re.findall(r"\bLOG\(\s*([^,]+),", read(path)) if level not in known]


def status_numbers(root):
    return {name: int(number) for name, number
            in re.findall(r"^\s*(kStatus\w+) = (\d+),", read(root / "core/status.h"), re.M)}


def status_texts(root):
    """Each code of the agent with the words that its clients show."""
    numbers = status_numbers(root)
    source = read(root / "lib/status_text.cpp")
    texts = {numbers[name]: join_literals(rest) for name, rest
             in re.findall(r"case (kStatus\w+):\s*return ([^;]+);", source)}
    return numbers, texts


def verdicts(root):
    """The test mode's table: (code, text)."""
    numbers = status_numbers(root)
    table = re.search(r"kVerdicts\[\] = \{(.*?)\};", read(root / "ping/ping.cpp"), re.S).group(1)
    return [(numbers[name], text) for name, text in re.findall(r"\{(\w+), " + LITERAL, table)]


def options(root):
    """The agent's options as {key: takes a value}."""
    source = read(root / "core/init.cpp")
    found = {key: False for key in re.findall(r'\bHasOption\("([^"]+)"\)', source)}
    calls = r'\b(?:FindOption\("([^"]+)", "([^"]+)"\)|GetArgument\(__LINE__, g_DbcI.Argv, "([^"]+)"\))'
    for match in re.finditer(calls + r"( != nullptr)?", source):
        for key in filter(None, match.groups()[:3]):
            found[key] = match.group(4) is None
    return found


def usage_options(agent):
    """The options of the agent's own help."""
    said = run(agent, "-HELP", check=False)
    return set(re.findall(r"(?:\[| )-([A-Z?][A-Z0-9]*)(?=[\]\s])", said.stdout)), said.returncode


def environment(root):
    return {name for path in agent_sources(root)
            for name in re.findall(r'(?:getenv|NumberFromEnvironment)\("(\w+)"', read(path))}


def carried_in_name_only(root):
    table = re.search(r"kNames\[\] = \{(.*?)\};", read(root / "protocols/dummy.cpp"), re.S).group(1)
    return set(re.findall(LITERAL, table))


def without_comments(source):
    return re.sub(r"/\*.*?\*/|^#[^\n]*(?:\\\n[^\n]*)*", "", source, flags=re.S | re.M)


def star(text):
    """One form of a C type or declaration."""
    return re.sub(r"\s*(\*+)\s*", r" \1", re.sub(r"\s+", " ", text)).strip()


def functions(header):
    """The functions that a C header declares or defines: {name: (result, [arguments])}."""
    declared = re.findall(r"(?:\bLUMO_API|\bstatic inline)\s+([^;{}()]*?)\b(lumo_\w+)\s*\(([^;{]*?)\)"
                          r"\s*[;{]", without_comments(read(header)), re.S)
    return {name: (star(result), [star(argument) for argument in arguments.split(",")])
            for result, name, arguments in declared}


def constants(header):
    """The enumerators of a C header with their numbers, which all are written out."""
    bodies = re.findall(r"\benum\s+\w+\s*\{(.*?)\}", without_comments(read(header)), re.S)
    return {name: int(number) for body in bodies
            for name, number in re.findall(r"\b(LUMO_\w+)\s*=\s*(-?\d+)", body)}


def unnumbered(header):
    bodies = re.findall(r"\benum\s+\w+\s*\{(.*?)\}", without_comments(read(header)), re.S)
    return [name for body in bodies for name in re.findall(r"\b(LUMO_\w+)\s*(?=,|$)", body)]


def version(root):
    return re.search(r"^project\(.* VERSION (\S+)", read(root / "CMakeLists.txt"), re.M).group(1)
