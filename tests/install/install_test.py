#!/usr/bin/env python3
"""zelrzp-manager install and history, run as an administrator runs them, on test hosts.

Each test host is a private mount namespace (tests/install/host.sh): its own /etc with a Red Hat
Linux 7.3 release file, /var (with the RPM database), /opt, /tmp and /dev. The bundles hold
real RPM packages, built here with rpmbuild and installed by the real rpm; each package's %post
appends its name to /var/lib/zeltest/order and to a counter file of its own, so a test can say
how often, and in which order, each one ran.

Usage: install_test.py MANAGER HOST_SCRIPT [unittest options]
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import textwrap
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "common"))
from test_bundles import build_rpm, bundle_xml  # noqa: E402

MANAGER = HOST = None
RELEASE = "Red Hat Linux release 7.3 (Valhalla)"
PASSWORD = "Sesame-9317-secret"
PACKAGES = ["alpha", "beta", "gamma"]
RPMS = None  # directory holding zelt-NAME-1.0-1.noarch.rpm, built when a test first needs it
SCRATCH = None

RECIPE = """Name: zelt-{name}
Version: 1.0
Release: 1
Summary: test package {name}
License: GPL-2.0-or-later
BuildArch: noarch
AutoReqProv: no
%description
A package of the installer's tests.
%post
mkdir -p /var/lib/zeltest
echo {name} >> /var/lib/zeltest/order
echo x >> /var/lib/zeltest/count-{name}
%files
"""

# The command every component runs: its package installed, then, when the test asked for it by
# a flag file, the manager killed with SIGKILL before it can journal the command's end.
STEP = """#!/bin/sh
rpm -U --nodeps "$1" || exit 1
flag=/var/lib/zeltest/kill-after-$1
if [ -e "$flag" ]; then rm -f "$flag"; kill -9 "$(cat /var/lib/zeltest/manager.pid)"; fi
if [ -e /var/lib/zeltest/hold-$1 ]; then
  echo $$ > /var/lib/zeltest/holding
  for i in $(seq 400); do [ -e /var/lib/zeltest/hold-$1 ] || break; sleep 0.05; done
fi
echo "installed $1 (the password is not here)"
"""


def build_rpms(directory):
    """The test packages, zelt-NAME-1.0-1.noarch.rpm, in directory/rpms."""
    out = os.path.join(directory, "rpms")
    os.makedirs(out)
    for name in PACKAGES:
        build_rpm(RECIPE.format(name=name), "zelt-" + name, directory, out)
    return out


def variable(phase, name, file, required="yes", default=None, out_type=1, minimum=0):
    default_line = f'<default_value value="{default}"/>' if default is not None else ""
    return f"""
          <{phase}_data_and>
            <requirements required="{required}" minimumlength="{minimum}" maximumlength="64"/>
            <prompt>
              <prompt_xlate lang="en">
                <![CDATA[Value of {name}:]]>
              </prompt_xlate>
            </prompt>
            <outputname type="{out_type}" name="{name}"/>
            {default_line}
            <output_filename value="{file}"/>
          </{phase}_data_and>"""


def component_xml(command, prerequisites="", pre="", post="", reboot="no"):
    """A component XML file written one element a line, as the sub-service's tokenizer reads."""
    def section(tag, body):
        return f"<{tag}>\n{body}\n        </{tag}>" if body else ""
    return f"""<?xml version="1.0"?>
<zel_package>
  <version value="1.0"/>
  <name>
    <name_xlate lang="en">Test component</name_xlate>
  </name>
  <description>
    <description_xlate lang="en">
      <![CDATA[A component of the tests.]]>
    </description_xlate>
  </description>
  <installation>
    <install>
      <reboot_required value="{reboot}"/>
      <command>{command}</command>
    </install>
  </installation>
  <prerequisites>
    <supported_devices>
    </supported_devices>
  </prerequisites>
  <platform_specific>
    <LINUX>
      <Red_Hat_Linux_7.3>
        <has_prerequisites value="{'yes' if prerequisites else 'no'}"/>
        <has_postrequisites value="no"/>
        <requires_preconfiguration value="{'yes' if pre else 'no'}"/>
        <requires_postconfiguration value="{'yes' if post else 'no'}"/>
        {section('prerequisites', prerequisites)}
        {section('preconfiguration', pre)}
        {section('postconfiguration', post)}
      </Red_Hat_Linux_7.3>
    </LINUX>
  </platform_specific>
</zel_package>
"""


