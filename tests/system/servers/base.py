"""What the real servers share: a child process, a free port, accounts that exist in the sandbox only."""
import pathlib
import shutil
import socket
import subprocess
import unittest

import world

ADDRESS = "127.0.0.1"


def free_port():
    with socket.socket() as probe:
        probe.bind((ADDRESS, 0))
        return probe.getsockname()[1]


def accepts(port):
    try:
        socket.create_connection((ADDRESS, port), timeout=1).close()
        return True
    except OSError:
        return False


def ordinary_user():
    """Whether this sandbox has no user but root: servers cannot give up their rights in it."""
    mapped = sum(int(line.split()[2]) for line in pathlib.Path("/proc/self/uid_map").read_text().splitlines())
    return mapped < 65535


def account(user, password):
    """Makes a user of the sandbox, with root's rights; or gives him another password."""
    done = subprocess.run(["openssl", "passwd", "-6", "-stdin"], input=password + "\n", check=True, text=True,
                          capture_output=True)
    for path, line in (("/etc/passwd", f"{user}:x:0:0::/root:/bin/sh\n"),
                       ("/etc/shadow", f"{user}:{done.stdout.strip()}:20000:0:99999:7:::\n")):
        others = [other for other in world.text_of(path).splitlines(True) if not other.startswith(user + ":")]
        pathlib.Path(path).write_text("".join(others) + line)
    pathlib.Path("/etc/shadow").chmod(0o600)


def pam_service(name):
    """Has PAM's service of that name ask for an account's password.  It must not start a process: vsftpd takes the end
    of any child for that of its own."""
    services = pathlib.Path("/etc/pam.d")
    services.mkdir(exist_ok=True)
    (services / name).write_text("auth required pam_unix.so nodelay\n"
                                 "account required pam_permit.so\n"
                                 "session required pam_permit.so\n"
                                 "password required pam_deny.so\n")


class Server:
    """A server process whose files are in `directory`: configuration and logs beside the store."""
    name = scheme = ""
    program = ""  # absolute: sshd insists
    user, password = "stats", "s3cret words"

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self.store = self.directory / "store"
        self.port = None
        self.process = None

    def configure(self):
        """Writes what the server needs; gives the command that runs it in the foreground."""
        raise NotImplementedError

    def start(self):
        if ordinary_user():
            raise unittest.SkipTest(f"{self.name} needs a sandbox that was started by root")
        if not shutil.which(self.program):
            raise FileNotFoundError(f"{self.program} is missing: see tools/packages.txt")
        self.store.mkdir(parents=True, exist_ok=True)
        self.port = self.port or free_port()
        command = self.configure()
        with open(self.directory / "output", "ab") as output:
            self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=output, start_new_session=True)
        try:
            world.wait_until(self._up, f"{self.name} on port {self.port}")
        except Exception:
            self.stop()
            raise
        return self

    def _up(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"{self.name} ended: {world.text_of(self.directory / 'output')}")
        return accepts(self.port)

    def stop(self):
        """Ends the server and the connections that it serves; its files and its port stay for another start."""
        if self.process is None:
            return
        process, self.process = self.process, None
        process.terminate()
        try:
            process.wait(world.PATIENCE)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()

    def url(self, path=""):
        return f"{self.scheme}://{ADDRESS}:{self.port}/{path}"

    def log(self):
        """What the server has written, for messages of failed tests."""
        return world.text_of(self.directory / "output") + world.text_of(self.directory / "log")
