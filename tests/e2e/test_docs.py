"""The configuration's manual page and docs/configuration.md are one text, and that text covers every
key the agent's source reads: a key added to the code but not to the document, or lost on the way into
zor.conf(5), fails here."""

import re

from conftest import BUILD_DIR, SOURCE_DIR

DOC = SOURCE_DIR / "docs" / "configuration.md"
AGENT = SOURCE_DIR / "src" / "linux" / "server" / "resource" / "disk" / "src"
# Rows of the key tables: a reader of a key names it in one of these calls.
READ_CALL = re.compile(r'\b(?:zor_(?:srv_)?(?:str|int)_key(?:_or)?|text|number)\("([a-z]+(?:/[a-z]+)*)"')
ABSOLUTE = re.compile(r'"(/root/[^"\s]*)"')


def doc_tables():
    """(key, cells) of every table row under the document's key section."""
    text = DOC.read_text().split("## Keys the agent reads", 1)[1]
    rows = []
    for line in text.splitlines():
        cells = [c.strip() for c in line.strip().strip("|").split("|")]
        if line.startswith("|") and cells[0].startswith("`"):
            rows.append((cells[0].strip("`"), cells))
    return rows


def source_keys():
    relative, absolute = set(), set()
    for src in AGENT.rglob("*.cpp"):
        code = src.read_text()
        relative.update(READ_CALL.findall(code))
        absolute.update(p for p in ABSOLUTE.findall(code) if not p.endswith(("/parameters", "/%s")))
    return relative, absolute


def test_every_key_the_agent_reads_is_documented():
    documented = {key for key, _ in doc_tables()}
    relative, absolute = source_keys()
    assert len(relative) > 40 and len(absolute) > 5  # the extraction still finds the readers
    assert sorted(relative - documented) == []
    # In the document a "%s" of the code is a name in capitals (TYPE, NAME, GROUP).
    patterns = [re.compile(re.escape(p).replace("%s", "[A-Z]+") + "$") for p in absolute]
    assert [p.pattern for p in patterns if not any(p.match(k) for k in documented)] == []


def plain(text):
    """Text without Markdown or roff markup, white space folded."""
    text = re.sub(r"\\f[BIRP]|\\&|\\e|`|\*\*", "", text).replace("\\-", "-")
    return " ".join(text.split())


def test_manual_page_carries_every_key_with_its_default_and_range():
    text = (BUILD_DIR / "man" / "zor.conf.5").read_text()
    page = plain("\n".join(line for line in text.splitlines() if not line.startswith(".")))
    rows = doc_tables()
    assert len(rows) > 50
    for key, cells in rows:
        for cell in cells:
            assert plain(cell) in page, (key, cell)
    # The converter keeps the heading of each column with its value.
    assert plain("/root/TYPE/log/level Type: integer; Default: required; Range: 1 - 32.") in page
