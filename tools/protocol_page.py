#!/usr/bin/env python3
"""Puts the tables of docs/protocol.md into man/lumo-protocol.7, which shows them as they are there.

    tools/protocol_page.py [--check]    with --check nothing is written: 1 when a table differs

A table of the page stands behind a comment with the heading of its own in docs/protocol.md, or the
bold words, and what is meant by a column's width is said in the page itself."""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SOURCE, PAGE = ROOT / "docs/protocol.md", ROOT / "man/lumo-protocol.7"
MARK = re.compile(r'(\.\\" Table: (.+)\n\.Bl -column .*\n)((?:\.It .*\n)+)')


def rows(text, title):
    """The cells of the first table behind a title, its head first, without the line of dashes."""
    behind = re.search(rf"^(?:#+ {re.escape(title)}$|\*\*{re.escape(title)}\*\*)", text, re.M)
    if not behind:
        raise SystemExit(f"{SOURCE.name} has no '{title}'")
    table = re.search(r"(?:^\|.*\n)+", text[behind.end():], re.M).group()
    lines = [line for line in table.splitlines() if not line.startswith("|---")]
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in lines]


def mdoc(cell):
    text = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", cell).replace("`", "")
    return r"\-" if text == "-" else text


def items(table):
    head, *body = [[mdoc(cell) for cell in row] for row in table]
    lines = [".It " + " Ta ".join("Sy " + cell for cell in head)]
    lines += [".It " + " Ta ".join(row) for row in body]
    # An empty cell has no blank of its own.
    return "".join(re.sub(" +", " ", line).rstrip() + "\n" for line in lines)


def main():
    source, page = SOURCE.read_text(encoding="utf-8"), PAGE.read_text(encoding="ascii")
    made, count = MARK.subn(lambda m: m.group(1) + items(rows(source, m.group(2))), page)
    if count < 6:
        raise SystemExit(f"{PAGE.name} has only {count} tables")
    if made != page and sys.argv[1:] == ["--check"]:
        raise SystemExit(f"{PAGE.name} differs from {SOURCE.name}: run tools/protocol_page.py")
    if made != page:
        PAGE.write_text(made, encoding="ascii")


main()
