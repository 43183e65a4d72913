"""A router laboratory: client -- router -- server, each in a network namespace; the kernel does the forwarding.

    with Lab(nat="source") as lab:
        lab.rules("table inet korvid { ... }")
        lab.serve("http", "tls", "dns", "ssh")
        lab.client.run("curl", "-s", lab.url("http", 4))

Runs inside tools/sandbox, whose network is the router: whatever a test starts without further ado runs there, and the
machine's own network is not seen from it.  As root and as an ordinary user, who is root inside.
"""
import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

from world import PATIENCE, TREE, wait_until

# Reserved for documentation (RFC 5737, RFC 3849).
CLIENT = {4: "192.0.2.11", 6: "2001:db8:1::11"}
INSIDE = {4: "192.0.2.1", 6: "2001:db8:1::1"}
OUTSIDE = {4: "198.51.100.254", 6: "2001:db8:2::254"}
SERVER = {4: "198.51.100.1", 6: "2001:db8:2::1"}
BESIDE = {4: "192.0.2.12", 6: "2001:db8:1::12"}  # the server where the router is a bridge
PREFIX = {4: 24, 6: 64}
MACHINE = pathlib.Path("/run/machine-network")  # the first namespace of the network, in tools/vm's machine
PORTS = {"http": 80, "tls": 443, "dns": 53, "ssh": 22}
SETTINGS = {"net/ipv4/ip_forward": 1, "net/ipv6/conf/all/forwarding": 1, "net/netfilter/nf_conntrack_acct": 1,
            "net/netfilter/nf_conntrack_timestamp": 1, "net/netfilter/nf_conntrack_events": 1}

# Packets of connections that have no verdict yet, their first ones only, at the hook of the chain it stands in.
MIRROR = """tcp flags & (fin | syn | rst | psh) == 0x0 meta length < 73 return
ct mark & 0x20000 == 0 ct packets < 33 log group 26 snaplen 4072"""

SOURCE_NAT = """chain postrouting { type nat hook postrouting priority srcnat;
oifname "outside" masquerade
}
"""
# Clients call the router's own address, as they would a published service.
DESTINATION_NAT = f"""chain prerouting {{ type nat hook prerouting priority dstnat;
iifname "inside" ip daddr {INSIDE[4]} meta l4proto {{ tcp, udp, icmp }} dnat ip to {SERVER[4]}
iifname "inside" ip6 daddr {INSIDE[6]} meta l4proto {{ tcp, udp, icmpv6 }} dnat ip6 to {SERVER[6]}
}}
"""
TRANSLATIONS = {"none": "", "source": SOURCE_NAT, "destination": DESTINATION_NAT, "both": SOURCE_NAT + DESTINATION_NAT}

NGINX = """daemon off; master_process off; user root; pid {work}/pid; error_log stderr; events {{ }}
http {{ access_log off; root {work}/www; client_body_temp_path {work}/b; proxy_temp_path {work}/p;
fastcgi_temp_path {work}/f; uwsgi_temp_path {work}/u; scgi_temp_path {work}/s; default_type text/plain; sendfile on;
server {{ listen {v4}:80; listen [{v6}]:80; listen {v4}:443 ssl http2; listen [{v6}]:443 ssl http2;
location /limited/ {{ limit_rate 4m; }}
ssl_certificate {work}/crt; ssl_certificate_key {work}/key; }} }}
"""
SSHD = """ListenAddress {v4}\nListenAddress {v6}\nHostKey {work}/host_key\nAuthorizedKeysFile {work}/id.pub
StrictModes no\nUsePAM no\nPidFile none\nPermitRootLogin prohibit-password\n"""


def bracketed(address):
    return f"[{address}]" if ":" in address else address


class Host:
    """A network namespace and what runs in it."""

    def __init__(self, enter=()):
        self.enter = tuple(enter)
        self.children = []

    def run(self, *command, check=True, seconds=max(30, PATIENCE), **options):
        """The command's output; with check=False the finished process itself."""
        done = subprocess.run([*self.enter, *map(str, command)], capture_output=True, text=True, timeout=seconds,
                              check=False, **{"stdin": subprocess.DEVNULL, **options})
        if not check:
            return done
        if done.returncode:
            raise RuntimeError(f"{' '.join(map(str, command))}: status {done.returncode}: {done.stderr[-800:]}")
        return done.stdout

    def start(self, *command, **options):
        """A process that ends with the laboratory."""
        child = subprocess.Popen([*self.enter, *map(str, command)],
                                 **{"stdin": subprocess.DEVNULL, "start_new_session": True, **options})
        self.children.append(child)
        return child

    def stop(self):
        for child in reversed(self.children):
            with contextlib.suppress(ProcessLookupError):
                os.killpg(child.pid, signal.SIGKILL)
            child.wait()
            for stream in filter(None, (child.stdin, child.stdout)):
                stream.close()
        self.children.clear()


