#!/usr/bin/env python3
"""Writes the seeds of volume_dump_fuzz: fuzz/corpus/make_volume_dump_seeds.py [DIRECTORY]

As the seeds of make_seeds.py they are small and made by their own offsets. What a fuzzer found is
kept beside them under found-*, and isn't touched.
"""
import pathlib
import sys

NO_GUID = b"{00000000-0000-0000-0000-000000000000}"
ONES = (1 << 64) - 1


def field(content, width):
    return content.ljust(width, b"\0")[:width]


def number(value, digits=16):
    return b"%0*x\0" % (digits, value)


def component(disk, disk_lba, volume_lba, sectors, column=0, guid=NO_GUID):
    places = (disk_lba, disk_lba + sectors - 1, volume_lba, volume_lba + sectors - 1)
    return field(guid, 39) + b"".join(map(number, places)) + number(column, 8) + number(disk, 8)


def segment(*components, stripe=0, first=0, last=0):
    return number(stripe) + number(first) + number(last) + number(len(components), 8) + b"".join(components)


def head(name, raid5, guid):
    return field(guid, 39) + field(name, 100) + (b"1" if raid5 else b"0") + b"07\0" + b"1"


def volume(*segments, name=b"Volume1", raid5=False, guid=NO_GUID):
    return head(name, raid5, guid) + number(len(segments), 8) + b"".join(segments)


def old_volume(*components, stripe=0, raid5=False):
    count = field(b"%d" % len(components), 9)
    return head(b"Volume1", raid5, NO_GUID) + number(stripe) + count + b"".join(components)


def extent(name, first, last, block, grain=None, offset=0, per_bucket=0, buckets=0, top=b"", bucket_bytes=0,
           bitmaps=()):
    numbers = number(first) + number(last) + number(block) + number(block if grain is None else grain)
    numbers += number(offset, 8) + number(per_bucket) + number(buckets) + number(len(top), 8) + number(bucket_bytes, 8)
    return field(name, 1024) + numbers + top + b"".join(bitmaps)


def disk(*links):
    return b"%08x" % len(links) + b"".join(b"%08x" % len(link) + b"".join(link) for link in links)


def dump(volumes=(), disks=(), signature=b"LVMDUMP1.1"):
    return signature + b"%08x" % len(volumes) + b"".join(volumes) + b"%08x" % len(disks) + b"".join(disks) + signature


def columns(count, sectors=64):
    return [component(0, 100 * column + 10, 0, sectors, column) for column in range(count)]


def seeds():
    flat = extent(b"base_00000000", 0, 999, 16)
    child = extent(b"child_00000000", 0, 999, 8, 8, 0, 8, 16, b"\xa0\x01", 1, (b"\xf0", b"\x81", b"\x10"))
    vhd = extent(b"vhd", 0, ONES, 8, 1, 512, 8, 20, b"\xff\xff\xf0", 1, [b"\xff"] * 20)
    plain = volume(segment(component(0, 63, 0, 90), last=90))
    spanned = volume(segment(component(0, 10, 0, 30), component(1, 20, 30, 10), last=39),
                     segment(component(0, 70, 40, 9), first=40, last=48))
    split = [extent(b"split_%08x" % index, 50 * index, 50 * index + 49, 12) for index in range(4)]
    overlapping = [extent(b"a", 20, 39, 7), extent(b"b", 10, 99, 16), extent(b"c", 0, ONES, 5)]
    return {
        "empty": dump(),
        "nothing": b"",
        "plain": dump([plain], [disk([flat])]),
        "chain": dump([plain], [disk([flat], [child], [child])]),
        "vhd-chain": dump([plain], [disk([vhd], [vhd])]),
        "spanned": dump([spanned], [disk([flat]), disk([flat], [child])]),
        "striped": dump([volume(segment(*columns(2), stripe=8, last=127))], [disk([flat])]),
        "raid5": dump([volume(segment(*columns(3), stripe=8, last=127), raid5=True)], [disk([flat])]),
        "raid5-segments": dump([volume(segment(*columns(3), stripe=4, last=20),
                                       segment(*columns(4), stripe=4, first=400, last=500), raid5=True)],
                               [disk([flat])]),
        "split": dump([plain], [disk(split)]),
        "overlapping": dump([plain], [disk(overlapping)]),
        "holes": dump([plain], [disk([child])]),
        "no-links": dump([plain], [disk()]),
        "no-extents": dump([plain], [disk([])]),
        "no-disk": dump([volume(segment(component(0xFFFFFFFF, 0, 0, 10)))]),
        "no-segments": dump([volume()], [disk([flat])]),
        "buckets-of-all-ones": dump([plain], [disk([flat], [extent(b"x", 0, ONES, 8, 8, 0, 8, ONES)])]),
        "buckets-of-a-hole": dump([plain], [disk([extent(b"x", 0, ONES, 8, 8, 0, 8, 0x2000, b"", 1)])])
        .replace(number(0, 8) + number(1, 8), number(0x400, 8) + number(1, 8)),
        "sizes-of-0": dump([plain], [disk([extent(b"x", 0, ONES, 0)])]),
        "grain-of-0": dump([plain], [disk([extent(b"x", 0, ONES, 8, 0, 0, 8, 1, b"\x80", 1, (b"\xff",))])]),
        "places-that-wrap": dump([volume(segment(component(0, (1 << 55) - 5, 0, 90), last=90))],
                                 [disk([extent(b"x", 0, ONES, 8)])]),
        "bad-guid": dump([volume(guid=b"{0123}")]),
        "old": dump([old_volume(component(0, 63, 0, 90)), old_volume(*columns(3), stripe=8),
                     old_volume(*columns(12, 8), stripe=8, raid5=True)], [disk([flat], [child])], b"LVMDUMP1.0"),
        "old-empty": dump(signature=b"LVMDUMP1.0"),
        "no-footer": dump([plain], [disk([flat])])[:-10],
        "counts-of-all-ones": dump([plain], [disk([flat])]).replace(b"00000001", b"ffffffff"),
    }


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent)
    target = root / "volume_dump_fuzz"
    target.mkdir(parents=True, exist_ok=True)
    for name, data in seeds().items():
        (target / name).write_bytes(data)


main()
