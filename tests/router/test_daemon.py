"""korvid-netfilter on the kernel at hand: real clients and servers, the ndpi kit, rules by name."""
import contextlib
import os
import pathlib
import re
import signal
import subprocess
import time
import unittest

import lab
import world
from world import World, text_of, wait_until

RECORDS = "/flash/appmon_enforcement_flow_records.csv"
OTHERS = 0x5a000000  # bits of the mark that somebody else uses
RULES = """table inet korvid {
    set app_HTTP { type mark; }
    set app_SSH { type mark; }
    set group_web { type mark; }
    set app_No/20such { type mark; }
    counter mirrored { }
    counter blocked { }
    chain others { type filter hook prerouting priority -100; ct state new ct mark set ct mark | 0x5a000000
    }
    chain mirror { type filter hook forward priority -10
        ct mark & 0x20000 == 0 ct packets < 33 counter name mirrored log group 26 snaplen 4072
    }
    chain verdicts { type filter hook forward priority 10
        ct mark & 0x3ffff @group_web counter name blocked BLOCK
    }
}
"""

# target, first source port, flows, flows a second, bytes of payload (a question for a name without), packets of each flow
FLOOD = """import socket, sys, time
target, (first, flows, rate, size, packets) = sys.argv[1], [*map(int, sys.argv[2:]), 0, 1][:5]
question = bytes(size) or bytes.fromhex("00010100000100000000000003777777076578616d706c6503636f6d0000010001")
begin = time.monotonic()
for flow in range(flows):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.bind(("", first + flow))
        for packet in range(packets):
            sender.sendto(question, (target, 9 if size else 53))
    time.sleep(max(0, begin + flow / rate - time.monotonic()))"""