def rpm_name(name):
    return f"zelt-{name}-1.0-1.noarch.rpm"


class Host:
    """A bundle written on this machine, and test hosts it is copied to."""

    def __init__(self, test, components):
        # Not under /tmp: a test host has a /tmp of its own.
        self.dir = tempfile.mkdtemp(prefix="zelinstall.", dir=os.getcwd())
        test.addCleanup(shutil.rmtree, self.dir, True)
        bundle = os.path.join(self.dir, "bundle")
        os.makedirs(bundle)
        files = []
        for file, xml in components:
            files.append(file)
            with open(os.path.join(bundle, file.rsplit(".", 1)[0] + ".xml"), "w") as f:
                f.write(xml)
            source = os.path.join(rpms(), file)
            if os.path.exists(source):
                shutil.copy(source, bundle)
            else:
                with open(os.path.join(bundle, file), "w") as f:
                    f.write("a component that is no package\n")
        with open(os.path.join(bundle, "bp000001.xml"), "w") as f:
            f.write(bundle_xml("Installer test bundle", ["Red Hat Linux 7.3"], files))
        with open(os.path.join(bundle, "step.sh"), "w") as f:
            f.write(STEP)
        with open(os.path.join(self.dir, "answers"), "w") as f:
            f.write(f"HTTPPORT=8080\nADMINPASSWD={PASSWORD}\n")

    def run(self, script):
        """Runs a bash script on a fresh test host; the bundle is at /opt/bundle."""
        prologue = f"""
            set -u
            M={MANAGER}
            cp -r {self.dir}/bundle /opt/bundle && chmod -R go-w /opt/bundle
            install -m 600 {self.dir}/answers /opt/answers
            mkdir -p /var/lib/zeltest /etc/zeltest
            count() {{ cat /var/lib/zeltest/count-$1 2>/dev/null | wc -l; }}
            secrets() {{ grep -rl -- '{PASSWORD}' /var/lib/zelparser /var/log/zelparser "$@" 2>/dev/null || true; }}
        """
        return subprocess.run([HOST, RELEASE, "bash", "-c", textwrap.dedent(prologue) +
                               textwrap.dedent(script)],
                              capture_output=True, text=True, timeout=180)


def states(result):
    return {c["file"]: c["state"] for c in result["components"]}


def standard_components(beta_prerequisite=""):
    return [
        (rpm_name("alpha"), component_xml(
            f"sh ./step.sh {rpm_name('alpha')}",
            pre=variable("preconfiguration", "HTTPPORT", "/etc/zeltest/agent.conf") +
            variable("preconfiguration", "ADMINPASSWD", "/etc/zeltest/secret.conf",
                     out_type=2, minimum=8))),
        (rpm_name("beta"), component_xml(f"sh ./step.sh {rpm_name('beta')}",
                                          prerequisites=beta_prerequisite)),
        (rpm_name("gamma"), component_xml(
            f"sh ./step.sh {rpm_name('gamma')}", reboot="yes",
            post=variable("postconfiguration", "COMMUNITY", "/etc/zeltest/post.conf",
                          required="no", default="public"))),
    ]


