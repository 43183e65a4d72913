"""What not every kernel has, or does alike: zones, traffic of the router's own, bridges, ends."""
import signal
import unittest

import lab
from router_daemon import Router
from world import wait_until

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


if __name__ == "__main__":
    unittest.main()
