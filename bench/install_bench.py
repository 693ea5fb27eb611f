#!/usr/bin/env python3
"""zelrzp-manager install over a 200-component bundle whose every command is `true`, on a test
host (tests/install/host.sh), as root. Prints, from the journal's own timestamps:

- the whole install (process start to exit), the plan (begin to plan event) and the components;
- the installer's own time per component beyond its command (the components' time less the
  commands' time, over 200), with the journal on a tmpfs (fsync costs nothing there) and on the
  disk of the build directory (the difference is the journal's fsyncs);
- a resume after the manager was killed with SIGKILL in the middle (after component 100): the
  time from the new process's start to its first command.

Usage: bench/install_bench.py BUILD_DIR [runs]   (BUILD_DIR holds bin/zelrzp-manager)
"""
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile

COMPONENTS = 200
HERE = os.path.dirname(os.path.abspath(__file__))
HOST = os.path.join(HERE, "..", "tests", "install", "host.sh")
sys.path.insert(0, os.path.join(HERE, "..", "tests", "install"))
import install_test as t  # noqa: E402  the test's bundle writers


def write_bundle(directory):
    bundle = os.path.join(directory, "bundle")
    os.makedirs(bundle)
    files = []
    for i in range(COMPONENTS):
        file = f"comp{i:03d}-1.0-1.noarch.bin"
        files.append(file)
        with open(os.path.join(bundle, file), "w") as f:
            f.write("component\n")
        with open(os.path.join(bundle, file.rsplit(".", 1)[0] + ".xml"), "w") as f:
            f.write(t.component_xml("true"))
    with open(os.path.join(bundle, "bp000001.xml"), "w") as f:
        f.write(t.bundle_xml(files))
    return bundle


SCRIPT = r"""
set -u
cp -r {bundle} /opt/bundle && chmod -R go-w /opt/bundle
state={state}
rm -rf "$state"; mkdir -p "$state"
start=$(date +%s.%N)
{manager} install --state-dir="$state" /opt/bundle > /dev/null 2>&1
echo "start=$start end=$(date +%s.%N)"
cp "$state/journal" {out}/journal-full
rm -rf "$state"; mkdir -p "$state"
{manager} install --state-dir="$state" /opt/bundle > /dev/null 2>&1 &
pid=$!
for i in $(seq 2000); do
  [ "$(grep -c '"event":"component"' "$state/journal" 2>/dev/null)" -ge {half} ] && break
  sleep 0.01
done
kill -9 $pid; wait $pid 2>/dev/null
resume=$(date +%s.%N)
{manager} install --state-dir="$state" /opt/bundle > /dev/null 2>&1
echo "resume=$resume"
cp "$state/journal" {out}/journal-resume
"""


def seconds(iso):
    from datetime import datetime, timezone
    return datetime.strptime(iso, "%Y-%m-%dT%H:%M:%S.%fZ").replace(
        tzinfo=timezone.utc).timestamp()


def events(path):
    with open(path) as f:
        return [json.loads(line) for line in f if line.strip()]


def measure(manager, bundle, state, out):
    script = SCRIPT.format(bundle=bundle, state=state, manager=manager, out=out,
                           half=COMPONENTS // 2)
    r = subprocess.run([HOST, t.RELEASE, "bash", "-c", script], capture_output=True,
                       text=True, check=True)
    marks = dict(kv.split("=") for kv in r.stdout.split())
    full = events(os.path.join(out, "journal-full"))
    at = {e["event"]: seconds(e["time"]) for e in full if e["event"] in ("begin", "plan", "end")}
    commands = sum(e["seconds"] for e in full if e.get("step") == "command" and "seconds" in e)
    phase = at["end"] - at["plan"]
    last = events(os.path.join(out, "journal-resume"))
    run_id = last[-1]["install"]
    first = next(seconds(e["time"]) for e in last if e["install"] == run_id and
                 e.get("step") == "command" and e.get("phase") == "start")
    return {"whole": float(marks["end"]) - float(marks["start"]),
            "plan": at["plan"] - at["begin"],
            "components": phase,
            "own_ms": (phase - commands) / COMPONENTS * 1000,
            "resume": first - float(marks["resume"])}


def main():
    build = os.path.abspath(sys.argv[1])
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    manager = os.path.join(build, "bin", "zelrzp-manager")
    scratch = tempfile.mkdtemp(prefix="zelbench.", dir=build)
    try:
        bundle = write_bundle(scratch)
        for where, state in (("tmpfs", "/var/lib/zelbench"),
                             ("disk", os.path.join(scratch, "state"))):
            rows = [measure(manager, bundle, state, scratch) for _ in range(runs)]
            print(f"journal on {where} (median of {runs}):")
            for key in ("whole", "plan", "components", "own_ms", "resume"):
                value = statistics.median(r[key] for r in rows)
                unit = "ms" if key == "own_ms" else "s"
                print(f"  {key:11s} {value:8.3f} {unit}")
    finally:
        shutil.rmtree(scratch, True)


if __name__ == "__main__":
    main()