class WholeBundle(unittest.TestCase):
    def test_in_order_with_a_refusal_then_nothing_twice(self):
        missing = '<prerequisite_data SubType="1" value="libzelmissing.so.9"/>'
        host = Host(self, standard_components(missing))
        r = host.run("""
            printf 'KEEP=1\\nHTTPPORT=80\\n# end\\n' > /etc/zeltest/agent.conf
            chmod 640 /etc/zeltest/agent.conf
            $M install --json --answers=/opt/answers /opt/bundle > /tmp/first 2>/tmp/err1
            echo "first=$?"
            $M install --json --answers=/opt/answers /opt/bundle > /tmp/second 2>/tmp/err2
            echo "second=$?"
            $M history --json > /tmp/history
            echo "order=$(cat /var/lib/zeltest/order | tr '\\n' ' ')"
            for p in alpha beta gamma; do echo "count-$p=$(count $p)"; done
            echo "agent=$(tr '\\n' '|' < /etc/zeltest/agent.conf)"
            echo "agentmode=$(stat -c %a /etc/zeltest/agent.conf)"
            echo "secretmode=$(stat -c %a /etc/zeltest/secret.conf)"
            echo "secretline=$(grep -c '^ADMINPASSWD=' /etc/zeltest/secret.conf)"
            echo "post=$(cat /etc/zeltest/post.conf)"
            echo "leaks=$(secrets /tmp/first /tmp/second /tmp/err1 /tmp/err2 /tmp/history)"
            echo "=== first"; cat /tmp/first; echo "=== second"; cat /tmp/second
            echo "=== history"; cat /tmp/history; echo "=== end"
        """)
        out = r.stdout
        self.assertEqual(r.returncode, 0, r.stderr + out)
        facts = dict(line.split("=", 1) for line in out.split("=== first")[0].splitlines()
                     if "=" in line)
        first = json.loads(out.split("=== first\n")[1].split("=== second")[0])
        second = json.loads(out.split("=== second\n")[1].split("=== history")[0])
        history = json.loads(out.split("=== history\n")[1].split("=== end")[0])
        # The first run: record order, the refused component's command never ran.
        self.assertEqual(facts["first"], "1")
        self.assertEqual(states(first), {rpm_name("alpha"): "installed",
                                         rpm_name("beta"): "refused",
                                         rpm_name("gamma"): "installed"})
        self.assertIn("libzelmissing.so.9", first["components"][1]["reason"])
        self.assertEqual(facts["order"], "alpha gamma ")
        self.assertTrue(first["rebootRequired"])
        self.assertTrue(first["log"].startswith("/var/log/zelparser/"))
        # Configuration: a line replaced in a file that keeps its mode, a password's new file
        # made 0600, a post-configuration default written after the command.
        self.assertEqual(facts["agent"], "KEEP=1|HTTPPORT=8080|# end|")
        self.assertEqual(facts["agentmode"], "640")
        self.assertEqual(facts["secretmode"], "600")
        self.assertEqual(facts["secretline"], "1")
        self.assertEqual(facts["post"], "COMMUNITY=public")
        changes = first["components"][0]["configurationChanges"]
        self.assertIn({"file": "/etc/zeltest/agent.conf", "name": "HTTPPORT", "password": False,
                       "before": "HTTPPORT=80", "after": "HTTPPORT=8080"}, changes)
        self.assertIn("ADMINPASSWD=********", [c["after"] for c in changes])
        # The second run runs nothing again.
        self.assertEqual(facts["second"], "1")  # beta is still refused
        self.assertEqual([facts[f"count-{p}"] for p in PACKAGES], ["1", "0", "1"])
        self.assertEqual(states(second)[rpm_name("alpha")], "already-installed")
        self.assertEqual(states(second)[rpm_name("gamma")], "already-installed")
        self.assertFalse(second["rebootRequired"])
        # History: both installs, each component's outcome; no password anywhere.
        self.assertEqual(len(history["installs"]), 2)
        self.assertEqual([c["state"] for c in history["installs"][0]["components"]],
                         ["installed", "refused", "installed"])
        self.assertEqual(history["installs"][1]["exitStatus"], 1)
        self.assertEqual(facts["leaks"], "")

    def test_dry_run_and_missing_answer(self):
        host = Host(self, standard_components())
        r = host.run("""
            $M install --dry-run --answers=/opt/answers /opt/bundle > /tmp/dry; echo "dry=$?"
            echo "written=$(find /etc/zeltest /var/lib/zelparser /var/log/zelparser -mindepth 1 2>/dev/null)"
            echo "ran=$(cat /var/lib/zeltest/order 2>/dev/null)"
            $M install --json /opt/bundle > /tmp/noanswers 2>/dev/null; echo "missing=$?"
            echo "leaks=$(secrets /tmp/dry)"
            echo "=== dry"; cat /tmp/dry; echo "=== json"; cat /tmp/noanswers
        """)
        facts = dict(line.split("=", 1) for line in r.stdout.split("=== dry")[0].splitlines()
                     if "=" in line)
        dry = r.stdout.split("=== dry\n")[1].split("=== json")[0]
        self.assertEqual(facts["dry"], "0", r.stderr + r.stdout)
        self.assertEqual(facts["written"].strip(), "", "a dry run wrote something")
        self.assertEqual(facts["ran"], "")
        self.assertEqual(facts["leaks"], "")
        # What would be done, in order: alpha's lines, then beta's, then gamma's.
        lines = dry.splitlines()
        at = [next(i for i, l in enumerate(lines) if l.startswith(rpm_name(p))) for p in PACKAGES]
        self.assertEqual(at, sorted(at))
        self.assertIn("    would set in /etc/zeltest/secret.conf: ADMINPASSWD=********", lines)
        self.assertIn(f"    would run: sh ./step.sh {rpm_name('alpha')}", lines)
        self.assertIn("reboot required after the install: " + rpm_name("gamma"), lines)
        # Without answers and without a terminal, a required variable refuses its component.
        result = json.loads(r.stdout.split("=== json\n")[1])
        self.assertEqual(facts["missing"], "1")
        self.assertEqual(states(result)[rpm_name("alpha")], "refused")
        self.assertIn("HTTPPORT: required", result["components"][0]["reason"])
        self.assertEqual(states(result)[rpm_name("beta")], "installed")


