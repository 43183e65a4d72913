"""Engines with missing parts and bad habits, hostile archives, absurd indexes."""
import io
import os
import pathlib
import tarfile
import time

import world
from proof.base import APPS, fault
from proof.storage import small

ENGINE = world.ENGINES / "scripted/libcapture.so"
HEADER = "id,name,category,risk,kind,area,source\n"
GOOD = {"compatibility.txt": b"1\n", "version": b"1.0\n", "lib/ni/libcapture.so": None,
        "AppMon_Signature_Index.csv": (HEADER + "1,Mail,-,-,-,-,-\n").encode()}


def archive(members, path=world.KIT):
    """A kit of exactly these (TarInfo or name, content) pairs, in this order; compressed as little as possible."""
    with tarfile.open(path, "w:gz", compresslevel=1) as out:
        for entry, content in members:
            if isinstance(entry, str):
                entry = tarfile.TarInfo(entry)
                entry.mode = 0o755
            if hasattr(content, "read"):
                out.addfile(entry, content)
                continue
            entry.size = len(content or b"")
            out.addfile(entry, io.BytesIO(content or b""))


def good_members(**changes):
    for name, content in (GOOD | changes).items():
        yield name, ENGINE.read_bytes() if content is None else content


def link(name, target, kind=tarfile.SYMTYPE):
    entry = tarfile.TarInfo(name)
    entry.type, entry.linkname = kind, target
    return entry, b""


def install(run):
    """Asks for the kit on flash; the reply, once it is served."""
    reply = run.reply("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"}, timeout=120)
    run.settle()
    return reply


def well_again(run, first):
    """A good kit is installed after whatever came before, and judges."""
    run.install_kit(apps=APPS, version=f"9.{first}")
    run.call("SETavDpiAppList", {"appList": [{"appName": "Mail"}]})
    run.judging(first)
    run.check(run.module.stats()["matches"] > 0, "no match with the good kit")


@fault
def engines_incomplete(run):
    """engines without a start, packet or exit entry, one that cannot be opened, none at all, one of random bytes

    logs it and serves on without verdicts, or with what the engine has; the next kit works
    """
    run.configured()
    for number, engine in enumerate(("no_start", "no_packet", "no_exit", "unresolved")):
        run.install_kit(engine=engine, apps=APPS, version=f"1.{number}")
        run.enable()
        run.module.command(f"generate flows=20 packets=40 first={number * 20} ports=10001")
        run.module.command("wait 10000")
        run.provoke()
        run.serving()
    world.make_kit(apps=APPS, without="lib")
    install(run)
    run.provoke()
    archive(good_members(**{"lib/ni/libcapture.so": os.urandom(10000)}))
    install(run)
    run.check("dl open Failure" in run.log(), "the broken library is not told")
    run.provoke()
    well_again(run, 1000)


@fault
def engine_blocks(run):
    """an engine that takes two seconds for a packet, while requests come, and when its kit is replaced

    answers requests meanwhile; the replacement waits for the packet
    """
    run.configured(engine="blocking")
    run.module.command("generate flows=2 packets=2 ports=10001")
    run.provoke(2)
    for _ in range(20):
        began = time.monotonic()
        run.settle()
        run.check(time.monotonic() - began < 1.5, "a request waited for the engine")
    run.module.command("generate flows=3 packets=3 first=10 ports=10001")
    well_again(run, 1000)
    run.provoke()


@fault
def engine_reports_late(run):
    """engines that report from threads of their own, and at their exit, while kits are replaced under traffic

    takes every report while mirroring is on; no engine is entered before its start or after its stop
    """
    run.configured(engine="threads")
    run.module.command("generate flows=20000 packets=100000000 ports=10001,10002 rate=20000")
    for number, engine in enumerate(("exit_reports", "threads", "handover", "exit_reports", "other_ids", "threads")):
        run.install_kit(engine=engine, apps=APPS | {501: "Late"}, version=f"2.{number}")
        run.enable()
        run.provoke()
        time.sleep(0.3)
    run.module.command("stop")
    run.module.command("wait 30000")
    violation = world.FLASH / "engine.violation"
    run.check(not violation.exists(), world.text_of(violation))
    well_again(run, 900000)


