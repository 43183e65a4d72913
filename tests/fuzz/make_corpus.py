#!/usr/bin/env python3
"""Writes the hand-made part of the corpora: messages of the formats that the targets read, good ones and broken ones.

Inputs that the fuzzer found stand beside them under the name of their content; this script leaves those alone.
"""

import json
import pathlib
import struct

HERE = pathlib.Path(__file__).parent / "corpus"


def save(target, **inputs):
    folder = HERE / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, content in inputs.items():
        (folder / name).write_bytes(content)


def padded(content):
    return content + bytes(-len(content) % 4)


# ---- netlink


def attribute(number, payload):
    return padded(struct.pack("=HH", 4 + len(payload), number) + payload)


def message(kind, *attributes, family=2, flags=0, portid=0):
    body = bytes([family, 0, 0, 0]) + b"".join(attributes)
    return struct.pack("=IHHII", 16 + len(body), kind, flags, 0, portid) + body


def u8(number, value):
    return attribute(number, struct.pack("=B", value))


def u16(number, value):
    return attribute(number, struct.pack("=H", value))


def u32(number, value):
    return attribute(number, struct.pack("=I", value))


def port(number, value):
    return attribute(number, struct.pack(">H", value))


# ---- packets


def ipv4(payload, proto, options=b"", fragment=0):
    header = 20 + len(options)
    return struct.pack(">BBHHHBBH4s4s", 0x40 | header // 4, 0, header + len(payload), 1, fragment, 64, proto, 0,
                       bytes([10, 0, 0, 1]), bytes([10, 0, 0, 2])) + options + payload


def ipv6(payload, following):
    address = bytes([0xFD]) + bytes(14)
    return struct.pack(">IHBB", 6 << 28, len(payload), following, 64) + address + b"\1" + address + b"\2" + payload


def tcp(payload=b"", flags=0x18, source=40000, destination=443):
    return struct.pack(">HHIIBBHHH", source, destination, 1, 1, 0x50, flags, 1024, 0, 0) + payload


def udp(payload=b"", source=40000, destination=53):
    return struct.pack(">HHHH", source, destination, 8 + len(payload), 0) + payload


DNS = bytes.fromhex("123401000001000000000000") + b"\7example\3com\0\0\1\0\1"
HELLO = b"GET / HTTP/1.1\r\nHost: example.com\r\nUser-Agent: x\r\n\r\n"
PACKETS = {
    "tcp4": ipv4(tcp(HELLO, destination=80), 6),
    "tcp4_options": ipv4(tcp(), 6, options=bytes([1] * 8)),
    "udp4": ipv4(udp(DNS), 17),
    "icmp4": ipv4(b"\x08\0\0\0\0\1\0\1", 1),
    "fragment4": ipv4(udp(), 17, fragment=0x00B9),
    "tcp6": ipv6(tcp(HELLO, flags=2, destination=80), 6),
    "udp6": ipv6(udp(DNS), 17),
    "extensions6": ipv6(b"\x2b\0\1\4\0\0\0\0" + b"\x2c\0\0\0\0\0\0\0" + b"\x11\0\0\0\0\0\0\1" + udp(), 0),
    "ah6": ipv6(b"\x06\4" + bytes(22) + tcp(), 51),
    "cut4": ipv4(tcp(), 6)[:21],
    "cut6": ipv6(tcp(), 6)[:39],
    "other_version": b"\x00" + ipv4(tcp(), 6)[1:],
    "short_header": b"\x41" + ipv4(tcp(), 6)[1:],
}


