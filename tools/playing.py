"""Captures through the daemon of a world.World that has the libndpi engine, with every application under enforcement."""
import pathlib
import struct

import world

CHUNK = 100  # applications a call
ENGINE_IDLE = 130  # seconds: more than the engine's kIdleTime
EXPIRIES = 4  # that the engine allows itself for each packet: kExpiriesPerPacket
LATER = pathlib.Path("/tmp/later.pcap")


def applications(kit=world.KIT):
    """The names in a kit's index."""
    return list(world.kit_numbers(kit))


def enforcing(names):
    """(method, arguments) of the calls that put these, and no others, under enforcement."""
    for at in range(0, len(names), CHUNK):
        yield ("CREATEavDpiAppList" if at else "SETavDpiAppList",
               {"appList": [{"appName": name} for name in names[at:at + CHUNK]]})


def mirror(system, what, patience=600):
    """Mirrors a capture; returns when the daemon has served all of it."""
    system.module.command(f"play {what}")
    system.module.command(f"wait {patience * 1000}", timeout=patience + 10)


def finish_flows(system, flows):
    """Two quiet minutes: the engine reports what it still follows, `flows` at most, as other packets come in."""
    # Later fragments: they take the engine's time on without a flow of their own.
    packet = struct.pack(">BBHHHBBH", 0x45, 0, 28, 1, 1, 64, 17, 0) + bytes([192, 0, 2, 1, 192, 0, 2, 2]) + bytes(8)
    LATER.write_bytes(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 101) +
                      (struct.pack("<IIII", 0, 0, len(packet), len(packet)) + packet) * 16)
    system.advance(ENGINE_IDLE)
    mirror(system, f"{LATER} loop={flows // EXPIRIES // 16 + 2}")
