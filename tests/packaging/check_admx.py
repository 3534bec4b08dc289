#!/usr/bin/env python3
"""Checks an administrative template (ADMX with its ADML texts) against the rules
of the ADMX schema: well-formed XML in the policy definitions namespace, the
elements and attributes of the schema in its order, a declared target prefix,
every category, supported-on, string and presentation reference resolved.
Elements this checker does not know are errors, so that a template does not pass
through parts nobody checked.

  check_admx.py ADMX ADML [--policies OUT.json] [--self-test]

--policies writes the registry policies (class, key, value name, enabled and
disabled numbers) for the tests that apply them as Group Policy would.
--self-test first breaks the template in known ways and fails unless every
break is reported.
"""
import argparse
import json
import os
import re
import sys
import xml.etree.ElementTree as ET

NS = "http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions"
MANY = 1 << 30

# Content models: element (or "parent/element" where the schema reuses a name)
# -> its children in sequence as (name, min, max); a tuple of names is a choice.
MODELS = {
    "policyDefinitions": [("policyNamespaces", 1, 1), ("supersededAdm", 0, MANY),
                          ("annotation", 0, MANY), ("resources", 1, 1),
                          ("supportedOn", 0, 1), ("categories", 0, 1), ("policies", 0, 1)],
    "policyNamespaces": [("target", 1, 1), ("using", 0, MANY)],
    "target": [], "using": [], "policyDefinitions/resources": [],
    "policyDefinitions/supportedOn": [("definitions", 0, 1)],
    "definitions": [("definition", 1, MANY)],
    "definition": [],
    "categories": [("category", 1, MANY)],
    "category": [("annotation", 0, MANY), ("parentCategory", 0, 1), ("seeAlso", 0, MANY),
                 ("keywords", 0, 1)],
    "parentCategory": [], "policy/supportedOn": [], "decimal": [],
    "policies": [("policy", 1, MANY)],
    "policy": [("annotation", 0, MANY), ("parentCategory", 0, 1), ("seeAlso", 0, MANY),
               ("keywords", 0, 1), ("supportedOn", 1, 1), ("enabledValue", 0, 1),
               ("disabledValue", 0, 1)],
    "enabledValue": [(("decimal", "delete"), 1, 1)],
    "disabledValue": [(("decimal", "delete"), 1, 1)],
    "delete": [],
    "policyDefinitionResources": [("displayName", 1, 1), ("description", 1, 1),
                                  ("annotation", 0, MANY), ("resources", 1, 1)],
    "policyDefinitionResources/resources": [("stringTable", 0, 1), ("presentationTable", 0, 1)],
    "displayName": [], "description": [], "annotation": [],
    "stringTable": [("string", 1, MANY)], "string": [],
    "presentationTable": [("presentation", 1, MANY)],
    "presentation": [("text", 0, MANY)], "text": [],
}
VERSION = r"\d+\.\d+"
NAME = r"[A-Za-z_][A-Za-z0-9_.-]*"
REFERENCE = rf"(?:{NAME}:)?{NAME}"
STRING_REF = rf"\$\(string\.({NAME})\)"
PRESENTATION_REF = rf"\$\(presentation\.({NAME})\)"
KEY = r"(?!HKEY_|HKLM|HKCU|HKU|HKCR)[^\\]+(?:\\[^\\]+)*"
# Attributes: element -> {attribute: (pattern, required)}.
ATTRIBUTES = {
    "policyDefinitions": {"revision": (VERSION, True), "schemaVersion": (VERSION, True)},
    "policyDefinitionResources": {"revision": (VERSION, True), "schemaVersion": (VERSION, True)},
    "target": {"prefix": (NAME, True), "namespace": (r"\S+", True)},
    "using": {"prefix": (NAME, True), "namespace": (r"\S+", True)},
    "policyDefinitions/resources": {"minRequiredRevision": (VERSION, True),
                                    "fallbackCulture": (r"[a-z]{2}-[A-Z]{2}", False)},
    "definition": {"name": (NAME, True), "displayName": (STRING_REF, True)},
    "category": {"name": (NAME, True), "displayName": (STRING_REF, True),
                 "explainText": (STRING_REF, False)},
    "parentCategory": {"ref": (REFERENCE, True)},
    "policy/supportedOn": {"ref": (REFERENCE, True)},
    "policy": {"name": (NAME, True), "class": ("Machine|User|Both", True),
               "displayName": (STRING_REF, True), "explainText": (STRING_REF, False),
               "presentation": (PRESENTATION_REF, False), "key": (KEY, True),
               "valueName": (r".+", False)},
    "decimal": {"value": (r"\d{1,10}", True)},
    "string": {"id": (NAME, True)},
    "presentation": {"id": (NAME, True)},
}