def packet_messages():
    save("packet_message",
         **{name: message(23, attribute(1, packet)) for name, packet in PACKETS.items()},
         no_attribute=message(23),
         empty_packet=message(23, attribute(1, b"")),
         wrong_attribute=message(23, attribute(2, PACKETS["tcp4"])),
         packet_then_wrong=message(23, attribute(1, PACKETS["udp4"]), attribute(7, b"x")),
         two_messages=message(23, attribute(1, PACKETS["udp4"])) + message(200, attribute(1, PACKETS["tcp6"])),
         cut_message=message(23, attribute(1, PACKETS["tcp4"]))[:-3],
         control=message(1) + message(4) + message(3),
         error_zero=struct.pack("=IHHIIi", 36, 2, 0, 0, 0, 0) + bytes(16),
         error=struct.pack("=IHHIIi", 36, 2, 0, 0, 0, -22) + bytes(16),
         foreign_portid=message(23, attribute(1, b"E"), portid=77),
         interrupted_dump=message(23, attribute(1, b"E"), flags=0x10),
         length_of_four=struct.pack("=IHHII", 4, 23, 0, 0, 0))


# ---- statistics

FIRST4, SECOND4 = bytes([10, 0, 0, 1]), bytes([10, 0, 0, 2])
FIRST6, SECOND6 = bytes([0xFD]) + bytes(14) + b"\1", bytes([0xFD]) + bytes(14) + b"\2"


def flow(v6=False, names=(), aged=1, without=0):
    parts = {1: u8(1, 82 if v6 else 81), 6: u8(6, 6), 7: port(7, 40000), 8: port(8, 443), 9: u8(9, aged),
             10: u32(10, 123456), 11: u32(11, 78)}
    if v6:
        parts |= {3: attribute(3, FIRST6), 5: attribute(5, SECOND6)}
    else:
        parts |= {2: attribute(2, FIRST4), 4: attribute(4, SECOND4)}
    for number, name in names:
        parts[number] = attribute(number, name)
    parts.pop(without, None)
    return [parts[number] for number in sorted(parts)]


def report(*nested):
    body = b"".join(nested)
    return padded(struct.pack("=HH", 4 + len(body), 2 | 0x8000) + body)


def reports():
    names = ((12, b"guests"), (13, b"n" * 40))
    one4, one6 = report(*flow()), report(*flow(v6=True))
    unknown = report(*flow()[:-3], u8(9, 0), u32(10, 1), u32(11, 1)).replace(FIRST4, b"\xC0\0\2\1")
    inputs = {
        "v4": message(24, u16(1, 1), one4),
        "v6": message(24, u16(1, 1), one6),
        "named": message(24, u16(1, 2), report(*flow(names=names)), report(*flow(v6=True, names=names))),
        "unterminated_names": message(24, u16(1, 1), report(*flow(names=((12, b"x" * 31), (13, b"y" * 32))))),
        "unknown_flow": message(24, u16(1, 1), unknown),
        "many": message(24, u16(1, 12), *[one4] * 6, *[one6] * 6),
        "count_too_high": message(24, u16(1, 3), one4),
        "count_after": message(24, one4, u16(1, 0)),
        "count_of_three_bytes": message(24, attribute(1, b"123"), one4),
        "short_addresses": message(24, u16(1, 1), report(*flow(v6=True), attribute(3, b"\xFD"), attribute(5, b"12345"))),
        "short_counters": message(24, u16(1, 1), report(*flow(without=10), attribute(10, b"1"))),
        "no_counters": message(24, u16(1, 1), report(*flow(without=11))),
        "no_type": message(24, u16(1, 1), report(*flow(without=1))),
        "other_type": message(24, u16(1, 1), report(u8(1, 5), *flow(without=1))),
        "bad_port": message(24, u16(1, 1), report(*flow(without=7), attribute(7, b"1"))),
        "empty_name": message(24, u16(1, 1), report(*flow(names=((12, b""),)))),
        "empty_report": message(24, u16(1, 1), report()),
        "nested_cut": message(24, u16(1, 1), report(*flow())[:-8]),
        "high_numbers": message(24, u16(1, 1), u8(14, 1), u8(0, 1), report(*flow(), u8(14, 1), u8(0, 1))),
        "two_messages": message(24, u16(1, 1), one4) + message(200, u16(1, 1), one6),
    }
    save("stats_report", **{name: b"\0" + content for name, content in inputs.items()},
         full_queues=bytes([200]) + inputs["many"], nearly_full=bytes([199]) + inputs["many"])


