#!/usr/bin/env python3
"""Writes the seeds of lvm2_fuzz: fuzz/corpus/make_lvm2_seeds.py [DIRECTORY]

As the seeds of make_seeds.py they are small and made by their own offsets. What a fuzzer found is
kept beside them under found-*, and isn't touched. The label lies in sector 0 and the only area
behind it, in sector 1; the rest of what is read of the area is the target's hole.
"""
import pathlib
import struct
import sys

SECTOR = 512
ONES = (1 << 64) - 1
ID = "i" * 32


def put(image, offset, data):
    if len(image) < offset + len(data):
        image.extend(bytes(offset + len(data) - len(image)))
    image[offset : offset + len(data)] = data


def crc(data):
    value = 0xF597A6CF
    for byte in data:
        value ^= byte
        for _ in range(8):
            value = (value >> 1) ^ (0xEDB88320 if value & 1 else 0)
    return struct.pack("<I", value)


def label(sector=0, signature=b"LABELONE", data=((1 << 20, 0),), areas=((SECTOR, 8192),)):
    image = bytearray(SECTOR)
    put(image, 0, struct.pack("<8sQII8s32sQ", signature, sector, 0, 32, b"LVM2 001", ID.encode(), 1 << 26))
    locations = [*data, (0, 0), *areas, (0, 0)]
    put(image, 72, b"".join(struct.pack("<QQ", *location) for location in locations))
    put(image, 16, crc(image[20:]))
    return bytes(image)


def area(text=b"", locations=None, magic=b" LVM2 x[5A%r0N*>", size=8192):
    image = bytearray(SECTOR)
    put(image, 4, struct.pack("<16sIQQ", magic, 1, SECTOR, size))
    if locations is None:
        locations = [(SECTOR, len(text), crc(text))] if text else []
    for index, (offset, length, checksum) in enumerate(locations):
        put(image, 40 + 24 * index, struct.pack("<QQ", offset, length) + checksum + bytes(4))
    put(image, 0, crc(image[4:SECTOR]))
    put(image, SECTOR, text)
    return bytes(image)


def physical(name="pv0", identity=ID, start=2048):
    dashed = "-".join((identity[:6], identity[6:10], identity[10:14], identity[14:18], identity[18:22],
                       identity[22:26], identity[26:]))
    return (f'\n\t{name} {{\n\t\tid = "{dashed}"\n\t\tdevice = "/dev/sda"\t# Hint only\n\n'
            f'\t\tstatus = ["ALLOCATABLE"]\n\t\tdev_size = 4096\n\t\tpe_start = {start}\n\t\tpe_count = 20\n\t}}\n')


def segment(number, start, count, stripes, size=0, kind="striped", lines=""):
    text = (f'\n\t\tsegment{number} {{\n\t\t\tstart_extent = {start}\n\t\t\textent_count = {count}\n'
            f'\n\t\t\ttype = "{kind}"\n\t\t\tstripe_count = {len(stripes)}\t# linear\n')
    text += f"\t\t\tstripe_size = {size}\n" if size else ""
    places = ",\n".join(f'\t\t\t\t"{name}", {extent}' for name, extent in stripes)
    return text + lines + (f"\n\t\t\tstripes = [\n{places}\n\t\t\t]\n" if stripes else "") + "\t\t}\n"


def logical(name, *segments):
    return (f'\n\t{name} {{\n\t\tid = "AAAAAA"\n\t\tstatus = ["READ", "WRITE"]\n'
            f'\t\tsegment_count = {len(segments)}\n{"".join(segments)}\t}}\n')


def group(volumes=(), physicals=(physical(),), name="vg", extent=16, lines=""):
    blocks = f'logical_volumes {{\n{"".join(volumes)}}}\n\n' if volumes else ""
    return (f'{name} {{\nid = "GGGGGG"\nseqno = 2\nstatus = ["RESIZEABLE", "READ"]\nextent_size = {extent}\t\t# KiB\n'
            f'max_lv = 0\nmax_pv = 0\n{lines}\nphysical_volumes {{\n{"".join(physicals)}}}\n\n{blocks}}}\n'
            f'# Generated\n\ncontents = "Text"\n').encode() + b"\0"


