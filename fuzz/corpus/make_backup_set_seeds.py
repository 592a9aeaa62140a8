#!/usr/bin/env python3
"""Makes the seeds of agent_backup_set_fuzz with the command itself: small sets of each kind, in pages of 512 bytes, which
leave a mutation less to hide in. Usage: make_backup_set_seeds.py DISKSTREAM; needs qemu-img, qemu-io, qemu-storage-daemon
and mkntfs."""

import contextlib
import pathlib
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time

TARGET = pathlib.Path(__file__).parent / "agent_backup_set_fuzz"
DISK_BYTES = 2 << 20  # that of the set on which the target lets inputs build


def run(*words):
    subprocess.run([str(word) for word in words], check=True, stdout=subprocess.DEVNULL)


def shrink(path):
    database = sqlite3.connect(path)
    database.execute("PRAGMA page_size = 512")
    database.execute("VACUUM")
    database.close()


def keep(path, name):
    shrink(path)
    shutil.copyfile(path, TARGET / name)


def make_image(work, form, name):
    image = work / name
    run("qemu-img", "create", "-q", "-f", form, image, DISK_BYTES)
    run("qemu-io", "-f", form, "-c", "write -q -P 65 0 64k", "-c", "write -q -P 66 1M 4k", image)
    return image


@contextlib.contextmanager
def export(work, image, bitmap):
    socket = work / "socket"
    server = subprocess.Popen(
        ["qemu-storage-daemon",
         "--blockdev", f"driver=file,node-name=file,filename={image}",
         "--blockdev", "driver=qcow2,node-name=disk,file=file",
         "--nbd-server", f"addr.type=unix,addr.path={socket}",
         "--export", f"type=nbd,id=e,node-name=disk,name=disk,writable=on,bitmaps.0={bitmap}"])
    try:
        while not socket.exists():
            time.sleep(0.05)
        yield f"nbd+unix:///disk?socket={socket}"
    finally:
        server.kill()
        server.wait()


def make_sets_of_images(command, work):
    run(command, "backup", "-q", make_image(work, "vmdk", "sparse.vmdk"), work / "sparse")
    keep(work / "sparse", "sparse_vmdk")
    run(command, "backup", "-q", make_image(work, "vpc", "dynamic.vhd"), work / "vhd")
    keep(work / "vhd", "dynamic_vhd")


def make_set_of_changes(command, work):
    image = work / "disk.qcow2"
    run("qemu-img", "create", "-q", "-f", "qcow2", image, DISK_BYTES)
    run("qemu-io", "-f", "qcow2", "-c", "write -q -P 1 0 1M", image)
    run("qemu-img", "bitmap", "--add", image, "monday")
    with export(work, image, "monday") as uri:
        run(command, "backup", "-q", uri, work / "base")
        run("qemu-io", "-f", "raw", "-c", "write -q -P 2 64k 1k", "-c", "write -q -P 3 1536k 64k", uri)
        run(command, "backup", "-q", "--changed-since", "monday", "--base", work / "base", uri, work / "changes")
    keep(work / "base", "whole_export")
    keep(work / "changes", "changes")


def make_set_of_files(command, work):
    image = work / "ntfs.raw"
    with open(image, "wb") as file:
        file.truncate(3 << 19)
    run("mkntfs", "-q", "-F", "-f", "-s", 512, "-c", 512, "-p", 0, "-H", 16, "-S", 63, image)
    text = work / "text"
    text.write_bytes(b"some text " * 90)
    run("ntfscp", "-f", "-q", image, text, "a file.txt")
    run(command, "backup", "-q", "--catalog", "--type", "raw", image, work / "files")
    keep(work / "files", "files")


def main():
    command = pathlib.Path(sys.argv[1]).resolve()
    TARGET.mkdir(exist_ok=True)
    with tempfile.TemporaryDirectory() as directory:
        work = pathlib.Path(directory)
        make_sets_of_images(command, work)
        make_set_of_changes(command, work)
        make_set_of_files(command, work)


if __name__ == "__main__":
    main()
