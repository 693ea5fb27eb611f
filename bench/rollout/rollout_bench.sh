#!/usr/bin/env bash
# The playbook zelparser.rollout.rollout over a fleet of namespace hosts (tests/rollout/fleet.sh)
# with forks 10, timed: the snapshot-and-check phase (a check-only run), the whole rollout (the
# canary, then batches of 10 %), and a second run that changes nothing. Per host, the installer's
# own time (its journal's start and end) against the time Ansible takes for the install task and
# for the host's other tasks (rollout_timing.py, a callback, logs every task's span).
# Usage: bench/rollout/rollout_bench.sh [HOSTS] [BUILD_DIR]   (default 50, build) as root;
# everything happens in private mount namespaces, as in the tests.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
hosts=${1:-50} build=$(cd "${2:-$repo/build}" && pwd)
work=$build/rollout-bench
source "$repo/tests/rollout/fleet.sh"
if [ "${ZEL_FLEET_INSIDE:-}" != 1 ]; then
  rm -rf "$work"
  ZEL_FLEET_INSIDE=1 fleet_enter "$work" bash "$0" "$hosts" "$build"
fi

fleet_init "$work" "$build/bin"
python3 "$repo/tests/rollout/make_bundle.py" "$work/bundle" "$work/bundle-build"
names=()
SECONDS=0
for i in $(seq 1 "$hosts"); do
  name=$(printf 'host%02d' "$i")
  if [ $((i % 2)) = 1 ]; then release="Red Hat Linux release 7.3 (Valhalla)"
  else release="Red Hat Enterprise Linux AS release 3 (Taroon)"; fi
  fleet_host "$name" "$release" yes
  names+=("$name")
done
echo "$hosts namespace hosts made in ${SECONDS}s"
fleet_inventory "$work/inventory" "${names[@]}"
printf 'ZELAGENTPORT=9090\nZELADMINPASSWD=Bench-pw-1\n' >"$work/answers.txt"
mkdir -p "$work/controller" && cd "$work/controller"
export ANSIBLE_CALLBACK_PLUGINS=$here ANSIBLE_CALLBACKS_ENABLED=rollout_timing

run() { # name, extra arguments: one timed ansible-playbook run
  local name=$1 status=0
  shift
  export ZEL_TIMING_LOG=$work/$name.jsonl
  SECONDS=0
  fleet_playbook "$work/inventory" -f 10 -e "zelparser_bundle=$work/bundle" \
    -e "zelparser_answers_file=$work/answers.txt" -e "zelparser_manager=$build/bin/zelrzp-manager" \
    -e "zelparser_controller_manager=$build/bin/zelrzp-manager" "$@" >"$work/$name.out" 2>&1 || status=$?
  echo "$name: ${SECONDS}s wall, exit status $status"
  [ $status = 0 ] || { tail -40 "$work/$name.out"; exit 1; }
}

run check-only -e zelparser_check_only=true
run rollout
run second
for name in "${names[@]}"; do
  fleet_exec "$name" "$build/bin/zelrzp-manager" history --json >"$work/history-$name.json"
done
python3 - "$work" <<'PY'
import glob, json, os, statistics, sys
from datetime import datetime
work = sys.argv[1]

def load(name):
    return [json.loads(line) for line in open(os.path.join(work, name + ".jsonl"))]

def plays(records):
    spans = {}
    for r in records:
        if r["event"] == "play":
            spans[r["name"]] = spans.get(r["name"], 0) + r["end"] - r["start"]
    return spans

def when(text):
    return datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()

def stats(values):
    return "mean %.2f s, median %.2f s, max %.2f s" % (
        statistics.mean(values), statistics.median(values), max(values))

for run in ("check-only", "rollout", "second"):
    records = load(run)
    print("%s:" % run)
    for name, span in plays(records).items():
        print("  play %-40s %7.1f s" % (name, span))

records = load("rollout")
installer, task, other = {}, {}, {}
for path in glob.glob(os.path.join(work, "history-*.json")):
    host = os.path.basename(path)[len("history-"):-len(".json")]
    first = json.load(open(path))["installs"][0]
    installer[host] = when(first["ended"]) - when(first["started"])
for r in records:
    if r["event"] != "task" or r["host"] not in installer:
        continue
    seconds = r["end"] - r["start"]
    if r["task"].endswith("Install the bundle's components"):
        task[r["host"]] = task.get(r["host"], 0) + seconds
    else:
        other[r["host"]] = other.get(r["host"], 0) + seconds
hosts = sorted(installer)
print("per host of the rollout (%d hosts):" % len(hosts))
print("  installer (its journal's start to end):    " + stats([installer[h] for h in hosts]))
print("  install task (module, transfer, installer): " + stats([task[h] for h in hosts]))
print("  engine in the install task (task - installer): " + stats([task[h] - installer[h] for h in hosts]))
print("  the host's other tasks (copy, snapshot, fetch, summary): " + stats([other[h] for h in hosts]))
PY
