#!/usr/bin/python
# -*- coding: utf-8 -*-
# Copyright: 2026 zelparser developers
# GNU General Public License v2.0 or later (see COPYING or https://www.gnu.org/licenses/old-licenses/gpl-2.0.txt)

from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: install
short_description: Install a bundle on the host with zelrzp-manager
description:
  - Runs C(zelrzp-manager install) on the bundle directory. The sub-service makes the plan
    from the host's release files, each component is judged as M(zelparser.rollout.check)
    judges it, its configuration values are written, its install command runs and its
    postrequisites are judged. Every step is journaled under I(state_dir).
  - A second run resumes from the journal and installs nothing twice; the task then reports
    no change. C(changed) is true only when a component was installed (in check mode, would
    be).
  - The task fails when the install does not end clean (the installer's exit status is not
    0), for instance when a component is refused because a prerequisite does not hold, its
    command fails, it is not recorded, it was interrupted, a postrequisite does not hold after
    it, the host has no plan, or the install cannot start. The components are returned in
    either case.
  - Check mode is the installer's dry run (C(--dry-run)); nothing is written or run, and the
    components that would be installed are returned with the configuration lines that would
    change.
  - With C(--diff), the configuration lines that change (or would) are shown per file, a
    password's value as C(********).
version_added: 1.0.0
author:
  - zelparser developers (@zelparser)