class Router:
    """The laboratory, of this shape, with the daemon in its router."""

    def __init__(self, *services, rules=RULES, block="drop", daemon=None, **shape):
        self.lab, self.world = lab.Lab(**shape), World(router=True)
        self.services, self.rules, self.daemon = services, rules.replace("BLOCK", block), daemon or {}

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            stack.enter_context(self.lab)
            stack.enter_context(self.world)
            self.lab.serve(*self.services)
            self.lab.rules(self.rules)
            self.world.start(**self.daemon)
            self.world.install_kit(ndpi=True)
            self.world.enable()
            self.stack = stack.pop_all()
        return self

    def __exit__(self, *details):
        return self.stack.__exit__(*details)

    def enforce(self, **groups):
        """Puts groups with these members on the enforcement list."""
        for group, members in groups.items():
            self.world.call("CREATEavAppGroup", {"appGroup": {group: [{"appName": name} for name in members]}})
        self.world.call("SETavDpiAppList", {"appGroup": list(groups)})

    def elements(self, name):
        text = self.lab.router.run("nft", "list", "set", "inet", "korvid", name)
        return text.partition("elements = {")[2].partition("}")[0].split()

    def marks(self):
        return sorted(int(line.split(" mark=")[1].split()[0]) for line in self.lab.connections())


    def log(self, pattern, timeout=None):
        """The groups of a line that the daemon has written, or writes soon."""
        return wait_until(lambda: re.search(pattern, text_of(world.LOG)), f"a line of log: {pattern}", timeout)

    def records(self):
        """Lines of the record file, by column: the daemon's clock passes a report, and then the writing of the file."""
        def reports():
            self.world.settle()
            return text_of(world.LOG).count("enforced connections, ")
        self.world.log_level("DEBUG")
        for _ in range(2):
            before = reports()
            self.world.advance(901)
            wait_until(lambda: reports() > before, "a report")
        lines = text_of(RECORDS).splitlines()
        return [dict(zip(lines[0].split(","), line.split(","))) for line in lines[1:]]

    def large_transfer(self, version=4):
        """A client in the midst of a transfer that does not end by itself."""
        self.lab.file("large", 8 << 30)
        return self.lab.client.start("curl", "-s", "--limit-rate", "1M", "-o", "/dev/null",
                                     self.lab.url("http", version, "large"))

    def conversation(self):
        """A call that has one HTTP connection ask for a page once more."""
        client = self.lab.client.start("python3", "-uc", f"""
import http.client, sys
connection = http.client.HTTPConnection("{self.lab.target(4)}")
for line in sys.stdin:
    connection.request("GET", "/")
    print(len(connection.getresponse().read()))""", stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

        def ask():
            client.stdin.write("\n")
            client.stdin.flush()
            return client.stdout.readline()
        return ask


def totals(line):
    """Packets and bytes of both directions of a line of conntrack(8)."""
    return tuple(sum(map(int, re.findall(rf"{name}=(\d+)", line))) for name in ("packets", "bytes"))


class Daemon(unittest.TestCase):
    def test_a_transfer_stalls_where_its_group_is_blocked(self):
        for nat in lab.TRANSLATIONS:
            with self.subTest(nat=nat), Router("http", nat=nat) as router:
                router.enforce(web=["HTTP"])
                wait_until(lambda: router.elements("group_web"), "the group's marks")
                for version in (4, 6):
                    before = router.lab.counted("blocked")
                    router.large_transfer(version)
                    wait_until(lambda: router.lab.counted("blocked") > before, "a blocked packet")

    def test_every_protocol_is_marked_in_every_translation(self):
        for nat in lab.TRANSLATIONS:
            with self.subTest(nat=nat), Router("tls", "dns", nat=nat) as router:
                router.enforce(web=["DNS"])
                for version in (4, 6):
                    router.lab.client.run("curl", "-sko", "/dev/null", router.lab.url("tls", version))
                    router.lab.client.run("dig", f"@{router.lab.target(version)}", "www.example.com")
                    router.lab.client.run("ping", "-c", "3", "-i", "0.1", router.lab.target(version))
                wait_until(lambda: len(router.lab.connections("--mark", "0x20000/0x20000")) == 6, "six marks")
                self.assertEqual([mark & 0xffff0000 for mark in router.marks()], 4 * [OTHERS | 0x20000] + 2 * [OTHERS | 0x30000])

    def test_records_hold_what_the_kernel_counted(self):
        with Router("http", "dns", block="", daemon={"clock": True}) as router:
            router.enforce(web=["HTTP", "DNS"])
            ask = router.conversation()
            ask()
            for version in (4, 6):
                router.lab.client.run("dig", f"@{router.lab.target(version)}", "www.example.com")
            wait_until(lambda: len(router.lab.connections("--mark", "0x30000/0x30000")) == 3, "marks")
            ended = [totals(line) for line in router.lab.connections("-p", "udp")]
            router.lab.end_connections("-p", "udp")

            def both():
                return [record for record in router.records() if record["Application"] == "DNS"]
            records = wait_until(lambda: (both() if len(both()) == 2 else None), "two records")
            self.assertEqual([(int(r["pktCount"]), int(r["byteCount"])) for r in records], ended)
            self.assertTrue(all(r["End"] != "-" and r["Application-Group"] == "web" for r in records))

            def running():
                return [record for record in router.records() if record["Application"] == "HTTP"]
            for count in (1, 2):
                self.assertEqual(len(running()), count)
                self.assertEqual(len(running()), count, "a flow that stands still is reported again")
                ask()
            running()
            lines = running()
            self.assertEqual(len({record["byteCount"] for record in lines}), 3)
            self.assertEqual({record["End"] for record in lines}, {"-"})
            # An end that nobody tells: the next dump finds out.
            pathlib.Path("/proc/sys/net/netfilter/nf_conntrack_events").write_text("0")
            last = totals(router.lab.connections("-p", "tcp")[0])
            router.lab.end_connections()
            ends = [record for record in router.records() if record["Application"] == "HTTP" and record["End"] != "-"]
            self.assertEqual([(int(r["pktCount"]), int(r["byteCount"])) for r in ends], [last])

    def test_a_daemon_that_is_killed_goes_on_where_it_stopped(self):
        with Router("http", daemon={"clock": True}) as router:
            router.enforce(web=["HTTP"])
            router.world.call("SETappMonActivateAppList")
            router.large_transfer()
            wait_until(lambda: router.lab.counted("blocked"), "a blocked packet")
            before, mirrored = router.marks(), router.lab.counted("mirrored")
            start = router.records()
            for number in (signal.SIGKILL, signal.SIGTERM, signal.SIGINT):
                router.world.daemon.stop(number)
                router.world.start_daemon(clock=True)
                self.assertEqual(router.marks(), before)
                self.assertEqual(len(router.elements("group_web")), 1)
                blocked = router.lab.counted("blocked")
                wait_until(lambda: router.lab.counted("blocked") > blocked, "a packet of the connection")
            self.assertEqual(router.lab.counted("mirrored"), mirrored)  # nothing classified anew
            last = totals(router.lab.connections("-p", "tcp")[0])
            router.lab.end_connections()
            records = router.records()
            self.assertEqual({record["Start"] for record in start + records}, {records[0]["Start"]})
            self.assertEqual([(int(r["pktCount"]), int(r["byteCount"])) for r in records if r["End"] != "-"], [last])

    def test_sets_follow_kit_lists_and_firewall(self):
        with Router("http", "dns") as router:
            def marks_are(**sets):
                wanted = {name: [f"0x{0x30000 | number:08x}" for number in numbers] for name, numbers in sets.items()}
                def there():
                    return {name: [text.strip(",") for text in router.elements(name)] for name in sets} == wanted
                wait_until(there, f"{wanted}, not {[router.elements(name) for name in sets]}")

            numbers = world.kit_numbers()
            http, ssh, dns = (numbers[name] for name in ("HTTP", "SSH", "DNS"))
            marks_are(app_HTTP=[], app_SSH=[], group_web=[])
            router.enforce(web=["HTTP"])
            marks_are(app_HTTP=[http], app_SSH=[], group_web=[http])
            router.world.call("SETavAppGroup", {"appGroup": {"web": [{"appName": "DNS"}]}})
            router.world.call("SETavDpiAppList", {"appGroup": ["web"], "appList": [{"appName": "SSH"}]})
            marks_are(app_SSH=[ssh], group_web=sorted([dns, http]))
            router.world.call("SETavDpiAppList", {"appList": [{"appName": "SSH"}]})
            marks_are(app_HTTP=[], app_SSH=[ssh], group_web=[])
            router.world.disable()
            marks_are(app_SSH=[])
            router.world.enable()
            router.lab.rules("flush ruleset\n" + router.rules)  # as a firewall is reloaded
            marks_are(app_SSH=[ssh])
            router.lab.rules("table bridge korvid { set app_SSH { type mark; }\n}")
            wait_until(lambda: "elements" in router.lab.router.run("nft", "list", "table", "bridge", "korvid"), "a bridge's set")
            # A kit that numbers differently, and does not know one application at all.
            router.world.call("SETavDpiAppList", {"appGroup": ["web"]})
            router.large_transfer()
            wait_until(lambda: router.lab.counted("blocked"), "a blocked packet")
            router.lab.client.run("dig", f"@{router.lab.target(4)}", "www.example.com", check=False)
            wait_until(lambda: router.marks() == [OTHERS | 0x30000 | dns, OTHERS | 0x30000 | http], "two marks")
            pathlib.Path("/flash/engine.rules").write_text("default none\n")
            router.world.install_kit(apps={number + 1000: name for name, number in numbers.items() if name != "DNS"})
            marks_are(app_HTTP=[http + 1000], group_web=[http + 1000])
            self.assertEqual(router.marks(), [OTHERS, OTHERS | 0x30000 | (http + 1000)])
            blocked = router.lab.counted("blocked")
            wait_until(lambda: router.lab.counted("blocked") > blocked, "the transfer is still blocked")

    def test_five_thousand_flows_a_second_are_all_marked(self):
        with Router("dns") as router:
            # A verdict for each packet, whatever the server manages to answer.
            pathlib.Path("/flash/engine.rules").write_text("default 7\n")
            router.world.install_kit(apps={7: "Seven"})
            router.enforce(web=["Seven"])
            # A sanitized daemon is many times as slow; what it loses is told, but that is another test's.
            flows, rate = (500, 200) if os.environ.get("KORVID_SANITIZE") else (5000, 5000)
            router.lab.client.run("python3", "-c", FLOOD, router.lab.target(4), 20000, flows, rate)
            marked = wait_until(lambda: len(router.lab.connections("--mark", "0x30000/0x30000")) == flows, "every mark")
            self.assertTrue(marked)
            self.assertNotIn("lost", text_of(world.LOG))

    def test_a_day_leaves_one_line_for_each_flow_and_nothing_behind(self):
        with Router("dns", daemon={"clock": True}) as router:
            router.enforce(web=["DNS"])
            quarters, flows = 96, 10

            def held():
                return len(os.listdir(f"/proc/{router.world.daemon.pid}/fd")), router.world.status("VmRSS")
            for quarter in range(quarters):
                router.lab.client.run("python3", "-c", FLOOD, router.lab.target(4), 20000, flows, 1000)
                wait_until(lambda: len(router.lab.connections("--mark", "0x30000/0x30000")) == flows, "every mark")
                router.lab.end_connections()
                router.world.advance(901)
                if quarter == quarters // 8:
                    before = held()
            lines = router.records()
            self.assertEqual(len(lines), quarters * flows)
            self.assertEqual({(line["pktCount"], line["End"] == "-") for line in lines}, {("2", False)})
            descriptors, memory = held()
            self.assertEqual(descriptors, before[0])
            if not os.environ.get("KORVID_SANITIZE"):
                self.assertLess(memory - before[1], 512, "kB more than in the morning")

    def test_what_the_socket_has_no_room_for_is_counted(self):
        with Router("dns") as router:
            router.world.daemon.send(signal.SIGSTOP)
            router.lab.client.run("python3", "-c", FLOOD, lab.SERVER[4], 20000, 4000, 1 << 20, 1300, 3)
            router.world.daemon.send(signal.SIGCONT)

            def told():  # the first packet that gets through shows the gap
                router.lab.client.run("dig", f"@{router.lab.target(4)}", "www.example.com")
                return re.search(r"(\d+) mirrored packets lost, (\d+) since the start", text_of(world.LOG))
            lost = int(wait_until(told, "a line about losses")[2])
            router.world.settle()
            router.lab.rules("flush chain inet korvid mirror")
            time.sleep(0.1)  # the kernel's last batch
            router.world.daemon.stop(signal.SIGINT)
            read = int(router.log(r"recv packet count: (\d+)")[1])
            self.assertEqual(read + lost, router.lab.counted("mirrored"))

    def test_a_group_that_is_taken_is_waited_for(self):
        with Router("http") as router:
            second = World(router=True)
            second.start_daemon("-g", "26", wait=False)
            router.log("NFLOG group 26: another program listens to it; trying again every second")
            router.world.daemon.stop()
            router.log("NFLOG group 26 is free now")
            self.assertEqual(second.daemon.stop(), 0)

    def test_where_nothing_can_work_the_start_fails_and_says_why(self):
        with Router() as router:
            router.world.daemon.stop()
            for options, wrapper, line in (
                    (("-g", "65536"), (), "65536: no NFLOG group: it is a number from 0 to 65535"),
                    (("-m", "0x5"), (), "0x5: no mask: it is a run of at least three bits"),
                    ((), ("setpriv", "--bounding-set", "-net_admin", "--inh-caps", "-all"),
                     "connections cannot be marked: the right to administer the network (CAP_NET_ADMIN) is missing")):
                with self.subTest(line):
                    daemon = router.world.start_daemon(*options, wait=False, wrapper=wrapper)
                    self.assertEqual(daemon.wait(), 1)
                    self.assertIn(f"korvid-netfilter: {line}", daemon.stderr)
                    self.assertIn(line, text_of(world.LOG))
            pathlib.Path("/proc/sys/net/netfilter/nf_conntrack_acct").write_text("0")
            router.world.start_daemon()
            router.log("net.netfilter.nf_conntrack_acct is 0 and should be 1: records will have no counters")


if __name__ == "__main__":
    unittest.main()
