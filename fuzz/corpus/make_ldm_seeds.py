#!/usr/bin/env python3
"""Writes the seeds of ldm_database_fuzz: fuzz/corpus/make_ldm_seeds.py [DIRECTORY]

As the seeds of make_seeds.py they are small and made by their own offsets: the database begins at
sector 7 of the disk, so that its first two tables of contents and the records fit a few KiB; the
other two tables lie behind the disk's end. What a fuzzer found is kept beside them under found-*,
and isn't touched.
"""
import pathlib
import struct
import sys
import uuid

SECTOR = 512
CONFIG = 7
BITMAP = 3  # sectors from the database's start to the records' head
SLOT = 128
FIRST_SLOT = 512
GROUP = "60000000-0000-4000-8000-0000000000ff"
DISKS = ("d0000000-0000-4000-8000-000000000000", "d0000000-0000-4000-8000-000000000001")


def put(image, offset, data):
    if len(image) < offset + len(data):
        image.extend(bytes(offset + len(data) - len(image)))
    image[offset : offset + len(data)] = data


def number(value, width=None):
    width = max(1, (value.bit_length() + 7) // 8) if width is None else width
    return bytes((width,)) + value.to_bytes(width, "big")


def text(value):
    return bytes((len(value),)) + value.encode()


def group(revision=3, ident=1):
    guid = text(GROUP) if revision == 3 else uuid.UUID(GROUP).bytes
    return (0x35 if revision == 3 else 0x45), 0, number(ident) + text("Dg0") + guid


def disk(which=0, revision=3, ident=None, guid=None):
    guid = DISKS[which] if guid is None else guid
    fields = number(2 + which if ident is None else ident) + text(f"Disk{which + 1}")
    if revision == 3:
        return 0x34, 0, fields + text(guid) + text("")
    return 0x44, 0, fields + uuid.UUID(guid).bytes_le


def volume(ident=10, kind="gen", state=b"ACTIVE", components=1, sectors=8, fields_behind=b"", serial=0):
    fields = number(ident) + text(f"Volume{serial + 1}") + text(kind) + text("") + state.ljust(16, b"\0") + bytes(5)
    fields += number(components) + bytes(16) + number(sectors) + bytes(4) + b"\7"
    return 0x51, 0, fields + uuid.UUID(int=0xE0 << 120 | serial).bytes + fields_behind


def component(ident=20, parent=10, partitions=1, stripe=None, state="ACTIVE", layout=2):
    fields = number(ident) + text("Volume1-01") + text(state) + bytes((layout,)) + bytes(4)
    fields += number(partitions) + bytes(16) + number(parent) + b"\0"
    return 0x32, 0 if stripe is None else 0x10, fields + (b"" if stripe is None else number(stripe))


def partition(ident=30, parent=20, disk_id=2, start=0, place=0, sectors=8, column=None):
    fields = number(ident) + text(f"Disk1-{ident}") + bytes(12) + struct.pack(">QQ", start, place)
    fields += number(sectors) + number(parent) + number(disk_id)
    return 0x33, 0 if column is None else 0x08, fields + (b"" if column is None else number(column))


def slots(records, size=SLOT, first=FIRST_SLOT, unused=1, fragments=1):
    """Each record in slots of its own, and unused ones behind."""
    area = bytearray()
    sequence = first // size if size else 0
    for index, (kind, flags, fields) in enumerate(records):
        rest = struct.pack(">HBBI", 0, flags, kind, len(fields)) + fields
        room = size - 16
        count = max(-(-len(rest) // room), fragments)
        for fragment in range(count):
            piece = rest[fragment * room : (fragment + 1) * room].ljust(room, b"\0")
            area += struct.pack(">4sIIHH", b"VBLK", sequence, index, fragment, count) + piece
            sequence += 1
    for _ in range(unused):
        area += struct.pack(">4sI", b"VBLK", sequence).ljust(size, b"\0")
        sequence += 1
    return bytes(area), sequence


def private_head(guid=DISKS[0], version=(2, 11), config=(CONFIG, 2048)):
    image = bytearray(SECTOR)
    put(image, 0, b"PRIVHEAD")
    put(image, 12, struct.pack(">HH", *version))
    put(image, 48, guid.encode())
    put(image, 283, struct.pack(">QQQQ", 1, 40, *config))
    return image


def toc_block(bitmap1=(BITMAP, 100), bitmap2=(103, 10), names=(b"config", b"log")):
    image = bytearray(SECTOR)
    put(image, 0, b"TOCBLOCK")
    put(image, 36, names[0])
    put(image, 46, struct.pack(">QQ", *bitmap1))
    put(image, 70, names[1])
    put(image, 80, struct.pack(">QQ", *bitmap2))
    return image


def dynamic(records, size=SLOT, first=FIRST_SLOT, head=None, tocs=None, vmdb=None, damage=(), unused=1, fragments=1,
            version=(4, 10), state=1, last=None, **private):
    """A whole disk: MBR, data from sector 1 on, private header at 6, database from 7 on."""
    area, sequence = slots(records, size if vmdb is None else SLOT, first, unused, fragments)
    image = bytearray()
    put(image, 446 + 4, b"\x42")
    put(image, 446 + 8, struct.pack("<II", 1, 5))
    put(image, 510, b"\x55\xaa")
    put(image, SECTOR, b"".join(bytes((0x40 + sector,)) * SECTOR for sector in range(1, 6)))
    put(image, 6 * SECTOR, private_head(**private) if head is None else head)
    for copy, block in enumerate((toc_block(), toc_block()) if tocs is None else tocs):
        put(image, (CONFIG + 1 + copy) * SECTOR, block)
    start = (CONFIG + BITMAP) * SECTOR
    shape = (sequence if last is None else last, size, first) if vmdb is None else vmdb
    put(image, start, struct.pack(">4sIIIHHH", b"VMDB", *shape, state, *version))
    put(image, start + first, area)
    # As many bytes are read as if the slots began at the records' head.
    put(image, start + first + sequence * (size if vmdb is None else SLOT) - 1, b"\0")
    image.extend(bytes(-len(image) % SECTOR))
    for offset, data in damage:
        put(image, offset, data)
    return image


SIMPLE = [group(), disk(), volume(), component(), partition(sectors=5)]
SPANNED = [group(), disk(), disk(1), volume(sectors=4), component(partitions=2),
           partition(31, place=2, disk_id=3, sectors=2), partition(sectors=2, start=1)]
STRIPED = [group(), disk(), disk(1), volume(sectors=8), component(partitions=2, stripe=2, layout=1),
           partition(31, disk_id=3, sectors=4, column=1), partition(sectors=4, column=0)]
RAID5 = [group(), disk(), disk(1), volume(kind="raid5", sectors=4), component(partitions=3, stripe=1, layout=3),
         partition(sectors=2, column=0), partition(31, disk_id=3, sectors=2, column=1),
         partition(32, sectors=2, start=2, column=2)]
MIRROR = [group(), disk(), disk(1), volume(components=2), component(state="DETACHED"), component(21),
          partition(), partition(31, parent=21, disk_id=3)]
FIRST_RECORD = (CONFIG + BITMAP + 1) * SECTOR
ONES = (1 << 64) - 1


def seeds():
    return {
        "simple": dynamic(SIMPLE),
        "spanned": dynamic(SPANNED),
        "striped": dynamic(STRIPED),
        "raid5": dynamic(RAID5),
        "mirror": dynamic(MIRROR),
        "revision-4": dynamic([group(4), disk(revision=4), volume(), component(), partition()]),
        "two-volumes": dynamic(SIMPLE + [volume(11, serial=1), component(21, 11), partition(31, 21, start=2)]),
        "no-records": dynamic([]),
        "no-slots": dynamic([], last=0),
        "private-2.12": dynamic(SIMPLE, head=private_head(version=(2, 12))),
        "private-2.13": dynamic(SIMPLE, head=private_head(version=(2, 13))),
        "config-at-all-ones": dynamic(SIMPLE, head=private_head(config=(ONES, ONES))),
        "one-toc": dynamic(SIMPLE, tocs=(bytes(SECTOR), toc_block())),
        "tocs-differ": dynamic(SIMPLE, tocs=(toc_block(), toc_block(bitmap2=(104, 10)))),
        "toc-of-all-ones": dynamic(SIMPLE, tocs=(toc_block((ONES, ONES)), toc_block((ONES, ONES)))),
        "toc-name": dynamic(SIMPLE, tocs=(toc_block(names=(b"configs", b"log")),)),
        "state-2": dynamic(SIMPLE, state=2),
        "slots-of-0": dynamic(SIMPLE, vmdb=(13, 0, 512)),
        "slots-of-23": dynamic(SIMPLE, vmdb=(13, 23, 512)),
        "slots-of-24": dynamic([(0x35, 0, b"")], vmdb=(13, 24, 512)),
        "slots-of-512": dynamic(SIMPLE, size=512, unused=0),
        "product-2-to-32": dynamic(SIMPLE, vmdb=(2, 1 << 31, 512)),
        "product-wraps": dynamic(SIMPLE, vmdb=(0x02000005, SLOT, 512)),
        "last-behind-the-disk": dynamic(SIMPLE, last=400),
        "first-at-all-ones": dynamic(SIMPLE, vmdb=(13, SLOT, (1 << 32) - 1)),
        "fragments-2": dynamic(SIMPLE, fragments=2),
        "fragments-5": dynamic(SIMPLE, fragments=5),
        "slot-signature": dynamic(SIMPLE, damage=[(FIRST_RECORD, b"VBLX")]),
        "slot-number": dynamic(SIMPLE, damage=[(FIRST_RECORD + 4, b"\xff\xff\xff\xff")]),
        "name-of-255": dynamic(SIMPLE, damage=[(FIRST_RECORD + 26, b"\xff")]),
        "number-of-9": dynamic(SIMPLE, damage=[(FIRST_RECORD + 24, b"\x09")]),
        "unknown-type": dynamic(SIMPLE + [(0x36, 0, b"x")]),
        "two-groups": dynamic(SIMPLE + [group(4)]),
        "one-id-many-times": dynamic([group(), volume(), component(partitions=6)] +
                                     [record for each in range(6) for record in (partition(30 + each), disk())]),
        "no-volume": dynamic([group(), disk(), component(), partition()]),
        "no-component": dynamic([group(), disk(), volume(components=0), partition()]),
        "no-disk": dynamic([group(), volume(), component(), partition()]),
        "counts": dynamic([group(), disk(), volume(components=ONES), component(), partition()]),
        "no-pieces": dynamic([group(), disk(), volume(), component(partitions=0)]),
        "piece-of-all-ones": dynamic([group(), disk(), volume(), component(),
                                      partition(start=ONES, place=ONES, sectors=ONES)]),
        "piece-of-none": dynamic([group(), disk(), volume(), component(), partition(sectors=0)]),
        "stripe-of-2-to-55": dynamic([group(), disk(), volume(), component(stripe=1 << 55), partition(column=0)]),
        "stripe-of-all-ones": dynamic([group(), disk(), volume(), component(stripe=ONES), partition(column=ONES)]),
        "raid5-of-one-column": dynamic([group(), disk(), volume(kind="raid5"), component(stripe=1), partition()]),
        "not-active": dynamic([group(), disk(), volume(state=b"DISABLED"), component(), partition()]),
        "no-active-component": dynamic([group(), disk(), volume(), component(state="DETACHED"), partition()]),
        "empty": b"",
    }


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent) / "ldm_database_fuzz"
    root.mkdir(parents=True, exist_ok=True)
    for name, data in seeds().items():
        (root / name).write_bytes(bytes(data))


main()
