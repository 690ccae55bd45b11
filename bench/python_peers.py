"""Kel beside Pillow's JPEG 2000, WebP and PNG on the same arrays, in one process and one thread.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python_peers.py PICTURE... [--rounds N]

Pictures are what Pillow opens. Times are processor time of this process, the best of interleaved
rounds; MB are those of samples. Lossy files are of one PSNR (40 dB unless told otherwise), found by
halving each codec's own scale of qualities.
"""

import argparse
import io
import os
import time

import numpy
from PIL import Image

import kel

Image.MAX_IMAGE_PIXELS = None


def psnr(a, b):
    error = numpy.mean((a.astype(numpy.float32) - b) ** 2, dtype=float)
    return 10 * numpy.log10(255**2 / error) if error else float("inf")


def by_pillow(format, **options):
    def encode(array, **more):
        file = io.BytesIO()
        Image.fromarray(array).save(file, format, **options, **more)
        return file.getvalue()

    return encode, lambda data: numpy.asarray(Image.open(io.BytesIO(data)).convert("RGB"))


def by_kel(**options):
    return (lambda array, **more: kel.encode(array, threads=1, **options, **more),
            lambda data: kel.decode(data, threads=1))


LOSSLESS = {
    "Kel": by_kel(lossless=True),
    "JPEG 2000 (Pillow)": by_pillow("JPEG2000", irreversible=False),
    "WebP (Pillow)": by_pillow("WEBP", lossless=True, quality=0, method=0),
    "WebP, default effort": by_pillow("WEBP", lossless=True),
    "PNG (Pillow)": by_pillow("PNG"),
}
LOSSY = {
    "Kel": (by_kel(), lambda q: {"quality": round(q)}, 1, 99),
    "JPEG 2000 (Pillow)": (by_pillow("JPEG2000", irreversible=True, quality_mode="dB"),
                           lambda q: {"quality_layers": [round(q, 2)]}, 20, 60),
    "WebP (Pillow)": (by_pillow("WEBP"), lambda q: {"quality": round(q)}, 1, 100),
}


def settings_for(array, codec, target):
    (encode, decode), options, low, high = codec
    while high - low > (1 if high > 90 else 0.05):
        middle = (low + high) / 2
        reached = psnr(array, decode(encode(array, **options(middle))))
        low, high = (middle, high) if reached < target else (low, middle)
    return options(high)


def measure(array, codecs, rounds):
    """Per codec: seconds of encoding and decoding, bits per pixel, PSNR."""
    best = {name: [float("inf"), float("inf"), 0, 0] for name in codecs}
    for _ in range(rounds):
        for name, (encode, decode, options) in codecs.items():
            start = time.process_time()
            data = encode(array, **options)
            middle = time.process_time()
            decoded = decode(data)
            end = time.process_time()
            row = best[name]
            row[0], row[1] = min(row[0], middle - start), min(row[1], end - middle)
            row[2], row[3] = 8 * len(data) / array[..., 0].size, psnr(array, decoded)
    return best


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("pictures", nargs="+")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--psnr", type=float, default=40)
    given = parser.parse_args()
    print("| picture | codec | encode, MB/s | decode, MB/s | bits per pixel | PSNR, dB |")
    print("|---|---|--:|--:|--:|--:|")
    for path in given.pictures:
        array = numpy.array(Image.open(path).convert("RGB"))
        name = f"{os.path.splitext(os.path.basename(path))[0]}, {array[..., 0].size / 1e6:.1f} Mpixel"
        codecs = {codec: (*both, {}) for codec, both in LOSSLESS.items()}
        lossy = {codec: (*parts[0], settings_for(array, parts, given.psnr))
                 for codec, parts in LOSSY.items()}
        for mode, some in (("lossless", codecs), (f"{given.psnr:g} dB", lossy)):
            for codec, (encoding, decoding, bits, decibels) in measure(array, some, given.rounds).items():
                print(f"| {name}, {mode} | {codec} | {array.nbytes / 1e6 / encoding:.0f} | "
                      f"{array.nbytes / 1e6 / decoding:.0f} | {bits:.2f} | "
                      f"{'exact' if decibels == float('inf') else f'{decibels:.2f}'} |", flush=True)


if __name__ == "__main__":
    main()
