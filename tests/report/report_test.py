#!/usr/bin/env python3
"""zelrzp-manager report, opened in headless chromium: no console error, nothing loaded from
outside the page, the grids' cells what the page's own matrix and check JSON say, texts from the
bundle shown as text (never as markup); a screenshot of the example bundle's page kept.

Usage: report_test.py MANAGER EXAMPLE_BUNDLE WORK_DIR [SNAPSHOT_DIR...]
"""
import html.parser
import json
import os
import shutil
import subprocess
import sys

CHROMIUM = ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
            "--no-first-run", "--disable-background-networking", "--disable-component-update",
            "--disable-sync", "--enable-logging=stderr", "--v=0"]


class Page(html.parser.HTMLParser):
    """The parts of the rendered DOM the test looks at."""

    def __init__(self):
        super().__init__()
        self.cells, self.columns, self.tags, self.links = {}, [], [], []
        self.fleet_cells = {}
        self.row = self.machine = None
        self.in_json = self.in_column = self.in_fleet = False
        self.json = {"matrix-json": "", "fleet-json": ""}
        self.text = []

    def handle_starttag(self, tag, attrs):
        a = dict(attrs)
        self.tags.append(tag)
        self.links += [v for k, v in attrs if k in ("src", "href") and not v.startswith("#")]
        if tag == "tr" and "data-distro" in a:
            self.row = a["data-distro"]
        if tag == "tr" and "data-machine" in a:
            self.machine = a["data-machine"]
        if tag == "td" and self.row and "data-verdict" in a:
            self.cells[(self.row, a["data-component"])] = a["data-verdict"]
        if tag == "td" and self.machine and "data-verdict" in a:
            self.fleet_cells[(self.machine, a["data-component"])] = a["data-verdict"]
        self.in_json = a.get("id") if tag == "pre" and a.get("id") in self.json else False
        self.in_fleet |= tag == "table" and a.get("id") == "fleet-grid"
        self.in_column = (tag == "th" and a.get("class") == "component" and not self.row
                          and not self.in_fleet)

    def handle_endtag(self, tag):
        if tag == "tr":
            self.row = self.machine = None
        if tag == "table":
            self.in_fleet = False
        if tag == "pre":
            self.in_json = False
        if tag == "th":
            self.in_column = False

    def handle_data(self, data):
        self.text.append(data)
        if self.in_json:
            self.json[self.in_json] += data
        if self.in_column and data.strip():
            self.columns.append(data.strip())


def verdict(run, component):
    """A cell as the matrix JSON says it, by the rules the table of --all-distros shows."""
    if run["failure"] is not None:
        return "no-plan"
    if any(r["component"] == component for r in run["refused"]):
        return "refused"
    if any(c["file"] == component for c in run["components"]):
        noted = any(f["component"] == component and f["problem"] for f in run["findings"])
        return "findings" if noted else "recorded"
    return "not-recorded"


def open_page(page, work, screenshot=None):
    profile = os.path.join(work, "profile")
    shutil.rmtree(profile, ignore_errors=True)
    args = CHROMIUM + [f"--user-data-dir={profile}"]
    args += [f"--screenshot={screenshot}", "--window-size=1400,1800"] if screenshot else ["--dump-dom"]
    done = subprocess.run(args + ["file://" + page], capture_output=True, text=True, timeout=120)
    console = [l for l in done.stderr.splitlines() if ":CONSOLE" in l]
    return done, console


def report(manager, bundle, work, name, failures, snapshots=()):
    page = os.path.join(work, name + ".html")
    machines = [f"--snapshot={s}" for s in snapshots]
    done = subprocess.run([manager, "report", "-o", name + ".html"] + machines + [bundle], cwd=work,
                          capture_output=True, text=True, timeout=300)
    if done.stderr != f"zelrzp-manager report: wrote {page}\n":  # a sanitizer's report, too
        failures.append(f"report of {bundle} said: {done.stderr}")
    return done.returncode, page