# Runs the manager on a terminal (a pseudo-terminal), answering each prompt as it comes, and
# prints what the terminal showed.
TERMINAL = r"""
import os, pty, select, sys
pid, fd = pty.fork()
if pid == 0:
    os.execv(sys.argv[1], [sys.argv[1], "install", "/opt/bundle"])
answers, shown, sent = [b"8080\n", sys.argv[2].encode() + b"\n"], b"", 0
while select.select([fd], [], [], 60)[0]:  # a manager that hangs fails the test, not CI
    try:
        data = os.read(fd, 4096)
    except OSError:
        break
    if not data:
        break
    shown += data
    if shown.count(b"  > ") > sent and sent < len(answers):
        os.write(fd, answers[sent])
        sent += 1
os.waitpid(pid, 0)
sys.stdout.write(shown.decode(errors="replace"))
"""


class Terminal(unittest.TestCase):
    def test_missing_answers_asked_and_a_password_not_echoed(self):
        host = Host(self, standard_components())
        with open(os.path.join(host.dir, "terminal.py"), "w") as f:
            f.write(TERMINAL)
        r = host.run(f"""
            python3 {host.dir}/terminal.py $M '{PASSWORD}' > /tmp/screen
            echo "agent=$(cat /etc/zeltest/agent.conf)"
            echo "secret=$(grep -c '^ADMINPASSWD={PASSWORD}$' /etc/zeltest/secret.conf)"
            echo "leaks=$(secrets /tmp/screen)"
            cat /tmp/screen
        """)
        facts = dict(line.split("=", 1) for line in r.stdout.splitlines()
                     if line.startswith(("agent=", "secret=", "leaks=")))
        self.assertEqual(facts["agent"], "HTTPPORT=8080", r.stdout + r.stderr)
        self.assertEqual(facts["secret"], "1")
        self.assertEqual(facts["leaks"], "")
        self.assertIn("Value of HTTPPORT: (length 0 to 64)", r.stdout)
        self.assertRegex(r.stdout, rpm_name("alpha") + r" +installed\n")


