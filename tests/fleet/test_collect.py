"""korvid-collect against ClickHouse: every line once, whatever comes in and whatever ends meanwhile."""
import http.server
import os
import pathlib
import random
import resource
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest

import clickhouse
import records

BUILD = pathlib.Path(os.environ["KORVID_BUILD"])
KILLS = int(os.environ.get("KORVID_KILLS", "10"))
HOUR, DAY = 3600, 86400
TABLES = {"enforcement": "enforcement", "monitoring": "monitoring", "application": "applications"}


def generate(folder, seed, boxes, lines, seconds=DAY):
    folder.mkdir(exist_ok=True)
    subprocess.run([BUILD / "bench/fleet/fleet-generate", folder, str(seed), str(boxes), str(lines), "3",
                    str(int(time.time())), str(seconds)], check=True)


def http_server(test, answer):
    """The address of a server for as long as a test runs: answer(path, body) gives a status and a text."""
    class Handler(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            status, text = answer(self.path, self.rfile.read(int(self.headers["Content-Length"])))
            self.send_response(status)
            self.send_header("Content-Length", str(len(text)))
            self.end_headers()
            self.wfile.write(text)

        def log_message(self, *_):
            pass
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    test.addCleanup(server.server_close)
    test.addCleanup(server.shutdown)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return f"http://127.0.0.1:{server.server_port}/"


class Spool(unittest.TestCase):
    def setUp(self):
        self.top = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.top)
        self.spool = self.top / "spool"
        self.spool.mkdir()
        self.now = int(time.time()) - HOUR
        self.url = "http://127.0.0.1:9/"

    def command(self, *options):
        return [BUILD / "fleet/korvid-collect", "--server", self.url, "--settle", "0", *map(str, options), self.spool]

    def collect(self, *options):
        """One pass; what it has told."""
        done = subprocess.run(self.command("--once", *options), capture_output=True, text=True, timeout=120, check=False)
        self.assertIn(done.returncode, (0, 1), done.stderr)
        self.status = done.returncode
        return done.stderr

    def quarantined(self):
        return [line.split("\t")[4:] for path in self.spool.glob(".quarantine/**/*.bad")
                for line in path.read_text().splitlines()]

    def visible(self):
        return sorted(str(path.relative_to(self.spool)) for path in self.spool.rglob("*") if path.is_file() and
                      not any(part.startswith(".") for part in path.relative_to(self.spool).parts))


class WithoutServer(Spool):
    def test_tells_what_would_be_loaded_and_changes_nothing(self):
        path = records.put(self.spool / "a", "monitoring", [records.monitored(self.now), "no line"])
        path.with_name(path.name + ".md5").write_text("0" * 32)
        before = self.visible()
        told = self.collect("--dry-run")
        self.assertIn("a/appmon_monitor_flow_records.csv: monitoring, 1 lines to load, 1 to quarantine", told)
        self.assertEqual((self.status, self.visible(), list(self.spool.glob(".*"))), (1, before, []))

    def test_what_may_not_be_read_is_told_and_left(self):
        records.put(self.spool / "a", "monitoring", [records.monitored(self.now)]).chmod(0)
        records.put(self.spool / "b", "monitoring", [records.monitored(self.now)]).parent.chmod(0)
        command = ["setpriv", "--bounding-set", "-dac_override,-dac_read_search", *self.command("--once")]
        done = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual(done.returncode, 1, done.stderr)
        for told in ("a/appmon_monitor_flow_records.csv: Permission denied", "b: Permission denied"):
            self.assertIn(told, done.stderr)

    def test_more_folders_than_a_process_has_descriptors_for(self):
        for number in range(1100):
            path = records.put(self.spool / str(number), "monitoring", [])
            path.with_name(path.name + ".md5").write_text("0" * 32)
        resource.setrlimit(resource.RLIMIT_NOFILE, (1024, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))
        self.collect()
        self.assertEqual(self.visible(), [])


