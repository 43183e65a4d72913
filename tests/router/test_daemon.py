"""korvid-netfilter on the kernel at hand: real clients and servers, the ndpi kit, rules by name."""
import contextlib
import signal
import subprocess
import unittest

import lab
import world
from world import World, text_of, wait_until

OTHERS = 0x5a000000  # bits of the mark that somebody else uses
MIRROR = """table inet korvid {
    set app_HTTP { type mark; }
    set app_SSH { type mark; }
    set group_web { type mark; }
    set app_No/20such { type mark; }
    counter mirrored { }
    counter blocked { }
    chain others { type filter hook prerouting priority -100; ct state new ct mark set ct mark | 0x5a000000
    }
    chain mirror { type filter hook forward priority -10
        ct mark & 0x20000 == 0 ct packets < 33 counter name mirrored log group 26 snaplen 4072
    }
    chain verdicts { type filter hook forward priority 10
        ct mark & 0x3ffff @group_web counter name blocked drop
    }
}
"""


class Router:
    """The laboratory with the daemon in its router."""

    def __init__(self, *services, nat="none", mirror=MIRROR, **daemon):
        self.lab, self.world = lab.Lab(nat=nat), World(router=True)
        self.services, self.mirror, self.daemon = services, mirror, daemon

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            stack.enter_context(self.lab)
            stack.enter_context(self.world)
            self.lab.serve(*self.services)
            self.lab.rules(self.mirror)
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


class Daemon(unittest.TestCase):
    def test_a_transfer_stalls_where_its_group_is_blocked(self):
        with Router("http") as router:
            router.lab.file("large", 8 << 30)
            router.enforce(web=["HTTP"])
            wait_until(lambda: router.elements("group_web"), "the group's marks")
            client = router.lab.client.start("curl", "-s", "-o", "/dev/null", router.lab.url("http", 4, "large"))
            wait_until(lambda: router.lab.counted("blocked"), "a blocked packet")
            client.send_signal(signal.SIGKILL)


if __name__ == "__main__":
    unittest.main()
