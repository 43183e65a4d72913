"""Runs faults and prints the table; inside the sandbox, started by tests/proof/run."""
import argparse
import importlib
import sys
import time

from proof import base

FAMILIES = ("storage", "kill", "memory", "kernel", "kits", "bus", "clock")


def chosen(words):
    known = base.FAULTS
    if not words:
        return known
    found = [fault for fault in known if fault.family in words or fault.title in words]
    unknown = [word for word in words if not any(word in (fault.family, fault.title) for fault in found)]
    if unknown:
        sys.exit(f"prove: no such fault: {', '.join(unknown)} (--list shows all)")
    return found


def main():
    parser = argparse.ArgumentParser(prog="./dev prove", add_help=False)
    parser.add_argument("--soak", nargs="?", type=int, const=1800, default=0)
    parser.add_argument("--full", action="store_true")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--slow", action="store_true")
    parser.add_argument("cases", nargs="*")
    arguments = parser.parse_args()
    if arguments.soak:
        return importlib.import_module("proof.soak").main(arguments.soak)
    for family in FAMILIES:
        importlib.import_module("proof." + family)
    faults = chosen(arguments.cases)
    if arguments.list:
        for fault in faults:
            print(f"{fault.title:32} {fault.words()[0]}")
        return 0

    print("| fault | what is done | times | what korvid did | lost |\n| --- | --- | ---: | --- | --- |", flush=True)
    began, outcomes = time.monotonic(), []
    for fault in faults:
        outcomes.append(base.prove(fault, arguments.full))
        print(outcomes[-1].row(), flush=True)
        if arguments.slow:
            print(f"# {outcomes[-1].seconds:.1f} s", file=sys.stderr)
    bad = [outcome.fault.title for outcome in outcomes if not outcome.good]
    print(f"\n{len(outcomes)} faults, provoked {sum(outcome.run.provoked for outcome in outcomes)} times in "
          f"{time.monotonic() - began:.0f} s: " + (f"FAILED: {', '.join(bad)}" if bad else "nothing lost"))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
