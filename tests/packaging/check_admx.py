#!/usr/bin/env python3
"""Checks an administrative template (ADMX with its ADML texts) for the faults that
make Group Policy editors refuse it or apply the wrong value: XML that is not
well-formed, a root outside the policy definitions namespace, a missing target
prefix, string or presentation references without their texts, and a policy
without its key, value name or REG_DWORD enabled and disabled numbers.

  check_admx.py ADMX ADML [--policies OUT.json] [--self-test]

--policies writes the policies (class, key, value name, enabled and disabled
numbers) for the tests that apply them as Group Policy would. --self-test first
breaks the template in known ways and fails unless every break is reported.
"""
import argparse
import json
import os
import re
import sys
import xml.etree.ElementTree as ET

NS = "http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions"
P = {"p": NS}


def check(admx_text, adml_text):
    """Returns (errors, policies)."""
    errors = []
    roots = []
    for label, text, expected in (("ADMX", admx_text, "policyDefinitions"),
                                  ("ADML", adml_text, "policyDefinitionResources")):
        try:
            root = ET.fromstring(text.encode("utf-8"))
        except ET.ParseError as error:
            errors.append(f"{label}: not well-formed XML: {error}")
            return errors, []
        if root.tag != f"{{{NS}}}{expected}":
            errors.append(f"{label}: root {root.tag} is not {expected} in {NS}")
        roots.append(root)
    admx, adml = roots
    target = admx.find("p:policyNamespaces/p:target", P)
    if target is None or not target.get("prefix") or not target.get("namespace"):
        errors.append("ADMX: policyNamespaces/target needs a prefix and a namespace")
    tables = {kind: [e.get("id") for e in adml.iterfind(f"p:resources/p:{kind}Table/p:{kind}", P)]
              for kind in ("string", "presentation")}
    for kind, ids in tables.items():
        for name in sorted({i for i in ids if ids.count(i) > 1}):
            errors.append(f"ADML: {kind} {name!r} defined more than once")
    for element in admx.iter():
        for attribute, value in element.attrib.items():
            for kind, name in re.findall(r"\$\((\w+)\.([^)]*)\)", value):
                if name not in tables.get(kind, []):
                    errors.append(f"ADMX {attribute}={value!r}: not in the ADML")
    policies = []
    for policy in admx.iterfind("p:policies/p:policy", P):
        entry = {k: policy.get(k) for k in ("name", "class", "key", "valueName")}
        if entry["class"] not in ("Machine", "User", "Both"):
            errors.append(f"policy {entry['name']}: class {entry['class']!r}")
        if not entry["key"] or re.match(r"(HKEY_|HKLM|HKCU)", entry["key"], re.I):
            errors.append(f"policy {entry['name']}: key {entry['key']!r} (needs one, without hive)")
        if not entry["valueName"]:
            errors.append(f"policy {entry['name']}: no valueName")
        for state in ("enabled", "disabled"):
            number = policy.find(f"p:{state}Value/p:decimal", P)
            value = number.get("value", "") if number is not None else ""
            if not re.fullmatch(r"\d{1,10}", value) or int(value) > 0xFFFFFFFF:
                errors.append(f"policy {entry['name']}: {state}Value is not a REG_DWORD decimal")
                continue
            entry[state] = int(value)
        policies.append(entry)
    if not policies:
        errors.append("ADMX: no policies")
    return errors, policies


# Each row breaks the template in one way that the check must report.
BREAKS = [
    ("not well-formed", "admx", "</policies>", "</policy>"),
    ("ADMX in another namespace", "admx", f'xmlns="{NS}"', 'xmlns="http://example.com/p"'),
    ("ADML in another namespace", "adml", f'xmlns="{NS}"', 'xmlns="http://example.com/p"'),
    ("ADML root misnamed", "adml", "policyDefinitionResources", "policyDefinitionResource"),
    ("target without its prefix", "admx", 'prefix="korvanta" ', ""),
    ("string reference without its string", "adml", 'id="AutoUpdate_Help"', 'id="AutoUpdateHelp"'),
    ("string defined twice", "adml", '<string id="KorvantaCloud">',
     '<string id="Korvanta">Korvanta</string><string id="KorvantaCloud">'),
    ("presentation reference without its presentation", "admx", 'valueName="AUTOUPDATE"',
     'valueName="AUTOUPDATE" presentation="$(presentation.AutoUpdate)"'),
    ("key with a hive", "admx", 'key="SOFTWARE', 'key="HKLM\\SOFTWARE'),
    ("no value name", "admx", ' valueName="AUTOUPDATE"', ""),
    ("class the schema does not have", "admx", 'class="Machine"', 'class="Computer"'),
    ("disabled value not a decimal", "admx", '<decimal value="0"/>', '<string>0</string>'),
]


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("admx")
    parser.add_argument("adml")
    parser.add_argument("--policies")
    parser.add_argument("--self-test", action="store_true")
    args = parser.parse_args(argv)
    texts = {k: open(p, encoding="utf-8").read() for k, p in (("admx", args.admx), ("adml", args.adml))}
    failures = []
    for name, which, old, new in BREAKS if args.self_test else []:
        broken = dict(texts)
        broken[which] = texts[which].replace(old, new)
        if old not in texts[which] or not check(broken["admx"], broken["adml"])[0]:
            failures.append(f"self-test {name!r}: the break was not reported")
    errors, policies = check(texts["admx"], texts["adml"])
    for message in failures + errors:
        print(message, file=sys.stderr)
    if failures or errors:
        return 1
    if args.policies:
        os.makedirs(os.path.dirname(os.path.abspath(args.policies)), exist_ok=True)
        with open(args.policies, "w", encoding="utf-8") as f:
            json.dump(policies, f, indent=2)
    print(f"{args.admx}: valid, {len(policies)} policies")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
