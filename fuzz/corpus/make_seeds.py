#!/usr/bin/env python3
"""Writes the seeds of the fuzz corpora: fuzz/corpus/make_seeds.py [DIRECTORY]

Each target has a directory of its name beside this script. Seeds are small and made by their own
offsets, so that one mistake can't hide in both a seed and the reader. What a fuzzer found is kept
in the same directories under found-*, and isn't touched.
"""
import pathlib
import struct
import sys
import uuid
import zlib

SECTOR = 512
ENTRIES = 512
COWD_ENTRIES = 4096
DESCRIPTOR = b"""# Disk DescriptorFile
version=1
CID=7a3f01c4
parentCID=ffffffff
createType="monolithicSparse"

# Extent description
RW 6 SPARSE "tiny.vmdk"

ddb.adapterType = "ide"
"""


def put(image, offset, data):
    """Lays `data` at byte `offset`, growing the image with zeros."""
    if len(image) < offset + len(data):
        image.extend(bytes(offset + len(data) - len(image)))
    image[offset : offset + len(data)] = data


def sectors(image):
    """Rounds the image up to whole sectors."""
    image.extend(bytes(-len(image) % SECTOR))
    return image


def table(*entries):
    return struct.pack(f"<{len(entries)}I", *entries)


def hosted_header(**changes):
    fields = {
        "magic": b"KDMV", "version": 1, "flags": 1, "capacity": 6, "grain_size": 2,
        "descriptor_offset": 1, "descriptor_size": 1, "entries_per_table": ENTRIES, "rgd": 2, "gd": 7,
        "overhead": 12, "unclean": 0, "line_ends": b"\n \r\n", "compression": 0,
    }
    fields.update(changes)
    packed = struct.pack("<4sIIQQQQIQQQB4sH", *fields.values())
    return packed + bytes(SECTOR - len(packed))


def hosted(directory=(8,), redundant_directory=(3,), entries=(12, 0, 14), **changes):
    """Three grains of 2 sectors, the first and the last of them held, with both sets of tables."""
    image = bytearray(hosted_header(**changes))
    put(image, 1 * SECTOR, DESCRIPTOR)
    put(image, 2 * SECTOR, table(*redundant_directory))
    put(image, 3 * SECTOR, table(*entries))
    put(image, 7 * SECTOR, table(*directory))
    put(image, 8 * SECTOR, table(*entries))
    put(image, 12 * SECTOR, b"A" * 2 * SECTOR)
    put(image, 14 * SECTOR, b"C" * 2 * SECTOR)
    return image


def hosted_small(entries=(6, 0, 7), grain_size=1, **changes):
    """One sector per grain, and one table that both directories name."""
    fields = {"capacity": 3, "grain_size": grain_size, "descriptor_offset": 0, "descriptor_size": 0,
              "rgd": 1, "gd": 1, "overhead": 6}
    image = bytearray(hosted_header(**{**fields, **changes}))
    put(image, 1 * SECTOR, table(2))
    put(image, 2 * SECTOR, table(*entries))
    put(image, 6 * SECTOR, b"one" * 100)
    put(image, 7 * SECTOR, b"two" * 100)
    return sectors(image)


def hosted_two_tables():
    """1024 grains: two directory entries, on two tables that lie one behind the other."""
    image = hosted_small(capacity=1024, rgd=1, gd=1)
    put(image, 1 * SECTOR, table(2, 6))
    return sectors(image)


def hosted_holes():
    """Four directory entries, of which two are holes."""
    image = hosted_small(capacity=2048)
    put(image, 1 * SECTOR, table(0, 2, 0, 2))
    return image


def cowd_header(magic=b"COWD", **changes):
    fields = {"version": 1, "flags": 3, "sectors": 12, "grain_size": 1, "gd": 4, "gd_entries": 1}
    fields.update(changes)
    unclean = fields.pop("unclean", 0)
    header = bytearray(2048)
    put(header, 0, magic + struct.pack("<6I", *fields.values()))
    put(header, 1648, struct.pack("<I", unclean))
    return header


def cowd(directory=(5,), **changes):
    """Its table of 16 KiB runs into the hole that the target puts behind the input."""
    image = cowd_header(**changes)
    put(image, 4 * SECTOR, table(*directory))
    put(image, 5 * SECTOR, table(4, 0, 5, 6))
    return sectors(image)


