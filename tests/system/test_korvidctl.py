"""korvidctl as people and programs use it: what it prints, changes and ends with, against the daemon."""
import fcntl
import json
import os
import pathlib
import pty
import re
import signal
import struct
import subprocess
import termios
import time
import unittest

import case
import world
from test_traffic import WITHOUT_RING

APPS = {1: "Mail", 2: "Chat", 3: "Games", 4: "YouTube"}
TOOL = [*world.EMULATOR, str(world.BUILD / "src/ctl/korvidctl")]
PLAIN = {name: value for name, value in os.environ.items() if name != "NO_COLOR"}


class Korvidctl(case.SystemTest):
    def setUp(self):
        super().setUp()
        self.world.start("--report-interval", "0", *WITHOUT_RING)
        self.world.install_kit(apps=APPS, version="7.1")

    def run_tool(self, *words):
        return subprocess.run([*TOOL, "-s", world.BUS_SOCKET, *map(str, words)], capture_output=True, text=True, check=False)

    def tool(self, *words, status=0):
        done = self.run_tool(*words)
        self.assertEqual(done.returncode, status, f"{words}: {done.stdout}{done.stderr}")
        return done.stdout if status == 0 else done.stdout + done.stderr

    def lists(self):
        apps = json.loads(self.tool("apps", "--json"))["apps"]
        return {kind: {app["name"]: app["group"] for app in apps if app[kind]} for kind in ("enforced", "monitored")}

    def test_lists_and_groups_are_changed_and_saved(self):
        self.world.enable()
        self.assertIn("not saved", self.tool("enforce", "add", "Mail", "Games"))
        self.assertIn("Mail: enforced as before", self.tool("enforce", "add", "Mail"))
        self.tool("group", "add", "talk", "Chat", "Mail")
        self.tool("group", "add", "fun", "Chat")
        self.tool("enforce", "add", "--group", "fun", "--group", "talk")
        self.assertEqual(self.lists()["enforced"], {"Mail": "talk", "Chat": "talk", "Games": ""})
        self.assertIn("remove --group talk", self.tool("enforce", "remove", "Chat", status=1))
        self.assertIn("Games: no longer enforced", self.tool("enforce", "remove", "Games"))
        self.tool("group", "add", "talk", "Games")
        self.assertEqual(self.lists()["enforced"], {"Mail": "talk", "Chat": "talk", "Games": "talk"},
                         "a member that comes later comes onto the list")
        self.tool("group", "remove", "talk", "Chat")
        self.assertEqual(self.lists()["enforced"], {"Mail": "talk", "Chat": "fun", "Games": "talk"},
                         "another group's member stays")
        self.assertEqual(self.tool("group", "delete", "talk").splitlines()[0], "group talk: gone")
        self.assertEqual(self.lists()["enforced"], {"Chat": "fun"})
        self.assertIn("saved\n", self.tool("monitor", "set", "--save", "YouTube", "Mail"))
        self.assertFalse(self.world.ask("status")["configuration"]["unsaved_changes"])
        saved = json.loads(world.CONFIG.read_text())["ApplicationVisbilityProfile"][0]
        self.assertEqual([app["appName"] for app in saved["avAppMonAppList"]["appList"]], ["Mail", "YouTube"])
        self.tool("monitor", "set")
        self.assertEqual(self.lists()["monitored"], {})
        self.assertIn("saved", self.tool("save"))
        for words, unsaved in ((("enforce", "add", "Games"), True), (("group", "add", "fun", "Mail", "--save"), False),
                               (("disable",), False), (("enable", "--save"), False), (("monitor", "set", "Mail"), True), (("save",), False)):
            status = json.loads(self.tool(*words, "--json"))
            self.assertEqual((words, status["configuration"]["unsaved_changes"]), (words, unsaved))

    def test_names_that_nobody_knows_change_nothing(self):
        self.assertIn("no application 'Youtub': YouTube?", self.tool("enforce", "add", "Mail", "Youtub", status=1))
        self.assertIn("no group 'talk'", self.tool("enforce", "set", "--group", "talk", status=1))
        self.assertEqual(self.lists()["enforced"], {})
        self.assertIn("nearest name is 'YouTube'", self.tool("explain", "YouTub", status=1))
        self.tool("group", "delete", "talk", status=1)
        self.assertIn("no application 'Youtub': YouTube?", self.tool("flows", "--application", "Youtub", status=1))
        self.assertIn("is no address", self.tool("flows", "--address", "10.0.0", status=2))

    def test_names_are_no_commands_of_a_terminal(self):
        """Escape sequences, C1 controls and bytes that are no UTF-8, from the kit, the bus and a configuration file."""
        bad = "\033]0;x\a\u009b1m\x7f"
        index, config = pathlib.Path("/tmp/index.csv"), pathlib.Path("/tmp/hostile.conf")
        index.write_bytes(f"id,name\n1,Mail{bad},-\n2,Stra\u00dfe,-\n3,Chat".encode() + b"\x9b,-\n")
        profile = {"avSignatureProfile": {"filePath": f"ftp://{bad}", "username": "u", "password": "p"}}
        config.write_text(json.dumps({"ApplicationVisbilityProfile": [profile]}))
        self.world.install_kit(index=index, version=f"7{bad}")
        self.world.call("CREATEavAppGroup", {"appGroup": {f"g{bad}": [{"appName": f"Mail{bad}"}]}})
        self.world.call("SETavDpiAppList", {"appGroup": [f"g{bad}"]})
        for words in (("status",), ("apps",), ("groups",), ("groups", f"g{bad}"), ("explain", f"Mail{bad}"), ("explain", "Mai"),
                      ("enforce", "add", "Mai"), ("kit", "check", world.KIT), ("config", "check", config),
                      ("kit", "install", world.KIT)):
            with self.subTest(words=words):
                done = subprocess.run([*TOOL, "-s", world.BUS_SOCKET, *words], capture_output=True, check=False)
                printed = (done.stdout + done.stderr).decode()
                self.assertEqual(re.findall("[^\n\x20-\x7e\xa0-\uffff]", printed), [], printed)
        self.assertIn("Stra\u00dfe  ", self.tool("apps"))

    def test_completion_runs_nothing_of_a_name(self):
        ran = pathlib.Path("/tmp/ran")
        self.tool("group", "add", f"a$(touch {ran})", "Mail")
        tools = pathlib.Path("/tmp/tools")
        tools.mkdir()
        (tools / "korvidctl").write_text(f'#!/bin/sh\nexec {" ".join(TOOL)} -s {world.BUS_SOCKET} "$@"\n')
        (tools / "korvidctl").chmod(0o755)

        def complete(*words):
            script = f"source {world.TREE}/packaging/completion/korvidctl; COMP_WORDS=(korvidctl \"$@\"); COMP_CWORD=$#; _korvidctl;" \
                     "printf '%s\\n' \"${COMPREPLY[@]}\""
            return subprocess.run(["bash", "-c", script, "bash", *words], capture_output=True, text=True, check=True,
                                  env={**os.environ, "PATH": f"{tools}:{os.environ['PATH']}"}).stdout.splitlines()
        self.assertEqual(complete("groups", ""), [rf"a\$\(touch\ {ran}\)", "Chat", "Games", "Mail", "YouTube"])
        self.assertEqual((complete("explain", "You"), complete("enf"), complete("kit", "")),
                         (["YouTube"], ["enforce"], ["check", "install", "keys"]))
        self.assertFalse(ran.exists())

    def test_exit_statuses(self):
        self.assertIn("health        ok", self.tool("status"))
        self.assertEqual(json.loads(self.tool("status", "--json"))["kit"]["version"], "7.1")
        self.assertEqual(self.tool("enable"), "mirroring is on\n")
        self.assertEqual(self.tool("disable"), "mirroring is off\n")
        for words in ((), ("nothing",), ("--nothing", "status"), ("apps", "--sort", "size"), ("explain", "udp", "1"),
                      ("enforce", "add"), ("group", "delete", "a", "b"), ("apps", "--limit", "0"), ("kit", "check")):
            self.tool(*words, status=2)
        signature = world.KIT.with_name(world.KIT.name + ".sig")
        signature.write_text("of the kit that is there")
        self.assertIn("/tmp cannot be copied", self.tool("kit", "install", "/tmp", status=1))
        self.assertTrue(signature.exists(), "the kit keeps its signature where no other takes its place")
        bad = world.FLASH / "bad.kit"
        bad.write_text("no kit")
        self.assertIn("tar cannot unpack it", self.tool("kit", "install", bad, status=1))
        self.assertIn("the last kit was refused", self.tool("status", status=1))
        good = world.FLASH / "good.kit"
        world.make_kit(good, apps=APPS | {9: "New"}, version="8")
        self.assertIn("kit 8 with 5 applications is installed", self.tool("kit", "install", good))
        self.world.daemon.stop()
        self.assertIn("korvid is not on the bus", self.tool("status", status=3))
        self.world.bus.stop()
        self.assertIn("there is no bus", self.tool("top", "-1", status=3))

    def test_lists_for_people_and_programs(self):
        self.world.enable()
        self.tool("enforce", "add", "Mail")
        self.world.module.command("generate flows=260 packets=260 ports=10001,10002 family=both")
        self.world.module.command("wait 30000")
        world.wait_until(lambda: self.world.module.stats()["results"] == 260, "verdicts")
        flows = json.loads(self.tool("flows", "--json", "--all"))["flows"]
        self.assertEqual({flow["application"] for flow in flows}, {"Mail"})
        self.assertEqual(len(flows), self.world.ask("flows")["held"])
        titles, *rows = self.tool("flows", "--limit", "120").splitlines()
        self.assertEqual(len(rows), 120)
        self.assertTrue(all(len(row) <= 200 and row[titles.index("STATE"):] == "live" for row in rows), "aligned")
        first = flows[0]
        self.assertIn("is Mail and is enforced", self.tool(
            "explain", first["protocol"], first["source"], first["source_port"], first["destination"], first["destination_port"]))
        self.assertIn("verdicts.judged", self.tool("counters"))
        top = self.tool("top", "-1")
        self.assertNotIn("\033", top, "no colour into a pipe")
        self.assertRegex(top, r"Mail +- +enforced +\d+ ")
        self.assertIn("\033[31menforced", self.tool("top", "-1", "--color"))

    def terminal(self, columns, rows, *words):
        """korvidctl in a terminal of that size."""
        ours, theirs = pty.openpty()
        self.addCleanup(os.close, ours)
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        child = subprocess.Popen([*TOOL, "-s", world.BUS_SOCKET, *words], stdin=theirs, stdout=theirs, stderr=theirs,
                                 env={**PLAIN, "TERM": "xterm"}, start_new_session=True)
        os.close(theirs)
        self.addCleanup(child.wait)
        self.addCleanup(child.kill)
        return ours, child

    def test_top_follows_its_terminal(self):
        self.world.enable()
        self.world.module.command("generate flows=20 packets=20 ports=10001,10002,10003")
        self.world.module.command("wait 30000")
        ours, child = self.terminal(40, 24, "top", "-d", "1000")
        screen = b""

        def seen(pattern):
            nonlocal screen
            screen += os.read(ours, 65536)
            return pattern in screen and screen
        picture = world.wait_until(lambda: seen(b"Games"), "the first picture").decode()
        rows = [row for row in picture.replace("\033[1m", "").replace("\033[0m", "").replace("\033[31m", "").splitlines()
                if row.startswith(("APPLICATION", "Mail", "Chat", "Games"))]
        self.assertTrue(rows and all(len(row) <= 40 for row in rows), rows)
        screen = b""
        fcntl.ioctl(ours, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 120, 0, 0))
        os.killpg(child.pid, signal.SIGWINCH)  # a terminal of its own would send it
        wide = world.wait_until(lambda: seen(b"Games"), "the picture after the change").decode()
        self.assertIn("LAST SEEN", wide)
        os.write(ours, b"q")
        self.assertEqual(child.wait(world.PATIENCE), 0)
        time.sleep(0.05)
        self.assertIn(b"\033[?1049l", os.read(ours, 65536), "the screen comes back")

    def test_top_gives_the_terminal_back_however_it_ends(self):
        def end_of(child, ours, status):
            """What is printed from now on, on a terminal that is as before."""
            self.assertEqual(child.wait(world.PATIENCE), status)
            self.assertTrue(termios.tcgetattr(ours)[3] & termios.ECHO)
            return os.read(ours, 65536)

        def started():
            ours, child = self.terminal(80, 24, "top", "-d", "1000")
            world.wait_until(lambda: b"APPLICATION" in os.read(ours, 65536), "the first picture")
            return ours, child
        ours, child = started()
        os.killpg(child.pid, signal.SIGTSTP)
        world.wait_until(lambda: os.waitpid(child.pid, os.WUNTRACED | os.WNOHANG)[1], "its stop")
        self.assertEqual(os.read(ours, 65536), b"\033[?25h\033[?1049l", "the shell has it meanwhile")
        os.killpg(child.pid, signal.SIGCONT)
        world.wait_until(lambda: b"APPLICATION" in os.read(ours, 65536), "the picture on its own screen again")
        self.world.daemon.send(signal.SIGSTOP)
        self.addCleanup(self.world.daemon.send, signal.SIGCONT)
        os.killpg(child.pid, signal.SIGWINCH)
        time.sleep(0.2)  # by now it waits for an answer
        os.killpg(child.pid, signal.SIGINT)
        # A sanitizer's end flushes what was not shown yet.
        self.assertIn(b"\033[?25h\033[?1049l", end_of(child, ours, 0))
        self.world.daemon.send(signal.SIGCONT)
        ours, child = started()
        self.world.daemon.stop()
        os.killpg(child.pid, signal.SIGWINCH)
        self.assertRegex(end_of(child, ours, 3), rb"\033\[\?1049lkorvidctl: korvid is not on the bus")

    def test_who_goes_while_it_is_asked_is_not_waited_for(self):
        for restarted in (True, False):
            self.world.ask("status")
            self.world.daemon.send(signal.SIGSTOP)
            asking = subprocess.Popen([*TOOL, "-s", world.BUS_SOCKET, "status"], stderr=subprocess.DEVNULL)
            time.sleep(0.2)  # by now it waits for an answer
            self.world.daemon.stop(signal.SIGKILL)
            if restarted:
                self.world.start_daemon()
            self.assertEqual(asking.wait(world.PATIENCE), 3)
        self.world.start_daemon()
        self.world.daemon.send(signal.SIGSTOP)
        self.addCleanup(self.world.daemon.send, signal.SIGCONT)
        asking = subprocess.Popen([*TOOL, "-s", world.BUS_SOCKET, "groups", "web"], stderr=subprocess.DEVNULL)
        time.sleep(0.2)
        self.world.bus.stop()
        self.assertEqual(asking.wait(world.PATIENCE), 3)


if __name__ == "__main__":
    unittest.main()
