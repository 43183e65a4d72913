"""Policies by name, as an administrator writes them, and what they do to traffic."""
import contextlib
import subprocess
import unittest

import lab
from test_daemon import Router
from world import wait_until

RULES = f"""table inet korvid {{
    set group_web {{ type mark; }}
    counter met {{ }}
    chain mirror {{ type filter hook forward priority -10
        {lab.MIRROR}
    }}
    chain verdicts {{ type filter hook forward priority 10
        RULES
    }}
}}
"""
WEB = "ct mark & 0x3ffff @group_web"
# Resets who acknowledges, the receiver of data; that one's own reset, its answer to the data that comes next, is let
# through and tells the sender.
RESET = f"{WEB} tcp flags & rst == 0 meta length < 100 reject with tcp reset"
SECOND_CLIENT = "192.0.2.12"

# Bytes a second of a transfer from the web server, its beginning left out, in which the limit's bucket is full.
RATE = """import sys, time, urllib.request
answer = urllib.request.urlopen(sys.argv[1])
answer.read(int(sys.argv[2]))
begin = time.monotonic()
print(int(sys.argv[3]) / (time.monotonic() - begin) if len(answer.read(int(sys.argv[3]))) else 0)"""

# An end of an HTTP connection on which one side sends without end; prints how it has ended.
PEER = """import socket, sys
side, sender, address = sys.argv[1:]
if side == "server":
    listener = socket.create_server((address, 8080), family=socket.AF_INET6 if ":" in address else socket.AF_INET)
    peer = listener.accept()[0]
    request = peer.recv(1000)
    peer.sendall(b"HTTP/1.1 200 OK\\r\\nContent-Type: text/plain\\r\\n\\r\\n")
else:
    peer = socket.create_connection((address, 8080))
    peer.sendall(b"POST / HTTP/1.1\\r\\nHost: www.example.org\\r\\nContent-Length: 1000000000000\\r\\n\\r\\n")
try:
    while peer.sendall(bytes(100000)) is None if side == sender else peer.recv(1 << 20):
        pass
    print("closed")
except OSError as error:
    print(type(error).__name__)"""


class Policy(unittest.TestCase):
    @contextlib.contextmanager
    def router(self, *rules, **options):
        """A router with these rules for the group web, which is HTTP."""
        with Router("http", rules=RULES.replace("RULES", "\n".join(rules)), **options) as router:
            router.enforce(web=["HTTP"])
            wait_until(lambda: router.elements("group_web"), "the group's marks")
            yield router

    def test_a_limited_application_gets_its_rate(self):
        rate = 2_000_000
        with self.router(f"{WEB} limit rate over {rate} bytes/second burst 100 kbytes drop") as router:
            router.lab.file("large", 10 * rate)
            measured = router.lab.client.run("python3", "-c", RATE, router.lab.url("http", 4, "large"), 2 * rate,
                                             5 * rate)
            self.assertAlmostEqual(float(measured) / rate, 1, delta=0.2)

    def test_a_priority_is_seen_by_the_server(self):
        with self.router(f"{WEB} ip dscp set cs1", f"{WEB} ip6 dscp set cs1") as router:
            router.lab.server.run("nft", "-f", "-", stdin=None, input="""table inet seen { counter v4 { }
                counter v6 { }
                chain seen { type filter hook input priority 0
                    ip dscp cs1 counter name v4
                    ip6 dscp cs1 counter name v6
                }\n}""")
            for version in (4, 6):
                router.large_transfer(version)
                wait_until(lambda: "packets 0" not in router.lab.server.run("nft", "list", "counter", "inet", "seen",
                                                                              f"v{version}"), "a prioritised packet")

    def test_an_exempt_host_is_served(self):
        with self.router(f"ct original ip saddr {SECOND_CLIENT} accept", f"{WEB} counter name met drop") as router:
            router.lab.client.run("ip", "addr", "add", f"{SECOND_CLIENT}/24", "dev", "eth0")
            router.large_transfer()
            wait_until(lambda: router.lab.counted("met"), "a blocked packet")
            size = router.lab.file("medium", 5_000_000)
            got = router.lab.client.run("curl", "-so", "/dev/null", "-w", "%{size_download}", "--interface",
                                        SECOND_CLIENT, router.lab.url("http", 4, "medium"))
            self.assertEqual(int(got), size)

    def test_a_log_tells_who_uses_an_application(self):
        with self.router(f'{WEB} limit rate 1/second log prefix "web: " group 27') as router:
            log = router.lab.router.start("tcpdump", "-Z", "root", "-nlc", "1", "-i", "nflog:27", text=True,
                                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            while "listening" not in log.stdout.readline():
                pass
            router.large_transfer()
            self.assertRegex(log.stdout.readline(), rf"IP .*{lab.CLIENT[4]}")

    def test_running_connections_of_a_newly_blocked_application_end_at_both_ends(self):
        for nat, version in (("none", 4), ("both", 6)):
            with self.router(RESET, nat=nat) as router:
                for sender in ("client", "server"):
                    with self.subTest(nat=nat, sender=sender):
                        router.world.call("SETavDpiAppList", {"appGroup": []})
                        wait_until(lambda: not router.elements("group_web"), "an empty set")
                        server = self.peer(router.lab.server, "server", sender, router.lab.server_at[version])
                        wait_until(lambda: router.lab.server.run("ss", "-Hnlt", "sport", "=", ":8080"), "the server")
                        client = self.peer(router.lab.client, "client", sender, router.lab.target(version))
                        wait_until(lambda: router.lab.connections("--mark", "0x20000/0x30000"), "a verdict")
                        router.world.call("SETavDpiAppList", {"appGroup": ["web"]})
                        self.assertEqual([end.stdout.readline() for end in (client, server)],
                                         ["ConnectionResetError\n"] * 2)
                        self.assertIn("CLOSE", router.lab.connections()[0])  # so its end is reported soon
                        router.lab.end_connections()

    def peer(self, host, *arguments):
        return host.start("python3", "-c", PEER, *arguments, stdout=subprocess.PIPE, text=True)


if __name__ == "__main__":
    unittest.main()
