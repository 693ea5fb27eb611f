#!/usr/bin/env python3
"""lint --format=sarif on the example bundle and on the lint corpus (one bad bundle per tag):
each log valid against the published SARIF 2.1.0 schema, and saying what --json says.

Usage: sarif_test.py MANAGER SCHEMA BUNDLE_DIR...
"""
import json
import os
import subprocess
import sys

import jsonschema

LEVELS = {"error": "error", "warning": "warning", "info": "note"}


def run(manager, *args, cwd=None):
    done = subprocess.run([manager, "lint", *args], capture_output=True, text=True, cwd=cwd)
    if done.returncode not in (0, 1) or done.stderr:  # a sanitizer's report, too
        sys.exit(f"lint {' '.join(args)} exited {done.returncode}: {done.stderr}")
    return done.returncode, json.loads(done.stdout)


def check(manager, validator, bundle, failures):
    status, log = run(manager, "--format=sarif", bundle)
    json_status, plain = run(manager, "--json", bundle)
    problems = [f"{'/'.join(map(str, e.absolute_path))}: {e.message}"
                for e in validator.iter_errors(log)]
    run_ = log["runs"][0]
    rules = run_["tool"]["driver"]["rules"]
    base = run_["originalUriBaseIds"]["BUNDLEDIR"]["uri"]
    if base != "file://" + os.path.realpath(bundle) + "/":
        problems.append(f"base {base} is not the bundle directory")
    if status != json_status:
        problems.append(f"exit status {status}, with --json {json_status}")
    got = []
    for r in run_["results"]:
        rule = rules[r["ruleIndex"]]
        if rule["id"] != r["ruleId"]:
            problems.append(f"result {r['ruleId']} points at rule {rule['id']}")
        where = r.get("locations", [{}])[0].get("physicalLocation", {})
        uri = where.get("artifactLocation", {}).get("uri")
        if uri is not None and not os.path.exists(os.path.join(bundle, uri)):
            problems.append(f"{uri} is not a file of the bundle directory")
        line = where.get("region", {}).get("startLine", 0)
        got.append((uri, line, r["level"], r["ruleId"], r["message"]["text"]))
    want = []
    for f in plain["findings"]:
        name = os.path.relpath(f["file"], bundle) if f["file"] != bundle else None
        want.append((name, f["line"], LEVELS[f["severity"]], f["tag"], f["message"]))
    if got != want:
        problems.append(f"results {got} differ from the JSON findings {want}")
    for p in problems:
        failures.append(f"{bundle}: {p}")
    return {r[3] for r in got}


def main():
    manager, schema_path, bundles = sys.argv[1], sys.argv[2], sys.argv[3:]
    with open(schema_path) as f:
        schema = json.load(f)
    cls = jsonschema.validators.validator_for(schema)
    cls.check_schema(schema)
    validator = cls(schema, format_checker=jsonschema.FormatChecker())
    failures, tags = [], set()
    for bundle in bundles:
        tags |= check(manager, validator, bundle, failures)

    # Every tag is a rule whose help is the --explain text and whose level is the tag's.
    _, log = run(manager, "--format=sarif", bundles[0])
    listed = subprocess.run([manager, "lint", "--list-tags"], capture_output=True, text=True)
    for line, rule in zip(listed.stdout.splitlines(), log["runs"][0]["tool"]["driver"]["rules"]):
        tag, severity = line.split()
        explain = subprocess.run([manager, "lint", "--explain", tag], capture_output=True,
                                 text=True).stdout
        if (rule["id"], rule["defaultConfiguration"]["level"]) != (tag, LEVELS[severity]):
            failures.append(f"rule {rule['id']} is not tag {tag} ({severity})")
        if rule["help"]["text"] != explain.rstrip("\n"):
            failures.append(f"rule {tag}: help is not the --explain text")
    if len(bundles) > 1 and len(tags) < 20:
        failures.append(f"the corpus gave only the tags {sorted(tags)}")

    # A file linted alone: its own directory is the base, its name the location.
    one = os.path.join(bundles[0], sorted(os.listdir(bundles[0]))[0])
    _, log = run(manager, "--format=sarif", one, cwd="/")
    for r in log["runs"][0]["results"]:
        uri = r["locations"][0]["physicalLocation"]["artifactLocation"]["uri"]
        if uri != os.path.basename(one):
            failures.append(f"{one} alone: location {uri}")
    print("\n".join(failures) or f"{len(bundles)} logs valid, {len(tags)} tags seen")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
