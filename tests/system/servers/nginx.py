"""nginx: HTTP or HTTPS with basic authentication; GET, and PUT that creates missing folders."""
import pathlib
import subprocess

from servers import base

BUNDLE = pathlib.Path("/etc/ssl/certs/ca-certificates.crt")  # what libcurl checks certificates with

CONFIG = """
daemon off;
user root;
worker_processes 1;
pid {folder}/pid;
error_log {folder}/log info;
events {{ worker_connections 64; }}
http {{
    access_log {folder}/access;
    client_body_temp_path {folder}/tmp/body;
    proxy_temp_path {folder}/tmp/proxy;
    fastcgi_temp_path {folder}/tmp/fastcgi;
    uwsgi_temp_path {folder}/tmp/uwsgi;
    scgi_temp_path {folder}/tmp/scgi;
    client_max_body_size 0;
    default_type application/octet-stream;
    server {{
        listen {address}:{port}{ssl};
        {certificate}
        root {store};
        auth_basic "records";
        auth_basic_user_file {folder}/users;
        dav_methods PUT DELETE MKCOL;
        create_full_put_path on;
    }}
}}
"""


class Nginx(base.Server):
    name = "nginx"
    program = "/usr/sbin/nginx"

    def __init__(self, directory, tls=False, trusted=True):
        """With tls and trusted, the certificate is among those that this sandbox trusts until stop()."""
        super().__init__(directory)
        self.tls, self.trusted = tls, trusted
        self.scheme = "https" if tls else "http"
        self.certificate = self.directory / "certificate.pem"
        self._mounted = False

    def configure(self):
        (self.directory / "tmp").mkdir(exist_ok=True)
        (self.directory / "users").write_text(f"{self.user}:{{PLAIN}}{self.password}\n")
        if self.tls:
            self._certify()
        certificate = (f"ssl_certificate {self.certificate}; ssl_certificate_key {self.directory}/key.pem;"
                       if self.tls else "")
        config = self.directory / "nginx.conf"
        config.write_text(CONFIG.format(folder=self.directory, store=self.store, address=base.ADDRESS, port=self.port,
                                        ssl=" ssl" if self.tls else "", certificate=certificate))
        return [self.program, "-p", self.directory, "-e", self.directory / "log", "-c", config]

    def _certify(self):
        if not self.certificate.exists():
            subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                            f"/CN={base.ADDRESS}", "-addext", f"subjectAltName=IP:{base.ADDRESS}", "-keyout",
                            str(self.directory / "key.pem"), "-out", str(self.certificate)],
                           check=True, capture_output=True)
        if self.trusted and not self._mounted:
            bundle = self.directory / "bundle.pem"
            bundle.write_bytes(BUNDLE.read_bytes() + self.certificate.read_bytes())
            subprocess.run(["mount", "--bind", str(bundle), str(BUNDLE)], check=True, capture_output=True)
            self._mounted = True

    def stop(self):
        super().stop()
        if self._mounted:
            subprocess.run(["umount", str(BUNDLE)], check=True)
            self._mounted = False
