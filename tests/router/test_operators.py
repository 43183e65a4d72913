"""What operators of a router ask: the numbers of the daemon against those of the kernel's own counters."""
import unittest

from router_daemon import FLOOD, RULES, Router
from world import wait_until


class Operators(unittest.TestCase):
    def test_every_packet_and_verdict_is_accounted_for(self):
        with Router("http") as router:
            router.enforce(web=["HTTP"])
            for family in (4, 6, 4):
                router.lab.client.run("curl", "-s", "-o", "/dev/null", "--max-time", 2, router.lab.url("http", family), check=False)
            counters = router.counters
            wait_until(lambda: counters()["verdicts.judged"] >= 3, "verdicts")
            router.settle()
            count = counters()
            self.assertEqual(count["packets.to_engine"], count["packets.received"])
            status = router.world.ask("status")
            self.assertEqual((status["kernel"]["side"], status["health"], status["problems"]), ("netfilter", "ok", []))
            flows = router.world.ask("flows")["flows"]
            self.assertEqual({flow["application"] for flow in flows}, {"HTTP"})
            flow = {name: flows[0][name] for name in ("protocol", "source", "source_port", "destination", "destination_port")}
            self.assertIn("is HTTP and is enforced", router.world.ask("explain", **flow)["conclusion"])

    def test_an_icmp_error_is_no_flow_and_no_loss(self):
        with Router() as router:
            router.enforce(web=["ICMP"])
            router.lab.client.run("python3", "-c", FLOOD, router.lab.target(4), 20000, 1, 1, 100, 8)
            wait_until(lambda: router.counters()["verdicts.judged"], "a verdict on the port that is unreachable")
            self.assertEqual(router.world.ask("flows")["flows"], [])
            self.assertEqual(router.counters()["kernel.verdicts_of_errors"], 1)

    def test_a_verdict_that_no_connection_takes_is_told(self):
        """A host whose packets are not tracked: there is no connection to be marked."""
        rules = RULES.replace("chain others {", "chain untracked { type filter hook prerouting priority raw; notrack\n }\n"
                              "    chain others {").replace("ct mark & 0x20000 == 0 ct packets < 33 log", "log")
        with Router("http", rules=rules) as router:
            router.enforce(web=["HTTP"])
            router.lab.client.run("curl", "-s", "-o", "/dev/null", "--max-time", 2, router.lab.url("http", 4), check=False)
            lost = lambda: router.world.ask("counters")["counters"]["kernel.verdicts_not_found"]
            wait_until(lost, "a verdict that is given up")
            flow = router.world.ask("flows")["flows"][0]
            self.assertEqual(flow["state"], "not taken by the kernel")
            names = ("protocol", "source", "source_port", "destination", "destination_port")
            self.assertIn("the kernel did not take the verdict",
                          router.world.ask("explain", **{name: flow[name] for name in names})["conclusion"])


if __name__ == "__main__":
    unittest.main()
