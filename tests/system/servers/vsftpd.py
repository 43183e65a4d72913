"""vsftpd: FTP with user and password."""
from servers import base


class Vsftpd(base.Server):
    name = "vsftpd"
    scheme = "ftp"
    program = "/usr/sbin/vsftpd"

    def __init__(self, directory, rate=0):
        """With a rate, no more bytes a second, either way."""
        super().__init__(directory)
        self.rate = rate

    def configure(self):
        base.account(self.user, self.password)
        base.pam_service("korvid-vsftpd")
        empty = self.directory / "empty"
        empty.mkdir(exist_ok=True)
        settings = {
            "listen": "YES", "listen_address": base.ADDRESS, "listen_port": self.port, "background": "NO",
            "pasv_address": base.ADDRESS, "connect_from_port_20": "NO",
            "anonymous_enable": "NO", "local_enable": "YES", "write_enable": "YES", "local_umask": "022",
            "guest_enable": "YES", "guest_username": "root", "virtual_use_local_privs": "YES",
            "pam_service_name": "korvid-vsftpd", "delay_failed_login": 0, "local_max_rate": self.rate,
            "local_root": self.store, "chroot_local_user": "YES", "allow_writeable_chroot": "YES",
            "secure_chroot_dir": empty,
            # The sandbox is around it already, and its filter does not know current C libraries.
            "seccomp_sandbox": "NO", "isolate": "NO", "isolate_network": "NO",
            "xferlog_enable": "YES", "log_ftp_protocol": "YES", "vsftpd_log_file": self.directory / "log",
        }
        config = self.directory / "vsftpd.conf"
        config.write_text("".join(f"{key}={value}\n" for key, value in settings.items()))
        return [self.program, config]
