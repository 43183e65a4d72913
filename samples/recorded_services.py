"""Captures of Debian's own clients and servers."""
import pathlib
import time

from record_captures import CLIENT4, SERVER4, SERVER6, recipe

BOTH = (SERVER4, SERVER6)


def bracketed(address):
    return f"[{address}]" if ":" in address else address


@recipe()
def dns(stage):
    # The long answers are cut by the wire into fragments, both families.
    long_text = [f"--txt-record=long.example.com,{','.join(f'{n:04}' * 50 for n in range(m, m + 9))}" for m in (0, 10)]
    stage.start("dnsmasq", "-k", "--no-resolv", "--no-hosts", "--user=root", "--conf-file=/dev/null", "--pid-file=",
                "--bind-interfaces", f"--listen-address={SERVER4},{SERVER6}", f"--address=/example.com/{SERVER4}",
                "--edns-packet-max=4096", *long_text)
    stage.wait_for("udp", 53)
    with stage.recording():
        for server in BOTH:
            stage.client("dig", f"@{server}", "www.example.com", "A")
            stage.client("dig", f"@{server}", "+tcp", "mail.example.com", "A")
    with stage.recording(name="dns-fragments"):
        for server in BOTH:
            stage.client("dig", f"@{server}", "+bufsize=4096", "+ignore", "long.example.com", "TXT")


@recipe()
def mdns(stage):
    stage.start("dnsmasq", "-k", "--no-resolv", "--no-hosts", "--user=root", "--conf-file=/dev/null", "--pid-file=",
                "--port=5353", "--bind-interfaces", f"--listen-address={SERVER4},{SERVER6}",
                f"--address=/printer.local/{SERVER4}")
    stage.wait_for("udp", 5353)
    with stage.recording():
        for server in BOTH:
            stage.client("dig", f"@{server}", "-p", "5353", "+norecurse", "printer.local", "A")


def ping(stage, *options):
    for server in BOTH:
        stage.client("ping", "-q", "-c", "2", "-i", "0.2", *options, server)


@recipe()
def icmp(stage):
    with stage.recording():
        ping(stage)
        for server in BOTH:  # nobody listens: "port unreachable"
            stage.client("dig", f"@{server}", "-p", "9", "+tries=1", "+time=1", "www.example.com", statuses=(9,))


@recipe()
def icmp_fragments(stage):
    with stage.recording():
        ping(stage, "-s", "3000")


@recipe("traceroute", "traceroute")
def traceroute(stage):
    with stage.recording():
        for server in BOTH:
            stage.client("traceroute", "-n", "-q", "1", "-w", "1", server)


def nginx(stage):
    stage.run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days",
              "30", "-subj", "/CN=www.example.org", "-keyout", "key", "-out", "crt")
    work = stage.work
    stage.file("index.html", "<html><title>A page</title><body>" + "text " * 300 + "</body></html>\n")
    stage.file("nginx.conf", f"""daemon off; user root; pid {work}/pid; error_log stderr; events {{}}
http {{ access_log off; root {work}; client_body_temp_path {work}/b; proxy_temp_path {work}/p;
fastcgi_temp_path {work}/f; uwsgi_temp_path {work}/u; scgi_temp_path {work}/s; default_type text/html;
server {{ listen {SERVER4}:80; listen [{SERVER6}]:80; listen {SERVER4}:8443 ssl http2; listen {SERVER4}:443 ssl;
listen [{SERVER6}]:443 ssl; listen {SERVER4}:8080; ssl_certificate {work}/crt; ssl_certificate_key {work}/key; }} }}
""")
    stage.start("nginx", "-c", f"{work}/nginx.conf", "-e", "stderr")
    stage.wait_for("tcp", 443)


@recipe()
def http(stage):
    nginx(stage)
    with stage.recording():
        for server in BOTH:
            stage.client("curl", "-sS", f"http://{bracketed(server)}/")
        stage.client("curl", "-sS", "-X", "POST", "-d", "name=value", f"http://{SERVER4}:8080/form")
        stage.client("curl", "-sS", "-I", f"http://{SERVER4}/missing")


@recipe()
def tls(stage):
    nginx(stage)
    with stage.recording():
        for server in BOTH:
            stage.client("curl", "-sSk", f"https://{bracketed(server)}/")  # no server name: an address
        stage.client("curl", "-sSk", "--tls-max", "1.2", "--resolve", f"www.example.org:443:{SERVER4}",
                     "https://www.example.org/")
        stage.client("curl", "-sSk", "--http2", "--resolve", f"www.dropbox.com:8443:{SERVER4}",
                     "https://www.dropbox.com:8443/")


