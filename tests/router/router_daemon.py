"""The laboratory with korvid-netfilter in its router, the ndpi kit and rules by name."""
import contextlib
import pathlib
import re
import subprocess

import lab
import world
from world import World, text_of, wait_until

RECORDS = "/flash/appmon_enforcement_flow_records.csv"
OTHERS = 0x5a000000  # bits of the mark that somebody else uses
RULES = f"""table inet korvid {{
    set app_HTTP {{ type mark; }}
    set app_SSH {{ type mark; }}
    set group_web {{ type mark; }}
    set app_No/20such {{ type mark; }}
    counter mirrored {{ }}
    counter blocked {{ }}
    chain others {{ type filter hook prerouting priority -100; ct state new ct mark set ct mark | 0x5a000000
    }}
    chain mirror {{ type filter hook forward priority -10
        {lab.MIRROR} counter name mirrored
    }}
    chain verdicts {{ type filter hook forward priority 10
        ct mark & 0x3ffff @group_web counter name blocked BLOCK
    }}
}}
"""

# target, first source port, flows, flows a second, bytes of payload (a question for a name without), packets of each flow
FLOOD = """import socket, sys, time
target, (first, flows, rate, size, packets) = sys.argv[1], [*map(int, sys.argv[2:]), 0, 1][:5]
question = bytes(size) or bytes.fromhex("00010100000100000000000003777777076578616d706c6503636f6d0000010001")
begin = time.monotonic()
for flow in range(flows):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.bind(("", first + flow))
        for packet in range(packets):
            sender.sendto(question, (target, 9 if size else 53))
    time.sleep(max(0, begin + flow / rate - time.monotonic()))"""


class Router:
    """The laboratory, of this shape, with the daemon in its router."""

    def __init__(self, *services, rules=RULES, block="drop", daemon=None, **shape):
        self.lab, self.world = lab.Lab(**shape), World(router=True)
        self.services, self.rules, self.daemon = services, rules.replace("BLOCK", block), daemon or {}

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            stack.enter_context(self.lab)
            stack.enter_context(self.world)
            self.lab.serve(*self.services)
            self.lab.rules(self.rules)
            self.world.start(**self.daemon)
            self.world.install_kit(ndpi=True)
            self.world.enable()
            self.stack = stack.pop_all()
        return self

    def __exit__(self, *details):
        return self.stack.__exit__(*details)

    def enforce(self, **groups):
        """Puts groups with these members on the enforcement list."""
        for group, members in groups.items():
            self.world.call("CREATEavAppGroup", {"appGroup": {group: [{"appName": name} for name in members]}})
        self.world.call("SETavDpiAppList", {"appGroup": list(groups)})

    def elements(self, name):
        text = self.lab.router.run("nft", "list", "set", "inet", "korvid", name)
        return text.partition("elements = {")[2].partition("}")[0].split()

    def marks(self):
        return sorted(int(line.split(" mark=")[1].split()[0]) for line in self.lab.connections())

    def counters(self):
        return self.world.ask("counters")["counters"]

    def settle(self):
        """Returns when every packet that was mirrored is read or counted as lost, and every verdict has a mark or a reason."""
        def of(*names):
            counters = self.counters()
            return sum(counters[name] for name in names)
        wait_until(lambda: of("packets.received", "kernel.packets_lost") == self.lab.counted("mirrored"),
                   "every packet that the kernel mirrored")
        wait_until(lambda: of("verdicts.judged") == of(*(f"kernel.verdicts_{what}" for what in (
            "marked", "not_found", "not_kept", "of_errors", "refused"))), "a mark or a reason for every verdict")

    @staticmethod
    def listens():
        """Whether somebody has bound the group of packets."""
        return re.search(r"^ *26 ", pathlib.Path("/proc/net/netfilter/nfnetlink_log").read_text(), re.M)

    def log(self, pattern, timeout=None):
        """The groups of a line that the daemon has written, or writes soon."""
        return wait_until(lambda: re.search(pattern, text_of(world.LOG)), f"a line of log: {pattern}", timeout)

    def records(self):
        """Lines of the record file, by column: the daemon's clock passes a report, and then the writing of the file."""
        def reports():
            self.world.settle()
            return text_of(world.LOG).count("enforced connections, ")
        self.world.log_level("DEBUG")
        for _ in range(2):
            before = reports()
            self.world.advance(901)
            wait_until(lambda: reports() > before, "a report")
        lines = text_of(RECORDS).splitlines()
        return [dict(zip(lines[0].split(","), line.split(","))) for line in lines[1:]]

    def large_transfer(self, version=4):
        """A client in the midst of a transfer that does not end by itself."""
        self.lab.file("large", 8 << 30)
        return self.lab.client.start("curl", "-s", "--limit-rate", "1M", "-o", "/dev/null",
                                     self.lab.url("http", version, "large"))

    def conversation(self):
        """A call that has one HTTP connection, which is there already, ask for a page once more."""
        client = self.lab.client.start("python3", "-uc", f"""
import http.client, sys
connection = http.client.HTTPConnection("{self.lab.target(4)}")
connection.connect()
for line in sys.stdin:
    connection.request("GET", "/")
    print(len(connection.getresponse().read()))""", stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

        def ask():
            client.stdin.write("\n")
            client.stdin.flush()
            return client.stdout.readline()
        return ask


def totals(line):
    """Packets and bytes of both directions of a line of conntrack(8)."""
    return tuple(sum(map(int, re.findall(rf"{name}=(\d+)", line))) for name in ("packets", "bytes"))