# ---- bus

ARRAY, TABLE, STRING, INT64, INT32, INT16, BOOL, DOUBLE = range(1, 9)


def blob(number, payload, extended=False):
    return padded(struct.pack(">I", extended << 31 | number << 24 | 4 + len(payload)) + payload)


def member(name, value):
    """A blobmsg attribute; numbers are tuples of a type and its bytes."""
    if isinstance(value, str):
        kind, payload = STRING, value.encode() + b"\0"
    elif isinstance(value, dict):
        kind, payload = TABLE, table(value)
    elif isinstance(value, list):
        kind, payload = ARRAY, b"".join(member("", each) for each in value)
    else:
        kind, payload = value
    return blob(kind, padded(struct.pack(">H", len(name)) + name.encode() + b"\0") + payload, extended=True)


def table(values):
    return b"".join(member(name, value) for name, value in values.items())


METHODS = ["CREATEavSignatureProfile", "SETappMonClearConfig", "SETappMonUpdateSignatureFile", "CREATEavAppGroup",
           "CREATEavAppMonAppList", "CREATEavDpiAppList", "SETappMonActivateAppList", "SETappMonAdminState",
           "SETavAppGroup", "DELETEavAppGroup", "SETavAppMonAppList", "SETavDpiAppList", "GETavDpiStats",
           "GETavAppMonStats", "SetavDebugSettings"]