def cut(image, size):
    return image[:size]


def sparse_extents():
    return {
        "hosted": hosted(),
        "hosted-redundant-active": hosted(flags=3),
        "hosted-odd-capacity": hosted(capacity=5),
        "hosted-small": hosted_small(),
        "hosted-two-tables": hosted_two_tables(),
        "hosted-holes": hosted_holes(),
        "hosted-entry-of-1": hosted_small(entries=(1, 1, 1)),
        "hosted-entry-behind-the-end": hosted_small(entries=(0xFFFFFFFF, 8, 6)),
        "hosted-overlapping-tables": hosted_small(capacity=1536, rgd=1, gd=2),
        "hosted-compressed": hosted_small(flags=0x30001, compression=1),
        "hosted-version-2": hosted_small(version=2),
        "hosted-unclean": hosted_small(unclean=1),
        "hosted-entries-511": hosted_small(entries_per_table=511),
        "hosted-grain-size-0": hosted_small(grain_size=0),
        "hosted-grain-size-2-to-40": hosted_small(grain_size=1 << 40),
        "hosted-grain-size-2-to-60": hosted_small(grain_size=1 << 60),
        "hosted-capacity-0": hosted_small(capacity=0),
        "hosted-capacity-2-to-63": hosted_small(capacity=1 << 63),
        "hosted-no-redundant-directory": hosted_small(rgd=0),
        "hosted-directory-at-all-ones": hosted_small(gd=(1 << 64) - 1),
        "hosted-descriptor-behind-the-end": hosted_small(descriptor_offset=100, descriptor_size=20),
        "hosted-descriptor-of-2-to-55": hosted_small(descriptor_offset=1, descriptor_size=1 << 55),
        "hosted-mail-line-ends": hosted_small(line_ends=b"\n \n\n"),
        "hosted-cut-in-header": cut(hosted_small(), 300),
        "hosted-cut-in-table": cut(hosted_small(), 3 * SECTOR + 100),
        "cowd": cowd(),
        "cowd-holes": cowd(directory=(0, 5, 0), gd_entries=3),
        "cowd-grain-size-0": cowd(grain_size=0),
        "cowd-flags-1": cowd(flags=1),
        "cowd-unclean": cowd(unclean=1),
        "cowd-directory-wraps": cowd(gd=(1 << 23) + 4),
        "cowd-entries-all-ones": cowd(gd_entries=0xFFFFFFFF),
        "empty": b"",
        "magic-alone": b"KDMV",
    }


def descriptor(*lines, end="\n"):
    return "".join(line + end for line in lines).encode()


HEAD = ("# Disk DescriptorFile", "version=1", "CID=fffffffe", "parentCID=ffffffff")


