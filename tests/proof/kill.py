"""kill -9 at random moments: afterwards it starts, and has every setting that had been saved."""
import contextlib
import json
import random
import signal
import time

import world
from proof.base import FLUSH, RECORDS, RECORDS_OLD, client, fault

CHOICES = [["Mail"], ["Video"], ["Mail", "Video"], []]


def moments(run, longest):
    """Random delays, the same in every run."""
    chance = random.Random(26)
    for _ in range(run.often(6, 60)):
        yield chance.uniform(0, longest)


def kill_after(run, delay):
    time.sleep(delay)
    run.daemon.send(signal.SIGKILL)
    run.check(run.daemon.wait() == -signal.SIGKILL, run.how_it_ended())
    run.provoke()


def saved():
    """What the file says is monitored; None without a whole file."""
    try:
        profile = json.loads(world.CONFIG.read_text())["ApplicationVisbilityProfile"][0]
    except (ValueError, FileNotFoundError):
        return None
    return [app["appName"] for app in profile["avAppMonAppList"]["appList"]]


def monitored(run):
    """The monitoring list of the running daemon."""
    return [line.split()[3] for line in run.lists()[2]]


def in_force(run, allowed, what):
    """The daemon that has started anew has one of the settings that may have been saved."""
    now = monitored(run)
    if now not in allowed:
        run.lost(f"{what}: {now} instead of {' or '.join(map(str, allowed))}")


@fault
def while_saving(run):
    """kill -9 at random moments while settings are changed and saved without pause

    starts with the settings of the last save that was followed by another reply, or with those of the save in progress
    """
    run.configured()
    for delay in moments(run, 0.12):
        # Enabled: the saved state has to be one that applies the lists.
        done, sent, number = saved(), saved(), 0
        end = time.monotonic() + delay
        with client(run) as bus, contextlib.suppress(ConnectionError, TimeoutError):
            # One save is finished before the killing starts, then as many as there is time for.
            while number == 0 or time.monotonic() < end:
                choice = CHOICES[number % len(CHOICES)]
                bus.call("SETavAppMonAppList", appList=[{"appName": name} for name in choice])
                sent = choice
                bus.call("SETappMonActivateAppList")
                if number == 0 or time.monotonic() < end:
                    bus.call("SetavDebugSettings")
                    done = choice
                number += 1
        kill_after(run, 0)
        found = saved()
        if found not in (done, sent):
            run.lost(f"saved settings: {found} instead of {done} or {sent}")
        run.start_daemon()
        in_force(run, [found], "saved settings")
    run.call("SETappMonActivateAppList", {})
    run.settle()
    run.check(list(world.CONFIG.parent.iterdir()) == [world.CONFIG], "something is left beside the file")
    run.accepted("a save is answered before it is written: the last one may be that before")


def kill_in_flush(run, delay):
    with client(run) as bus:
        run.offset += FLUSH
        world.CLOCK.write_text(f"+{run.offset}")
        bus.ask("SetavDebugSettings")
        kill_after(run, delay)


def start_again(run, settings):
    run.module.command("clear")
    run.start_daemon(clock=True)
    run.check(run.lists() == settings, "settings are not those before")
    run.enable()


@fault
def while_flushing(run):
    """kill -9 at random moments around a flush of 200 reports

    starts again; the file's lines are whole but for the one being written, and it appends after them
    """
    run.configured(clock=True)
    settings = run.lists()
    for delay in moments(run, 0.02):
        run.flows(200)
        run.report()
        kill_in_flush(run, delay)
        start_again(run, settings)
    lines = [line for path in (RECORDS_OLD, RECORDS) for line in world.text_of(path).splitlines()]
    cut = sum(line.count(",") != 17 for line in lines)
    run.check(cut <= run.provoked, f"{cut} broken lines after {run.provoked} kills")
    run.check(len(lines) > 200, "nothing was flushed at all")
    run.accepted(f"reports queued in memory since the last flush; {cut} lines cut at the end of what was written")


@fault
def while_rotating(run):
    """kill -9 at random moments of a flush that rotates the record file

    starts again; every line written before is in one of the two files
    """
    run.configured(clock=True)
    settings = run.lists()
    old = ["IPv4," + "x," * 16 + "y"] * 1201
    for number, delay in enumerate(moments(run, 0.02)):
        RECORDS_OLD.unlink(missing_ok=True)
        RECORDS.write_text("\n".join(["IpAddrType"] + old) + "\n")
        run.flows(20, first=number * 20)
        run.report()
        kill_in_flush(run, delay)
        kept = sum(world.text_of(path).count("\nIPv4,x") for path in (RECORDS, RECORDS_OLD))
        if kept != len(old):
            run.lost(f"{len(old) - kept} written lines")
        start_again(run, settings)
    run.accepted("reports queued in memory since the last flush")


@fault
def while_installing(run):
    """kill -9 at random moments of a kit's installation

    starts again, installs the kit that is on flash and has every saved setting
    """
    run.configured()
    settings = run.lists()
    for number, delay in enumerate(moments(run, 1.3)):
        world.make_kit(apps={1: "Mail", 2: "Chat", 3: "Games", 4: "Video", 5: f"New{number}"}, version=f"{number}.0")
        with client(run) as bus:
            bus.ask("SETappMonUpdateSignatureFile", b"")  # the look-up is done
            bus.call("SETappMonUpdateSignatureFile", reloadSignFile="force")
            kill_after(run, delay)
        run.start_daemon()
        if run.lists() != settings:
            run.lost("saved settings")
    run.judging(90000)


@fault
def while_starting(run):
    """kill -9 at random moments of start-up

    starts the next time with every saved setting
    """
    run.configured()
    settings = run.lists()
    run.daemon.stop()
    for delay in moments(run, 1.6):
        run.start_daemon(wait=False)
        kill_after(run, delay)
    run.start_daemon()
    if run.lists() != settings:
        run.lost("saved settings")
    run.judging(90000)
