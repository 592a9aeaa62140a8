#!/usr/bin/env python3
"""Makes the seeds of ntfs_bitmap_fuzz: volumes of 2 MiB of which nothing is there but what tells the clusters in use."""

import pathlib
import struct

TARGET = pathlib.Path(__file__).parent / "ntfs_bitmap_fuzz"
VOLUME_BYTES = 2 << 20
RECORD_BYTES = 1024


def boot(sector_bytes, sectors_per_cluster, mft_lcn):
    sector = bytearray(512)
    sector[3:11] = b"NTFS    "
    struct.pack_into("<HB", sector, 11, sector_bytes, sectors_per_cluster & 0xFF)
    struct.pack_into("<QQQI", sector, 40, VOLUME_BYTES // sector_bytes - 1, mft_lcn, mft_lcn, 0xF6)
    return bytes(sector)


def run_list(runs):
    out = b""
    before = 0
    for lcn, clusters in runs:
        out += b"\x44" + struct.pack("<Ii", clusters, lcn - before)
        before = lcn
    return out + b"\0"


def non_resident(runs, data_bytes):
    runs_bytes = run_list(runs)
    clusters = sum(count for _, count in runs)
    length = (64 + len(runs_bytes) + 7) // 8 * 8
    head = struct.pack("<IIBBHHH", 0x80, length, 1, 0, 64, 0, 1)
    form = struct.pack("<QQHHIQQQ", 0, clusters - 1, 64, 0, 0, data_bytes, data_bytes, data_bytes)
    return (head + form + runs_bytes).ljust(length, b"\0")


def resident(value):
    length = (24 + len(value) + 7) // 8 * 8
    head = struct.pack("<IIBBHHHIHH", 0x80, length, 0, 0, 24, 0, 1, len(value), 24, 0)
    return (head + value).ljust(length, b"\0")


def record(attribute):
    head = struct.pack("<IHHQHHHHIIQHHI", 0x454C4946, 48, 3, 0, 1, 1, 56, 1, RECORD_BYTES, RECORD_BYTES, 0, 2, 0, 0)
    body = head.ljust(48, b"\0") + struct.pack("<HHH", 7, 0, 0)
    return (body.ljust(56, b"\0") + attribute + b"\xFF\xFF\xFF\xFF").ljust(RECORD_BYTES, b"\0")


def piece(offset, data):
    return struct.pack("<I", offset)[:3] + struct.pack("<H", len(data)) + data


def volume(sector_bytes, sectors_per_cluster, mft_runs, bitmap_runs):
    cluster = sector_bytes * sectors_per_cluster
    clusters = (VOLUME_BYTES // sector_bytes - 1) // sectors_per_cluster
    bitmap = bytearray((clusters + 63) // 64 * 8)
    for lcn in list(range(0, clusters, 37)) + list(range(clusters, len(bitmap) * 8)):
        bitmap[lcn // 8] |= 1 << lcn % 8
    size_byte = sectors_per_cluster if sectors_per_cluster <= 128 else 256 - (sectors_per_cluster.bit_length() - 1)
    out = piece(0, boot(sector_bytes, size_byte, mft_runs[0][0]))
    records = record(non_resident(mft_runs, 8 * RECORD_BYTES)).ljust(6 * RECORD_BYTES, b"\0")
    attribute = non_resident(bitmap_runs, len(bitmap)) if bitmap_runs else resident(bytes(bitmap))
    mft = records + record(attribute)
    for data, runs in ((mft, mft_runs), (bytes(bitmap), bitmap_runs)):
        at = 0
        for lcn, count in runs:
            part = data[at : at + count * cluster].rstrip(b"\0")
            at += count * cluster
            # The zeros between the records take no bytes of the seed.
            for start in range(0, len(part), RECORD_BYTES):
                if part[start : start + RECORD_BYTES].rstrip(b"\0"):
                    out += piece(lcn * cluster + start, part[start : start + RECORD_BYTES].rstrip(b"\0"))
    return out


SEEDS = {
    "clusters-of-512": volume(512, 1, [(16, 16)], [(64, 2)]),
    "clusters-of-4096": volume(512, 8, [(4, 2)], [(10, 1)]),
    "clusters-of-131072": volume(512, 256, [(1, 1)], [(2, 1)]),
    "sectors-of-4096": volume(4096, 1, [(4, 2)], [(10, 1)]),
    "bitmap-in-its-record": volume(512, 8, [(4, 2)], []),
    "runs-of-each": volume(512, 1, [(16, 4), (200, 12)], [(500, 1), (100, 1)]),
}

TARGET.mkdir(exist_ok=True)
for name, data in SEEDS.items():
    (TARGET / name).write_bytes(data)