def calls():
    number = (INT32, struct.pack(">i", -5))
    apps = [{"appName": "HTTP", "appId": "1"}, {"appName": "DNS"}]
    groups = {"office": [{"appName": "Mail", "appId": "3"}, {"appName": "HTTP"}], "empty": []}
    login = {"username": "u", "password": "secret", "filePath": "ftp://127.0.0.1/in"}
    everything = {
        "appMonAdminState": ("SETappMonAdminState", {"adminState": "enable"}),
        "disable": ("SETappMonAdminState", {"adminState": "disable"}),
        "state_number": ("SETappMonAdminState", {"adminState": number}),
        "state_twice": ("SETappMonAdminState", {"adminState": "enable", "adminstate": "x", "other": []}),
        "activate": ("SETappMonActivateAppList", {"reloadSignFile": "force"}),
        "clear": ("SETappMonClearConfig", {"clearConfig": "yes"}),
        "update_kit": ("SETappMonUpdateSignatureFile", {"reloadSignFile": "force"}),
        "kit": ("CREATEavSignatureProfile", login | {"fileCheckSum": "0" * 40}),
        "kit_long": ("CREATEavSignatureProfile", {name: "p" * 2000 for name in login}),
        "group": ("CREATEavAppGroup", {"ids": ["x"], "appGroup": groups}),
        "group_replace": ("SETavAppGroup", {"ids": ["office", "none"], "appGroup": groups}),
        "group_after": ("SETavAppGroup", {"appGroup": groups, "ids": ["office"]}),
        "group_delete": ("DELETEavAppGroup", {"ids": ["a", "b"], "appGroup": {}}),
        "group_odd": ("CREATEavAppGroup", {"appGroup": {"g": ["text", {"appName": number}, [], {"x": {}}]}}),
        "group_text": ("CREATEavAppGroup", {"appGroup": "text"}),
        "group_long_name": ("CREATEavAppGroup", {"appGroup": {"g" * 120: [{"appName": "a" * 40}]}}),
        "mon": ("CREATEavAppMonAppList", {"appList": apps, "appGroup": ["office", ""]}),
        "mon_set": ("SETavAppMonAppList", {"appList": apps}),
        "dpi": ("CREATEavDpiAppList", {"appList": apps, "appGroup": []}),
        "dpi_set": ("SETavDpiAppList", {"appList": [{"appName": "nobody"}]}),
        "dpi_other": ("SETavDpiAppList", {"else": "1", "appList": apps}),
        "dpi_odd": ("SETavDpiAppList", {"appList": ["text"], "appGroup": [number, "g" * 200]}),
        "dpi_not_containers": ("SETavDpiAppList", {"appList": "text", "appGroup": number}),
        "stats": ("GETavDpiStats", login),
        "stats_long": ("GETavDpiStats", {"filePath": "f" * 300, "username": "u" * 300, "password": "p" * 300}),
        "mon_stats": ("GETavAppMonStats", login),
        "debug": ("SetavDebugSettings", {"packetLog": "enable", "statsLog": "enable", "flowLog": "enable",
                                         "debugPrintDb": "yes", "logLevel": "STATS"}),
        "debug_flow": ("SetavDebugSettings", {"debugPrintDb": "flow", "logLevel": "nothing"}),
        "numbers": ("SETavDpiAppList", {"i64": (INT64, bytes(8)), "i16": (INT16, bytes(2)), "b": (BOOL, b"\1"),
                                        "d": (DOUBLE, struct.pack(">d", 1.5)), "unspec": (0, b"")}),
        "quotes": ("SETappMonClearConfig", {"password": 'a"b\\', "p\"assword": "x\n\t\x01"}),
    }

    def request(method, data):
        return struct.pack(">BH", METHODS.index(method), len(data)) + data

    inputs = {name: request(method, table(values)) for name, (method, values) in everything.items()}
    whole = table(everything["dpi"][1])
    broken = {"cut": whole[:-9], "length_0": whole[:4] + bytes(8), "length_max": b"\x81\xff\xff\xff" + whole[4:],
              "name_length": whole[:4] + b"\xff\xff" + whole[6:], "not_extended": blob(3, b"text\0"),
              "no_terminator": member("appList", (STRING, b"text"))}
    inputs |= {name: request("SETavDpiAppList", data) for name, data in broken.items()}
    inputs["unterminated_text"] = request("SETappMonAdminState", member("adminState", (STRING, b"enable")))
    inputs["empty"] = b"".join(request(method, b"") for method in METHODS)
    steps = ["group", "mon", "dpi", "debug", "appMonAdminState", "group_replace", "debug", "activate", "group_delete",
             "clear", "disable", "stats", "stats"]
    inputs["a_day"] = b"".join(inputs[step] for step in steps)
    save("bus_methods", **inputs)


def bus_message(kind, *attributes, seq=1, peer=0):
    body = b"".join(attributes)
    return struct.pack(">BBHI", 0, kind, seq, peer) + struct.pack(">I", 4 + len(body)) + body


def number(attr, value):
    return blob(attr, struct.pack(">I", value))


def text(attr, value):
    return blob(attr, value.encode() + b"\0")


