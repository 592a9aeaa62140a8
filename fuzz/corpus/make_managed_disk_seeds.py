#!/usr/bin/env python3
"""Writes the seeds of managed_disk_fuzz into the directory beside this script."""
import pathlib
import struct

RECORD = b'VDVWVD10' + b'00000000' + b'0000000000000065' + b'thinProvisioned = "1";uuid = "60 \\"0"'


def seed(shape, block_sectors_by_8, record, sectors, answers):
    return bytes([shape, block_sectors_by_8, len(record)]) + record + struct.pack('<I', sectors) + answers


def answer(shape, length_by_4k, stretches):
    return bytes([shape]) + struct.pack('<I', length_by_4k) + b''.join(struct.pack('<II', *each) for each in stretches)


WHOLE = answer(0, 0, [])
THREE = answer(3, 100, [(0, 4096), (8192, 100000), (200000, 65535)])
REST = answer(1, 10000, [(4096, 512)])
SETTINGS = bytes([2, 4]) + b'uuid' + bytes([2]) + b'60' + bytes([1]) + b'x' + bytes([0])
SEEDS = {
    'managed': seed(1, 1, RECORD, 2000, THREE + REST),
    'local': seed(0, 2, RECORD, 0, b''),
    'changed': seed(3, 16, b'', 5000, THREE + REST + answer(2, 100000, [(0, 512), (300000, 4096)])),
    'whole': seed(2, 0, b'', 70000, WHOLE + WHOLE + SETTINGS),
}

directory = pathlib.Path(__file__).parent / 'managed_disk_fuzz'
directory.mkdir(exist_ok=True)
for name, content in SEEDS.items():
    (directory / name).write_bytes(content)
