#!/usr/bin/env python3
"""Writes the manual page ocf_PROVIDER_AGENT(7) of an OCF resource agent from its meta-data.

    ocf2man.py PROVIDER AGENT METADATA.xml OUTPUT VERSION

AGENT is the agent's file name, the name the cluster engine knows it by
(ocf:PROVIDER:AGENT); the name in the meta-data should be the same.

The page has the sections of the resource-agents pages (name, synopsis,
description, supported parameters and actions, an example), so that an
operator finds the zor agents where he finds the others.
"""

import argparse
import sys
import xml.etree.ElementTree as ET
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from roff import escape, line  # noqa: E402

ACTIONS = {
    "start": "Starts the resource.",
    "stop": "Stops the resource.",
    "monitor": "Performs a detailed status check.",
    "status": "Performs a status check.",
    "promote": "Promotes the resource.",
    "demote": "Demotes the resource.",
    "notify": "Used to notify the resource of cluster events.",
    "reload": "Reloads the configuration of the resource.",
    "reload-agent": "Reloads the agent's parameters.",
    "migrate_to": "Migrates the resource to another node.",
    "migrate_from": "Completes a migration from another node.",
    "recover": "Recovers the resource.",
    "validate-all": "Performs a validation of the resource configuration.",
    "meta-data": "Retrieves resource agent metadata (internal use only).",
}


def paragraphs(text):
    """Text of a longdesc: paragraphs are separated by blank lines; lines of one are joined."""
    out, cur = [], []
    for s in (text or "").splitlines():
        if s.strip():
            cur.append(s.strip())
        elif cur:
            out.append(" ".join(cur))
            cur = []
    if cur:
        out.append(" ".join(cur))
    return out


def desc(elem, tag):
    found = elem.find(tag)
    return "" if found is None or found.text is None else found.text


def render(provider, agent, meta, version):
    page = "ocf_%s_%s" % (provider, agent)
    actions = [a for a in meta.findall("actions/action")]
    names = []
    for a in actions:
        if a.get("name") not in names:
            names.append(a.get("name"))
    short = " ".join(desc(meta, "shortdesc").split()) or agent
    out = [
        ".\\\" Generated from the agent's meta-data by man/ocf2man.py.",
        '.TH "%s" "7" "" "zor %s" "OCF resource agents"' % (page.upper(), escape(version)),
        ".SH NAME",
        line("%s \\- %s" % (escape(page), escape(short))),
        ".SH SYNOPSIS",
        line("\\fB%s\\fR [%s]" % (escape(agent), " | ".join(escape(n) for n in names))),
        ".SH DESCRIPTION",
    ]
    for p in paragraphs(desc(meta, "longdesc")) or [short]:
        out += [".PP", line(escape(p))]

    params = meta.findall("parameters/parameter")
    if params:
        out.append('.SH "SUPPORTED PARAMETERS"')
    for p in params:
        content = p.find("content")
        ptype = content.get("type", "string") if content is not None else "string"
        default = content.get("default") if content is not None else None
        facts = ["required" if p.get("required") == "1" else "optional"]
        if p.get("unique") == "1":
            facts.append("unique")
        if p.find("deprecated") is not None:
            facts.append("deprecated")
        facts.append(ptype)
        facts.append('default "%s"' % default if default else "no default")
        out += [".PP", line("\\fB%s\\fR" % escape(p.get("name", ""))), ".RS 4"]
        body = paragraphs(desc(p, "longdesc")) or [" ".join(desc(p, "shortdesc").split())]
        if content is not None and ptype == "select":
            body.append("One of: " + ", ".join(o.get("value", "") for o in content.findall("option")) + ".")
        for i, b in enumerate(body):
            out += ([".sp"] if i else []) + [line(escape(b))]
        out += [".sp", line(escape("(%s)" % ", ".join(facts))), ".RE"]

    if actions:
        out += ['.SH "SUPPORTED ACTIONS"', ".PP", "This resource agent supports the following actions (operations):"]
    for a in actions:
        name = a.get("name", "")
        text = ACTIONS.get(name, "Performs the %s action." % name)
        if a.get("timeout"):
            text += " Suggested minimum timeout: %s." % a.get("timeout")
        if a.get("interval") and a.get("interval") not in ("0", "0s"):
            text += " Suggested interval: %s." % a.get("interval")
        if a.get("depth") and a.get("depth") != "0":
            text += " Depth: %s." % a.get("depth")
        if a.get("role"):
            text += " Role: %s." % a.get("role")
        out += [".PP", line("\\fB%s\\fR" % escape(name)), ".RS 4", line(escape(text)), ".RE"]

    example = ["pcs resource create p_%s ocf:%s:%s \\" % (agent, provider, agent)]
    example += ["  %s=VALUE \\" % p.get("name") for p in params if p.get("required") == "1"]
    monitor = next((a for a in actions if a.get("name") == "monitor"), None)
    if monitor is not None:
        example.append('  op monitor timeout="%s" interval="%s"' % (monitor.get("timeout", "20s"),
                                                                      monitor.get("interval", "10s")))
    else:
        example[-1] = example[-1].rstrip(" \\")
    out += ['.SH "EXAMPLE PCS"', ".PP", "An example configuration of a %s resource with" % escape(agent),
            ".BR pcs (8):", ".PP", ".RS 4", ".nf"]
    out += ["\\&" + escape(s) for s in example]
    out += [".fi", ".RE", '.SH "SEE ALSO"', ".BR zordisk (8),", ".BR zor.conf (5),", ".BR pcs (8)"]
    return page, out


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("provider")
    ap.add_argument("agent")
    ap.add_argument("metadata")
    ap.add_argument("output")
    ap.add_argument("version")
    args = ap.parse_args()
    meta = ET.parse(args.metadata).getroot()
    if meta.tag != "resource-agent":
        sys.exit("ocf2man: %s: not the meta-data of a resource agent" % args.metadata)
    if meta.get("name") != args.agent:
        print("ocf2man: warning: %s calls itself %s in its meta-data; the page is named after the file"
              % (args.agent, meta.get("name")), file=sys.stderr)
    _, out = render(args.provider, args.agent, meta, args.version)
    Path(args.output).write_text("\n".join(out) + "\n")


if __name__ == "__main__":
    main()
