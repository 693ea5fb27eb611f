#!/usr/bin/env bash
# The packages as an administrator gets them. The Debian package: built by cpack, judged by
# lintian, unpacked into a scratch directory (never onto this machine) and used from there: the
# programs on the example bundle, the manuals, the bash completion; then installed with dpkg in
# a private mount namespace, where Debian's Ansible finds the collection. The RPM: built by
# cpack, judged by rpmlint, installed with rpm in a private mount namespace and used there.
# Usage: package_test.sh STEP BUILD_DIR WORK_DIR VERSION SOURCE_DIR
#   STEP: build (cpack and unpack; the next five steps need it), lintian, run, manuals,
#   completion, deb_install; rpm_build (cpack; the next two need it), rpmlint, rpm_install
set -euo pipefail
step=$1 build=$2 work=$3 version=$4 source=$5
root=$work/root
fail() { echo "FAIL: $*" >&2; exit 1; }
# rpm keeps its database under HOME on Debian (rpm --eval %_dbpath), rpmlint its settings: a
# scratch HOME, so that neither is written into this machine's.
export HOME=$work/home

# Runs a command in a private mount namespace whose /usr, /etc, /var, /opt and /root are
# overlays with their upper directories under WORK and whose /tmp is its own (showing only the
# source, build and scratch directories when they lie under /tmp): a package
# installed there as an administrator installs it, and this machine never changes.
in_private_system() {
  local upper=$work/system
  rm -rf "$upper"
  unshare --mount --propagation private bash -c '
    set -e
    upper=$1 keep=$2 work=$3 build=$4; shift 4
    source "$keep/tests/common/fresh_tmp.sh"
    exec 9</tmp # the old /tmp, for the scratch and source directories that may lie under it
    for dir in usr etc var opt root; do
      mkdir -p "$upper/$dir/upper" "$upper/$dir/work"
      mount -t overlay zelpackage \
        -o "lowerdir=/$dir,upperdir=$upper/$dir/upper,workdir=$upper/$dir/work" "/$dir"
    done
    fresh_tmp "$keep" "$work" "$build"
    exec "$@"' in_private_system "$upper" "$source" "$work" "$build" "$@"
}

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

# The collection as Ansible finds it once the package is installed: its modules' and role's
# documentation rendered, its version listed. Run inside in_private_system.
collection_found='
  [ "$(ansible-doc zelparser.rollout.snapshot zelparser.rollout.check zelparser.rollout.install |
    grep -c "^RETURN VALUES:")" = 3 ]
  ansible-doc -t role zelparser.rollout.rollout | grep -q "ENTRY POINT: fleet_check"
  ansible-galaxy collection list zelparser.rollout 2>/dev/null |
    grep -qE "^zelparser\.rollout +$2 *$"
'

# Installed with dpkg as an administrator installs it, used, and removed without a trace.
# man-db's trigger is switched off in the private system: it rebuilds the index of every manual
# on the machine (two thirds of the step's time) and says nothing of the package, whose manuals
# the manuals step finds with man.
install_deb() {
  in_private_system bash -c '
    set -e
    rm -f /var/lib/man-db/auto-update
    dpkg -i "$1" >/dev/null
    [ "$(zelrzp-manager --version)" = "zelrzp-manager $2" ]
    '"$collection_found"'
    dpkg -r zelparser >/dev/null
    ! test -e /usr/share/ansible/collections/ansible_collections/zelparser
  ' install_deb "$work/package.deb" "$version" || fail "the .deb installed, used and removed"
  echo "installed, the collection found by ansible-doc and ansible-galaxy, removed"
}

build_rpm() {
  rm -rf "$work" && mkdir -p "$work/out" "$HOME"
  cpack -G RPM -B "$work/out" --config "$build/CPackConfig.cmake" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; fail "cpack -G RPM"; }
  local rpms=("$work"/out/*.rpm)
  [ ${#rpms[@]} = 1 ] || fail "cpack made ${#rpms[@]} RPMs"
  ln -s "${rpms[0]}" "$work/package.rpm"
  echo "$(basename "${rpms[0]}"): $(stat -c %s "${rpms[0]}") bytes"
  [ "$(rpm -qp --qf '%{NAME} %{VERSION} %{LICENSE}' "$work/package.rpm")" = \
    "zelparser $version GPL-2.0-or-later" ] || fail "the RPM's name, version or licence"
}

# No error; warnings are shown. The reasons for what is filtered are in packaging/rpmlint.toml.
run_rpmlint() {
  local out
  out=$(rpmlint -c "$source/packaging/rpmlint.toml" "$(readlink "$work/package.rpm")" 2>&1 || true)
  echo "$out"
  grep -qE ' 0 errors' <<<"$out" || fail "rpmlint reports errors"
  rpm -qp --requires "$work/package.rpm" | grep -q '^libpugixml' ||
    fail "the shared-library dependencies were not computed"
  ! rpm -qp --requires "$work/package.rpm" | grep -q libzelrzptransport ||
    fail "the private transport library is required from another package"
}

# Installed with rpm (its shared libraries come from Debian's packages, which rpm's database
# does not know: --nodeps), verified, used, and removed without a trace.
install_rpm() {
  in_private_system bash -c '
    set -e
    rpm -i --nodeps "$1"
    rpm -V --nodeps zelparser
    [ "$(zelrzp-manager --version)" = "zelrzp-manager $2" ]
    [ "$(zelparser --version)" = "zelparser $2" ]
    test -s /usr/share/licenses/zelparser/COPYING
    zelrzp-manager --distro=rhel3 --json /usr/share/doc/zelparser/examples/server-bundle \
      >/tmp/plan.json || [ $? = 1 ]
    python3 -c "import json, sys; assert json.load(open(sys.argv[1]))[\"failure\"] is None" \
      /tmp/plan.json
    '"$collection_found"'
    rpm -e zelparser
    ! test -e /usr/bin/zelrzp-manager
  ' install_rpm "$work/package.rpm" "$version" || fail "the RPM installed, used and removed"
  echo "installed, verified, used and removed"
}

case $step in
  build) build_package ;;
  lintian) run_lintian ;;
  run) run_programs ;;
  manuals) check_manuals ;;
  completion) check_completion ;;
  deb_install) install_deb ;;
  rpm_build) build_rpm ;;
  rpmlint) run_rpmlint ;;
  rpm_install) install_rpm ;;
  *) fail "unknown step $step" ;;
esac
