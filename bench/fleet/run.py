#!/usr/bin/env python3
"""Many boxes, a day of records each, into two shards, one of which is stopped and started meanwhile; then the page.

usage: run.py [BOXES...]   1,000 boxes have 10,000,000 lines; 100 and 1000 without an argument.  Runs inside tools/sandbox.
"""
import collections
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time

import clickhouse
import world

sys.path.append(str(world.TREE / "tests/fleet"))
import records  # noqa: E402

TOP = pathlib.Path("/data")
LINES = 10_000  # a box
SEED = 2026
PROGRAMS = world.BUILD / "fleet"


def row(what, value, note=""):
    print(f"{what:52} {value:>14}  {note}", flush=True)


def rate(lines, seconds):
    return f"{lines / seconds:,.0f}/s"


def generate(boxes, folder):
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    subprocess.run([world.BUILD / "bench/fleet/fleet-generate", folder, str(SEED), str(boxes), str(LINES), "5",
                    str(int(time.time())), "86400"], check=True)


def expected(folder):
    """What the files hold, by other means than the collector's: lines by kind, bytes by application."""
    lines, volume, came = collections.Counter(), collections.Counter(), 0
    for box in sorted(folder.iterdir()):
        for kind, found in records.distinct(box).items():
            lines[kind] += sum(found.values())
            if kind == "enforcement":
                for (_, application), size in records.volume(found).items():
                    volume[application] += size
        came += sum(path.read_bytes().count(b"\n") - 1 for path in box.iterdir())
    return lines, volume, came


def collector(cluster, folder):
    return world.Process("collect", [PROGRAMS / "korvid-collect", "--server", cluster.first.url, "--settle", "0", "--once",
                                     "--keep", "0", folder])


def memory(process):
    """In kB; 0 of one that is ending."""
    found = re.search(r"VmRSS:\s+(\d+)", world.text_of(f"/proc/{process.pid}/status"))
    return int(found.group(1)) if found else 0


def follow(process, cluster=None):
    """Waits for the collector; halfway it loses a shard for ten seconds.  Its sizes in memory, in kB."""
    sizes, stopped, end = [], None, None
    done = lambda: int(cluster.query("SELECT count() FROM korvid.enforcement_local")) > 0 if cluster else False
    while process.running():
        sizes.append(memory(process) or sizes[-1])
        if cluster and stopped is None and done():
            cluster.nodes[1].stop()
            stopped = time.monotonic()
        if stopped and end is None and time.monotonic() - stopped > 10:
            cluster.nodes[1].start()
            end = time.monotonic()
        time.sleep(0.05)
    if process.wait() != 0 or (cluster and end is None):
        sys.exit(f"the collector ended with {process.wait()}: {process.stderr[-2000:]}")
    return sizes


def compare(cluster, lines, volume):
    for kind, table in (("enforcement", "enforcement"), ("monitoring", "monitoring")):
        count = cluster.number(f"SELECT count() FROM korvid.{table} FINAL")
        if count != lines[kind]:
            sys.exit(f"{table}: {count} lines instead of {lines[kind]}")
    found = {name: int(size) for name, size in cluster.rows(
        "SELECT A, sum(b) FROM (SELECT Box, Flow, max(Application) AS A, max(Bytes) AS b FROM korvid.enforcement "
        "GROUP BY Box, Flow) GROUP BY A", distributed_group_by_no_merge=1)}
    if found != dict(volume):
        sys.exit("the bytes of applications differ from those of the files")


def against_client(cluster):
    """The same rows as CSV through ClickHouse's own client; rows and seconds."""
    path, rows, seconds = TOP / "rows.csv", 0, 0.0
    client = ["clickhouse-client", "--host", clickhouse.ADDRESS, "--port", str(cluster.first.native)]
    for table in ("enforcement", "monitoring"):
        with open(path, "wb") as out:
            subprocess.run([*client, "--query", f"SELECT * FROM korvid.{table} FINAL FORMAT CSV"], stdout=out, check=True, cwd=TOP)
        rows += cluster.number(f"SELECT count() FROM korvid.{table} FINAL")
        for node in cluster.nodes:
            node.query(f"DROP TABLE korvid.{table}_local")
            cluster.apply(node, world.TREE / "fleet/schema/local.sql")
        began = time.monotonic()
        with open(path, "rb") as source:
            subprocess.run([*client, "--insert_distributed_sync", "1", "--query", f"INSERT INTO korvid.{table} FORMAT CSV"],
                           stdin=source, check=True, cwd=TOP)
        seconds += time.monotonic() - began
        path.unlink()
    return rows, seconds


def page(cluster, boxes):
    began = time.monotonic()
    subprocess.run([PROGRAMS / "korvid-report", "--server", cluster.first.url, "-o", TOP / "page.html"], check=True)
    row(f"page of {boxes * LINES:,} lines", f"{time.monotonic() - began:.1f} s", f"{os.path.getsize(TOP / 'page.html') / 1e6:.1f} MB")


def measure(boxes):
    print(f"\n{boxes:,} boxes")
    generate(boxes, TOP / "spool")
    lines, volume, came = expected(TOP / "spool")
    size = sum(path.stat().st_size for path in (TOP / "spool").rglob("*") if path.is_file())
    row("lines in files, repetitions included", f"{came:,}", f"{size / came:.0f} bytes a line")
    row("lines", f"{sum(lines.values()):,}", f"{lines['enforcement']:,} enforcement")

    with clickhouse.Cluster(TOP / "clickhouse", shards=2) as cluster:
        sizes = follow(collector(cluster, TOP / "spool"), cluster)
        compare(cluster, lines, volume)
        row("collected while a shard is away for 10 s", "every line", "none twice, bytes as in the files")
        row("memory of the collector: early, most", f"{sizes[len(sizes) // 10] / 1e3:.0f}, {max(sizes) / 1e3:.0f} MB")

    generate(boxes, TOP / "spool")
    with clickhouse.Cluster(TOP / "clickhouse", shards=2) as cluster:
        began = time.monotonic()
        follow(collector(cluster, TOP / "spool"))
        ours = came / (time.monotonic() - began)
        row("collected undisturbed", rate(ours, 1))
        for table in ("enforcement", "monitoring"):
            for node in cluster.nodes:
                node.query(f"OPTIMIZE TABLE korvid.{table}_local FINAL")
            disk, rows = (sum(column) for column in zip(*(map(int, node.query(
                f"SELECT sum(bytes_on_disk), sum(rows) FROM system.parts WHERE active AND table = '{table}_local'").split("\t"))
                for node in cluster.nodes)))
            row(f"{table}: bytes a line on disk", f"{disk / rows:.1f}")
        page(cluster, boxes)
        rows, seconds = against_client(cluster)
        row("clickhouse-client, the same rows as CSV", rate(rows, seconds))
        row("collector beside it", f"{ours * seconds / rows:.2f}")
    shutil.rmtree(TOP / "spool")


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    if not clickhouse.installed():
        sys.exit("clickhouse-server is not installed")
    for boxes in map(int, sys.argv[1:] or ["100", "1000"]):
        measure(boxes)


if __name__ == "__main__":
    main()
