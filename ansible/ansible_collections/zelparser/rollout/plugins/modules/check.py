#!/usr/bin/python
# -*- coding: utf-8 -*-
# Copyright: 2026 zelparser developers
# GNU General Public License v2.0 or later (see COPYING or https://www.gnu.org/licenses/old-licenses/gpl-2.0.txt)

from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: check
short_description: Judge a bundle against a host or a fleet of snapshots
description:
  - Runs C(zelrzp-manager check) on the bundle and returns its verdicts. Without I(snapshots)
    it judges the host the module runs on; with them, every machine they recorded, all at once
    (the way the controller judges a fleet before anything is installed).
  - Every prerequisite, postrequisite and supported device of every component is judged
    against each machine's facts, and every configuration variable against the answers.
    Nothing a requisite names is ever run, and nothing on the machine changes, so the module
    runs in check mode too and never reports C(changed).
  - The whole JSON can be kept in I(json_file) and the HTML report page written to
    I(report_file) (C(zelrzp-manager report) with the same snapshots).
version_added: 1.0.0
author:
  - zelparser developers (@zelparser)
options:
  bundle:
    description:
      - The bundle directory.
    type: path
    required: true
  snapshots:
    description:
      - Machines recorded by M(zelparser.rollout.snapshot) or C(zelrzp-manager snapshot), each
        a snapshot directory or a C(.tar.gz) archive of one. A machine is named after the
        directory or the archive (without C(.tar.gz)), so names must differ.
      - When empty, the host the module runs on is judged.
    type: list
    elements: path
    default: []
  extract_dir:
    description:
      - Where the archives among I(snapshots) are unpacked, each as a directory of its name
        (one left by an earlier run is replaced). By default a temporary directory, removed
        afterwards.
    type: path
  answers_file:
    description:
      - The configuration answers, C(NAME=VALUE) a line (C(zelrzp-manager answers) writes a
        template).
    type: path
  answers:
    description:
      - The configuration answers as a dictionary, written to a file readable by the owner
        alone for the check and removed after it. Never logged.
    type: dict
  strict:
    description:
      - A requisite whose verdict is unknown (a command, a script, a missing fact) refuses its
        component.
    type: bool
    default: false
  fail_on_refusal:
    description:
      - Fail the task when a component would be refused or not recorded, a variable is missing
        or invalid, or a machine has no plan (the check's exit status 1 or 3). By default the
        verdicts are returned and only a wrong command line fails.
    type: bool
    default: false
  json_file:
    description:
      - Write the check's whole JSON there, as the program prints it, and read it back one
        machine at a time, so that a large fleet's JSON is never held whole. The returned
        I(machines) are then summaries (their verdicts counted, the files of the components
        that would not install).
    type: path
  report_file:
    description:
      - Also write the HTML report page there (the support matrix, lint and these machines).
    type: path
extends_documentation_fragment:
  - ansible.builtin.action_common_attributes
  - zelparser.rollout.manager
  - zelparser.rollout.manager.parser
attributes:
  check_mode:
    support: full
    details: The check runs in check mode too; it only reads the machines.
  diff_mode:
    support: none
  platform:
    platforms: posix
notes:
  - No root is needed. The plan of each machine is made by the real sub-service in a private
    sandbox with that machine's release files.
  - Password values never appear in the result, in I(json_file) or in the page.
seealso:
  - module: zelparser.rollout.snapshot
  - module: zelparser.rollout.install
'''

EXAMPLES = r'''
- name: Will the bundle install on this host?
  zelparser.rollout.check:
    bundle: /var/lib/zelparser/bundles/server-bundle
    answers_file: /var/lib/zelparser/bundles/server-bundle.answers
  register: verdicts

- name: Judge the whole fleet on the controller, from the fetched snapshots
  zelparser.rollout.check:
    bundle: bundles/server-bundle
    snapshots: "{{ groups['all'] | map('regex_replace', '^(.*)$', 'archives/\\1.tar.gz') | list }}"
    extract_dir: rollout/snapshots
    json_file: rollout/check.json
    report_file: rollout/report.html
    answers:
      HTTPPORT: "2381"
      QXHTTPSERVERADMINPASSWD: "{{ vault_agent_password }}"
  delegate_to: localhost
  run_once: true
'''

RETURN = r'''
exit_status:
  description:
    - The check's exit status, 0 every component of every machine installs and every
      variable is answered or has a default, 1 a component would be refused or not recorded or
      a variable is missing or invalid, 3 a machine has no plan.
  returned: always
  type: int
  sample: 1
plans:
  description: The number of distinct plans made (one sub-service run each).
  returned: success
  type: int
  sample: 2
answers:
  description: The answers file's errors and warnings (C(file), C(errors), C(warnings)).
  returned: success
  type: dict
  sample: {"errors": [], "warnings": ["line 4: HTTPPROT is no configuration variable of the plan"]}
machines:
  description:
    - One entry per machine as the check's JSON has it (C(name), C(distribution), C(kernel),
      C(bundle), C(failure), C(exitStatus), C(components) with each one's C(verdict),
      C(reason), C(requisites) and C(configuration)). With I(json_file), a summary instead
      (C(name), C(distribution), C(kernel), C(bundle), C(failure), C(exitStatus), C(verdicts)
      counted, C(refused) the files of the components that would not install).
  returned: success
  type: list
  elements: dict
