#!/usr/bin/env python3
"""Writes the seeds of ntfs_record_fuzz, lznt1_fuzz and ntfs_index_fuzz: fuzz/corpus/make_ntfs_seeds.py [DIRECTORY]

As the seeds of make_seeds.py they are small and made by their own offsets: the records have two
sectors or one. What a fuzzer found is kept beside them under found-*, and isn't touched.
"""
import pathlib
import struct
import sys

SECTOR = 512
ARRAY = 48
END = b"\xff\xff\xff\xff"


def put(image, offset, data):
    if len(image) < offset + len(data):
        image.extend(bytes(offset + len(data) - len(image)))
    image[offset : offset + len(data)] = data


def padded(data):
    return bytes(data) + bytes(-len(data) % 8)


def run(length, offset=None, widths=None):
    length_width = max(1, (length.bit_length() + 8) // 8)
    offset_width = 0 if offset is None else max(1, (offset.bit_length() + 8) // 8)
    if widths:
        length_width, offset_width = widths
    mask = lambda value, width: (value & ((1 << 8 * width) - 1)).to_bytes(width, "little")
    return bytes((length_width | offset_width << 4,)) + mask(length, length_width) + mask(offset or 0, offset_width)


def attribute(kind, name, head, content, resident, length=None):
    image = bytearray(head)
    text = name.encode("utf-16-le")
    put(image, 9, struct.pack("<BH", len(name), len(image) if name else 0))
    image.extend(text)
    image = bytearray(padded(image))
    content_offset = len(image)
    image = bytearray(padded(image + content))
    put(image, 0, struct.pack("<II", kind, len(image) if length is None else length))
    put(image, 8, b"\0" if resident else b"\1")
    return image, content_offset


def value(kind, content, name="", length=None):
    image, offset = attribute(kind, name, bytes(24), content, True, length)
    put(image, 16, struct.pack("<IH", len(content), offset))
    return bytes(image)


def clusters(kind, runs, size, name="", unit=0, lowest=0, highest=9, length=None):
    image, offset = attribute(kind, name, bytes(72 if unit else 64), runs, False, length)
    put(image, 16, struct.pack("<QQHHIQQQ", lowest, highest, offset, unit, 0, size, size, size))
    return bytes(image)


def record(*attributes, signature=b"FILE", first=56, size=1024, array=ARRAY, count=None, end=END):
    image = bytearray(size)
    count = size // SECTOR + 1 if count is None else count
    put(image, 0, struct.pack("<4sHH", signature, array, count))
    put(image, 16, struct.pack("<HHHHII", 1, 1, first, 1, size, size))
    put(image, first, b"".join(attributes) + end)
    put(image, ARRAY, struct.pack("<H", 7))
    for sector in range(size // SECTOR):
        put(image, ARRAY + 2 + 2 * sector, image[(sector + 1) * SECTOR - 2 : (sector + 1) * SECTOR])
        put(image, (sector + 1) * SECTOR - 2, struct.pack("<H", 7))
    return bytes(image)


def index(count=9):
    image = bytearray(record(signature=b"INDX", size=1024, count=count, end=b""))
    put(image, 24, struct.pack("<IIII", 64, 80, 1000, 0) + bytes(48) + struct.pack("<QHHI", 0, 16, 0, 2))
    return bytes(image)


def record_seeds():
    runs = run(16, 1000) + run(16) + run(8, -300) + run(70000, 1 << 30) + b"\0"
    usual = (value(0x10, bytes(72)), value(0x30, bytes(66) + "file".encode("utf-16-le")), clusters(0x80, runs, 5000))
    return {
        "usual": record(*usual),
        "one-sector": record(value(0x80, b"small"), size=512),
        "no-attributes": record(),
        "attribute-list": record(usual[0], value(0x20, struct.pack("<IHBBQQH", 0x80, 32, 0, 26, 0, 40, 0) + bytes(6))),
        "streams": record(*usual, value(0x80, b"stream", "stream"), clusters(0x80, runs, 4096, "more")),
        "compressed": record(clusters(0x80, runs, 5000, unit=4)),
        "index-root": record(value(0x90, struct.pack("<IIIIIIIIQHHI", 0x30, 1, 4096, 1, 16, 32, 32, 0, 0, 16, 0, 2),
                                   "$I30"), clusters(0xA0, runs, 4096, "$I30")),
        "no-end": record(*usual, end=b""),
        "length-0": record(value(0x80, b"", length=0)),
        "length-12": record(value(0x80, b"", length=12)),
        "length-of-all-ones": record(value(0x80, b"", length=0xFFFFFFFF)),
        "first-at-the-end": record(*usual)[:20] + b"\xff\xff" + record(*usual)[22:],
        "array-behind-the-end": record(*usual, array=0xFFFF),
        "count-of-all-ones": record(*usual, count=0xFFFF),
        "not-mended": record(*usual, count=1),
        "index": index(3),
        "runs": runs,
        "runs-wide": run(3, -1, (8, 8)) + run((1 << 64) - 5, 1, (8, 1)) + b"\0",
        "runs-too-wide": run(1, 1) + b"\x91" + bytes(10),
        "runs-without-length": b"\x10\x05\x01\x03\x11\x01\x01\0",
        "runs-without-end": run(1, 1) * 30,
        "empty": b"",
    }


def chunk(inside, compressed=True):
    return struct.pack("<H", (0xB000 if compressed else 0x3000) | (len(inside) - 1)) + inside


def chunk_seeds():
    steps = b"".join(b"\x80" + bytes(range(65 + turn, 72 + turn)) + b"\0\x10" for turn in range(12))
    return {
        "literals": chunk(b"\0abcdefgh\0ijk"),
        "matches": chunk(b"\x04ab\x03\x10"),
        "longest": chunk(b"\x02x\xfc\x0f"),
        "too-long": chunk(b"\x02x\xfd\x0f"),
        "before-the-start": chunk(b"\x01\0\0"),
        "steps": chunk(steps),
        "stored": chunk(bytes(range(256)) * 16, False),
        "two-chunks": chunk(b"\0abc") + chunk(b"\0def") + b"\0\0",
        "token-cut": chunk(b"\x02a\x01") + b"\0",
        "cut": chunk(b"\x04ab\x03\x10")[:-1],
        "end": b"\0\0",
        "empty": b"",
    }


def entry(name="", frn=5, flags=0, length=None, name_length=None, attributes=1):
    key = bytes(56) + struct.pack("<IIBB", attributes, 0, len(name) if name_length is None else name_length, 3)
    name_bytes = key + name.encode("utf-16-le") if name else b""
    content = bytearray(padded(struct.pack("<QHHI", frn, 0, 0, flags) + name_bytes))
    put(content, 8, struct.pack("<H", len(content) if length is None else length))
    return bytes(content)


def node(*entries, first=16):
    content = b"".join(entries)
    return struct.pack("<IIII", first, 16 + len(content), 16 + len(content), 0) + content


def index_seeds():
    last = entry(flags=2)
    names = [entry(name, number) for number, name in enumerate(("$Secure", "A", "b", "Name of a file.txt"), 2)]
    second_block = b"INDX" + struct.pack("<HH", 40, 1) + bytes(16) + node(names[2], last)
    return {
        "names": node(*names, last),
        "files-with-long-names": node(entry("x", 6, attributes=0), entry("y", 7, attributes=0), last),
        "nothing": node(last),
        "no-last": node(*names),
        "sub-node": node(names[0], entry(flags=3) + bytes(8)),
        "length-0": node(entry("x", length=0), last),
        "length-8": node(entry("x", length=8), last),
        "length-of-all-ones": node(entry("x", length=0xFFFF), last),
        "name-behind-the-end": node(entry("x", name_length=255)),
        "entry-without-name": node(entry(), last),
        "first-at-0": node(*names, last, first=0),
        "first-at-all-ones": node(*names, last, first=0xFFFFFFFF),
        "cut": node(*names, last)[:40],
        "two-blocks": node(names[1], last).ljust(4072, b"\0") + second_block,
        "empty": b"",
    }


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent)
    targets = {"ntfs_record_fuzz": record_seeds(), "lznt1_fuzz": chunk_seeds(), "ntfs_index_fuzz": index_seeds()}
    for target, seeds in targets.items():
        (root / target).mkdir(parents=True, exist_ok=True)
        for name, data in seeds.items():
            (root / target / name).write_bytes(bytes(data))


main()
