"""OpenSSH's server, for SFTP with a password."""
import pathlib
import subprocess

from servers import base

CONFIG = """
ListenAddress {address}
Port {port}
HostKey {folder}/host_key
PidFile none
UsePAM yes
PermitRootLogin yes
PasswordAuthentication yes
PubkeyAuthentication no
KbdInteractiveAuthentication no
StrictModes no
UseDNS no
PrintLastLog no
Subsystem sftp internal-sftp
ForceCommand internal-sftp
"""


class Sshd(base.Server):
    """Paths of its URLs are those of the file system, so url() begins with the store."""
    name = "sshd"
    scheme = "sftp"
    program = "/usr/sbin/sshd"

    def configure(self):
        base.account(self.user, self.password)
        base.pam_service("sshd")
        pathlib.Path("/run/sshd").mkdir(mode=0o755, exist_ok=True)
        key = self.directory / "host_key"
        if not key.exists():
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", str(key)], check=True)
        config = self.directory / "sshd_config"
        config.write_text(CONFIG.format(address=base.ADDRESS, port=self.port, folder=self.directory))
        return [self.program, "-D", "-e", "-f", config]

    def url(self, path=""):
        return f"{self.scheme}://{base.ADDRESS}:{self.port}{self.store}/{path}"
