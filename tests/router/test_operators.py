"""What operators of a router ask: the numbers of the daemon against those of the kernel's own counters."""
import unittest

from test_daemon import Router
from world import wait_until


class Operators(unittest.TestCase):
    def test_every_packet_and_verdict_is_accounted_for(self):
        with Router("http") as router:
            router.enforce(web=["HTTP"])
            for family in (4, 6, 4):
                router.lab.client.run("curl", "-s", "-o", "/dev/null", "--max-time", 2, router.lab.url("http", family), check=False)
            counters = lambda: router.world.ask("counters")["counters"]
            wait_until(lambda: counters()["verdicts.judged"] >= 3, "verdicts")
            wait_until(lambda: counters()["packets.received"] + counters()["kernel.packets_lost"] ==
                       router.lab.counted("mirrored"), "every packet that the kernel mirrored")
            count = counters()
            self.assertEqual(count["packets.to_engine"], count["packets.received"])
            wait_until(lambda: counters()["verdicts.judged"] == sum(
                counters()[f"kernel.verdicts_{what}"] for what in ("marked", "not_found", "not_kept", "refused")),
                "a mark or a reason for every verdict")
            status = router.world.ask("status")
            self.assertEqual((status["kernel"]["side"], status["health"], status["problems"]), ("netfilter", "ok", []))
            flows = router.world.ask("flows")["flows"]
            self.assertEqual({flow["application"] for flow in flows}, {"HTTP"})
            flow = {name: flows[0][name] for name in ("protocol", "source", "source_port", "destination", "destination_port")}
            self.assertIn("is HTTP and is enforced", router.world.ask("explain", **flow)["conclusion"])


if __name__ == "__main__":
    unittest.main()
