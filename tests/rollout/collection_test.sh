#!/usr/bin/env bash
# The collection zelparser.rollout judged as its maintainers judge one:
#   lint     ansible-lint, production profile, offline
#   sanity   the tests of ansible-test sanity that need nothing from the network (the others
#            install pinned Python packages from PyPI first); and validate-modules, the test of
#            the modules' DOCUMENTATION, EXAMPLES and RETURN against their arguments, run as
#            ansible-test runs it but with Debian's voluptuous; both on a copy, since
#            ansible-test lists files with git and writes its results beside them
#   galaxy   the tarball the build made with ansible-galaxy: its licence, version and files
# Every tool gets a scratch HOME (ansible-lint and ansible-test keep caches there).
# Usage: collection_test.sh STEP WORK_DIR SOURCE_DIR BUILD_DIR VERSION
set -euo pipefail
step=$1 work=$2 source=$3 build=$4 version=$5
collection=$source/ansible/ansible_collections/zelparser/rollout
fail() { echo "FAIL: $*" >&2; exit 1; }
rm -rf "$work" && mkdir -p "$work/home"
export HOME=$work/home ANSIBLE_HOME=$work/home/.ansible NO_COLOR=1 PATH=/usr/sbin:/usr/bin:/sbin:/bin

# The tests that install their requirements from PyPI before they run.
needs_network=(ansible-doc changelog import pep8 pslint pylint runtime-metadata validate-modules yamllint)

run_lint() {
  cd "$collection"
  ANSIBLE_COLLECTIONS_PATH=$source/ansible ansible-lint --offline --profile production --nocolor ||
    fail "ansible-lint"
}

run_sanity() {
  local copy=$work/ansible_collections/zelparser/rollout test skips=()
  mkdir -p "$copy" && cp -a "$collection/." "$copy/"
  cd "$copy" && git init -q .
  for test in "${needs_network[@]}"; do skips+=(--skip-test "$test"); done
  ansible-test sanity --python "$(python3 -c 'import sys; print("%d.%d" % sys.version_info[:2])')" \
    --color no "${skips[@]}" || fail "ansible-test sanity"
  local validate=/usr/lib/python3/dist-packages/ansible_test/_util/controller/sanity/validate-modules
  # --arg: the option that also checks each module's arguments against its documentation,
  # given by its one unambiguous prefix.
  ANSIBLE_COLLECTIONS_PATH=$work PYTHONPATH=$validate python3 "$validate/validate.py" --format json \
    --arg --collection ansible_collections/zelparser/rollout --collection-version "$version" \
    plugins/modules/*.py >"$work/validate-modules.json" || true
  local modules
  modules=$(find plugins/modules -name '*.py' | wc -l)
  python3 - "$work/validate-modules.json" "$modules" tests/sanity/ignore-*.txt <<'PY' || fail "validate-modules"
import json, sys
report = json.load(open(sys.argv[1])) if open(sys.argv[1]).read().strip() else {}
ignored = set()
modules = int(sys.argv[2])
for path in sys.argv[3:]:
    for line in open(path):
        words = line.split("#")[0].split()
        if len(words) == 2 and words[1].startswith("validate-modules:"):
            ignored.add((words[0], words[1].split(":", 1)[1]))
errors = [(path, e["code"], e["msg"]) for path, r in report.items() for e in r["errors"]
          if (path, e["code"]) not in ignored]
for error in errors:
    print("validate-modules: %s: %s: %s" % error)
print("validate-modules: %d modules, %d errors" % (len(report), len(errors)))
sys.exit(1 if errors or len(report) != modules else 0)
PY
}

check_galaxy() {
  local tarball=$build/zelparser-rollout-$version.tar.gz
  [ -s "$tarball" ] || fail "the build made no $tarball"
  mkdir -p "$work/unpacked" && tar xzf "$tarball" -C "$work/unpacked"
  python3 - "$work/unpacked" "$version" <<'PY' || fail "the collection's tarball"
import json, os, sys
top, version = sys.argv[1:3]
info = json.load(open(os.path.join(top, "MANIFEST.json")))["collection_info"]
assert (info["namespace"], info["name"], info["version"]) == ("zelparser", "rollout", version), info
assert info["license"] == ["GPL-2.0-or-later"], info["license"]
files = {f["name"] for f in json.load(open(os.path.join(top, "FILES.json")))["files"]}
for name in ("plugins/modules/snapshot.py", "plugins/modules/check.py", "plugins/modules/install.py",
             "plugins/modules/bundle_archive.py", "plugins/modules/summary.py", "plugins/action/summary.py",
             "plugins/module_utils/manager.py", "playbooks/rollout.yml", "roles/rollout/tasks/main.yml"):
    assert name in files, name
assert not any(f.startswith("tests/output") for f in files), files
print(len(files), "files, licence", info["license"][0])
PY
}

case $step in
  lint) run_lint ;;
  sanity) run_sanity ;;
  galaxy) check_galaxy ;;
  *) fail "unknown step $step" ;;
esac
