"""The world around the daemon inside a sandbox: broker, kernel-module stand-in, kit, and the production binary.

Used by the system tests, the proof of faults, the benchmark and the demo; runs inside tools/sandbox, where /flash, /var and /lib are private.
"""
import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tarfile
import time

# Where tools/sandbox shows the checkout, whatever its own path is.
TREE = pathlib.Path("/run/korvid-sandbox")


def placed(path):
    """A path in the checkout, as seen below TREE; any other path as it is."""
    path, checkout = pathlib.Path(path), TREE.resolve()
    return TREE / path.relative_to(checkout) if path.is_relative_to(checkout) else path


BUILD = placed(os.environ.get("KORVID_BUILD", TREE / "build/release"))
DAEMON = placed(os.environ.get("KORVID_DAEMON", BUILD / "src/korvid"))
ROUTER_DAEMON = BUILD / "src/korvid-netfilter"
# What runs programs of a build for another processor, which finds that one's libraries below QEMU_LD_PREFIX.
EMULATOR = os.environ.get("KORVID_EMULATOR", "").split()
ENGINES = BUILD / "platform/engine"
MKKIT = TREE / "platform/engine/mkkit"
FLASH = pathlib.Path("/flash")
KIT = FLASH / "HAppSig.upgrade_kit"
CONFIG = pathlib.Path("/var/config/dpi.conf")
LOG = pathlib.Path("/var/log/dpi.log")
REQUEST_LOG = pathlib.Path("/var/log/ubusDpi.log")
OUT = pathlib.Path("/tmp/out")
BUS_SOCKET = "/tmp/bus.sock"
MODULE_CONTROL = "/tmp/dpimod.ctl"
MODULE_SOCKET = "/run/dpimod.sock"
CLOCK = pathlib.Path("/tmp/faketime")

# Sanitized and emulated builds run slower; waits are bounds, not delays.
PATIENCE = float(os.environ.get("KORVID_PATIENCE", "20"))


class Failure(Exception):
    """A call that was answered with success false; the text is the reply's errorMessage."""


def wait_until(predicate, what, timeout=None):
    """Polls until predicate() gives something true, which is returned."""
    end = time.monotonic() + (timeout or PATIENCE)
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > end:
            raise TimeoutError(f"waited {timeout or PATIENCE:.0f} s for {what}")
        time.sleep(0.01)


def text_of(path):
    try:
        return pathlib.Path(path).read_text(errors="replace")
    except FileNotFoundError:
        return ""


def first_existing(*candidates):
    for candidate in candidates:
        if pathlib.Path(candidate).exists():
            return str(candidate)
    raise FileNotFoundError(f"none of {', '.join(map(str, candidates))}")


def bus_program(name):
    """The words that start the bus's broker or tool: the system's where the build has none."""
    if (BUILD / "platform/bus" / name).exists():
        return [*EMULATOR, str(BUILD / "platform/bus" / name)]
    return [first_existing(*(f"{folder}/{name}" for folder in ("/bin", "/usr/bin", "/sbin", "/usr/sbin")))]


def make_kit(output=KIT, engine="scripted", apps=None, ndpi=False, **options):
    """Builds a kit; apps is {id: name}.  Options are mkkit's: level, version, without, index, numbered."""
    command = [str(MKKIT), "-o", str(output)]
    if ndpi:
        command += ["--ndpi", str(ENGINES)]
    elif options.get("without") != "lib":
        command += ["--engine", str(ENGINES / engine / "libcapture.so")]
    if apps is not None:
        command += ["--apps", ";".join(f"{number},{name}" for number, name in apps.items())]
    for name, value in options.items():
        for item in value if isinstance(value, (list, tuple)) else [value]:
            command += [f"--{name}", str(item)]
    subprocess.run(command, check=True, capture_output=True, text=True)


def kit_numbers(kit=KIT):
    """The kit's applications: name and number."""
    with tarfile.open(kit) as archive:
        lines = archive.extractfile("AppMon_Signature_Index.csv").read().decode().splitlines()[1:]
    return {line.split(",")[1]: int(line.split(",")[0]) for line in lines}


