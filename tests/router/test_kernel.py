"""What not every kernel has, or does alike: zones, traffic of the router's own, bridges, a full table of connections."""
import signal
import unittest

import lab
import world
from router_daemon import FLOOD, Router, totals
from world import text_of, wait_until

MIRROR = f"{lab.MIRROR} counter name mirrored"


def rules(*chains, family="inet"):
    """The daemon's table with these chains: pairs of a hook with its priority, and rules."""
    text = "".join(f"chain c{number} {{ type filter hook {hook}\n{body}\n}}\n"
                   for number, (hook, body) in enumerate(chains))
    return f"table {family} korvid {{\ncounter mirrored {{ }}\ncounter passed {{ }}\n{text}}}\n"


class Kernel(unittest.TestCase):
    def expect_marks(self, router, *options, client=None):
        """Connections of either version are marked as enforced."""
        router.enforce(all=["DNS", "HTTP", "ICMP", "ICMPV6"])
        for version in (4, 6):
            for command in (["curl", "-so", "/dev/null", router.lab.url("http", version)],
                            ["dig", f"@{router.lab.target(version)}", "www.example.com"],
                            ["ping", "-c", "3", "-i", "0.1", router.lab.target(version)]):
                (client or router.lab.client).run(*command)
        wait_until(lambda: len(router.lab.connections("--mark", "0x30000/0x30000", *options)) == 6, "six marks")

    def test_connections_of_a_zone_are_marked(self):
        zone = "prerouting priority raw", "ct zone set 5"
        with Router("http", "dns", rules=rules(zone, ("forward priority -10", MIRROR))) as router:
            self.expect_marks(router, "--zone", 5)

    def test_the_router_s_own_connections_are_marked(self):
        hooks = [(f"{hook} priority -10", MIRROR) for hook in ("input", "output")]
        with Router("http", "dns", rules=rules(*hooks)) as router:
            self.expect_marks(router, client=router.lab.router)

    def test_connections_through_a_bridge_are_marked_and_stopped(self):
        with lab.Lab() as laboratory:
            laboratory.need("ct mark 1 log group 26", "bridge")
        chains = ("forward priority -10", MIRROR), ("forward priority 10", "")
        with Router("http", "dns", bridged=True, rules=rules(*chains, family="bridge")) as router:
            self.expect_marks(router)
            router.lab.rules("add rule bridge korvid c1 ct mark & 0x10000 != 0 counter name passed drop")
            router.large_transfer()
            wait_until(lambda: router.lab.counted("passed", "bridge korvid"), "a blocked packet")

    def test_a_connection_that_has_ended_is_not_searched_for(self):
        with Router("dns") as router:
            router.world.disable()
            router.world.log_level("INFO")
            router.world.enable()
            if router.log(r"packets come (with|without) their connections")[1] == "without":
                self.skipTest("this kernel does not pass connections along with packets")
            router.world.daemon.send(signal.SIGSTOP)
            router.lab.client.run("dig", f"@{router.lab.target(4)}", "www.example.com")
            router.lab.end_connections()
            router.world.daemon.send(signal.SIGCONT)
            wait_until(lambda: router.counters()["kernel.verdicts_not_found"], "a verdict that is given up")
            self.assertEqual(router.counters()["kernel.searches"], 0)

    def test_a_full_table_of_connections_harms_none_that_are_in_it(self):
        with Router("http", "dns", block="", daemon={"clock": True}) as router:
            router.enforce(web=["HTTP", "DNS"])
            ask = router.conversation()
            wait_until(lambda: any("ASSURED" in line for line in router.lab.connections("-p", "tcp")), "a connection")
            log = text_of(world.LOG)

            def served():
                return router.lab.client.run("dig", "+tries=1", "+time=1", f"@{router.lab.target(4)}", "www.example.com",
                                             check=False).returncode == 0
            with router.lab.kernel_set(nf_conntrack_max=len(router.lab.connections())):
                self.assertFalse(served())
                self.assertEqual(ask(), "1000\n")
                wait_until(lambda: router.lab.connections("--mark", "0x30000/0x30000"), "a mark")
            self.assertTrue(served())
            # So few that most take the place of an older one, and so few places to look that there is one.
            with router.lab.kernel_set(nf_conntrack_max=100, nf_conntrack_buckets=512):
                router.lab.client.run("python3", "-c", FLOOD, router.lab.target(4), 20000, 500, 200)
                router.settle()
            self.assertGreater(router.counters()["kernel.ends"], 250)
            self.assertEqual(text_of(world.LOG), log)
            last = totals(router.lab.connections("-p", "tcp")[0])
            router.lab.end_connections()
            records = router.records()
            self.assertEqual(len(records), router.counters()["verdicts.enforced"])
            self.assertEqual([(int(r["pktCount"]), int(r["byteCount"])) for r in records if r["Application"] == "HTTP"], [last])


if __name__ == "__main__":
    unittest.main()
