#!/usr/bin/env python3
"""Writes the seeds of agent_managed_volumes_fuzz: fuzz/corpus/make_managed_volume_seeds.py [DIRECTORY]

As the seeds of make_seeds.py they are small and made by their own offsets. What a fuzzer found is
kept beside them under found-*, and isn't touched. A seed is a row of pieces: the number of a disk,
a sector, a length and the bytes that lie there. The target mends LVM2's checksums.
"""
import pathlib
import struct
import sys

SECTOR = 512
CONFIG = 256  # where a dynamic disk's database begins
ONES = (1 << 64) - 1


def piece(disk, lba, data):
    return struct.pack("<BHH", disk, lba, len(data)) + data


def mbr(kind, first, count):
    record = bytearray(SECTOR)
    record[446:462] = struct.pack("<B3sB3sII", 0, bytes(3), kind, bytes(3), first, count)
    record[510:] = b"\x55\xaa"
    return bytes(record)


def number(value):
    data = value.to_bytes(max(1, (value.bit_length() + 7) // 8), "big")
    return bytes([len(data)]) + data


def text(value):
    return bytes([len(value)]) + value


def guid(kind, index):
    return b"%c01c2d3e-4f50-4a6b-8c7d-%012x" % (kind, index)


def disk_group():
    return 0x35, 0, number(1) + text(b"Dg0") + text(guid(b"6", 0)) + bytes(8)


def disk(index):
    return 0x34, 0, number(2 + index) + text(b"Disk%d" % index) + text(guid(b"d", index)) + text(b"") + bytes(8)


def volume(identity, children, kind=b"gen", state=b"ACTIVE"):
    return 0x51, 0, (number(identity) + text(b"Volume") + text(kind) + text(b"") + state.ljust(16, b"\0") + bytes(5)
                     + number(children) + bytes(16) + number(64) + bytes(4) + b"\x07" + bytes(15) + bytes([identity]))


def component(identity, parent, children, layout=2, stripe=None):
    fields = (number(identity) + text(b"Plex") + text(b"ACTIVE") + bytes([layout]) + bytes(4) + number(children)
              + bytes(16) + number(parent) + b"\0")
    return 0x32, 0x10 if stripe is not None else 0, fields + (number(stripe) + number(children)
                                                             if stripe is not None else b"")


def partition(identity, parent, on, start, count, at=0, column=None):
    fields = (number(identity) + text(b"Part") + bytes(12) + struct.pack(">QQ", start, at) + number(count)
              + number(parent) + number(2 + on))
    return 0x33, 8 if column is not None else 0, fields + (number(column) if column is not None else b"")


def slots(records, size, order=None):
    room = size - 16
    fragments = []
    for group, (kind, flags, fields) in enumerate(records):
        rest = bytes(2) + bytes([flags, kind]) + struct.pack(">I", len(fields)) + fields
        count = -(-len(rest) // room)
        fragments += [(group, index, count, rest[index * room : (index + 1) * room].ljust(room, b"\0"))
                      for index in range(count)]
    if order:
        fragments = order(fragments)
    return b"".join(b"VBLK" + struct.pack(">IIHH", SECTOR // size + at, group, index, count) + rest
                    for at, (group, index, count, rest) in enumerate(fragments))


def database(index, records, size=128, commit=7, order=None):
    head = bytearray(SECTOR)
    head[0:8] = b"PRIVHEAD"
    head[12:16] = struct.pack(">HH", 2, 11)
    head[48:84] = guid(b"d", index)
    head[283:315] = struct.pack(">QQQQ", 63, 190, CONFIG, 256)
    toc = bytearray(104)
    toc[0:8] = b"TOCBLOCK"
    toc[36:42] = b"config"
    toc[46:62] = struct.pack(">QQ", 3, 40)
    toc[70:73] = b"log"
    toc[80:96] = struct.pack(">QQ", 43, 2)
    area = slots(records, size, order)
    vmdb = bytearray(SECTOR)
    vmdb[0:4] = b"VMDB"
    vmdb[4:22] = struct.pack(">IIIHHH", SECTOR // size + len(area) // size, size, SECTOR, 1, 4, 10)
    vmdb[117:125] = struct.pack(">Q", commit)
    return (piece(index, 0, mbr(0x42, 63, 190)) + piece(index, 6, bytes(head)) + piece(index, CONFIG + 1, bytes(toc))
            + piece(index, CONFIG + 3, bytes(vmdb) + area))


def group(records, disks=(0, 1, 2), **changes):
    whole = [disk_group(), *(disk(index) for index in range(3)), *records]
    return b"".join(database(index, whole, **changes) for index in disks)


def columns(layout, kind, count=3):
    return [volume(10, 1, kind), component(11, 10, count, layout, 4),
            *(partition(12 + at, 11, at % 3, 40 * at, 16, column=at) for at in range(count))]


def label(identity):
    sector = bytearray(SECTOR)
    sector[0:72] = struct.pack("<8sQII8s32sQ", b"LABELONE", 1, 0, 32, b"LVM2 001", identity, 1 << 18)
    sector[72:136] = struct.pack("<QQQQQQQQ", 20480, 0, 0, 0, 4096, 16384, 0, 0)
    return bytes(sector)


def area(metadata, offset=SECTOR, flags=0, size=16384):
    sector = bytearray(SECTOR)
    sector[4:40] = struct.pack("<16sIQQ", b" LVM2 x[5A%r0N*>", 1, 4096, size)
    sector[40:64] = struct.pack("<QQII", offset, len(metadata), 0, flags)
    return bytes(sector) + metadata


def metadata(logical, sequence=1, extent=8):
    physical = "".join(f'pv{at} {{ id = "{chr(105 + at) * 32}" device = "/dev/sd{at}" pe_start = 40 pe_count = 40 }}\n'
                       for at in range(3))
    return (f'vg {{\nid = "G"\nseqno = {sequence}\nextent_size = {extent}\nphysical_volumes {{\n{physical}}}\n'
            f"logical_volumes {{\n{logical}}}\n}} # vg\n").encode() + b"\0"


def segment(index, start, count, stripes, lines="", kind="striped"):
    places = ", ".join(f'"pv{on}", {extent}' for on, extent in stripes)
    return (f'segment{index} {{ start_extent = {start} extent_count = {count} type = "{kind}" '
            f"stripe_count = {len(stripes)} {lines} stripes = [ {places} ] }}\n")


def logical(name, *segments, status='["READ", "VISIBLE"]'):
    return f'{name} {{ id = "L" status = {status}\n{"".join(segments)}}}\n'


def physical(index, data, lba=0):
    table = piece(index, 0, mbr(0x8E, 64, 400)) if lba else b""
    return table + piece(index, lba + 1, label(bytes([105 + index]) * 32)) + piece(index, lba + 8, area(data))


def seeds():
    span = [volume(10, 1), component(11, 10, 2), partition(12, 11, 1, 5, 30), partition(13, 11, 0, 90, 34, 30)]
    mirror = [volume(20, 2), component(21, 20, 1), partition(22, 21, 0, 0, 20), component(23, 20, 1),
              partition(24, 23, 1, 7, 20)]
    striped = columns(1, b"gen")
    raid5 = columns(3, b"raid5")
    content = b"".join(piece(at, 63, bytes(range(at, 256)) * 8) for at in range(3))
    linear = logical("root", segment(1, 0, 2, [(0, 1)]), segment(2, 2, 3, [(1, 4)]))
    stripes = logical("fast", segment(1, 0, 6, [(0, 9), (1, 9), (2, 9)], "stripe_size = 4"),
                      segment(2, 6, 2, [(2, 0), (0, 0)], "stripe_size = 8"))
    others = (logical("thin", segment(1, 0, 2, [], kind="thin")) + logical("part", segment(1, 0, 1, [(0, 20)]),
                                                                           status="[]")
              + logical("snapshot0", segment(1, 0, 1, [], 'origin = "root" cow_store = "part"', "snapshot")))
    wild = logical("wild", segment(1, 0, ONES, [(0, ONES)]), segment(2, ONES, 1, [(7, 0)]))
    everything = metadata(linear + stripes + others)
    return {
        "dynamic-span": content + group(span),
        "dynamic-mirror": content + group(mirror),
        "dynamic-stripes": content + group(striped),
        "dynamic-raid5": content + group(raid5),
        "dynamic-raid5-without-one": content + group(raid5, (0, 1)),
        "dynamic-all": content + group(span + mirror),
        "dynamic-fragments": content + group(span, size=32),
        "dynamic-fragments-reversed": content + group(raid5, size=64, order=lambda all: all[::-1]),
        "dynamic-of-two-ages": content + group(span, (0,), commit=9) + group(mirror, (1,)),
        "dynamic-not-active": group([volume(10, 1, state=b"BROKEN"), *span[1:]]),
        "dynamic-wild": group([volume(10, 1), component(11, 10, 1), partition(12, 11, 0, ONES, ONES, 0)]),
        "lvm2-whole": b"".join(physical(at, everything) for at in range(3)),
        "lvm2-partitions": b"".join(physical(at, everything, 64) for at in range(3)),
        "lvm2-without-one": physical(1, everything) + physical(2, everything, 64),
        "lvm2-of-two-ages": physical(0, metadata(linear)) + physical(1, metadata(stripes, 2)),
        "lvm2-of-one-age": physical(0, metadata(linear)) + physical(1, metadata(stripes)),
        "lvm2-wild": physical(0, metadata(wild)),
        "lvm2-large-extents": physical(0, metadata(linear, extent=1 << 54)),
        "lvm2-broken": physical(0, everything[:300]),
        "both": group(span, (0, 1)) + physical(2, metadata(linear)),
        "empty": b"",
    }


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent)
    root /= "agent_managed_volumes_fuzz"
    root.mkdir(parents=True, exist_ok=True)
    for name, data in seeds().items():
        (root / name).write_bytes(bytes(data))


if __name__ == "__main__":
    main()
