"""Kits fetched from, and record files sent to, real file servers; and what a hostile one can do to the daemon."""
import hashlib
import pathlib
import shutil
import signal
import tempfile
import time

import case
import world
from servers import Hostile, Nginx, Sshd, Vsftpd

KIT = bytes(range(256)) * 2000
RECORDS = world.FLASH / "appmon_enforcement_flow_records.csv"
OLD_RECORDS = world.FLASH / "appmon_enforcement_flow_records_old.csv"
MONITORED = world.FLASH / "appmon_monitor_flow_records.csv"


def md5(data):
    return hashlib.md5(data).hexdigest()


class Transfers(case.SystemTest):
    def setUp(self):
        super().setUp()
        self.folder = pathlib.Path(tempfile.mkdtemp(dir="/tmp"))
        self.addCleanup(shutil.rmtree, self.folder)
        self.world.start()
        self.world.log_level("DEBUG")

    def serve(self, server):
        self.addCleanup(server.stop)
        return server.start()

    def real_servers(self):
        return [Vsftpd(self.folder / "ftp"), Nginx(self.folder / "http"), Nginx(self.folder / "https", tls=True),
                Sshd(self.folder / "sftp")]

    def fetch(self, server, path, data=KIT, **changes):
        """Has a kit downloaded; the log lines that tell of it."""
        before = len(self.log())
        self.world.call("CREATEavSignatureProfile", {"username": server.user, "password": server.password, "filePath":
                                                     server.url(path), "fileCheckSum": md5(data), **changes})
        self.world.settle()
        return self.log()[before:]

    def export(self, server, path, method="GETavDpiStats", **changes):
        arguments = {"username": server.user, "password": server.password, "filePath": server.url(path), **changes}
        return self.world.call(method, arguments)

    def wait_for_log(self, text, count=1):
        world.wait_until(lambda: self.log().count(text) >= count, f"{text} in the log: {self.log()}")

    # Kits.

    def test_kit_from_every_kind_of_server(self):
        for server in self.real_servers():
            with self.subTest(server.scheme):
                self.serve(server)
                (server.store / "kits").mkdir()
                (server.store / "kits/new").write_bytes(KIT)
                world.KIT.unlink(missing_ok=True)
                lines = self.fetch(server, "kits/new")
                self.assertIn("Successfully downloaded the kit\n", lines, server.log())
                self.assertEqual(world.KIT.read_bytes(), KIT)
                self.assertIn("Md5sum not matching", self.fetch(server, "kits/new", fileCheckSum=md5(KIT).upper()))
                self.assertNotIn(server.password, self.log() + world.text_of(world.REQUEST_LOG))

    def test_certificate_of_a_stranger_is_refused(self):
        world.KIT.write_bytes(b"earlier")
        server = self.serve(Nginx(self.folder / "https", tls=True, trusted=False))
        self.assertIn("KIT Download FAILURE : CURLcode 60\n", self.fetch(server, "kit"))
        self.assertEqual(world.KIT.read_bytes(), b"earlier")

    def test_kit_from_a_hostile_server(self):
        server = self.serve(Hostile(KIT))
        mismatch = "KIT Download Failure : Md5sum not matching\n"
        for behaviour, line, left in (
            ("ok", "KIT Download SUCCESS \n", KIT),
            ("close/1000", "KIT Download FAILURE : CURLcode 18\n", KIT[:1000]),
            ("close/0", "KIT Download FAILURE : CURLcode 18\n", None),
            ("reset/0", "KIT Download FAILURE : CURLcode 56\n", None),
            ("garbage", "KIT Download FAILURE : CURLcode 1\n", None),
            ("empty", mismatch, None), ("status/404", mismatch, b"no\n"), ("status/401", mismatch, b"no\n"),
            ("longer/500", "KIT Download SUCCESS \n", KIT),
        ):
            with self.subTest(behaviour):
                world.KIT.unlink(missing_ok=True)
                self.assertIn(line, self.fetch(server, behaviour))
                self.assertEqual(world.KIT.read_bytes() if world.KIT.exists() else None, left)

    def test_daemon_ends_while_a_download_stalls(self):
        server = self.serve(Hostile(KIT))
        self.world.call("CREATEavSignatureProfile", {"filePath": server.url("stall/1000"), "fileCheckSum": ""})
        server.wait_for(lambda request: request.method == "GET", "the request")
        begun = time.monotonic()
        self.assertEqual(self.world.daemon.stop(signal.SIGINT), 0)
        self.assertLess(time.monotonic() - begun, 5 if case.SLOWED else 1)

    # Record files.

    def test_records_to_every_kind_of_server(self):
        content, old = b"header\n" + b"1,2,3\n" * 30000, b"header\nold\n"
        for server in self.real_servers():
            with self.subTest(server.scheme):
                self.serve(server)
                # Alone into a folder that is not there; then both into one that is: of two clients that make the same
                # folder at once, an FTP server refuses one.
                RECORDS.write_bytes(content)
                OLD_RECORDS.unlink(missing_ok=True)
                before = self.log().count("STATS CSV Upload SUCCESS")
                self.assertFalse(self.export(server, "switch/today")["oldFilePresent"])
                self.wait_for_log("STATS CSV Upload SUCCESS : CURLcode 0\n", before + 1)
                self.assertEqual((server.store / "switch/today" / RECORDS.name).read_bytes(), content, server.log())
                RECORDS.write_bytes(content * 2)
                OLD_RECORDS.write_bytes(old)
                self.assertTrue(self.export(server, "switch/today/")["oldFilePresent"])
                self.wait_for_log("STATS CSV Upload SUCCESS : CURLcode 0\n", before + 3)
                self.assertEqual((server.store / "switch/today" / RECORDS.name).read_bytes(), content * 2)
                self.assertEqual((server.store / "switch/today" / OLD_RECORDS.name).read_bytes(), old)
                self.assertNotIn(server.password, self.log() + world.text_of(world.REQUEST_LOG))

    def test_upload_that_fails_leaves_the_way_free_for_the_next(self):
        RECORDS.write_bytes(b"r" * 100000)
        server = self.serve(Hostile())
        for behaviour in ("reset/1000", "close/1000", "garbage"):
            failures = self.log().count("STATS CSV Upload FAILURE : CURLcode ")
            self.export(server, behaviour)
            self.wait_for_log("STATS CSV Upload FAILURE : CURLcode ", failures + 1)
        self.export(server, "ok", password="wrong")
        self.wait_for_log("STATS CSV Upload SUCCESS")
        self.assertEqual(bytes(server.requests[-1].body), b"r" * 100000)
        RECORDS.unlink()
        self.export(server, "ok")
        self.wait_for_log(f"File {RECORDS.name} not present\n")

    def test_new_request_stops_the_upload_that_runs(self):
        # Slow enough to be caught, fast enough for what is on its way to be taken within the daemon's five seconds.
        server = self.serve(Vsftpd(self.folder / "ftp", rate=4000000))
        RECORDS.write_bytes(b"1" * 40000000)
        self.export(server, "first")
        first = server.store / "first" / RECORDS.name
        world.wait_until(lambda: first.exists() and first.stat().st_size > 0, "the first bytes")
        RECORDS.unlink()  # the upload that runs is not ended by a file that has become short
        RECORDS.write_bytes(b"2" * 100000)
        self.export(server, "second")
        self.wait_for_log("STATS CSV Upload SUCCESS : CURLcode 0\n")
        self.assertIn("STATS CSV Upload FAILURE : CURLcode ", self.log())
        self.assertLess(first.stat().st_size, 40000000)
        self.assertEqual((server.store / "second" / RECORDS.name).read_bytes(), b"2" * 100000)

    def test_lines_that_are_appended_meanwhile_go_with_the_next_upload(self):
        server = self.serve(Vsftpd(self.folder / "ftp", rate=2000000))
        RECORDS.write_bytes(b"1" * 4000000)
        self.export(server, "today")
        stored = server.store / "today" / RECORDS.name
        world.wait_until(lambda: stored.exists() and stored.stat().st_size > 0, "the first bytes")
        with open(RECORDS, "ab") as out:
            out.write(b"2" * 100000)
        self.wait_for_log("STATS CSV Upload SUCCESS")
        self.assertEqual(stored.stat().st_size, 4000000)

    def test_stalled_upload_holds_up_no_other_slot(self):
        RECORDS.write_bytes(b"e" * 500000)
        MONITORED.write_bytes(b"m" * 1000)
        server = self.serve(Hostile())
        self.export(server, "stall/1000")
        stalled = server.wait_for(lambda request: len(request.body) == 1000, "the stalled upload")
        self.export(server, "ok", method="GETavAppMonStats")
        done = server.wait_for(lambda request: request.complete, "the other upload")
        self.assertEqual(bytes(done.body), b"m" * 1000)
        self.assertFalse(stalled.complete)
        server.release()
        self.wait_for_log("STATS CSV Upload SUCCESS", 2)
        self.assertEqual(bytes(stalled.body), b"e" * 500000)