def disk(text=b"", **changes):
    of_area = {key: changes.pop(key) for key in ("locations", "magic", "size") if key in changes}
    return label(**changes) + area(text, **of_area)


def seeds():
    linear = logical("root", segment(1, 0, 4, [("pv0", 1)]))
    two = (physical(), physical("pv1", "j" * 32, 384))
    striped = logical("fast", segment(1, 0, 6, [("pv0", 1), ("pv1", 5)], 8), segment(2, 6, 1, [("pv1", 0)]))
    thin = logical("thin", segment(1, 0, 4, [], kind="thin", lines='\t\t\tthin_pool = "pool"\n'))
    raid = logical("raid", segment(1, 0, 4, [], kind="raid1", lines='\t\t\traids = [\n\t\t\t\t"a", "b"\n\t\t\t]\n'))
    sound = group([linear])
    huge = str(ONES)
    wild = logical("wild", segment(1, huge, huge, [("pv0", huge)], "-1")).replace("stripe_count = 1",
                                                                                  "stripe_count = -1")
    texts = {
        "linear": sound,
        "striped": group([striped], two),
        "several": group([linear, striped, thin], two),
        "absent": group([logical("gone", segment(1, 0, 1, [("pv7", 0)])), linear]),
        "raid": group([raid, linear]),
        "wild": group([wild], extent=huge),
        "no-volumes": group(),
        "twice": sound + sound,
        "cut": sound[: len(sound) // 2],
        "long-name": group([logical("n" * 150)], name="g" * 60),
        "tags": group([linear], lines='tags = ["a", "b"]\nmore = [\n"c"\n]\n'),
    }
    found = {"text-" + name: text for name, text in texts.items()}
    found.update({"disk-" + name: disk(text) for name, text in texts.items()})
    found.update({
        "disk-of-no-group": disk(),
        "disk-without-areas": disk(areas=()),
        "disk-label-in-sector-3": bytes(3 * SECTOR) + label(3, areas=((4 * SECTOR, 8192),)) + area(sound),
        "disk-label-of-another": disk(sound, sector=2),
        "disk-no-label": disk(sound, signature=b"LABELTWO"),
        "disk-magic": disk(sound, magic=b" LVM1 x[5A%r0N*>"),
        "disk-five-data-areas": disk(sound, data=((1 << 20, 512),) * 5),
        "disk-areas-twice": disk(sound, areas=((SECTOR, 8192),) * 2),
        "disk-six-areas": disk(sound, areas=((SECTOR, 8192),) * 6),
        "disk-area-behind-the-end": disk(sound, areas=((1 << 40, 8192),)),
        "disk-area-at-all-ones": disk(sound, areas=((ONES, ONES),)),
        "disk-text-of-all-ones": disk(sound, locations=[(SECTOR, ONES, bytes(4))], size=ONES),
        "disk-text-at-all-ones": disk(sound, locations=[(ONES, 9, bytes(4))], size=ONES),
        "disk-many-texts": disk(sound, locations=[(SECTOR, len(sound), bytes(4))] * 19, size=ONES),
        "disk-text-in-pieces": disk(sound, locations=[(SECTOR, 100, bytes(4)), (SECTOR + 100, len(sound) - 100,
                                                                              bytes(4))]),
        "disk-empty-texts": disk(sound, locations=[(SECTOR, 0, bytes(4))] * 19),
        "label-alone": label(),
        "brackets": b"{" * 300 + b"[\n" * 300,
        "blocks": b"vg{\nphysical_volumes{\n}\nlogical_volumes{\n" + b"v{\nsegment{\n}\n}\n" * 50,
        "quotes": b'"v"g{\n"physical_volumes" {\n"}"\n}\n"logical_volumes"{\n}\n',
        "empty": b"",
    })
    return found


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent) / "lvm2_fuzz"
    root.mkdir(parents=True, exist_ok=True)
    for name, data in seeds().items():
        (root / name).write_bytes(bytes(data))


main()
