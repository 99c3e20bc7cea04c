#!/usr/bin/env python3
"""Writes the seed corpus of the datagram fuzz target: a datagram of each
kind, aimed at the store that the target seeds (its uuids, node ids and
generation counts), so that the fuzzer starts from inputs that reach
creations, updates, removals and snapshot links; and, for each datagram that
turns a uuid into a path, uuids on both sides of the refusal.

    fuzz/make_corpus.py [output directory]   (default: fuzz/corpus/datagram)

Every record is written field by field at its wire offset (little-endian,
except the big-endian generation count of a VDisk entry); the offsets are
those of the record layouts, not read from the daemon's structs, so a
changed struct shows up as a corpus that no longer reaches the store.
"""

import os
import struct
import sys

# Message type codes.
PING = 4
DS_PING = 16
HEARTBEAT = 32
SINGLE_VDISK_PING = 33
VDISK_DELETED = 34
AUX_PING = 35
STORE_JSON = 36
DELETE_JSON = 37
UNKNOWN_TYPE = 5

# Hdr, 207 bytes: (offset, struct format) per field.
HDR_SIZE = 207
HDR = {
    "major": (0, "B"),
    "minor": (1, "B"),
    "type": (2, "B"),
    "nodestatus": (3, "B"),
    "uid": (4, "<I"),
    "vendor": (8, "32s"),
    "model": (40, "32s"),
    "freespace": (72, "<I"),
    "utilization": (76, "<I"),
    "rev": (80, "24s"),
    "serial": (104, "64s"),
    "hbtl": (168, "32s"),
    "size": (200, "<I"),
    "performance": (204, "B"),
    "hostid": (205, "<H"),
}

# DatastoreEntry, 87 bytes, at 207 in a DS_PING.
DSE_SIZE = 87
DSE = {
    "uuid": (0, "14s"),
    "name": (14, "32s"),
    "description": (46, "32s"),
    "sector_size": (78, "<I"),
    "replicas": (82, "<H"),
    "stripes": (84, "<H"),
    "overcommit": (86, "B"),
}

# AuxPingData, 28 bytes, at 208 in an AUX_PING (byte 207 is a zero).
AUX_OFFSET = 208
AUX_SIZE = 28
AUX = {
    "length": (0, "<I"),
    "allocatedspace": (4, "<I"),
    "curvdisks": (8, "<I"),
    "curvdisksforctrl": (12, "<I"),
    "maxvdisksforctrl": (16, "<I"),
    "memtotal": (20, "<I"),
    "memavail": (24, "<I"),
}

# VDiskEntry, 125 bytes, followed by `members` and `frontends` 4-byte records.
VDE_SIZE = 125
VDE = {
    "transaction_id": (0, "<I"),
    "uuid": (4, "14s"),
    "old_mshipgencnt": (18, "2s"),
    "name": (20, "28s"),
    "mshipgencnt": (48, ">H"),  # big-endian
    "sector_size": (50, "<I"),
    "numkeys": (54, "<Q"),
    "sectors": (62, "<Q"),
    "seqno": (70, "<Q"),
    "descr": (78, "32s"),  # snapshot == 0
    "snap_y": (78, "B"),  # snapshot != 0: time and parent
    "snap_m": (79, "B"),
    "snap_d": (80, "<H"),
    "snap_H": (82, "B"),
    "snap_M": (83, "B"),
    "snap_S": (84, "B"),
    "parent": (85, "14s"),
    "status": (110, "B"),
    "port": (111, "<H"),
    "replicas": (113, "<H"),
    "st_mem": (115, "B"),
    "st_mems": (116, "B"),
    "st_size": (117, "<H"),
    "snapshot": (119, "<H"),
    "members": (121, "<H"),
    "frontends": (123, "<H"),
}

# VDiskDeleteEntry, 18 bytes, at 207.
VDDE_SIZE = 18
VDDE = {"node": (0, "<I"), "uuid": (4, "14s")}

# jsonEntry, 146 bytes, at 207; the JSON text starts at 353 + offset.
JSON_SIZE = 146
JSON = {
    "major": (0, "B"),
    "minor": (1, "B"),
    "nodeuuid": (2, "16s"),
    "path": (18, "64s"),
    "filename": (82, "32s"),
    "lastping": (114, "<q"),
    "jsonlen": (122, "<Q"),
    "json": (130, "<Q"),
    "offset": (138, "<Q"),
}

