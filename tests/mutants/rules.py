"""The rules by which a line of C++ is changed: small slips of a tired engineer."""
import dataclasses
import re

# What only tells what is done may be wrong without anybody noticing: such statements are left alone.
TOLD = re.compile(r"^\s*(LOG|ENTER|log|TraceFields|TraceRegistration|static_assert|namespace|using|"
                  r"template|extern|#|//|case |default:|public:|private:|\[\[)")
DECLARED = re.compile(r"^\s*(const |constexpr |static |struct |class |enum |typedef |explicit |virtual |~)")
OPEN, CLOSE = "([{", ")]}"
OPPOSITE = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "+": "-", "-": "+"}
OPERATORS = {"<": "LumoLess", "<=": "LumoLessOrEqual", ">": "LumoMore", ">=": "LumoMoreOrEqual",
             "==": "LumoEqual", "!=": "LumoUnequal", "+": "LumoPlus", "-": "LumoMinus"}
NEIGHBOURS = [
    ("kLinkConnected", "kLinkConnecting"), ("kLinkDisconnected", "kLinkConnecting"),
    ("kWaiting", "kInFlight"), ("kStatusSend", "kStatusReceive"),
    ("kStatusPeerClosed", "kStatusReceive"), ("kStatusConnect", "kStatusOption"),
    ("Closed", "Failed"), ("Claimed", "Waiting"), ("Written", "Writing"),
    ("ReadSet", "WriteSet"), ("TaskName", "AstInd"), ("std::min", "std::max"),
    ("Release", "Retire"), ("First", "Last"), ("Begin", "End"),
]


@dataclasses.dataclass(frozen=True)
class Mutant:
    path: str
    at: int  # of the text that is replaced, in the file
    old: str
    new: str
    line: int
    rule: str
    key: str  # what it is known by in files
    around: tuple  # what to write before and behind the old text for a choice between both, % the number

    @property
    def end(self):
        return self.at + len(self.old)


def blank(text):
    """The text with comments, and what stands in quotes, replaced by spaces."""
    pattern = re.compile(r'//[^\n]*|/\*.*?\*/|R"\((.*?)\)"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])\'', re.S)
    return pattern.sub(lambda found: re.sub(r"[^\n]", " ", found[0]), text)


def operand(code, at, step):
    """Where the operand of && or || beside `at` ends."""
    depth, stops = 0, ("&&", "||", "return", "if (", "while (")
    while 0 < at < len(code):
        before = code[at - 1] if step < 0 else code[at]
        opening, closing = (CLOSE, OPEN) if step < 0 else (OPEN, CLOSE)
        if before in opening:
            depth += 1
        elif before in closing:
            if depth == 0:
                return at
            depth -= 1
        elif depth == 0:
            part = code[at - 2:at] if step < 0 else code[at:at + 2]
            alone = before != ":" or "::" not in code[at - 2:at + 2]
            if before in ";,?:" and alone or part in ("&&", "||"):
                return at
            if step < 0 and (code[at - 6:at] == "return" or (before == "=" and code[at] == " " and
                                                             code[at - 2] not in "=!<>")):
                return at
        at += step
    return at


def conditions(code):
    """Places of what stands in the parentheses of if and while."""
    for found in re.finditer(r"\b(?:if|while) \(", code):
        depth, end = 1, found.end()
        while depth and end < len(code):
            depth += (code[end] in OPEN) - (code[end] in CLOSE)
            end += 1
        text = code[found.end():end - 1]
        if " = " not in text.replace(" == ", "") and ";" not in text and "constexpr" not in text:
            yield found.end(), text


def statements(code):
    """Places of whole statements that call, assign, count or jump, and declare nothing."""
    pattern = re.compile(r"(?:(?<=[;{}\n])|(?<=\) )|(?<=else ))[ ]*((?:\+\+|--|[A-Za-z_*(])[^;{}]*;)")
    for found in pattern.finditer(code):
        text = found[1]
        if DECLARED.match(text) or TOLD.match(text) or "(" not in text and "=" not in text and \
                not text.startswith(("++", "--", "continue", "break")):
            continue
        yield found.start(1), text


DECLARATION = re.compile(r"(?:[A-Za-z_][\w:<>,\[\]]*[ *&]+)+[A-Za-z_]\w*(?:\[\w*\])?(?: = |;|\(|\{)")


