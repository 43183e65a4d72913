"""korvid-netfilter's records against what the kernel counted: ends told and untold, restarts, a day."""
import os
import pathlib
import signal
import threading
import time
import unittest

from router_daemon import FLOOD, RECORDS, Router, totals
from world import text_of, wait_until

MONITORED = "/flash/appmon_monitor_flow_records.csv"


class Records(unittest.TestCase):
    def test_records_hold_what_the_kernel_counted(self):
        with Router("http", "dns", block="", daemon={"clock": True}) as router:
            router.enforce(web=["HTTP", "DNS"])
            # The end of this connection will be told by nobody.
            events = pathlib.Path("/proc/sys/net/netfilter/nf_conntrack_events")
            events.write_text("0")
            ask = router.conversation()
            ask()
            events.write_text("1")
            for version in (4, 6):
                router.lab.client.run("dig", f"@{router.lab.target(version)}", "www.example.com")
            wait_until(lambda: len(router.lab.connections("--mark", "0x30000/0x30000")) == 3, "marks")
            router.lab.client.run("ping", "-c", "3", "-i", "0.1", router.lab.target(4))  # not enforced
            router.lab.end_connections("-p", "icmp")
            ended = [totals(line) for line in router.lab.connections("-p", "udp")]
            router.lab.end_connections("-p", "udp")

            def both():
                return [record for record in router.records() if record["Application"] == "DNS"]
            records = wait_until(lambda: (both() if len(both()) == 2 else None), "two records")
            self.assertEqual([(int(r["pktCount"]), int(r["byteCount"])) for r in records], ended)
            self.assertTrue(all(r["End"] != "-" and r["Application-Group"] == "web" for r in records))
            self.assertEqual(router.counters()["kernel.ends"], 2, "others' ends reach the daemon")

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
            last = totals(router.lab.connections("-p", "tcp")[0])
            router.lab.end_connections()
            ends = [record for record in router.records() if record["Application"] == "HTTP" and record["End"] != "-"]
            self.assertEqual([(int(r["pktCount"]), int(r["byteCount"])) for r in ends], [last])
            self.assertEqual(router.counters()["kernel.ends"], 2)

    def test_a_daemon_that_is_killed_goes_on_where_it_stopped(self):
        with Router("http", daemon={"clock": True}) as router:
            router.enforce(web=["HTTP"])
            router.world.call("SETappMonActivateAppList")
            # The verdict comes seconds after the connection has begun.
            router.world.daemon.send(signal.SIGSTOP)
            router.large_transfer()
            time.sleep(2.5)
            router.world.daemon.send(signal.SIGCONT)
            wait_until(lambda: router.lab.counted("blocked"), "a blocked packet")
            before, mirrored = router.marks(), router.lab.counted("mirrored")
            start = router.records()
            numbering = pathlib.Path("/var/run/korvid/numbering")
            written = numbering.stat().st_mtime_ns
            for number in (signal.SIGKILL, signal.SIGTERM, signal.SIGINT):
                router.world.daemon.stop(number)
                router.world.start_daemon(clock=True)
                self.assertEqual(router.marks(), before)
                self.assertEqual(len(router.elements("group_web")), 1)
                wait_until(lambda: router.counters()["flows.held_ipv4"], "the connection's flow")
                blocked = router.lab.counted("blocked")
                wait_until(lambda: router.lab.counted("blocked") > blocked, "a packet of the connection")
            self.assertEqual(router.lab.counted("mirrored"), mirrored)  # nothing classified anew
            self.assertEqual(numbering.stat().st_mtime_ns, written)  # nor numbered
            last = totals(router.lab.connections("-p", "tcp")[0])
            router.lab.end_connections()
            records = router.records()
            self.assertEqual({record["Start"] for record in start + records}, {records[0]["Start"]})
            self.assertEqual([(int(r["pktCount"]), int(r["byteCount"])) for r in records if r["End"] != "-"], [last])

    def test_connections_of_one_flow_s_key_have_a_last_line_each(self):
        """Of pings between two hosts: what tells them apart is no part of a flow."""
        with Router(daemon={"clock": True}) as router:
            pathlib.Path("/flash/engine.rules").write_text("proto 1 7\nreport packet\n")
            router.world.install_kit(apps={7: "Seven"})
            router.enforce(web=["Seven"])
            for count in (1, 2):
                router.lab.client.run("ping", "-c", count, "-i", "0.1", router.lab.target(4))
                time.sleep(1)  # the kernel's clock, by which they began
            wait_until(lambda: len(router.lab.connections("--mark", "0x30000/0x30000")) == 2, "two marks")
            counted = [totals(line) for line in router.lab.connections()]
            router.lab.end_connections()
            ends = [(int(r["pktCount"]), int(r["byteCount"])) for r in router.records() if r["End"] != "-"]
            self.assertEqual(sorted(ends), sorted(counted))

    def test_an_end_amid_an_exchange_of_kits_has_no_other_application(self):
        with Router(daemon={"clock": True}) as router:
            pathlib.Path("/flash/engine.rules").write_text("default 5\n")
            router.world.install_kit(apps={5: "Five", 6: "Six"})
            router.enforce(web=["Five", "Six"])
            flows = 2000
            router.lab.client.run("python3", "-c", FLOOD, router.lab.target(4), 20000, flows, 2000)
            wait_until(lambda: len(router.lab.connections("--mark", "0x30000/0x30000")) > flows * 0.9, "marks")
            pathlib.Path("/flash/engine.rules").write_text("default none\n")
            numbering = pathlib.Path("/var/run/korvid/numbering")
            change = threading.Thread(target=router.world.install_kit, kwargs={"apps": {5: "Six", 6: "Five"}})
            change.start()
            while numbering.exists() and change.is_alive():  # from here on marks are being translated
                pass
            router.world.daemon.send(signal.SIGSTOP)
            router.lab.end_connections("-p", "udp")
            router.world.daemon.send(signal.SIGCONT)
            change.join()
            self.assertNotIn("Six", {record["Application"] for record in router.records()})

    def test_what_was_queued_before_an_exchange_of_kits_keeps_its_name_or_is_dropped(self):
        with Router("dns", daemon={"clock": True}) as router:
            pathlib.Path("/flash/engine.rules").write_text("default 5\n")
            router.world.install_kit(apps={5: "Five", 6: "Six"})
            router.enforce(web=["Five", "Six"])
            router.world.call("SETavAppMonAppList", {"appGroup": ["web"]})
            router.lab.client.run("python3", "-c", FLOOD, router.lab.target(4), 20000, 10, 1000)
            wait_until(lambda: len(router.lab.connections("--mark", "0x30000/0x30000")) == 10, "every mark")
            pathlib.Path("/flash/engine.rules").write_text("default none\n")
            blocked = pathlib.Path(RECORDS)
            blocked.mkdir()
            router.world.install_kit(apps={5: "Six", 6: "Five"})
            blocked.rmdir()
            router.lab.end_connections("-p", "udp")
            ends = [(record["Application"], record["End"] == "-") for record in router.records()]
            self.assertEqual(ends, 10 * [("Five", False)])
            self.assertGreaterEqual(router.counters()["reports.dropped"], 10)
            self.assertEqual({line.split(",")[6] for line in text_of(MONITORED).splitlines()[1:]}, {"Five"})

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
            # One of them may be a file that is being written at this moment.
            wait_until(lambda: held()[0] <= before[0], "descriptors given back")
            memory = held()[1]
            if not os.environ.get("KORVID_SANITIZE"):
                self.assertLess(memory - before[1], 512, "kB more than in the morning")


if __name__ == "__main__":
    unittest.main()