def descriptors():
    flat = (*HEAD, 'createType="monolithicFlat"', "", "# Extent description",
            'RW 8 FLAT "disk-flat.vmdk" 0', "", "# The disk Data Base", "#DDB", "",
            'ddb.virtualHWVersion = "4"', 'ddb.geometry.cylinders = "1"')
    split = (*HEAD, 'createType="twoGbMaxExtentSparse"',
             'RW 8 SPARSE "disk-s001.vmdk"', 'RW 8 SPARSE "disk-s002.vmdk"')
    words = ["vmfsSparse", "vmfs", "twoGbMaxExtentFlat", "fullDevice", "vmfsRaw", "partitionedDevice",
             "vmfsRawDeviceMap", "vmfsPassthroughRawDeviceMap", "monolithicSparse"]
    kinds = ["ZERO", "VMFS", "VMFSSPARSE", "VMFSRDM", "VMFSRAW"]
    return {
        "flat": descriptor(*flat),
        "flat-of-carriage-returns": descriptor(*flat, end="\r\n"),
        "split-sparse": descriptor(*split),
        "every-create-type": descriptor(*(f'createType="{word}"' for word in words)),
        "unknown-create-type": descriptor('createType="streamOptimized"'),
        "every-extent-type": descriptor(*(f'RDONLY {i + 1} {kind} "{i}.vmdk"' for i, kind in enumerate(kinds))),
        "no-access": descriptor('NOACCESS 63 ZERO "gap" 0'),
        "zero-extent-without-name": descriptor("RW 63 ZERO"),
        "escapes-and-blanks": descriptor(r'RW   8 FLAT "a \"quoted\" name.vmdk"   0', '   RW 8 FLAT "b.vmdk" 0  '),
        "open-quote": descriptor('RW 8 FLAT "never closed 0'),
        "parent-folder": descriptor(r'RW 8 FLAT "..\..\other.vmdk" 0', 'RW 8 FLAT "/dev/null" 0'),
        "size-0": descriptor('RW 0 FLAT "a.vmdk" 0'),
        "size-of-all-nines": descriptor('RW 99999999999999999999 FLAT "a.vmdk" 0'),
        "negative-size": descriptor('RW -8 FLAT "a.vmdk" 0'),
        "offset-5": descriptor('RW 8 FLAT "a.vmdk" 5'),
        "negative-offset": descriptor('RW 8 FLAT "a.vmdk" -5'),
        "six-tokens": descriptor('RW 8 FLAT "a.vmdk" 0 0'),
        "encoding-line": descriptor('encoding="UTF-8"'),
        "parent-hint": descriptor(*HEAD, 'parentFileNameHint="base.vmdk"'),
        "lower-case-keys": descriptor("VERSION=2", "cid=0x12", "parentcid=zz", 'CREATETYPE = "vmfs" # word'),
        "keys-without-values": descriptor("version", "CID", "parentCID", "createType"),
        "text-behind-a-nul": descriptor(*flat) + b"\0" + descriptor('RW 0 FLAT "x" 0'),
        "empty": b"",
    }


def record(signature, total_sectors, body=b""):
    head = signature + b"%08x" % (32 + len(body)) + b"%016x" % total_sectors
    return head + bytes(body)


def hosted_body(image, entries=1, tables=2):
    """Header, no descriptor, both directories, and the one table as often as it is named."""
    directory = image[1 * SECTOR : 1 * SECTOR + 4 * entries]
    return bytes(image[:SECTOR]) + bytes(directory) * 2 + bytes(image[2 * SECTOR : 6 * SECTOR]) * tables


def far_body(**changes):
    """Directories and tables at terabytes, in a body of a few hundred bytes: its tables are cut off."""
    far = 1 << 41
    header = hosted_header(capacity=3, grain_size=1, descriptor_offset=far, descriptor_size=1, rgd=far + 1,
                           gd=far + 2, **changes)
    return header + DESCRIPTOR.ljust(SECTOR, b"\0") + table(0xFFFFFFF0) + table(0x7FFFFFFF) + table(12, 0, 13)


def records():
    small = hosted_small()
    holes = hosted_holes()
    return {
        "flat": record(b"VDVWFT10", 129),
        "flat-of-0": record(b"VDVWFT10", 0),
        "flat-of-2-to-54": record(b"VDVWFT10", 1 << 54),
        "flat-of-all-ones": record(b"VDVWFT10", (1 << 64) - 1),
        "flat-longer-than-it-says": record(b"VDVWFT10", 129) + b"x",
        "flat-with-signs": b"VDVWFT1000000020-00000000000000f",
        "sparse": record(b"VDVWSP10", 3, hosted_body(small)),
        "sparse-redundant-active": record(b"VDVWSP10", 3, hosted_body(hosted_small(flags=3))),
        "sparse-zeros-behind": record(b"VDVWSP10", 2048, hosted_body(holes, entries=4, tables=1)),
        "sparse-far-away": record(b"VDVWSP10", 3, far_body()),
        "sparse-capacity-2-to-63": record(b"VDVWSP10", 3, hosted_body(hosted_small(capacity=1 << 63), tables=0)),
        "sparse-grain-size-0": record(b"VDVWSP10", 3, hosted_body(hosted_small(grain_size=0), tables=0)),
        "sparse-descriptor-of-2-to-55": record(
            b"VDVWSP10", 3, hosted_body(hosted_small(descriptor_offset=1, descriptor_size=1 << 55), tables=0)),
        "sparse-directory-at-all-ones": record(b"VDVWSP10", 3, hosted_body(hosted_small(gd=(1 << 64) - 1), tables=1)),
        "sparse-without-body": record(b"VDVWSP10", 3),
        "sparse-unknown-magic": record(b"VDVWSP10", 3, b"ABCD" + bytes(508)),
        "cowd-as-it-is-taken": record(b"VDVWSP10", 12, cowd_header() + table(0)),
        "cowd-reversed": record(b"VDVWSP10", 12, cowd_header(magic=b"DWOC") + table(5) + table(40, 0, 41)),
        "cowd-reversed-hole": record(b"VDVWSP10", 12, cowd_header(magic=b"DWOC") + table(0)),
        "cowd-reversed-entries-all-ones": record(
            b"VDVWSP10", 12, cowd_header(magic=b"DWOC", gd_entries=0xFFFFFFFF) + table(0)),
        "cowd-reversed-grain-size-0": record(
            b"VDVWSP10", 12, cowd_header(magic=b"DWOC", grain_size=0) + table(5) + table(40)),
        "other-signature": record(b"VDMSFT10", 129, bytes(528)),
        "upper-case-size": b"VDVWSP100000002A" + b"%016x" % 3 + bytes(10),
        "head-cut": record(b"VDVWFT10", 129)[:31],
        "empty": b"",
    }