@recipe()
def cut(stage):
    """The same traffic as of http and tls, 96 bytes of each packet kept."""
    nginx(stage)
    with stage.recording(snap=96):
        for server in BOTH:
            stage.client("curl", "-sS", f"http://{bracketed(server)}/")
            stage.client("curl", "-sSk", "--resolve", f"www.wikipedia.org:443:{server}", "https://www.wikipedia.org/")
        ping(stage, "-s", "400")


@recipe("microsocks", "microsocks")
def socks(stage):
    nginx(stage)
    stage.start("microsocks", "-i", SERVER4, "-p", "1080")
    stage.wait_for("tcp", 1080)
    with stage.recording():
        stage.client("curl", "-sS", "--socks5", f"{SERVER4}:1080", f"http://{SERVER4}/")


@recipe()
def dtls(stage):
    stage.run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days",
              "30", "-subj", "/CN=www.example.org", "-keyout", "key", "-out", "crt")
    with stage.recording():
        for server in BOTH:
            port = "4433" if server == SERVER4 else "4434"
            stage.start("openssl", "s_server", "-dtls1_2", "-accept", f"{bracketed(server)}:{port}", "-cert", "crt",
                        "-key", "key", "-quiet")
            stage.wait_for("udp", port)
            stage.client("timeout", "1", "sh", "-c", f"(sleep 0.5; echo hello; sleep 2) | openssl s_client -dtls1_2 "
                         f"-connect {bracketed(server)}:{port}", statuses=(0, 124))


@recipe("redis-server", "redis-server redis-cli")
def redis(stage):
    stage.start("redis-server", "--bind", SERVER4, SERVER6, "--port", "6379", "--save", "", "--protected-mode", "no")
    stage.wait_for("tcp", 6379)
    with stage.recording():
        for server in BOTH:
            stage.client("redis-cli", "-h", server, "set", "colour", "blue")
            stage.client("redis-cli", "-h", server, "get", "colour")


@recipe("memcached", "memcached")
def memcached(stage):
    stage.start("memcached", "-u", "nobody", "-l", f"{SERVER4},{SERVER6}", "-p", "11211")
    stage.wait_for("tcp", 11211)
    with stage.recording():
        for server in BOTH:
            with stage.connect(11211, server) as connection:
                for line in (b"set colour 0 0 4\r\nblue\r\n", b"get colour\r\n", b"stats\r\n", b"quit\r\n"):
                    connection.sendall(line)
                    connection.recv(4096)


@recipe("mosquitto mosquitto-clients", "mosquitto mosquitto_pub")
def mqtt(stage):
    stage.start("mosquitto", "-c", stage.file("conf", f"listener 1883 {SERVER4}\nlistener 1883 {SERVER6}\n"
                                                      "allow_anonymous true\nuser root\n"))
    stage.wait_for("tcp", 1883)
    with stage.recording():
        for server in BOTH:
            stage.client("mosquitto_pub", "-h", server, "-q", "1", "-t", "room/light", "-m", "on")


@recipe("postgresql", "postgres initdb psql")
def postgresql(stage):
    data = stage.folder("data", "postgres")
    stage.run("initdb", "-A", "trust", "-N", "-D", data, user="postgres")
    stage.start("postgres", "-D", data, "-c", f"listen_addresses={SERVER4},{SERVER6}", "-c",
                f"unix_socket_directories={data}", "-c", "fsync=off", user="postgres")
    with open(f"{data}/pg_hba.conf", "a", encoding="ascii") as rules:
        rules.write("host all all all trust\n")
    stage.wait_for("tcp", 5432)
    time.sleep(1)  # it takes connections a little later
    with stage.recording():
        for server in BOTH:
            stage.client("psql", "-h", server, "-U", "postgres", "-c", "select count(*) from pg_tables")


@recipe("mariadb-server", "mariadbd mariadb-install-db mariadb")
def mysql(stage):
    data = stage.folder("data", "mysql")
    stage.run("mariadb-install-db", "--no-defaults", "--user=mysql", f"--datadir={data}",
              "--auth-root-authentication-method=normal", "--skip-test-db")
    sql = stage.file("init.sql", "create user visitor@'%';\n")
    stage.start("mariadbd", "--no-defaults", "--user=mysql", f"--datadir={data}", "--bind-address=*",
                f"--socket={data}/s", f"--pid-file={data}/p", f"--init-file={sql}", "--skip-name-resolve")
    stage.wait_for("tcp", 3306)
    with stage.recording():
        for server in BOTH:
            stage.client("mariadb", "--no-defaults", "-h", server, "-u", "visitor", "-e", "select version()")


