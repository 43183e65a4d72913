"""What `tools/demo --router` shows: korvid-netfilter between a client and a server, on this machine's own kernel; runs
inside the sandbox."""
import re
import subprocess
import sys
import time
import unittest

import world
from demo_steps import call, enable, install_kit, say, show
from router import lab

RULES = f"""table inet korvid {{
    set group_web {{ type mark; }}
    chain mirror {{ type filter hook forward priority -10
        {lab.MIRROR}
    }}
    chain verdicts {{ type filter hook forward priority 10
        ct mark & 0x3ffff @group_web counter drop
    }}
}}
"""
ENFORCED, CLASSIFIED = 0x10000, 0x20000


def flows(laboratory):
    """The router's connections, as the kernel has them, with what their marks say."""
    numbers = {number: name for name, number in world.kit_numbers().items()}
    print(f"{'PROTO':5}  {'CLIENT':20}  {'SERVER':20}  {'PACKETS':>7}  {'BYTES':>9}  {'MARK':10}  APPLICATION")
    for line in laboratory.connections():
        client, server, *ports = re.search(r"src=(\S+) dst=(\S+)(?: sport=(\d+) dport=(\d+))?", line).groups()
        ends = [f"{lab.bracketed(address)}:{port}" for address, port in zip((client, server), ports)]
        packets, values = (sum(map(int, re.findall(rf"{name}=(\d+)", line))) for name in ("packets", "bytes"))
        mark = int(re.search(r" mark=(\d+)", line)[1])
        meaning = numbers.get(mark & 0xffff, "?") if mark & CLASSIFIED else "(no verdict yet)"
        print(f"{line.split()[0]:5}  {ends[0]:20}  {ends[1]:20}  {packets:7}  {values:9}  {mark:#010x}  {meaning}"
              f"{', enforced' if mark & ENFORCED else ''}")


def traffic(laboratory):
    say("A client behind the router talks to a server before it: HTTP, TLS, DNS and SSH")
    for version in (4, 6):
        laboratory.client.run("curl", "-sko", "/dev/null", laboratory.url("tls", version))
        laboratory.client.run("dig", f"@{laboratory.target(version)}", "www.example.com")
    try:
        print("ssh:", laboratory.ssh(4, "echo a shell beyond the router").strip())
    except unittest.SkipTest as reason:
        print(f"(ssh is left out: {reason})")


def transfer(laboratory):
    """A download that goes on, and a function that tells how much of it has come."""
    laboratory.file("limited/large", 8 << 30)
    target = laboratory.work / "download"
    laboratory.client.start("curl", "-s", "-o", target, laboratory.url("http", 4, "limited/large"))
    return lambda: target.stat().st_size if target.exists() else 0


def watch(downloaded, seconds):
    for _ in range(seconds * 2):
        before = downloaded()
        time.sleep(0.5)
        print(f"  {(downloaded() - before) * 2 / 1e6:6.2f} MB/s", flush=True)


def main():
    with lab.Lab(nat="source") as laboratory, world.World(router=True) as system:
        say("Client, router and server are three network namespaces; the kernel forwards and translates addresses")
        laboratory.serve("http", "tls", "dns")
        try:
            laboratory.serve("ssh")
        except unittest.SkipTest:
            pass
        print(f"  client {lab.CLIENT[4]} -- {lab.INSIDE[4]} router {lab.OUTSIDE[4]} -- server {lab.SERVER[4]}")
        say("The administrator's rules: packets of connections without a verdict go to korvid; group web is dropped by name")
        print(RULES, end="")
        laboratory.rules(RULES)
        system.start(clock=True)
        install_kit(system)
        enable(system)
        traffic(laboratory)
        say("... and begins a download")
        downloaded = transfer(laboratory)
        watch(downloaded, 1)
        flows(laboratory)

        say("Group web is put on the enforcement list: the rule finds its marks, the download stops")
        call(system, "CREATEavAppGroup", {"appGroup": {"web": [{"appName": "HTTP"}, {"appName": "Wikipedia"}]}})
        call(system, "SETavDpiAppList", {"appList": [{"appName": "DNS"}], "appGroup": ["web"]})
        watch(downloaded, 2)
        print("$ nft list table inet korvid")
        print(subprocess.run(["nft", "list", "table", "inet", "korvid"], capture_output=True, text=True, check=True).stdout)
        laboratory.client.run("dig", f"@{laboratory.target(4)}", "www.example.com")
        flows(laboratory)

        say("The connections end, a quarter of an hour passes (the daemon's clock is moved): the records")
        laboratory.end_connections()
        system.advance(901)
        system.advance(901)
        show("/flash/appmon_enforcement_flow_records.csv", 12)
        status = system.daemon.stop()
        if status != 0:
            sys.exit(f"demo: korvid-netfilter ended with {status}: {system.daemon.stderr[-2000:]}")
    say("Done. What ran here is what runs on a router: src/korvid-netfilter")


if __name__ == "__main__":
    main()
