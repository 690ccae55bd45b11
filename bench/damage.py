#!/usr/bin/env python3
"""What damage to the bytes of a file costs, in decibels, beside another codec's files of the same
size: kel and opj_compress/opj_decompress must be on the path or named.

    damage.py PICTURE.ppm [--kel KEL] [--bytes 180000] [--trials 7] [--peer]

The first 400 bytes, which hold the main header of both, stay as they are.
"""
import argparse
import math
import os
import random
import re
import subprocess
import tempfile

PROTECTED = 400


def read_ppm(path):
    with open(path, "rb") as file:
        data = file.read()
    match = re.match(rb"P6\s+(?:#.*\n)?(\d+)\s+(\d+)\s+255\s", data)
    return int(match[1]), int(match[2]), data[match.end():]


def psnr(a, b):
    if len(a) != len(b):
        return 0.0
    squares = [i * i for i in range(256)]
    error = sum(squares[abs(x - y)] for x, y in zip(a, b)) / len(a)
    return 99.0 if error == 0 else 10 * math.log10(255 * 255 / error)


def flip(rate):
    def damage(data, chance):
        for i in range(PROTECTED, len(data)):
            if chance.random() < 1 / rate:
                data[i] ^= chance.randrange(1, 256)
    return damage


def flips(count):
    def damage(data, chance):
        for _ in range(count):
            data[chance.randrange(PROTECTED, len(data))] ^= chance.randrange(1, 256)
    return damage


def zeros(count):
    def damage(data, chance):
        at = chance.randrange(PROTECTED, len(data) - count)
        data[at:at + count] = bytes(count)
    return damage


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("picture")
    parser.add_argument("--kel", default="kel")
    parser.add_argument("--bytes", type=int, default=180000)
    parser.add_argument("--trials", type=int, default=7)
    parser.add_argument("--peer", action="store_true")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        def place(name):
            return os.path.join(folder, name)

        def run(*command):
            return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  timeout=120)

        _, _, original = read_ppm(options.picture)
        run(options.kel, "encode", "--size", str(options.bytes), options.picture, place("a.kel"))
        codecs = {"kel": ("a.kel", lambda f, t: run(options.kel, "decode", f, t))}
        if options.peer:
            ratio = len(original) / options.bytes
            run("opj_compress", "-i", options.picture, "-o", place("a.jp2"), "-r", str(ratio), "-I")
            codecs["peer"] = ("a.jp2", lambda f, t: run("opj_decompress", "-i", f, "-o", t))
        for name, damage in (("intact", flips(0)), ("one byte in 100000", flip(100000)),
                             ("one byte in 10000", flip(10000)), ("64 bytes zeroed", zeros(64))):
            for codec, (file, decode) in codecs.items():
                with open(place(file), "rb") as source:
                    good = source.read()
                values = []
                for trial in range(1 if name == "intact" else options.trials):
                    chance = random.Random(f"{name} {trial}")
                    data = bytearray(good)
                    while name != "intact" and data == good:
                        damage(data, chance)
                    damaged = place("damaged" + os.path.splitext(file)[1])
                    out = place("out.ppm")
                    with open(damaged, "wb") as target:
                        target.write(data)
                    if os.path.exists(out):
                        os.remove(out)
                    decode(damaged, out)
                    values.append(psnr(original, read_ppm(out)[2]) if os.path.exists(out) else 0.0)
                values.sort()
                print(f"{codec:5} {len(good):7} bytes, {name:20} median {values[len(values) // 2]:6.2f}"
                      f" worst {values[0]:6.2f} dB", flush=True)


main()
