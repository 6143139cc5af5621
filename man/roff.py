"""Small helpers shared by the manual page generators: text escaped for roff."""

import re


def escape(text):
    """Plain text for roff: backslashes and hyphens kept literal."""
    return text.replace("\\", "\\e").replace("-", "\\-")


def line(text):
    """One output line; a leading dot or quote would read as a request."""
    text = text.strip()
    return "\\&" + text if text[:1] in (".", "'") else text


_INLINE = re.compile(r"`([^`]+)`|\*\*([^*]+)\*\*|\[([^\]]+)\]\([^)]*\)")


def inline(text):
    """Markdown inline markup to roff: code and bold in bold, links as their text."""
    out, pos = [], 0
    for m in _INLINE.finditer(text):
        out.append(escape(text[pos:m.start()]))
        if m.group(3) is not None:
            out.append(inline(m.group(3)))
        else:
            out.append("\\fB" + escape(m.group(1) or m.group(2)) + "\\fR")
        pos = m.end()
    out.append(escape(text[pos:]))
    return "".join(out)


def verbatim(lines):
    """A literal block, indented, unfilled."""
    out = [".PP", ".RS 4", ".nf"]
    out += ["\\&" + escape(s) for s in lines]
    out += [".fi", ".RE"]
    return out
