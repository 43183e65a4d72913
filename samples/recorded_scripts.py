"""Captures of real clients with scripted servers, and of small exchanges where neither side is packed lightly."""
import socket
import struct
import time

from record_captures import CLIENT4, SERVER4, SERVER6, recipe

BOTH = (SERVER4, SERVER6)


@recipe()
def syslog(stage):
    """RFC 3164 and RFC 5424 messages of logger(1)."""
    stage.serve_udp(514, lambda _: None)
    stage.serve_tcp(601, lambda connection: connection.recv(4096))
    with stage.recording():
        for server in BOTH:
            stage.client("logger", "-n", server, "-P", "514", "-d", "--rfc3164", "link 3 is down")
            stage.client("logger", "-n", server, "-P", "514", "-d", "--rfc5424", "link 3 is up")
        stage.client("logger", "-n", SERVER4, "-P", "601", "-T", "link 4 is down")


@recipe("telnet", "telnet")
def telnet(stage):
    """RFC 854: the server negotiates, asks for a name and says goodbye."""
    def talk(connection):
        connection.sendall(b"\xff\xfd\x18\xff\xfd\x20\xff\xfd\x23\xff\xfd\x27")  # DO terminal type, speed, ...
        time.sleep(0.2)
        connection.recv(512)
        connection.sendall(b"\xff\xfb\x03\xff\xfd\x01\xff\xfb\x05switch login: ")
        time.sleep(0.2)
        connection.recv(512)
        connection.sendall(b"\r\nLogin timed out\r\n")

    stage.serve_tcp(23, talk)
    with stage.recording():
        for server in BOTH:
            stage.client("sh", "-c", f"(sleep 1) | telnet {server}", statuses=(0, 1))


@recipe()
def smtp(stage):
    """RFC 5321, as far as one message goes."""
    def talk(connection):
        lines = connection.makefile("rb")
        connection.sendall(b"220 mail.example.org ESMTP\r\n")
        while line := lines.readline():
            verb = line[:4].upper()
            if verb == b"EHLO":
                connection.sendall(b"250-mail.example.org\r\n250-SIZE 1000000\r\n250 8BITMIME\r\n")
            elif verb == b"DATA":
                connection.sendall(b"354 go on\r\n")
                while lines.readline() not in (b".\r\n", b""):
                    pass
                connection.sendall(b"250 taken\r\n")
            elif verb == b"QUIT":
                connection.sendall(b"221 bye\r\n")
                return
            else:
                connection.sendall(b"250 ok\r\n")

    stage.serve_tcp(25, talk)
    mail = stage.file("mail", "Subject: a report\r\n\r\nAll is well.\r\n")
    with stage.recording():
        for server in BOTH:
            host = f"[{server}]" if ":" in server else server
            stage.client("curl", "-sS", f"smtp://{host}/client.example.org", "--mail-from", "a@example.org",
                         "--mail-rcpt", "b@example.org", "-T", mail)


@recipe()
def rtsp(stage):
    """RFC 2326: OPTIONS and DESCRIBE."""
    def talk(connection):
        while request := connection.recv(4096):
            number = request.split(b"CSeq: ")[-1].split(b"\r\n")[0]
            body = b"v=0\r\nm=video 0 RTP/AVP 96\r\n" if request.startswith(b"DESCRIBE") else b""
            connection.sendall(b"RTSP/1.0 200 OK\r\nCSeq: " + number + b"\r\nPublic: OPTIONS, DESCRIBE, PLAY\r\n"
                               b"Content-Length: %d\r\n\r\n" % len(body) + body)

    stage.serve_tcp(554, talk)
    with stage.recording():
        for server in BOTH:
            with stage.connect(554, server) as connection:
                for number, method in enumerate((b"OPTIONS", b"DESCRIBE"), 1):
                    connection.sendall(method + b" rtsp://camera.example.org/1 RTSP/1.0\r\nCSeq: %d\r\n"
                                       b"User-Agent: viewer\r\n\r\n" % number)
                    connection.recv(4096)


