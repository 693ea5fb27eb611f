# -*- coding: utf-8 -*-
# Copyright: 2026 zelparser developers
# GNU General Public License v2.0 or later (see COPYING or https://www.gnu.org/licenses/old-licenses/gpl-2.0.txt)
"""zelparser.rollout.summary: writes the rollout's summary.json and summary.txt on the
controller from the role's templates, in the controller's own process. The template module
would run two modules a file (stat, then copy) for what is a local write, after every batch."""
from __future__ import absolute_import, division, print_function
__metaclass__ = type

import os
import tempfile

from ansible.errors import AnsibleActionFail
from ansible.module_utils.common.text.converters import to_bytes, to_text
from ansible.plugins.action import ActionBase
from ansible.template import AnsibleEnvironment

# In this order: summary.txt reads the summary.json just written.
SUMMARY_FILES = ('summary.json', 'summary.txt')


def write_whole(path, text):
    """Replaces path by text: a reader sees the old file or the new one, never a part."""
    handle, partial = tempfile.mkstemp(prefix='.summary-', dir=os.path.dirname(path) or '.')
    try:
        with os.fdopen(handle, 'wb') as out:
            out.write(to_bytes(text, errors='surrogate_or_strict'))
        os.chmod(partial, 0o644)
        os.replace(partial, path)
    except BaseException:
        os.unlink(partial)
        raise


class ActionModule(ActionBase):

    TRANSFERS_FILES = False
    _VALID_ARGS = frozenset(('dest_dir',))

    def render(self, name, task_vars):
        source = self._find_needle('templates', name + '.j2')
        with open(to_bytes(source, errors='surrogate_or_strict'), 'rb') as template:
            data = to_text(template.read(), errors='surrogate_or_strict')
        # the template module's environment, so that the text is the same as it would write
        templar = self._templar.copy_with_new_env(environment_class=AnsibleEnvironment,
                                                  available_variables=task_vars)
        return templar.do_template(data, preserve_trailing_newlines=True, escape_backslashes=False)

    def run(self, tmp=None, task_vars=None):
        result = super(ActionModule, self).run(tmp, task_vars)
        del tmp
        dest_dir = self._task.args.get('dest_dir')
        if not dest_dir:
            raise AnsibleActionFail('dest_dir is required')
        if not os.path.isdir(dest_dir):
            raise AnsibleActionFail('%s is no directory' % dest_dir)
        files = []
        for name in SUMMARY_FILES:
            path = os.path.join(dest_dir, name)
            try:
                write_whole(path, self.render(name, task_vars or {}))
            except (IOError, OSError) as e:
                raise AnsibleActionFail('%s: %s' % (path, to_text(e)))
            files.append(path)
        result.update(changed=False, files=files)
        return result
