"""Storage that is full, read-only, gone or changed behind the daemon's back."""
import contextlib
import os
import pathlib
import shutil
import subprocess

import world
from proof.base import (APPS, HOURLY, MONITORED, RECORDS, RECORDS_OLD, fault, port_of)


def mount(*words):
    subprocess.run(["mount", *words], check=True, capture_output=True)


def unmount(path):
    subprocess.run(["umount", "-l", path], check=True, capture_output=True)


@contextlib.contextmanager
def small(path, size):
    """The folder is a file system of that size meanwhile, holding what the folder held."""
    held = pathlib.Path("/tmp/held")
    shutil.copytree(path, held, dirs_exist_ok=True)
    mount("-t", "tmpfs", "-o", f"size={size}", "none", path)
    shutil.copytree(held, path, dirs_exist_ok=True)
    shutil.rmtree(held)
    try:
        yield
    finally:
        unmount(path)


def fill(folder):
    """Takes every byte; the file that does."""
    path = pathlib.Path(folder, "filler")
    with open(path, "wb", buffering=0) as out, contextlib.suppress(OSError):
        while True:
            out.write(bytes(4096))
    with open(path, "ab", buffering=0) as out, contextlib.suppress(OSError):
        while True:
            out.write(b"x")
    return path


@contextlib.contextmanager
def read_only(path):
    mount("-o", "remount,ro", path)
    try:
        yield
    finally:
        mount("-o", "remount,rw", path)


def flushes(run, strikes, flows=40, doubles=False):
    """Reports, then a flush with the fault in force and one without: every report has its line."""
    expected = {}
    for number, strike in enumerate(strikes):
        run.module.command("clear")
        run.flows(flows, first=1000 * number)
        run.report()
        for flow in range(1000 * number, 1000 * number + flows):
            expected[port_of(flow)] = expected.get(port_of(flow), 0) + 1
        with strike():
            run.flush()
            run.provoke()
            run.serving()
        run.flush()
        run.unwritten(expected, doubles=doubles)


@fault
def flash_full(run):
    """/flash is full when enforcement records are flushed

    keeps the reports queued, cuts half a line, says so in the log; the next flush writes them all
    """
    with small("/flash", "512k"):
        run.configured(clock=True)

        @contextlib.contextmanager
        def strike():
            filler = fill("/flash")
            yield
            filler.unlink()
        flushes(run, [strike] * 3, doubles=True)
        run.accepted("lines that reached the file before the write that failed stand in it twice")
        run.check("ailed to write" in run.log() or "ailed to open" in run.log(), "the log does not tell")
        run.finish()


@fault
def flash_gone(run):
    """/flash vanishes while the daemon runs, and a new one is mounted

    keeps the reports queued and writes them into a new file; an upload request meanwhile is answered and logged
    """
    run.configured(clock=True)
    run.flows(40)
    run.report()
    unmount("/flash")
    os.rmdir("/flash")
    run.flush()
    run.provoke()
    run.call("GETavDpiStats", {"username": "u", "password": "p", "filePath": "http://127.0.0.1:1/"})
    run.serving()
    os.mkdir("/flash")
    mount("-t", "tmpfs", "none", "/flash")
    run.flush()
    run.unwritten({port_of(flow): 1 for flow in range(40)})


@fault
def queue_overflow(run):
    """/flash is read-only for so long that 200 queued reports of a family are followed by 300 more

    counts and logs the reports that the full queue cannot take, keeps the 200, goes on when there is room
    """
    with small("/flash", "2m"):
        run.configured(clock=True)
        run.flows(200)
        run.report()
        run.module.command("clear")
        with read_only("/flash"):
            run.flows(300, first=1000)
            run.report()
            run.provoke(300)
        run.flows(1, first=5000)
        run.report("age-all")  # the 300 once more, and the one
        run.flush()
        text = run.log()
        run.check("300 reports dropped while records could not be written" in text, "the dropped ones are not told")
        expected = {port_of(flow): 1 for flow in [*range(200), *range(1000, 1300), 5000]}
        run.unwritten(expected)
        run.accepted("300 reports beyond the queue of 200, counted and told in the log")
        run.finish()


@fault
def monitor_flush_fails(run):
    """/flash is full when monitoring records are flushed

    tells it in the log; hourly counts lose nothing, and the daemon goes on
    """
    with small("/flash", "512k"):
        run.configured(clock=True)
        run.flows(50)
        filler = fill("/flash")
        run.advance(301)
        run.provoke()
        run.advance(3600)
        run.provoke()
        filler.unlink()
        run.flows(50, first=1000)
        run.advance(3600)
        total = sum(int(line.split(",")[6]) for line in world.text_of(HOURLY).splitlines()[1:])
        run.check(total == 100, f"hourly counts add up to {total} instead of 100")
        lines = world.text_of(MONITORED).splitlines()
        run.check(len(lines) >= 51 and all(line.count(",") == 8 for line in lines), "the file is not in order")
        run.accepted("monitoring lines of the failed flush: that queue is handed over before it is written")
        run.finish()


def log_fault(run, strike, restore):
    """The daemon serves, and what is not logged is all that is lost."""
    run.configured(clock=True)
    run.log_level("DEBUG")
    strike()
    run.provoke()
    for first in (0, 100, 200):
        run.flows(20, first=first)
        run.report()
        run.serving()
    run.flush()
    run.unwritten({port_of(flow): lines for first, lines in ((0, 3), (100, 2), (200, 1))
                   for flow in range(first, first + 20)})
    restore()
    run.serving()
    run.accepted("log lines meanwhile")