class Crashes(unittest.TestCase):
    def test_killed_during_each_component_in_turn(self):
        host = Host(self, standard_components())
        r = host.run("""
            run() { $M install --answers=/opt/answers /opt/bundle > /tmp/out 2>&1 & echo $! > /var/lib/zeltest/manager.pid; wait $!; echo "rc=$?"; }
            for p in %s; do
              touch /var/lib/zeltest/kill-after-$p
              run
            done
            run
            for p in alpha beta gamma; do echo "count-$p=$(count $p)"; done
            echo "agent=$(tr '\\n' '|' < /etc/zeltest/agent.conf)"
            echo "tmp=$(ls -a /etc/zeltest | grep -c zel)"
            echo "found=$(cat /var/log/zelparser/*.log | grep -c 'is in the RPM database')"
            echo "leaks=$(secrets /tmp/out)"
            cat /tmp/out
        """ % " ".join(rpm_name(p) for p in PACKAGES))
        facts = dict(line.split("=", 1) for line in r.stdout.splitlines() if "=" in line)
        rcs = [line for line in r.stdout.splitlines() if line.startswith("rc=")]
        self.assertEqual(rcs, ["rc=137"] * 3 + ["rc=0"], r.stdout + r.stderr)
        self.assertEqual([facts[f"count-{p}"] for p in PACKAGES], ["1", "1", "1"])
        self.assertEqual(facts["agent"], "HTTPPORT=8080|")
        self.assertEqual(facts["tmp"], "0", "a temporary configuration file was left")
        self.assertEqual(facts["found"], "3")
        self.assertEqual(facts["leaks"], "")

    def test_interrupted_command_of_no_package_runs_again_only_when_asked(self):
        script = "sh ./plain.sh"
        host = Host(self, [("plain.bin", component_xml(script))])
        with open(os.path.join(host.dir, "bundle", "plain.sh"), "w") as f:
            f.write("echo x >> /var/lib/zeltest/count-plain\n"
                    "[ -e /var/lib/zeltest/kill ] && rm /var/lib/zeltest/kill && "
                    "kill -9 $(cat /var/lib/zeltest/manager.pid)\nexit 0\n")
        r = host.run("""
            touch /var/lib/zeltest/kill
            $M install /opt/bundle > /dev/null 2>&1 & echo $! > /var/lib/zeltest/manager.pid; wait $!
            $M install --json /opt/bundle > /tmp/again 2>/dev/null; echo "again=$?"
            $M install --json --retry-interrupted /opt/bundle > /tmp/retry 2>/dev/null; echo "retry=$?"
            $M install /opt/bundle > /dev/null 2>&1; echo "unchanged=$?"
            echo "count=$(count plain)"
            echo "a new build" >> /opt/bundle/plain.bin
            $M install /opt/bundle > /dev/null 2>&1; echo "changed=$?"
            echo "count-changed=$(count plain)"
            echo "=== again"; cat /tmp/again; echo "=== retry"; cat /tmp/retry
        """)
        facts = dict(line.split("=", 1) for line in r.stdout.split("=== again")[0].splitlines()
                     if "=" in line)
        again = json.loads(r.stdout.split("=== again\n")[1].split("=== retry")[0])
        retry = json.loads(r.stdout.split("=== retry\n")[1])
        self.assertEqual(facts["again"], "1", r.stdout + r.stderr)
        self.assertEqual(states(again), {"plain.bin": "interrupted"})
        self.assertIn("--retry-interrupted", again["components"][0]["reason"])
        self.assertEqual(facts["retry"], "0")
        self.assertEqual(states(retry), {"plain.bin": "installed"})
        self.assertEqual(facts["count"], "2")
        # Installed: not run again, until its file changes.
        self.assertEqual(facts["unchanged"], "0")
        self.assertEqual(facts["changed"], "0")
        self.assertEqual(facts["count-changed"], "3")


class RefusedStarts(unittest.TestCase):
    def test_untrusted_files_not_root_and_a_second_install(self):
        host = Host(self, standard_components())
        r = host.run(f"""
            chmod o+w /opt/bundle/bp000001.xml
            $M install --answers=/opt/answers /opt/bundle > /dev/null 2>/tmp/e1; echo "writable=$?"
            echo "writable-said=$(cat /tmp/e1)"
            chmod o-w /opt/bundle/bp000001.xml
            chmod 644 /opt/answers
            $M install --answers=/opt/answers /opt/bundle > /dev/null 2>/tmp/e2; echo "readable=$?"
            echo "readable-said=$(cat /tmp/e2)"
            chmod 600 /opt/answers
            setpriv --reuid=65534 --regid=65534 --clear-groups $M install /opt/bundle > /dev/null 2>/tmp/e3; echo "notroot=$?"
            echo "notroot-said=$(cat /tmp/e3)"
            touch /var/lib/zeltest/hold-{rpm_name('alpha')}
            $M install --answers=/opt/answers /opt/bundle > /tmp/held 2>&1 &
            held=$!
            for i in $(seq 400); do [ -e /var/lib/zeltest/holding ] && break; sleep 0.05; done
            $M install --answers=/opt/answers /opt/bundle > /dev/null 2>/tmp/e4; echo "second=$?"
            echo "second-said=$(cat /tmp/e4)"
            kill -TERM $held
            sleep 0.3
            rm /var/lib/zeltest/hold-{rpm_name('alpha')}
            wait $held; echo "stopped=$?"
            for p in alpha beta gamma; do echo "count-$p=$(count $p)"; done
            echo "stopped-out=$(grep -c 'not started: the install was stopped' /tmp/held)"
            $M install --answers=/opt/answers /opt/bundle > /dev/null 2>&1; echo "resumed=$?"
            for p in alpha beta gamma; do echo "after-$p=$(count $p)"; done
            echo "leaks=$(secrets /tmp/e1 /tmp/e2 /tmp/e3 /tmp/e4 /tmp/held)"
        """)
        facts = dict(line.split("=", 1) for line in r.stdout.splitlines() if "=" in line)
        self.assertEqual(facts["writable"], "4", r.stdout + r.stderr)
        self.assertIn("/opt/bundle/bp000001.xml can be written by its group", facts["writable-said"])
        self.assertEqual(facts["readable"], "4")
        self.assertIn("/opt/answers holds a password", facts["readable-said"])
        self.assertEqual(facts["notroot"], "4")
        self.assertIn("needs root", facts["notroot-said"])
        self.assertEqual(facts["second"], "4")
        self.assertIn("another install (pid", facts["second-said"])
        # SIGTERM let the running command finish and stopped before the next component.
        self.assertEqual(facts["stopped"], "1")
        self.assertEqual([facts[f"count-{p}"] for p in PACKAGES], ["1", "0", "0"])
        self.assertEqual(facts["stopped-out"], "2")
        self.assertEqual(facts["resumed"], "0")
        self.assertEqual([facts[f"after-{p}"] for p in PACKAGES], ["1", "1", "1"])
        self.assertEqual(facts["leaks"], "")