@recipe("whois", "whois")
def whois(stage):
    def talk(connection):
        connection.recv(512)
        connection.sendall(b"domain: example.org\r\nstatus: reserved\r\n")

    stage.serve_tcp(43, talk)
    with stage.recording():
        for server in BOTH:
            stage.client("whois", "-h", server, "example.org")


@recipe("freeradius-utils", "radclient")
def radius(stage):
    """RFC 2865: every request is refused.  Whether the answer is signed rightly does not matter to a listener."""
    stage.serve_udp(1812, lambda request: b"\x03" + request[1:2] + struct.pack(">H", 20) + bytes(16))
    with stage.recording():
        stage.client("sh", "-c", f"echo 'User-Name=visitor,User-Password=secret' | radclient -D /usr/share/freeradius "
                     f"-r 1 -t 1 {SERVER4} auth testing123", statuses=(0, 1))


@recipe("amqp-tools", "amqp-publish")
def amqp(stage):
    """AMQP 0-9-1 up to the point where a message is published."""
    def method(channel, number, arguments=b""):
        payload = struct.pack(">HH", *number) + arguments
        return b"\x01" + struct.pack(">HI", channel, len(payload)) + payload + b"\xce"

    def talk(connection):
        connection.recv(8)
        mechanisms, locales = b"PLAIN", b"en_US"
        connection.sendall(method(0, (10, 10), b"\0\x09" + bytes(4) + struct.pack(">I", len(mechanisms)) + mechanisms +
                                  struct.pack(">I", len(locales)) + locales))
        connection.recv(4096)  # start-ok
        connection.sendall(method(0, (10, 30), struct.pack(">HIH", 100, 131072, 0)))
        connection.recv(4096)  # tune-ok, and open perhaps
        time.sleep(0.1)
        connection.sendall(method(0, (10, 41), b"\0"))
        connection.recv(4096)
        connection.sendall(method(1, (20, 11), bytes(4)))
        time.sleep(0.2)
        connection.recv(4096)
        connection.sendall(method(1, (20, 41)))
        connection.recv(4096)
        connection.sendall(method(0, (10, 51)))

    stage.serve_tcp(5672, talk)
    with stage.recording():
        stage.client("amqp-publish", f"--url=amqp://guest:guest@{SERVER4}/", "-r", "queue", "-b", "hello",
                     statuses=(0, 1))


@recipe()
def bittorrent(stage):
    """The handshake and first messages of two peers (BEP 3), a ping of the distributed table (BEP 5), something else."""
    handshake = b"\x13BitTorrent protocol" + bytes(8) + b"abcdefghijklmnopqrst"

    def talk(connection):
        connection.recv(68)
        connection.sendall(handshake + b"-XX0001-server000000" + b"\0\0\0\x05\x05\xff\xff\xff\xff")
        connection.recv(64)
        connection.sendall(b"\0\0\0\x01\x01")

    stage.serve_tcp(6881, talk)
    stage.serve_tcp(40000, lambda connection: connection.sendall(connection.recv(64)[::-1]))
    stage.serve_udp(6881, lambda _: b"d1:rd2:id20:mnopqrstuvwxyz123456e1:t2:aa1:y1:re")
    with stage.recording():
        for server in BOTH:
            with stage.connect(6881, server) as connection:
                connection.sendall(handshake + b"-XX0001-client000000")
                connection.recv(256)
                connection.sendall(b"\0\0\0\x01\x02")
                connection.recv(64)
            stage.datagrams(6881, b"d1:ad2:id20:abcdefghij0123456789e1:q4:ping1:t2:aa1:y1:qe", address=server)
            with stage.connect(40000, server) as connection:  # the same hosts, something else
                connection.sendall(b"\x90\x91\x92\x93")
                connection.recv(64)


