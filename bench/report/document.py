"""Puts tables between their markers: <!-- table:NAME --> and the next <!-- end -->."""

import re

MARKED = re.compile(r"(<!-- table:(\w+) -->\n).*?(<!-- end -->)", re.DOTALL)
BEGIN = re.compile(r"<!-- table:(\w*)")


class DocumentError(Exception):
    """The document's markers and the tables do not fit."""


def fill(text, tables):
    """The text with every table in its place. Raises DocumentError where a table or a place is left over."""
    placed = []

    def place(found):
        begin, name, end = found.groups()
        if BEGIN.search(found.group(0)[len(begin):]):
            raise DocumentError(f"the table {name} has no <!-- end -->")
        if name not in tables:
            raise DocumentError(f"there is no table {name}")
        placed.append(name)
        return f"{begin}{tables[name]}\n{end}"

    filled = MARKED.sub(place, text)
    if len(BEGIN.findall(text)) != len(placed):
        raise DocumentError("a table's marker has no <!-- end -->")
    left = set(tables) - set(placed)
    if left:
        raise DocumentError(f"no place for the tables {', '.join(sorted(left))}")
    return filled
