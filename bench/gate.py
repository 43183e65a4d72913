#!/usr/bin/env python3
"""Counts the instructions that hot paths take in the daemon's own objects, against limits.

usage: gate.py KORVID_BENCH

Counted by callgrind over one stretch of a row of the cost table.  What libraries execute is left out: the C library
picks its variants by processor.  So the counts are the same on every x86-64 machine and steady on a busy one; they
change with the code and with the compiler (g++ 12, -O2).  A limit is a few percent above what was counted; raise one
knowingly, with the reason in the commit.
"""
import pathlib
import platform
import subprocess
import sys
import tempfile

# Row of the table and instructions per operation.
LIMITS = {
    "capture path, no-op engine, 64-byte packets": 126,
    "verdict, enforced, 1e4 flows held": 850,
    "report, 10 a message": 850,
    "record line": 1525,
    "tree find, 1e3 flows": 308,
    "log line that is filtered out": 4,
}
SKIPPED = 77  # what ctest takes for "skipped"


def instructions(profile, program):
    """Instructions that the objects of `program` executed themselves, without what they called."""
    total, counted, of_call = 0, False, False
    for line in profile.read_text().splitlines():
        if line.startswith("ob="):
            counted = line[3:].endswith("/" + program.name)
        elif line.startswith("calls="):
            of_call = True  # the next line is the cost of the call
        elif line[:1].isdigit():
            if counted and not of_call:
                total += int(line.split()[1])
            of_call = False
    return total


def measure(program, row):
    with tempfile.TemporaryDirectory() as folder:
        profile = pathlib.Path(folder, "profile")
        run = subprocess.run(
            ["valgrind", "--tool=callgrind", "--toggle-collect=korvid_bench_measured", "--compress-strings=no",
             "--compress-pos=no", f"--callgrind-out-file={profile}", str(program), "--once", row],
            capture_output=True, text=True, check=False)
        words = run.stdout.split()
        if run.returncode != 0 or len(words) != 2:
            sys.exit(f"{row}: {run.stdout}{run.stderr}")
        return instructions(profile, program) / int(words[1])


def main():
    if platform.machine() != "x86_64":
        print("limits are known for x86-64 only")
        return SKIPPED
    program = pathlib.Path(sys.argv[1])
    missed = 0
    for row, limit in LIMITS.items():
        count = measure(program, row)
        good = 0 < count <= limit
        missed += not good
        print(f"{row:50} {count:8.1f} instructions, limit {limit:5}  {'ok' if good else 'MISSED'}")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