def bus_traffic():
    call = bus_message(5, number(3, 0x1234), text(4, "echo"), blob(7, table({"a": "b", "l": [{}, [], "x"]})),
                       text(12, "root"), text(13, "root"), seq=3, peer=9)
    inputs = {
        "call": call,
        "other_method": bus_message(5, number(3, 0x1234), text(4, "other"), blob(7, b"")),
        "no_data": bus_message(5, number(3, 0x1234), text(4, "echo")),
        "no_method": bus_message(5, number(3, 0x1234)),
        "other_object": bus_message(5, number(3, 99), text(4, "echo"), blob(7, b"")),
        "no_reply": bus_message(5, number(3, 0x1234), text(4, "echo"), blob(7, b""), blob(10, b"\1")),
        "status": bus_message(1, number(1, 4), number(3, 0x1234), seq=2),
        "data": bus_message(2, number(3, 0x1234), blob(7, table({"a": "b"})), seq=2),
        "monitor": bus_message(11, number(0, 1), number(1, 2)),
        "unknown_type": bus_message(77, number(1, 1)),
        "version": b"\1" + call[1:],
        "two_calls": call + call,
        "cut": call[:-5],
        "length_3": call[:8] + b"\0\0\0\3" + call[12:],
        "length_too_long": call[:8] + b"\0\xff\xff\xff" + call[12:],
        "short_id": bus_message(5, blob(3, b"\0\1"), text(4, "echo"), blob(7, b"")),
        "unterminated_method": bus_message(5, number(3, 0x1234), blob(4, b"echo"), blob(7, b"")),
        "not_a_table": bus_message(5, number(3, 0x1234), text(4, "echo"), blob(7, b"\x83\0\0\7abc")),
        "deep": bus_message(5, number(3, 0x1234), text(4, "echo"), blob(7, nested(60))),
    }
    save("bus_client", **{name: b"\x80" + content for name, content in inputs.items()}, whole=b"\xff" + call)

    signature = blob(6, table({"echo": {"text": (INT32, struct.pack(">I", 3))}, "none": {}}))
    add = bus_message(6, text(2, "shop"), signature)
    # Ids are handed out in order: clients 0x1001 and 0x1002, then types and objects.
    first, second = 0, 1
    patterns = {"object": (INT32, struct.pack(">I", 0x1003)), "pattern": "ubus.*"}
    turns = {
        "add_look": [(first, add), (second, bus_message(4, text(2, "shop"))), (second, bus_message(4)),
                     (second, bus_message(4, text(2, "sh*")))],
        "add_call": [(first, add), (second, bus_message(5, number(3, 0x1003), text(4, "echo"), blob(7, b""))),
                     (second, bus_message(5, number(3, 0x1004), text(4, "echo"), blob(7, b""))),
                     (first, bus_message(2, number(3, 0x1004), blob(7, table({"a": "b"})), peer=0x1002)),
                     (first, bus_message(1, number(1, 0), number(3, 0x1004), peer=0x1002))],
        "add_twice": [(first, add), (second, add), (first, bus_message(7, number(3, 0x1004)))],
        "anonymous": [(first, bus_message(6)), (first, bus_message(7, number(3, 0x1003)))],
        "listen": [(first, bus_message(6)),
                   (first, bus_message(5, number(3, 1), text(4, "register"), blob(7, table(patterns)))),
                   (second, bus_message(5, number(3, 1), text(4, "send"),
                                        blob(7, table({"id": "ubus.x", "data": {"a": "b"}})))), (second, add)],
        "ping": [(first, bus_message(3, text(2, "x")))],
        "monitor": [(first, bus_message(5, number(3, 3), text(4, "add"), blob(7, b""))), (second, add)],
        "subscribe": [(first, add), (second, bus_message(6)),
                      (second, bus_message(8, number(3, 0x1005), number(8, 0x1004))),
                      (first, bus_message(10, number(3, 0x1004), text(4, "news"), blob(7, b""))),
                      (second, bus_message(9, number(3, 0x1005), number(8, 0x1004)))],
        "acl": [(first, bus_message(5, number(3, 2), text(4, "query"), blob(7, b"")))],
        "unknown": [(first, bus_message(50)), (second, bus_message(0)), (first, bus_message(11))],
        "in_pieces": [(first, add[:5]), (second, add[:20]), (first, add[5:]), (second, add[20:])],
        "length_3": [(first, add[:8] + b"\0\0\0\3")],
        "bad_signature": [(first, bus_message(6, text(2, "shop"), blob(6, b"\x82\0\0\x08\0\0\0\0")))],
        "cut_members": [(first, bus_message(6, text(2, "shop"), signature)[:-6])],
    }
    save("bus_broker", **{name: b"".join(bytes([who]) + struct.pack(">H", len(what)) + what for who, what in steps)
                          for name, steps in turns.items()})


