#!/usr/bin/env python3
"""scaling.py KEL PHOTO.ppm [ROUNDS]: how the time of the kel command depends on the size of the
picture, on its tiles and on the number of threads, as Markdown tables. About two minutes.

Pictures are made of the photo, mirrored, in memory (/dev/shm). All runs of a table are interleaved,
one of each in a round. Size and tiles: processor time, user and system, of one thread, less that of
`kel --version`; threads: time on the clock, which needs a quiet machine, beside what two commands
at once gain on it. Medians. Before a run as much memory is used and given back as the run needs: a
virtual machine's first use of memory costs more than all of the coding."""
import mmap
import os
import statistics
import subprocess
import sys
import tempfile
import time

kel, photo = sys.argv[1:3]
rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 5
here = os.path.dirname(os.path.abspath(__file__))
MODES = {"lossless": ["--lossless"], "quality 60": ["-q", "60"]}
PAGE = bytes(1 << 20)


def use_memory(megabytes):
    with mmap.mmap(-1, megabytes << 20) as block:
        if hasattr(mmap, "MADV_HUGEPAGE"):
            block.madvise(mmap.MADV_HUGEPAGE)
        for start in range(0, megabytes << 20, 1 << 20):
            block[start:start + (1 << 20)] = PAGE


def start(arguments):
    return os.posix_spawn(kel, [kel, *arguments], os.environ, file_actions=[
        (os.POSIX_SPAWN_OPEN, 1, os.devnull, os.O_WRONLY, 0)])


def finish(process):
    _, status, usage = os.wait4(process, 0)
    if status != 0:
        sys.exit("kel failed")
    return usage.ru_utime + usage.ru_stime


def run(commands, megabytes):
    """Milliseconds of processor and clock that commands take which run at once."""
    use_memory(megabytes)
    begin = time.perf_counter()
    used = [finish(process) for process in [start(command) for command in commands]]
    return 1e3 * sum(used), 1e3 * (time.perf_counter() - begin)


def measure(cases):
    """Medians of processor and clock time of each case: megabytes and commands to run at once."""
    times = {name: [] for name in cases}
    for _ in range(rounds):
        for name, (megabytes, commands) in cases.items():
            times[name].append(run(commands, megabytes))
    return {name: tuple(map(statistics.median, zip(*both))) for name, both in times.items()}


def table(head, rows):
    print("| " + " | ".join(head) + " |\n|---|" + "--:|" * (len(head) - 1))
    for row in rows:
        print("| " + " | ".join(row) + " |")
    print(flush=True)


def main(folder):
    def path(name):
        return os.path.join(folder, name)

    def picture(width, height):
        name = path(f"{width}x{height}.ppm")
        if not os.path.exists(name):
            with open(name, "wb") as file:
                subprocess.run([sys.executable, os.path.join(here, "mirrored.py"), photo,
                                str(width), str(height)], stdout=file, check=True)
        return name

    begin = measure({"": (1, [["--version"]])})[""][0]

    sizes = [("1000 x 1000", 1000, 1000, []), ("4000 x 3000", 4000, 3000, []),
             ("8192 x 8192", 8192, 8192, []),
             ("8192 x 8192, tiles of 512", 8192, 8192, ["--tile", "512x512"]),
             ("8192 x 8192, one tile", 8192, 8192, ["--tile", "8192x8192"])]
    rows = []
    cost = {}
    for mode in MODES:
        cases = {}
        for name, width, height, tile in sizes:
            coded = path(f"{mode}.{name}.kel".replace(" ", "_"))
            encode = ["encode", "--quiet", "-j", "1", *MODES[mode], *tile, picture(width, height)]
            run([encode + [coded]], 1)
            room = 600 if "one tile" in name else 50
            cases[name, "encode"] = (room, [encode + [path("out.kel")]])
            cases[name, "decode"] = (room, [["decode", "--quiet", "-j", "1", coded,
                                             path("out.ppm")]])
        for (name, what), (used, _) in measure(cases).items():
            width, height = next(size[1:3] for size in sizes if size[0] == name)
            cost[name, what, mode] = (used - begin) * 1e6 / (3 * width * height)
    for name, *_ in sizes:
        against = {"8192 x 8192, one tile": "8192 x 8192, tiles of 512"}.get(name, sizes[0][0])
        row = [name]
        for mode in MODES:
            for what in ("encode", "decode"):
                ratio = cost[name, what, mode] / cost[against, what, mode]
                row.append(f"{cost[name, what, mode]:.2f} ({ratio:.2f})")
        rows.append(row)
    print(f"Nanoseconds a sample (RGB of 8 bits), in brackets against 1000 x 1000, one tile against "
          f"tiles of 512; beginning of the command, not counted: {begin:.1f} ms\n")
    table(["picture"] + [f"{what}, {mode}" for mode in MODES for what in ("encode", "decode")], rows)

    rows = []
    for width, height in ((4000, 3000), (2000, 1500)):
        source = picture(width, height)
        for mode in MODES:
            coded = path(f"threads.{mode}.{width}.kel".replace(" ", "_"))
            encode = ["encode", "--quiet", *MODES[mode], source]
            run([encode + [coded]], 1)
            cases = {}
            for threads in (1, 2):
                j = ["-j", str(threads)]
                cases["encode", threads] = (100, [encode + j + [path("out.kel")]])
                cases["decode", threads] = (100, [["decode", "--quiet", coded] + j +
                                                  [path("out.ppm")]])
            j = ["-j", "1"]
            cases["encode", 0] = (100, [encode + j + [path(f"out{i}.kel")] for i in range(2)])
            cases["decode", 0] = (100, [["decode", "--quiet", coded] + j + [path(f"out{i}.ppm")]
                                        for i in range(2)])
            times = measure(cases)
            for what in ("encode", "decode"):
                one, two, both = (times[what, threads] for threads in (1, 2, 0))
                rows.append([f"{width} x {height}, {what}, {mode}", f"{one[1]:.1f}",
                             f"{two[1]:.1f}", f"{one[1] / two[1]:.2f}",
                             f"{(one[1] - begin) / max(two[1] - begin, 0.1):.2f}",
                             f"{two[0] / one[0]:.2f}", f"{2 * one[1] / both[1]:.2f}"])
    table(["picture", "-j 1, ms", "-j 2, ms", "gain", "without the beginning",
           "processor time of -j 2 to -j 1", "gain of two commands at once"], rows)


with tempfile.TemporaryDirectory(dir="/dev/shm" if os.path.isdir("/dev/shm") else None) as work:
    main(work)