@recipe("snmpd snmp", "snmpd snmpget snmpwalk")
def snmp(stage):
    conf = stage.file("conf", "rocommunity public\nrocommunity6 public\nsysLocation roof\n")
    stage.start("snmpd", "-f", "-Lo", "-C", "-c", conf, f"udp:{SERVER4}:161", f"udp6:[{SERVER6}]:161")
    stage.wait_for("udp", 161)
    with stage.recording():
        stage.client("snmpget", "-v1", "-c", "public", SERVER4, "1.3.6.1.2.1.1.6.0")
        for server in (SERVER4, f"udp6:[{SERVER6}]"):
            stage.client("snmpwalk", "-v2c", "-c", "public", server, "1.3.6.1.2.1.1")


@recipe("tftpd-hpa tftp-hpa", "in.tftpd")
def tftp(stage):
    folder = stage.folder("files")
    stage.file("files/numbers", "\n".join(map(str, range(400))))
    stage.start("in.tftpd", "-L", "-s", folder, "-a", f"{SERVER4}:69", "-u", "nobody")
    stage.wait_for("udp", 69)
    with stage.recording():
        stage.client("curl", "-sS", f"tftp://{SERVER4}/numbers")


@recipe("slapd ldap-utils", "slapd ldapsearch")
def ldap(stage):
    conf = stage.file("conf", "database monitor\n")
    stage.start("slapd", "-d", "0", "-h", f"ldap://{SERVER4}:389 ldap://[{SERVER6}]:389", "-f", conf)
    stage.wait_for("tcp", 389)
    with stage.recording():
        for server in BOTH:
            stage.client("ldapsearch", "-x", "-H", f"ldap://{bracketed(server)}", "-b", "", "-s", "base", "+")


@recipe("dovecot-imapd dovecot-pop3d", "dovecot")
def mail_reading(stage):
    work = stage.work
    conf = stage.file("conf", f"""base_dir = {work}/run
log_path = {work}/0.log
ssl = no
disable_plaintext_auth = no
protocols = imap pop3
listen = {SERVER4}, {SERVER6}
first_valid_uid = 1
mail_location = maildir:{work}/mail
default_internal_user = nobody
default_login_user = nobody
default_internal_group = nogroup
passdb {{
  driver = static
  args = password=secret
}}
userdb {{
  driver = static
  args = uid=mail gid=mail home={work}/mail
}}
""")
    stage.folder("mail", "mail")
    stage.start("dovecot", "-F", "-c", conf)
    stage.wait_for("tcp", 143)
    with stage.recording(name="imap"):
        for server in BOTH:
            stage.client("curl", "-sS", "-u", "visitor:secret", f"imap://{bracketed(server)}/")
    with stage.recording(name="pop3"):
        for server in BOTH:
            stage.client("curl", "-sS", "-u", "visitor:secret", f"pop3://{bracketed(server)}/")


@recipe("rsync", "rsync")
def rsync(stage):
    stage.file("numbers", "\n".join(map(str, range(300))))
    conf = stage.file("conf", f"[files]\npath = {stage.work}\nuid = root\nuse chroot = no\n")
    for server in BOTH:
        stage.start("rsync", "--daemon", "--no-detach", f"--config={conf}", f"--address={server}", "--port=873")
    stage.wait_for("tcp", 873)
    time.sleep(0.3)
    with stage.recording():
        for server in BOTH:
            stage.client("rsync", f"rsync://{bracketed(server)}/files/numbers", str(stage.work / "copy"))


@recipe("rpcbind", "rpcbind rpcinfo")
def rpc(stage):
    transports = ("udp tpi_clts v inet udp - -", "tcp tpi_cots_ord v inet tcp - -", "udp6 tpi_clts v inet6 udp - -",
                  "tcp6 tpi_cots_ord v inet6 tcp - -", "local tpi_cots_ord - loopback - - -")
    pathlib.Path("/etc/netconfig").write_text("\n".join(transports) + "\n")  # rpcbind and rpcinfo look there only
    stage.start("rpcbind", "-f")
    stage.wait_for("udp", 111)
    with stage.recording():
        stage.client("rpcinfo", "-p", SERVER4)
        for server in BOTH:
            stage.client("rpcinfo", "-T", "udp" if server == SERVER4 else "udp6", server, "100000")
            stage.client("rpcinfo", "-T", "tcp" if server == SERVER4 else "tcp6", server, "100000")