class Lab:
    """nat: what the router translates: none, source, destination or both.  bridged: the router joins both links in one
    network, and packets pass it as a bridge's."""

    def __init__(self, nat="none", bridged=False):
        # Before there is anything to clean up: that would be the machine's rules and connections.
        if not TREE.is_symlink():
            raise RuntimeError("not in tools/sandbox: this network is the machine's")
        self.nat = nat
        self.bridge = "lan" if bridged else None
        self.server_at = BESIDE if bridged else SERVER
        self.router = Host()
        self.hosts = [self.router]
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="lab"))
        self.work.chmod(0o755)

    def __enter__(self):
        try:
            self.need("ct mark 1 log group 26")  # has modules loaded, too, where that is possible
            for name, value in SETTINGS.items():
                pathlib.Path("/proc/sys", name).write_text(f"{value}\n")
            if self.bridge:
                self.router.run("ip", "link", "add", self.bridge, "type", "bridge", "forward_delay", 0)
                self._address(self.router, self.bridge, INSIDE)
            self.client = self._neighbour("inside", CLIENT, INSIDE)
            self.server = self._neighbour("outside", self.server_at, INSIDE if self.bridge else OUTSIDE)
            if TRANSLATIONS[self.nat]:
                self.rules(f"table inet laboratory {{ {TRANSLATIONS[self.nat]} }}")
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for host in reversed(self.hosts):
            host.stop()
        for link in ("inside", "outside", "lan"):
            self.router.run("ip", "link", "del", link, check=False)
        self.router.run("nft", "flush", "ruleset", check=False)
        self.router.run("conntrack", "-F", check=False)
        shutil.rmtree(self.work, ignore_errors=True)

    def _neighbour(self, link, own, router):
        """A host behind a link of the router's."""
        holder = subprocess.Popen(["unshare", "--net", "sh", "-c", "echo; exec sleep infinity"], stdout=subprocess.PIPE,
                                  stdin=subprocess.DEVNULL, start_new_session=True)
        holder.stdout.readline()
        host = Host(["nsenter", f"--net=/proc/{holder.pid}/ns/net"])
        host.children.append(holder)
        self.hosts.append(host)
        self.router.run("ip", "link", "add", link, "type", "veth", "peer", "name", "eth0", "netns", holder.pid)
        if self.bridge:
            self.router.run("ip", "link", "set", link, "master", self.bridge)
        self._address(self.router, link, {} if self.bridge else router)
        self._address(host, "eth0", own)
        host.run("ip", "link", "set", "lo", "up")
        for version, address in router.items():
            host.run("ip", f"-{version}", "route", "add", "default", "via", address)
        wait_until(lambda: "tentative" not in host.run("ip", "addr") + self.router.run("ip", "addr"), "addresses")
        return host

    @staticmethod
    def _address(host, device, addresses):
        for version, address in addresses.items():
            host.run("ip", "addr", "add", f"{address}/{PREFIX[version]}", "dev", device,
                     *(["nodad"] if version == 6 else []))
        # Addresses are used at once: the kernel would take two seconds to find that nobody else has them.
        host.run("sysctl", "-qw", f"net.ipv6.conf.{device}.accept_dad=0")
        host.run("ip", "link", "set", device, "up")

    # The router.

    def need(self, rule, family="inet", declared=""):
        """Skips the test where the kernel lacks what a rule at the forward hook takes, with what it wants declared."""
        chain = f"{declared}\nchain probe {{ type filter hook forward priority 0; {rule}\n}}"
        text = f"table {family} probe {{ {chain}\n}}\ndelete table {family} probe"
        done = self.router.run("nft", "-f", "-", input=text, stdin=None, check=False)
        if any(text in done.stderr for text in ("No such file", "not supported", "Protocol error")):
            raise unittest.SkipTest(f"this kernel does not take \"{rule}\" in a table of {family}")
        if done.returncode:
            raise RuntimeError(done.stderr)

    @contextlib.contextmanager
    def kernel_set(self, **settings):
        """Values of net.netfilter that hold for every network, so that only the machine's first one can set them."""
        if not MACHINE.exists():
            raise unittest.SkipTest(f"{', '.join(settings)}: the machine's own, as in ./dev vm")
        machine = Host(["nsenter", f"--net={MACHINE}"])

        def put(values):
            machine.run("sysctl", "-qw", *(f"net.netfilter.{name}={value}" for name, value in values.items()))
        before = {name: machine.run("sysctl", "-n", f"net.netfilter.{name}").strip() for name in settings}
        put(settings)
        try:
            yield
        finally:
            put(before)

    def rules(self, text):
        """Loads nftables rules."""
        self.router.run("nft", "-f", "-", input=text, stdin=None)

    def counted(self, counter, table="inet korvid"):
        """The packets of a named counter."""
        text = self.router.run("nft", "list", "counter", *table.split(), counter)
        return int(re.search(r"packets (\d+)", text)[1])

    def connections(self, *options):
        """The router's table of connections of both families, as conntrack(8) prints it."""
        return [line for family in ("ipv4", "ipv6")
                for line in self.router.run("conntrack", "-L", "-f", family, *options).splitlines() if line]

    def end_connections(self, *options):
        """Ends the tracking of all connections, or of those that the options choose."""
        for family in ("ipv4", "ipv6"):
            self.router.run("conntrack", "-D", "-f", family, *options, check=False)

    # Servers and what clients call them.

    def target(self, version):
        """The address at which a client finds the server."""
        return (INSIDE if self.nat in ("destination", "both") else self.server_at)[version]

    def url(self, service, version, path=""):
        return f"{'https' if service == 'tls' else 'http'}://{bracketed(self.target(version))}/{path}"

    def serve(self, *services):
        starters = {"http": self._nginx, "tls": self._nginx, "dns": self._dnsmasq, "ssh": self._sshd}
        for starter in dict.fromkeys(starters[service] for service in services):
            starter()
        for service in services:
            kind = "-u" if service == "dns" else "-t"
            try:
                wait_until(lambda: self.server.run("ss", "-Hnl", kind, "sport", "=", f":{PORTS[service]}").strip(),
                           f"the {service} server")
            except TimeoutError as error:
                raise TimeoutError(f"{error}\n{self.logs()}") from None

    def logs(self):
        return "".join(f"--- {path.name}\n{path.read_text(errors='replace')[-800:]}"
                       for path in sorted(self.work.glob("*.log")))

    def file(self, name, size):
        """A file of the web server, and its size; below limited/ it comes at 4 MB a second."""
        path = self.work / "www" / name
        path.parent.mkdir(exist_ok=True)
        with open(path, "wb") as file:
            file.truncate(size)
        return size

    def ssh(self, version, command, check=True):
        return self.client.run("ssh", "-F", "none", "-i", self.work / "id", "-o", "StrictHostKeyChecking=no", "-o",
                               "UserKnownHostsFile=/dev/null", "-o", "BatchMode=yes", f"root@{self.target(version)}",
                               command, check=check)

    def _start_server(self, *command):
        with open(self.work / f"{pathlib.Path(command[0]).name}.log", "wb") as log:
            self.server.start(*command, stdout=log, stderr=log)

    def _config(self, name, text):
        path = self.work / name
        path.write_text(text.format(work=self.work, v4=self.server_at[4], v6=self.server_at[6]))
        return path

    def _nginx(self):
        self.file("index.html", 1000)
        self.server.run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                        "-nodes", "-subj", "/CN=www.example.org", "-keyout", self.work / "key", "-out", self.work / "crt")
        self._start_server("nginx", "-c", self._config("nginx.conf", NGINX), "-e", "stderr")

    def _dnsmasq(self):
        self._start_server("dnsmasq", "-k", "--no-resolv", "--no-hosts", "--user=", "--group=",
                           "--conf-file=/dev/null", "--pid-file=", "--bind-interfaces",
                           f"--listen-address={self.server_at[4]},{self.server_at[6]}",
                           f"--address=/example.com/{SERVER[4]}")

    def _sshd(self):
        # It gives up rights for a user of its own.
        if "0          0 4294967295" not in pathlib.Path("/proc/self/uid_map").read_text():
            raise unittest.SkipTest("sshd needs a laboratory that was started by root")
        pathlib.Path("/run/sshd").mkdir(mode=0o755, exist_ok=True)
        pathlib.Path("/etc/shadow").write_text("root:*:20000::::::\n")  # the sandbox's own; else root counts as locked
        for name in ("host_key", "id"):
            (self.work / name).unlink(missing_ok=True)
            self.server.run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.work / name)
        self._start_server("/usr/sbin/sshd", "-D", "-e", "-f", self._config("sshd_config", SSHD))
