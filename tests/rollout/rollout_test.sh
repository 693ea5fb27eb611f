#!/usr/bin/env bash
# The playbook zelparser.rollout.rollout run for real by ansible-playbook on a fleet of four
# namespace hosts (fleet.sh) with forks, the real zelrzp-manager and sub-service on each:
#   h1  Red Hat Linux 7.3                      the canary
#   h2  Red Hat Linux 7.3, no libzelagent.so.1 its agent is refused
#   h3  Red Hat Enterprise Linux AS 3          a second distribution, a second plan
#   h4  Red Hat Linux 7.3                      killed during its install (install scenario)
# Scenarios (each on a fleet of its own, in a private mount namespace; this machine never
# changes):
#   check    -e zelparser_check_only=true on h2 alone (zelparser_hosts): its check and
#            report, nothing installed; then --check --diff -v on the whole fleet with h3 as
#            canary, batches of two and the answers as a dictionary: the fleet's check, the dry
#            run installs nothing, the diff masks the password, h2's failure spends the failure
#            budget and h4 is never reached
#   install  the rollout with --diff: the report before any install, the canary first, h2
#            failing without running its agent's command, h4 killed in the middle of its
#            driver; then a second run on h2, h3 and h4 with h3 as canary: h4 resumes from its
#            journal, h3 changes nothing, h2 fails again without running anything twice
# Usage: rollout_test.sh SCENARIO WORK_DIR BIN_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/fleet.sh"
scenario=$1 work=$(realpath -m "$2") bin=$(realpath -m "$3")
if [ "${ZEL_FLEET_INSIDE:-}" != 1 ]; then
  rm -rf "$work"
  ZEL_FLEET_INSIDE=1 fleet_enter "$work" bash "$0" "$@"
fi

fail() { echo "FAIL: $*" >&2; exit 1; }
password='Pw-7f3a9c1e'
fleet_init "$work" "$bin"
python3 "$here/make_bundle.py" "$work/bundle" "$work/bundle-build"
fleet_host h1 "Red Hat Linux release 7.3 (Valhalla)" yes
fleet_host h2 "Red Hat Linux release 7.3 (Valhalla)" no
fleet_host h3 "Red Hat Enterprise Linux AS release 3 (Taroon)" yes
fleet_host h4 "Red Hat Linux release 7.3 (Valhalla)" yes
fleet_inventory "$work/inventory" h1 h2 h3 h4
mkdir -p "$work/controller"
cd "$work/controller" # the report goes to ./zelparser-rollout, the role's default
report=$work/controller/zelparser-rollout
printf 'ZELAGENTPORT=9090\nZELADMINPASSWD=%s\n' "$password" >"$work/answers.txt"
printf '{"zelparser_answers": {"ZELAGENTPORT": "9090", "ZELADMINPASSWD": "%s"}}\n' "$password" \
  >"$work/answers.json"
common=(-f 10 -e "zelparser_bundle=$work/bundle" -e "zelparser_manager=$bin/zelrzp-manager"
  -e "zelparser_controller_manager=$bin/zelrzp-manager")

# ansible-playbook with the output kept in WORK/NAME.out; its exit status in $status.
run() {
  local name=$1
  shift
  status=0
  SECONDS=0
  fleet_playbook "$work/inventory" "${common[@]}" "$@" >"$work/$name.out" 2>&1 || status=$?
  echo "$name: ansible-playbook exited $status after ${SECONDS}s"
}

# What each host has installed: its rpm database, the packages' files, its journal.
installed_on() {
  fleet_exec "$1" sh -c 'rpm -qa 2>/dev/null | grep ^zeltest- | sort | tr "\n" " "
    ls /opt/zeltest 2>/dev/null | grep -v hold | tr "\n" " "; ls /var/lib/zelparser 2>/dev/null | grep -v bundles | tr "\n" " "'
}

nothing_installed() {
  local host
  for host in h1 h2 h3 h4; do
    [ -z "$(installed_on "$host" | tr -d ' ')" ] || fail "$1: $host has $(installed_on "$host")"
    fleet_exec "$host" test ! -e /etc/zeltest-agent.conf || fail "$1: $host has a configuration"
  done
}

