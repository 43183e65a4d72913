"""File servers for the system tests: real ones, with their own configuration and data, and a hostile one.

They run inside tools/sandbox on its loopback interface.  Each has

    start(), stop()      also as a context manager
    url(path="")         of a directory or file on it
    store                the folder that the URL names, a pathlib.Path
    user, password       what it lets in

The real ones change their identity and need users other than root: an ordinary user's sandbox has none, and
start() then raises unittest.SkipTest.
"""
from servers.hostile import Hostile
from servers.nginx import Nginx
from servers.sshd import Sshd
from servers.vsftpd import Vsftpd

__all__ = ["Hostile", "Nginx", "Sshd", "Vsftpd"]