def nested(depth):
    inner = b""
    for _ in range(depth):
        inner = blob(TABLE, b"\0\1t\0" + inner, extended=True)
    return inner


def texts():
    save("bus_json", object=b'{"a":"b","n":1,"big":12345678901,"neg":-1,"f":1.5e3,"t":true,"z":null,"l":[1,[],{}]}',
         escapes=rb'{"\u00e4\n\"":"\ud83d\ude00\u0000\/"}', spaces=b' {\t"a" :\n[ ] } ', array=b"[1,2]", cut=b'{"a":[1,',
         deep=b'{"a":' + b"[" * 200 + b"]" * 200 + b"}", twice=b'{"a":1,"a":"x"}', numbers=b'{"a":-0.0,"b":1e999,"c":00}')
    save("mask_pass", one=b'{\n\t"username": "u",\n\t"password": "secret"\n}', two=b'{"password":"a","password":"b"}',
         escaped=b'{"password":"a\\"b","x":"y"}', unfinished=b'"password":"abc', at_end=b'{"x":"password', empty=b'{"password":""}',
         close=b'passwordpassword""""""', number=b'{"password":5,"a":"b","c":"d"}')
    index = "id,name,category,risk,kind,area,source\n1,HTTP,-,-,-,-,-\n2,DNS,-,-,-,-,-\n"
    save("kit_files", index=b"i" + index.encode(), index_odd=b"i\n17,,Mail,x\n70000,Foo,a\n,,,\nx\n-1,Neg\n3,"
         + b"n" * 40 + b"\n5", index_long=b"ih\n" + b"9," + b"l" * 1200 + b",x\n" + b"," * 600 + b"\n",
         index_again=b"ih\n1,A\n2,A\n3,B\n1,A", index_nul=b"ih\n1,A\0B,x\n\0\n2,C\n", compatible=b"c1\n", level_2=b"c2\n",
         no_level=b"c", long_level=b"c" + b"9" * 600, version=b"v3.2.1\n", long_version=b"v" + b"1.2." * 40, empty_version=b"v")


def configurations():
    apps = [{"appName": "HTTP"}, {"appName": "nobody"}, {"appName": 5}, {}, "text"]
    profile = {
        "avSignatureProfile": {"filePath": "ftp://127.0.0.1/kit", "username": "u", "password": "p", "fileCheckSum": "x"},
        "appMonUpdateSignatureFile": {"reloadSignFile": "force"},
        "avAppGroup": {"office": [{"appName": "Mail"}, {"appName": "DNS"}], "g" * 60: [{"appName": "a"}], "none": []},
        "avAppMonAppList": {"appList": apps, "appGroup": ["office", 7, "nobody"]},
        "avDpiAppList": {"appList": [{"appName": "DNS"}], "appGroup": ["g" * 60]},
        "appMonAdminState": {"adminState": "enable"},
    }

    def file(*profiles):
        return json.dumps({"ApplicationVisbilityProfile": list(profiles)}).encode()

    wrong = {name: [5, "text", None] for name in profile}
    save("config_file", whole=file(profile), two=file(profile, profile), lower=file(profile).lower(),
         disabled=file(profile | {"appMonAdminState": {"adminState": "disable"}}), wrong_types=file(wrong),
         texts=file({name: "text" for name in profile}), state_number=file({"appMonAdminState": {"adminState": 1}}),
         direct=file({"reloadSignFile": "force"}), strings=file("text", 5, None, []), empty=b"", not_json=b"{",
         no_profiles=b'{"ApplicationVisbilityProfile": 5}', odd_group=file({"avAppGroup": {"g": {"appName": "DNS"}, "h": [5]}}),
         missing=file({"avSignatureProfile": {"filePath": "x"}}, {"avSignatureProfile": {}}),
         zero=file(profile).replace(b"office", b"of\0ice"), unnamed=file({"avAppGroup": {"": [{"appName": ""}]}}))


# ---- capture files


