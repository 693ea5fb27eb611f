#!/usr/bin/env bash
# The Debian package as an administrator gets it: built by cpack, judged by lintian, unpacked
# into a scratch directory (never onto this machine) and used from there: the programs on the
# example bundle, the manuals, the bash completion.
# Usage: package_test.sh STEP BUILD_DIR WORK_DIR VERSION
#   STEP: build (cpack and unpack; the other steps need it), lintian, run, manuals, completion
set -euo pipefail
step=$1 build=$2 work=$3 version=$4
root=$work/root
fail() { echo "FAIL: $*" >&2; exit 1; }

build_package() {
  rm -rf "$work" && mkdir -p "$work/out"
  cpack -G DEB -B "$work/out" --config "$build/CPackConfig.cmake" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; fail "cpack"; }
  local debs=("$work"/out/*.deb)
  [ ${#debs[@]} = 1 ] || fail "cpack made ${#debs[@]} packages"
  ln -s "${debs[0]}" "$work/package.deb"
  dpkg-deb -x "$work/package.deb" "$root"
  echo "$(basename "${debs[0]}"): $(stat -c %s "${debs[0]}") bytes"
  dpkg-deb -c "$work/package.deb" | awk '{print $6}'
}

# No error and no warning; informational tags are shown but allowed.
run_lintian() {
  local out
  out=$(lintian --no-cfg "$work/package.deb" 2>&1 | grep -v '^running with root' || true)
  echo "${out:-lintian: nothing to report}"
  ! grep -qE '^[EW]: ' <<<"$out" || fail "lintian reports errors or warnings"
  dpkg-deb -f "$work/package.deb" Depends | grep -q 'libpugixml' ||
    fail "the shared-library dependencies were not computed"
}

# From another directory, as an administrator would after installing it.
run_programs() {
  local elsewhere=$work/elsewhere example=$root/usr/share/doc/zelparser/examples/server-bundle
  mkdir -p "$elsewhere" && cd "$elsewhere"
  [ "$("$root/usr/bin/zelrzp-manager" --version)" = "zelrzp-manager $version" ] || fail "manager --version"
  [ "$("$root/usr/bin/zelparser" --version)" = "zelparser $version" ] || fail "zelparser --version"
  local status=0
  "$root/usr/bin/zelrzp-manager" --distro=rh73 --json "$example" >plan.json || status=$?
  [ $status = 1 ] || fail "the example's plan exited $status, not 1 (its findings)"
  python3 - plan.json <<'PY' || fail "the example's plan"
import json, sys
plan = json.load(open(sys.argv[1]))
assert plan["failure"] is None, plan["failure"]
assert plan["bundle"]["file"].endswith("bp000101.xml"), plan["bundle"]
assert len(plan["components"]) >= 2, plan["components"]
print(len(plan["components"]), "install records from", plan["bundle"]["file"])
PY
  status=0
  "$root/usr/bin/zelrzp-manager" lint "$example" >lint.txt || status=$?
  [ $status = 1 ] && grep -q 'package-file-missing' lint.txt || fail "lint of the example"
  # The packaged example machines: the legacy one refuses three components, as the docs say.
  local snapshots=$root/usr/share/doc/zelparser/examples/snapshots
  status=0
  "$root/usr/bin/zelrzp-manager" check --json --snapshot="$snapshots/rh73-legacy" "$example" \
    >check.json || status=$?
  [ $status = 1 ] || fail "the check of the packaged example machine exited $status, not 1"
  python3 - check.json <<'PY' || fail "the check of the packaged example machine"
import json, sys
verdicts = [c["verdict"] for c in json.load(open(sys.argv[1]))["machines"][0]["components"]]
assert verdicts.count("refused") == 3, verdicts
PY
}

rendered() { # a manual as plain text, on lines long enough not to break an option
  zcat "$root/usr/share/man/$1" | groff -man -Tascii -rHY=0 -rLL=250n 2>/dev/null | col -bx
}

# Rendered with every warning on; every option of the usage texts in the manual.
check_manuals() {
  local page
  for page in man1/zelrzp-manager.1.gz man8/zelparser.8.gz; do
    # man finds it by the program's name, as `man zelrzp-manager` will once installed
    [ "$(MANPATH=$root/usr/share/man man -w "$(basename "$page" | cut -d. -f1)")" = \
      "$root/usr/share/man/$page" ] || fail "man does not find $page"
    local warnings
    warnings=$(zcat "$root/usr/share/man/$page" | groff -man -ww -z 2>&1)
    [ -z "$warnings" ] || fail "$page: $warnings"
  done
  local usage option missing=() text
  text=$(rendered man1/zelrzp-manager.1.gz)
  usage=$("$root/usr/bin/zelrzp-manager" --help; "$root/usr/bin/zelrzp-manager" lint --help
    "$root/usr/bin/zelrzp-manager" report --help)
  for option in $(grep -oE -- '(^|[ ,[])--?[A-Za-z][A-Za-z-]*' <<<"$usage" | tr -d ' ,[' | sort -u); do
    grep -qE -- "(^|[^A-Za-z-])$option([^A-Za-z-]|$)" <<<"$text" || missing+=("$option")
  done
  [ ${#missing[@]} = 0 ] || fail "options missing from zelrzp-manager(1): ${missing[*]}"
  text=$(rendered man8/zelparser.8.gz)
  for option in -MG --SILENT --DEBUG --FORCE --NUI -V -Y --VIEW --INPUTFILE -C --version; do
    grep -qE -- "(^|[^A-Za-z-])$option([^A-Za-z-]|$)" <<<"$text" || missing+=("$option")
  done
  [ ${#missing[@]} = 0 ] || fail "options missing from zelparser(8): ${missing[*]}"
}

# bash-completion loads the installed file by the command's name; completions asked for.
check_completion() {
  XDG_DATA_DIRS=$root/usr/share PATH=$root/usr/bin:$PATH bash --norc -c '
    source /usr/share/bash-completion/bash_completion
    __load_completion zelrzp-manager || { echo "not loaded"; exit 1; }
    complete_line() { # a command line: the completions at its end, split into words as bash does
      COMP_LINE=$1; COMP_POINT=${#COMP_LINE}; COMPREPLY=()
      read -ra COMP_WORDS <<<"${COMP_LINE//=/ = }"
      [[ $COMP_LINE == *[\ =] ]] && COMP_WORDS+=("")
      COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
      _zelrzp_manager zelrzp-manager "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
      printf "%s\n" "${COMPREPLY[@]}" | sort | tr "\n" " "; echo
    }
    cd "$0"
    echo "commands: $(complete_line "zelrzp-manager ")"
    echo "distros: $(complete_line "zelrzp-manager --distro=")"
    echo "distros s: $(complete_line "zelrzp-manager --distro=s")"
    echo "explain: $(complete_line "zelrzp-manager lint --explain dialect-")"
    echo "format: $(complete_line "zelrzp-manager lint --format=")"
    echo "options: $(complete_line "zelrzp-manager --al")"
    echo "lint options: $(complete_line "zelrzp-manager lint --s")"
    echo "check options: $(complete_line "zelrzp-manager check --s")"
    echo "bundle: $(complete_line "zelrzp-manager --distro=rh73 examples/se")"
  ' "$root/usr/share/doc/zelparser" >"$work/completion.txt"
  cat "$work/completion.txt"
  local want
  while IFS= read -r want; do
    grep -qxF -- "$want" "$work/completion.txt" || fail "completion: want \"$want\""
  done <<'WANT'
commands: answers check examples history install lint matrix report snapshot 
distros: rh73 rhas21 rhel3 sles7 sles8 sles8-ul ul10 ul10-sp3 
distros s: sles7 sles8 sles8-ul 
explain: dialect-attribute dialect-cdata dialect-element dialect-text 
format: gnu json sarif 
options: --all-distros 
lint options: --strict 
check options: --snapshot= --strict 
bundle: examples/server-bundle 
WANT
}

case $step in
  build) build_package ;;
  lintian) run_lintian ;;
  run) run_programs ;;
  manuals) check_manuals ;;
  completion) check_completion ;;
  *) fail "unknown step $step" ;;
esac
