# -*- coding: utf-8 -*-
# Copyright: 2026 zelparser developers
# GNU General Public License v2.0 or later (see COPYING or https://www.gnu.org/licenses/old-licenses/gpl-2.0.txt)

# What the modules share: finding zelrzp-manager, running it and reading its JSON back, the
# answers file written from a dictionary (mode 0600, removed after), and the snapshot archives
# (written and read with only regular files and directories in them).

from __future__ import absolute_import, division, print_function
__metaclass__ = type

import json
import os
import shutil
import tarfile
import tempfile

# The option every module has: where zelrzp-manager is.
MANAGER_ARGS = dict(
    manager=dict(type='path', default='zelrzp-manager'),
)
# The options of the modules that start the sub-service.
PARSER_ARGS = dict(
    parser=dict(type='path'),
    timeout=dict(type='int'),
)


def manager_program(module):
    """The zelrzp-manager to run: the manager option, a path or a name looked up on PATH."""
    name = module.params['manager']
    if '/' in name:
        return name
    return module.get_bin_path(name, required=True)


def common_options(module):
    """The options every command takes from the module's parameters."""
    argv = []
    if module.params.get('parser'):
        argv.append('--parser=%s' % module.params['parser'])
    if module.params.get('timeout'):
        argv.append('--timeout=%d' % module.params['timeout'])
    return argv


def run_json(module, argv, ok_statuses, cwd=None):
    """Runs zelrzp-manager with argv and returns (exit status, its JSON, standard error).
    Fails the module when the exit status is not among ok_statuses or the output is no JSON."""
    status, out, err = module.run_command(argv, cwd=cwd)
    data = None
    if out.strip():
        try:
            data = json.loads(out)
        except ValueError:
            data = None
    if status not in ok_statuses or not isinstance(data, dict):
        module.fail_json(msg='zelrzp-manager exited %d: %s' % (status, err.strip() or out.strip()[:2000]),
                         rc=status, cmd=argv, stderr=err)
    return status, data, err


def write_answers(answers, directory):
    """Writes a dictionary of answers as an answers file (NAME=VALUE a line) readable by the
    owner alone; returns its path. The caller removes it."""
    handle, path = tempfile.mkstemp(prefix='answers-', dir=directory)
    with os.fdopen(handle, 'w') as out:
        for name in sorted(answers):
            value = answers[name]
            if value is None:
                value = ''
            value = str(value)
            if '\n' in value or '\n' in name or '=' in name:
                raise ValueError('the answer %s cannot be written on one line' % name)
            out.write('%s=%s\n' % (name, value))
    os.chmod(path, 0o600)
    return path


def make_archive(source, archive):
    """A gzip'd tar archive of the directory source, its members relative to it, written beside
    archive first and then moved over it."""
    parent = os.path.dirname(archive) or '.'
    handle, partial = tempfile.mkstemp(prefix='.snapshot-', suffix='.tar.gz', dir=parent)
    os.close(handle)
    try:
        with tarfile.open(partial, 'w:gz') as tar:
            for entry in sorted(os.listdir(source)):
                tar.add(os.path.join(source, entry), arcname=entry)
        os.chmod(partial, 0o600)
        os.rename(partial, archive)
    except Exception:
        os.unlink(partial)
        raise


def _safe_member(member):
    name = member.name
    parts = name.split('/')
    if name.startswith('/') or '..' in parts:
        return 'a path outside the archive'
    if not (member.isfile() or member.isdir()):
        return 'neither a file nor a directory'
    return None


def extract_archive(archive, dest):
    """Unpacks a snapshot archive into the new directory dest. A snapshot holds only files and
    directories below its top: any other member (a link, a device, an absolute path or one with
    '..') is refused with ValueError before anything is written."""
    with tarfile.open(archive, 'r:gz') as tar:
        members = tar.getmembers()
        for member in members:
            why = _safe_member(member)
            if why:
                raise ValueError('%s: %s is %s' % (archive, member.name, why))
        os.makedirs(dest)
        for member in members:
            member.mode &= 0o755
            tar.extract(member, dest, set_attrs=True)


def remove_tree(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    elif os.path.lexists(path):
        os.unlink(path)
