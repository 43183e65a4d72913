"""ClickHouse nodes on the loopback interface, as Debian ships them: shards of one cluster, each with a folder of its own."""
import pathlib
import shutil
import socket
import subprocess
import time
import urllib.error
import urllib.parse
import urllib.request

TREE = pathlib.Path(__file__).resolve().parent.parent
SERVER = "/usr/sbin/clickhouse-server"
ADDRESS = "127.0.0.1"

CONFIG = """<?xml version="1.0"?>
<yandex>
    <logger><level>warning</level><log>{folder}/log</log><errorlog>{folder}/errors</errorlog></logger>
    <listen_host>{address}</listen_host>
    <http_port>{http}</http_port>
    <tcp_port>{native}</tcp_port>
    <path>{folder}/data/</path>
    <tmp_path>{folder}/tmp/</tmp_path>
    <users_config>{folder}/users.xml</users_config>
    <default_profile>default</default_profile>
    <default_database>default</default_database>
    <mark_cache_size>268435456</mark_cache_size>
    <uncompressed_cache_size>0</uncompressed_cache_size>
    <max_concurrent_queries>100</max_concurrent_queries>
    <timezone>UTC</timezone>
    <remote_servers><korvid>{shards}</korvid></remote_servers>
</yandex>
"""
USERS = """<?xml version="1.0"?>
<yandex>
    <profiles><default><max_memory_usage>8000000000</max_memory_usage></default></profiles>
    <users><default><password></password><networks><ip>::/0</ip></networks>
        <profile>default</profile><quota>default</quota></default></users>
    <quotas><default></default></quotas>
</yandex>
"""


def installed():
    return pathlib.Path(SERVER).exists()


def free_ports(count):
    probes = [socket.socket() for _ in range(count)]
    for probe in probes:
        probe.bind((ADDRESS, 0))
    ports = [probe.getsockname()[1] for probe in probes]
    for probe in probes:
        probe.close()
    return ports


class Error(Exception):
    """A query that the server refused."""


class Node:
    def __init__(self, folder, http, native):
        self.folder, self.http, self.native = pathlib.Path(folder), http, native
        self.url = f"http://{ADDRESS}:{http}"
        self.process = None

    def start(self, patience=60):
        with open(self.folder / "output", "ab") as output:
            self.process = subprocess.Popen([SERVER, f"--config-file={self.folder}/config.xml"], cwd=self.folder,
                                            stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        end = time.monotonic() + patience
        while True:
            try:
                return self.query("SELECT 1") and self
            except (OSError, Error):
                if self.process.poll() is not None or time.monotonic() > end:
                    raise RuntimeError((self.folder / "output").read_text(errors="replace")[-2000:]) from None
                time.sleep(0.05)

    def stop(self, kill=False):
        if self.process and self.process.poll() is None:
            self.process.kill() if kill else self.process.terminate()
            self.process.wait(60)

    def query(self, text, **settings):
        """The answer's text, without its last newline."""
        url = f"{self.url}/?{urllib.parse.urlencode(settings)}"
        try:
            with urllib.request.urlopen(url, text.encode(), timeout=900) as answer:
                return answer.read().decode(errors="surrogateescape").rstrip("\n")
        except urllib.error.HTTPError as error:
            raise Error(error.read().decode(errors="replace")) from None

    def rows(self, text, **settings):
        return [line.split("\t") for line in self.query(text, **settings).split("\n") if line]

    def number(self, text, **settings):
        return int(self.query(text, **settings))


class Cluster:
    """Shards below a folder; a context manager.  The schema is in place; queries go to the first node."""

    def __init__(self, folder, shards=1):
        ports = free_ports(2 * shards)
        self.nodes = [Node(pathlib.Path(folder) / f"node{number}", *ports[2 * number:2 * number + 2])
                      for number in range(shards)]
        replicas = "".join(f"<shard><replica><host>{ADDRESS}</host><port>{node.native}</port></replica></shard>"
                           for node in self.nodes)
        for node in self.nodes:
            shutil.rmtree(node.folder, ignore_errors=True)
            for name in ("data", "tmp"):
                (node.folder / name).mkdir(parents=True)
            (node.folder / "config.xml").write_text(CONFIG.format(folder=node.folder, http=node.http, shards=replicas,
                                                                  native=node.native, address=ADDRESS))
            (node.folder / "users.xml").write_text(USERS)
        self.first = self.nodes[0]
        self.query, self.rows, self.number = self.first.query, self.first.rows, self.first.number

    def __enter__(self):
        try:
            for node in self.nodes:
                node.start()
            for name in ("local", "distributed"):
                for node in self.nodes:
                    self.apply(node, TREE / f"fleet/schema/{name}.sql")
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for node in self.nodes:
            node.stop(kill=True)

    def apply(self, node, path):
        """As clickhouse-client --multiquery does, which wants the whole of it read."""
        with open(path, encoding="utf-8") as statements:
            subprocess.run(["clickhouse-client", "--host", ADDRESS, "--port", str(node.native), "--multiquery"],
                           stdin=statements, check=True, cwd=node.folder)
