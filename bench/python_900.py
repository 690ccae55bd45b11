"""Memory and time of a picture of 30,000 x 30,000 RGB samples opened and sliced in Python.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python_900.py FOLDER

The picture is a view of a few megabytes, in which rows overlap, and so takes no memory itself.
"""

import os
import re
import subprocess
import sys
import time

import numpy

SIDE = 30_000

LOOK = """
import sys, time, kel
def now(): return time.process_time()
import re
def peak(): return int(re.search(r"VmHWM:\\s+(\\d+)", open("/proc/self/status").read())[1]) // 1024
before, start = peak(), now()
picture = kel.open(sys.argv[1])
print(f"opened in {now() - start:.3f} s, at most {peak()} MB")
for name, part in (("1000 x 1000 in the middle", lambda: picture[15000:16000, 15000:16000]),
                   ("a column of 30,000 x 16", lambda: picture[:, 7000:7016]),
                   ("whole, 938 x 938", lambda: picture.level(5)[:])):
    start = now()
    array = part()
    print(f"{name}: {array.shape}, {now() - start:.3f} s, at most {peak()} MB so far")
print(f"before opening {before} MB")
"""


def peak_megabytes():
    with open("/proc/self/status") as status:
        return int(re.search(r"VmHWM:\s+(\d+)", status.read())[1]) // 1024


def main(folder):
    path = os.path.join(folder, "picture900.kel")
    if not os.path.exists(path):
        import kel
        length = SIDE * 3 * 40
        steps = numpy.arange(length + SIDE * 80)
        base = ((steps >> 5) + 40 * numpy.sin(steps / 700) + steps % 5).astype(numpy.uint8)
        array = numpy.lib.stride_tricks.as_strided(base, (SIDE, SIDE, 3), (79, 3, 1), writeable=False)
        start, clock = time.process_time(), time.perf_counter()
        size = kel.write(path, array, quality=60)
        print(f"written: {size / 1e6:.0f} MB, {time.process_time() - start:.1f} s of processors, "
              f"{time.perf_counter() - clock:.1f} s, at most {peak_megabytes()} MB")
    subprocess.run([sys.executable, "-c", LOOK, path], check=True)


if __name__ == "__main__":
    main(sys.argv[1])
