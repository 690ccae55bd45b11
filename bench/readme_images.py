#!/usr/bin/python3
"""The pictures at the top of the README.

usage: readme_images.py KEL

docs/images/peers.png: speed and bytes beside another codec, from the first table of docs/benchmarks.md.
docs/images/sizes.jpg: a part of a photo as it is, and out of files of three sizes, which it prints.
Needs gnuplot-nox and python3-numpy.
"""
import os, re, subprocess, sys, tempfile

import numpy

FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
PHOTO = os.path.join(FOLDER, "examples", "images", "coffee.png")
SIZES = [8000, 16000, 40000]
CROP = (slice(110, 310), slice(250, 450))  # the cup
GAP = 6


def table():
    """Rows of mode, codec, encoding and decoding in MB/s, bits per pixel."""
    mode, rows = "", []
    for line in open(os.path.join(FOLDER, "docs", "benchmarks.md"), encoding="utf-8"):
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
        if len(cells) != 7 or not re.fullmatch(r"[\d.]+", cells[2]):
            if rows:
                break
            continue
        mode = cells[0] or mode
        if cells[1] != "file copy":
            rows.append((mode, cells[1], float(cells[2]), float(cells[3]), float(cells[6])))
    return rows


def draw_peers(rows, path):
    modes = list(dict.fromkeys(row[0] for row in rows))
    script = ["set terminal pngcairo size 900,300 font 'sans,10'", "set output '%s'" % path,
              "set style data histogram", "set style fill solid 0.8 border -1", "set boxwidth 0.8",
              "set yrange [0:*]", "set ylabel 'MB of samples per second'", "set grid ytics", "set key top left",
              "set bmargin 3.2", "set xrange [-0.7:1.7]", "set multiplot layout 1,%d" % len(modes)]
    for number, mode in enumerate(modes):
        script.append("$t%d << END" % number)
        for _, codec, encode, decode, bits in (row for row in rows if row[0] == mode):
            script.append('"%s\\n%.2f bits per pixel" %g %g' % (codec, bits, encode, decode))
        script += ["END", "set title '%s'" % mode,
                   "plot $t%d using 2:xtic(1) title 'encode' lc rgb '#4878a8', '' using 3 title 'decode' lc rgb '#e09040'"
                   % number]
    subprocess.run(["gnuplot"], input="\n".join(script) + "\n", text=True, check=True)


def read_ppm(path):
    with open(path, "rb") as file:
        head = file.readline(), file.readline().split(), file.readline()
        width, height = int(head[1][0]), int(head[1][1])
        return numpy.frombuffer(file.read(), numpy.uint8).reshape(height, width, 3)


def draw_sizes(kel, path):
    with tempfile.TemporaryDirectory() as folder:
        coded, plain = os.path.join(folder, "x.kel"), os.path.join(folder, "x.ppm")

        def run(*arguments):
            subprocess.run([kel, *arguments], check=True)

        run("encode", "--lossless", PHOTO, coded)
        run("decode", coded, plain)
        strips = [read_ppm(plain)[CROP]]
        print("original: %d bytes of samples" % read_ppm(plain).size)
        for size in SIZES:
            run("encode", "--size", str(size), PHOTO, coded)
            run("decode", coded, plain)
            print("%d bytes" % os.path.getsize(coded))
            strips += [numpy.full((strips[0].shape[0], GAP, 3), 255, numpy.uint8), read_ppm(plain)[CROP]]
        joined = numpy.concatenate(strips, axis=1)
        with open(plain, "wb") as file:
            file.write(b"P6\n%d %d\n255\n" % (joined.shape[1], joined.shape[0]) + joined.tobytes())
        run("encode", "--lossless", plain, coded)
        run("decode", coded, path)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    images = os.path.join(FOLDER, "docs", "images")
    draw_peers(table(), os.path.join(images, "peers.png"))
    draw_sizes(sys.argv[1], os.path.join(images, "sizes.jpg"))
