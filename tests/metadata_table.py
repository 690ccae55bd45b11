#!/usr/bin/env python3
"""What of the metadata survives from one format of image files through a Kel file to another.

Usage: metadata_table.py KEL [DOCUMENT]. Makes files with exiftool, takes them through the command, reads
them with exiftool, and prints a table. With DOCUMENT it fails when that does not contain the
table. Metadata that get lost without a warning are a failure in any case.
"""
import json
import os
import struct
import subprocess
import sys
import tempfile

FORMATS = ["png", "jpg", "tif", "ppm"]
LONG = 100000  # characters of XMP, more than a segment of a JPEG file holds

# Name of the column: tags as exiftool writes them, and the formats that can hold them.
KINDS = {
    "EXIF": (["EXIF:Make=Maker", "EXIF:DateTimeOriginal=2020:01:02 03:04:05"], "png jpg tif"),
    "GPS": (["EXIF:GPSLatitude=48.5", "EXIF:GPSLatitudeRef=N"], "png jpg tif"),
    "orientation": (["EXIF:Orientation#=6"], "png jpg tif"),
    "XMP": (["XMP:Title=A title"], "png jpg tif"),
    "long XMP": (["XMP:Description=" + "x" * LONG], "png jpg tif"),
    "IPTC": (["IPTC:Keywords=word"], "png jpg tif"),
    "profile": (["ICC_Profile<=profile.icc"], "png jpg tif"),
    "resolution": ([], "png jpg tif"),
    "comment": (["Comment=A comment"], "png jpg"),
    "texts": (["PNG:Title=A text"], "png"),
}


def profile():
    """A colour profile of no more than exiftool and libraries of images ask for."""
    body = b"desc" + bytes(4) + struct.pack(">I", 5) + b"test\0" + bytes(79)
    head = struct.pack(">I4sI4s4s4s", 144 + len(body), b"test", 0x02400000, b"mntr", b"RGB ", b"XYZ ")
    head += struct.pack(">6H", 2020, 1, 1, 0, 0, 0) + b"acsp" + bytes(28)
    head += struct.pack(">3I", 0xF6D6, 0x10000, 0xD32D)
    return head.ljust(128, b"\0") + struct.pack(">I4sII", 1, b"desc", 144, len(body)) + body


def run(*command, folder):
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, check=False)
    if done.returncode:
        sys.exit(f"{' '.join(command)[:200]}: {done.stderr}")
    return done.stderr


def all_tags(folder):
    """What exiftool reads from every image file of a folder, by the files' names."""
    done = subprocess.run(["exiftool", "-j", "-n", "-a", "-G0", *(part for end in FORMATS for part in ("-ext", end)),
                           "."], cwd=folder, capture_output=True, text=True, check=True)
    return {os.path.basename(found["SourceFile"]): found for found in json.loads(done.stdout)}


def value(found, kind):
    """What a file says of a kind; None for nothing."""
    def first(*names):
        return next((found[name] for name in names if name in found), None)
    if kind == "EXIF":
        return (first("EXIF:Make"), first("EXIF:DateTimeOriginal")) if first("EXIF:Make") else None
    if kind == "profile":
        return first("ICC_Profile:ProfileDescription")
    if kind == "resolution":
        across = first("JFIF:XResolution", "EXIF:XResolution")
        return round(across) if across else round(found.get("PNG:PixelsPerUnitX", 0) / 39.37) or None
    if kind == "comment":
        return first("File:Comment", "PNG:Comment", "EXIF:ImageDescription")
    names = {"GPS": "EXIF:GPSLatitude", "orientation": "EXIF:Orientation", "XMP": "XMP:Title",
             "long XMP": "XMP:Description", "IPTC": "IPTC:Keywords", "texts": "PNG:Title"}
    return first(names[kind])


def main():
    kel = os.path.abspath(sys.argv[1])
    lines = ["| from | to | " + " | ".join(KINDS) + " |", "|---|---|" + "---|" * len(KINDS)]
    silent, said = [], {}
    with tempfile.TemporaryDirectory() as folder:
        with open(f"{folder}/profile.icc", "wb") as file:
            file.write(profile())
        with open(f"{folder}/plain.ppm", "wb") as file:
            file.write(b"P6 16 8 255\n" + bytes(range(128)) * 3)
        run(kel, "encode", "--resolution", "300", "plain.ppm", "plain.kel", folder=folder)
        for source in FORMATS[:3]:
            for kind, (assignments, holders) in KINDS.items():
                name = f"{source}-{kind.replace(' ', '-')}.{source}"
                run(kel, "decode", "plain.kel", name, folder=folder)
                if source in holders.split() and assignments:
                    run("exiftool", "-q", "-overwrite_original",
                        *("-" + tag for tag in assignments), name, folder=folder)
                run(kel, "encode", name, name + ".kel", folder=folder)
                for target in FORMATS:
                    said[name, target] = run(kel, "decode", name + ".kel", f"{name}.{target}",
                                             folder=folder)
        found = all_tags(folder)
    for source in FORMATS[:3]:
        for target in FORMATS:
            cells = []
            for kind in KINDS:
                name = f"{source}-{kind.replace(' ', '-')}.{source}"
                before = value(found[name], kind)
                after = value(found[f"{name}.{target}"], kind)
                if before is not None and before != after and "does not hold" not in said[name, target]:
                    silent.append(f"{source} to {target}: {kind}: {before!r:.60} {after!r:.60}")
                cells.append("" if before is None else "kept" if before == after else "warns")
            lines.append(f"| {source} | {target} | " + " | ".join(cells) + " |")
    table = "\n".join(lines) + "\n"
    print(table)
    if silent:
        sys.exit("lost without a word:\n" + "\n".join(silent))
    if len(sys.argv) > 2:
        with open(sys.argv[2], encoding="utf-8") as file:
            if table not in file.read():
                sys.exit(f"{sys.argv[2]} has another table")


main()
