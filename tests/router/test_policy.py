"""The example policies that the package brings, and what they do to traffic."""
import contextlib
import re
import subprocess
import unittest

import lab
import world
from router_daemon import Router, totals
from world import PATIENCE, TREE, wait_until

# The group "social" is HTTP here, and so is the application that an example names.
SECOND_CLIENT = "192.0.2.12"
LOG_GROUP = 27  # the kernel's log has no place in a network of its own
HERE = {"app_BitTorrent": "app_HTTP", "app_YouTube": "app_HTTP", "192.168.1.10": SECOND_CLIENT,
        'log prefix "korvid social: "': f"log group {LOG_GROUP}", "{ lan0, wan0 }": "{ inside, outside }"}

# Bytes a second of a transfer from the web server, on a connection that has its verdict: else the first of it comes as fast
# as it can.  The beginning is left out, in which the limit's bucket is full.
RATE = """import http.client, sys, time
connection = http.client.HTTPConnection(sys.argv[1])
connection.request("GET", "/")
connection.getresponse().read()
print("asked", flush=True)
sys.stdin.readline()
connection.request("GET", "/large")
answer = connection.getresponse()
answer.read(int(sys.argv[2]))
begin = time.monotonic()
print(int(sys.argv[3]) / (time.monotonic() - begin) if len(answer.read(int(sys.argv[3]))) else 0)"""

# An end of an HTTP connection on which one side sends without end, or both by turns; prints how it has ended.
PEER = """import socket, sys, time
side, sender, address = sys.argv[1:]
if side == "server":
    listener = socket.create_server((address, 8080), family=socket.AF_INET6 if ":" in address else socket.AF_INET)
    peer = listener.accept()[0]
    peer.recv(1000)
    peer.sendall(b"HTTP/1.1 200 OK\\r\\nContent-Type: text/plain\\r\\n\\r\\n")
else:
    peer = socket.create_connection((address, 8080))
    peer.sendall(b"POST / HTTP/1.1\\r\\nHost: www.example.org\\r\\nContent-Length: 1000000000000\\r\\n\\r\\n")
    peer.recv(1000)
try:
    while True:
        if sender == "both":
            time.sleep(0.02)
        if side == sender or (sender == "both" and side == "client"):
            peer.sendall(bytes(10 if sender == "both" else 100000))
        if side != sender and not peer.recv(1 << 20):
            break
        if sender == "both" and side == "server":
            peer.sendall(b"answer")
    print("closed")
except OSError as error:
    print(type(error).__name__)"""


