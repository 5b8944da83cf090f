"""Manual pages as far as the checks need them."""

import re

ESCAPES = {r"\(dq": '"', r"\(aq": "'", r"\-": "-", r"\&": "", r"\e": "\\", r"\ ": " "}


def plain(text):
    """Text without its escapes; what stands in italics is an argument."""
    text = re.sub(r"\\fI.*?\\fP", "<>", text)
    return re.sub(r"\\(?:\(..|[-&e ])", lambda match: ESCAPES[match.group()], text)


class Page:
    def __init__(self, path):
        self.path = path
        self.text = path.read_text(encoding="ascii")
        self.lines = self.text.splitlines()

    def section(self, *titles):
        """The lines of the first section or subsection of one of these titles."""
        start = next(i for i, line in enumerate(self.lines)
                     if any(line in (f".Sh {title}", f".Ss {title}") for title in titles))
        ends = r"\.Sh " if self.lines[start].startswith(".Sh") else r"\.S[hs] "
        end = next((i for i in range(start + 1, len(self.lines))
                    if re.match(ends, self.lines[i])), len(self.lines))
        return self.lines[start + 1:end]

    def items(self, *titles):
        """The heads of the list items, without the macro."""
        return [line[4:] for line in self.section(*titles) if line.startswith(".It ")]

    def rows(self, *titles):
        """The rows of all tables, headings left out, as lists of cells."""
        rows = [re.split(r" Ta(?: |$)", item) for item in self.items(*titles) if " Ta " in item]
        return [[plain(cell.strip()) for cell in row] for row in rows
                if not row[0].startswith("Sy ")]

    def literals(self, *titles):
        """The literal displays."""
        text = "\n".join(self.section(*titles))
        return [plain(block) for block
                in re.findall(r"^\.Bd -literal[^\n]*\n(.*?)^\.Ed$", text, re.S | re.M)]
