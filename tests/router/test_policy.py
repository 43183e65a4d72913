"""The example policies that the package brings, and what they do to traffic."""
import contextlib
import re
import subprocess
import unittest

import lab
from router_daemon import Router
from world import PATIENCE, TREE, wait_until

# The group "social" is HTTP here, and so is the application that an example names.
SECOND_CLIENT = "192.0.2.12"
LOG_GROUP = 27  # the kernel's log has no place in a network of its own
HERE = {"app_BitTorrent": "app_HTTP", "app_YouTube": "app_HTTP", "192.168.1.10": SECOND_CLIENT,
        'log prefix "korvid social: "': f"log group {LOG_GROUP}"}

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
            text = (TREE / "packaging/examples" / f"{example}.nft").read_text()
            for there, here in HERE.items():
                text = text.replace(there, here)
            policy = router.lab.work / "policy.nft"
            policy.write_text(text)
            router.enforce(social=["HTTP"])
            router.lab.router.run(TREE / "packaging/korvid-rules", "--load", f"policy={policy}")
            for name in re.findall(r"set ((?:app|group)_\S+)", text):
                wait_until(lambda: router.elements(name), f"the marks of {name}")
            yield router

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

    def peer(self, host, *arguments):
        return host.start("python3", "-c", PEER, *arguments, stdout=subprocess.PIPE, text=True)


if __name__ == "__main__":
    unittest.main()