@fault
def archives_hostile(run):
    """archives with absolute names, "..", links and hard links out of the tree, links in place of its files, devices

    leaves everything outside its own folders as it was; the next kit works
    """
    run.configured()
    guarded = {pathlib.Path(name): f"guarded {name}\n" for name in
               ("/var/config/guarded", "/flash/guarded", "/tmp/guarded/file", "/etc/guarded")}
    for path, text in guarded.items():
        path.parent.mkdir(exist_ok=True)
        path.write_text(text)
    before = world.CONFIG.read_bytes()
    device = tarfile.TarInfo("lib/ni/libcapture.so")
    device.type, device.devmajor, device.devminor = tarfile.CHRTYPE, 1, 5
    pipe = tarfile.TarInfo("version")
    pipe.type = tarfile.FIFOTYPE
    evil = [
        [*good_members(), ("/etc/guarded", b"evil"), ("/var/config/guarded", b"evil")],
        [*good_members(), ("../" * 9 + "etc/guarded", b"evil"), ("../../../../../../flash/guarded", b"evil")],
        [*good_members(), link("way", "/tmp/guarded"), ("way/file", b"evil")],
        [*good_members(), link("way", "../../../../../../../tmp/guarded"), ("way/file", b"evil")],
        [*good_members(), link("hard", "/tmp/guarded/file", tarfile.LNKTYPE), ("hard", b"evil")],
        [link("compatibility.txt", "/dev/zero"), *list(good_members())[1:]],
        [link("AppMon_Signature_Index.csv", "/dev/zero"), *list(good_members())[:3]],
        [link("lib", "/tmp/guarded"), *good_members()],
        [device, *[pair for pair in good_members() if "lib/" not in pair[0]]],
        [pipe, *[pair for pair in good_members() if pair[0] != "version"]],
        [link("compatibility.txt", "compatibility.txt"), *list(good_members())[1:]],
    ]
    for members in evil:
        archive([(member, b"") if isinstance(member, tarfile.TarInfo) else member for member in members])
        began = time.monotonic()
        install(run)
        run.check(time.monotonic() - began < 20, "it took more than 20 s")
        run.provoke()
        run.serving()
        for path, text in guarded.items():
            run.check(world.text_of(path) == text, f"{path} was changed")
    run.check(world.CONFIG.read_bytes() == before, "the configuration was changed")
    well_again(run, 1000)


class Zeros:
    """A file of so many zero bytes."""

    def __init__(self, size):
        self.left = size

    def read(self, count):
        count = min(count, self.left)
        self.left -= count
        return bytes(count)


@fault
def archives_large(run):
    """archives with a thousand members, a gibibyte of zeros, a thousand nested folders, names of 90 characters

    installs it, or refuses it when the 64 MiB of scratch space are full, and the kits after it until that is emptied; packets are judged
    """
    run.configured()
    archive([*good_members(), *((f"data/{number:04d}-" + "n" * 60, b"x" * 100) for number in range(1000))])
    install(run)
    run.provoke()
    run.serving()
    archive([*good_members(), ("d/" * 100 + "deep", b"x")])
    install(run)
    run.provoke()
    pathlib.Path("/var/flash").mkdir(exist_ok=True)
    with small("/var/flash", "64m"):
        entry = tarfile.TarInfo("zeros")
        entry.size = 1 << 30
        archive([*good_members(), (entry, Zeros(1 << 30))])
        reply = install(run)
        run.provoke()
        run.check(not reply["success"], "it installed a gibibyte into 64 MiB")
        run.serving()
        # What a refused kit left in the scratch area stays there, and the next one is refused for want of space.
        world.make_kit(apps=APPS, version="8.0")
        run.check(not install(run)["success"], "the scratch area is not full")
        run.check("Insufficient flash space" in run.log(), "the want of space is not told")
        run.judging(500)
        for path in pathlib.Path("/var/flash").rglob("zeros"):
            path.unlink()
    run.accepted("a refused kit's extraction stays in /var/flash until somebody removes it")
    well_again(run, 1000)


@fault
def indexes_absurd(run):
    """indexes of 65,536 applications, ids out of range, double names, lines without end, without commas, of zeros

    takes 16 bits of an id and 32 characters of a name, the first id of a double name; memory comes back
    """
    run.configured()
    world.make_kit(numbered="65536:A-", version="3.0")
    install(run)
    run.enable()
    run.provoke()
    most = run.status("VmRSS")
    run.call("SETavDpiAppList", {"appList": [{"appName": "A-0"}, {"appName": "A-1"}, {"appName": "A-65535"}]})
    run.flows(10)
    run.check(run.module.stats()["matches"] == 10, "the largest index does not match")
    lines = ["65536,Wrapped,-,-,-,-,-", "-1,Minus,-,-,-,-,-", "99999999999999999999,Huge,-,-,-,-,-", "7,Twice,-,-,-,-,-",
             "8,Twice,-,-,-,-,-", "9," + "N" * 400 + ",-", ",,,,,,", "nocomma", "10", "11,", "x" * 5000, "12,Zero\0End,-,-,-,-,-",
             "1,Mail,-,-,-,-,-"]
    for number, index in enumerate(["\n".join([HEADER.strip(), *lines]) + "\n", HEADER, "", "\n" * 10000, "\0" * 10000]):
        path = pathlib.Path("/tmp/index.csv")
        path.write_text(index)
        world.make_kit(index=path, version=f"4.{number}")
        install(run)
        run.enable()
        run.provoke()
        if number == 0:
            run.call("SETavDpiAppList", {"appList": [{"appName": name} for name in ("Wrapped", "Twice", "N" * 32)]})
            listed = {tuple(line.split()[1:4:2]) for line in run.lists()[1]}
            run.check(listed == {("0", "Wrapped"), ("7", "Twice"), ("9", "N" * 32)}, f"the index became {listed}")
        run.module.command(f"generate flows=200 packets=200 first={number * 1000} ports=10001,10007,10008,10009")
        run.module.command("wait 10000")
        run.serving()
    well_again(run, 100000)
    run.check(run.status("VmRSS") < most + 1024, f"memory grew: {most} kB, then {run.status('VmRSS')} kB")
