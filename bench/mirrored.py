#!/usr/bin/env python3
"""mirrored.py PHOTO.ppm WIDTH HEIGHT: a picture of any size on standard output, made of a photo
beside copies of itself, upside down in turn, so that it goes on."""
import sys

with open(sys.argv[1], "rb") as photo:
    assert photo.readline() == b"P6\n"
    width, height = map(int, photo.readline().split())
    assert photo.readline() == b"255\n"
    samples = photo.read()
row = 3 * width
wanted, rows = int(sys.argv[2]), int(sys.argv[3])
copies = -(-wanted // width)
sys.stdout.buffer.write(b"P6\n%d %d\n255\n" % (wanted, rows))
for y in range(rows):
    k = y % (2 * height)
    k = min(k, 2 * height - 1 - k)
    sys.stdout.buffer.write((samples[k * row:(k + 1) * row] * copies)[:3 * wanted])
