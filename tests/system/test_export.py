"""The export methods against a server that misbehaves: waits, slots, arguments."""
import os
import time

import case
import world
from servers import Hostile

ENFORCED, MONITORED = "appmon_enforcement_flow_records.csv", "appmon_monitor_flow_records.csv"
SUCCESS, FAILURE = "STATS CSV Upload SUCCESS", "STATS CSV Upload FAILURE"


class Export(case.SystemTest):
    def setUp(self):
        super().setUp()
        self.world.start("--report-interval", "0")
        self.world.log_level("DEBUG")

    def serve(self, server):
        self.addCleanup(server.stop)
        return server.start()

    def exports(self, method, server, path="", **changes):
        request = {"username": server.user, "password": server.password, "filePath": server.url(path), **changes}
        reply = self.world.reply(method, {name: value for name, value in request.items() if value is not None})
        self.assertEqual(reply["error"], {"errorCode": 0, "errorMessage": ""})
        return reply["result"]

    def fill(self, name, size=3000):
        data = os.urandom(size)
        (world.FLASH / name).write_bytes(data)
        return data

    def test_a_stalled_server_is_waited_for_no_longer_than_five_seconds(self):
        self.fill(MONITORED, 3_000_000)
        server = self.serve(Hostile())
        self.exports("GETavAppMonStats", server, "stall/1000")
        server.wait_for(lambda request: len(request.body) >= 1000, "the upload")
        time.sleep(0.2)
        began = time.monotonic()
        result = self.exports("GETavAppMonStats", server, "ok")
        self.assertLess(time.monotonic() - began, 8)
        self.assertEqual(result["filename"], MONITORED)
        self.world.settle()
        self.assertFalse([request for request in server.requests if request.path.startswith("/ok/")], "nothing started")
        server.release()
        world.wait_until(lambda: SUCCESS in self.log() or FAILURE in self.log(), "the end of the first")
        self.exports("GETavAppMonStats", server, "ok")
        server.wait_for(lambda request: request.path.startswith("/ok/") and request.complete, "a later upload")

    def test_an_upload_that_runs_does_not_hold_up_the_end(self):
        self.fill(MONITORED, 3_000_000)
        server = self.serve(Hostile())
        self.exports("GETavAppMonStats", server, "stall/1000")
        server.wait_for(lambda request: len(request.body) >= 1000, "the upload")
        began = time.monotonic()
        self.assertEqual(self.world.daemon.stop(), 0)
        self.assertLess(time.monotonic() - began, 5)

    def test_no_slot_is_ever_leaked(self):
        server = self.serve(Hostile())
        self.fill(ENFORCED)
        idle = self.world.status("Threads")
        kinds = ["ok", "close/100", "reset/100", "status/500", "garbage"]
        for number in range(1000 if not case.SLOWED else 100):
            self.exports("GETavDpiStats", server, kinds[number % len(kinds)])
            # The answer comes before the upload has begun.
            world.wait_until(lambda: len(server.requests) > number and self.world.status("Threads") == idle,
                             "the upload's end")
        self.exports("GETavDpiStats", server, "ok")
        world.wait_until(lambda: server.requests[-1].path.startswith("/ok/") and server.requests[-1].complete, "one more")

    def test_each_method_sends_its_own_file_and_the_rotated_one(self):
        server = self.serve(Hostile())
        for method, name in (("GETavDpiStats", ENFORCED), ("GETavAppMonStats", MONITORED)):
            contents = {f"/ok/{file}": self.fill(file) for file in (name, name.replace(".csv", "_old.csv"))}
            self.assertTrue(self.exports(method, server, "ok")["oldFilePresent"])
            world.wait_until(lambda: len([one for one in server.requests if one.complete]) == len(contents), "both")
            self.assertEqual({one.path: bytes(one.body) for one in server.requests}, contents)
            server.requests.clear()

    def test_arguments_that_are_missing_or_too_long(self):
        server = self.serve(Hostile())
        self.fill(ENFORCED)
        self.exports("GETavDpiStats", server, "ok", password=None)
        request = server.wait_for(lambda one: one.complete, "the upload")
        self.assertIn("authorization", request.headers)
        self.exports("GETavDpiStats", server, "ok", username=None, password=None)
        world.wait_until(lambda: len(server.requests) == 2 and server.requests[-1].complete, "the second upload")
        self.assertEqual(server.requests[-1].headers["authorization"], "Basic Og==", "nobody, not whoever was before")
        self.exports("GETavDpiStats", server, "ok/" + "d" * 230)
        self.exports("GETavDpiStats", server, "ok/" + "d" * 3000)
        self.exports("GETavDpiStats", server, "ok", username="u" * 5000)
        world.wait_until(lambda: len(server.requests) >= 3 and server.requests[-1].complete, "the last upload")
        self.assertEqual(len(server.requests), 3, "an URL that does not fit is refused, never cut")
