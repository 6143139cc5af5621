#!/usr/bin/env python3
"""Turns the Markdown of docs/configuration.md into the body of zor.conf(5).

The manual page and the document are one text: the build runs this script,
so a key described in the document is in the page and nowhere else.

    md2man.py TEMPLATE MARKDOWN OUTPUT VERSION [--skip HEADING]...

TEMPLATE is a roff page with the lines "@BODY@" (replaced by every section of
MARKDOWN from its first "## " heading on, less the skipped ones) and
"@VERSION@" anywhere. Handled: headings, paragraphs, "- " lists, fenced code
and tables. A table becomes a list with one entry per row, tagged by its first
column: tables of keys are too wide for a terminal.
"""

import argparse
import re
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from roff import inline, line, verbatim  # noqa: E402

# Columns that describe the row rather than qualify it.
DESCRIPTIVE = {"Meaning", "Selects", "When"}


def cells(row):
    return [c.strip() for c in row.strip().strip("|").split("|")]


def table(rows):
    head = cells(rows[0])
    out = []
    for row in rows[2:]:
        values = cells(row)
        if len(values) != len(head):
            raise ValueError("a table row with %d cells under %d headings: %s" % (len(values), len(head), row))
        out += [".PP", line(inline(values[0])), ".RS 4"]
        attrs = ["%s: %s" % (h, v) for h, v in zip(head[1:], values[1:]) if v and h not in DESCRIPTIVE]
        text = [v for h, v in zip(head[1:], values[1:]) if v and h in DESCRIPTIVE]
        if attrs:
            out.append(line(inline("; ".join(attrs) + ".")))
        if attrs and text:
            out.append(".br")
        out += [line(inline(t)) for t in text]
        out.append(".RE")
    return out


def convert(markdown, skip):
    lines = markdown.splitlines()
    while lines and not lines[0].startswith("## "):
        lines.pop(0)
    out, i, skipping = [], 0, None
    while i < len(lines):
        s = lines[i]
        m = re.match(r"(#{2,6}) (.*)", s)
        if m:
            level = len(m.group(1))
            if skipping is not None and level <= skipping:
                skipping = None
            if m.group(2) in skip:
                skipping = level
            elif skipping is None:
                out += [".SH " + line(inline(m.group(2)).upper())] if level == 2 else [".SS " + line(inline(m.group(2)))]
            i += 1
            continue
        block = []
        if s.startswith("```"):
            i += 1
            while i < len(lines) and not lines[i].startswith("```"):
                block.append(lines[i])
                i += 1
            i += 1
            if skipping is None:
                out += verbatim(block)
            continue
        if not s.strip():
            i += 1
            continue
        while i < len(lines) and lines[i].strip() and not lines[i].startswith(("#", "```")):
            block.append(lines[i])
            i += 1
        if skipping is not None:
            continue
        if block[0].startswith("|"):
            out += table(block)
        elif block[0].startswith("- "):
            items = []
            for b in block:
                if b.startswith("- "):
                    items.append(b[2:])
                else:
                    items[-1] += " " + b.strip()
            for item in items:
                out += [".IP \\(bu 2", line(inline(item))]
        else:
            out += [".PP"] + [line(inline(b)) for b in block]
    return out


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("template")
    ap.add_argument("markdown")
    ap.add_argument("output")
    ap.add_argument("version")
    ap.add_argument("--skip", action="append", default=[])
    args = ap.parse_args()
    body = convert(Path(args.markdown).read_text(), set(args.skip))
    page = []
    for s in Path(args.template).read_text().splitlines():
        page += body if s == "@BODY@" else [s.replace("@VERSION@", args.version)]
    Path(args.output).write_text("\n".join(page) + "\n")


if __name__ == "__main__":
    main()
