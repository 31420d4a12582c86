#!/usr/bin/env python3
"""Turns a manual page written in a small text format into roff (man(7)).

The format, in docs/man/<program>.<section>.txt:

    name: ambit-ipcs          header lines up to the first blank line
    section: 1
    summary: one line for the NAME section

    # SYNOPSIS                a section heading
    **ambit-ipcs** [*FILE*]   text; a blank line ends a paragraph
    **--json**                a term line directly followed by
    : Print JSON.             a ": " line makes a tagged paragraph
    - item                    a bullet item
        literal text          four blanks: kept as it stands

Inline: **bold**, *italic*, `code` (bold). Usage:
    man_from_text.py --version 1.0.0 SOURCE OUTPUT
"""
import re
import sys


def escape(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return text


def inline(text):
    out = escape(text)
    out = re.sub(r"\*\*(.+?)\*\*", r"\\fB\1\\fR", out)
    out = re.sub(r"`(.+?)`", r"\\fB\1\\fR", out)
    out = re.sub(r"\*(.+?)\*", r"\\fI\1\\fR", out)
    if out.startswith(".") or out.startswith("'"):
        out = "\\&" + out
    return out


def convert(lines, version):
    header = {}
    i = 0
    while i < len(lines) and lines[i].strip():
        key, _, value = lines[i].partition(":")
        if not value:
            raise ValueError("line %d: header lines are 'key: value'" % (i + 1))
        header[key.strip()] = value.strip()
        i += 1
    for key in ("name", "section", "summary"):
        if key not in header:
            raise ValueError("missing header line '%s:'" % key)
    out = ['.TH "%s" "%s" "" "ambit %s" "ambit manual"' %
           (header["name"].upper(), header["section"], version),
           ".SH NAME", "%s \\- %s" % (escape(header["name"]), inline(header["summary"]))]
    body = lines[i:]
    literal = False
    j = 0
    while j < len(body):
        line = body[j]
        nxt = body[j + 1] if j + 1 < len(body) else ""
        if line.startswith("    ") and line.strip():
            if not literal:
                out += [".PP", ".RS 4", ".nf"]
                literal = True
            out.append(escape(line[4:]) if not line[4:].startswith(".") else "\\&" + escape(line[4:]))
            j += 1
            continue
        if literal:
            out += [".fi", ".RE"]
            literal = False
        if not line.strip():
            out.append(".PP")
        elif line.startswith("# "):
            out.append(".SH %s" % line[2:].strip().upper())
        elif nxt.startswith(": "):
            out += [".TP", inline(line.strip())]
        elif line.startswith(": "):
            out.append(inline(line[2:].strip()))
        elif line.startswith("- "):
            out += [".IP \\(bu 2", inline(line[2:].strip())]
        else:
            out.append(inline(line.strip()))
        j += 1
    if literal:
        out += [".fi", ".RE"]
    # No paragraph macro right after a heading, and none twice.
    cleaned = []
    for line in out:
        if line == ".PP" and cleaned and (cleaned[-1] == ".PP" or cleaned[-1].startswith(".SH")):
            continue
        cleaned.append(line)
    return "\n".join(cleaned) + "\n"


def main(argv):
    if len(argv) != 5 or argv[1] != "--version":
        sys.stderr.write("usage: man_from_text.py --version VERSION SOURCE OUTPUT\n")
        return 2
    with open(argv[3], encoding="utf-8") as f:
        lines = f.read().splitlines()
    try:
        page = convert(lines, argv[2])
    except ValueError as e:
        sys.stderr.write("%s: %s\n" % (argv[3], e))
        return 1
    with open(argv[4], "w", encoding="utf-8") as f:
        f.write(page)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
