"""Signed kits: with a key in place no byte of a kit that nobody vouches for reaches tar or the loader."""
import gzip
import os
import pathlib
import shutil
import subprocess

import case
import world
from servers import Nginx
from test_korvidctl import TOOL

KEYS = pathlib.Path("/etc/korvid/keys")
SIGNATURE = pathlib.Path(f"{world.KIT}.sig")
EVIL = pathlib.Path("/tmp/evil")  # what tar finds in the kit's place, if it is there
TAR = pathlib.Path("/tmp/programs/tar")  # which counts how often it is run
APPS = {1: "Mail"}
NEW = {1: "Mail", 2: "Chat"}


def signify(*words):
    subprocess.run(["signify-openbsd", *map(str, words)], check=True, capture_output=True)


def sign(key="ours", file=world.KIT, signature=SIGNATURE):
    signify("-S", "-s", f"/tmp/{key}.sec", "-m", file, "-x", signature)


class Signatures(case.SystemTest):
    def setUp(self):
        super().setUp()
        if not shutil.which("signify-openbsd"):
            self.skipTest("signify-openbsd is not installed")
        for name in ("ours", "theirs"):
            for path in (f"/tmp/{name}.pub", f"/tmp/{name}.sec"):
                pathlib.Path(path).unlink(missing_ok=True)
            signify("-G", "-n", "-p", f"/tmp/{name}.pub", "-s", f"/tmp/{name}.sec")
        shutil.rmtree("/etc/korvid", ignore_errors=True)
        self.addCleanup(shutil.rmtree, "/etc/korvid", ignore_errors=True)
        EVIL.unlink(missing_ok=True)
        TAR.parent.mkdir(exist_ok=True)
        TAR.write_text(f'#!/bin/sh\necho >> {TAR}.runs; [ -e {EVIL} ] && cp {EVIL} {world.KIT}; exec /usr/bin/tar "$@"\n')
        TAR.chmod(0o755)
        self.world.start(env={"PATH": f"{TAR.parent}:{os.environ['PATH']}"})

    def trust(self, name="ours"):
        KEYS.mkdir(parents=True, exist_ok=True)
        shutil.copy(f"/tmp/{name}.pub", KEYS)

    def install(self):
        """Whether the kit on flash is taken, and the reason if it is not."""
        taken = self.world.reply("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})["success"]
        self.world.settle()
        kit = self.world.ask("status")["kit"]
        self.assertEqual(kit["refused"], not taken)
        return True if taken else kit["refusal"]

    def applications(self):
        return self.world.ask("status")["kit"]["applications"]

    def test_ways_around_a_signature_are_closed(self):
        world.make_kit(apps=APPS)
        self.assertIs(self.install(), True, "without a key no signature is wanted")
        self.trust()
        world.make_kit(apps=NEW)
        good = world.KIT.read_bytes()

        def signature_of(data, key="ours"):
            path = pathlib.Path("/tmp/other")
            path.write_bytes(data)
            sign(key, path, "/tmp/other.sig")
            return pathlib.Path("/tmp/other.sig").read_bytes()
        whole = signature_of(good)
        wrong = "its signature is wrong: the kit or the signature is another one, or has been changed"
        damaged = "its signature is damaged, or no Ed25519 signature"
        flipped = bytes([*good[:-1], good[-1] ^ 1])
        header, line = whole.splitlines()[:2]
        runs = TAR.with_suffix(".runs").read_text()
        for name, kit, signature, reason in (
                ("none", good, None, "it has no signature"),
                ("another kit's", good, signature_of(b"another"), wrong),
                ("of another key", good, signature_of(good, "theirs"), "it is signed with a key that is not trusted here"),
                ("over the plain archive", good, signature_of(gzip.decompress(good)), wrong),
                ("over the packed, of the plain one", gzip.decompress(good), whole, wrong),
                ("kit changed", flipped, whole, wrong),
                ("kit cut", good[:-1], whole, wrong),
                ("kit continued", good + b"\0", whole, wrong),
                ("empty kit", b"", whole, "it is empty"),
                ("cut", good, whole[:-10], damaged),
                ("comment alone", good, header + b"\n", damaged),
                ("no comment", good, line + b"\n", damaged),
                ("a public key", good, pathlib.Path("/tmp/ours.pub").read_bytes(), damaged),
                ("a pipe", good, "pipe", damaged)):
            with self.subTest(name=name):
                SIGNATURE.unlink(missing_ok=True)
                world.KIT.write_bytes(kit)
                if signature == "pipe":
                    os.mkfifo(SIGNATURE)
                elif signature is not None:
                    SIGNATURE.write_bytes(signature)
                lines = self.log().count("the kit is refused: ")
                self.assertEqual(self.install(), reason)
                self.assertEqual(self.log().count("the kit is refused: "), lines + 1, "one line")
                self.assertEqual(TAR.with_suffix(".runs").read_text(), runs, "nothing of it reaches tar")
                self.assertEqual(self.applications(), len(APPS), "the kit that runs goes on running")
        SIGNATURE.unlink()
        world.KIT.write_bytes(good)
        SIGNATURE.write_bytes(whole)
        self.assertIs(self.install(), True)
        self.assertEqual(self.applications(), len(NEW))

    def test_keys_that_come_and_go(self):
        self.trust()
        self.trust("theirs")
        world.make_kit(apps=APPS, sign="/tmp/theirs.sec")
        self.assertIs(self.install(), True, "either key will do")
        (KEYS / "theirs.pub").unlink()
        world.make_kit(apps=NEW, sign="/tmp/theirs.sec")
        self.assertIn("not trusted", self.install())
        (KEYS / "ours.pub").write_text("no key")
        sign()
        self.assertIn("not trusted", self.install(), "a key that cannot be read vouches for nothing, and opens nothing")
        self.assertIn("no key", subprocess.run([*TOOL, "kit", "keys"], capture_output=True, text=True).stdout)
        shutil.rmtree(KEYS)
        KEYS.write_text("a file where the folder should be")
        self.assertIn("not trusted", self.install())
        KEYS.unlink()
        SIGNATURE.unlink()
        self.assertIs(self.install(), True)

    def test_what_was_verified_is_what_is_unpacked(self):
        """The kit on flash is exchanged between check and use; in the scratch area lies what an earlier kit left behind."""
        self.trust()
        world.make_kit(apps=APPS, sign="/tmp/ours.sec")
        world.make_kit(EVIL, apps=NEW)
        left = pathlib.Path("/var/flash/switch/zor/app_mon/.tmp_/lib/ni/libevil.so.1")
        left.parent.mkdir(parents=True)
        left.write_text("planted")
        (left.parent / "libcapture.so").symlink_to("/etc/passwd")
        self.assertIs(self.install(), True)
        self.assertEqual(world.KIT.read_bytes(), EVIL.read_bytes(), "it was exchanged before anything was unpacked")
        self.assertEqual(self.applications(), len(APPS))
        self.assertFalse(pathlib.Path("/lib/libevil.so.1").exists())

    def test_the_configuration_file_asks_in_vain_and_a_download_brings_the_signature(self):
        self.trust()
        world.make_kit(apps=APPS)
        world.CONFIG.write_text('{"ApplicationVisbilityProfile": [{"reloadSignFile": "force"}]}')
        self.world.restart_daemon()
        self.assertEqual((self.applications(), self.world.ask("status")["kit"]["refusal"]), (0, "it has no signature"))
        self.assertNotIn("Unable to", self.log(), "one line tells it")
        server = Nginx(pathlib.Path("/tmp/fileserver")).start()
        self.addCleanup(server.stop)
        world.make_kit(server.store / "kit", apps=NEW, sign="/tmp/ours.sec")
        digest = subprocess.run(["md5sum", server.store / "kit"], capture_output=True, text=True).stdout.split()[0]
        for path, count in (("kit", len(NEW)), ("unsigned", 0)):
            if path == "unsigned":
                shutil.copy(server.store / "kit", server.store / path)
            self.world.call("CREATEavSignatureProfile", {"username": server.user, "password": server.password,
                                                         "filePath": server.url(path), "fileCheckSum": digest})
            self.world.settle()
            self.assertEqual(SIGNATURE.exists(), count != 0, "the old one does not stay beside another kit")
        self.assertEqual(self.install(), "it has no signature")


if __name__ == "__main__":
    import unittest
    unittest.main()