options:
  bundle:
    description:
      - The bundle directory on the host. It, its parents and its files must belong to root
        and be writable by root alone, or the install does not start.
    type: path
    required: true
  answers_file:
    description:
      - The configuration answers on the host, C(NAME=VALUE) a line. A file that holds a
        password must be readable by root alone.
    type: path
  answers:
    description:
      - The configuration answers as a dictionary, written to a file readable by root alone
        for the install and removed after it. Never logged.
    type: dict
  state_dir:
    description:
      - The installer's journal and lock (the program's default is C(/var/lib/zelparser)).
    type: path
  log:
    description:
      - The install's log file (the program's default is C(/var/log/zelparser/install-ID.log)).
    type: path
  command_timeout:
    description:
      - Longest run of one install command, in seconds (the program's default is 1800).
    type: int
  retry_interrupted:
    description:
      - Run again the command of a component (other than an RPM package, which is looked up in
        the RPM database) that started in an install that was killed and never ended. By
        default such a component is C(interrupted) and fails the task, since its command may
        have done part of its work.
    type: bool
    default: false
extends_documentation_fragment:
  - ansible.builtin.action_common_attributes
  - zelparser.rollout.manager
  - zelparser.rollout.manager.parser
attributes:
  check_mode:
    support: full
    details: Check mode runs the installer's dry run; nothing is written or run.
  diff_mode:
    support: full
    details: The configuration lines that change, per file, with password values masked.
  platform:
    platforms: posix
notes:
  - Needs root on the host (C(become)); a dry run too.
  - Whether the host must be rebooted is returned in I(reboot_required); the module never
    reboots. The role C(zelparser.rollout.rollout) reboots with M(ansible.builtin.reboot) when
    asked to.
seealso:
  - module: zelparser.rollout.check
  - module: ansible.builtin.reboot
'''

EXAMPLES = r'''
- name: Install the bundle with an answers file on the host
  zelparser.rollout.install:
    bundle: /var/lib/zelparser/bundles/server-bundle
    answers_file: /var/lib/zelparser/bundles/server-bundle.answers
  register: installed

- name: Install with answers kept in a vault
  zelparser.rollout.install:
    bundle: /var/lib/zelparser/bundles/server-bundle
    answers:
      HTTPPORT: "2381"
      QXHTTPSERVERADMINPASSWD: "{{ vault_agent_password }}"

- name: Reboot when a component asks for it
  ansible.builtin.reboot:
  when: installed.reboot_required
'''

RETURN = r'''
exit_status:
  description:
    - The installer's exit status, 0 clean, 1 a component refused, failed, interrupted or not
      recorded or a postrequisite not holding, 3 no plan for this host, 4 the install did not
      start.
  returned: always
  type: int
  sample: 0
install_id:
  description: The journal's id of this install (null in check mode or when it did not start).
  returned: always
  type: str
  sample: 20261125T163000Z-1234
log:
  description: The install's log file (null in check mode).
  returned: always
  type: str
  sample: /var/log/zelparser/install-20261125T163000Z-1234.log
dry_run:
  description: Whether this was the dry run of check mode.
  returned: always
  type: bool
distribution:
  description: The distribution the sub-service detected.
  returned: always
  type: str
  sample: Red Hat Linux 7.3
bundle_file:
  description: The bundle file that supports the host.
  returned: always
  type: str
  sample: bp000101.xml
failure:
  description: Why the install could not start or had no plan; null otherwise.
  returned: always
  type: str
components:
  description:
    - Each component of the plan, in the installer's order, as its JSON has it; among its keys
      C(file), C(name), C(version), C(state) (C(installed), C(already-installed),
      C(refused), C(failed), C(not-recorded), C(interrupted), C(would-install)), C(reason),
      C(exitStatus), C(reboot), C(requisites), C(configuration) and C(configurationChanges)
      (password values masked).
  returned: always
  type: list
  elements: dict
counts:
  description: How many components ended in each state.
  returned: always
  type: dict
  sample: {"installed": 2, "already-installed": 1, "refused": 1}
reboot_required:
  description: Whether a component installed now (in check mode, one that would be) asks for a reboot.
  returned: always
  type: bool
  sample: false
'''

import os
import shutil
import tempfile

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.zelparser.rollout.plugins.module_utils.manager import (
    MANAGER_ARGS, PARSER_ARGS, common_options, manager_program, run_json, write_answers)

CHANGING_STATES = ('installed', 'would-install')
CLEAN_STATES = ('installed', 'already-installed', 'would-install')


def command_line(module, answers_file):
    params = module.params
    argv = [manager_program(module), 'install', '--json'] + common_options(module)
    if module.check_mode:
        argv.append('--dry-run')
    if answers_file:
        argv.append('--answers=%s' % answers_file)
    for option, name in (('--state-dir', 'state_dir'), ('--log', 'log')):
        if params[name]:
            argv.append('%s=%s' % (option, params[name]))
    if params['command_timeout']:
        argv.append('--command-timeout=%d' % params['command_timeout'])
    if params['retry_interrupted']:
        argv.append('--retry-interrupted')
    argv.append(params['bundle'])
    return argv


def diff_of(components):
    """The configuration lines that change, one before/after pair per file."""
    files = {}
    for component in components:
        for change in component.get('configurationChanges') or []:
            before, after = files.setdefault(change['file'], ([], []))
            if change.get('before') is not None:
                before.append(change['before'])
            after.append(change['after'])
    return [dict(before_header=name, after_header=name,
                 before=''.join(line + '\n' for line in lines[0]),
                 after=''.join(line + '\n' for line in lines[1]))
            for name, lines in sorted(files.items())]


def failure_message(result):
    if result['failure']:
        return result['failure']
    bad = [c for c in result['components']
           if c.get('state') not in CLEAN_STATES or c.get('postrequisitesHold') is False]
    if not bad:
        return 'the install exited %d' % result['exit_status']
    return '; '.join('%s %s%s' % (c.get('file'), c.get('state'),
                                  ': %s' % c['reason'] if c.get('reason') else '')
                     for c in bad)


def main():
    argument_spec = dict(
        bundle=dict(type='path', required=True),
        answers_file=dict(type='path'),
        answers=dict(type='dict', no_log=True),
        state_dir=dict(type='path'),
        log=dict(type='path'),
        command_timeout=dict(type='int'),
        retry_interrupted=dict(type='bool', default=False),
    )
    argument_spec.update(MANAGER_ARGS)
    argument_spec.update(PARSER_ARGS)
    module = AnsibleModule(argument_spec=argument_spec, supports_check_mode=True,
                           mutually_exclusive=[('answers', 'answers_file')])

    scratch = tempfile.mkdtemp(prefix='zelparser-install-')
    try:
        answers_file = module.params['answers_file']
        if module.params['answers'] is not None:
            try:
                answers_file = write_answers(module.params['answers'], scratch)
            except ValueError as error:
                module.fail_json(msg=str(error))
        argv = command_line(module, answers_file)
        status, run, err = run_json(module, argv, (0, 1, 3, 4))
    finally:
        shutil.rmtree(scratch, ignore_errors=True)

    components = run.get('components') or []
    counts = {}
    for component in components:
        counts[component.get('state')] = counts.get(component.get('state'), 0) + 1
    result = dict(
        changed=any(c.get('state') in CHANGING_STATES for c in components),
        exit_status=status,
        install_id=run.get('install'),
        log=run.get('log'),
        dry_run=bool(run.get('dryRun')),
        distribution=run.get('distribution'),
        bundle_file=run.get('bundleFile'),
        failure=run.get('failure'),
        components=components,
        counts=counts,
        reboot_required=bool(run.get('rebootRequired')),
    )
    if module._diff:
        result['diff'] = diff_of(components)
    if status != 0:
        module.fail_json(msg=failure_message(result), stderr=err, **result)
    module.exit_json(**result)


if __name__ == '__main__':
    main()