@recipe()
def dhcp(stage):
    """RFC 2131: a lease by way of a relay, as both sides of it have port 67."""
    def message(kind, operation):
        head = struct.pack(">BBBBIHH", operation, 1, 6, 1, 0x1234, 0, 0) + bytes(4) + \
            socket.inet_aton("192.0.2.99") + socket.inet_aton(SERVER4) + socket.inet_aton(CLIENT4) + \
            bytes.fromhex("020000000001") + bytes(10) + bytes(64 + 128)
        return head + b"\x63\x82\x53\x63\x35\x01" + bytes([kind]) + b"\x0c\x06switch\xff" + bytes(40)

    stage.serve_udp(67, lambda request: message({1: 2, 3: 5}[request[242]], 2))
    with stage.recording():
        stage.datagrams(67, message(1, 1), message(3, 1), source=67)
        stage.datagrams(67, message(1, 1), message(3, 1), source=68)


@recipe()
def dhcp6(stage):
    """RFC 8415: solicit and advertise."""
    stage.serve_udp(547, lambda request: b"\x02" + request[1:])
    with stage.recording():
        stage.datagrams(547, b"\x01\x12\x34\x56\0\x01\0\x0a\0\x03\0\x01\2\0\0\0\0\1\0\x08\0\2\0\0", address=SERVER6,
                        source=546)


@recipe()
def ssdp(stage):
    answer = (b"HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=60\r\nST: upnp:rootdevice\r\n"
              b"LOCATION: http://198.51.100.1/d.xml\r\nUSN: uuid:1::upnp:rootdevice\r\n\r\n")
    stage.serve_udp(1900, lambda _: answer)
    with stage.recording():
        stage.datagrams(1900, b"M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n"
                        b"MX: 1\r\nST: upnp:rootdevice\r\n\r\n")


@recipe()
def unknown(stage):
    """What nobody can recognise: numbers of no protocol, on ports of none and on ports of well-known ones."""
    def talk(connection):
        while data := connection.recv(512):
            connection.sendall(bytes(byte ^ 0x5A for byte in data))

    for port in (443, 40000):
        stage.serve_tcp(port, talk)
        stage.serve_udp(port, lambda data: bytes(byte ^ 0x5A for byte in data))
    noise = [bytes((n * n * 7 + round_ * 31 + 0x80) & 0xFF for n in range(20)) for round_ in range(25)]
    with stage.recording():
        for port in (443, 40000):
            for server in BOTH:
                with stage.connect(port, server) as connection:
                    for data in noise:
                        connection.sendall(data)
                        connection.recv(512)
                stage.datagrams(port, *noise, address=server)


@recipe()
def silent(stage):
    """Connections that say nothing: refused, unanswered, closed at once."""
    stage.serve_tcp(22, lambda connection: None)
    with stage.recording():
        for server in BOTH:
            for port in (22, 80, 5432):
                try:
                    stage.connect(port, server).close()
                except OSError:
                    pass  # refused, which is the point
            stage.datagrams(53, b"", address=server, answers=False)


@recipe()
def late(stage):
    """A request that comes after more packets than an engine looks at, and ports that are used again."""
    def talk(connection):
        while data := connection.recv(4096):
            if data.startswith(b"GET"):
                connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello")
            else:
                connection.sendall(b"\x80\x81\x82\x83")

    stage.serve_tcp(8888, talk)
    request = b"GET / HTTP/1.1\r\nHost: www.example.org\r\nUser-Agent: late\r\n\r\n"
    with stage.recording():
        with stage.connect(8888) as connection:
            for _ in range(12):
                connection.sendall(b"\x90\x91\x92\x93\x94")
                connection.recv(512)
            connection.sendall(request)
            connection.recv(512)
        for data in (request, b"\x90\x91\x92\x93\x94"):
            with socket.socket() as again:
                again.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                again.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))  # no TIME-WAIT
                again.bind((CLIENT4, 41000))
                again.connect((SERVER4, 8888))
                again.sendall(data)
                again.recv(512)
