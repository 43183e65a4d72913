"""The file servers themselves, by way of the curl program: what the transfer tests stand on."""
import pathlib
import shutil
import subprocess
import tempfile
import unittest

import world
from servers import Hostile, Nginx, Sshd, Vsftpd, base

CONTENT = bytes(range(256)) * 1000


class Servers(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(dir="/tmp"))
        self.addCleanup(shutil.rmtree, self.folder)
        self.file = self.folder / "records.csv"
        self.file.write_bytes(CONTENT)
        self.got = self.folder / "got"

    def serve(self, server):
        self.addCleanup(server.stop)
        return server.start()

    def curl(self, *arguments, user=None, password=None, insecure=True, limit=20):
        """The curl program's exit code.  Host keys are not checked, as with the library's defaults."""
        credentials = ["-u", f"{user}:{password}"] if user else []
        command = ["/usr/bin/curl", "-sS", "--max-time", str(limit), *(["--insecure"] if insecure else []),
                   *credentials, *map(str, arguments)]
        return subprocess.run(command, capture_output=True, check=False).returncode

    def check_real(self, server, denied, insecure=True):
        entry = {"user": server.user, "password": server.password, "insecure": insecure}
        upload = ["--ftp-create-dirs", "-f", "-T", self.file]
        self.assertEqual(self.curl(*upload, server.url("new/deep/records.csv"), **entry), 0, server.log())
        self.assertEqual((server.store / "new/deep/records.csv").read_bytes(), CONTENT)
        self.assertEqual(self.curl("-f", "-o", self.got, server.url("new/deep/records.csv"), **entry), 0, server.log())
        self.assertEqual(self.got.read_bytes(), CONTENT)
        entry["password"] = "wrong"
        self.assertEqual(self.curl(*upload, server.url("other.csv"), **entry), denied, server.log())
        self.assertFalse((server.store / "other.csv").exists())
        port = server.port
        server.stop()
        self.assertFalse(base.accepts(port))
        server.start()
        self.assertEqual(server.port, port)

    def test_vsftpd(self):
        self.check_real(self.serve(Vsftpd(self.folder / "ftp")), denied=67)

    def test_nginx(self):
        self.check_real(self.serve(Nginx(self.folder / "http")), denied=22)

    def test_nginx_with_tls(self):
        self.check_real(self.serve(Nginx(self.folder / "https", tls=True)), denied=22, insecure=False)

    def test_certificate_that_is_not_trusted(self):
        server = self.serve(Nginx(self.folder / "https", tls=True, trusted=False))
        self.assertEqual(self.curl(server.url(), user=server.user, password=server.password, insecure=False), 60)

    def test_sshd(self):
        self.check_real(self.serve(Sshd(self.folder / "sftp")), denied=67)

    # The hostile one: curl's exit codes are those of the library.

    def test_hostile_downloads(self):
        server = self.serve(Hostile(CONTENT))
        for behaviour, code, size in (
            ("ok", 0, len(CONTENT)), ("empty", 0, None), ("status/404", 0, 3), ("status/401", 0, 3),
            ("status/500", 0, 3), ("close/1000", 18, 1000), ("close/0", 18, None), ("reset/1000", 56, None),
            ("garbage", 1, None), ("longer/500", 0, len(CONTENT)), ("throttle/10000000", 0, len(CONTENT)),
        ):
            with self.subTest(behaviour):
                self.got.unlink(missing_ok=True)
                self.assertEqual(self.curl("-o", self.got, server.url(behaviour)), code)
                if size is not None:
                    self.assertEqual(self.got.stat().st_size, size)
        self.assertEqual(self.curl("-o", self.got, server.url("silent"), limit=0.3), 28)
        self.assertEqual(self.curl("-o", self.got, server.url("stall/1000"), limit=0.3), 28)
        self.assertEqual(self.got.stat().st_size, 1000)
        self.assertEqual(self.curl("-o", self.got, server.url("endless"), limit=0.3), 28)

    def test_hostile_uploads(self):
        server = self.serve(Hostile())
        for behaviour, codes, received, complete in (
            ("ok", {0}, len(CONTENT), True), ("status/507", {0}, len(CONTENT), True),
            ("close/1000", {52, 55, 56}, 1000, False), ("reset/1000", {55, 56}, 1000, False),
            ("throttle/10000000", {0}, len(CONTENT), True),
        ):
            with self.subTest(behaviour):
                self.assertIn(self.curl("-T", self.file, server.url(behaviour) + "/records.csv"), codes)
                request = server.requests[-1]
                self.assertEqual(request.path, f"/{behaviour}/records.csv")
                self.assertEqual((len(request.body), request.complete), (received, complete))
                self.assertEqual(bytes(request.body), CONTENT[:received])

    def test_hostile_stall_goes_on_when_released(self):
        server = self.serve(Hostile())
        command = ["/usr/bin/curl", "-sS", "-T", str(self.file), server.url("stall/5000") + "/records.csv"]
        with subprocess.Popen(command, stdout=subprocess.DEVNULL) as upload:
            request = server.wait_for(lambda found: len(found.body) == 5000, "5000 bytes")
            self.assertIsNone(upload.poll())
            server.release()
            self.assertEqual(upload.wait(world.PATIENCE), 0)
        self.assertTrue(request.complete)


if __name__ == "__main__":
    unittest.main()