# The password's value is nowhere the controller keeps or shows, but in the answers given.
password_hidden() {
  ! grep -rlF -- "$password" "$report" "$work"/*.out || fail "$1: the password shows"
}

# The --diff of an output shows the configuration's two lines: the port as PORT_LINE says,
# the password masked.
diff_shows() {
  grep -q "$2" "$work/$1.out" && grep -q '^+ZELADMINPASSWD=\*\*\*\*\*\*\*\*$' "$work/$1.out" ||
    fail "$1: the diff does not show the configuration lines"
}

history_of() { fleet_exec "$1" "$bin/zelrzp-manager" history --json >"$work/history-$1.json"; }

# The hosts' recap lines of an output as JSON: {"h1": {"ok": 7, "changed": 0, ...}, ...}.
recap() {
  python3 - "$work/$1.out" <<'PY'
import json, re, sys
recap = {}
for line in open(sys.argv[1]):
    m = re.match(r"^(\S+)\s+: ((?:\w+=\d+\s*)+)$", line)
    if m:
        recap[m.group(1)] = {k: int(v) for k, v in re.findall(r"(\w+)=(\d+)", m.group(2))}
print(json.dumps(recap))
PY
}

# The fleet's check of the hosts in WANT (host names, space-separated), each with its verdicts:
# h2's agent refused for its missing library, everything else installs; PLANS plans (Red Hat
# Linux 7.3, and RHEL AS 3 with h3).
fleet_checked() {
  python3 - "$report" "$1" "$2" <<'PY'
import json, sys, os
report, want, plans = sys.argv[1], sys.argv[2].split(), int(sys.argv[3])
assert os.path.getsize(os.path.join(report, "report.html")) > 1000
check = json.load(open(os.path.join(report, "check.json")))
machines = {m["name"]: m for m in check["machines"]}
assert sorted(machines) == want, sorted(machines)
assert check["plans"] == plans, check["plans"]
for name, m in machines.items():
    verdicts = {c["file"].split("-")[1]: c["verdict"] for c in m["components"]}
    agent = "refused" if name == "h2" else "installs"
    assert verdicts == {"base": "installs", "agent": agent, "driver": "installs"}, (name, verdicts)
agent = [c for c in machines["h2"]["components"] if "agent" in c["file"]][0]
assert "libzelagent.so.1" in agent["reason"], agent["reason"]
PY
}

check_scenario() {
  # One host is enough to see the check-only run stop before any install; the dry run below
  # checks the whole fleet.
  run check-only -e zelparser_check_only=true -e zelparser_hosts=h2 \
    -e "zelparser_answers_file=$work/answers.txt"
  [ "$status" = 0 ] || { cat "$work/check-only.out"; fail "check-only exited $status"; }
  nothing_installed check-only
  password_hidden check-only
  fleet_checked h2 1 || fail "check-only: the check"
  python3 - "$report" <<'PY' || fail "check-only: the summary"
import json, sys, os
summary = json.load(open(os.path.join(sys.argv[1], "summary.json")))
assert summary["checkOnly"] and [h["install"] for h in summary["hosts"]] == ["not-run"], summary
assert [(h["host"], h["check"]) for h in summary["hosts"]] == [("h2", 1)], summary
PY

  run dry-run --check --diff -v -e zelparser_canary=h3 -e zelparser_batch=2 \
    -e "@$work/answers.json"
  [ "$status" = 2 ] || { cat "$work/dry-run.out"; fail "the dry run exited $status, not 2 (h2 fails)"; }
  nothing_installed dry-run
  password_hidden dry-run
  fleet_checked "h1 h2 h3 h4" 2 || fail "the dry run: the fleet's check"
  # Ansible hides every value of a no_log dictionary in its output, the port's too.
  diff_shows dry-run '^+ZELAGENTPORT=\*\*\*\*\*\*\*\*$'
  python3 - "$report" "$work/dry-run.out" <<'PY' || fail "the dry run's batches"
import json, os, re, sys
summary = json.load(open(os.path.join(sys.argv[1], "summary.json")))
install = {h["host"]: h["install"] for h in summary["hosts"]}
assert install == {"h1": "would-install", "h2": "failed", "h3": "would-install",
                   "h4": "not-run"}, install
out = open(sys.argv[2]).read()
# the canary's dry run comes first, alone; h4 never gets as far as the install task
task = out.split("TASK [zelparser.rollout.rollout : Install the bundle's components]")
hosts = [sorted(re.findall(r"^(?:ok|changed|fatal): \[(h\d)\]", re.split(r"\n(?:TASK|PLAY) \[", t)[0], re.M))
         for t in task[1:]]
assert hosts == [["h3"], ["h1", "h2"]], hosts
PY
}

install_scenario() {
  fleet_exec h4 sh -c 'mkdir -p /opt/zeltest && touch /opt/zeltest/hold'
  fleet_playbook "$work/inventory" "${common[@]}" --diff -e zelparser_batch=3 \
    -e "zelparser_answers_file=$work/answers.txt" >"$work/first.out" 2>&1 &
  local playbook=$! waited=0
  until fleet_exec h4 test -e /opt/zeltest/held; do
    sleep 0.5
    waited=$((waited + 1))
    [ $waited -lt 240 ] || { kill "$playbook"; cat "$work/first.out"; fail "h4 never held"; }
  done
  fleet_kill h4
  fleet_exec h4 rm -f /opt/zeltest/hold
  status=0
  wait "$playbook" || status=$?
  echo "first: ansible-playbook exited $status, h4 killed in its driver's command"
  [ "$status" = 2 ] || { cat "$work/first.out"; fail "the first run exited $status, not 2"; }
  password_hidden first
  diff_shows first '^+ZELAGENTPORT=9090$'
  for host in h1 h2 h3 h4; do history_of $host; done
  for host in h1 h2 h3 h4; do echo "$host: $(installed_on $host)"; done
  python3 - "$work" "$report" "$password" <<'PY' || { cat "$work/first.out"; fail "the first run"; }
import json, os, sys
from datetime import datetime
work, report, password = sys.argv[1:4]
def history(host):
    return json.load(open(os.path.join(work, "history-%s.json" % host)))["installs"]
def when(text):
    return datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()
installs = {h: history(h) for h in ("h1", "h2", "h3", "h4")}
assert all(len(i) == 1 for i in installs.values()), installs
states = {h: {c["file"].split("-")[1]: c["state"] for c in i[0]["components"]}
          for h, i in installs.items()}
# the report was written before any install started, and the canary ended before the others
first_start = min(when(i[0]["started"]) for i in installs.values())
assert os.stat(os.path.join(report, "report.html")).st_mtime <= first_start
canary_end = when(installs["h1"][0]["ended"])
assert all(when(installs[h][0]["started"]) >= canary_end for h in ("h2", "h3", "h4")), installs
assert states["h1"] == states["h3"] == {"base": "installed", "agent": "installed", "driver": "installed"}, states
# h2: its agent refused, its command never run; the others installed
agent = [c for c in installs["h2"][0]["components"] if "agent" in c["file"]][0]
assert states["h2"] == {"base": "installed", "agent": "refused", "driver": "installed"}, states
assert agent["exitStatus"] is None and "libzelagent.so.1" in agent["reason"], agent
# h4: killed in its driver's command, its install never ended
assert installs["h4"][0]["ended"] is None, installs["h4"]
assert states["h4"]["base"] == states["h4"]["agent"] == "installed", states
summary = {h["host"]: h for h in json.load(open(os.path.join(report, "summary.json")))["hosts"]}
assert {h: s["install"] for h, s in summary.items()} == {
    "h1": "installed", "h2": "failed", "h3": "installed", "h4": "failed"}, summary
assert summary["h1"]["rebootRequired"] and not summary["h1"]["rebooted"], summary["h1"]
assert "libzelagent.so.1" in summary["h2"]["firstFailure"], summary["h2"]
PY
  for host in h1 h3; do
    [ "$(installed_on $host | cut -d' ' -f1-3)" = "zeltest-agent-1.0-1.noarch zeltest-base-1.0-1.noarch zeltest-driver-1.0-1.noarch" ] ||
      fail "$host's rpm database: $(installed_on $host)"
    [ "$(fleet_exec $host grep -c -e '^ZELAGENTPORT=9090$' -e "^ZELADMINPASSWD=$password\$" /etc/zeltest-agent.conf)" = 2 ] ||
      fail "$host's configuration file"
  done
  fleet_exec h2 test ! -e /opt/zeltest/agent || fail "h2 ran its agent's command"
  fleet_exec h2 rpm -q zeltest-agent >/dev/null 2>&1 && fail "h2 has the agent in its rpm database"

  # h1 would change nothing as h3 does: the second run leaves it out.
  run second -e zelparser_hosts=h2:h3:h4 -e zelparser_canary=h3 -e zelparser_batch=3 \
    -e "zelparser_answers_file=$work/answers.txt"
  [ "$status" = 2 ] || { cat "$work/second.out"; fail "the second run exited $status, not 2 (h2 fails)"; }
  for host in h4; do history_of $host; done
  recap second >"$work/recap-second.json"
  python3 - "$work" "$report" <<'PY' || { cat "$work/second.out"; fail "the second run"; }
import json, os, sys
work, report = sys.argv[1:3]
recap = json.load(open(os.path.join(work, "recap-second.json")))
assert sorted(recap) == ["h2", "h3", "h4", "localhost"], recap
for host in ("h2", "h3"):
    assert recap[host]["changed"] == 0, (host, recap[host])
assert recap["h2"]["failed"] == 1 and recap["h3"]["failed"] == 0, recap
assert recap["h4"]["changed"] >= 1 and recap["h4"]["failed"] == 0, recap["h4"]
# h4 resumed: what it had installed was not run again, its driver ran to its end
resumed = json.load(open(os.path.join(work, "history-h4.json")))["installs"][-1]
states = {c["file"].split("-")[1]: c["state"] for c in resumed["components"]}
assert states == {"base": "already-installed", "agent": "already-installed", "driver": "installed"}, states
summary = {h["host"]: h["install"] for h in json.load(open(os.path.join(report, "summary.json")))["hosts"]}
assert summary == {"h2": "failed", "h3": "unchanged", "h4": "installed"}, summary
PY
  fleet_exec h4 rpm -q zeltest-driver >/dev/null || fail "h4's driver is not in its rpm database"
}

case $scenario in
  check) check_scenario ;;
  install) install_scenario ;;
  *) fail "unknown scenario $scenario" ;;
esac
echo "rollout $scenario: passed"