def local(element):
    return element.tag.split("}", 1)[1] if element.tag.startswith("{") else element.tag


def check_tree(root, errors):
    """Namespace, content models and attributes of every element below root."""
    def visit(element, parent):
        name = local(element)
        where = f"<{name}> in <{parent}>" if parent else f"<{name}>"
        if not element.tag.startswith("{" + NS + "}"):
            errors.append(f"{where}: not in the namespace {NS}")
        key = f"{parent}/{name}" if f"{parent}/{name}" in MODELS else name
        if key not in MODELS:
            errors.append(f"{where}: not an element this checker knows")
            return
        for attribute, value in element.attrib.items():
            if attribute.startswith("{"):
                continue  # xmlns and xsi attributes
            spec = ATTRIBUTES.get(key, {}).get(attribute)
            if spec is None:
                errors.append(f"{where}: unknown attribute {attribute}")
            elif not re.fullmatch(spec[0], value):
                errors.append(f"{where}: {attribute}={value!r} is not a valid value")
        for attribute, (_, required) in ATTRIBUTES.get(key, {}).items():
            if required and attribute not in element.attrib:
                errors.append(f"{where}: attribute {attribute} missing")
        children = [local(child) for child in element]
        position = 0
        for names, low, high in MODELS[key]:
            names = names if isinstance(names, tuple) else (names,)
            count = 0
            while position < len(children) and children[position] in names and count < high:
                position, count = position + 1, count + 1
            if count < low:
                errors.append(f"{where}: expected <{'|'.join(names)}> at child {position + 1}")
        if position < len(children):
            errors.append(f"{where}: <{children[position]}> not allowed at child {position + 1}")
        for child in element:
            visit(child, name)
    visit(root, "")


def parse(text, label, errors):
    try:
        return ET.fromstring(text.encode("utf-8"))
    except ET.ParseError as error:
        errors.append(f"{label}: not well-formed XML: {error}")
        return None


def check(admx_text, adml_text):
    """Returns (errors, policies)."""
    errors = []
    admx, adml = parse(admx_text, "ADMX", errors), parse(adml_text, "ADML", errors)
    if admx is None or adml is None:
        return errors, []
    for root, expected in ((admx, "policyDefinitions"), (adml, "policyDefinitionResources")):
        if root.tag != "{" + NS + "}" + expected:
            errors.append(f"root element {root.tag} is not {expected} in {NS}")
    check_tree(admx, errors)
    check_tree(adml, errors)
    prefixed = lambda path: "/".join("p:" + step for step in path.split("/"))
    find_all = lambda root, path: root.findall(prefixed(path), {"p": NS})
    find = lambda root, path: root.find(prefixed(path), {"p": NS})

    def unique(elements, attribute, what):
        names = [e.get(attribute) for e in elements]
        for name in sorted({n for n in names if names.count(n) > 1}):
            errors.append(f"{what} {name!r} defined more than once")
        return set(names)

    strings = unique(find_all(adml, "resources/stringTable/string"), "id", "string")
    presentations = unique(find_all(adml, "resources/presentationTable/presentation"), "id",
                           "presentation")
    categories = unique(find_all(admx, "categories/category"), "name", "category")
    supported = unique(find_all(admx, "supportedOn/definitions/definition"), "name",
                       "supported-on definition")
    unique(find_all(admx, "policies/policy"), "name", "policy")
    target = find(admx, "policyNamespaces/target")
    own = target.get("prefix") if target is not None else None
    using = unique(find_all(admx, "policyNamespaces/using"), "prefix", "using prefix")
    if own in using:
        errors.append(f"prefix {own!r} is both the target's and a using prefix")

    revision = lambda v: tuple(int(x) for x in v.split(".")) if v and re.fullmatch(VERSION, v) else ()
    resources = find(admx, "resources")
    if resources is not None and revision(resources.get("minRequiredRevision")) > revision(
            adml.get("revision")):
        errors.append("the ADML is older than the ADMX's minRequiredRevision")

    def resolve(reference, local_names, what):
        prefix, _, name = reference.rpartition(":")
        if prefix and prefix != own:
            if prefix not in using:
                errors.append(f"{what} {reference!r}: prefix {prefix!r} not declared")
        elif name not in local_names:
            errors.append(f"{what} {reference!r} not defined")

    for element in admx.iter():
        for attribute, value in element.attrib.items():
            for match in re.finditer(r"\$\((\w+)\.([^)]*)\)", value):
                table = {"string": strings, "presentation": presentations}.get(match[1])
                if table is None or match[2] not in table:
                    errors.append(f"<{local(element)}> {attribute}: {match[0]} not in the ADML")
        if local(element) == "parentCategory":
            resolve(element.get("ref", ""), categories, "category")
        elif local(element) == "supportedOn" and element.get("ref") is not None:
            resolve(element.get("ref"), supported, "supported-on")

    policies = []
    for policy in find_all(admx, "policies/policy"):
        entry = {k: policy.get(k) for k in ("name", "class", "key", "valueName")}
        for state in ("enabled", "disabled"):
            number = find(policy, f"{state}Value/decimal")
            entry[state] = int(number.get("value")) if number is not None else None
        policies.append(entry)
    return errors, policies