def check_page(page, work, failures, status):
    done, console = open_page(page, work)
    failures += [f"{page}: console: {l}" for l in console]
    p = Page()
    p.feed(done.stdout)
    if not p.cells:
        failures.append(f"{page}: no grid in the DOM ({done.returncode}: {done.stderr[-300:]})")
        return p
    failures += [f"{page}: loads {l}" for l in p.links]
    failures += [f"{page}: has a {t} element" for t in {"script", "img", "iframe"} & set(p.tags)]
    matrix = json.loads(p.json["matrix-json"])
    if matrix["exitStatus"] != status:
        failures.append(f"{page}: exit status {status}, the page's JSON says {matrix['exitStatus']}")
    want = {}
    for run in matrix["distributions"]:
        for component in p.columns:
            want[(run["distribution"]["name"], component)] = verdict(run, component)
        for c in run["components"]:
            if c["file"] not in p.columns:
                failures.append(f"{page}: recorded {c['file']} has no column")
    if p.cells != want:
        diff = {k: (p.cells.get(k), want.get(k)) for k in set(p.cells) | set(want)
                if p.cells.get(k) != want.get(k)}
        failures.append(f"{page}: cells (page, JSON) differ: {diff}")
    if p.json["fleet-json"]:
        check_fleet(page, p, json.loads(p.json["fleet-json"]), failures)
    return p


def check_fleet(page, p, check, failures):
    """The fleet grid: each machine's cell of a component is the check's verdict, or no-plan."""
    want = {}
    files = {c["file"] for m in check["machines"] for c in m["components"]}
    for m in check["machines"]:
        verdicts = {c["file"]: c["verdict"] for c in m["components"]}
        for f in files:
            want[(m["name"], f)] = verdicts.get(f, "no-plan")
    if p.fleet_cells != want:
        failures.append(f"{page}: fleet cells (page, JSON) differ: {p.fleet_cells} {want}")


def main():
    manager, example, work = sys.argv[1:4]
    snapshots = sys.argv[4:]
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    failures = []

    # The example bundle: its findings give exit status 1, as the matrix's.
    # With the example machines' snapshots and one without release files, the fleet joins.
    empty = os.path.join(work, "no-release-files")
    os.makedirs(empty)
    status, page = report(manager, example, work, "example-report", failures, snapshots + [empty])
    if status != 1:
        failures.append(f"report of the example exited {status}")
    p = check_page(page, work, failures, status)
    verdicts = set(p.cells.values())
    if not {"recorded", "findings", "refused", "not-recorded", "no-plan"} <= verdicts:
        failures.append(f"the example's grid shows only {verdicts}")
    if not {"installs", "refused", "not-recorded", "no-plan"} <= set(p.fleet_cells.values()):
        failures.append(f"the example's fleet shows only {set(p.fleet_cells.values())}")
    text = "".join(p.text)
    for want in ["package-file-missing", '<package install="yes">fwupdate-3.1-1.i386.rpm</package>',
                 "chosen for its entry", "libssl.so.2 is in none of the library directories"]:
        if want not in text:
            failures.append(f"the example's page lacks {want!r}")
    shot = os.path.join(work, "example-report.png")
    _, console = open_page(page, work, screenshot=shot)
    failures += [f"screenshot: console: {l}" for l in console]
    if not os.path.exists(shot) or os.path.getsize(shot) < 10000:
        failures.append(f"no screenshot at {shot}")

    # Texts from the bundle that look like markup stay text: a file name and a directory name.
    hostile = os.path.join(work, "a&b <i>bundle</i>")
    shutil.copytree(example, hostile)
    markup = "<img src=x onerror=document.title=1>.xml"
    open(os.path.join(hostile, markup), "w").write("<x/>\n")
    status, page = report(manager, hostile, work, "markup-report", failures)
    p = check_page(page, work, failures, status)
    text = "".join(p.text)
    for want in [markup, "a&b <i>bundle</i>"]:
        if want not in text:
            failures.append(f"the page does not show {want!r} as text")
    if "i" in p.tags:
        failures.append("a directory name became markup")

    print("\n".join(failures) or f"pages checked; screenshot {shot}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