class Process:
    """A child with its output in files; stop() gives its exit status."""

    def __init__(self, name, command, env=None, **kwargs):
        OUT.mkdir(exist_ok=True)
        self.name = name
        self.stdout_path = OUT / f"{name}.out"
        self.stderr_path = OUT / f"{name}.err"
        with open(self.stdout_path, "ab") as out, open(self.stderr_path, "ab") as err:
            self.child = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=out,
                                          stderr=err, env={**os.environ, **(env or {})}, **kwargs)

    @property
    def pid(self):
        return self.child.pid

    @property
    def stdout(self):
        return text_of(self.stdout_path)

    @property
    def stderr(self):
        return text_of(self.stderr_path)

    def running(self):
        return self.child.poll() is None

    def send(self, number):
        self.child.send_signal(number)

    def wait(self, timeout=None):
        return self.child.wait(timeout or PATIENCE)

    def stop(self, number=signal.SIGTERM, timeout=None):
        if self.running():
            self.send(number)
        try:
            return self.wait(timeout)
        except subprocess.TimeoutExpired:
            self.child.kill()
            self.child.wait()
            raise


class Module(Process):
    """dpimod, driven over its control socket."""

    def __init__(self, *options, json_file=OUT / "dpimod.json"):
        self.json_file = pathlib.Path(json_file)
        with contextlib.suppress(FileNotFoundError):
            self.json_file.unlink()
        super().__init__("dpimod", [*EMULATOR, BUILD / "platform/kernel/dpimod", "--control", MODULE_CONTROL, "--json",
                                    self.json_file, *options], env={"KORVID_DPIMOD_SOCKET": MODULE_SOCKET})
        wait_until(lambda: os.path.exists(MODULE_CONTROL) and os.path.exists(MODULE_SOCKET), "dpimod's sockets")

    def command(self, line, timeout=None):
        """One control command; its JSON answer."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
            connection.settimeout(timeout or PATIENCE * 3)
            connection.connect(MODULE_CONTROL)
            connection.sendall(line.encode() + b"\n")
            answer = b""
            while not answer.endswith(b"\n"):
                piece = connection.recv(1 << 16)
                if not piece:
                    break
                answer += piece
        reply = json.loads(answer)
        if reply.get("ok") is False:
            raise Failure(f"dpimod {line[:80]}: {reply.get('error', reply)}")
        return reply

    def stats(self):
        """Its counters; much cheaper than reading events where those are many."""
        return self.command("stats")["stats"]

    def events(self, kind=None):
        """The lines of the JSON file so far, of one kind ("config", "result", "report", ...)."""
        found = [json.loads(line) for line in text_of(self.json_file).splitlines() if line.endswith("}")]
        return [event for event in found if kind is None or event.get("event") == kind]


class World:
    """Everything around one daemon; use as a context manager.  A router's has no kernel module: its daemon speaks with the
    kernel of this network."""

    def __init__(self, router=False):
        self.router = router
        self.bus = self.module = self.daemon = None

    def __enter__(self):
        if not TREE.is_symlink():
            raise RuntimeError("not in tools/sandbox: these folders are the machine's")
        for folder in ("/flash", "/var/log", "/var/config", "/var/flash", "/tmp/out"):
            pathlib.Path(folder).mkdir(parents=True, exist_ok=True)
            for entry in pathlib.Path(folder).iterdir():
                shutil.rmtree(entry) if entry.is_dir() and not entry.is_symlink() else entry.unlink()
        with contextlib.suppress(FileNotFoundError):
            CLOCK.unlink()
        return self

    def __exit__(self, *_):
        for process in (self.daemon, self.module, self.bus):
            if process and process.running():
                process.child.kill()
                process.wait()

    # Starting and stopping.

    def start_bus(self):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(BUS_SOCKET)
        self.bus = Process("ubusd", [*bus_program("ubusd"), "-s", BUS_SOCKET])
        wait_until(lambda: os.path.exists(BUS_SOCKET), "the broker's socket")
        return self.bus

    def start_module(self, *options):
        for path in (MODULE_CONTROL, MODULE_SOCKET):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)
        self.module = Module(*options)
        return self.module

    def start_daemon(self, *options, wait=True, clock=False, preload=(), env=None, wrapper=()):
        """Starts korvid.  With clock, its time can be moved with advance()."""
        libraries = [*map(str, preload), *([] if self.router else [str(BUILD / "platform/kernel/libnetlink26.so")])]
        # With its clock moved, a sanitized daemon must not ask for the time from within free(): libfaketime holds its
        # lock there.
        environment = {"KORVID_DPIMOD_SOCKET": MODULE_SOCKET,
                       "ASAN_OPTIONS": ":".join(filter(None, (os.environ.get("ASAN_OPTIONS"),
                                                              "allocator_release_to_os_interval_ms=-1"))),
                       **(env or {})}
        if clock:
            prefix = placed(os.environ["QEMU_LD_PREFIX"]) if EMULATOR else ""
            libraries.append(first_existing(*(f"{prefix}/usr/lib/{machine}-linux-gnu/faketime/libfaketimeMT.so.1"
                                              for machine in ("x86_64", "aarch64"))))
            self.offset = 0
            CLOCK.write_text("+0")
            # The event loop's clock as well: which one a preload moves by itself depends on the processor.
            environment |= {"FAKETIME_TIMESTAMP_FILE": str(CLOCK), "FAKETIME_NO_CACHE": "1",
                            "FAKETIME_DONT_FAKE_MONOTONIC": "0"}
        command = [*EMULATOR, ROUTER_DAEMON if self.router else DAEMON, "-s", BUS_SOCKET, *options]
        # Only the daemon is preloaded, not a program that wraps it.
        self.daemon = Process("korvid", [*wrapper, "/usr/bin/env", "LD_PRELOAD=" + ":".join(libraries), *command],
                              env=environment)
        if wait:
            wait_until(lambda: not self.daemon.running() or self.is_serving(), "the daemon to serve")
            if not self.daemon.running():
                raise RuntimeError(f"korvid ended with {self.daemon.wait()}: {self.daemon.stderr[-2000:]}")
        return self.daemon

    def start(self, *module_options, **daemon_options):
        self.start_bus()
        if not self.router:
            self.start_module(*module_options)
        self.start_daemon(**daemon_options)
        return self

    def restart_daemon(self, *options, **keywords):
        self.daemon.stop()
        return self.start_daemon(*options, **keywords)

    # The bus.

    def ubus(self, *words, timeout=30):
        return subprocess.run([*bus_program("ubus"), "-s", BUS_SOCKET, "-S", "-t", str(timeout), *words],
                              capture_output=True, text=True, check=False)

    def is_serving(self):
        return self.ubus("call", "dpi", "SetavDebugSettings", timeout=1).returncode == 0

    def reply(self, method, arguments=None, timeout=30):
        """The whole reply of a method."""
        done = self.ubus("call", "dpi", method, json.dumps(arguments or {}), timeout=timeout)
        if done.returncode != 0:
            raise RuntimeError(f"ubus call {method}: status {done.returncode} {done.stderr}")
        return json.loads(done.stdout)

    def call(self, method, arguments=None, timeout=30):
        """A call that must succeed."""
        reply = self.reply(method, arguments, timeout)
        if not reply["success"]:
            raise Failure(reply["error"]["errorMessage"])
        return reply["result"]

    def ask(self, method, **arguments):
        """What the read-only object answers; None for a name that it does not know."""
        wait_until(lambda: self.ubus("list", "korvid").returncode == 0, "the object korvid")
        done = self.ubus("call", "korvid", method, json.dumps(arguments))
        if done.returncode not in (0, 4):  # 4: not found
            raise Failure(f"korvid {method} {arguments}: status {done.returncode}")
        return json.loads(done.stdout) if done.returncode == 0 else None

    # Things that tests do all the time.

    def install_kit(self, **kit):
        """Builds a kit and has it installed; returns once the engine is in."""
        make_kit(**kit)
        self.call("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
        self.settle()

    def settle(self):
        """Returns when the daemon has served all that was asked of it before."""
        self.call("SetavDebugSettings", {})

    def enable(self):
        self.call("SETappMonAdminState", {"adminState": "enable"})

    def disable(self):
        self.call("SETappMonAdminState", {"adminState": "disable"})

    def log_level(self, level, **flags):
        self.call("SetavDebugSettings", {"logLevel": level, **flags})

    def dump(self, what="yes"):
        """A debug dump's log lines, without their heads."""
        before = len(text_of(LOG))
        self.call("SetavDebugSettings", {"debugPrintDb": what})
        return re.sub(r"^\S+ \S+ \[\w*\]: ", "", text_of(LOG)[before:], flags=re.M)

    def advance(self, seconds):
        """Moves the daemon's clocks on and has it notice."""
        self.offset += seconds
        temporary = CLOCK.with_suffix(".new")
        temporary.write_text(f"+{self.offset}")
        os.replace(temporary, CLOCK)
        self.settle()
        self.settle()

    def status(self, field):
        """A field of the daemon's /proc status, in kB for sizes."""
        found = re.search(rf"^{field}:\s+(\d+)", text_of(f"/proc/{self.daemon.pid}/status"), re.M)
        return int(found.group(1))
