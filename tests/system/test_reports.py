"""From the kernel's statistics reports to lines of the record files, and the files' lives."""
import case
import world
from test_traffic import packet, packet_message

APPS = {1: "Mail", 2: "Chat"}
RECORDS = world.FLASH / "appmon_enforcement_flow_records.csv"
RECORDS_OLD = world.FLASH / "appmon_enforcement_flow_records_old.csv"
MONITORED = world.FLASH / "appmon_monitor_flow_records.csv"
MONITORED_OLD = world.FLASH / "appmon_monitor_flow_records_old.csv"
HOURLY = world.FLASH / "appmon_monitoring_app_records.csv"
HEADER = ("IpAddrType,IpA,IpB,L4portA,L4portB,Proto,Application,Application-Group,MacA,KolNameA,MacB,KolNameB,pktCount,"
          "byteCount,Start,End,IntStart,IntEnd")
TIME = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d"


def lines(path):
    return world.text_of(path).splitlines()


class Reports(case.SystemTest):
    def setUp(self):
        super().setUp()
        self.world.start("--report-interval", "0", "--access-profile", "A" * 40, "--qos-rule", "gold", clock=True)
        self.world.install_kit(apps=APPS)
        self.world.call("CREATEavAppGroup", {"appGroup": {"talk": [{"appName": "Chat"}]}})
        self.world.call("SETavDpiAppList", {"appList": [{"appName": "Mail"}], "appGroup": ["talk"]})
        self.world.call("SETavAppMonAppList", {"appList": [{"appName": "Mail"}]})
        self.world.enable()
        self.module = self.world.module

    def flows(self, count, first=0, family=4, ports="10001"):
        before = self.module.stats()["results"]
        self.module.command(f"generate flows={count} packets={count} first={first} family={family} ports={ports}")
        self.module.command("wait 30000")
        world.wait_until(lambda: self.module.stats()["results"] == before + count, "verdicts")

    def report(self, command="report-now"):
        self.module.command(command)
        self.module.command("wait 30000")
        self.world.settle()

    def flush(self):
        self.world.advance(901)

    def test_lines_of_both_families(self):
        self.module.command("inject-hex " + packet_message(packet("10.0.0.1", 1234, "10.0.0.2", 10002, 6)).hex())
        self.module.command("inject-hex " + packet_message(packet("2001:db8::1", 1, "2001:db8::2", 10001)).hex())
        world.wait_until(lambda: self.module.stats()["results"] == 2, "verdicts")
        self.report()
        self.report("age-all")
        self.flush()
        found = lines(RECORDS)
        self.assertEqual(found[0], HEADER)
        profile = "A" * 31
        for line, expected in zip(found[1:], (
                rf"IPv4,10.0.0.1,10.0.0.2,1234,10002,TCP,Chat,talk,-,{profile},-,-,\d+,\d+,({TIME}),-,\1,{TIME}$",
                rf"IPv4,10.0.0.1,10.0.0.2,1234,10002,TCP,Chat,talk,-,{profile},-,-,\d+,\d+,({TIME}),({TIME}),\1,\2$",
                rf"IPv6,2001:db8::1,2001:db8::2,1,10001,UDP,Mail,-,-,{profile},-,-,\d+,\d+,({TIME}),-,\1,{TIME}$",
                rf"IPv6,2001:db8::1,2001:db8::2,1,10001,UDP,Mail,-,-,{profile},-,-,\d+,\d+,({TIME}),({TIME}),\1,\2$")):
            self.assertRegex(line, expected)
        self.assertEqual(len(found), 5)

    def test_every_report_is_one_line_through_full_queues_and_rotation(self):
        self.flows(700)
        for _ in range(2):
            self.report()
        self.flows(50, first=1000, family=6)
        self.report("age-all")
        self.flush()
        self.assertEqual(self.module.stats()["reports"], 700 * 2 + 750)
        self.assertEqual(lines(RECORDS_OLD)[0], HEADER)
        self.assertEqual(lines(RECORDS)[0], HEADER)
        self.assertGreater(len(lines(RECORDS_OLD)), 1200)
        self.assertEqual(len(lines(RECORDS_OLD)) + len(lines(RECORDS)) - 2, 2150)

    def test_malformed_reports(self):
        self.flows(1)
        self.world.log_level("DEBUG")
        for kind, line in (("no-count", "Warning: The ACTUAL report number is not equals to REPORT_NUM value!\n"),
                           ("wrong-count", "Warning: The ACTUAL report number is not equals to REPORT_NUM value!\n"),
                           ("no-type", None), ("incomplete", None), ("short-address", None), ("short-counters", None),
                           ("unknown-flow", "stats_report_cb4:.* Stats received for non exisiting flow in Flow DB\n"),
                           ("unknown-attr", None), ("disordered", None), ("truncated", None)):
            with self.subTest(kind):
                before = len(self.log())
                self.module.command(f"fault report {kind}")
                self.module.command("wait 10000")
                self.world.settle()
                if line:
                    self.assertRegex(self.log()[before:], line)
        self.assertIn("incomplete state message", self.world.daemon.stderr)
        self.assertTrue(self.world.daemon.running())
        before = self.module.stats()["reports"]
        self.report()
        self.assertEqual(self.module.stats()["reports"], before + 1, "the flow is still served")
        self.module.command("fault report bad-count")
        self.assertEqual(self.world.daemon.wait(), 1)
        self.assertIn("mnl_cb_run: ", self.world.daemon.stderr)

    def test_files_removed_grown_and_unwritable_behind_its_back(self):
        self.flows(3)
        self.report()
        self.flush()
        RECORDS.unlink()
        self.report()
        self.flush()
        self.assertEqual(len(lines(RECORDS)), 4, "a new file with its header")
        RECORDS.unlink()
        RECORDS.mkdir()
        self.report()
        self.flush()
        self.assertIn("amWriteEnfFlowRecordToFile", self.log())
        self.assertIn("- Failed to open AM_FLOW_RECORD file\n", self.log())
        RECORDS.rmdir()
        self.report()
        self.flush()
        self.assertEqual(len(lines(RECORDS)), 7, "what could not be written is written later")
        self.world.restart_daemon(clock=True)
        self.flush()
        self.assertEqual(len(lines(RECORDS)), 7, "an existing file is appended to")

    def test_monitored_flows_and_the_hourly_count(self):
        self.flows(250)
        self.world.advance(301)
        found = lines(MONITORED)
        self.assertEqual(len(found), 201, "a queue holds 200 flows; the others are counted as missed")
        self.assertEqual(found[0], "IpAddrType,IpA,IpB,L4portA,L4portB,Proto,Application,Application-Group,Time")
        self.assertRegex(found[1], rf"^IPv4,[\d.]+,[\d.]+,\d+,10001,UDP,Mail,-,{TIME}$|TCP")
        for round_ in range(4):
            self.flows(200, first=1000 * (round_ + 1), family=6 if round_ % 2 else 4)
            self.world.advance(301)
        self.assertEqual(len(lines(MONITORED_OLD)), 1001)
        self.assertEqual(lines(MONITORED), [])
        self.world.advance(3600)
        hourly = lines(HOURLY)
        self.assertEqual(hourly[0], "Application,Application-Group,Utcinterval,MaFlowMin,MaFlowMax,MaFlowAvg,MaFlowTotal")
        self.assertEqual(sum(int(line.split(",")[6]) for line in hourly[1:]), 1050)
        self.assertRegex(hourly[1], r"^Mail,-,\d{4}-\d\d-\d\d \d\d:00:00,0,0,0,\d+$")


