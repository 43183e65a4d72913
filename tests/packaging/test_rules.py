"""korvid-rules and the example policies, against the kernel's own nftables in the sandbox's network."""
import os
import pathlib
import subprocess
import tempfile
import unittest

TREE = pathlib.Path(__file__).resolve().parents[2]
RULES = TREE / "packaging" / "korvid-rules"
EXAMPLES = sorted((TREE / "packaging" / "examples").glob("*.nft"))
FOREIGN = "table inet firewall {\n\tchain forward {\n\t\ttype filter hook forward priority filter; policy drop;\n\t}\n}\n"


def nft(*arguments, text=None):
    return subprocess.run(["nft", *arguments], input=text, capture_output=True, text=True, check=True).stdout


def rules(*arguments, check=True, **environment):
    done = subprocess.run([RULES, *arguments], capture_output=True, text=True, check=False,
                          env={**os.environ, **environment})
    if check and done.returncode:
        raise AssertionError(done.stderr)
    return done


class Rules(unittest.TestCase):
    def setUp(self):
        nft("flush", "ruleset")
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def file(self, name, text):
        path = self.folder / name
        path.write_text(text)
        return path

    def test_settings_make_the_rules(self):
        settings = self.file("settings", "# comment\ngroup=7\nmask=0xff00\npackets=\"9\"\nhooks='forward input output'\n")
        rules("-f", settings, "--load", "interfaces=eth0 wg*")
        table = nft("list", "table", "inet", "korvid")
        self.assertIn("ct mark & 0x00008000 == 0x00000000 ct packets < 10 goto copy", table)
        self.assertIn("meta length < 73 return\n\t\tlog group 7 snaplen 4072\n", table)
        # In at one of the interfaces or out at one of them; the traffic of the machine itself has one of the two only.
        self.assertEqual([table.count(f'{way} "{name}" goto mirror')
                          for way in ("iifname", "oifname") for name in ("eth0", "wg*")], [2, 2, 2, 2])
        self.assertEqual([table.count(f"hook {hook} priority filter - 10") for hook in ("forward", "input", "output")],
                         [1, 1, 1])

    def test_loading_again_and_removing_leave_other_tables_alone(self):
        policy = self.file("policy.nft", "table inet korvid { chain mine { ct mark & $korvid_mask == $korvid_enforced drop\n}\n}")
        nft("-f", "-", text=FOREIGN)
        rules("--load", f"policy={policy}")
        once = nft("list", "ruleset")
        self.assertIn("ct mark & 0x0003ffff == 0x00010000 drop", once)
        rules("--load", f"policy={policy}")
        self.assertEqual(nft("list", "ruleset"), once)
        rules("--remove")
        self.assertEqual(nft("list", "ruleset"), FOREIGN)
        rules("--remove")

    def test_what_the_kernel_refuses_changes_nothing(self):
        rules("--load", "policy=/nowhere")
        before = nft("list", "ruleset")
        policy = self.file("policy.nft", "table inet korvid { chain mine { ct mark @nothing drop\n}\n}")
        for action in ("--check", "--load"):
            done = rules(action, "group=5", f"policy={policy}", check=False)
            self.assertEqual(done.returncode, 1)
            self.assertIn(str(policy), done.stderr)
        self.assertEqual(nft("list", "ruleset"), before)

    def test_settings_that_cannot_be_are_told(self):
        for setting in ("group=", "group=65536", "group=-1", "group=010", "packets=0", "mask=0", "mask=3", "mask=0x5",
                        "mask=0x1ffffffff", "mask=0x", "mask=017", "mask=1;reboot", "hooks=", "hooks=prerouting",
                        "hooks=input input", "interfaces=a b;c", "interfaces=0123456789abcdef", "interfaces=\"",
                        "policy=relative", "policy=/a\"b", "colour=red"):
            with self.subTest(setting):
                done = rules("--print", setting, check=False)
                self.assertEqual((done.returncode, done.stdout), (1, ""))
                self.assertIn(setting.split("=")[0], done.stderr)
        done = rules("-f", self.file("settings", "group=1\nno setting\n"), "--print", check=False)
        self.assertIn("line 2", done.stderr)

    def test_highest_and_lowest_runs(self):
        for mask, classified, enforced in (("0xffffffff", "0x80000000", "0x40000000"), ("7", "0x4", "0x2"),
                                           ("0xE0000000", "0x80000000", "0x40000000")):
            text = rules("--print", f"mask={mask}").stdout
            self.assertIn(f"define korvid_classified = {classified}\ndefine korvid_enforced = {enforced}\n", text)

    def test_flowtable_that_takes_what_has_no_verdict_is_warned_of(self):
        # This kernel may have no flowtables; what nft prints of one is the same everywhere.
        tool = self.file("nft", "#!/bin/sh\n[ \"$1\" = -t ] || { cat >/dev/null; exit; }\ncat <<'END'\n"
                         "table inet fw4 {\n\tchain forward {\n\t\tmeta l4proto { tcp, udp } flow add @ft\n\t}\n"
                         "\tchain good {\n\t\tct mark & 0x00020000 != 0x00000000 flow add @ft\n\t}\n}\nEND\n")
        tool.chmod(0o755)
        warnings = rules("--load", PATH=f"{self.folder}:{os.environ['PATH']}").stderr.splitlines()
        self.assertEqual(len(warnings), 1)
        self.assertIn("table inet fw4, chain forward", warnings[0])


class Examples(unittest.TestCase):
    def test_examples_load(self):
        self.assertGreater(len(EXAMPLES), 5)
        for example in EXAMPLES:
            with self.subTest(example.name):
                done = rules("--check", f"policy={example}", check=False)
                if "flowtable" in example.read_text() and done.returncode:
                    # Without these devices, or flowtables at all: the syntax has been read.
                    self.assertNotIn("syntax error", done.stderr)
                    self.skipTest(f"{example.name}: {done.stderr.splitlines()[0]}")
                self.assertEqual(done.returncode, 0, done.stderr)


if __name__ == "__main__":
    unittest.main()