@recipe("samba smbclient", "smbd smbclient")
def smb(stage):
    folders = "".join(f"{key} = {stage.folder(key.replace(' ', '-'))}\n" for key in (
        "lock directory", "state directory", "cache directory", "pid directory", "private dir", "ncalrpc dir"))
    conf = stage.file("conf", f"[global]\nmap to guest = bad user\nsmb ports = 445\nload printers = no\n{folders}"
                              f"[shared]\npath = {stage.work}\nguest ok = yes\n")
    stage.start("smbd", "-F", "--no-process-group", "-s", conf)
    stage.wait_for("tcp", 445)
    with stage.recording():
        for server in BOTH:
            stage.client("smbclient", "-s", conf, "-N", f"//{server}/shared", "-c", "ls")


@recipe("sip-tester", "sipp")
def sip(stage):
    stage.start("sipp", "-sn", "uas", "-i", SERVER4, "-p", "5060", "-nostdin")
    stage.wait_for("udp", 5060)
    with stage.recording():
        stage.client("sipp", "-sn", "uac", "-i", CLIENT4, "-p", "5062", "-m", "1", "-nostdin", f"{SERVER4}:5060")


@recipe("coturn", "turnserver turnutils_stunclient")
def stun(stage):
    stage.start("turnserver", "-n", "-L", SERVER4, "-L", SERVER6, "-S", "--no-cli", "--log-file=stdout",
                "--pidfile", f"{stage.work}/pid")
    stage.wait_for("udp", 3478)
    with stage.recording():
        for server in BOTH:
            stage.client("turnutils_stunclient", server)


@recipe("openvpn", "openvpn")
def openvpn(stage):
    stage.run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30", "-subj", "/CN=vpn", "-keyout",
              "key", "-out", "crt")
    common = ["--dev", "null", "--ca", "crt", "--cert", "crt", "--key", "key", "--verb", "3", "--user", "root"]
    stage.start("openvpn", *common, "--local", SERVER4, "--port", "1194", "--tls-server", "--dh", "none")
    stage.wait_for("udp", 1194)
    with stage.recording():
        stage.client("timeout", "3", "openvpn", *common, "--remote", SERVER4, "1194", "--tls-client", "--nobind",
                     statuses=(0, 1, 124))


@recipe("git", "git git-daemon")
def git(stage):
    repository = stage.folder("repository")
    for words in (["init", "-q"], ["-c", "user.name=a", "-c", "user.email=a@example.org", "commit", "-q",
                                   "--allow-empty", "-m", "first"]):
        stage.run("git", "-C", repository, *words)
    stage.start("git-daemon", "--reuseaddr", "--export-all", f"--base-path={stage.work}", f"--listen={SERVER4}",
                f"--listen={SERVER6}")
    stage.wait_for("tcp", 9418)
    with stage.recording():
        for number, server in enumerate(BOTH):
            stage.client("git", "clone", "-q", f"git://{bracketed(server)}/repository", f"copy{number}")


@recipe("ngircd", "ngircd")
def irc(stage):
    conf = stage.file("conf", f"[Global]\nName = irc.example.org\nListen = {SERVER4},{SERVER6}\nPorts = 6667\n"
                              "ServerUID = nobody\nServerGID = nogroup\n[Options]\nDNS = no\nIdent = no\nPAM = no\n")
    stage.start("ngircd", "-n", "-f", conf)
    stage.wait_for("tcp", 6667)
    with stage.recording():
        for server in BOTH:
            with stage.connect(6667, server) as connection:
                connection.sendall(b"NICK visitor\r\nUSER visitor 0 * :A Visitor\r\n")
                time.sleep(0.3)
                connection.recv(8192)
                connection.sendall(b"JOIN #room\r\n")
                time.sleep(0.2)
                connection.sendall(b"PRIVMSG #room :hello\r\nQUIT :bye\r\n")
                time.sleep(0.2)


@recipe("libcoap3-bin", "coap-server-notls coap-client-notls")
def coap(stage):
    stage.start("coap-server-notls", "-A", SERVER4)
    stage.wait_for("udp", 5683)
    with stage.recording():
        stage.client("coap-client-notls", "-m", "get", f"coap://{SERVER4}/time")