class Scale(case.SystemTest):
    def test_two_hundred_thousand_flows(self):
        """As many results as flows, every matched report a line, and memory flat once flows age."""
        (world.FLASH / "engine.rules").write_text("report packet\n")  # no table of the engine's grows
        self.world.start("--report-interval", "0", "--age-idle", "3600", clock=True)
        self.world.install_kit(apps=APPS)
        self.world.call("SETavDpiAppList", {"appList": [{"appName": "Mail"}]})
        self.world.enable()
        module, sizes = self.world.module, []
        flows, rounds = (5000 if case.SLOWED else 25000), 4
        for round_ in range(rounds):
            for family in (4, 6):
                module.command(f"generate flows={flows} packets={flows} first={round_ * flows} family={family} proto=both "
                               "ports=10001,10002")
                module.command("wait 120000", timeout=180)
            world.wait_until(lambda: module.stats()["results"] == (round_ + 1) * flows * 2, "every verdict", 60)
            module.command("age-all", timeout=180)
            module.command("wait 120000", timeout=180)
            self.world.advance(901)  # a flush and three sweeps
            sizes.append(self.world.status("VmRSS"))
        total, stats = rounds * flows * 2, module.stats()
        self.assertEqual((stats["results"], stats["matches"], stats["reports"]), (total, total // 2, total // 2))
        self.assertEqual(stats["dropped_ring_full"] + stats["dropped_queue_full"] + stats["overruns"], 0)
        self.world.log_level("INFO")
        self.assertIn(f"Packet Counter [{total}] : Flow4 Counter [{total // 4}] : Flow6 Counter [{total // 4}]",
                      self.world.dump("counter"))
        self.assertNotIn("App-Name Mail", self.world.dump("flow"), "aged flows are swept")
        if not case.SLOWED:  # allocators of sanitizers keep what is freed, an emulator what it translated
            self.assertLess(sizes[-1], sizes[0] + 512, f"resident memory by round: {sizes} kB")
