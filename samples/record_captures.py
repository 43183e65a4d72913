"""What samples/record-captures runs inside the sandbox: the stage on which clients and servers meet.

recorded_services.py has the servers of Debian, recorded_scripts.py those that are scripted, recorded_frames.py what is
made from other captures.  Addresses are those reserved for documentation (RFC 5737, RFC 3849).
"""
import contextlib
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

CLIENT4, SERVER4 = "192.0.2.11", "198.51.100.1"
CLIENT6, SERVER6 = "2001:db8:1::11", "2001:db8:2::1"
os.environ["PATH"] += ":/usr/lib/postgresql/15/bin:/usr/lib/git-core"

RECIPES = {}  # name: (function, packages, programs)


def recipe(packages="", programs=""):
    """Registers a function of one Stage; packages and programs are what it needs beyond tools/packages.txt."""
    def register(function):
        RECIPES[function.__name__.replace("_", "-")] = (function, packages.split(), programs.split())
        return function
    return register


def wait_until(predicate, what, timeout=20):
    end = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > end:
            raise TimeoutError(f"waited {timeout} s for {what}")
        time.sleep(0.05)


class Stage:
    """One capture: its servers, which end with it, its clients, and a folder of its own."""

    def __init__(self, name, output):
        self.name, self.output = name, output
        self.work = pathlib.Path(tempfile.mkdtemp(prefix=name))
        self.work.chmod(0o755)
        self.children, self.listeners = [], []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for child in reversed(self.children):
            with contextlib.suppress(ProcessLookupError):
                os.killpg(child.pid, signal.SIGTERM)
        for child in self.children:
            try:
                child.wait(5)
            except subprocess.TimeoutExpired:
                os.killpg(child.pid, signal.SIGKILL)
                child.wait()
        for listener in self.listeners:
            with contextlib.suppress(OSError):
                listener.shutdown(socket.SHUT_RDWR)  # its thread waits in it, and would keep the port
            listener.close()
        shutil.rmtree(self.work, ignore_errors=True)

    # Servers.

    def file(self, name, text, mode=0o644):
        path = self.work / name
        path.write_text(text)
        path.chmod(mode)
        return str(path)

    def folder(self, name, owner=None):
        path = self.work / name
        path.mkdir()
        if owner:
            shutil.chown(path, owner, owner)
        return str(path)

    def start(self, *command, user=None, env=None):
        log = open(self.work / f"{len(self.children)}.log", "wb")
        self.children.append(subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, user=user,
                                              group=user, cwd=self.work, start_new_session=True,
                                              env={**os.environ, **(env or {})}))
        log.close()

    def run(self, *command, user=None):
        subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, user=user, group=user,
                       stderr=subprocess.PIPE, cwd=self.work)

    def wait_for(self, kind, port, timeout=20):
        """Until a server has the port, kind being tcp or udp."""
        def there():
            done = subprocess.run(["ss", "-Hn", "-l", "-t" if kind == "tcp" else "-u", "sport", "=", f":{port}"],
                                  capture_output=True, check=True)
            return bool(done.stdout.strip())
        wait_until(there, f"a server on {kind} port {port}", timeout)

    def serve_tcp(self, port, talk):
        """A scripted server, both families: talk(connection) runs for each connection in a thread of its own."""
        for family, address in ((socket.AF_INET, SERVER4), (socket.AF_INET6, SERVER6)):
            listener = socket.create_server((address, port), family=family)
            self.listeners.append(listener)
            threading.Thread(target=self._accept, args=(listener, talk), daemon=True).start()

    @staticmethod
    def _accept(listener, talk):
        with contextlib.suppress(OSError):
            while True:
                connection, _ = listener.accept()
                threading.Thread(target=Stage._talk, args=(connection, talk), daemon=True).start()

    @staticmethod
    def _talk(connection, talk):
        with connection, contextlib.suppress(OSError):
            connection.settimeout(5)
            talk(connection)

    def serve_udp(self, port, answer):
        """A scripted server: answer(datagram) gives the datagram to send back, or nothing."""
        for family, address in ((socket.AF_INET, SERVER4), (socket.AF_INET6, SERVER6)):
            server = socket.socket(family, socket.SOCK_DGRAM)
            server.bind((address, port))
            self.listeners.append(server)
            threading.Thread(target=self._answer, args=(server, answer), daemon=True).start()

    @staticmethod
    def _answer(server, answer):
        with contextlib.suppress(OSError):
            while True:
                datagram, peer = server.recvfrom(65535)
                if peer is None:  # shut down
                    return
                reply = answer(datagram)
                if reply:
                    server.sendto(reply, peer)

    # Clients.

    def client(self, *command, statuses=(0,), seconds=15):
        done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=seconds, check=False,
                              cwd=self.work)
        if done.returncode not in statuses:
            raise RuntimeError(f"{' '.join(command)}: status {done.returncode}: "
                               f"{(done.stderr or done.stdout).decode(errors='replace').strip()[-400:]}")

    def connect(self, port, address=SERVER4):
        return socket.create_connection((address, port), timeout=5)

    def datagrams(self, port, *payloads, address=SERVER4, source=0, answers=True):
        """Sends each datagram and takes its answer."""
        with socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.settimeout(5)
            sender.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            if source:
                sender.bind((CLIENT6 if ":" in address else CLIENT4, source))
            for payload in payloads:
                sender.sendto(payload, (address, port))
                if answers:
                    sender.recvfrom(65535)

    @contextlib.contextmanager
    def recording(self, snap=0, name=None):
        """Records what happens in the meantime, without the names that programs look for on their own."""
        path = self.output / f"{name or self.name}.pcap"
        log = self.work / "tcpdump.log"
        with open(log, "wb") as errors:
            recorder = subprocess.Popen(["tcpdump", "-q", "-Z", "root", "-i", "lo", "-s", str(snap), "-U",
                                         "--immediate-mode", "-w", str(path), "not", "host", "127.0.0.1"], stderr=errors)
        wait_until(lambda: b"listening on" in log.read_bytes(), "tcpdump")
        try:
            yield path
            time.sleep(0.2)  # the last connections say goodbye
        finally:
            recorder.send_signal(signal.SIGINT)
            recorder.wait()

    def logs(self):
        return "".join(path.read_text(errors="replace")[-600:] for path in sorted(self.work.glob("*.log")))


