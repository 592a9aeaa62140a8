#!/usr/bin/env python3
"""Writes the seeds of metadata_files_fuzz: fuzz/corpus/make_metadata_files_seeds.py [DIRECTORY]

Their form stands in the target: signatures and update sequences are left out, the target puts them in. As the seeds of
make_seeds.py they are small and made by their own offsets. What a fuzzer found is kept beside them under found-*, and
isn't touched.
"""
import pathlib
import struct
import sys

RECORD = 512
END = b"\xff\xff\xff\xff" + bytes(4)
ONES = (1 << 64) - 1


def padded(data):
    return bytes(data) + bytes(-len(data) % 8)


def run(length, offset):
    return struct.pack("<BBh", 0x21, length, offset)


def value(kind, content, name="", instance=1):
    text = name.encode("utf-16-le")
    start = 24 + len(padded(text))
    body = padded(text) + padded(content)
    return struct.pack("<IIBBHHHIHH", kind, 24 + len(body), 0, len(name), 24, 0, instance, len(content), start, 0) + body


def clusters(kind, runs, size, name="", unit=0, lowest=0, highest=9, instance=1):
    text = padded(name.encode("utf-16-le"))
    head = 72 if unit else 64
    body = text + padded(runs + b"\0")
    form = struct.pack("<QQHHIQQQ", lowest, highest, head + len(text), unit, 0, 4096, size, size)
    return (struct.pack("<IIBBHHH", kind, head + len(body), 1, len(name), head, 0, instance) + form +
            struct.pack("<Q", 4096)[: head - 64] + body)


def record(*attributes, flags=1, base=0, end=END):
    head = struct.pack("<4sHHQHHHHIIQH", b"FILE", 42, 2, 0, 1, 1, 48, flags, RECORD, RECORD, base, 0)
    return (head.ljust(48, b"\0") + b"".join(attributes) + end).ljust(RECORD, b"\0")[:RECORD]


def information(record_bytes=RECORD, sector=512, object_id=b"0123456789ABCDEF", extents=bytes(8)):
    volume = struct.pack("<QQQQQIIII", 1, 2, 3, 0, 0, sector, 4096, record_bytes, 1)
    return bytes(4) + volume.ljust(96, b"\0") + object_id + extents


def descriptors(*pairs):
    return b"".join(struct.pack("<II", number, len(data)) + data for number, data in pairs)


def seed(mft=b"", info=None, associates=b"", security=b"", directory=b"", without=0):
    parts = (information() if info is None else info, associates, security, directory)
    return bytes((without,)) + b"".join(struct.pack("<I", len(part))[:3] for part in parts) + b"".join(parts) + mft


def standard(security_id=256):
    return value(0x10, struct.pack("<QQQQI12sII", 1, 2, 3, 4, 0x20, b"", 0, security_id) + bytes(16), instance=0)


def name(text, kind=3):
    return value(0x30, struct.pack("<Q", 5) + bytes(56) + bytes((len(text), kind)) + text.encode("utf-16-le"))


def seeds():
    security = descriptors((255, b"x" * 20), (256, b"descriptor of 256"), (257, b""))
    small = record(standard(), name("file"), value(0x80, b"contents", instance=2), value(0x80, b"more", "s", 3))
    ids = record(standard(), value(0x40, b"an object's id!!"), value(0xC0, b"reparse", "name"), value(0xE0, b"12345678"))
    big = record(standard(257), clusters(0x80, run(5, 100) + run(3, -20), 30000, instance=4))
    folder = record(standard(), name("d"), clusters(0xA0, run(1, 9), 4096, "$I30"), flags=3)
    parts = [record(clusters(0x80, run(2, 40), 99, lowest=0, highest=1, instance=1), value(0x80, b"a", "n", 2)),
             record(clusters(0x80, run(2, 60), 0, lowest=2, highest=3, instance=1), base=3),
             record(clusters(0x80, run(2, 80), 0, lowest=4, highest=1, instance=2), value(0x80, b"b", "m", 5), base=3)]
    joined = big + bytes(RECORD * 2) + b"".join(parts)
    directory = b"d0 5 0 5f5e1000 2|C:" + b"f5 28 ffffffffffffffff ffffffff 6|a b|c\n" + b"f5 29 0 0 0|"
    return {
        "usual": seed(small + ids + big + folder, security=security, directory=directory),
        "joined": seed(joined, associates=b"3 4\n3 5\n0 1\n", security=security),
        "joined-twice": seed(joined, associates=b"3 4\n3 4\n3 3\n4 5\n", security=security),
        "compressed": seed(record(standard(), clusters(0x80, run(4, 9), 60000, unit=4))),
        "no-content": seed(record(clusters(0x80, b"", 0), clusters(0x80, run(1, 1), 9, "x", instance=2))),
        "segment-of-itself": seed(record(clusters(0x80, run(1, 1), 9, highest=ONES))),
        "runs-without-end": seed(record(clusters(0x80, run(1, 1) * 8, 9)[:-8] + run(1, 1) * 2)),
        "own-descriptor": seed(record(standard(), value(0x50, b"own"), value(0x80, b"x"))),
        "no-standard": seed(record(value(0x80, b"x")), security=security),
        "no-attributes": seed(record()),
        "no-end": seed(record(standard(), end=b"")),
        "length-0": seed(record(b"\x80\0\0\0" + bytes(20))),
        "extension": seed(record(base=7) + record(flags=0)),
        "record-of-1024": seed(small + small, information(1024)),
        "record-of-0": seed(small, information(0)),
        "record-of-40": seed(small, information(40)),
        "sector-of-0": seed(small, information(sector=0)),
        "no-extents": seed(small, information(extents=b"")),
        "bad-line": seed(small, associates=b"0 1\n0 x\n"),
        "many-lines": seed(small, associates=b"0 0\n" * 300),
        "security-far-away": seed(small, security=struct.pack("<II", 7, 0xFFFFFFFF) + security),
        "security-cut": seed(small, security=security[:-9]),
        "name-too-long": seed(directory=b"f1 2 3 4 417|x"),
        "directory-cut": seed(directory=directory[:-12]),
        "no-signatures": seed(small, without=15),
        "nothing": b"",
    }


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent)
    target = root / "metadata_files_fuzz"
    target.mkdir(parents=True, exist_ok=True)
    for title, data in seeds().items():
        (target / title).write_bytes(data)


main()