# The target's seed: two VDisks of nodes 1 and 2 (a plain one and its
# snapshot), one of node 3 alone, data store ds01 of nodes 1 and 2; every
# stored generation count is 4. Nodes 1, 2 and 3 run versions 1.8, 1.7, 2.0.
PLAIN = b"5f3a9c0e1b2d47"
SNAP = b"0c71e2aa9f3b10"
LONE = b"9e8d7c6b5a4f30"
VERSION = {1: (1, 8), 2: (1, 7), 3: (2, 0)}


def record(layout, size, fields):
    """The record of `size` bytes with the named fields set, the rest zero."""
    buf = bytearray(size)
    for name, value in fields.items():
        off, fmt = layout[name]
        struct.pack_into(fmt, buf, off, value)
    return bytes(buf)


def addr(text):
    """An IPv4 address as the number the wire carries (first octet high)."""
    a, b, c, d = (int(x) for x in text.split("."))
    return (a << 24) | (b << 16) | (c << 8) | d


def hdr(msg_type, uid, **fields):
    major, minor = VERSION.get(uid, (1, 8))
    base = dict(major=major, minor=minor, type=msg_type, nodestatus=2, uid=uid,
                vendor=b"CORVAL", model=b"Fuzz Node", freespace=81920, utilization=37,
                rev=b"1.8.0", serial=b"FUZZ-%04d" % uid, hbtl=b"0:0:%d:0" % uid,
                size=102400, performance=3, hostid=uid)
    base.update(fields)
    return record(HDR, HDR_SIZE, base)


def vdisk_block(uuid, gen, members, frontends, parent=None, uid=1, transaction_id=0, **fields):
    """One VDisk block; gen goes where the sender's version puts it."""
    major, minor = VERSION.get(uid, (1, 8))
    full = major > 1 or (major == 1 and minor >= 8)
    base = dict(transaction_id=transaction_id, uuid=uuid,
                old_mshipgencnt=b"%02d" % (gen % 100), mshipgencnt=gen if full else 0,
                name=b"fuzz disk", sector_size=512, numkeys=0, sectors=2097152, seqno=7,
                status=1, port=3260, replicas=2, st_mem=0, st_mems=2, st_size=64,
                members=len(members), frontends=len(frontends))
    if parent is None:
        base.update(snapshot=0, descr=b"announced plain disk")
    else:
        base.update(snapshot=1, snap_y=26, snap_m=11, snap_d=23, snap_H=9, snap_M=30, snap_S=0,
                    parent=parent)
    base.update(fields)
    out = record(VDE, VDE_SIZE, base)
    out += b"".join(struct.pack("<I", m) for m in members)
    out += b"".join(struct.pack("<I", addr(f)) for f in frontends)
    return out


def json_ping(msg_type, uid, text):
    entry = record(JSON, JSON_SIZE, dict(major=1, minor=8, nodeuuid=b"%d" % uid, path=b"cluster",
                                         filename=b"fuzz.json", lastping=1795000000,
                                         jsonlen=len(text), json=0, offset=0))
    return hdr(msg_type, uid) + entry + text


