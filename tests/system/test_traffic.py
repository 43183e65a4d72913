"""From a mirrored packet to a verdict and a flow record: bytes on the wire, ring, engine, database, signals."""
import ipaddress
import os
import re
import signal
import struct
import time
import unittest

import case
import world

APPS = {1: "Mail", 2: "Chat", 3: "N" * 32, 4: "Games", 9: "Last"}


# With a daemon that reads its packets without the ring, the module refuses to have one.
WITHOUT_RING = ("--no-ring",) if "KORVID_WITHOUT_RING" in os.environ else ()


def attribute(number, payload):
    return struct.pack("=HH", 4 + len(payload), number) + payload + bytes(-len(payload) % 4)


def message(kind, family, *attributes, flags=0, port=0):
    body = bytes([family, 0, 0, 0]) + b"".join(attributes)
    return struct.pack("=IHHII", 16 + len(body), kind, flags, 0, port) + body


def packet(source="10.0.0.1", sport=1234, target="10.0.0.2", dport=10001, proto=17, payload=b"x" * 8):
    """A raw IP packet of UDP or TCP."""
    a, b = ipaddress.ip_address(source), ipaddress.ip_address(target)
    if proto == 17:
        segment = struct.pack(">HHHH", sport, dport, 8 + len(payload), 0) + payload
    else:
        segment = struct.pack(">HHIIBBHHH", sport, dport, 1, 0, 0x50, 0x18, 1000, 0, 0) + payload
    if a.version == 4:
        head = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(segment), 0, 0, 64, proto, 0)
    else:
        head = struct.pack(">IHBB", 0x60000000, len(segment), proto, 64)
    return head + a.packed + b.packed + segment


def packet_message(data, **options):
    return message(23, 0, attribute(1, data), **options)


