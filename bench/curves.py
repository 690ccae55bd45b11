#!/usr/bin/env python3
"""Measures and draws error over size: kel, kel --plain, and OpenJPH where it is installed.

usage: curves.py measure KEL TABLE PICTURE...     appends to TABLE, lines of
                                                  picture, codec, setting, bits per pixel, dB
       curves.py draw TABLE PNG [PICTURE...]      a panel for each picture, with gnuplot
       curves.py compare TABLE [DB...]            bits per pixel at those errors, as Markdown

Pictures are PPM or PGM files. Needs openjph-tools and gnuplot-nox.
"""
import math, os, re, shutil, subprocess, sys, tempfile

QUALITIES = [2, 10, 20, 30, 40, 50, 60, 70, 80]
STEPS = [0.13, 0.08, 0.05, 0.033, 0.022, 0.015, 0.01, 0.006, 0.004]
CODECS = ["kel", "plain", "OpenJPH"]


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def measure(kel, table, pictures):
    folder = tempfile.mkdtemp()
    coded, back = os.path.join(folder, "c"), os.path.join(folder, "b.ppm")

    def point(codec, setting, picture):
        if codec == "OpenJPH":
            name = coded + ".j2c"
            run("ojph_compress", "-qstep", str(setting), "-i", picture, "-o", name)
            run("ojph_expand", "-i", name, "-o", back)
        else:
            name = coded + ".kel"
            extra = ["--plain"] if codec == "plain" else []
            run(kel, "encode", "--quiet", "--overwrite", "-j", "1", "-q", str(setting), *extra, picture, name)
        said = subprocess.run([kel, "compare", picture, back if codec == "OpenJPH" else name],
                              capture_output=True, text=True).stdout
        return os.path.getsize(name), re.search(r"all\s+([\d.]+)", said).group(1)

    try:
        for picture in pictures:
            with open(picture, "rb") as file:
                width, height = map(int, file.read(64).split()[1:3])
            name = os.path.splitext(os.path.basename(picture))[0]
            for codec in CODECS:
                if codec == "OpenJPH" and not shutil.which("ojph_compress"):
                    continue
                for setting in STEPS if codec == "OpenJPH" else QUALITIES:
                    size, psnr = point(codec, setting, picture)
                    with open(table, "a") as out:
                        print(name, codec, setting, "%.4f" % (8 * size / width / height), psnr, sep="\t", file=out)
    finally:
        shutil.rmtree(folder)


def read(table):
    points = {}
    for line in open(table):
        picture, codec, _, bits, psnr = line.split("\t")
        points.setdefault(picture, {}).setdefault(codec, []).append((float(bits), float(psnr)))
    for curves in points.values():
        for curve in curves.values():
            curve.sort()
    return points


def draw(table, png, pictures):
    points = read(table)
    pictures = pictures or list(points)
    columns = min(len(pictures), 2)
    rows = math.ceil(len(pictures) / columns)
    script = ["set terminal pngcairo size %d,%d font 'sans,9'" % (300 * columns, 260 * rows),
              "set output '%s'" % png, "set multiplot layout %d,%d" % (rows, columns),
              "set grid", "set key bottom right", "set logscale x 2", "set yrange [28:50]",
              "set xlabel 'bits per pixel'", "set ylabel 'dB'"]
    for picture in pictures:
        for codec, curve in points[picture].items():
            script += ["$%s << EOD" % codec] + ["%g %g" % point for point in curve] + ["EOD"]
        script.append("set title '%s'" % picture)
        script.append("plot " + ", ".join("$%s with linespoints pointsize 0.4 title '%s'" % (codec, codec)
                                          for codec in points[picture]))
    subprocess.run(["gnuplot"], input="\n".join(script) + "\n", text=True, check=True)


def bits_at(curve, psnr):
    """Straight lines between points, over the logarithm of the bits."""
    for (b0, p0), (b1, p1) in zip(curve, curve[1:]):
        if p0 <= psnr <= p1:
            return math.exp(math.log(b0) + (psnr - p0) / (p1 - p0) * math.log(b1 / b0))
    return None


def compare(table, levels):
    points = read(table)
    print("| picture | " + " | ".join("%g dB: bits, of plain, of OpenJPH" % level for level in levels) + " |")
    print("|---|" + "---|" * len(levels))
    for picture, curves in points.items():
        cells = []
        for level in levels:
            bits = {codec: bits_at(curve, level) for codec, curve in curves.items()}
            own = bits.get("kel")
            cells.append(" ".join(["%.3f" % own if own else "-"] +
                                  ["%.2f" % (own / bits[c]) if own and bits.get(c) else "-" for c in CODECS[1:]]))
        print("| %s | %s |" % (picture, " | ".join(cells)))


if __name__ == "__main__":
    if len(sys.argv) > 4 and sys.argv[1] == "measure":
        measure(sys.argv[2], sys.argv[3], sys.argv[4:])
    elif len(sys.argv) > 3 and sys.argv[1] == "draw":
        draw(sys.argv[2], sys.argv[3], sys.argv[4:])
    elif len(sys.argv) > 2 and sys.argv[1] == "compare":
        compare(sys.argv[2], [float(v) for v in sys.argv[3:]] or [34, 37, 40, 43])
    else:
        sys.exit(__doc__)
