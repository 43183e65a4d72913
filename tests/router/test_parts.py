"""The road of a verdict on the kernel at hand: logged packets in, marks out, policies by name, ends with counters."""
import contextlib
import json
import os
import pathlib
import signal
import subprocess
import unittest

import lab
from world import wait_until

LOOP = pathlib.Path(os.environ["KORVID_BUILD"], "tests/router/router_loop")
OTHERS = 0x5a000000  # bits of the mark that somebody else uses
RULES = """table inet korvid {
    set app_HTTP { type mark; }
    set app_Google/20Drive { type mark; }
    set group_web { typeof ct mark; }
    set hosts { type ipv4_addr; elements = { 192.0.2.99 } }
    counter mirrored { }
    counter blocked { }
    chain others { type filter hook prerouting priority -100; ct state new ct mark set ct mark | 0x5a000000
    }
    chain mirror { type filter hook forward priority -10
        ct mark & 0x20000 == 0 ct packets < 33 counter name mirrored log group 26
    }
    chain verdicts { type filter hook forward priority 10
        ct mark & 0x3ffff @app_HTTP counter name blocked drop
    }
}
"""


class Loop:
    """The loop in the router, and the events that it tells."""

    def __init__(self, laboratory, *options):
        self.lab = laboratory
        self.output = laboratory.work / "loop"
        with open(self.output, "wb") as output:
            self.process = laboratory.router.start(LOOP, *options, stdout=output)
        self.wait("ready")

    def events(self, kind):
        lines = self.output.read_text().splitlines(True)
        events = [json.loads(line) for line in lines if line.endswith("\n")]
        return [event for event in events if event["event"] == kind]

    def wait(self, kind, count=1, **content):
        def there():
            found = [event for event in self.events(kind) if content.items() <= event.items()]
            return found if len(found) >= count else None
        return wait_until(there, f"{count} of {kind} {content}")

    def stop(self):
        """Its counts."""
        self.process.terminate()
        self.process.wait()
        return self.events("counts")[0]


