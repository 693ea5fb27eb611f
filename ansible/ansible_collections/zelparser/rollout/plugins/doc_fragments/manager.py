# -*- coding: utf-8 -*-
# Copyright: 2026 zelparser developers
# GNU General Public License v2.0 or later (see COPYING or https://www.gnu.org/licenses/old-licenses/gpl-2.0.txt)

# The options the modules share (module_utils/manager.py's MANAGER_ARGS and PARSER_ARGS):
# zelparser.rollout.manager for where zelrzp-manager is, zelparser.rollout.manager.parser for
# the modules that start the sub-service.

from __future__ import absolute_import, division, print_function
__metaclass__ = type


class ModuleDocFragment(object):

    DOCUMENTATION = r'''
options:
  manager:
    description:
      - The C(zelrzp-manager) program, a path or a name looked up on C(PATH).
    type: path
    default: zelrzp-manager
'''

    PARSER = r'''
options:
  parser:
    description:
      - The sub-service executable; by default the one beside C(zelrzp-manager).
    type: path
  timeout:
    description:
      - Longest wait in seconds for any answer of the sub-service (the program's default is
        60).
    type: int
'''