class Policy(unittest.TestCase):
    @contextlib.contextmanager
    def router(self, example, **shape):
        """A router with the mirror and this policy, as the package's script loads them."""
        with Router("http", rules="", **shape) as router:
            router.enforce(social=["HTTP"])
            self.load(router, example)
            for name in re.findall(r"set ((?:app|group)_\S+)", (router.lab.work / "policy.nft").read_text()):
                wait_until(lambda: router.elements(name), f"the marks of {name}")
            yield router

    @staticmethod
    def load(router, *examples):
        """Loads these policies; what the package's script warns of."""
        text = "".join((TREE / "packaging/examples" / f"{example}.nft").read_text() for example in examples)
        for there, here in HERE.items():
            text = text.replace(there, here)
        policy = router.lab.work / "policy.nft"
        policy.write_text(text)
        done = router.lab.router.run(TREE / "packaging/korvid-rules", "--load", f"policy={policy}", check=False)
        if done.returncode:
            raise RuntimeError(done.stderr)
        return done.stderr

    @staticmethod
    def dropped(router):
        text = router.lab.router.run("nft", "list", "table", "inet", "korvid")
        return any(int(packets) for packets in re.findall(r"counter packets (\d+)", text))

    def test_a_limited_application_gets_its_rate(self):
        rate = 200 * 1024
        with self.router("limit-application") as router:
            router.lab.file("large", 20 * rate)
            client = router.lab.client.start("python3", "-uc", RATE, router.lab.target(4), 2 * rate, 8 * rate, text=True,
                                             stdin=subprocess.PIPE, stdout=subprocess.PIPE)
            self.assertEqual(client.stdout.readline(), "asked\n")
            wait_until(lambda: router.lab.connections("--mark", "0x30000/0x30000"), "a verdict")
            client.stdin.write("\n")
            client.stdin.close()
            self.assertAlmostEqual(float(client.stdout.readline()) / rate, 1, delta=0.2)

    def test_a_priority_is_seen_by_the_server(self):
        with self.router("dscp") as router:
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
        with self.router("exempt-host") as router:
            router.lab.client.run("ip", "addr", "add", f"{SECOND_CLIENT}/24", "dev", "eth0")
            router.large_transfer()
            wait_until(lambda: self.dropped(router), "a blocked packet")
            size = router.lab.file("medium", 5_000_000)
            got = router.lab.client.run("curl", "-so", "/dev/null", "-w", "%{size_download}", "--interface",
                                        SECOND_CLIENT, router.lab.url("http", 4, "medium"))
            self.assertEqual(int(got), size)

    def test_a_log_has_a_line_for_each_connection(self):
        with self.router("log") as router:
            log = router.lab.router.start("tcpdump", "-Z", "root", "-nl", "-i", f"nflog:{LOG_GROUP}", text=True,
                                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            while "listening" not in log.stdout.readline():
                pass
            ports = []
            for _ in range(2):
                router.large_transfer()
                ports.append(re.search(rf"{lab.CLIENT[4]}\.(\d+)", log.stdout.readline())[1])
            self.assertNotEqual(*ports)

    def test_running_connections_of_a_newly_blocked_application_end_at_both_ends(self):
        for nat, version in (("none", 4), ("both", 6)):
            with self.router("kill-running", nat=nat) as router:
                for sender in ("client", "server", "both"):
                    with self.subTest(nat=nat, sender=sender):
                        router.world.call("SETavDpiAppList", {"appGroup": []})
                        wait_until(lambda: not router.elements("group_social"), "an empty set")
                        server = self.peer(router.lab.server, "server", sender, router.lab.server_at[version])
                        wait_until(lambda: router.lab.server.run("ss", "-Hnlt", "sport", "=", ":8080"), "the server")
                        client = self.peer(router.lab.client, "client", sender, router.lab.target(version))
                        wait_until(lambda: router.lab.connections("--mark", "0x20000/0x30000"), "a verdict")
                        router.world.call("SETavDpiAppList", {"appGroup": ["social"]})
                        self.assertEqual([end.communicate(timeout=PATIENCE)[0] for end in (client, server)],
                                         ["ConnectionResetError\n"] * 2)
                        self.assertIn("CLOSE", router.lab.connections()[0])  # so its end is reported soon
                        router.lab.end_connections()

    def test_what_is_recognised_and_free_is_offloaded(self):
        with lab.Lab() as laboratory:
            laboratory.need("flow add @ft", declared="flowtable ft { hook ingress priority 0; devices = { inside, outside }; }")
        with self.router("flow-offload", daemon={"clock": True}) as router:
            http = world.kit_numbers()["HTTP"]

            def put(*groups):
                router.world.call("SETavDpiAppList", {"appGroup": groups})

            def offloaded(mark):
                return any(f" mark={mark} " in line for line in router.lab.connections() if "OFFLOAD" in line)
            put()
            router.lab.rules("""table inet seen { counter passed { }
                chain seen { type filter hook forward priority 0; counter name passed
                }\n}""")
            # At 4 MB a second, so that there is time to see it.
            size = router.lab.file("limited/large", 20_000_000)
            client = router.lab.client.start("curl", "-so", "/dev/null", router.lab.url("http", 4, "limited/large"))
            wait_until(lambda: offloaded(0x20000 | http), "an offloaded connection")
            # What comes under enforcement only now keeps its way, and has a whole record.
            put("social")
            wait_until(lambda: offloaded(0x30000 | http), "its new mark")
            self.assertEqual(client.wait(PATIENCE), 0)
            wait_until(lambda: "TIME_WAIT" in router.lab.connections()[0], "the last packet")
            packets, transferred = totals(router.lab.connections()[0])
            self.assertGreater(transferred, size)
            self.assertLess(router.lab.counted("passed", "inet seen"), packets // 5, "packets that took the long way")
            router.lab.end_connections()
            self.assertEqual([(int(r["pktCount"]), int(r["byteCount"])) for r in router.records()], [(packets, transferred)])
            # Rules that are loaded anew take it back.
            put()
            router.large_transfer()
            wait_until(lambda: offloaded(0x20000 | http), "an offloaded connection")
            put("social")
            wait_until(lambda: offloaded(0x30000 | http), "its new mark")
            self.assertEqual(self.load(router, "flow-offload", "block-group"), "")
            wait_until(lambda: self.dropped(router), "a blocked packet")
            # Taken before their verdict, connections never get one.
            router.lab.end_connections()
            router.lab.rules("""table inet firewall { flowtable ft { hook ingress priority 1; devices = { inside, outside }; }
                chain forward { type filter hook forward priority 0; meta l4proto tcp flow add @ft
                }\n}""")
            self.assertIn("offloads connections that have no verdict yet", self.load(router, "flow-offload"))
            router.lab.client.run("curl", "-so", "/dev/null", router.lab.url("http", 4, "limited/large"))
            self.assertNotIn(http, [mark & 0xffff for mark in router.marks()])

    def peer(self, host, *arguments):
        return host.start("python3", "-c", PEER, *arguments, stdout=subprocess.PIPE, text=True)


if __name__ == "__main__":
    unittest.main()
