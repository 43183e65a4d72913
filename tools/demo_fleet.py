"""What tools/demo --fleet shows: boxes that upload to file servers, collected into two shards; runs inside the sandbox."""
import pathlib
import subprocess
import sys
import time

import clickhouse
import demo_steps
import world
from demo_steps import call, say, show_lines
from servers import Nginx, Vsftpd

TOP = pathlib.Path("/tmp/fleet")
SPOOL = TOP / "spool"
BOXES = 3


def run(*words):
    print("$ " + " ".join(str(word).replace(str(world.BUILD) + "/fleet/", "") for word in words), flush=True)
    subprocess.run([str(word) for word in words], check=True)


def upload(path, server, box):
    """As a box does; nothing but the simulated ones."""
    subprocess.run(["curl", "--silent", "--show-error", "--fail", "--ftp-create-dirs", "--user",
                    f"{server.user}:{server.password}", "--upload-file", path, server.url(f"{box}/{path.name.split('.csv')[0]}.csv")],
                   check=True)


def real_box(system, capture, name, ftp, https):
    demo_steps.configure(system)
    demo_steps.traffic(system, "play", capture, name)
    demo_steps.records(system)
    say("Its management system asks for the records: enforcement by FTP, monitoring by HTTPS")
    for method, server in (("GETavDpiStats", ftp), ("GETavAppMonStats", https)):
        call(system, method, {"username": server.user, "password": server.password, "filePath": server.url("switch-7")})


def simulated_boxes(ftp, https, collected):
    say(f"{BOXES} simulated boxes upload a day of theirs, file by file, each twice as exports do")
    subprocess.run([world.BUILD / "bench/fleet/fleet-generate", TOP / "made", "1", str(BOXES), "6000", "0", str(int(time.time())), "86400"],
                   check=True)
    files = sorted((TOP / "made").rglob("*.csv*"))
    for number, path in enumerate(files):
        for _ in range(2):
            upload(path, (ftp, https)[number % 2], path.parent.name)
            # The next one has the same name.
            before = collected()
            world.wait_until(lambda: collected() > before or not (SPOOL / path.parent.name / (path.name.split(".csv")[0] + ".csv")).exists(),
                             "the collector")
    return 2 * len(files)


def main():
    capture, name, page = sys.argv[1:]
    SPOOL.mkdir(parents=True)
    for folder in ("made", "ftp", "https"):
        (TOP / folder).mkdir()
    ftp, https = Vsftpd(TOP / "ftp"), Nginx(TOP / "https", tls=True)
    ftp.store = https.store = SPOOL
    say("Two shards of ClickHouse start, an FTP and an HTTPS server over one spool, and a collector")
    with clickhouse.Cluster(TOP / "clickhouse", shards=2) as cluster, ftp, https, world.World() as system:
        collector = world.Process("collect", [world.BUILD / "fleet/korvid-collect", "--server", cluster.first.url, "--settle", "0",
                                              "--linger", "0", SPOOL])
        print("$ korvid-collect --server", cluster.first.url, SPOOL)
        collected = lambda: collector.stderr.count(" lines loaded")
        say("A switch: message broker, the kernel module's stand-in and the production binary")
        system.start("--report-interval", "0", "--access-profile", "staff", clock=True)
        real_box(system, capture, name, ftp, https)
        world.wait_until(lambda: collected() >= 2, "the collector")
        files = 2 + simulated_boxes(ftp, https, collected)
        world.wait_until(lambda: collected() >= files, "the collector")
        say("What the collector has told")
        show_lines(collector.stderr.splitlines(), 8)
        say("Every line once: rows as they came, and without the repetitions that merges will remove")
        for table in ("enforcement", "monitoring"):
            counts = [node.query(f"SELECT count() FROM korvid.{table}_local") for node in cluster.nodes]
            print(f"{table:12} {' + '.join(counts)} on the shards, "
                  f"{cluster.query(f'SELECT count() FROM korvid.{table} FINAL')} lines")
        say("And the page of all of them")
        run(world.BUILD / "fleet/korvid-report", "--server", cluster.first.url, "-o", page)
        collector.stop()
        system.daemon.stop()
    say(f"Done. The page: {page}")


if __name__ == "__main__":
    main()
