# rollout_timing.py - an Ansible callback for bench/rollout/rollout_bench.sh: every task's time
# on every host, and every play's start and end, one JSON object a line in the file
# $ZEL_TIMING_LOG. Enabled with ANSIBLE_CALLBACKS_ENABLED=rollout_timing.
from __future__ import absolute_import, division, print_function
__metaclass__ = type

import json
import os
import time

from ansible.plugins.callback import CallbackBase

DOCUMENTATION = '''
name: rollout_timing
type: aggregate
short_description: every task's time per host, as JSON lines
description: Writes every task's time on every host and every play's span to $ZEL_TIMING_LOG.
requirements: [ZEL_TIMING_LOG set]
'''


class CallbackModule(CallbackBase):
    CALLBACK_VERSION = 2.0
    CALLBACK_TYPE = 'aggregate'
    CALLBACK_NAME = 'rollout_timing'
    CALLBACK_NEEDS_ENABLED = True

    def __init__(self):
        super(CallbackModule, self).__init__()
        self._out = open(os.environ['ZEL_TIMING_LOG'], 'a')
        self._started = {}
        self._play = None

    def _write(self, **record):
        self._out.write(json.dumps(record) + '\n')
        self._out.flush()

    def _end_play(self):
        if self._play:
            self._write(event='play', name=self._play[0], start=self._play[1], end=time.time())

    def v2_playbook_on_play_start(self, play):
        self._end_play()
        self._play = (play.get_name(), time.time())

    def v2_runner_on_start(self, host, task):
        self._started[(host.get_name(), task._uuid)] = time.time()

    def _done(self, result, state):
        key = (result._host.get_name(), result._task._uuid)
        start = self._started.pop(key, None)
        if start is not None:
            self._write(event='task', host=key[0], task=result._task.get_name(), play=self._play[0],
                        state=state, start=start, end=time.time())

    def v2_runner_on_ok(self, result):
        self._done(result, 'ok')

    def v2_runner_on_failed(self, result, ignore_errors=False):
        self._done(result, 'failed')

    def v2_runner_on_skipped(self, result):
        self._done(result, 'skipped')

    def v2_playbook_on_stats(self, stats):
        self._end_play()
        self._play = None
        self._out.close()
