"""The base of system tests: a fresh world per test, its logs shown when the test fails, sanitizer reports as faults."""
import os
import signal
import unittest

import world

SANITIZED = os.environ.get("KORVID_SANITIZE", "")
SLOWED = bool(SANITIZED or world.EMULATOR)  # smaller loads, and the process's size tells nothing


class SystemTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.world = world.World()
        self.enterContext(self.world) if hasattr(self, "enterContext") else self._enter()
        self.addCleanup(self._check_end)

    def _enter(self):
        self.world.__enter__()
        self.addCleanup(self.world.__exit__)

    def _check_end(self):
        daemon = self.world.daemon
        if daemon and daemon.running():
            status = daemon.stop(signal.SIGTERM)
            self.assertEqual(status, 0, f"end by SIGTERM; standard error: {daemon.stderr[-3000:]}")
        errors = daemon.stderr if daemon else ""
        for mark in ("ERROR: AddressSanitizer", "WARNING: ThreadSanitizer", "runtime error:", "LeakSanitizer"):
            self.assertNotIn(mark, errors, errors[-6000:])
        failed = any(error for _, error in getattr(self._outcome, "errors", []) or []) or \
            any(entry[0] is self for entry in getattr(self._outcome.result, "failures", []) +
                getattr(self._outcome.result, "errors", []))
        if failed and daemon:
            print(f"--- korvid stderr\n{errors[-3000:]}\n--- dpi.log\n{world.text_of(world.LOG)[-4000:]}")

    def assert_fails(self, text, method, arguments=None):
        """The method answers a failure with this text."""
        reply = self.world.reply(method, arguments)
        self.assertEqual(reply, {"success": False, "result": {}, "error": {"errorCode": -1, "errorMessage": text}})

    def log(self):
        return world.text_of(world.LOG)