counts:
  description: How many components of all machines got each verdict.
  returned: success
  type: dict
  sample: {"installs": 5, "refused": 2, "not-recorded": 3}
refusals:
  description: The first 100 components that would be refused or are not recorded, each with its machine and first reason.
  returned: success
  type: list
  elements: dict
  sample: [{"machine": "web02", "component": "mgmtagent-5.0.2-3.i386.rpm", "verdict": "refused",
            "reason": "libssl.so.2 is in none of the library directories"}]
refusals_total:
  description: How many components of all machines would be refused or are not recorded.
  returned: success
  type: int
  sample: 1
without_plan:
  description: The machines that have no plan, each with why.
  returned: success
  type: list
  elements: dict
  sample: [{"machine": "db01", "failure": "no bundle file supports SuSE SLES 7"}]
json_file:
  description: The file holding the whole JSON, when I(json_file) was given.
  returned: when I(json_file) was given
  type: str
report_file:
  description: The page written, when I(report_file) was given.
  returned: when I(report_file) was given
  type: str
'''

import json
import os
import shutil
import subprocess
import tempfile

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.zelparser.rollout.plugins.module_utils.manager import (
    MANAGER_ARGS, PARSER_ARGS, common_options, extract_archive, manager_program, remove_tree,
    run_json, write_answers)

ARCHIVE_SUFFIXES = ('.tar.gz', '.tgz')


def machine_name(path):
    name = os.path.basename(path.rstrip('/'))
    for suffix in ARCHIVE_SUFFIXES:
        if name.endswith(suffix):
            return name[:-len(suffix)], True
    return name, False


def stage_snapshots(module, workdir):
    """Every snapshot under workdir by its machine name: archives unpacked, directories linked.
    Returns the names in the order given."""
    names = []
    for path in module.params['snapshots']:
        name, is_archive = machine_name(path)
        if not name or name in names:
            module.fail_json(msg='two snapshots are named %r: machines need names of their own' % name)
        target = os.path.join(workdir, name)
        remove_tree(target)
        if is_archive:
            try:
                extract_archive(path, target)
            except (IOError, OSError, ValueError) as error:
                module.fail_json(msg='snapshot archive %s: %s' % (path, error))
        elif os.path.isdir(path):
            os.symlink(os.path.abspath(path), target)
        else:
            module.fail_json(msg='snapshot %s is neither a directory nor a .tar.gz archive' % path)
        names.append(name)
    return names


REFUSALS_SHOWN = 100


class Summary(object):
    """The verdicts of every machine, gathered one machine at a time. With keep set each
    machine is kept as the check's JSON has it; else as a summary: its verdicts counted and the
    files of the components that would not install."""

    def __init__(self, keep):
        self.keep, self.counts, self.refusals, self.without_plan, self.machines = keep, {}, [], [], []
        self.refused = 0

    def add(self, machine):
        if machine.get('failure'):
            self.without_plan.append(dict(machine=machine['name'], failure=machine['failure']))
        verdicts, refused = {}, []
        for component in machine.get('components', []):
            verdict = component.get('verdict')
            verdicts[verdict] = verdicts.get(verdict, 0) + 1
            if verdict != 'installs':
                refused.append(component.get('file'))
                self.refused += 1
                if len(self.refusals) < REFUSALS_SHOWN:
                    self.refusals.append(dict(machine=machine['name'], component=component.get('file'),
                                              verdict=verdict, reason=component.get('reason')))
        for verdict, count in verdicts.items():
            self.counts[verdict] = self.counts.get(verdict, 0) + count
        if not self.keep:
            machine = dict((key, machine.get(key)) for key in
                           ('name', 'distribution', 'kernel', 'bundle', 'failure', 'exitStatus'))
            machine.update(verdicts=verdicts, refused=refused)
        self.machines.append(machine)

    def result(self):
        return dict(counts=self.counts, refusals=self.refusals, refusals_total=self.refused,
                    without_plan=self.without_plan, machines=self.machines)


def read_streamed(path, summary):
    """The check's JSON file read one machine at a time (a thousand machines against a large
    bundle make gigabytes of it): each machine goes to summary; returns the other fields."""
    decoder, marker = json.JSONDecoder(), '"machines": ['
    with open(path) as data:
        text = ''
        while marker not in text:
            chunk = data.read(1 << 16)
            if not chunk:
                raise ValueError('no machines in the check\'s JSON')
            text += chunk
        head, text = text.split(marker, 1)
        top = json.loads(head.rstrip().rstrip(',') + '}')
        while True:
            text = text.lstrip(', \n')
            if text.startswith(']'):
                break
            try:
                machine, end = decoder.raw_decode(text)
            except ValueError:
                chunk = data.read(1 << 20)
                if not chunk:
                    raise
                text += chunk
                continue
            summary.add(machine)
            text = text[end:]
        top.update(json.loads('{' + (text[1:] + data.read()).lstrip(', \n')))
    return top


def check_to_file(module, argv, workdir, path):
    """The check run with its JSON written to path as it comes (never held whole)."""
    handle, partial = tempfile.mkstemp(prefix='.check-', dir=os.path.dirname(path) or '.')
    with os.fdopen(handle, 'w') as out:
        run = subprocess.Popen(argv, cwd=workdir, stdout=out, stderr=subprocess.PIPE)
        dummy, err = run.communicate()
    err = err.decode('utf-8', 'replace')
    if run.returncode not in (0, 1, 3):
        os.unlink(partial)
        module.fail_json(msg='zelrzp-manager exited %d: %s' % (run.returncode, err.strip()),
                         rc=run.returncode, cmd=argv, stderr=err)
    os.chmod(partial, 0o644)
    os.rename(partial, path)
    return run.returncode


def run_check(module, workdir, names, answers_file):
    program = manager_program(module)
    snapshots = ['--snapshot=%s' % name for name in names]
    argv = [program, 'check', '--json'] + snapshots + common_options(module)
    if answers_file:
        argv.append('--answers=%s' % answers_file)
    if module.params['strict']:
        argv.append('--strict')
    argv.append(os.path.abspath(module.params['bundle']))
    json_file = module.params['json_file']
    summary = Summary(keep=not json_file)
    if json_file:
        status = check_to_file(module, argv, workdir, json_file)
        try:
            check = read_streamed(json_file, summary)
        except ValueError as error:
            module.fail_json(msg='%s: %s' % (json_file, error))
    else:
        status, check, dummy = run_json(module, argv, (0, 1, 3), cwd=workdir)
        for machine in check.get('machines', []):
            summary.add(machine)
    result = dict(exit_status=status, plans=check.get('plans'), answers=check.get('answers'))
    result.update(summary.result())
    if json_file:
        result['json_file'] = json_file
    if module.params['report_file']:
        page = os.path.abspath(module.params['report_file'])
        argv = [program, 'report', '--output=%s' % page] + snapshots + common_options(module)
        argv.append(os.path.abspath(module.params['bundle']))
        rc, dummy, err = module.run_command(argv, cwd=workdir)
        if rc not in (0, 1, 3) or not os.path.isfile(page):
            module.fail_json(msg='zelrzp-manager report exited %d: %s' % (rc, err.strip()), **result)
        result['report_file'] = module.params['report_file']
    return result


def main():
    argument_spec = dict(
        bundle=dict(type='path', required=True),
        snapshots=dict(type='list', elements='path', default=[]),
        extract_dir=dict(type='path'),
        answers_file=dict(type='path'),
        answers=dict(type='dict', no_log=True),
        strict=dict(type='bool', default=False),
        fail_on_refusal=dict(type='bool', default=False),
        json_file=dict(type='path'),
        report_file=dict(type='path'),
    )
    argument_spec.update(MANAGER_ARGS)
    argument_spec.update(PARSER_ARGS)
    module = AnsibleModule(argument_spec=argument_spec, supports_check_mode=True,
                           mutually_exclusive=[('answers', 'answers_file')])
    params = module.params

    scratch = tempfile.mkdtemp(prefix='zelparser-check-')
    workdir = params['extract_dir'] or scratch
    try:
        if not os.path.isdir(workdir):
            os.makedirs(workdir)
        names = stage_snapshots(module, workdir)
        answers_file = params['answers_file'] and os.path.abspath(params['answers_file'])
        if params['answers'] is not None:
            try:
                answers_file = write_answers(params['answers'], scratch)
            except ValueError as error:
                module.fail_json(msg=str(error))
        result = run_check(module, workdir, names, answers_file)
    finally:
        shutil.rmtree(scratch, ignore_errors=True)
    result['changed'] = False
    if params['fail_on_refusal'] and result['exit_status'] != 0:
        module.fail_json(msg='the check found %d refused or unrecorded components and %d machines without a plan'
                         % (result['refusals_total'], len(result['without_plan'])), **result)
    module.exit_json(**result)


if __name__ == '__main__':
    main()
