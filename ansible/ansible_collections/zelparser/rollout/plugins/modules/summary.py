#!/usr/bin/python
# -*- coding: utf-8 -*-
# Copyright: 2026 zelparser developers
# GNU General Public License v2.0 or later (see COPYING or https://www.gnu.org/licenses/old-licenses/gpl-2.0.txt)
from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
module: summary
short_description: Write the rollout's summary on the controller
description:
  - Writes C(summary.json) and C(summary.txt) into I(dest_dir) on the controller from the
    role C(zelparser.rollout.rollout)'s templates of the same names, each file replaced as a
    whole. The role runs it after every batch and at the end of a rollout.
  - An action plugin that runs on the controller alone; nothing is run on a host.
version_added: 1.0.0
author:
  - zelparser developers (@zelparser)
options:
  dest_dir:
    description:
      - The directory on the controller that receives the two files; it must exist.
    type: path
    required: true
extends_documentation_fragment:
  - ansible.builtin.action_common_attributes
attributes:
  check_mode:
    support: full
    details: The summary is written in check mode as well; it is the controller's record of the run.
  diff_mode:
    support: none
  platform:
    platforms: posix
notes:
  - Its variables are the play's (the hosts' install results, the fleet's check); outside the
    role the templates find none of them.
seealso:
  - module: zelparser.rollout.check
  - module: zelparser.rollout.install
'''

EXAMPLES = r'''
- name: Write the rollout's summary
  zelparser.rollout.summary:
    dest_dir: "{{ zelparser_report_dir }}"
  run_once: true
'''

RETURN = r'''
files:
  description: The files written.
  returned: success
  type: list
  elements: str
  sample: [/srv/rollout/zelparser-rollout/summary.json, /srv/rollout/zelparser-rollout/summary.txt]
'''
