#!/usr/bin/env python3
"""What the linked programs must be: hardened, small, free of the C++ library, and the daemon open to its engine.

hardening.py PROGRAM BUILD_TYPE SANITIZERS
Exit status 77: nothing to say about this build.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

DAEMON = pathlib.Path(sys.argv[1]).resolve()
BUILD = next(folder for folder in DAEMON.parents if (folder / "CMakeCache.txt").exists())
IS_DAEMON = DAEMON.name != "korvidctl"
LIMITS = {"korvid": 160, "korvid-netfilter": 200, "korvidctl": 96}  # KiB, stripped
OPTIMISED = sys.argv[2] != "Debug"


def readelf(*options):
    return subprocess.run(["readelf", "--wide", *options, DAEMON], check=True, text=True, stdout=subprocess.PIPE).stdout


def undefined_symbols():
    """Names that the daemon takes from libraries."""
    return {m[1] for m in re.finditer(r" UND (\w+)", readelf("--dyn-syms"))}


class Daemon(unittest.TestCase):
    def test_is_position_independent(self):
        self.assertRegex(readelf("--file-header"), r"Type:\s+DYN")
        self.assertRegex(readelf("--dynamic"), r"FLAGS_1.*\bPIE\b")

    def test_relocations_are_read_only_before_main(self):
        self.assertIn("GNU_RELRO", readelf("--program-headers"))
        self.assertRegex(readelf("--dynamic"), r"FLAGS.*(BIND_NOW|\bNOW\b)")

    def test_no_memory_is_writable_and_executable(self):
        segments = re.findall(r"^\s+(LOAD|GNU_STACK)\s+(?:0x\w+\s+){5}([RWE ]{3})\s", readelf("--program-headers"), re.M)
        self.assertIn("GNU_STACK", dict(segments))
        self.assertEqual([], [s for s in segments if "W" in s[1] and "E" in s[1]])

    def test_no_code_is_relocated(self):
        self.assertNotIn("TEXTREL", readelf("--dynamic"))

    def test_run_path_is_the_build_folder_at_most(self):
        # Where the bus libraries are bundled; installation strips it.
        paths = re.findall(r"\((?:RPATH|RUNPATH)\).*\[(.*)\]", readelf("--dynamic"))
        foreign = [p for entry in paths for p in entry.split(":") if p and not p.startswith(str(BUILD))]
        self.assertEqual([], foreign)

    def test_stack_is_guarded(self):
        self.assertIn("__stack_chk_fail", undefined_symbols())

    @unittest.skipUnless(OPTIMISED, "buffer checks need optimisation")
    def test_buffer_writes_are_checked(self):
        checked = {name for name in undefined_symbols() if re.fullmatch(r"__\w+_chk", name)} - {"__stack_chk_fail"}
        self.assertTrue(checked & {"__vsnprintf_chk", "__snprintf_chk"}, checked)

    def test_needs_no_cpp_library(self):
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", readelf("--dynamic"))
        self.assertTrue(any(name.startswith("libmnl." if IS_DAEMON else "libubus.") for name in needed), needed)
        self.assertEqual([], [name for name in needed if name.startswith(("libstdc++", "libgcc_s", "libc++"))])

    def test_engine_finds_its_symbols_and_nothing_else(self):
        exported = re.findall(r" (?:GLOBAL|WEAK|UNIQUE)\s+\w+\s+(?!UND)\w+ (\S+)", readelf("--dyn-syms"))
        if not IS_DAEMON:  # it loads none: variables of the C library may have been moved into it
            self.assertEqual([], [name for name in exported if "@GLIBC" not in name])
            return
        self.assertEqual(["am_capture_flow_func", "capture_flow_func", "pcap"], sorted(exported))

    @unittest.skipUnless(OPTIMISED and "X86-64" in readelf("--file-header"), "the limit is that of x86-64 at -O2")
    def test_is_small(self):
        with tempfile.NamedTemporaryFile() as stripped:
            subprocess.run(["strip", "-o", stripped.name, DAEMON], check=True)
            size = os.path.getsize(stripped.name)
        print(f"stripped size: {size} bytes")
        self.assertLessEqual(size, LIMITS[DAEMON.name] * 1024)


if __name__ == "__main__":
    if sys.argv[3]:
        print("sanitizers change what is linked: nothing checked")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