class Answered(Spool):
    """A server that keeps what it is sent and answers with a text."""

    def setUp(self):
        super().setUp()
        self.sent, self.answer = [], b""
        self.url = http_server(self, lambda _, sent: self.sent.append(sent) or (200, self.answer))

    def start(self, *options):
        self.told = self.top / "told"
        with open(self.told, "wb") as told:
            process = subprocess.Popen(self.command(*options), stderr=told)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def wait(self, predicate):
        end = time.monotonic() + 30
        while not predicate():
            self.assertLess(time.monotonic(), end, self.told.read_text())
            time.sleep(0.02)

    def done(self):
        return list(self.spool.rglob(".*.done"))

    def test_a_file_that_waits_for_others_is_read_once(self):
        path = records.put(self.spool / "a", "monitoring", [records.monitored(self.now)])
        os.utime(path, (self.now, self.now))
        self.start("--linger", "1")
        self.wait(self.done)
        self.assertEqual((self.told.read_text().count("1 lines loaded"), len(self.sent)), (1, 1))

    def test_a_page_is_no_answer(self):
        records.put(self.spool / "a", "monitoring", [records.monitored(self.now)])
        self.answer = b"<title>Welcome</title>"
        process = self.start("--once")
        self.wait(lambda: "tried again until it answers" in self.told.read_text() or process.poll() is not None)
        self.assertEqual(self.done(), [], self.told.read_text())
        self.answer = b""
        self.assertEqual((process.wait(30), len(self.done())), (0, 1))

    def test_a_full_quarantine_holds_nobody_up(self):
        full = self.spool / ".quarantine/a/appmon_monitor_flow_records.bad"
        full.parent.mkdir(parents=True)
        with open(full, "wb") as file:
            file.truncate(300 << 20)
        records.put(self.spool / "a", "monitoring", ["no line", records.monitored(self.now)])
        self.assertIn("the box's quarantine is full; set aside", self.collect())
        self.assertEqual((len(self.sent), len(list(self.spool.rglob(".*.rejected")))), (1, 1))

    def test_a_quarantine_that_leads_elsewhere_takes_nothing(self):
        """Who may upload may have made it."""
        elsewhere = self.top / "elsewhere"
        elsewhere.mkdir()
        records.put(self.spool / "a", "monitoring", ["no line"])
        for name, make in (("itself", lambda made: made.symlink_to(elsewhere)),
                           ("folder", lambda made: made.mkdir() or (made / "a").symlink_to(elsewhere)),
                           ("file", lambda made: (made / "a").mkdir(parents=True) or os.mkfifo(made / "a/appmon_monitor_flow_records.bad"))):
            with self.subTest(name=name):
                make(self.top / name)
                self.assertIn("quarantine: ", self.collect("--quarantine", self.top / name))
                self.assertEqual((self.status, list(elsewhere.iterdir()), self.done()), (1, [], []))


