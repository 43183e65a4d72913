"""What operators ask: the object korvid, against the numbers of the module, the record files and what was configured."""
import subprocess
import unittest

import case
import world
from test_reports import HOURLY, MONITORED, RECORDS, lines
from test_traffic import WITHOUT_RING, attribute, message, packet, packet_message

APPS = {1: "Mail", 2: "Chat", 3: "Games", 4: "YouTube"}
FLOW = {"protocol": "udp", "source": "10.0.0.1", "source_port": 1234, "destination": "10.0.0.2"}


class Operators(case.SystemTest):
    def setUp(self):
        super().setUp()
        self.world.start("--report-interval", "0", *WITHOUT_RING, clock=True)
        self.module = self.world.module

    def prepare(self):
        self.world.install_kit(apps=APPS, version="7.1 of May")
        self.world.call("CREATEavAppGroup", {"appGroup": {"talk": [{"appName": "Chat"}]}})
        self.world.call("SETavDpiAppList", {"appList": [{"appName": "Mail"}], "appGroup": ["talk"]})
        self.world.call("SETavAppMonAppList", {"appList": [{"appName": "Games"}]})
        self.world.enable()

    def play(self, flows, ports, packets=None, **options):
        before = self.module.stats()["results"]
        words = " ".join(f"{name}={value}" for name, value in options.items())
        self.module.command(f"generate flows={flows} packets={packets or flows} ports={ports} {words}")
        self.module.command("wait 30000")
        world.wait_until(lambda: self.module.stats()["results"] == before + flows, "verdicts")

    def counters(self):
        return self.world.ask("counters")["counters"]

    def problems(self):
        return [problem["what"] for problem in self.world.ask("status")["problems"]]

    def conclusion(self, **question):
        return self.world.ask("explain", **question)["conclusion"]

    def test_every_packet_verdict_report_and_record_is_accounted_for(self):
        self.prepare()
        self.play(60, "10001,10002,10003,10004", packets=240, family="both")
        self.module.command("report-now")
        self.module.command("age-all")
        self.module.command("wait 30000")
        self.module.command("inject-hex " + message(23, 0, attribute(2, b"zzzz")).hex())
        self.world.settle()
        self.world.advance(901)
        self.world.advance(3600)
        count, stats = self.counters(), self.module.stats()
        self.assertEqual(count["packets.received"], stats["mirrored"])
        self.assertEqual(count["packets.to_engine"], count["packets.received"])
        self.assertEqual(count["verdicts.judged"], stats["results"])
        enforced = [event for event in self.module.events("result") if event["match"]]
        self.assertEqual(count["verdicts.enforced"], len(enforced))
        self.assertEqual(count["reports.matched"], len(self.module.events("report")))
        self.assertEqual(count["records.enforcement_lines"], len(lines(RECORDS)) - 1)
        self.assertEqual(count["records.monitoring_lines"], len(lines(MONITORED)) - 1)
        self.assertEqual(count["records.application_lines"], len(lines(HOURLY)) - 1)
        self.assertEqual(count["monitored.queued"], len(lines(MONITORED)) - 1)
        apps = {app["name"]: app for app in self.world.ask("apps", sort="name")["apps"]}
        self.assertEqual(sum(app["flows"] for app in apps.values()), 60)
        self.assertEqual(sum(app["packets"] for app in apps.values()), 4 * len(enforced))
        self.assertEqual((apps["Chat"]["group"], apps["Chat"]["enforced"], apps["Games"]["monitored"]), ("talk", True, True))

    def test_losses_are_named_with_a_cure(self):
        self.world.enable()
        self.module.command("generate flows=5 packets=5 ports=10001")
        world.wait_until(lambda: self.counters()["packets.without_engine"] == 5, "packets without an engine")
        self.assertEqual(self.counters()["packets.to_engine"], 0)
        self.module.command("overrun packet")
        world.wait_until(lambda: self.counters()["packets.overruns"] == 1, "the overrun")
        self.prepare()
        self.module.command("inject-hex " + message(23, 0, attribute(2, b"zzzz")).hex())
        self.play(450, "10003")
        count = self.counters()
        self.assertEqual((count["monitored.queued"], count["monitored.missed"], count["kernel.packets_malformed"]),
                         (200, 250, 1))
        losses = {loss["name"]: loss for loss in self.world.ask("counters")["losses"]}
        self.assertEqual(set(losses), {"packets.without_engine", "packets.overruns", "monitored.missed",
                                       "kernel.packets_malformed"})
        self.assertIn("korvidctl kit install", losses["packets.without_engine"]["cure"])
        self.assertIn("losses grow: monitored.missed, 250 more within minutes", self.problems())
        for _ in range(7):
            self.world.advance(61)
        self.assertEqual(self.problems(), [])

    def test_status_names_what_is_wrong(self):
        status = self.world.ask("status")
        self.assertEqual((status["health"], status["kernel"]["mirroring"], status["kit"]["applications"]),
                         ("problems", False, 0))
        self.assertEqual(self.problems(), ["no engine: packets are not classified"])
        self.prepare()
        status = self.world.ask("status")
        self.assertEqual((status["health"], status["problems"], status["kit"]["version"], status["kit"]["applications"],
                          status["kernel"]["mirroring"]), ("ok", [], "7.1 of May", len(APPS), True))
        digest = subprocess.run(["md5sum", world.KIT], capture_output=True, text=True, check=True).stdout.split()[0]
        self.assertEqual(status["kit"]["digest"], digest)
        self.assertFalse(status["configuration"]["unsaved_changes"])
        self.world.call("CREATEavDpiAppList", {"appList": [{"appName": "Games"}]})
        self.assertTrue(self.world.ask("status")["configuration"]["unsaved_changes"])
        self.world.call("SETappMonActivateAppList")
        self.assertFalse(self.world.ask("status")["configuration"]["unsaved_changes"])
        world.KIT.write_text("no kit")
        self.world.reply("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
        self.assertEqual(self.problems(), ["the last kit was refused: the file is no kit: tar cannot unpack it",
                                           "mirroring is off since a kit was refused"])
        MONITORED.mkdir()
        self.world.advance(301)
        self.assertIn(f"records cannot be written: {MONITORED}", self.problems())
        world.CLOCK.write_text("-400000000")
        self.assertIn("the clock is before 2020: records carry wrong times", self.problems())

    def test_a_save_that_drops_groups_or_lists_keeps_the_file_before_it(self):
        self.prepare()
        self.world.call("SETappMonActivateAppList")
        before = world.CONFIG.read_text()
        old = world.CONFIG.with_name("dpi.conf.old")
        self.world.call("CREATEavDpiAppList", {"appList": [{"appName": "Games"}]})
        self.world.call("SETappMonActivateAppList")
        self.assertFalse(old.exists(), "nothing is dropped")
        world.CONFIG.write_text(before.replace('"enable"', '"disable"'))
        kept = world.CONFIG.read_text()
        self.world.restart_daemon()
        self.world.enable()
        self.assertEqual(old.read_text(), kept, "the restart applied nothing, the state was saved")
        self.assertEqual(old.stat().st_mode & 0o777, 0o600)
        configuration = self.world.ask("status")["configuration"]
        self.assertEqual((configuration["kept"], configuration["dropped"]),
                         (str(old), "1 group, the enforcement list, the monitoring list"))
        self.world.disable()
        self.assertEqual(old.read_text(), kept)
        world.CONFIG.write_text("{ a comma is missing here")
        self.world.enable()
        self.assertEqual(old.read_text(), "{ a comma is missing here")

    def test_lists_are_paged_sorted_and_filtered(self):
        apps = {number: f"App{number:05}" for number in range(1, 1001)}
        self.world.install_kit(apps=apps)
        self.world.call("CREATEavAppGroup", {"appGroup": {f"g{n:03}": [{"appName": apps[n]}] for n in range(1, 301)}})
        self.world.call("SETavDpiAppList", {"appGroup": [f"g{n:03}" for n in range(1, 301)]})
        self.world.enable()
        found, page = [], {"next": 0}
        while "next" in page:
            page = self.world.ask("apps", sort="name", list="enforced", limit=200, offset=page["next"])
            found += [(app["name"], app["group"]) for app in page["apps"]]
        self.assertEqual(found, [(apps[n], f"g{n:03}") for n in range(1, 301)])
        self.assertEqual(self.world.ask("apps", name="pp0099", limit=1)["total"], 10)
        found, page = [], {"next": 0}
        while "next" in page:
            page = self.world.ask("groups", limit=200, offset=page["next"])
            found += [group["name"] for group in page["groups"] if group["enforced"] and group["members"] == 1]
        self.assertEqual(found, [f"g{n:03}" for n in range(1, 301)])
        self.assertEqual(self.world.ask("groups", name="g007")["members"], [apps[7]])
        self.assertIsNone(self.world.ask("groups", name="nobody"))

        ports = ",".join(str(10000 + n) for n in range(1, 4))
        self.play(700, ports, family="both")
        found, page = [], {"cursor": "4"}
        while "cursor" in page:
            page = self.world.ask("flows", limit=150, cursor=page["cursor"])
            found += [(flow["source"], flow["source_port"], flow["destination"], flow["application"])
                      for flow in page["flows"]]
        self.assertEqual(len(set(found)), 700, "each flow once, through all pages of both families")
        self.assertEqual(len(found), 700)
        only = self.world.ask("flows", application=apps[2], limit=200)["flows"]
        self.assertEqual({flow["application"] for flow in only}, {apps[2]})
        source = found[-1][0]
        self.assertTrue(all(source in (flow["source"], flow["destination"])
                            for flow in self.world.ask("flows", address=source)["flows"]))
        busiest = self.world.ask("apps", limit=4)["apps"]
        self.assertEqual([app["flows"] > 0 for app in busiest], [True] * 3 + [False])

    def test_explain_has_a_sentence_for_every_reason(self):
        self.assertIn("No signature kit is installed", self.conclusion(application="Mail"))
        self.prepare()
        self.world.disable()
        self.assertIn("Mirroring is off", self.conclusion(application="Mail"))
        self.world.enable()
        unknown = self.world.ask("explain", application="Youtub")
        self.assertEqual((unknown["known"], unknown["nearest"]), (False, ["YouTube"]))
        for name, text in (("Mail", "by itself"), ("Chat", "Chat is enforced: the group talk put it on the list."),
                           ("Games", "monitored, not enforced"), ("YouTube", "on no list")):
            self.assertIn(text, self.conclusion(application=name))
        self.world.call("CREATEavAppGroup", {"appGroup": {"web": [{"appName": "Chat"}], "talk": [{"appName": "YouTube"}]}})
        self.world.call("CREATEavDpiAppList", {"appGroup": ["web"]})
        self.assertIn("the group web marked it last, after talk", self.conclusion(application="Chat"))
        self.assertIn("put the group on the list again", self.conclusion(application="YouTube"))

        self.module.command("inject-hex " + packet_message(packet(dport=10001)).hex())
        self.module.command("inject-hex " + packet_message(packet(dport=10003)).hex())
        world.wait_until(lambda: self.module.stats()["results"] == 2, "verdicts")
        flow = FLOW | {"destination_port": 10001}
        self.assertIn("is Mail and is enforced", self.conclusion(**flow))
        self.assertIn("is Mail and is enforced", self.conclusion(
            protocol="17", source="10.0.0.2", source_port=10001, destination="10.0.0.1", destination_port=1234))
        self.assertIn("is Games, which is monitored", self.conclusion(**FLOW, destination_port=10003))
        self.assertIn("no record of this flow", self.conclusion(**FLOW, destination_port=10004))
        self.world.call("SETavDpiAppList", {"appGroup": ["web"]})
        self.assertIn("has left the list since", self.conclusion(**flow))
        self.module.command("age-all")
        self.module.command("wait 30000")
        world.wait_until(lambda: "it has ended" in self.conclusion(**flow), "the flow's end")

    def test_hostile_arguments_are_refused(self):
        self.prepare()
        for method, *questions in (
                ("apps", {"limit": -1}, {"limit": 201}, {"limit": "5"}, {"sort": "size"}, {"list": 7}, {"offset": 1 << 40}),
                ("groups", {"name": 5}, {"offset": -1}),
                ("flows", {"cursor": ""}, {"cursor": "5"}, {"cursor": "4zz"}, {"cursor": "4" + "0" * 33},
                 {"cursor": "6" + "0" * 81}, {"address": "10.0.0"}, {"address": "::g"}, {"limit": 1 << 31}),
                ("explain", {}, {"protocol": "udp"}, FLOW | {"protocol": "256"}, FLOW | {"protocol": "-1"},
                 FLOW | {"source": "::1"}, FLOW | {"source_port": 65536}, {"application": ["Mail"]})):
            for question in questions:
                with self.subTest(method=method, question=question), self.assertRaisesRegex(world.Failure, "status 2"):
                    self.world.ask(method, **question)
        self.assertIsNone(self.world.ask("flows", application="nobody"))
        self.assertEqual(self.world.ask("apps", offset=1 << 30)["apps"], [])
        self.assertIn("'" + "x" * 60 + "'", self.conclusion(application="x" * 100000))
        self.assertEqual(self.world.ask("flows", cursor="6" + "f" * 80)["flows"], [])


if __name__ == "__main__":
    unittest.main()
