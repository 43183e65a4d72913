"""kit check and config check: a file for every finding, and none for a good one."""
import io
import json
import pathlib
import shutil
import subprocess
import tarfile
import unittest

import case
import world
from test_korvidctl import TOOL
from test_signatures import signify

KIT, CONFIG = pathlib.Path("/tmp/kit"), pathlib.Path("/tmp/dpi.conf")
TITLES = "id,name,category,risk,kind,area,source\n"


def index(*lines):
    path = pathlib.Path(f"/tmp/index-{abs(hash(lines))}.csv")
    path.write_text(TITLES + "".join(line + "\n" for line in lines))
    return {"index": path}


class Checks(case.SystemTest):
    def check(self, *words):
        done = subprocess.run([*TOOL, *map(str, words)], capture_output=True, text=True, check=False, cwd="/tmp")
        self.assertEqual(done.returncode, 1 if "fault" in done.stdout.replace(" 0 faults", "") else 0, done.stdout + done.stderr)
        return done.stdout

    def kit(self, **options):
        world.make_kit(KIT, **({"apps": {1: "Mail"}} if "index" not in options else {}), **options)
        return self.check("kit", "check", KIT)

    def links(self, **links):
        """The good kit with these links in its library folder."""
        world.make_kit(KIT, apps={1: "Mail"})
        with tarfile.open(KIT) as source:
            members = [(entry, source.extractfile(entry).read() if entry.isfile() else b"") for entry in source]
        with tarfile.open(KIT, "w:gz") as target:
            for entry, content in members:
                target.addfile(entry, io.BytesIO(content))
            for name, to in links.items():
                entry = tarfile.TarInfo(f"lib/ni/{name}")
                entry.type, entry.linkname = tarfile.SYMTYPE, to
                target.addfile(entry)
        return self.check("kit", "check", KIT)

    def test_kits(self):
        self.assertIn("good: 4.2, 1 applications", self.kit(version="4.2"))
        foreign = pathlib.Path("/tmp/libforeign.so")
        foreign.write_bytes(b"\x7fELF\2\2" + bytes(58))
        text = pathlib.Path("/tmp/libtext.so")
        text.write_text("a text")
        for expected, options in (
                ("compatibility.txt:1: fault: level 3, the daemon takes 1", {"level": 3}),
                ("compatibility.txt: fault: missing", {"without": "compatibility"}),
                ("version: note: missing", {"without": "version"}),
                ("AppMon_Signature_Index.csv: fault: missing", {"without": "index"}),
                ("libcapture.so: fault: missing", {"without": "lib"}),
                ("libforeign.so: fault: made for another processor", {"lib": foreign}),
                ("libtext.so: fault: no ELF library", {"lib": text}),
                ("libcapture.so: note: has no entry test_capture_exit", {"engine": "no_exit"}),
                ("libcapture.so: fault: has no entry pcap_packet", {"engine": "no_packet"}),
                (", which nobody offers", {"engine": "unresolved"}),
                ("csv:2: fault: no name", index("1")),
                ("csv:3: fault: number 1 is that of line 2 already", index("1,Mail,-", "1,Chat,-")),
                ("csv:3: fault: the name Mail is there already, with number 1", index("1,Mail,-", "2,Mail,-")),
                ("csv:2: fault: the name " + "N" * 33 + " is cut to " + "N" * 32, index("1," + "N" * 33 + ",-")),
                ("csv:2: fault: no number before the first comma: it counts as 0", index("x,Mail,-")),
                ("csv:3: fault: number 65537 is not from 0 to 65535: it counts as 1", index("2,Chat,-", "65537,Mail,-")),
                ("csv:2: fault: longer than 511 characters", index("1,Mail," + "x" * 600))):
            with self.subTest(expected=expected):
                found = self.kit(**options)
                self.assertIn(expected, found)
        engine = "helped"
        self.assertIn("needs the library libhelper.so.1, which is neither in the kit nor on this system",
                      self.kit(engine=engine))
        self.assertIn("good", self.kit(engine=engine, lib=world.ENGINES / "helper_long/libhelper.so.1"))
        self.assertIn("libbad.so: fault: a link out of the kit, to /etc/passwd", self.links(**{"libbad.so": "/etc/passwd"}))
        self.assertIn("libbad.so: fault: a link to nowhere.so, which is not there", self.links(**{"libbad.so": "nowhere.so"}))
        self.assertIn("good", self.links(**{"libgood.so": "libcapture.so"}))
        shutil.copy(KIT, "/tmp/kit:8")
        self.assertIn("good", self.check("kit", "check", "kit:8"), "a file here, not one on the host kit")
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=8k", "tmpfs", "/var/flash"], check=True)
        self.addCleanup(subprocess.run, ["umount", "/var/flash"], check=True)
        self.assertRegex(self.check("kit", "check", KIT), r"fault: its copy and what it unpacks to need \d+ bytes, /var/flash has \d+\n")
        KIT.write_text("no kit")
        self.assertIn("tar cannot unpack it", self.check("kit", "check", KIT))

    def test_a_kit_with_a_key(self):
        signify("-G", "-n", "-p", "/tmp/check.pub", "-s", "/tmp/check.sec")
        world.make_kit(KIT, apps={1: "Mail"}, sign="/tmp/check.sec")
        self.assertIn("good", self.check("kit", "check", "--key", "/tmp/check.pub", KIT))
        with open(KIT, "ab") as kit:
            kit.write(b"\0")
        self.assertIn("fault: its signature is wrong", self.check("kit", "check", "--key", "/tmp/check.pub", KIT))
        self.assertIn("not trusted", self.check("kit", "check", "--key", "/dev/null", KIT))

    def config(self, profile, **more):
        CONFIG.write_text(profile if isinstance(profile, str) else
                          json.dumps({"ApplicationVisbilityProfile": [profile], **more}, indent=1))
        return self.check("config", "check", "--kit", KIT, CONFIG)

    def test_configurations(self):
        world.make_kit(KIT, apps={1: "Mail", 2: "Chat", 3: "YouTube"})
        app = lambda name: {"appName": name}
        good = {"avAppGroup": {"talk": [app("Chat"), app("Mail")]}, "avAppMonAppList": {"appList": [app("YouTube")]},
                "avDpiAppList": {"appList": [], "appGroup": ["talk"]}, "appMonAdminState": {"adminState": "enable"}}
        found = self.config(good)
        self.assertEqual(found.splitlines(), ["1. groups: 1", "2. monitoring list: 1 applications",
                                              "3. enforcement list: 2 applications", "4. mirroring on",
                                              f"{CONFIG}: 0 faults"])
        for expected, profile in (
                (f"{CONFIG}:3: fault: no JSON from about column 4 on", '{"a": [\n1,\n"x": tru2]}'),
                (":1: fault: there is no array \"ApplicationVisbilityProfile\"", "{}"),
                (":1: fault: there is no array \"ApplicationVisbilityProfile\"", "[1]"),
                (":4: fault: unknown key \"avDpiList\": nothing reads it", {"avDpiList": 5}),
                (f"{CONFIG}: fault: unknown key \"\": nothing reads it", '{"\\u0000": 5}'),
                ("fault: \"avDpiAppList\" is no object: it counts as missing", {"avDpiAppList": []}),
                ("fault: \"appList\" is no array", {"avDpiAppList": {"appList": {}}}),
                ("fault: the kit knows no application 'Youtub': YouTube?", {"avAppGroup": {"g": [app("Youtub")]}}),
                ("fault: there is no group 'web'", {"avDpiAppList": {"appGroup": ["web"]}}),
                ("fault: an application that is no object", {"avDpiAppList": {"appList": ["Mail"]}}),
                ("fault: group \"g\" is no array", {"avAppGroup": {"g": 1}}),
                ("the group's name is cut to " + "g" * 40, {"avAppGroup": {"g" * 41: []}}),
                ("has no \"password\": no kit is fetched", {"avSignatureProfile": {"filePath": "u", "username": "u"}})):
            with self.subTest(expected=expected):
                self.assertIn(expected, self.config(profile))
        self.assertIn("1. stop: \"adminState\" is not \"enable\"", self.config({**good, "appMonAdminState": {"adminState": "disable"}}))


if __name__ == "__main__":
    unittest.main()
