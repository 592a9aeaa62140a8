#!/usr/bin/env python3
"""Writes the seeds of ntfs_volume_fuzz and agent_ntfs_fuzz.

make_ntfs_volume_seeds.py IMAGE NAME   turns a volume of 2 MiB, as mkntfs makes it, into the seed NAME of both
make_ntfs_volume_seeds.py              writes the seeds that are changes of those: a hole where a table should be, ...

The form is that of fuzz/support/NtfsImage.h. What no reader looks at (the log, the table of upper case and the like)
and clusters of one byte again and again are left out, and the update sequences are taken out of the records.
"""
import pathlib
import struct
import sys

SECTOR = 512
IMAGE_BYTES = 2 << 20
GAP = 32  # zeros that part two pieces
LEFT_OUT = (1, 2, 4, 6, 8, 10)  # $MFTMirr, $LogFile, $AttrDef, $Bitmap, $BadClus, $UpCase
HERE = pathlib.Path(__file__).parent
RECORD = 1024
NO_TYPE = 0x110  # of an attribute that nobody looks for
TARGETS = ("ntfs_volume_fuzz", "agent_ntfs_fuzz")


def number(data, offset, width):
    return int.from_bytes(data[offset : offset + width], "little")


def without_sequences(image):
    for at in range(0, len(image), SECTOR):
        if image[at : at + 4] not in (b"FILE", b"INDX"):
            continue
        array, count = at + number(image, at + 4, 2), number(image, at + 6, 2)
        for sector in range(1, count):
            end = at + sector * SECTOR
            image[end - 2 : end] = image[array + 2 * sector : array + 2 * sector + 2]


def runs_of(record):
    """The (lcn, clusters) of every attribute of a record that isn't resident; None for a hole's lcn."""
    at = number(record, 20, 2)
    while number(record, at, 4) != 0xFFFFFFFF:
        if record[at + 8]:
            place, lcn = at + number(record, at + 32, 2), 0
            while record[place]:
                low, high = record[place] & 15, record[place] >> 4
                clusters = number(record, place + 1, low)
                step = int.from_bytes(record[place + 1 + low : place + 1 + low + high], "little", signed=True)
                lcn += step
                yield (lcn if high else None), clusters
                place += 1 + low + high
        at += number(record, at + 4, 4)


def reduce(image):
    cluster = number(image, 11, 2) * image[13]
    mft = number(image, 48, 8) * cluster
    for frn in LEFT_OUT:
        record = image[mft + RECORD * frn : mft + RECORD * (frn + 1)]
        for lcn, clusters in list(runs_of(record)):
            if lcn is not None:
                image[lcn * cluster : (lcn + clusters) * cluster] = bytes(clusters * cluster)
    for at in range(0, len(image), SECTOR):
        if len(set(image[at : at + SECTOR])) == 1:
            image[at : at + SECTOR] = bytes(SECTOR)
    image[84 : SECTOR - 2] = bytes(SECTOR - 2 - 84)
    image[IMAGE_BYTES - SECTOR :] = bytes(SECTOR)


def pieces(image):
    at = 0
    seed = bytearray()
    while True:
        while at < len(image) and image[at] == 0:
            at += 1
        if at >= len(image):
            return bytes(seed)
        start = at - at % 8
        end = image.find(bytes(GAP), at)
        end = len(image) if end < 0 else min(len(image), (end + 7) // 8 * 8)
        end = min(end, start + 0xFFF8)
        seed += piece(start, image[start:end])
        at = end


def piece(offset, data):
    return offset.to_bytes(3, "little") + struct.pack("<H", len(data)) + bytes(data)


def write(name, seed):
    for target in TARGETS:
        (HERE / target).mkdir(parents=True, exist_ok=True)
        (HERE / target / name).write_bytes(seed)


def turn_image(path, name):
    image = bytearray(pathlib.Path(path).read_bytes()[:IMAGE_BYTES])
    without_sequences(image)
    reduce(image)
    write(name, pieces(image))


def image_of(seed):
    image, at = bytearray(IMAGE_BYTES), 0
    while at < len(seed):
        offset, length = number(seed, at, 3), number(seed, at + 3, 2)
        image[offset : offset + length] = seed[at + 5 : at + 5 + length]
        at += 5 + length
    return image


def with_hole(seed, frn, kind, name, clusters, flags=0):
    """The seed with an attribute of nothing but a hole in place of those of its type."""
    image = image_of(seed)
    cluster = number(image, 11, 2) * image[13]
    record = number(image, 48, 8) * cluster + RECORD * frn
    at = record + number(image, record + 20, 2)
    change = b""
    while number(image, at, 4) != 0xFFFFFFFF:
        if number(image, at, 4) == kind:
            change += piece(at, struct.pack("<I", NO_TYPE))
        at += number(image, at + 4, 4)
    text = name.encode("utf-16-le")
    runs = 64 + (len(text) + 7) // 8 * 8
    size = min(clusters * cluster, 1 << 62)
    head = struct.pack("<IIBBHHH", kind, runs + 16, 1, len(name), 64, flags, 0)
    head += struct.pack("<QQHHIQQQ", 0, clusters - 1, runs, 0, 0, size, size, size)
    hole = b"\x08" + struct.pack("<Q", clusters)
    attribute = (head + text).ljust(runs, b"\0") + hole.ljust(16, b"\0")
    assert at + len(attribute) + 8 <= record + RECORD
    return seed + change + piece(at, attribute + b"\xff\xff\xff\xff")


def with_few_records(seed):
    """The seed with the boot sector and what it takes to find and read $Secure, and one file."""
    image = image_of(seed)
    cluster = number(image, 11, 2) * image[13]
    mft = number(image, 48, 8) * cluster
    few = bytearray(IMAGE_BYTES)
    few[:SECTOR] = image[:SECTOR]
    for frn in (0, 3, 5, 9, 12):
        record = mft + RECORD * frn
        few[record : record + RECORD] = image[record : record + RECORD]
        for lcn, clusters in list(runs_of(few[record : record + RECORD])) if frn in (5, 9) else ():
            few[lcn * cluster : (lcn + clusters) * cluster] = image[lcn * cluster : (lcn + clusters) * cluster]
    return pieces(few)


def write_changes():
    base = with_few_records((HERE / TARGETS[0] / "clusters-of-1024").read_bytes())
    write("directory-of-a-hole", with_hole(base, 5, 0xA0, "$I30", 1 << 40))
    write("descriptor-ids-in-a-hole", with_hole(base, 9, 0xA0, "$SII", 1 << 40))
    write("attribute-list-of-a-hole", with_hole(base, 12, 0x20, "", 1 << 20))
    write("data-of-a-hole", with_hole(base, 12, 0x80, "", 1 << 52))
    write("sparse-data-of-a-hole", with_hole(base, 12, 0x80, "", 1 << 52, 0x8000))
    write("mft-of-a-hole", with_hole(base, 0, 0x80, "", 1 << 40))


if len(sys.argv) > 2:
    turn_image(*sys.argv[1:3])
else:
    write_changes()
