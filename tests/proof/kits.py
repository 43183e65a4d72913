"""Hostile and large archives."""
import io
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
