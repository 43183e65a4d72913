"""Kits from file servers and record files to them, through real servers and one that misbehaves."""
import hashlib
import os
import pathlib
import time

import case
import world
from servers import Hostile, Nginx, Vsftpd

APPS = {1: "Mail"}
ENFORCED, ENFORCED_OLD = "appmon_enforcement_flow_records.csv", "appmon_enforcement_flow_records_old.csv"
MONITORED, MONITORED_OLD = "appmon_monitor_flow_records.csv", "appmon_monitor_flow_records_old.csv"
METHODS = {"GETavDpiStats": (ENFORCED, ENFORCED_OLD), "GETavAppMonStats": (MONITORED, MONITORED_OLD)}
SUCCESS, FAILURE = "STATS CSV Upload SUCCESS", "STATS CSV Upload FAILURE"


def md5(data):
    return hashlib.md5(data).hexdigest()


class Transfers(case.SystemTest):
    def setUp(self):
        super().setUp()
        self.folder = pathlib.Path("/tmp/servers")
        self.world.start("--report-interval", "0")
        self.world.log_level("DEBUG")

    def serve(self, server):
        self.addCleanup(server.stop)
        return server.start()

    def real_servers(self):
        return (Vsftpd(self.folder / "ftp"), Nginx(self.folder / "http"), Nginx(self.folder / "https", tls=True))

    def exports(self, method, server, path="", **changes):
        request = {"username": server.user, "password": server.password, "filePath": server.url(path), **changes}
        reply = self.world.reply(method, {name: value for name, value in request.items() if value is not None})
        self.assertEqual(reply["error"], {"errorCode": 0, "errorMessage": ""})
        return reply["result"]

    def log_lines(self, text, count, timeout=None):
        world.wait_until(lambda: self.log().count(text) >= count, f"{count} times {text!r}", timeout)
        self.assertEqual(self.log().count(text), count)

    def download(self, server, path, digest):
        self.world.call("CREATEavSignatureProfile", {"username": server.user, "password": server.password,
                                                      "filePath": server.url(path), "fileCheckSum": digest})
        before = len(self.log())
        self.world.settle()
        return "Successfully downloaded the kit" in self.log()[max(0, before - 4000):]

    def fill(self, name, size=3000):
        data = os.urandom(size)
        (world.FLASH / name).write_bytes(data)
        return data

    def test_exports_to_real_servers_arrive_whole(self):
        done = 0
        for server in self.real_servers():
            self.serve(server)
            for method, (main, old) in METHODS.items():
                with self.subTest(server=server.url(), method=method):
                    data = {main: self.fill(main)}
                    (world.FLASH / old).unlink(missing_ok=True)
                    result = self.exports(method, server, f"not/yet/there-{done}")
                    self.assertEqual(result, {"fileCheckSum": "", "filename": main, "oldFilePresent": False,
                                              "oldFileCheckSum": ""})
                    done += 1
                    self.log_lines(SUCCESS, done)
                    data[old] = self.fill(old, 200000)
                    result = self.exports(method, server, f"not/yet/there-{done}/")
                    self.assertEqual((result["filename"], result["oldFilePresent"]), (main, True))
                    done += 2
                    self.log_lines(SUCCESS, done)
                    for name, content in data.items():
                        stored = server.store / f"not/yet/there-{done - 2}" / name
                        self.assertEqual(md5(stored.read_bytes()), md5(content))
        self.assertNotIn(FAILURE, self.log())

    def test_kits_from_real_servers(self):
        world.make_kit(output="/tmp/kit", apps=APPS)
        kit = pathlib.Path("/tmp/kit").read_bytes()
        for server in self.real_servers():
            self.serve(server)
            (server.store / "kit").write_bytes(kit)
            with self.subTest(server.url()):
                world.KIT.unlink(missing_ok=True)
                self.assertTrue(self.download(server, "kit", md5(kit)))
                self.assertEqual(world.KIT.read_bytes(), kit)
                self.log_lines("Md5sum not matching", 0)
        server = Nginx(self.folder / "http2")
        self.serve(server)
        (server.store / "kit").write_bytes(kit)
        for number, wrong in enumerate((md5(b"other"), md5(kit).upper(), "", None), 1):
            self.download(server, "kit", wrong) if wrong is not None else self.world.call(
                "CREATEavSignatureProfile", {"username": server.user, "password": server.password,
                                             "filePath": server.url("kit")})
            self.world.settle()
            self.log_lines("KIT Download Failure : Md5sum not matching\n", number)
        self.world.call("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})

    def test_kits_from_a_bad_server(self):
        server = self.serve(Hostile(os.urandom(50000)))
        world.KIT.write_bytes(b"before")
        for path in ("empty", "close/0", "reset/0", "garbage"):
            self.download(server, path, md5(b""))
            if path != "empty":
                self.assertIn("KIT Download FAILURE : CURLcode ", self.log())
            self.assertEqual(world.KIT.read_bytes(), b"before", f"{path}: nothing came, nothing is touched")
        self.download(server, "close/1000", md5(server.body))
        self.assertEqual(world.KIT.stat().st_size, 1000)
        port = server.port
        server.stop()
        self.download(server, "ok", md5(server.body)) if server.port else None
        self.assertGreaterEqual(self.log().count("Failed to download the kit\n"), 5)
        self.assertIsNotNone(port)
        self.world.settle()

    def test_a_second_request_takes_over_from_a_running_upload(self):
        data = self.fill(MONITORED, 16_000_000)
        slow = Vsftpd(self.folder / "slow")
        slow.rate = 2_000_000
        self.serve(slow)
        self.exports("GETavAppMonStats", slow, "first")
        partial = slow.store / "first" / MONITORED
        world.wait_until(lambda: partial.exists() and partial.stat().st_size > 0, "the first upload")
        self.exports("GETavDpiStats", slow)  # another slot: not held up, no file to send
        self.log_lines(f"File {ENFORCED} not present\n", 1)
        fast = self.serve(Nginx(self.folder / "http"))
        self.exports("GETavAppMonStats", fast, "second")
        self.log_lines(SUCCESS, 1)
        self.assertEqual(md5((fast.store / "second" / MONITORED).read_bytes()), md5(data))
        self.assertLess(partial.stat().st_size, len(data), "the first one was cut short")
        self.log_lines(FAILURE, 1)

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

    def test_no_slot_is_ever_leaked(self):
        server = self.serve(Hostile())
        self.fill(ENFORCED)
        idle = self.world.status("Threads")
        kinds = ["ok", "close/100", "reset/100", "status/500", "garbage"]
        for number in range(1000 if not case.SANITIZED else 100):
            self.exports("GETavDpiStats", server, kinds[number % len(kinds)])
            world.wait_until(lambda: self.world.status("Threads") == idle, "the upload's end")
        self.exports("GETavDpiStats", server, "ok")
        world.wait_until(lambda: server.requests[-1].path.startswith("/ok/") and server.requests[-1].complete, "one more")

    def test_arguments_that_are_missing_or_too_long(self):
        server = self.serve(Hostile())
        self.fill(ENFORCED)
        self.exports("GETavDpiStats", server, "ok", password=None)
        request = server.wait_for(lambda one: one.complete, "the upload")
        self.assertIn("authorization", request.headers)
        self.exports("GETavDpiStats", server, "ok/" + "d" * 230)
        self.exports("GETavDpiStats", server, "ok/" + "d" * 3000)
        self.exports("GETavDpiStats", server, "ok", username="u" * 5000)
        world.wait_until(lambda: len(server.requests) >= 2 and server.requests[-1].complete, "the last upload")
        self.assertEqual(len(server.requests), 2, "an URL that does not fit is refused, never cut")
