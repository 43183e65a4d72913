"""The kit builder, run as people run it: mkkit_test.py MKKIT ENGINE_FOLDER"""

import io
import pathlib
import subprocess
import sys
import tarfile
import tempfile
import unittest

MKKIT, ENGINES = sys.argv[1:3]
ENGINE = f"{ENGINES}/scripted/libcapture.so"
MEMBERS = ["compatibility.txt", "version", "AppMon_Signature_Index.csv", "lib", "lib/ni", "lib/ni/libcapture.so"]


class Kit(unittest.TestCase):
    def build(self, *arguments):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "HAppSig.upgrade_kit")
            run = subprocess.run([MKKIT, *arguments, "-o", str(path)], capture_output=True, text=True)
            if run.returncode:
                return run.stderr
            return path.read_bytes()

    def members(self, kit):
        with tarfile.open(fileobj=io.BytesIO(kit), mode="r:gz") as archive:
            return {m.name: archive.extractfile(m).read() if m.isfile() else None for m in archive.getmembers()}

    def test_holds_what_was_asked_for(self):
        members = self.members(self.build("--engine", ENGINE, "--apps", "17,Mail; 4,Voice call", "--level", "2",
                                          "--version", "3.2.1", "--lib", MKKIT))
        self.assertEqual(list(members), MEMBERS + ["lib/ni/mkkit"])
        self.assertEqual(members["compatibility.txt"], b"2\n")
        self.assertEqual(members["version"], b"3.2.1\n")
        self.assertEqual(members["lib/ni/libcapture.so"], pathlib.Path(ENGINE).read_bytes())
        lines = members["AppMon_Signature_Index.csv"].decode().splitlines()
        self.assertEqual(lines[1:], ["17,Mail,-,-,-,-,-", "4,Voice call,-,-,-,-,-"])

    def test_the_classifier_brings_its_index(self):
        members = self.members(self.build("--ndpi", ENGINES))
        lines = members["AppMon_Signature_Index.csv"].decode().splitlines()
        self.assertIn("5,DNS,", "\n".join(lines))
        for line in lines:
            fields = line.split(",")
            self.assertEqual(len(fields), 7)
            self.assertTrue(all(fields))
            self.assertLessEqual(len(fields[1]), 32)
        self.assertEqual([line.split(",")[0] for line in lines[1:]], [str(i) for i in range(len(lines) - 1)])

if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
