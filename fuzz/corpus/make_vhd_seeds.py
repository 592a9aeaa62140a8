#!/usr/bin/env python3
"""Writes the seeds of vhd_fuzz: fuzz/corpus/make_vhd_seeds.py [DIRECTORY]

As the seeds of make_seeds.py they are small and made by their own offsets. What a fuzzer found is
kept beside them under found-*, and isn't touched.
"""
import pathlib
import struct
import sys

SECTOR = 512
HOLE = 0xFFFFFFFF


def put(image, offset, data):
    if len(image) < offset + len(data):
        image.extend(bytes(offset + len(data) - len(image)))
    image[offset : offset + len(data)] = data


def checksum(structure, offset):
    put(structure, offset, bytes(4))
    put(structure, offset, struct.pack(">I", ~sum(structure) & 0xFFFFFFFF))
    return bytes(structure)


def footer(disk_type=3, sectors=12, data_offset=SECTOR, cookie=b"conectix", version=0x10000, size=None):
    size = sectors * SECTOR if size is None else size
    image = bytearray(SECTOR)
    put(image, 0, struct.pack(">8sIIQI4sI4sQQHBBI", cookie, 2, version, data_offset, 0x2D3A4B5C, b"tstb", 0x10002,
                              b"Wi2k", size, size, 1, 4, 17, disk_type))
    put(image, 68, bytes(range(16)))
    return checksum(image, 64)


def header(entries=3, block=4 * SECTOR, table_offset=3 * SECTOR, cookie=b"cxsparse", version=0x10000, locators=()):
    image = bytearray(2 * SECTOR)
    put(image, 0, struct.pack(">8sQQIII", cookie, (1 << 64) - 1, table_offset, version, entries, block))
    for slot, (code, length, offset) in enumerate(locators):
        put(image, 576 + 24 * slot, struct.pack(">4sIIIQ", code, SECTOR, length, 0, offset))
    return checksum(image, 36)


def dynamic(table=(4, HOLE, 9), bitmaps=(0xF0, 0x90), end=None, pieces=(), **changes):
    """Three blocks of 4 sectors, the first and the last of them held."""
    footer_changes = {key: changes.pop(key) for key in ("disk_type", "sectors", "data_offset", "size")
                      if key in changes}
    image = bytearray(footer(**footer_changes) + header(**changes))
    put(image, 3 * SECTOR, struct.pack(f">{len(table)}I", *table))
    for number, (bits, letter) in enumerate(zip(bitmaps, b"AC")):
        put(image, (4 + 5 * number) * SECTOR, bytes([bits]) + bytes(SECTOR - 1) + bytes([letter]) * 4 * SECTOR)
    for offset, data in pieces:
        put(image, offset, data)
    return bytes(image) + (footer(**footer_changes) if end is None else end)


def fixed(sectors=4, size=None, data=b"F"):
    return data * sectors * SECTOR + footer(2, sectors, (1 << 64) - 1, size=size)


def small(table, **changes):
    """Without blocks: the hole that the target puts before the footer holds them."""
    return dynamic(table=table, bitmaps=(), entries=len(table), **changes)


def record(image, is_fixed=False):
    """The body of the record of an image without locators."""
    position = b"%016x" % (len(image) - SECTOR)
    parts = b"" if is_fixed else image[: 3 * SECTOR] + image[3 * SECTOR : 3 * SECTOR + 12]
    return parts + position + image[-SECTOR:]


def seeds():
    ones = (1 << 64) - 1
    parent = [(14 * SECTOR, "..\\parent.vhd".encode("utf-16-le"))]
    locators = [(b"W2ru", 26, 14 * SECTOR), (b"\0" * 4, 0, 0), (b"W2ku", 26, 14 * SECTOR)]
    return {
        "fixed": fixed(),
        "fixed-of-no-sectors": fixed(0),
        "fixed-of-one-sector": fixed(1),
        "fixed-larger-than-its-file": fixed(4, size=100 * SECTOR),
        "fixed-size-511": fixed(4, size=511),
        "fixed-size-all-ones": fixed(1, size=ones),
        "fixed-513-bytes": b"x" + footer(2, 1),
        "dynamic": dynamic(),
        "dynamic-small": small((4, HOLE, 9, HOLE), sectors=16),
        "dynamic-eight-blocks": small((10, 15, 20, 25, HOLE, 30, 35, 40), sectors=32),
        "dynamic-all-one-block": small((10,) * 16, sectors=64),
        "dynamic-overlapping": small((4, 5, 6, 3, 0, 1), sectors=24),
        "dynamic-entry-outside": small((0xFFFFFFFE, 0x7FFFFFFF, 80), sectors=12),
        "dynamic-short-table": small((10,), sectors=100),
        "dynamic-long-table": small((HOLE,) * 40 + (10,), sectors=12),
        "dynamic-odd-sectors": dynamic(sectors=11),
        "dynamic-of-no-sectors": dynamic(sectors=0),
        "dynamic-of-one-sector": small((10,), sectors=1),
        "dynamic-entries-all-ones": dynamic(entries=0xFFFFFFFF),
        "dynamic-no-entries": dynamic(entries=0),
        "dynamic-block-0": dynamic(block=0),
        "dynamic-block-511": dynamic(block=511),
        "dynamic-block-512": small((10, 12, HOLE, 14), sectors=4, block=SECTOR),
        "dynamic-block-1000": small((10, 12), sectors=4, block=1000),
        "dynamic-block-2-to-31": dynamic(block=1 << 31),
        "dynamic-block-all-ones": dynamic(block=0xFFFFFFFF),
        "dynamic-table-behind-the-end": dynamic(table_offset=1 << 40),
        "dynamic-table-at-all-ones": dynamic(table_offset=ones),
        "dynamic-table-in-the-footer": dynamic(table_offset=14 * SECTOR),
        "dynamic-header-at-0": dynamic(data_offset=0),
        "dynamic-header-at-all-ones": dynamic(data_offset=ones),
        "dynamic-header-cookie": dynamic(cookie=b"cxsparsf"),
        "dynamic-header-version": dynamic(version=0x20000),
        "dynamic-other-copy": dynamic(end=footer(sectors=8)),
        "differencing": dynamic(disk_type=4, pieces=parent, locators=locators),
        "differencing-locator-of-2-to-32": dynamic(disk_type=4, locators=[(b"W2ru", 0xFFFFFFFF, 14 * SECTOR)]),
        "differencing-locator-at-all-ones": dynamic(disk_type=4, locators=[(b"W2ru", 1, ones)]),
        "differencing-many-clear-bits": dynamic(disk_type=4, bitmaps=(0x50, 0x00)),
        "footer-alone": footer(),
        "footer-cookie": footer(cookie=b"Conectix"),
        "footer-version": footer(version=0x10001),
        "footer-cut": footer()[:511],
        "record-fixed": record(fixed(), True),
        "record-dynamic": record(dynamic()),
        "record-footer-far-away": record(fixed(), True).replace(b"%016x" % (4 * SECTOR), b"%016x" % (1 << 62)),
        "record-footer-nowhere": record(fixed(), True).replace(b"%016x" % (4 * SECTOR), b"f" * 16),
        "record-cut": record(dynamic())[:-1],
        "empty": b"",
    }


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent) / "vhd_fuzz"
    root.mkdir(parents=True, exist_ok=True)
    for name, data in seeds().items():
        (root / name).write_bytes(bytes(data))


main()
