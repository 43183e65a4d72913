"""What tools/demo shows, step by step; runs inside the sandbox."""
import json
import os
import pathlib
import subprocess
import sys
import time

import unittest

import world
from servers import Vsftpd  # a real FTP server, set up for this sandbox

GROUP = {"web": [{"appName": "HTTP"}, {"appName": "TLS"}, {"appName": "Wikipedia"}]}


def say(text):
    print(f"\n\033[1m{text}\033[0m" if sys.stdout.isatty() else f"\n# {text}", flush=True)


def call(system, method, arguments):
    print(f"$ ubus call dpi {method} '{json.dumps(arguments)}'")
    print(json.dumps(system.reply(method, arguments)), flush=True)


def show(path, most=12):
    lines = world.text_of(path).splitlines()
    print(f"$ head -{most} {path}    ({len(lines)} lines)")
    print("\n".join(lines[:most]), flush=True)


def configure(system):
    say("An administrator installs a signature kit: a classifier and the index of what it can tell apart")
    world.make_kit(ndpi=True)
    call(system, "SETappMonUpdateSignatureFile", {"reloadSignFile": "force"})
    system.settle()

    say("... puts one application and one group under enforcement, one on the monitoring list, and saves that")
    call(system, "CREATEavAppGroup", {"appGroup": GROUP})
    call(system, "SETavDpiAppList", {"appList": [{"appName": "DNS"}], "appGroup": ["web"]})
    call(system, "SETavAppMonAppList", {"appList": [{"appName": "SSH"}, {"appName": "DNS"}]})
    call(system, "SETappMonActivateAppList", {})

    say("... and switches the whole on: the kernel starts to mirror packets")
    call(system, "SETappMonAdminState", {"adminState": "enable"})


def traffic(system, mode, capture):
    if mode == "live":
        say("Real clients talk to real servers; the interface is mirrored meanwhile")
        subprocess.run([world.TREE / "samples/record-traffic", "--generate-only"], check=True,
                       stdout=subprocess.DEVNULL)
        time.sleep(0.5)  # what the last connection leaves behind
    else:
        say(f"Traffic flows: {os.path.basename(capture)} is mirrored, packet by packet")
        system.module.command(f"play {capture}")
        system.module.command("wait 60000", timeout=90)


def records(system):
    say("The kernel reports its counters and ages the flows; a quarter of an hour passes (the daemon's clock is moved)")
    system.module.command("age-all")
    system.advance(901)
    show("/flash/appmon_enforcement_flow_records.csv")
    show("/flash/appmon_monitor_flow_records.csv")


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


def verdicts(system):
    say("What the kernel was told, flow by flow, and every packet and message accounted for")
    system.module.command("quit")
    system.module.wait()
    print(system.module.stdout, end="", flush=True)


def restart(system):
    say("The daemon is restarted: kit, group, lists and state come back from /var/config/dpi.conf")
    print(f"$ cat {world.CONFIG}\n{world.text_of(world.CONFIG)}", end="")
    system.restart_daemon(clock=True)
    system.log_level("INFO")
    print("$ ubus call dpi SetavDebugSettings '{\"debugPrintDb\":\"yes\"}'    (to the log)")
    lines = system.dump("yes").splitlines()
    print("\n".join(line for line in lines if "Grp-Name" in line or "App-Name" in line or "List" in line))


def main():
    mode, capture = sys.argv[1:3]
    with world.World() as system:
        say("Broker, kernel module stand-in and the production binary start")
        options = ["--report-interval", "0", "--access-profile", "staff"]
        if mode == "live":
            options += ["--interface", "lo"]
        system.start(*options, clock=True)
        if mode == "shell":
            shell(system, capture)
            return
        configure(system)
        traffic(system, mode, capture)
        records(system)
        export(system)
        restart(system)
        verdicts(system)
        system.daemon.stop()
        say("Done. What runs here is what runs on a switch: build/release/src/korvid")


def shell(system, capture):
    configure(system)
    tools = [world.BUILD / "platform/bus", world.BUILD / "platform/kernel", world.TREE / "platform/engine"]
    profile = pathlib.Path("/tmp/profile")
    profile.write_text(f"""PS1='korvid$ '
PATH={':'.join(map(str, tools))}:$PATH
ubus() {{ command ubus -s {world.BUS_SOCKET} "$@"; }}
module() {{ dpimod --ask {world.MODULE_CONTROL} "$@"; }}
""")
    say("Everything runs.  Try:")
    print(f"""  ubus list -v dpi                   the fifteen methods
  ubus call dpi SetavDebugSettings '{{"logLevel":"INFO","debugPrintDb":"yes"}}'; tail /var/log/dpi.log
  module play {capture}      mirror a capture
  module verdicts                    what the kernel was told
  module age-all                     end all flows
  exit                               ends everything
""", flush=True)
    subprocess.run(["/bin/bash", "--rcfile", profile, "-i"], check=False)
    system.daemon.stop()


if __name__ == "__main__":
    main()
