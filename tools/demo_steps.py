"""What tools/demo shows, step by step; runs inside the sandbox."""
import collections
import json
import pathlib
import subprocess
import sys
import time
import unittest

import playing
import world
from servers import Vsftpd  # a real FTP server, set up for this sandbox

GROUP = {"web": [{"appName": "HTTP"}, {"appName": "TLS"}, {"appName": "Wikipedia"}]}
ENGINE_FLOWS = 65536  # that the engine follows at a time


def say(text):
    print(f"\n\033[1m{text}\033[0m" if sys.stdout.isatty() else f"\n# {text}", flush=True)


def call(system, method, arguments):
    print(f"$ ubus call dpi {method} '{json.dumps(arguments)}'")
    print(json.dumps(system.reply(method, arguments)), flush=True)


def ask(*words):
    """What an operator types, and sees."""
    print("$ korvidctl", *words, flush=True)
    colour = ["--color"] if sys.stdout.isatty() else []
    subprocess.run([world.BUILD / "src/ctl/korvidctl", "-s", world.BUS_SOCKET, *colour, *map(str, words)], check=False)


def what_is_on_the_network(system):
    say("What is on the network, and why is this flow enforced?")
    ask("top", "-1")
    flows = system.ask("flows", limit=1)["flows"]
    if flows:
        ask("explain", *(flows[0][key] for key in ("protocol", "source", "source_port", "destination", "destination_port")))


def show_lines(lines, most):
    print("\n".join(lines[:most]))
    if len(lines) > most:
        print(f"... {len(lines) - most} more", flush=True)


def show(path, most=6):
    print(f"$ cat {path}")
    show_lines(world.text_of(path).splitlines(), most)