class Traffic(case.SystemTest):
    def setUp(self):
        super().setUp()
        self.world.start("--report-interval", "0", *WITHOUT_RING)
        self.module = self.world.module

    def prepare(self, engine="scripted"):
        """Mail enforced on its own, Chat through a group, the application of 32 characters as well; Games is not."""
        self.world.install_kit(engine=engine, apps=APPS)
        self.world.call("CREATEavAppGroup", {"appGroup": {"talk": [{"appName": "Chat"}], "G" * 40: [{"appName": "N" * 32}]}})
        self.world.call("SETavDpiAppList", {"appList": [{"appName": "Mail"}], "appGroup": ["talk", "G" * 40]})
        self.world.call("SETavAppMonAppList", {"appList": [{"appName": "Mail"}]})
        self.world.enable()

    def inject(self, *messages):
        self.module.command("inject-hex " + b"".join(messages).hex())

    def results(self, count):
        world.wait_until(lambda: len(self.module.events("result")) >= count, f"{count} results")
        return self.module.events("result")

    def counters(self):
        found = re.search(r"Packet Counter \[(\d+)\] : Flow4 Counter \[(\d+)\] : Flow6 Counter \[(\d+)\] : "
                          r"Stats Counter \[(\d+)\]", self.world.dump("counter"))
        return tuple(int(number) for number in found.groups())

    def counted(self, packets):
        self.world.log_level("INFO")
        world.wait_until(lambda: self.counters()[0] >= packets, f"{packets} packets counted")
        self.assertEqual(self.counters()[0], packets)

    def test_configuration_messages_byte_for_byte(self):
        self.world.enable()
        self.world.enable()  # no second message
        self.world.disable()
        pid = self.world.daemon.pid
        mirror = lambda state: message(21, 2, attribute(2, bytes([state])), attribute(3, struct.pack("=H", 16)),
                                       attribute(5, b"\1"), attribute(6, struct.pack("=H", 30)),
                                       attribute(4, b"\1"), flags=1).hex()
        world.wait_until(lambda: len(self.module.events("config")) == 3, "three messages")
        raw = [event["raw"] for event in self.module.events("config")]
        self.assertEqual(raw, [message(21, 2, attribute(1, struct.pack("=I", pid | 0x10000)), flags=1).hex(),
                               mirror(1), mirror(0)])
        self.assertEqual([len(text) // 2 for text in raw], [28, 60, 60])

    def test_result_messages_byte_for_byte(self):
        self.prepare()
        four, six = ("192.0.2.1", "198.51.100.7"), ("2001:db8::1", "2001:db8::2")

        def expected(addresses, dport, proto, *match):
            a, b = (ipaddress.ip_address(address).packed for address in addresses)
            v6 = len(a) == 16
            return message(22, 10 if v6 else 2, attribute(1, bytes([82 if v6 else 81])), attribute(3 if v6 else 2, a),
                           attribute(5 if v6 else 4, b), attribute(6, bytes([proto])),
                           attribute(7, struct.pack(">H", 4000)), attribute(8, struct.pack(">H", dport)),
                           attribute(9, bytes([1 if match else 0])), *match, flags=1).hex()

        def named(number, name, *group):
            return (attribute(11, struct.pack("=I", number)), attribute(12, name.encode()), attribute(10, b"\1"),
                    *(attribute(14, text.encode()) for text in group))

        cases = []
        for addresses, proto in ((four, 17), (six, 6)):
            for dport, match in ((10004, ()), (10001, named(1, "Mail")), (10002, named(2, "Chat", "talk")),
                                 (10003, named(3, "N" * 32, "G" * 40))):
                self.inject(packet_message(packet(addresses[0], 4000, addresses[1], dport, proto)))
                cases.append(expected(addresses, dport, proto, *match))
        self.assertEqual([event["raw"] for event in self.results(8)], cases)
        self.assertEqual([event["problems"] for event in self.results(8)], [[]] * 8)

    def test_state_word_ids_out_of_range_and_mirroring_off(self):
        (world.FLASH / "engine.rules").write_text("state 5\nport 4242 10\nport 4243 65537\n")
        self.prepare()
        self.inject(packet_message(packet(dport=4242)), packet_message(packet(dport=4243)), packet_message(packet()))
        self.assertEqual([event["state_clear"] for event in self.results(1)], [0])
        self.assertIn("Out of appid:10\n", self.log())
        self.assertIn("Out of appid:65537\n", self.log())
        self.world.disable()
        self.inject(packet_message(packet(sport=9)))
        self.counted(4)
        self.assertEqual(len(self.results(1)), 1)

    @unittest.skipIf(WITHOUT_RING, "there are no frames")
    def test_frames_of_every_kind_around_the_ring(self):
        """More than once around the 1,024 frames, with COPY, empty and joined frames in between."""
        self.prepare()
        self.module.command("generate flows=1500 packets=3000 ports=10001,10004 family=both proto=both")
        for name, value in (("batch", 3), ("copy-every", 7), ("zero-every", 5)):
            self.module.command(f"set {name} {value}")
        self.module.command("wait 30000")
        self.module.command("generate flows=1500 packets=3000 first=2000 ports=10001,10004 family=both proto=both")
        self.module.command("wait 30000")
        stats = self.module.command("stats")["stats"]
        self.assertEqual(stats["mirrored"], 6000)
        self.assertGreater(stats["copy_frames"], 100)
        self.assertGreater(stats["zero_frames"], 100)
        self.counted(6000)
        self.assertEqual(len(self.results(3000)), 3000, "one result for each flow")

    @unittest.skipIf(WITHOUT_RING, "there are no frames")
    def test_a_copy_frame_waits_for_its_message(self):
        self.prepare()
        self.module.command("inject-copy-empty")
        self.inject(packet_message(packet()))  # in the frame after it
        time.sleep(0.1)
        self.world.log_level("INFO")
        self.assertEqual(self.counters()[0], 0, "the frame is left until its message comes")
        busy = sum(int(field) for field in world.text_of(f"/proc/{self.world.daemon.pid}/stat").split()[13:15])
        time.sleep(0.3)
        now = sum(int(field) for field in world.text_of(f"/proc/{self.world.daemon.pid}/stat").split()[13:15])
        self.assertLess(now - busy, 15, "and the thread does not spin meanwhile")
        self.module.command("inject-copy " + packet_message(packet(sport=77)).hex())
        self.assertEqual({event["first_port"] for event in self.results(2)}, {77, 1234})

    def test_odd_packet_messages_are_survived(self):
        self.prepare()
        good = packet_message(packet())
        foreign = attribute(2, b"zzzz")
        self.inject(message(23, 0, foreign, attribute(1, packet(sport=1))), good)     # stops its buffer
        self.inject(message(23, 0, attribute(1, packet(sport=2)), foreign), good)     # likewise
        self.inject(message(23, 0))                                                  # no packet: counted
        self.inject(struct.pack("=IHHII", 16, 1, 0, 0, 0), packet_message(packet(sport=3)))  # NOOP is skipped
        self.inject(struct.pack("=IHHII", 36, 2, 0, 0, 0) + bytes(20), good)           # an acknowledgement: stops
        self.inject(good[:-5])                                                       # does not fit its buffer
        self.inject(struct.pack("=I", 5) + good[4:])                                 # shorter than its header
        for length in range(0, 60):
            self.inject(packet_message(packet(proto=6)[:length]))
        self.inject(packet_message(packet(sport=4)))
        self.counted(1 + 1 + 60 + 1)
        self.assertTrue({3, 4} <= {event["first_port"] for event in self.results(2)})

    def test_netlink_errors_end_the_daemon_with_status_1(self):
        error = struct.pack("=IHHII", 36, 2, 0, 0, 0) + struct.pack("=i", -22) + bytes(16)
        foreign = packet_message(packet(), port=4711)
        interrupted = packet_message(packet(), flags=0x10)
        for name, bad in (("error", error), ("port", foreign), ("dump", interrupted)):
            for command, text in (("inject-hex", "mnl_cb_run error!!!"), ("inject-control", "mnl_cb_run: ")):
                with self.subTest(name=name, command=command):
                    self.module.command(f"{command} {bad.hex()}")
                    self.assertEqual(self.world.daemon.wait(), 1)
                    self.assertIn(text, self.log() + self.world.daemon.stderr)
                    self.world.start_daemon()  # and it starts cleanly again

    def test_an_overrun_is_logged_and_reading_goes_on(self):
        self.prepare()
        self.module.command("overrun packet")
        world.wait_until(lambda: "packet socket error: No buffer space available\n" in self.log(), "the line")
        self.world.log_level("INFO")
        self.module.command("overrun control")
        # Told by the event loop, or by the receive call where that comes first.
        world.wait_until(lambda: re.search("Control Msg Socket Error adding the uloop again\n|Err No: 105 ", self.log()),
                         "the line")
        self.inject(packet_message(packet()))
        self.results(1)

    def test_an_error_of_the_control_socket_with_nothing_to_read_is_told_once(self):
        line = "Control Msg Socket Error adding the uloop again\n"
        self.prepare()
        self.world.log_level("INFO")
        for times in (1, 2):
            self.module.command("overrun control bare")
            world.wait_until(lambda: self.log().count(line) >= times, "the line")
            for _ in range(20):
                self.world.settle()  # a turn of the event loop each
            self.assertEqual(self.log().count(line), times)
            read = self.counters()[3]
            self.module.command("inject-control " + struct.pack("=IHHII", 16, 1, 0, 0, 0).hex())
            world.wait_until(lambda: self.counters()[3] == read + 1, "reading goes on")

    def test_packet_and_flow_lines_of_the_log(self):
        self.prepare()
        self.world.log_level("STATS", packetLog="enable", flowLog="enable")
        self.inject(packet_message(packet(proto=6, dport=80)))
        self.inject(packet_message(packet()))
        self.inject(packet_message(packet("2001:db8::1", 1, "2001:db8::2", 10001)))
        self.inject(packet_message(b"\0" * 20), packet_message(b"\x45"), packet_message(b"\x60" * 39))
        world.wait_until(lambda: self.log().count("Ip version 60 60\n") == 2, "the last packet's line")
        log = self.log()
        for line in ("Ip version 40 45\n", "iphdr.saddr 10.0.0.1, .daddr 10.0.0.2, TCP.source 1234, dest 80\n",
                     "iphdr.saddr 2001:db8::1, .daddr 2001:db8::2, UDP.source 1, dest 10001, pay_len: 60\n",
                     "Wrong ip version\n", "Ip version 60 60\n",
                     "fst_ip: 10.0.0.1, secnd_ip: 10.0.0.2, fstPort: 1234, scndPort: 10001, l4 proto: 17 App-Id 1 "
                     "App-Name Mail Same srcIp 100000a dstIp 200000a\n",
                     "amSendResultMessage6: 2001:db8::1, secnd_ip: 2001:db8::2, fstPort: 1, scndPort: 10001, "
                     "l4 proto: 17 App-Id 1 App-Name Mail\n"):
            self.assertIn(line, log)

    def test_without_an_engine_packets_are_counted(self):
        self.world.enable()
        self.inject(packet_message(packet()))
        self.counted(1)

    def test_interrupt_while_packets_never_stop(self):
        self.prepare()
        self.module.command("generate flows=1000000000 packets=1000000000000 ports=10001,10004")
        world.wait_until(lambda: self.module.stats()["results"] > 1000, "traffic")
        began = time.monotonic()
        self.assertEqual(self.world.daemon.stop(signal.SIGINT), 0)
        self.assertLess(time.monotonic() - began, 3)
        world.wait_until(lambda: [event["mirror"] for event in self.module.events("config") if "mirror" in event] ==
                         [1, 0], "mirroring off")

    def test_a_sweep_takes_aged_flows_only(self):
        self.world.daemon.stop()
        self.world.start_daemon(clock=True)
        self.prepare()
        self.inject(packet_message(packet(sport=1)), packet_message(packet(sport=2)))
        self.results(2)
        self.module.command("age-all")
        self.module.command("wait 10000")
        self.world.settle()  # the reports have been read
        self.world.log_level("INFO")
        flows = lambda: len(re.findall("App-Name Mail .*src_port", self.world.dump("flow")))
        self.assertEqual(flows(), 2)
        self.world.advance(301)
        world.wait_until(lambda: flows() == 0, "the sweep")
        self.inject(packet_message(packet(sport=3)))
        self.results(3)
        self.world.advance(301)
        self.assertEqual(flows(), 1, "a live flow stays")
        self.world.disable()
        self.assertEqual(flows(), 0, "switching off empties the database")


class Kits(case.SystemTest):
    def test_another_kit_while_packets_flow_and_the_engine_reports_from_everywhere(self):
        """No verdict with a name of the wrong kit, no entry into an engine that is being replaced."""
        self.world.start("--report-interval", "2")
        old = {number: f"old{number}" for number in range(1, 8)}
        new = {500 + number: f"new{number}" for number in range(1, 8)}
        flows = 20000 if not case.SLOWED else 1000
        for round_, (engine, apps) in enumerate((("handover", old), ("other_ids", new), ("exit_reports", old),
                                                 ("other_ids", new), ("threads", old), ("other_ids", new))):
            self.world.install_kit(engine=engine, apps=apps)
            self.world.call("SETavDpiAppList", {"appList": [{"appName": name} for name in apps.values()]})
            self.world.enable()
            before = self.world.module.stats()
            self.world.module.command(f"generate flows={flows} packets=100000000 first={round_ * flows} "
                                      "ports=10001,10002,10003")
            world.wait_until(lambda: self.world.module.stats()["results"] > before["results"] + 500 or
                             engine == "exit_reports", "verdicts", 60)
            world.wait_until(lambda: self.world.module.stats()["mirrored"] > before["mirrored"] + flows, "packets", 60)
        self.world.module.command("stop")
        self.assertFalse((world.FLASH / "engine.violation").exists())
        wrong = [event for event in self.world.module.events("result") if event["match"] and
                 not (event["app_name"] == f"old{event['app_id']}" or
                      event["app_name"] == f"new{event['app_id'] - 500}")]
        self.assertEqual(wrong, [])

    def test_engines_with_missing_parts(self):
        self.world.start("--report-interval", "0")
        self.world.log_level("DEBUG")
        for engine, value, classifies in (("no_start", 3, True), ("no_packet", 2, False), ("no_exit", 3, True),
                                          ("unresolved", 0, False), ("scripted", 3, True)):
            with self.subTest(engine):
                before = len(self.log())
                self.world.install_kit(engine=engine, apps=APPS)
                log = self.log()[before:]
                self.assertIn(f"LOAD QSKIT FAIL VALUE = {value}\n", log) if engine != "unresolved" else \
                    self.assertRegex(log, r"dl open Failure \(.*engine_entry_of_another_kit.*\) cmdbuff /lib/libcapture.so\n")
                self.assertFalse(os.path.exists("/lib/libcapture.so"))
                self.world.enable()
                results = len(self.world.module.events("result"))
                self.world.module.command("inject-hex " + packet_message(packet(sport=value + 1)).hex())
                if classifies:
                    world.wait_until(lambda: len(self.world.module.events("result")) == results + 1, "a result")
        self.assertTrue(self.world.daemon.running())

    def test_an_engine_that_hangs_holds_up_neither_the_bus_nor_the_end(self):
        self.world.start("--report-interval", "0")
        self.world.install_kit(engine="hanging", apps=APPS)
        self.world.enable()
        self.world.module.command("inject-hex " + packet_message(packet()).hex())
        began = time.monotonic()
        self.world.settle()
        self.assertLess(time.monotonic() - began, 1.5)
        descriptors = lambda: len(os.listdir(f"/proc/{self.world.daemon.pid}/fd"))
        before = count = descriptors()
        self.world.daemon.send(signal.SIGTERM)
        seen = set()
        while "capture thread does not end" not in self.log():
            seen.add(count)
            time.sleep(0.02)
            count = descriptors()
        # The bus connection ends at once.
        self.assertEqual(seen - {before}, {before - 1}, "the sockets stay open while the capture thread is waited for")
        self.assertEqual(self.world.daemon.wait(), 0)
        self.assertIn("capture thread does not end\n", self.log())
        self.assertFalse((world.FLASH / "engine.violation").exists(), "the engine's destructors ran below its packet")