def corpus():
    members12 = [1, 2]
    return {
        # The seeded plain VDisk and its snapshot at the stored generation:
        # the update path of both, nothing stale.
        "ping_plain_and_snapshot": hdr(PING, 1)
        + vdisk_block(PLAIN, 4, members12, ["127.0.0.1"])
        + vdisk_block(SNAP, 4, members12, ["127.0.0.1"], parent=PLAIN),
        # Node 2 (version 1.7, count in the two digits) raises the plain
        # VDisk's generation to 5 (the fence check runs) and drops node 1
        # from its members; the snapshot it no longer names is stale.
        "ping_generation_rise_v17": hdr(PING, 2)
        + vdisk_block(PLAIN, 5, [2], ["127.0.0.2"], uid=2),
        # New records: a plain VDisk and a snapshot of the seeded one, whose
        # parent gets the snapshot link; the seeded ones are named too.
        "ping_new_vdisks": hdr(PING, 1)
        + vdisk_block(PLAIN, 4, members12, ["127.0.0.1"])
        + vdisk_block(SNAP, 4, members12, ["127.0.0.1"], parent=PLAIN)
        + vdisk_block(b"a1b2c3d4e5f601", 1, [1], ["10.0.0.1", "10.0.0.2"])
        + vdisk_block(b"a1b2c3d4e5f602", 1, [1], ["10.0.0.1"], parent=PLAIN),
        # No entries: every VDisk of node 3 is stale, and its lone VDisk
        # goes with its last member.
        "ping_empty": hdr(PING, 3),
        "single_vdisk_ping": hdr(SINGLE_VDISK_PING, 2)
        + vdisk_block(SNAP, 4, members12, ["127.0.0.2"], parent=PLAIN, uid=2),
        # A new data store for node 3, which belongs to none yet.
        "ds_ping_entry": hdr(DS_PING, 3)
        + record(DSE, DSE_SIZE, dict(uuid=b"ds02", name=b"second store", description=b"fuzz",
                                     sector_size=4096, replicas=1, stripes=2, overcommit=1)),
        # Node 1 leaves ds01 (node 2 stays a member).
        "ds_ping_none": hdr(DS_PING, 1),
        # With the backup channel in the header's size field.
        "aux_ping": hdr(AUX_PING, 1, nodestatus=1, size=addr("10.0.0.1"))
        + b"\x00"
        + record(AUX, AUX_SIZE, dict(length=AUX_SIZE, allocatedspace=20480, curvdisks=2,
                                     curvdisksforctrl=2, maxvdisksforctrl=64, memtotal=16384,
                                     memavail=9216)),
        "heartbeat": hdr(HEARTBEAT, 2),
        # Node 1 drops the plain VDisk; node 2's member keeps the record.
        "vdisk_deleted": hdr(VDISK_DELETED, 1) + record(VDDE, VDDE_SIZE, dict(node=1, uuid=PLAIN)),
        # Uuids of dots: allowed, and one byte away from "." and "..", which
        # must never become a path component. Without them the fuzzer has to
        # build a refused uuid at its exact offset from scratch.
        "ds_ping_dotted_uuid": hdr(DS_PING, 3)
        + record(DSE, DSE_SIZE, dict(uuid=b"...", name=b"dots", sector_size=512, replicas=1,
                                     stripes=1)),
        "ping_dotted_uuids": hdr(PING, 1)
        + vdisk_block(PLAIN, 4, members12, ["127.0.0.1"])
        + vdisk_block(SNAP, 4, members12, ["127.0.0.1"], parent=PLAIN)
        + vdisk_block(b"...", 1, [1], ["10.0.0.1"])
        + vdisk_block(b"a1b2c3d4e5f603", 1, [1], ["10.0.0.1"], parent=b"..."),
        "vdisk_deleted_dotted_uuid": hdr(VDISK_DELETED, 1)
        + record(VDDE, VDDE_SIZE, dict(node=1, uuid=b"...")),
        # And the refused ones, each where a uuid becomes a path: "..", or a
        # "/" that climbs out of the record's directory. They must be refused
        # before any path is built; should a refusal go missing, the target
        # stops at once on what they write outside the records.
        "ds_ping_uuid_dotdot": hdr(DS_PING, 3)
        + record(DSE, DSE_SIZE, dict(uuid=b"..", name=b"dots", sector_size=512)),
        "ds_ping_uuid_slash": hdr(DS_PING, 3)
        + record(DSE, DSE_SIZE, dict(uuid=b"../ds09", name=b"climbs", sector_size=512)),
        "ping_refused_uuids": hdr(PING, 1)
        + vdisk_block(b"..", 1, [1], ["10.0.0.1"])
        + vdisk_block(b"../vd09", 1, [1], ["10.0.0.1"])
        + vdisk_block(b"a1b2c3d4e5f604", 1, [1], ["10.0.0.1"], parent=b"..")
        + vdisk_block(b"a1b2c3d4e5f605", 1, [1], ["10.0.0.1"], parent=b"../vd09"),
        "vdisk_deleted_uuid_dotdot": hdr(VDISK_DELETED, 1)
        + record(VDDE, VDDE_SIZE, dict(node=1, uuid=b"..")),
        "store_json": json_ping(STORE_JSON, 1, b'{"fuzz": [1, 2, 3]}'),
        "delete_json": json_ping(DELETE_JSON, 1, b""),
        "unknown_type": hdr(UNKNOWN_TYPE, 1),
    }


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "corpus", "datagram")
    os.makedirs(out, exist_ok=True)
    for name, data in corpus().items():
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
        print("%-28s %5d bytes" % (name, len(data)))


if __name__ == "__main__":
    main()