@unittest.skipUnless(clickhouse.installed(), "clickhouse-server is not installed")
class Collect(Spool):
    def setUp(self):
        super().setUp()
        self.cluster = clickhouse.Cluster(self.top / "clickhouse", shards=2)
        self.addCleanup(self.cluster.__exit__)
        self.cluster.__enter__()
        self.url = self.cluster.first.url

    def count(self, kind, final="FINAL"):
        return self.cluster.number(f"SELECT count() FROM korvid.{TABLES[kind]} {final}")

    def assert_every_line_once(self, expected):
        for kind, lines in expected.items():
            self.assertEqual(self.count(kind), sum(lines.values()), kind)
        volume = self.cluster.rows("SELECT Box, Application, sum(b) FROM (SELECT Box, Flow, argMax(Application, IntEnd) AS "
                                   "Application, max(Bytes) AS b FROM korvid.enforcement GROUP BY Box, Flow) GROUP BY Box, Application")
        self.assertEqual({(box, name): int(size) for box, name, size in volume}, dict(records.volume(expected["enforcement"])))

    def test_exports_repeat_what_came_before(self):
        lines = [records.enforced(self.now - 900 + i, self.now + i, port=40000 + i) for i in range(50)]
        lines[10] = lines[9]  # a line that stands twice in its file is two
        for until in (20, 30, 50):
            records.put(self.spool / "site/a", "enforcement", lines[:until])
            records.put(self.spool / "b", "enforcement", lines[:until])
            self.collect()
        self.assertEqual(len(list(self.spool.rglob(".*.done"))), 6)
        records.put(self.spool / "b", "enforcement", lines, "_old.csv")
        records.put(self.spool / "b", "enforcement", lines[:1])
        records.put(self.spool / "b", "application", [f"DNS,-,{records.text_of(self.now - self.now % HOUR)},0,0,0,7"])
        records.put(self.spool / "b", "monitoring", [records.monitored(self.now)] * 3)
        (self.spool / "b/.backup.done").touch()
        self.collect("--keep", "0")
        (self.spool / "b/.backup.done").unlink()  # another program's
        self.assertEqual([self.count(kind) for kind in TABLES], [100, 3, 1])
        self.assertEqual(self.cluster.rows("SELECT DISTINCT Box FROM korvid.enforcement ORDER BY Box"), [["b"], ["site/a"]])
        self.assertEqual((self.visible(), list(self.spool.rglob(".*.done"))), ([], []))

    def test_killed_at_any_moment_it_goes_on_where_it_was(self):
        generate(self.top / "made", 5, 12 + KILLS // 3, 5000)
        expected = records.distinct(self.top / "made")
        files = sorted((self.top / "made").rglob("*.csv*"))
        chance = random.Random(11)
        chance.shuffle(files)
        kills = 0
        while kills < KILLS:
            # A few more files a life, so that all lives have something to do.
            for path in files[:1 + len(files) // (KILLS - kills)]:
                target = self.spool / path.relative_to(self.top / "made")
                target.parent.mkdir(exist_ok=True)
                path.rename(target)
                files.remove(path)
            with open(self.top / "told", "ab") as told:
                process = subprocess.Popen(self.command("--batch", "2000", "--linger", "0", "--keep", "0" if kills % 2 else "1"),
                                           stderr=told)
            time.sleep(chance.uniform(0, 0.05))
            process.kill()
            self.assertEqual(process.wait(), -signal.SIGKILL)
            kills += 1
        self.collect()
        self.assertEqual((self.visible(), list(self.spool.rglob(".*.loading"))), ([], []))
        self.assert_every_line_once(expected)

    def test_a_shard_that_is_away_is_waited_for(self):
        generate(self.spool, 6, 8, 3000)
        expected = records.distinct(self.spool)
        self.cluster.nodes[1].stop(kill=True)
        with open(self.top / "told", "wb") as output:
            process = subprocess.Popen(self.command("--once"), stderr=output)
        told = lambda: (self.top / "told").read_text()
        end = time.monotonic() + 60
        while "tried again until it answers" not in told() and time.monotonic() < end:
            time.sleep(0.02)
        self.assertIsNone(process.poll(), told())
        self.cluster.nodes[1].start()
        self.assertEqual(process.wait(90), 0)
        self.assertIn("ClickHouse answers again", told())
        self.assertGreater(self.count("enforcement", ""), self.count("enforcement"), "what had arrived came again")
        self.assert_every_line_once(expected)

    def test_several_collectors_share_a_spool_by_folder(self):
        generate(self.spool, 7, 20, 2000)
        expected = records.distinct(self.spool)
        files = len(self.visible())
        running = [subprocess.Popen(self.command("--once", "--batch", "3000"), stderr=subprocess.PIPE, text=True) for _ in range(3)]
        told = [process.communicate(timeout=120)[1] for process in running]
        told.append(self.collect())  # what one passed over while another had the folder
        self.assertEqual(sum(text.count("lines loaded") for text in told), files)
        self.assertGreater(sum("lines loaded" in text for text in told[:3]), 1)
        self.assert_every_line_once(expected)

    def test_a_running_collector_takes_files_as_they_are_closed(self):
        process = subprocess.Popen(self.command("--sweep", "3600", "--linger", "0"), stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        (self.spool / "new").mkdir()
        done = lambda: len(list(self.spool.rglob(".*.done")))
        for number in range(3):
            with open(self.spool / "new/appmon_monitor_flow_records.csv", "w", encoding="ascii") as upload:
                upload.write(records.MONITORING + "\n")
                upload.flush()
                (self.spool / "new/appmon_monitor_flow_records.csv").touch()  # an event, and a close, of another's
                time.sleep(0.1)
                self.assertEqual(done(), number, "taken while it was open for writing")
                upload.write(records.monitored(self.now + number) + "\n")
            end = time.monotonic() + 30
            while done() <= number and time.monotonic() < end:
                time.sleep(0.02)
            self.assertEqual((done(), self.count("monitoring")), (number + 1, number + 1))
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(30), 0)

    def test_files_that_change_or_vanish_while_they_are_waited_for(self):
        line = [records.monitored(self.now, port=port) for port in range(1, 5)]
        path, gone = records.put(self.spool / "a", "monitoring", line[:3]), records.put(self.spool / "b", "monitoring", line)
        with open(self.top / "told", "wb") as told:
            process = subprocess.Popen(self.command("--settle", "2", "--once"), stderr=told)
        time.sleep(0.5)
        gone.unlink()
        records.put(path.parent, "monitoring", line[3:])  # shorter, in place
        self.assertEqual((process.wait(30), self.count("monitoring")), (0, 1), (self.top / "told").read_text())

    def test_a_folder_is_locked_while_its_files_are_in_hand_only(self):
        path = records.put(self.spool / "a", "monitoring", [records.monitored(self.now)])
        process = subprocess.Popen(self.command(), stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        with open(path, "a", encoding="ascii"):
            time.sleep(0.5)  # found to be written to
            subprocess.run(["flock", "--nonblock", self.spool / "a", "true"], check=True)

    def test_lines_that_are_none(self):
        good, when = records.monitored(self.now), records.text_of(self.now)
        rows = {
            "cut": (f"{good}\n{good[:40]}", 1, ["cut off"]),
            "carriage": (f"{good}\r\n", 1, []),
            "header": (f"{good}\n{records.MONITORING}\n\n{good}\n", 2, []),
            "other-kind": (f"{records.enforced(self.now, self.now)}\n{good}\n", 1, ["a name longer than names are"]),
            "long": (f"{good[:-20]}{'x' * 1_000_000},{when}\n{good}\n", 1, ["longer than any record"]),
            "nul": ("\0" * 4096 + f"\n{good}\n", 1, ["longer than any record"]),
            "formula": (f"IPv4,::1,=1,1,1,TCP,A,B,{when}\n" + good.replace("DNS", "=cmd()") + "\n", 1, ["not an address"]),
            "latin": (good.replace("DNS", "caf\udce9") + "\n", 1, []),
            "commas": (good.replace(",-,", ",a, b,") + "\n", 1, []),
            "past": (good.replace(when, "1970-01-01 00:00:07") + f"\n{good}\n", 1, ["older than is taken"]),
            "future": (good.replace(when, "2105-01-01 00:00:00") + "\n", 0, ["a time to come"]),
            "far": (good.replace(when, "9999-12-31 23:59:59") + "\n", 0, ["a time that cannot be stored"]),
            "garbage": ("".join(f"{i} garbage\n" for i in range(1500)) + good + "\n", 1, ["too few columns"] * 1000),
            "empty": ("", 0, []),
        }
        for box, (text, _, _) in rows.items():
            (self.spool / box).mkdir()
            (self.spool / box / "appmon_monitor_flow_records.csv").write_bytes(text.encode(errors="surrogateescape"))
        told = self.collect()
        self.assertEqual(self.status, 1)
        loaded = {box: int(count) for box, count in self.cluster.rows("SELECT Box, count() FROM korvid.monitoring FINAL GROUP BY Box")}
        reasons = {box: [reason for reason, _ in (line.split("\t")[4:] for path in (self.spool / ".quarantine" / box).glob("*")
                                                  for line in path.read_text().splitlines())] for box in rows}
        self.assertEqual({box: (loaded.get(box, 0), reasons[box]) for box in rows}, {box: row[1:] for box, row in rows.items()})
        self.assertEqual(self.cluster.query("SELECT Application FROM korvid.monitoring WHERE Box = 'latin'"), r"caf\\xe9")
        self.assertEqual([path.parent.name for path in self.spool.rglob(".*.rejected")], ["garbage"])
        self.assertIn("cut/appmon_monitor_flow_records.csv: monitoring, 1 lines loaded, 1 quarantined (1 new; line 2: cut off)", told)
        # The same again: what is known stays as it is.
        before = sorted(self.quarantined())
        for box, (text, _, _) in rows.items():
            (self.spool / box / "appmon_monitor_flow_records.csv").write_bytes(text.encode(errors="surrogateescape"))
        self.collect()
        self.assertEqual(sorted(self.quarantined()), before)

    def test_old_months_are_dropped_and_no_others(self):
        records.put(self.spool / "a", "monitoring", [records.monitored(self.now - days * DAY) for days in (0, 20, 100, 200)])
        self.collect("--oldest", "0")
        for node in self.cluster.nodes:
            subprocess.run([clickhouse.TREE / "fleet/schema/drop-older", "2", "--host", clickhouse.ADDRESS, "--port", str(node.native)],
                           check=True, cwd=self.top, stdout=subprocess.DEVNULL)
        self.assertEqual(self.count("monitoring"), 2)

    def test_names_and_files_that_are_not_what_they_seem(self):
        line = [records.monitored(self.now)]
        secret = self.top / "secret"
        secret.write_text(f"{records.MONITORING}\n{line[0]}\n")
        strange = ["new\nline", "caf\udce9", "<script>alert(1)</script>", "a'; DROP TABLE korvid.monitoring --", "x" * 255, "=1+1", "b\\c"]
        for name in strange:
            records.put(self.spool / name, "monitoring", line)
        (self.spool / "link").symlink_to(self.top)
        (self.spool / "d").mkdir()
        (self.spool / "d/appmon_monitor_flow_records.csv").symlink_to(secret)
        os.mkfifo(self.spool / "d/appmon_monitor_flow_records_old.csv")
        (self.spool / "d/HAppSig.upgrade_kit").write_text("not ours")
        records.put(self.spool / "right", "monitoring", line)
        records.put(self.spool / "wrong", "monitoring", line)
        digest = subprocess.run(["md5sum", self.spool / "right/appmon_monitor_flow_records.csv"], capture_output=True, text=True, check=True).stdout
        (self.spool / "right/appmon_monitor_flow_records.csv.md5").write_text(digest.upper())
        (self.spool / "wrong/appmon_monitor_flow_records.csv.md5").write_text("0" * 32)
        told = self.collect()
        boxes = sorted(row[0] for row in self.cluster.rows("SELECT Box FROM korvid.monitoring FINAL FORMAT TSVRaw"))
        self.assertEqual(boxes, sorted([r"new\x0aline", r"caf\xe9", *strange[2:6], r"b\x5cc", "right"]))
        self.assertIn("wrong/appmon_monitor_flow_records.csv: not what its digest says; set aside", told)
        self.assertEqual(list(self.spool.rglob("*.md5")), [], "one is left for the next upload, which it will not fit")
        self.assertTrue((self.spool / "d/HAppSig.upgrade_kit").exists() and secret.exists())

    def test_a_quarantine_without_room_holds_the_file_back(self):
        full = self.top / "full"
        full.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4k", "tmpfs", full], check=True)
        self.addCleanup(subprocess.run, ["umount", full], check=True)
        (full / "filler").write_bytes(b"x" * 4096)
        records.put(self.spool / "a", "monitoring", ["bad", records.monitored(self.now)])
        told = self.collect("--quarantine", full)
        self.assertIn("No space left on device; tried again later", told)
        (full / "filler").unlink()
        self.collect("--quarantine", self.top / "other")
        self.assertEqual(self.count("monitoring"), 1)
        self.assertEqual(len(list((self.top / "other").rglob("*.bad"))), 1)

    def test_two_boxes_with_one_name_lose_nothing_and_are_told(self):
        with open(self.top / "told", "wb") as told:
            process = subprocess.Popen(self.command("--linger", "0"), stderr=told)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        for number, (start, host) in enumerate([(0, "192.0.2.1"), (-600, "192.0.2.2"), (0, "192.0.2.1")]):
            records.put(self.spool / "twin", "enforcement", [records.enforced(self.now + start, self.now + start, host=host)])
            end = time.monotonic() + 30
            while (self.top / "told").read_text().count("loaded") <= number and time.monotonic() < end:
                time.sleep(0.02)
        self.assertEqual(self.count("enforcement"), 2)
        self.assertEqual((self.top / "told").read_text().count("two boxes with one name"), 1)


if __name__ == "__main__":
    unittest.main()
