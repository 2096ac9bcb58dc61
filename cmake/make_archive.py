#!/usr/bin/env python3
"""Writes a zip archive whose bytes depend only on the files it holds.

    make_archive.py OUTPUT TOP_FOLDER SOURCE_TREE SOURCE|PATH...

Each SOURCE is stored as TOP_FOLDER/PATH, in the order given, each folder
entry before the first file below it. Every entry carries the same date:
$SOURCE_DATE_EPOCH when it is set, else the time of SOURCE_TREE's last
commit, else 2000-01-01. Programs (.exe, .sh) are 0755 and other files 0644,
whatever the build machine's modes; no owner, group or access time is stored, and the compression is fixed,
so two builds of one commit give the same archive wherever they were made.
"""
import os
import subprocess
import sys
import time
import zipfile


def archive_time(source_tree):
    epoch = os.environ.get("SOURCE_DATE_EPOCH")
    if not epoch:
        try:
            epoch = subprocess.run(["git", "-C", source_tree, "log", "-1", "--format=%ct"],
                                   capture_output=True, text=True, check=True).stdout.strip()
        except (OSError, subprocess.CalledProcessError):
            epoch = ""
    # Zip dates are two-second steps from 1980 on.
    seconds = max(int(epoch) if epoch else 946684800, 315532800)
    return time.gmtime(seconds)[:6]


def entry(name, date, mode):
    info = zipfile.ZipInfo(name, date_time=date)
    info.create_system = 3  # Unix, so that the mode below is read
    info.external_attr = mode << 16
    if name.endswith("/"):
        info.external_attr |= 0x10  # the MS-DOS folder attribute
    else:
        info.compress_type = zipfile.ZIP_DEFLATED
    return info


def main(output, top, source_tree, *files):
    date = archive_time(source_tree)
    folders = set()
    temporary = output + ".part"
    with zipfile.ZipFile(temporary, "w", compresslevel=9) as archive:
        for item in files:
            source, _, path = item.partition("|")
            if not path:
                sys.exit(f"make_archive.py: '{item}' is not SOURCE|PATH")
            name = f"{top}/{path}"
            parts = name.split("/")
            for depth in range(1, len(parts)):
                folder = "/".join(parts[:depth]) + "/"
                if folder not in folders:
                    folders.add(folder)
                    archive.writestr(entry(folder, date, 0o40755), b"")
            mode = 0o100755 if path.lower().endswith((".exe", ".sh")) else 0o100644
            with open(source, "rb") as f:
                archive.writestr(entry(name, date, mode), f.read())
    os.replace(temporary, output)
    print(f"Archive: {output} ({len(files)} files)")


if __name__ == "__main__":
    if len(sys.argv) < 5:
        sys.exit(__doc__)
    main(*sys.argv[1:])