class Parts(unittest.TestCase):
    @contextlib.contextmanager
    def road(self, *services, nat="none"):
        with lab.Lab(nat=nat) as laboratory:
            laboratory.serve(*services)
            laboratory.rules(RULES)
            yield laboratory, Loop(laboratory)

    def test_a_transfer_stalls_where_its_application_is_blocked(self):
        for nat in lab.TRANSLATIONS:
            with self.subTest(nat=nat), self.road("http", nat=nat) as (laboratory, loop):
                size = laboratory.file("large", 8 << 30)
                for number, version in enumerate((4, 6)):
                    client = laboratory.client.start("curl", "-s", "-o", "/dev/null", "-w", "%{size_download}",
                                                     laboratory.url("http", version, "large"), stdout=subprocess.PIPE)
                    before = laboratory.counted("blocked")
                    wait_until(lambda: laboratory.counted("blocked") > before, "a blocked packet")
                    loop.wait("marked", number + 1, application="HTTP")
                    client.send_signal(signal.SIGKILL)
                    self.assertEqual(client.wait(), -signal.SIGKILL, f"more than {size} bytes came through")
                    laboratory.end_connections()
                self.assertEqual(loop.stop()["lost"], 0)

    def test_every_protocol_is_found_in_every_translation(self):
        for nat in lab.TRANSLATIONS:
            with self.subTest(nat=nat), self.road("tls", "dns", nat=nat) as (laboratory, loop):
                for version in (4, 6):
                    laboratory.client.run("curl", "-sko", "/dev/null", laboratory.url("tls", version))
                    laboratory.client.run("dig", f"@{laboratory.target(version)}", "www.example.com")
                    laboratory.client.run("ping", "-c", "1", laboratory.target(version))
                wait_until(lambda: len(laboratory.connections("--mark", "0x30000/0x30000")) == 6, "six marks")
                marks = {int(line.split(" mark=")[1].split()[0]) for line in laboratory.connections()}
                self.assertEqual(marks, {OTHERS | 0x30000 | application for application in (2, 4, 5)})
                if loop.events("bound")[0]["connections"]:  # packets tell theirs: nothing to look for
                    self.assertEqual({event["how"] for event in loop.events("marked")}, {"connection"})

    def test_ends_come_with_counters_and_of_marked_connections_only(self):
        with self.road("dns", "http") as (laboratory, loop):
            for version in (4, 6):
                laboratory.client.run("dig", f"@{laboratory.target(version)}", "www.example.com")
                laboratory.client.run("curl", "-s", "-d", "text", laboratory.url("http", version))  # not recognised
            loop.wait("marked", 2)
            table = [line for line in laboratory.connections() if line.startswith("udp")]
            laboratory.end_connections("-p", "tcp")
            laboratory.end_connections("-p", "udp")
            ends = loop.wait("end", 2)
            self.assertEqual([end["application"] for end in ends], ["DNS", "DNS"])
            self.assertEqual(loop.events("foreign"), [])
            for end, line in zip(ends, table):
                for place, name in enumerate(("sent", "received")):
                    counters = f"packets={end['packets'][place]} bytes={end['bytes'][place]} "
                    self.assertIn(counters, line.split("src=")[place + 1] + " ", name)
                self.assertEqual(end["mark"], OTHERS | 0x30002)
                self.assertGreater(end["seconds"], 0)

    def test_sets_hold_what_their_names_mean_and_nothing_stale(self):
        with self.road() as (laboratory, loop):
            def elements(name):
                text = laboratory.router.run("nft", "list", "set", "inet", "korvid", name)
                return text.partition("elements = {")[2].partition("}")[0].split()
            first = {"event": "filled", "error": 0, "sets": 3, "empty": 1, "other": 1}
            self.assertEqual(loop.events("filled"), [first])
            self.assertEqual(elements("group_web"), ["0x00030001,", "0x00030005"])
            self.assertEqual(elements("app_Google/20Drive"), [])
            laboratory.rules("add element inet korvid app_HTTP { 7 }\nadd element inet korvid app_Google/20Drive { 8 }")
            laboratory.rules("add set inet korvid app_DNS { type mark; }")  # has all of them filled
            loop.wait("filled", 2)
            self.assertEqual([elements(name) for name in ("app_HTTP", "app_Google/20Drive", "app_DNS", "hosts")],
                             [["0x00030001"], [], ["0x00030002"], ["192.0.2.99"]])
            laboratory.rules("flush ruleset\n" + RULES)  # as a firewall is reloaded
            wait_until(lambda: elements("app_HTTP"), "elements after a reload")

    def test_what_is_lost_is_counted_and_a_full_socket_lets_go(self):
        def flood():
            laboratory.client.run("python3", "-c", f"""import socket
for source in range(20000, 23000):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.bind(("", source))
        for turn in range(4):
            sender.sendto(bytes(1400), ("{lab.SERVER[4]}", 9))""")

        with self.road("dns") as (laboratory, loop):
            loop.process.send_signal(signal.SIGSTOP)
            flood()
            loop.process.send_signal(signal.SIGCONT)

            def closed():  # the first packet that gets through shows the gap
                laboratory.client.run("dig", f"@{laboratory.target(4)}", "www.example.com")
                return loop.events("marked")
            wait_until(closed, "a packet behind the gap")
            loop.wait("marked", 2)  # the answer: nothing is on its way any more
            mirrored = laboratory.counted("mirrored")
            loop.process.send_signal(signal.SIGSTOP)
            flood()
            loop.process.send_signal(signal.SIGTERM)
            loop.process.send_signal(signal.SIGCONT)
            counts = loop.stop()
            self.assertGreater(counts["overruns"], 0)
            self.assertEqual(counts["packets"] + counts["lost"], mirrored, counts)
            self.assertEqual(counts["unbound"], 0)

    def test_refusals_tell_their_reason(self):
        with self.road() as (laboratory, _):
            self.assertIn("Device or resource busy", laboratory.router.run(LOOP, check=False).stdout)
            done = laboratory.router.run("setpriv", "--bounding-set", "-net_admin", "--inh-caps", "-all", LOOP,
                                         "-g", "27", check=False)
            self.assertIn("Operation not permitted", done.stdout + done.stderr)


if __name__ == "__main__":
    unittest.main()