BASIC_DATA = uuid.UUID("EBD0A0A2-B9E5-4433-87C0-68B6B72699C7")
LDM_METADATA = uuid.UUID("5808C8AA-7E8F-42E0-85D2-E1E90434CFB3")
LDM_DATA = uuid.UUID("AF9B60A0-1431-4F62-BC68-3311714A69AD")
EFI_SYSTEM = uuid.UUID("C12A7328-F81F-11D2-BA4B-00A0C93EC93B")


def boot_record(*slots):
    """Slots are (type, first sector, sectors); None for an empty one."""
    image = bytearray(SECTOR)
    for index, slot in enumerate(slots):
        if slot:
            put(image, 446 + 16 * index, struct.pack("<4xB3xII", slot[0], slot[1] & 0xFFFFFFFF, slot[2] & 0xFFFFFFFF))
    put(image, 510, b"\x55\xaa")
    return bytes(image)


def ntfs(total_sectors=5, name=b"NTFS    ", sectors_per_cluster=8, record=0xF6):
    image = bytearray(SECTOR)
    put(image, 3, name)
    put(image, 11, struct.pack("<HBH", 512, sectors_per_cluster, 0))
    put(image, 40, struct.pack("<QQQIIQ", total_sectors, 4, 2, record, 1, 0x1122334455667788))
    put(image, 510, b"\x55\xaa")
    return bytes(image)


def disk(pieces, count=8):
    """Sectors by their number; the others are zeros."""
    image = bytearray(count * SECTOR)
    for number, sector in pieces.items():
        put(image, number * SECTOR, sector)
    return image


def gpt(entries, count=4, signature=b"EFI PART", boot=((0xEE, 1, 0xFFFFFFFF),), sectors=8):
    """A header in sector 1, entries of (type, first sector, last sector) from sector 2 on, NTFS in sector 4."""
    image = disk({0: boot_record(*boot), 4: ntfs()}, sectors)
    table_bytes = bytearray(128 * min(count, 4))
    for index, (guid, first, last) in entries.items():
        put(table_bytes, 128 * index, guid.bytes_le + bytes(range(16)) + struct.pack("<QQ", first, last))
    header = bytearray(struct.pack("<8sIIIIQQQQ16sQIII", signature, 0x10000, 92, 0, 0, 1, sectors - 1, 4, sectors - 1,
                                   bytes(range(16)), 2, count, 128, zlib.crc32(table_bytes)))
    put(header, 16, struct.pack("<I", zlib.crc32(header)))
    put(image, 1 * SECTOR, header)
    put(image, 2 * SECTOR, table_bytes)
    return image


