#!/usr/bin/python
# -*- coding: utf-8 -*-
# Copyright: 2026 zelparser developers
# GNU General Public License v2.0 or later (see COPYING or https://www.gnu.org/licenses/old-licenses/gpl-2.0.txt)

from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: bundle_archive
short_description: Pack a bundle directory for ansible.builtin.unarchive
description:
  - Packs a bundle directory into a gzip'd tar archive that M(ansible.builtin.unarchive)
    unpacks on the hosts, so that a bundle of many files travels as one file and is unpacked by
    one task instead of one copy per file.
  - The archive is the same, byte for byte, as long as the bundle is. Its members are sorted,
    owned by root, keep their modification times and carry no time of their own. An archive
    that would not change is left alone and the task reports no change.
  - Every member's mode loses the group's and others' write bits, since the installer refuses a
    bundle that anyone but root could change.
version_added: 1.0.0
author:
  - zelparser developers (@zelparser)
options:
  path:
    description:
      - The bundle directory. It may hold only regular files and directories; a link or any
        other kind of file fails the task.
    type: path
    required: true
  dest:
    description:
      - The archive to write (its directory must exist).
    type: path
    required: true
extends_documentation_fragment:
  - ansible.builtin.action_common_attributes
attributes:
  check_mode:
    support: full
    details: In check mode the archive is made and compared, not written.
  diff_mode:
    support: none
  platform:
    platforms: posix
seealso:
  - module: ansible.builtin.unarchive
'''

EXAMPLES = r'''
- name: Pack the bundle on the controller
  zelparser.rollout.bundle_archive:
    path: /srv/bundles/server-bundle
    dest: /srv/rollout/bundle.tar.gz
  delegate_to: localhost
  run_once: true

- name: Unpack it on every host
  ansible.builtin.unarchive:
    src: /srv/rollout/bundle.tar.gz
    dest: /var/lib/zelparser/bundles/server-bundle
    owner: root
    group: root
'''

RETURN = r'''
dest:
  description: The archive.
  returned: success
  type: str
  sample: /srv/rollout/bundle.tar.gz
files:
  description: The number of files in the bundle.
  returned: success
  type: int
  sample: 9
size:
  description: The archive's size in bytes.
  returned: success
  type: int
  sample: 48213
'''

import filecmp
import gzip
import os
import stat
import tarfile
import tempfile

from ansible.module_utils.basic import AnsibleModule


def members(module, top):
    """Every directory and file below top, sorted, as (path relative to top, lstat)."""
    found = []
    for parent, dirs, files in os.walk(top):
        dirs.sort()
        for name in sorted(dirs) + sorted(files):
            path = os.path.join(parent, name)
            info = os.lstat(path)
            if not (stat.S_ISDIR(info.st_mode) or stat.S_ISREG(info.st_mode)):
                module.fail_json(msg='%s is neither a file nor a directory: a bundle holds only those' % path)
            found.append((os.path.relpath(path, top), info))
    return sorted(found, key=lambda item: item[0])


def write_archive(top, entries, out):
    with gzip.GzipFile(filename='', mode='wb', fileobj=out, mtime=0) as packed:
        with tarfile.open(fileobj=packed, mode='w', format=tarfile.GNU_FORMAT) as tar:
            for name, info in entries:
                member = tarfile.TarInfo(name)
                member.mode = stat.S_IMODE(info.st_mode) & ~0o022
                member.mtime = int(info.st_mtime)
                member.uid = member.gid = 0
                member.uname = member.gname = 'root'
                if stat.S_ISDIR(info.st_mode):
                    member.type = tarfile.DIRTYPE
                    tar.addfile(member)
                else:
                    member.size = info.st_size
                    with open(os.path.join(top, name), 'rb') as data:
                        tar.addfile(member, data)


def main():
    module = AnsibleModule(argument_spec=dict(path=dict(type='path', required=True),
                                              dest=dict(type='path', required=True)),
                           supports_check_mode=True)
    top, dest = module.params['path'], module.params['dest']
    if not os.path.isdir(top):
        module.fail_json(msg='%s is no directory' % top)
    entries = members(module, top)
    handle, partial = tempfile.mkstemp(prefix='.bundle-', suffix='.tar.gz',
                                       dir=os.path.dirname(dest) or '.')
    try:
        with os.fdopen(handle, 'wb') as out:
            write_archive(top, entries, out)
        size = os.path.getsize(partial)
        changed = not (os.path.isfile(dest) and filecmp.cmp(partial, dest, shallow=False))
        if changed and not module.check_mode:
            os.chmod(partial, 0o644)
            os.rename(partial, dest)
    finally:
        if os.path.exists(partial):
            os.unlink(partial)
    module.exit_json(changed=changed, dest=dest, size=size,
                     files=sum(1 for dummy, info in entries if stat.S_ISREG(info.st_mode)))


if __name__ == '__main__':
    main()
