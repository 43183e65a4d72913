"""Record lines and files, and what is in a spool, summed independently of the programs under test."""
import collections
import datetime
import pathlib

ENFORCEMENT = ("IpAddrType,IpA,IpB,L4portA,L4portB,Proto,Application,Application-Group,MacA,KolNameA,MacB,KolNameB,"
               "pktCount,byteCount,Start,End,IntStart,IntEnd")
MONITORING = "IpAddrType,IpA,IpB,L4portA,L4portB,Proto,Application,Application-Group,Time"
APPLICATION = "Application,Application-Group,Utcinterval,MaFlowMin,MaFlowMax,MaFlowAvg,MaFlowTotal"
NAMES = {"enforcement": "appmon_enforcement_flow_records", "monitoring": "appmon_monitor_flow_records",
         "application": "appmon_monitoring_app_records"}
HEADERS = {"enforcement": ENFORCEMENT, "monitoring": MONITORING, "application": APPLICATION}


def text_of(seconds):
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).strftime("%Y-%m-%d %H:%M:%S")


def enforced(start, end, port=40000, application="HTTP", group="web", size=1000, ended=True, host="192.0.2.11"):
    return (f"IPv4,{host},198.51.100.80,{port},80,TCP,{application},{group},-,staff,-,-,{size // 100},{size},"
            f"{text_of(start)},{text_of(end) if ended else '-'},{text_of(start)},{text_of(end)}")


def monitored(when, port=40000, application="DNS", group="-"):
    return f"IPv4,192.0.2.11,198.51.100.53,{port},53,UDP,{application},{group},{text_of(when)}"


def put(folder, kind, lines, suffix=".csv"):
    """A record file as an upload leaves it."""
    path = pathlib.Path(folder) / (NAMES[kind] + suffix)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("\n".join([HEADERS[kind], *lines]) + "\n")
    return path


def distinct(spool):
    """Every line of the spool once, by kind: of equal lines as many as the file has that holds most of them."""
    found = {kind: collections.Counter() for kind in NAMES}
    for path in sorted(pathlib.Path(spool).rglob("*.csv*")):
        kind = next(kind for kind, name in NAMES.items() if path.name.lstrip(".").startswith(name))
        box = str(path.parent.relative_to(spool))
        lines = collections.Counter(line for line in path.read_text().splitlines() if line != HEADERS[kind])
        for line, count in lines.items():
            found[kind][box, line] = max(found[kind][box, line], count)
    return found


def volume(enforcement):
    """Bytes of the flows in enforcement lines, by box and application: each flow's last count is its volume."""
    flows = {}
    for box, line in enforcement:
        column = line.split(",")
        key = (box, *column[:6], column[14])
        if key not in flows or column[17] >= flows[key][0]:
            flows[key] = (column[17], int(column[13]), column[6])
    sums = collections.Counter()
    for (box, *_), (_, size, application) in flows.items():
        sums[box, application] += size
    return sums