def partition_tables():
    primary = {0: boot_record((7, 2, 3), (0x0C, 5, 1), None, (0x83, 6, 2)), 2: ntfs(3)}
    return {
        "mbr": disk(primary),
        "mbr-count-wraps": disk({0: boot_record((7, 0xFFFFFF00, 0x200), (7, 1, 0))}),
        "mbr-without-signature": disk({0: boot_record((7, 2, 3))[:510]}),
        "mbr-behind-the-end": disk({0: boot_record((7, 1000, 50), (7, 0xFFFFFFFF, 0xFFFFFFFF))}),
        "mbr-dynamic": disk({0: boot_record((0x42, 7, 1))}),
        "logical": disk({0: boot_record((7, 1, 1), (5, 2, 6)), 1: ntfs(1), 2: boot_record((7, 1, 1), (5, 2, 2)),
                         4: boot_record((0x83, 1, 2), (15, 5, 1)), 7: boot_record((0x0C, 1, 1))}),
        "logical-itself": disk({0: boot_record((5, 2, 6)), 2: boot_record((7, 1, 1), (5, 0, 2))}),
        "logical-ancestor": disk({0: boot_record((133, 2, 6)), 2: boot_record((5, 2, 1)),
                                  4: boot_record((7, 1, 1), None, (5, 0, 1))}),
        "logical-at-0": disk({0: boot_record((7, 1, 1), (5, 0, 6))}),
        "logical-outside": disk({0: boot_record((5, 2, 6)), 2: boot_record((5, 0xFFFFFFFF, 6))}),
        "logical-without-signature": disk({0: boot_record((7, 1, 1), (5, 2, 6))}),
        "fan-of-nothing": disk({0: boot_record((5, 1, 6)), 7: boot_record(),
                                **{level: boot_record(*[(5, level, 1)] * 4) for level in range(1, 7)}}),
        "fan": disk({0: boot_record((5, 1, 6)), 5: boot_record((7, 1, 2)),
                     **{level: boot_record(*[(5, level, 1)] * 4) for level in range(1, 5)}}),
        "gpt": gpt({0: (EFI_SYSTEM, 3, 3), 2: (BASIC_DATA, 4, 6), 3: (BASIC_DATA, 7, 7)}),
        "gpt-dynamic": gpt({1: (LDM_METADATA, 3, 3), 2: (LDM_DATA, 4, 7)}),
        "gpt-data-before-metadata": gpt({0: (LDM_DATA, 4, 7), 1: (LDM_METADATA, 3, 3)}),
        "gpt-metadata-alone": gpt({0: (LDM_METADATA, 0xFFFFFFFFFFFFFFFF, 3)}),
        "gpt-behind-a-primary": gpt({0: (BASIC_DATA, 4, 7)}, boot=((7, 1, 1), None, (0xEE, 1, 7), (7, 1, 1))),
        "gpt-other-header": gpt({0: (BASIC_DATA, 4, 7)}, signature=b"EFI PARt"),
        "gpt-of-no-entries": gpt({}, count=0),
        "gpt-up-to-the-end": gpt({0: (EFI_SYSTEM, 3, 3)}, count=24),
        "gpt-entry-behind-the-end": gpt({0: (EFI_SYSTEM, 3, 3)}, count=25),
        "gpt-of-all-ones": gpt({0: (BASIC_DATA, 4, 7)}, count=0xFFFFFFFF),
        "gpt-first-above-last": gpt({0: (BASIC_DATA, 4, 1), 1: (EFI_SYSTEM, 0xFFFFFFFFFFFFFFFF, 0)}),
        "gpt-partition-outside": gpt({0: (EFI_SYSTEM, 3, 3), 1: (BASIC_DATA, 1 << 55, 1 << 55)}),
        "gpt-partition-at-all-ones": gpt({0: (BASIC_DATA, 0xFFFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFFFF)}),
        "volume": bytearray(ntfs() + bytes(5 * SECTOR)),
        "volume-of-all-ones": bytearray(ntfs(0xFFFFFFFFFFFFFFFF) + bytes(SECTOR)),
        "volume-of-2-to-55": bytearray(ntfs((1 << 55) - 1, sectors_per_cluster=0, record=0xFFFFFFF6) + bytes(SECTOR)),
        "cut": bytearray(boot_record((7, 1, 1))[:511]),
        "one-sector": bytearray(boot_record((0xEE, 1, 1))),
        "empty": b"",
    }


def write(directory, seeds):
    directory.mkdir(parents=True, exist_ok=True)
    for name, data in seeds.items():
        (directory / name).write_bytes(bytes(data))


def main():
    top = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent)
    write(top / "sparse_extent_fuzz", sparse_extents())
    write(top / "descriptor_fuzz", descriptors())
    write(top / "metadata_record_fuzz", records())
    write(top / "partition_tables_fuzz", partition_tables())


if __name__ == "__main__":
    main()