def capture(link, frames, magic=0xA1B2C3D4, order="="):
    records = b"".join(struct.pack(order + "IIII", 1, 2, len(frame), len(frame)) + frame for frame in frames)
    return struct.pack(order + "IHHiIII", magic, 2, 4, 0, 0, 65535, link) + records


def captures():
    ethernet = [bytes(12) + b"\x08\0" + PACKETS["tcp4"], bytes(12) + b"\x86\xDD" + PACKETS["udp6"],
                bytes(12) + b"\x81\0\0\5\x08\0" + PACKETS["udp4"], bytes(12) + b"\x88\xA8\0\5\x81\0\0\6\x86\xDD" + PACKETS["tcp6"],
                bytes(12) + b"\x08\x06" + bytes(28), bytes(12) + b"\x08\0" + PACKETS["cut4"], bytes(5),
                bytes(12) + b"\x81\0\0"]
    cooked = bytes(14) + b"\x08\0" + PACKETS["udp4"]
    cooked2 = b"\x86\xDD" + bytes(18) + PACKETS["tcp6"]
    block = struct.pack("=IIIHHq", 0x0A0D0D0A, 28, 0x1A2B3C4D, 1, 0, -1) + struct.pack("=I", 28)
    interface = struct.pack("=IIHHII", 1, 20, 1, 0, 65535, 20)
    frame = padded(ethernet[0])
    packet = struct.pack("=IIIIIII", 6, 32 + len(frame), 0, 0, 0, len(ethernet[0]), len(ethernet[0])) + frame
    save("pcap_input", ethernet=capture(1, ethernet), raw=capture(101, list(PACKETS.values())),
         cooked=capture(113, [cooked]), cooked2=capture(276, [cooked2]), swapped=capture(1, ethernet, order=">"),
         nanoseconds=capture(1, ethernet, magic=0xA1B23C4D), null=capture(0, [struct.pack("=I", 2) + PACKETS["udp4"]]),
         other_link=capture(105, ethernet), cut=capture(1, ethernet)[:60], header_only=capture(1, []), nothing=b"",
         pcapng=block + interface + packet + struct.pack("=I", 32 + len(frame)))
    joined = {name: struct.pack(">H", len(packet)) + packet for name, packet in PACKETS.items()}
    everything = b"".join(joined.values())
    save("engine_ndpi", **joined, all=everything, long=(joined["tcp4"] + joined["udp6"]) * 40)
    save("engine_packet", **joined, all=everything, empty=b"\0\0",
         scripted=struct.pack(">H", 28) + ipv4(udp(destination=10007), 17))


def results():
    address = [attribute(2, FIRST4), attribute(4, SECOND4)]
    rest = [u8(6, 6), port(7, 40000), port(8, 443), u8(9, 1)]
    matched = [u32(11, 7), attribute(12, b"HTTP"), u8(10, 0), attribute(14, b"office")]
    save("kernel_wire", register=message(21, u32(1, 0x104D2), flags=1),
         mirror=message(21, u8(2, 1), u16(3, 16), u8(5, 1), u16(6, 30), u8(4, 1), flags=1),
         plain=message(22, u8(1, 81), *address, *rest, flags=1), matched=message(22, u8(1, 81), *address, *rest, *matched, flags=1),
         v6=message(22, u8(1, 82), attribute(3, FIRST6), attribute(5, SECOND6), *rest, *matched, family=10, flags=1),
         incomplete=message(22, u8(1, 81), *rest), twice=message(21, u8(2, 1)) + message(22, u8(1, 81)),
         wrong_sizes=message(22, attribute(1, b""), attribute(2, b"123"), attribute(7, b"12345"), attribute(12, b"n" * 99)),
         attribute_length_3=message(21, b"\3\0\1\0"), cut=message(21, u8(2, 1))[:-5], long=message(21, b"\xff\xff\1\0"))


packet_messages()
reports()
calls()
bus_traffic()
texts()
configurations()
captures()
results()
