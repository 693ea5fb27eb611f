#!/usr/bin/python
# -*- coding: utf-8 -*-
# Copyright: 2026 zelparser developers
# GNU General Public License v2.0 or later (see COPYING or https://www.gnu.org/licenses/old-licenses/gpl-2.0.txt)

from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: snapshot
short_description: Record a host for a fleet check
description:
  - Records the host with C(zelrzp-manager snapshot) (with C(--for) the bundle when I(bundle) is
    given) and leaves a gzip'd tar archive of the snapshot at I(archive), for
    M(ansible.builtin.fetch) to bring to the controller, where M(zelparser.rollout.check) reads
    it.
  - A snapshot holds the release files, the running kernel, the PCI devices, the names of the
    running programs and, with I(bundle), whether each path the bundle's requisites name exists
    and the values of the environment variables they name. No file's contents are copied.
  - The host is only read; the one file written is the archive, replaced as a whole. The module
    therefore runs in check mode too and never reports C(changed).
version_added: 1.0.0
author:
  - zelparser developers (@zelparser)
options:
  archive:
    description:
      - Where the archive is written (its directory must exist); an archive already there is
        replaced. Its members are the snapshot's paths, relative to the snapshot.
    type: path
    required: true
  bundle:
    description:
      - The bundle directory on the host whose requisites are recorded (C(snapshot --for)).
    type: path
extends_documentation_fragment:
  - ansible.builtin.action_common_attributes
  - zelparser.rollout.manager
attributes:
  check_mode:
    support: full
    details: The snapshot is recorded in check mode as well; it changes nothing on the host but the archive.
  diff_mode:
    support: none
  platform:
    platforms: posix
notes:
  - No root is needed; a snapshot taken as root sees the same as one taken by another user,
    except for files only root may look at.
seealso:
  - module: zelparser.rollout.check
  - module: ansible.builtin.fetch
'''

EXAMPLES = r'''
- name: Record the host with what the bundle's requisites name
  zelparser.rollout.snapshot:
    bundle: /var/lib/zelparser/bundles/server-bundle
    archive: /var/tmp/zelparser/snapshot-{{ inventory_hostname }}.tar.gz

- name: Bring the snapshot to the controller
  ansible.builtin.fetch:
    src: /var/tmp/zelparser/snapshot-{{ inventory_hostname }}.tar.gz
    dest: snapshots/{{ inventory_hostname }}.tar.gz
    flat: true
'''

RETURN = r'''
archive:
  description: The archive written.
  returned: success
  type: str
  sample: /var/tmp/zelparser/snapshot-web01.tar.gz
size:
  description: The archive's size in bytes.
  returned: success
  type: int
  sample: 2817
files:
  description: The number of files and directories in the snapshot.
  returned: success
  type: int
  sample: 214
release_files:
  description: The release files of the host that the snapshot holds, below C(etc/).
  returned: success
  type: list
  elements: str
  sample: [redhat-release]
'''

import os
import shutil
import tempfile

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.zelparser.rollout.plugins.module_utils.manager import (
    MANAGER_ARGS, make_archive, manager_program)

RELEASE_FILES = ('redhat-release', 'SuSE-release', 'UnitedLinux-release')


def count_entries(top):
    count = 0
    for dummy, dirs, files in os.walk(top):
        count += len(dirs) + len(files)
    return count


def main():
    argument_spec = dict(
        archive=dict(type='path', required=True),
        bundle=dict(type='path'),
    )
    argument_spec.update(MANAGER_ARGS)
    module = AnsibleModule(argument_spec=argument_spec, supports_check_mode=True)
    archive = module.params['archive']
    if not os.path.isdir(os.path.dirname(archive) or '.'):
        module.fail_json(msg='the directory of %s does not exist' % archive)

    scratch = tempfile.mkdtemp(prefix='.zelparser-snapshot-', dir=os.path.dirname(archive) or '.')
    try:
        snapshot = os.path.join(scratch, 'snapshot')
        argv = [manager_program(module), 'snapshot']
        if module.params['bundle']:
            argv.append('--for=%s' % module.params['bundle'])
        argv.append(snapshot)
        status, dummy, err = module.run_command(argv)
        if status != 0:
            module.fail_json(msg='zelrzp-manager snapshot exited %d: %s' % (status, err.strip()),
                             rc=status, cmd=argv, stderr=err)
        for line in err.splitlines():
            if line.strip():
                module.warn(line.strip())
        make_archive(snapshot, archive)
        result = dict(
            changed=False,
            archive=archive,
            size=os.path.getsize(archive),
            files=count_entries(snapshot),
            release_files=[name for name in RELEASE_FILES
                           if os.path.isfile(os.path.join(snapshot, 'etc', name))],
        )
    finally:
        shutil.rmtree(scratch, ignore_errors=True)
    module.exit_json(**result)


if __name__ == '__main__':
    main()