class Hosts(unittest.TestCase):
    def test_a_directory_under_tmp_outside_the_tree_stays_visible(self):
        # A build directory under /tmp but outside the source tree: its programs must stay
        # visible on a host, whose /tmp is its own (they once were not, and every install
        # test of such a build failed).
        outside = tempfile.mkdtemp(prefix="zelkeep.", dir="/tmp")
        self.addCleanup(shutil.rmtree, outside, True)
        with open(os.path.join(outside, "probe.sh"), "w") as f:
            f.write("echo seen\n")
        env = dict(os.environ, ZEL_HOST_KEEP=outside)
        seen = subprocess.run([HOST, RELEASE, "sh", os.path.join(outside, "probe.sh")], env=env,
                              capture_output=True, text=True, timeout=60)
        self.assertEqual((seen.returncode, seen.stdout), (0, "seen\n"), seen.stderr)


class Signals(unittest.TestCase):
    def test_a_second_signal_ends_the_running_command(self):
        host = Host(self, standard_components())
        r = host.run(f"""
            touch /var/lib/zeltest/hold-{rpm_name('alpha')}
            $M install --json --answers=/opt/answers /opt/bundle > /tmp/out 2>/dev/null &
            held=$!
            for i in $(seq 400); do [ -e /var/lib/zeltest/holding ] && break; sleep 0.05; done
            kill -INT $held; sleep 0.3; kill -INT $held
            wait $held; echo "status=$?"
            left=1  # an orphan of the ended group may stand as a zombie until it is reaped
            for i in $(seq 100); do kill -0 "$(cat /var/lib/zeltest/holding)" 2>/dev/null || {{ left=0; break; }}; sleep 0.02; done
            echo "left=$left"
            echo "=== out"; cat /tmp/out
        """)
        facts = dict(line.split("=", 1) for line in r.stdout.split("=== out")[0].splitlines()
                     if "=" in line)
        result = json.loads(r.stdout.split("=== out\n")[1])
        self.assertEqual(facts["status"], "1", r.stdout + r.stderr)
        self.assertEqual(facts["left"], "0")
        self.assertEqual(states(result), {rpm_name("alpha"): "failed",
                                          rpm_name("beta"): "interrupted",
                                          rpm_name("gamma"): "interrupted"})
        self.assertIn("second signal", result["components"][0]["reason"])


def rpms():
    global RPMS
    if RPMS is None:
        RPMS = build_rpms(SCRATCH)
    return RPMS


def main():
    global MANAGER, HOST, SCRATCH
    MANAGER, HOST = sys.argv[1], sys.argv[2]
    # the build's programs stay visible on the hosts when the build lies under /tmp
    os.environ["ZEL_HOST_KEEP"] = os.path.dirname(os.path.realpath(MANAGER))
    SCRATCH = tempfile.mkdtemp(prefix="zelrpms.", dir=os.getcwd())
    try:
        unittest.main(argv=[sys.argv[0]] + sys.argv[3:], verbosity=2)
    finally:
        shutil.rmtree(SCRATCH, True)


if __name__ == "__main__":
    main()
