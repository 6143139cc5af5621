# The configuration's manual page and docs/configuration.md are one text, and that text covers every
# key the agent's source reads: a key added to the code but not to the document, or lost on the way into
# zor.conf(5), fails here.

import os
import re
import subprocess
import sys
import xml.etree.ElementTree as ET
from pathlib import Path

from conftest import BUILD_DIR, SOURCE_DIR, require
from test_package import render

DOC = SOURCE_DIR / "docs" / "configuration.md"
AGENT = SOURCE_DIR / "src" / "linux" / "server" / "resource" / "disk" / "src"
KEY_TABLE = AGENT / "resource_config" / "key_table.h"
# A row of the key tables that the loaders and --test walk: {.key = "mount/path", ...}.
ROW = re.compile(r'\{\.key = "([^"]+)",(.*?)\}(?:,|\n)', re.S)
ABSOLUTE = re.compile(r'"(/root/[^"\s]*)"')


def table_rows():
    """(key, attributes) of every row, the attributes as the row names them (".max = 999")."""
    return [(key, dict(re.findall(r"\.(\w+) = ([\w:]+)", rest))) for key, rest in ROW.findall(KEY_TABLE.read_text())]


def doc_rows():
    """Every table row under the document's key section: key -> {column heading: cell}."""
    rows = {}
    for block in re.split(r"\n(?=\| Key \|)", DOC.read_text().split("## Keys the agent reads", 1)[1])[1:]:
        lines = [[c.strip() for c in line.strip().strip("|").split("|")] for line in block.splitlines()
                 if line.startswith("|")]
        rows.update((cells[0].strip("`"), dict(zip(lines[0], cells))) for cells in lines if cells[0][:1] == "`")
    return rows


def plain(text):
    """Text without Markdown or roff markup, white space folded."""
    text = re.sub(r"\\f[BIRP]|\\&|\\e|`|\*\*", "", text).replace("\\-", "-")
    return " ".join(text.split())


# zor.conf(5) carries every cell of the document, the heading of each column kept with its value.
def test_every_key_the_agent_reads_is_documented_with_its_default_and_range():
    doc, rows = doc_rows(), table_rows()
    text = (BUILD_DIR / "man" / "zor.conf.5").read_text()
    page = plain("\n".join(line for line in text.splitlines() if not line.startswith(".")))
    assert [(key, cell) for key, cells in doc.items() for cell in cells.values() if plain(cell) not in page] == []
    assert plain("/root/TYPE/log/level Type: integer; Default: required; Range: 1 - 32.") in page
    absolute = {p for src in [*AGENT.rglob("*.cpp"), KEY_TABLE] for p in ABSOLUTE.findall(src.read_text())
                if not p.endswith(("/parameters", "/%s"))}
    assert len(rows) > 40 and len(absolute) > 5  # the extraction still finds the readers
    assert [key for key, _ in rows if key not in doc] == []
    # In the document a "%s" of the code is a name in capitals (TYPE, NAME, GROUP).
    patterns = [re.compile(re.escape(p).replace("%s", "[A-Z]+") + "$") for p in absolute]
    assert [p.pattern for p in patterns if not any(p.match(k) for k in doc)] == []
    # The Default, Required and Range cells are what the key tables say.
    checked = 0
    for key, a in rows:
        cells = doc[key]
        rng = cells.get("Range (`--test`)", cells.get("Range", ""))
        if a.get("type") == "ZorValue::integer" and a.get("use") != "ZorUse::load_only":
            want = f"{a.get('min', 0)} - {a.get('max', 2147483647)}"
            assert rng.split(" (")[0] == want, (key, rng, want)
            checked += 1
        elif a.get("type") == "ZorValue::integer" and not key.startswith("/"):  # loaded, not checked
            assert rng == "not checked", key
        # (Default, Required); a table without one of the columns passes it.
        want = (a.get("defval", "0"), "optional") if a.get("required") == "false" else ("required", "yes")
        assert (re.split("[ ,]", cells.get("Default", want[0]))[0], cells.get("Required", want[1])) == want, key
    assert checked > 25


def entries(out, section):
    """A rendered section's entries: a name at the section's indent, its text indented further."""
    body = re.split(r"\n(?=\S)", out.split("\n" + section + "\n", 1)[1], maxsplit=1)[0] + "\n"
    found = re.findall(r"^ {7}(\S.*)\n(\n*(?: {8}.*\n)(?:(?: {8}.*)?\n)*)", body, re.M)
    return {name: " ".join(text.split()) for name, text in found}


FILESYSTEM = Path("/usr/lib/ocf/resource.d/heartbeat/Filesystem")


def test_ocf_page_from_a_real_agents_meta_data(tmp_path):
    """The converter that makes ocf_zor_AGENT(7), run on resource-agents' Filesystem agent."""
    require(FILESYSTEM.exists(), "needs resource-agents (./run test installs it)")
    xml, page = tmp_path / "meta.xml", tmp_path / "ocf_zor_Filesystem.7"
    env = dict(os.environ, OCF_ROOT="/usr/lib/ocf")
    xml.write_text(subprocess.run([str(FILESYSTEM), "meta-data"], env=env, capture_output=True, text=True,
                                  check=True, timeout=30).stdout)
    subprocess.run([sys.executable, str(SOURCE_DIR / "man" / "ocf2man.py"), "zor", "Filesystem", str(xml),
                    str(page), "9.9"], check=True)
    res, meta = render(page, width=200), ET.parse(xml).getroot()
    out = res.stdout.replace("\u2010", "-")
    assert (res.returncode, res.stderr, "pcs resource create p_Filesystem ocf:zor:Filesystem" in out) == (
        0, "", True)
    assert "ocf_zor_Filesystem - " + " ".join(meta.findtext("shortdesc").split()) in out
    params = entries(out, "SUPPORTED PARAMETERS")
    assert list(params) == [p.get("name") for p in meta.findall("parameters/parameter")]
    for p in meta.findall("parameters/parameter"):
        default = p.find("content").get("default") if p.find("content") is not None else None
        shown = re.escape(f'default "{default}"' if default else "no default")
        facts = "required" if p.get("required") == "1" else "optional"
        assert re.search(rf"\({facts}, [^)]*{shown}\)$", params[p.get("name")]), p.get("name")
    assert [(name, re.search(r"Suggested minimum timeout: (\S+)\.", text)[1])
            for name, text in entries(out, "SUPPORTED ACTIONS").items()] == [
        (a.get("name"), a.get("timeout")) for a in meta.findall("actions/action")]