def set_up_network():
    """Packets as Ethernet links show them, and clients that have an address of their own without asking for it."""
    def ip(*words):
        subprocess.run(["ip", *words], check=True)

    ip("link", "set", "lo", "mtu", "1500", "gso_max_segs", "1")
    for address in (CLIENT4, SERVER4):
        ip("addr", "replace", f"{address}/32", "dev", "lo")
    for address in (CLIENT6, SERVER6):
        ip("-6", "addr", "replace", f"{address}/128", "dev", "lo", "nodad")
    ip("route", "replace", "local", SERVER4, "dev", "lo", "table", "local", "src", CLIENT4)
    own_route = ["ip", "-6", "route", "del", "local", SERVER6, "dev", "lo", "table", "local"]
    wait_until(lambda: subprocess.run(own_route, capture_output=True, check=False).returncode == 0,
               "the kernel's own route, which it adds a little after the address")
    ip("-6", "route", "add", "local", SERVER6, "dev", "lo", "table", "local", "src", CLIENT6, "metric", "0")


def record(name, output):
    function, packages, programs = RECIPES[name]
    missing = [program for program in programs if not shutil.which(program)]
    if missing:
        print(f"{name}: left out, {', '.join(missing)} missing (apt-get install {' '.join(packages)})")
        return False
    with Stage(name, output) as stage:
        try:
            function(stage)
        except (RuntimeError, OSError, subprocess.SubprocessError) as error:
            detail = getattr(error, "stderr", None) or b""
            print(f"{name}: FAILED: {error} {detail.decode(errors='replace')[-300:]}\n{stage.logs()}", flush=True)
            return False
    print(f"{name}: recorded", flush=True)
    return True


def main():
    # pylint: disable=import-outside-toplevel,unused-import
    import recorded_services, recorded_scripts, recorded_frames  # noqa: E401, F401  they fill RECIPES
    if sys.argv[1] == "--list":
        for name, (_, packages, _) in RECIPES.items():
            print(f"{name:<12} {' '.join(packages)}")
        return 0
    output = pathlib.Path(sys.argv[1])
    names = sys.argv[2:] or list(RECIPES)
    unknown = [name for name in names if name not in RECIPES]
    if unknown:
        sys.exit(f"record-captures: no such capture: {', '.join(unknown)} (--list names them)")
    set_up_network()
    return 0 if all([record(name, output) for name in names]) else 1


if __name__ == "__main__":
    sys.modules["record_captures"] = sys.modules["__main__"]
    sys.exit(main())
