"""OpenWrt's service script between its settings and what is started: each shell that may run it, the kernel's own
nftables, and stand-ins for the functions that rc.common brings."""
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

from test_rules import RULES, TREE, nft

FILES = TREE / "packaging/openwrt/files"
POLICY = pathlib.Path("/etc/korvid/policy.nft")
INCLUDED = pathlib.Path("/var/run/korvid/rules.nft")  # what the firewall's ruleset includes
SHELLS = ["dash"], ["busybox", "ash"]

# A settings file reads as commands of a shell.
STAND_INS = """
config() { section=$2; }
option() { eval "CONFIG_${section}_$1=\\$2"; }
list() { eval "CONFIG_${section}_$1=\\${CONFIG_${section}_$1:+\\$CONFIG_${section}_$1 }\\$2"; }
config_load() { . "$SETTINGS"; }
config_get() { eval "$1=\\${CONFIG_$2_$3:-\\$4}"; }
config_get_bool() { config_get "$@"; }
procd_open_instance() { :; }
procd_set_param() { [ "$1" != command ] || { shift; printf '%s\\n' "$@"; }; }
procd_close_instance() { :; }
start() { start_service; }
logger() { shift 4; { [ $# -gt 0 ] && echo "$*" || cat; } >&2; }
sysctl() { :; }
ubus() { :; }
. "$SCRIPT"
"$@"
"""


class Service(unittest.TestCase):
    def setUp(self):
        nft("flush", "ruleset")
        POLICY.parent.mkdir(exist_ok=True)
        POLICY.write_text((TREE / "packaging/policy.nft").read_text())
        self.addCleanup(shutil.rmtree, POLICY.parent)
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        for name in ("wg0", "wg1"):  # what an asterisk must not become
            (self.folder / name).touch()

    def run_script(self, shell, function, settings):
        """The daemon's command line, and what was logged."""
        (self.folder / "settings").write_text(settings)
        tool = self.folder / "korvid-rules"
        tool.write_text(f"#!/bin/sh\nexec {' '.join(shell)} {RULES} \"$@\"\n")
        tool.chmod(0o755)
        done = subprocess.run([*shell, "-c", STAND_INS, "korvid-netfilter", function], cwd=self.folder, check=True,
                              capture_output=True, text=True,
                              env={**os.environ, "PATH": f"{self.folder}:{os.environ['PATH']}",
                                   "SCRIPT": str(FILES / "korvid-netfilter.init"), "SETTINGS": str(self.folder / "settings")})
        return done.stdout.splitlines(), done.stderr

    def test_settings_reach_daemon_and_rules_as_they_stand(self):
        shipped = (FILES / "korvid.config").read_text()
        own = ("config korvid 'main'\n\toption group '7'\n\toption mask '0xff00'\n\toption packets '9'\n"
               "\tlist interfaces 'br-lan'\n\tlist interfaces 'wg*'\n\tlist hooks 'forward'\n\tlist hooks 'output'\n")
        for shell in SHELLS:
            for settings, group, mask, rule, chains in (
                    (shipped, "26", "0x3ffff", "ct mark & 0x00020000 == 0x00000000 ct packets < 33 goto", {}),
                    (own, "7", "0xff00", "ct mark & 0x00008000 == 0x00000000 ct packets < 10 goto",
                     {"forward": ["iifname", "oifname"], "output": ["oifname"]})):
                with self.subTest(shell=shell, group=group):
                    command, told = self.run_script(shell, "start_service", settings)
                    self.assertEqual((command, told), (["/usr/sbin/korvid-netfilter", "-g", group, "-m", mask], ""))
                    table = nft("list", "table", "inet", "korvid")
                    for part in (rule, f"log group {group} "):
                        self.assertIn(part, table)
                    for hook in ("forward", "output"):
                        chain = table.partition(f"chain mirror_{hook}")[2].partition("}")[0]
                        self.assertEqual([line.split()[:2] for line in chain.splitlines() if "ifname" in line],
                                         [[way, f'"{name}"'] for name in ("br-lan", "wg*") for way in chains.get(hook, [])])
                    # A firewall that is loaded anew has the same.
                    nft("-f", "-", text=f"flush ruleset\n{(FILES / 'korvid.nft').read_text()}")
                    self.assertEqual(nft("list", "table", "inet", "korvid"), table)

    def test_what_is_mistaken_is_told_and_never_the_firewall_s(self):
        shipped = (FILES / "korvid.config").read_text()
        self.run_script(SHELLS[0], "start_service", shipped)
        before = nft("list", "ruleset")
        for settings, policy, remark in ((shipped, "table inet korvid { chain mine { ct mark @nothing drop\n}\n}", "nothing"),
                                         (shipped.replace("'0x3ffff'", "'0x3 0xff *'"), "", "mask=0x3 0xff *: not a run")):
            with self.subTest(remark):
                POLICY.write_text(policy)
                command, told = self.run_script(SHELLS[0], "start_service", settings)
                self.assertEqual(command[-1], settings.partition("option mask '")[2].partition("'")[0])
                self.assertIn(remark, told)
                self.assertIn("the rules are not loaded: nothing is recognised", told)
                self.assertFalse(INCLUDED.exists())
                self.assertEqual(nft("list", "ruleset"), before)

    def test_a_service_that_is_switched_off_leaves_no_rules(self):
        shipped = (FILES / "korvid.config").read_text()
        off = shipped.replace("enabled '1'", "enabled '0'")
        for function, settings in (("stop_service", shipped), ("reload_service", off)):
            with self.subTest(function):
                self.run_script(SHELLS[0], "start_service", shipped)
                self.assertTrue(INCLUDED.exists())
                self.assertEqual(self.run_script(SHELLS[0], function, settings)[0], [])
                self.assertFalse(INCLUDED.exists())
                self.assertEqual(nft("list", "ruleset"), "")


if __name__ == "__main__":
    unittest.main()
