"""Start-up, shutdown and signals, as an init system sees them."""
import json
import os
import re
import signal
import socket
import time
import unittest

import case
import world
from broker import Broker

LOST = "The bus is gone\n"


class Start(case.SystemTest):
    def test_start_line_is_the_first_of_the_log(self):
        self.world.start()
        self.assertRegex(self.log(), r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \[ERROR\]: korvid start 4MB\n")

    def test_last_bus_socket_counts_and_unknown_options_are_skipped(self):
        self.world.start_bus()
        self.world.start_module()
        daemon = self.world.start_daemon("-x", "-c", "-s", "/tmp/nowhere.sock", "-s", world.BUS_SOCKET)
        self.assertIn("invalid option -- 'x'", daemon.stderr)

    def test_without_a_bus_it_serves_the_kernel_and_ends_in_order(self):
        self.world.start_module()
        daemon = self.world.start_daemon("-s", "/tmp/nowhere.sock", wait=False)
        world.wait_until(lambda: self.world.module.events("config"), "the registration")
        self.assertIn("Failed to connect to ubus\n", daemon.stderr)
        self.assertEqual(daemon.stop(signal.SIGTERM), 0)

    def test_a_name_taken_on_the_bus_leaves_it_running_without_methods(self):
        self.world.start()
        second = world.Process("second", ["/usr/bin/env",
                                          f"LD_PRELOAD={world.BUILD}/platform/kernel/libnetlink26.so",
                                          *world.EMULATOR, world.BUILD / "src/korvid", "-s", world.BUS_SOCKET],
                               env={"KORVID_DPIMOD_SOCKET": world.MODULE_SOCKET})
        world.wait_until(lambda: "Failed to add object: Invalid argument\n" in second.stderr, "the message")
        self.assertTrue(second.running())
        self.assertEqual(second.stop(), 0)

    def test_without_the_kernel_module_it_ends_with_status_1(self):
        self.world.start_bus()
        daemon = self.world.start_daemon("-s", world.BUS_SOCKET, wait=False)
        self.assertEqual(daemon.wait(), 1)
        self.assertIn("korvid: open management netlink socket: ", daemon.stderr)

    def test_a_bus_that_dies_is_told_once_and_the_kernel_is_served_on(self):
        """Idle, while a request is served that has its reply, and before the reply goes out."""
        fetch = ("CREATEavSignatureProfile", {"username": "u", "password": "p", "filePath": "file:///tmp/slow"}, "/tmp/slow")
        install = ("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"}, world.KIT)
        for (method, arguments, pipe), end in (((None, None, None), signal.SIGTERM), (fetch, signal.SIGINT),
                                               (install, signal.SIGTERM)):
            with self.subTest(method), world.World() as self.world:
                self.world.start()
                self.world.enable()
                if method:
                    os.mkfifo(pipe)
                    asker = world.Process("ubus", [*world.bus_program("ubus"), "-s", world.BUS_SOCKET, "call", "dpi",
                                                   method, json.dumps(arguments)])
                    with open(pipe, "wb"):  # opens once the daemon reads it
                        self.world.bus.stop(signal.SIGKILL)
                    asker.wait()
                    os.unlink(pipe)
                else:
                    self.world.bus.stop(signal.SIGKILL)
                world.wait_until(lambda: LOST in self.log() or not self.world.daemon.running(), "the end of the bus")
                self.assert_serves_without_a_bus(end)
                if end == signal.SIGINT:
                    self.assertEqual(self.mirror_states(), [1, 0])

    def test_what_the_bus_tells_or_does_during_the_start_waits_for_the_loop(self):
        """An event comes with an answer; then the bus goes on, dies, at once or with the next request, or only falls silent."""
        for answered, then in ((0, "dies"), (1, "goes on"), (1, "dies"), (1, "dies later"), (2, "dies"), (2, "ends its side")):
            with self.subTest(answered=answered, then=then), world.World() as self.world, Broker() as broker:
                world.CONFIG.write_text('{"ApplicationVisbilityProfile": [{"appMonAdminState": {"adminState": "enable"}}]}')
                self.world.start_module()
                self.world.start_daemon(wait=False)
                broker.greet()
                broker.answer(answered)
                broker.connection.sendall(broker.request() + broker.call(broker.EVENTS, "userconfig.reload"))
                if then == "goes on":
                    broker.answer(1)
                elif then == "dies later":
                    broker.request()
                if then == "ends its side":
                    broker.connection.shutdown(socket.SHUT_WR)
                elif then != "goes on":
                    broker.end()
                # First the daemon's own reading of the configuration, then that of the event.
                world.wait_until(lambda: self.mirror_states() == [1, 0, 1] or not self.world.daemon.running(), "both loads")
                if then != "goes on":
                    world.wait_until(lambda: LOST in self.log() or not self.world.daemon.running(), "the end of the bus")
                    self.assert_serves_without_a_bus(signal.SIGTERM)
                else:
                    self.assertTrue(self.world.daemon.running())

    def assert_serves_without_a_bus(self, end):
        self.assertTrue(self.world.daemon.running())
        self.assertEqual(self.log().count(LOST), 1)
        world.wait_until(lambda: ") S " in world.text_of(f"/proc/{self.world.daemon.pid}/stat"), "a loop that sleeps")
        self.assertEqual(self.world.daemon.stop(end), 0)

    def test_an_unwritable_log_goes_to_standard_error(self):
        os.mkdir(world.LOG)  # a folder in its place
        self.world.start()
        self.assertIn("[ERROR]: korvid start 4MB\n", self.world.daemon.stderr)
        self.world.daemon.stop()
        self.assertIn("Error open log file: /var/log/dpi.log\n", self.world.daemon.stdout)
        os.rmdir(world.LOG)

    def test_no_file_takes_the_place_of_a_closed_standard_error(self):
        self.world.start(wrapper=("/bin/sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"))
        for number in range(3):
            self.assertEqual(os.readlink(f"/proc/{self.world.daemon.pid}/fd/{number}"), "/dev/null")
        self.world.install_kit(apps={1: "Mail"})  # its commands print, and fail where they cannot
        self.world.call("SETavDpiAppList", {"appList": [{"appName": "Mail"}]})

    def test_commands_of_a_kit_inherit_no_descriptor(self):
        self.world.start()
        self.world.install_kit(apps={1: "Mail"})
        folder = f"/proc/{self.world.daemon.pid}"
        inherited = [os.readlink(f"{folder}/fd/{fd}") for fd in os.listdir(f"{folder}/fd") if int(fd) > 2 and
                     not int(re.search(r"flags:\s+(\d+)", world.text_of(f"{folder}/fdinfo/{fd}"))[1], 8) & os.O_CLOEXEC]
        self.assertEqual(inherited, [])

    def test_interrupt_stops_mirroring_before_the_end(self):
        self.world.start()
        self.world.enable()
        self.assertEqual(self.world.daemon.stop(signal.SIGINT), 0)
        last = world.wait_until(lambda: self.mirror_states()[-1:] == [0] and self.mirror_states(), "mirroring off")
        self.assertEqual(last, [1, 0])
        self.assertIn("signal SIGINT/SIGTERM\n", self.log())
        self.assertRegex(self.log(), r"recv packet count: 0\n")

    @unittest.skipIf("thread" in case.SANITIZED, "that sanitizer holds signals back from a thread that is blocked")
    def test_interrupt_counts_while_the_event_loop_is_busy(self):
        self.world.start()
        self.world.enable()
        os.mkfifo("/tmp/never")  # a file server that never answers: the loop waits for the writer
        self.world.call("CREATEavSignatureProfile", {"username": "u", "password": "p", "filePath": "file:///tmp/never",
                                                      "fileCheckSum": "0"})
        began = time.monotonic()
        self.assertEqual(self.world.daemon.stop(signal.SIGINT), 0)
        self.assertLess(time.monotonic() - began, 5)
        world.wait_until(lambda: self.mirror_states()[-1:] == [0], "mirroring off")

    def test_term_during_a_long_start_up_counts(self):
        world.make_kit(apps={1: "Mail"})
        world.CONFIG.write_text('{"ApplicationVisbilityProfile": [{"reloadSignFile": "force"}]}')
        self.world.start_bus()
        self.world.start_module()
        daemon = self.world.start_daemon(wait=False)
        world.wait_until(lambda: "GET md5sum" in self.log(), "the kit's installation")
        self.assertEqual(daemon.stop(signal.SIGTERM), 0)  # the engine's start alone takes a second

    def mirror_states(self):
        return [event["mirror"] for event in self.world.module.events("config") if "mirror" in event]