@fault
def log_full(run):
    """/var/log is full

    serves on without lines in its logs
    """
    with small("/var/log", "64k"):
        fillers = []
        log_fault(run, lambda: fillers.append(fill("/var/log")), lambda: fillers[0].unlink())
        before = len(run.log())
        run.log_level("INFO")
        run.dump("counter")
        run.check(len(run.log()) > before, "no lines again once there is room")
        run.finish()


@fault
def log_gone(run):
    """/var/log is removed; /var/log/dpi.log is replaced by a folder

    serves on, with its lines in the removed file or on standard error
    """
    log_fault(run, lambda: os.rename("/var/log", "/var/log.gone"), lambda: None)
    os.makedirs("/var/log/dpi.log")
    run.provoke()
    run.log_level("DEBUG")
    run.serving()
    run.finish()
    run.start_daemon()
    run.provoke()
    run.check("korvid start 4MB" in run.daemon.stderr, "no lines on standard error")


def config_fault(run, strike, restore, why):
    """A configuration that cannot be saved: the one before stays whole, and the next one is saved."""
    run.configured()
    before = world.CONFIG.read_bytes()
    strike()
    for _ in range(3):
        run.call("SETavAppMonAppList", {"appList": [{"appName": "Games"}]})
        run.call("SETappMonActivateAppList", {})
        run.serving()
        run.provoke()
    run.check(why in run.log(), f"the log does not tell '{why}'")
    if world.CONFIG.exists():
        run.check(world.CONFIG.read_bytes() == before, "the configuration before is damaged")
    restore()
    wanted = run.lists()
    run.call("SETappMonActivateAppList", {})
    run.settle()
    run.restart_daemon()
    if run.lists() != wanted:
        run.lost("saved settings")
    run.accepted("a save that the log reports as failed is not repeated by itself")


@fault
def config_full(run):
    """/var/config is full when settings are saved

    keeps the file that was there whole and says so in the log; the next save succeeds
    """
    with small("/var/config", "64k"):
        fillers = []
        config_fault(run, lambda: fillers.append(fill("/var/config")), lambda: fillers[0].unlink(), "Unable to ")
        run.finish()


@fault
def config_gone(run):
    """/var/config is removed while the daemon runs, and made again

    serves on; the next save succeeds
    """
    config_fault(run, lambda: shutil.rmtree("/var/config"), lambda: os.mkdir("/var/config"), "")


@fault
def scratch_full(run):
    """/var/flash is full, read-only or a file when a kit is installed

    refuses the kit or says in the log what failed; the same kit installs once there is room
    """
    run.configured()
    for index, (size, spoil, repair) in enumerate((
            ("64k", fill, lambda made: made.unlink()),
            ("2m", lambda path: mount("-o", "remount,ro", path), lambda _: mount("-o", "remount,rw", "/var/flash")))):
        world.make_kit(apps=APPS, version=f"{index + 2}.0")
        pathlib.Path("/var/flash").mkdir(exist_ok=True)
        with small("/var/flash", size):
            made = spoil("/var/flash")
            reply = run.reply("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
            run.settle()
            run.provoke()
            run.check(not reply["success"] or "Unable to" in run.log(), "nobody was told")
            repair(made)
        run.serving()
    shutil.rmtree("/var/flash", ignore_errors=True)
    pathlib.Path("/var/flash").write_text("a file")
    reply = run.reply("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
    run.provoke()
    run.check(not reply["success"], "a kit installed into a file")
    os.unlink("/var/flash")
    world.make_kit(apps=APPS, version="9.0")
    run.call("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
    run.settle()
    run.judging(7000)
    run.accepted("mirroring stays off after a refused kit until it is switched on again")


@fault
def record_files_replaced(run):
    """each record file in turn is deleted, replaced by a folder, a link to a file, a link to nowhere, a pipe

    writes into what can take lines and keeps the reports where none can be written; a pipe without a reader never blocks
    """
    run.configured(clock=True)
    strikes = (lambda path: None, lambda path: path.mkdir(), lambda path: path.symlink_to(f"/tmp/target.{path.name}"),
               lambda path: path.symlink_to("/tmp/none/target"), lambda path: os.mkfifo(path))
    expected = {}
    for number, strike in enumerate(strikes):
        run.module.command("clear")
        run.flows(20, first=1000 * number)
        run.report()
        expected |= {port_of(flow): 1 for flow in range(1000 * number, 1000 * number + 20)}
        # What was written so far is kept aside: a replacement takes the file away.
        kept = pathlib.Path(f"/tmp/kept{number}")
        if RECORDS.exists():
            shutil.copy(RECORDS, kept)
        for path in (RECORDS, MONITORED, HOURLY):
            path.unlink(missing_ok=True)
            strike(path)
            run.provoke()
        run.advance(3600)
        run.serving()
        if RECORDS.is_symlink() and RECORDS.exists():
            shutil.copy(RECORDS, f"/tmp/kept{number}link")
        for path in (RECORDS, MONITORED, HOURLY):
            if strike is strikes[0]:
                break
            path.rmdir() if path.is_dir() and not path.is_symlink() else path.unlink(missing_ok=True)
        for target in pathlib.Path("/tmp").glob("target.*"):
            target.unlink()
        run.flush()
    run.unwritten(expected, sorted(pathlib.Path("/tmp").glob("kept*")) + [RECORDS_OLD, RECORDS])