def places(code):
    """Each mutant as (rule, place, old text, new text)."""
    for found in re.finditer(r" (<=|>=|<|>) (?![^;{]*>\s*$)", code):
        yield "boundary", found.start(1), found[1], OPPOSITE[found[1]]
    for found in re.finditer(r" (==|!=) ", code):
        yield "equality", found.start(1), found[1], OPPOSITE[found[1]]
    for at, text in conditions(code):
        yield "negation", at, text, f"!({text})"
    for found in re.finditer(r"&&|\|\|", code):
        if code[found.end():found.end() + 1] not in (" ", "\n"):
            continue  # an rvalue reference
        neutral = "true" if found[0] == "&&" else "false"
        left = operand(code, found.start(), -1)
        yield "operand", left, code[left:found.start()], f" {neutral} "
        right = operand(code, found.end(), 1)
        yield "operand", found.end(), code[found.end():right], f" {neutral}"
    for at, text in statements(code):
        if text in ("continue;", "break;"):
            yield "jump", at, text, {"continue;": "break;", "break;": ";"}[text]
        elif not text.startswith(("return", "goto", "else", "do ", "for (")) and \
                not DECLARATION.match(text):
            yield "statement", at, text, ";"
    for found in re.finditer(r" (?:<|>|==|-|\+) (\d+)\b(?!\.)| = (\d+)(?=[;, *])", code):
        number = found[1] or found[2]
        yield "number", found.end() - len(number), number, str(int(number) + 1)
    for found in re.finditer(r"(?<=\w|\)) ([+-]) (?=\w)", code):
        yield "arithmetic", found.start(1), found[1], OPPOSITE[found[1]]
    for found in re.finditer(r"errno == EINTR", code):
        yield "interruption", found.start(), found[0], "false"
    for found in re.finditer(r"\breturn (true|false|0|-1);", code):
        new = {"true": "false", "false": "true", "0": "-1", "-1": "0"}[found[1]]
        yield "result", found.start(1), found[1], new
    for one, other in NEIGHBOURS:
        for old, new in ((one, other), (other, one)):
            for found in re.finditer(rf"((?:\b\w+(?:\.|->|::))*)\b{old}\b", code):
                yield "neighbour", found.start(), found[0], found[1] + new


def around(rule, old, new):
    """What makes a choice of the old text: written before it and behind it."""
    if rule in ("boundary", "equality", "arithmetic"):
        return "", f" {OPERATORS[old]}{{%}} {old}"
    if rule == "negation":
        return "LumoMutant(%) != static_cast<bool>(", ")"
    if rule in ("operand", "interruption"):
        return (" (LumoMutant(%) || (", "))") if "true" in new else (" (!LumoMutant(%) && (", "))")
    if new == "break;":
        return "{ if (LumoMutant(%)) break; else ", " }"
    if new == ";":
        return "{ if (!LumoMutant(%)) { ", " } }"
    return f"(LumoMutant(%) ? {new} : ", ")"


def function(code, at):
    """Where the body of the function begins that the place is in, or None."""
    depth, begin = 0, None
    for place in range(at - 1, -1, -1):
        depth += (code[place] == "{") - (code[place] == "}")
        if depth == 1:
            depth = 0
            if re.search(r"\)(?: const| noexcept)*(?: ->[^;{}]*)? $", code[max(0, place - 80):place]):
                begin = place + 1
    return begin


def probes(text, mutant):
    """Bodies that a change which cannot be a choice is seen in: its own or those that use its name."""
    code = blank(text)
    names = re.findall(r"(\w+)(?:\[\w*\])? = [^=]*$", code[code.rfind("\n", 0, mutant.at):mutant.at])
    found = {function(code, mutant.at)}
    if found == {None} and names:
        found = {function(code, use.start()) for use in re.finditer(rf"\b{names[0]}\b", code)}
    return sorted(found - {None})


def mutants(path, text):
    code, lines, seen = blank(text), text.split("\n"), {}
    for rule, at, old, new in places(code):
        line = code.count("\n", 0, at)
        if TOLD.match(lines[line]) or not old.strip() or old.strip() == new.strip():
            continue
        old = text[at:at + len(old)]
        short, other = (" ".join(part.split())[:60] for part in (old, new))
        key = f"{path}: {rule}: '{short}' -> '{other}' in {lines[line].strip()}"
        seen[key] = seen.get(key, 0) + 1
        if seen[key] > 1:
            key += f" ({seen[key]})"
        yield Mutant(path, at, old, new, line + 1, rule, key, around(rule, old, new))