# Each row breaks the template in one way that the check must report.
BREAKS = [
    ("not well-formed", "admx", "</policies>", "</policy>"),
    ("another namespace", "admx", f'xmlns="{NS}"', 'xmlns="http://example.com/policy"'),
    ("ADML in another namespace", "adml", f'xmlns="{NS}"', 'xmlns="http://example.com/policy"'),
    ("string reference without its string", "adml", 'id="AutoUpdate_Help"', 'id="AutoUpdateHelp"'),
    ("string defined twice", "adml", 'id="Korvanta"', 'id="KorvantaCloud"'),
    ("presentation reference without its presentation", "admx", 'valueName="AUTOUPDATE"',
     'valueName="AUTOUPDATE" presentation="$(presentation.AutoUpdate)"'),
    ("category through an undeclared prefix", "admx", '<parentCategory ref="KorvantaCloud"/>',
     '<parentCategory ref="windows:WindowsComponents"/>'),
    ("category that is not defined", "admx", '<parentCategory ref="KorvantaCloud"/>',
     '<parentCategory ref="KorvantaClod"/>'),
    ("supported-on that is not defined", "admx", 'ref="SUPPORTED_KorvantaCloudUS_24_7"',
     'ref="SUPPORTED_Korvanta"'),
    ("children out of the schema's order", "admx",
     '<parentCategory ref="KorvantaCloud"/>\n      <supportedOn ref="SUPPORTED_KorvantaCloudUS_24_7"/>',
     '<supportedOn ref="SUPPORTED_KorvantaCloudUS_24_7"/>\n      <parentCategory ref="KorvantaCloud"/>'),
    ("policy without supportedOn", "admx", '<supportedOn ref="SUPPORTED_KorvantaCloudUS_24_7"/>', ""),
    ("key with a hive", "admx", 'key="SOFTWARE', 'key="HKLM\\SOFTWARE'),
    ("class the schema does not have", "admx", 'class="Machine"', 'class="Computer"'),
    ("target without its prefix", "admx", 'prefix="korvanta" ', ""),
    ("ADML older than required", "admx", 'minRequiredRevision="1.0"', 'minRequiredRevision="2.0"'),
    ("element the checker does not know", "admx", "<enabledValue>", "<enabledValue><string>1</string>"),
]


def self_test(admx_text, adml_text):
    failures = []
    for name, which, old, new in BREAKS:
        texts = {"admx": admx_text, "adml": adml_text}
        if old not in texts[which]:
            failures.append(f"self-test {name!r}: the template no longer contains {old!r}")
            continue
        texts[which] = texts[which].replace(old, new, 1)
        if not check(texts["admx"], texts["adml"])[0]:
            failures.append(f"self-test {name!r}: the broken template passed")
    return failures


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("admx")
    parser.add_argument("adml")
    parser.add_argument("--policies")
    parser.add_argument("--self-test", action="store_true")
    args = parser.parse_args(argv)
    admx_text, adml_text = (open(p, encoding="utf-8").read() for p in (args.admx, args.adml))
    failures = self_test(admx_text, adml_text) if args.self_test else []
    errors, policies = check(admx_text, adml_text)
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
