"""korvidctl metrics: what Prometheus's own checker says of it, and the real node exporter's textfile collector."""
import pathlib
import re
import shutil
import struct
import subprocess
import threading
import unittest
import urllib.request

import broker
import case
import world
from proof.bus_client import A_DATA, A_OBJID, A_STATUS, DATA, LOOKUP, STATUS, attribute, attributes_of, decode, exactly, members, message
from test_korvidctl import TOOL

FOLDER = pathlib.Path("/tmp/textfile")
ADDRESS = "127.0.0.1:9100"


class Metrics(case.SystemTest):
    def setUp(self):
        super().setUp()
        self.world.start("--report-interval", "0")
        self.world.install_kit(apps={1: "Mail", 2: 'A "quoted" \\ name', 3: "Straße"}, version='7 "\\')
        self.world.enable()
        self.world.module.command("generate flows=30 packets=30 ports=10001,10002,10003")
        self.world.module.command("wait 30000")
        world.wait_until(lambda: self.world.module.stats()["results"] == 30, "verdicts")
        self.text = subprocess.run([*TOOL, "-s", world.BUS_SOCKET, "metrics"], capture_output=True, text=True, check=True).stdout

    def samples(self, text):
        return dict(re.findall(r'^(korvid_\S*?(?:\{.*\})?) (\S+)$', text, re.M))

    def test_every_number_is_there(self):
        counters = self.world.ask("counters")["counters"]
        samples = self.samples(self.text)
        for name, value in counters.items():
            metric = "korvid_" + name.replace(".", "_")
            self.assertEqual(int(samples.get(metric + "_total", samples.get(metric, -1))), value, name)
        self.assertEqual(sum(int(value) for name, value in samples.items() if "application_flows" in name), 30)
        self.assertEqual(samples["korvid_healthy"], "1")

    @unittest.skipUnless(shutil.which("promtool"), "promtool is not installed")
    def test_promtool(self):
        done = subprocess.run(["promtool", "check", "metrics"], input=self.text, capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    @unittest.skipUnless(shutil.which("prometheus-node-exporter"), "prometheus-node-exporter is not installed")
    def test_node_exporter(self):
        FOLDER.mkdir(exist_ok=True)
        (FOLDER / "korvid.prom").write_text(self.text)
        exporter = world.Process("exporter", ["prometheus-node-exporter", "--collector.disable-defaults", "--collector.textfile",
                                              f"--collector.textfile.directory={FOLDER}", f"--web.listen-address={ADDRESS}"])
        self.addCleanup(exporter.stop)

        def scrape():
            try:
                return urllib.request.urlopen(f"http://{ADDRESS}/metrics", timeout=5).read().decode()
            except OSError:
                return None
        scraped = world.wait_until(scrape, "the exporter")
        self.assertIn("node_textfile_scrape_error 0\n", scraped)
        number = lambda samples: {name: float(value) for name, value in samples.items()}
        labels = lambda samples: {"".join(sorted(name)): value for name, value in number(samples).items()}  # it sorts them
        self.assertEqual(labels(self.samples(scraped)), labels(self.samples(self.text)))


class Pages(unittest.TestCase):
    """A daemon by hand, as flows come in between two of its answers."""
    PAGES = {0: {"apps": [{"id": number, "name": f"App{number}"} for number in range(200)], "next": 200},
             200: {"apps": [{"id": number, "name": f"App{number}"} for number in (199, 200)]}}

    def serve(self, bus):
        bus.greet()
        while True:
            _, kind, sequence, peer, length = struct.unpack(">BBHII", exactly(bus.connection, 12))
            asked = {number: payload for number, _, payload in attributes_of(exactly(bus.connection, (length & 0xffffff) - 4))}
            data = attribute(A_OBJID, struct.pack(">I", 7))
            if kind != LOOKUP:
                data += attribute(A_DATA, members(self.PAGES.get(decode(asked[A_DATA]).get("offset"), {})))
            bus.connection.sendall(message(DATA, sequence, peer, data) +
                                   message(STATUS, sequence, peer, attribute(A_STATUS, bytes(4))))

    def test_an_application_that_moves_to_the_next_page_is_one_series(self):
        with broker.Broker() as bus:
            threading.Thread(target=self.serve, args=[bus], daemon=True).start()
            done = subprocess.run([*TOOL, "-s", world.BUS_SOCKET, "metrics", "--all"], capture_output=True, text=True, check=True)
        series = [line.split(" ")[0] for line in done.stdout.splitlines() if line.startswith("korvid_application_flows")]
        self.assertEqual((len(series), len(set(series))), (201, 201))


if __name__ == "__main__":
    unittest.main()
