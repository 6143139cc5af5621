# The configuration's manual page and docs/configuration.md are one text, and that text covers every
# key the agent's source reads: a key added to the code but not to the document, or lost on the way into
# zor.conf(5), fails here.

import os
import re
import subprocess
import sys
import xml.etree.ElementTree as ET
from pathlib import Path

import pytest

from conftest import BUILD_DIR, SOURCE_DIR

DOC = SOURCE_DIR / "docs" / "configuration.md"
AGENT = SOURCE_DIR / "src" / "linux" / "server" / "resource" / "disk" / "src"
KEY_TABLE = AGENT / "resource_config" / "key_table.h"
# A row of the key tables that the loaders and --test walk: {.key = "mount/path", ...}.
ROW = re.compile(r'\{\.key = "([^"]+)",(.*?)\}(?:,|\n)', re.S)
ABSOLUTE = re.compile(r'"(/root/[^"\s]*)"')


def table_rows():
    """(key, attributes) of every row, the attributes as the row names them (".max = 999")."""
    rows = []
    for key, rest in ROW.findall(KEY_TABLE.read_text()):
        attrs = dict(re.findall(r"\.(\w+) = ([\w:]+)", rest))
        rows.append((key, attrs))
    return rows


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
    relative = {key for key, _ in table_rows() if not key.startswith("/")}
    absolute = {key for key, _ in table_rows() if key.startswith("/")}
    for src in [*AGENT.rglob("*.cpp"), KEY_TABLE]:
        absolute.update(p for p in ABSOLUTE.findall(src.read_text()) if not p.endswith(("/parameters", "/%s")))
    return relative, absolute


def test_every_key_the_agent_reads_is_documented():
    documented = {key for key, _ in doc_tables()}
    relative, absolute = source_keys()
    assert len(relative) > 40 and len(absolute) > 5  # the extraction still finds the readers
    assert sorted(relative - documented) == []
    # In the document a "%s" of the code is a name in capitals (TYPE, NAME, GROUP).
    patterns = [re.compile(re.escape(p).replace("%s", "[A-Z]+") + "$") for p in absolute]
    assert [p.pattern for p in patterns if not any(p.match(k) for k in documented)] == []


def test_documented_defaults_and_ranges_are_the_key_tables():
    """The document's Default, Required and Range cells are what the key tables say."""
    cells_of = {}
    text = DOC.read_text().split("## Keys the agent reads", 1)[1]
    for block in re.split(r"\n(?=\| Key \|)", text)[1:]:
        head = [c.strip() for c in block.splitlines()[0].strip("|").split("|")]
        for key, cells in doc_tables():
            if f"| `{key}` |" in block:
                cells_of[key] = dict(zip(head, cells))
    checked = 0
    for key, a in table_rows():
        doc = cells_of[key]
        rng = doc.get("Range (`--test`)", doc.get("Range", ""))
        if a.get("type") == "ZorValue::integer" and a.get("use") != "ZorUse::load_only":
            want = f"{a.get('min', 0)} - {a.get('max', 2147483647)}"
            assert rng.split(" (")[0] == want, (key, rng, want)
            checked += 1
        elif a.get("type") == "ZorValue::integer" and not key.startswith("/"):  # loaded, not checked
            assert rng == "not checked", key
        if a.get("required") == "false":
            assert doc.get("Default", a.get("defval", "0")).split(" ")[0] == a.get("defval", "0"), key
            assert doc.get("Required", "optional") == "optional", key
        else:
            assert doc.get("Default", "required").startswith("required"), key
            assert doc.get("Required", "yes") == "yes", key
    assert checked > 25


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


FILESYSTEM = Path("/usr/lib/ocf/resource.d/heartbeat/Filesystem")


def test_ocf_page_from_a_real_agents_meta_data(tmp_path):
    """The converter that makes ocf_zor_AGENT(7), run on resource-agents' Filesystem agent."""
    if not FILESYSTEM.exists():
        if os.environ.get("CI") == "true":
            pytest.fail("resource-agents is missing; ./run test installs it")
        pytest.skip("resource-agents is not installed")
    xml = tmp_path / "meta.xml"
    with open(xml, "w") as f:
        subprocess.run([str(FILESYSTEM), "meta-data"], env=dict(os.environ, OCF_ROOT="/usr/lib/ocf"), stdout=f,
                       check=True, timeout=30)
    page = tmp_path / "ocf_zor_Filesystem.7"
    subprocess.run([sys.executable, str(SOURCE_DIR / "man" / "ocf2man.py"), "zor", "Filesystem", str(xml),
                    str(page), "9.9"], check=True)
    res = subprocess.run(["man", "--warnings", "-l", str(page)], env=dict(os.environ, MANWIDTH="200"),
                         capture_output=True, text=True, timeout=60)
    assert (res.returncode, res.stderr) == (0, "")
    out = res.stdout.replace("\u2010", "-")
    meta = ET.parse(xml).getroot()
    assert "ocf_zor_Filesystem - " + " ".join(meta.findtext("shortdesc").split()) in out
    # Entries of a section as rendered: a name at the section's indent, its text indented further.
    def entries(section):
        body = out.split("\n" + section + "\n", 1)[1]
        found, name = {}, None
        lines = body.splitlines()
        for i, line in enumerate(lines):
            if line and not line.startswith(" "):
                break
            following = next((n for n in lines[i + 1:] if n.strip()), "")
            if re.match(r" {7}\S", line) and following.startswith(" " * 8):
                name = line.strip()
                found[name] = ""
            elif name and line.strip():
                found[name] += " " + line.strip()
        return found

    params = entries("SUPPORTED PARAMETERS")
    assert list(params) == [p.get("name") for p in meta.findall("parameters/parameter")]
    for p in meta.findall("parameters/parameter"):
        content = p.find("content")
        facts = "required" if p.get("required") == "1" else "optional"
        default = content.get("default") if content is not None else None
        shown = f'default "{default}"' if default else "no default"
        assert re.search(rf"\({facts}, [^)]*{re.escape(shown)}\)$", params[p.get("name")]), p.get("name")
    actions = entries("SUPPORTED ACTIONS")
    assert list(actions) == [a.get("name") for a in meta.findall("actions/action")]
    for a in meta.findall("actions/action"):
        assert f"Suggested minimum timeout: {a.get('timeout')}." in actions[a.get("name")], a.get("name")
    assert "pcs resource create p_Filesystem ocf:zor:Filesystem" in out