def install_kit(system):
    say("An administrator installs a signature kit: a classifier and the index of what it can tell apart")
    world.make_kit(ndpi=True)
    call(system, "SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
    system.settle()


def configure(system):
    install_kit(system)

    say("... puts one application and one group under enforcement, one on the monitoring list, and saves that")
    call(system, "CREATEavAppGroup", {"appGroup": GROUP})
    call(system, "SETavDpiAppList", {"appList": [{"appName": "DNS"}], "appGroup": ["web"]})
    call(system, "SETavAppMonAppList", {"appList": [{"appName": "SSH"}, {"appName": "DNS"}]})
    call(system, "SETappMonActivateAppList", {})

    enable(system)


def enforce_everything(system):
    install_kit(system)

    names = playing.applications()
    say(f"... and puts all {len(names)} applications of its index under enforcement")
    for number, (method, arguments) in enumerate(playing.enforcing(names)):
        system.call(method, arguments)
        if number == 0:
            some = json.dumps({"appList": arguments["appList"][:3]})[:-2]
            print(f"$ ubus call dpi {method} '{some}, ...]}}'    ({len(arguments['appList'])} names a call)")
    enable(system)


def enable(system):
    say("... and switches the whole on: the kernel starts to mirror packets")
    call(system, "SETappMonAdminState", {"adminState": "enable"})


def traffic(system, mode, capture, name):
    if mode == "live":
        say("Real clients talk to real servers; the interface is mirrored meanwhile")
        subprocess.run([world.TREE / "samples/record-traffic", "--generate-only"], check=True,
                       stdout=subprocess.DEVNULL)
        time.sleep(0.5)  # what the last connection leaves behind
    else:
        say(f"Traffic flows: {name} is mirrored, packet by packet")
        try:
            playing.mirror(system, capture)
        except world.Failure as failure:
            sys.exit(f"demo: {name} cannot be played: {str(failure).rpartition(capture + ': ')[2]}")
        for line in system.module.stderr.splitlines():  # a file that is damaged further on
            print(line.replace(capture, name))


def records(system):
    say("The kernel reports its counters and ages the flows; a quarter of an hour passes (the daemon's clock is moved)")
    system.module.command("age-all")
    system.advance(901)
    show("/flash/appmon_enforcement_flow_records.csv")


def export(system):
    say("The management system asks for the records: they go to its file server, here a real FTP server")
    try:
        server = Vsftpd(pathlib.Path("/tmp/fileserver")).start()
    except unittest.SkipTest as reason:
        print(f"(left out: {reason})")
        return
    call(system, "GETavDpiStats", {"username": server.user, "password": server.password,
                                   "filePath": server.url("switch-7")})
    stored = server.store / "switch-7/appmon_enforcement_flow_records.csv"
    local = world.FLASH / stored.name
    world.wait_until(lambda: stored.exists() and stored.stat().st_size == local.stat().st_size, "the upload")
    print(f"$ md5sum {local} {stored}")
    subprocess.run(["/usr/bin/md5sum", local, stored], check=True)
    server.stop()


def restart(system):
    say("The daemon is restarted: kit, group, lists and state come back from /var/config/dpi.conf")
    system.restart_daemon(clock=True)
    system.ask("status")
    ask("status")
    ask("groups", "web")
    ask("apps", "--list", "enforced", "--sort", "name")


def verdicts(system):
    """Prints a row for every flow; returns the totals."""
    system.module.command("quit")
    system.module.wait()
    rows, _, totals = system.module.stdout.partition("\n\n")
    show_lines(rows.splitlines(), 17)
    return totals


def by_application(flows):
    rows = collections.defaultdict(collections.Counter)
    for flow in flows:
        for name in flow["app_name"], "all":
            rows[name].update(flows=1, packets=flow["packets"], bytes=flow["bytes"])
    width = max(map(len, ["APPLICATION", *rows]))
    print(f"{'APPLICATION':{width}}  {'FLOWS':>7}  {'PACKETS':>9}  {'BYTES':>12}")
    for name, row in sorted(rows.items(), key=lambda item: (item[0] == "all", -item[1]["bytes"])):
        print(f"{name:{width}}  {row['flows']:7}  {row['packets']:9}  {row['bytes']:12}")


def demonstrate(system, mode, capture, name):
    configure(system)
    traffic(system, mode, capture, name)
    what_is_on_the_network(system)
    records(system)
    show("/flash/appmon_monitor_flow_records.csv")
    export(system)
    restart(system)
    say("What the kernel was told, flow by flow (the names of enforced applications only), and every packet accounted for")
    print(f"\n{verdicts(system)}", end="", flush=True)


def classify(system, mode, capture, name):
    enforce_everything(system)
    traffic(system, mode, capture, name)
    played = system.module.stats()
    playing.finish_flows(system, min(played["mirrored"], ENGINE_FLOWS))
    flows = system.module.command("verdicts")["verdicts"]
    what_is_on_the_network(system)
    records(system)
    say("What the kernel was told, flow by flow")
    verdicts(system)
    say("... and by application")
    by_application(flows)
    dropped = ", ".join(f"{count} {counter[8:].replace('_', ' ')}" for counter, count in played.items()
                        if counter.startswith("dropped_") and count)
    unnamed = played["mirrored"] - sum(flow["packets"] for flow in flows)
    print(f"\n{played['frames_read']} packets read, {played['mirrored']} mirrored" +
          (f"; left out: {dropped}" if dropped else "") +
          (f"; {unnamed} of no flow that has a verdict (fragments, damaged packets)" if unnamed else ""))


def show_page(page):
    program = world.BUILD / "fleet/korvid-report"
    if not program.exists():
        return
    say("The records as a page, without any server")
    print(f"$ korvid-report --box switch-7 -o {page} /flash", flush=True)
    subprocess.run([program, "--box", "switch-7", "-o", page, "/flash"], check=True)


def main():
    mode, capture, name, page = sys.argv[1:]
    with world.World() as system:
        say("Message broker, the kernel module's stand-in and the production binary start")
        options = ["--report-interval", "0", "--access-profile", "staff"]
        if mode == "live":
            options += ["--interface", "lo"]
        system.start(*options, clock=True)
        steps = {"shell": shell, "capture": classify}.get(mode, demonstrate)
        steps(system, mode, capture, name)
        status = system.daemon.stop()
        if status != 0:
            sys.exit(f"demo: korvid ended with {status}: {system.daemon.stderr[-2000:]}")
        if mode != "shell":
            show_page(page)
    if mode != "shell":
        program = str(world.DAEMON).removeprefix(f"{world.TREE}/")
        say(f"Done. What ran here is what runs on a switch: {program}")


def shell(system, _, capture, name):
    configure(system)
    system.ask("status")
    for words in (("status",), ("top", "-1"), ("explain", "HTTP")):
        ask(*words)
    tools = [world.BUILD / "src/ctl", world.BUILD / "platform/bus", world.BUILD / "platform/kernel", world.TREE / "platform/engine"]
    profile = pathlib.Path("/tmp/profile")
    profile.write_text(f"""PS1='korvid$ '
PATH={':'.join(map(str, tools))}:$PATH
korvidctl() {{ command korvidctl -s {world.BUS_SOCKET} "$@"; }}
. {world.TREE}/packaging/completion/korvidctl
ubus() {{ command ubus -s {world.BUS_SOCKET} "$@"; }}
module() {{ dpimod --ask {world.MODULE_CONTROL} "$@"; }}
""")
    say("Everything runs.  Try:")
    print(f"""  ubus list -v dpi                   the fifteen methods
  korvidctl status; korvidctl apps    what the daemon knows (korvidctl alone: all that it can do)
  module play {capture}           mirror a capture, here {name}
  module verdicts                    what the kernel was told
  module age-all                     end all flows
  exit                               ends everything
""", flush=True)
    subprocess.run(["/bin/bash", "--rcfile", profile, "-i"], check=False)


if __name__ == "__main__":
    main()
