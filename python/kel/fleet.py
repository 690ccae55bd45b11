"""Thousands of pictures over Dask distributed.

    python3 -m kel.fleet encode photos/ coded/ --quality 70
    python3 -m kel.fleet check photos/ coded/
    python3 -m kel.fleet decode coded/ pictures/ --format png --scheduler tcp://head:8786

Every result is a line of JSON in the manifest as soon as it is known. A run that ended for whatever
reason goes on where it was when it is started again; files whose input has changed since, that were
made with other options, or that failed, are done again. Outputs are written beside their names and
renamed when whole.
"""

import argparse
import collections
import contextlib
import fcntl
import glob
import json
import os
import pathlib
import re
import sys
import time

import kel
from kel import _kel
from kel._options import ENCODE

#: Of the files of folders that are images, and of those that can be made.
IMAGES = set(_kel.READ_ENDINGS)
FORMATS = tuple(ending[1:] for ending in _kel.WRITTEN_ENDINGS)

#: What the kit may use of a worker's memory; the rest is the interpreter's and the files' bytes.
_SHARE = 0.6
#: How long a task should take.
_SECONDS = 2.0

Job = collections.namedtuple("Job", "input output size mtime")
Summary = collections.namedtuple("Summary", "done skipped failed")


class UsageError(Exception):
    """What was asked for contradicts itself."""


# ---- On the workers ----

def _work(command, jobs, options, memory, psnr):
    """One task: some files, and a result for each, whatever happens to it."""
    _limit_memory(memory)
    results = []
    for job in jobs:
        start = time.perf_counter()
        result = {"input": job.input, "output": job.output, "bytes": None}
        try:
            result.update(_DO[command](job, options, psnr))
        except Exception as error:  # noqa: BLE001: a file is not to end the others
            result["error"] = str(error) or type(error).__name__
        result["seconds"] = round(time.perf_counter() - start, 4)
        results.append(result)
    return results


def _limit_memory(memory):
    if memory is None:
        import distributed
        memory = distributed.get_worker().memory_manager.memory_limit
    limit = int(memory * _SHARE) if memory else 0
    if limit and kel.memory_limit() != limit:
        kel.set_memory_limit(limit)


def _likeness(job):
    value = _kel.compare_files(job.input, job.output)
    return {"psnr": None, "identical": True} if value == float("inf") else {
        "psnr": round(value, 3), "identical": False}


def _encode(job, options, psnr):
    os.makedirs(os.path.dirname(job.output), exist_ok=True)
    result = {"bytes": _kel.encode_file(job.input, job.output, options)}
    return {**result, **(_likeness(job) if psnr else {})}


def _decode(job, options, psnr):
    os.makedirs(os.path.dirname(job.output), exist_ok=True)
    _kel.decode_file(job.input, job.output, options)
    return {"bytes": os.path.getsize(job.output), **(_likeness(job) if psnr else {})}


def _check(job, options, psnr):
    status = os.stat(job.output)
    return {"bytes": status.st_size, "output_mtime_ns": status.st_mtime_ns, **_likeness(job)}


_DO = {"encode": _encode, "decode": _decode, "check": _check}


# ---- What is to be done ----

def _jobs(sources, folder, ending, endings):
    """A job for every file, those of folders with their tree."""
    found = []
    for source in map(pathlib.Path, sources):
        if source.is_dir():
            found += [(path, path.relative_to(source)) for path in sorted(source.rglob("*"))
                      if path.suffix.lower() in endings and path.is_file()]
        elif source.is_file():
            found.append((source, pathlib.Path(source.name)))
        else:
            raise UsageError(f"{source}: there is no such file or folder")
    jobs, owners = [], {}
    inputs = {os.path.realpath(path) for path, _ in found}
    for path, name in found:
        output = os.path.abspath(folder / name.with_suffix(ending))
        if output in owners:
            raise UsageError(f"{owners[output]} and {path} would both become {output}")
        if os.path.realpath(output) in inputs:
            raise UsageError(f"{output} is an input")
        owners[output] = path
        status = path.stat()
        jobs.append(Job(os.path.abspath(path), output, status.st_size, status.st_mtime_ns))
    return jobs


class Manifest:
    """The lines of all results so far; one run at a time."""

    def __init__(self, path):
        self.path = path
        os.makedirs(os.path.dirname(path), exist_ok=True)
        self.existed = os.path.exists(path)
        self._file = open(path, "a+b")
        try:
            fcntl.flock(self._file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            self._file.close()
            raise UsageError(f"{path}: another run writes to it") from None
        self._file.seek(0)
        text = self._file.read()
        if text and not text.endswith(b"\n"):  # the end of a run that was cut off
            self._file.write(b"\n")
        self.entries = {}
        for line in text.splitlines():
            with contextlib.suppress(ValueError, TypeError, KeyError):
                entry = json.loads(line)
                self.entries[entry["output"]] = entry

    def add(self, entry):
        self.entries[entry["output"]] = entry
        self._file.write(json.dumps(entry).encode() + b"\n")
        self._file.flush()

    def has(self, job, options):
        """Whether the job was done as it is asked for now, and its output is still there."""
        entry = self.entries.get(job.output)
        if entry is None or entry.get("error") is not None:
            return False
        if (entry["input"], entry["input_bytes"], entry["input_mtime_ns"], entry["options"]) != (
                job.input, job.size, job.mtime, options):
            return False
        with contextlib.suppress(OSError):
            status = os.stat(job.output)
            checked = entry.get("output_mtime_ns", status.st_mtime_ns)
            return (status.st_size, status.st_mtime_ns) == (entry["bytes"], checked)
        return False

    def close(self):
        self._file.close()


def _remove_parts(jobs):
    """What workers that died have left beside the names."""
    for job in jobs:
        folder, name = os.path.split(job.output)
        for path in glob.glob(os.path.join(glob.escape(folder), f".{glob.escape(name)}.*.part")):
            with contextlib.suppress(OSError):
                os.unlink(path)


# ---- The run ----

class _Progress:
    """A bar in the last line of a terminal."""

    def __init__(self, total, show):
        self.total, self.done, self.bytes = total, 0, 0
        self.show = sys.stderr.isatty() if show is None else show
        self.start = time.monotonic()

    def add(self, result):
        self.done += 1
        self.bytes += result["bytes"] or 0
        if self.show:
            full = 30 * self.done // self.total
            rate = self.done / max(time.monotonic() - self.start, 1e-3)
            print(f"\r[{'#' * full}{'.' * (30 - full)}] {self.done}/{self.total} files, "
                  f"{self.bytes / 1e6:.1f} MB, {rate:.1f}/s ", end="", file=sys.stderr, flush=True)

    def finish(self):
        if self.show:
            print(file=sys.stderr)


@contextlib.contextmanager
def _client(scheduler, workers, memory):
    import distributed
    if scheduler is not None:
        with distributed.Client(scheduler, set_as_default=False) as client:
            yield client
        return
    with distributed.LocalCluster(
            n_workers=workers or os.cpu_count(), threads_per_worker=1, processes=True,
            memory_limit=memory or "auto", dashboard_address=None) as cluster:
        with distributed.Client(cluster, set_as_default=False) as client:
            yield client


class _Batches:
    """Hands out jobs in tasks of about the same time, by how long the last ones took."""

    def __init__(self, jobs):
        self.waiting = collections.deque(jobs)
        self.alone = collections.deque()
        self.seconds_per_byte = None

    def __bool__(self):
        return bool(self.waiting or self.alone)

    def next(self, width):
        if self.alone:
            return [self.alone.popleft()]
        batch, seconds = [self.waiting.popleft()], 0.0
        most = max(len(self.waiting) // width, 1)
        while self.waiting and self.seconds_per_byte is not None and len(batch) < most:
            seconds += (batch[-1].size + 1) * self.seconds_per_byte
            if seconds >= _SECONDS:
                break
            batch.append(self.waiting.popleft())
        return batch

    def learn(self, batch, results):
        latest = sum(r["seconds"] for r in results) / sum(job.size + 1 for job in batch)
        before = self.seconds_per_byte
        self.seconds_per_byte = latest if before is None else 0.7 * before + 0.3 * latest


def _run_jobs(client, command, jobs, options, memory, psnr, report):
    """Calls report(job, result) for each job, as results come."""
    import distributed
    batches = _Batches(jobs)
    flying = {}
    pool = distributed.as_completed(loop=client.loop)

    def fill():
        width = 2 * max(sum(client.nthreads().values()), 1)
        while batches and len(flying) < width:
            batch = batches.next(width)
            future = client.submit(_work, command, batch, options, memory, psnr, pure=False)
            flying[future] = batch
            pool.add(future)

    fill()
    for future in pool:
        batch = flying.pop(future)
        try:
            results = future.result()
            batches.learn(batch, results)
        except Exception as error:  # noqa: BLE001: the task is lost, not the run
            if len(batch) > 1:
                batches.alone.extend(batch)
                fill()
                continue
            results = [{"input": batch[0].input, "output": batch[0].output, "bytes": None,
                        "seconds": None, "error": f"no worker lived through it: {error}"}]
        for job, result in zip(batch, results):
            report(job, result)
        fill()


def run(command, sources, folder, *, options=None, ending=None, scheduler=None, workers=None,
        memory=None, psnr=False, manifest=None, overwrite=False, progress=None):
    """Encode, decode or check many files; returns a Summary of numbers and the failed results.

    command: "encode", "decode" or "check". sources: files and folders. folder: of the outputs; of
    "check", of the encoded files to be compared with the sources. options: those of kel.encode, or
    reduce, fit, exact and strict for decode. scheduler: an address; else workers are started on this machine.
    memory: of each worker, such as "2G". psnr: measure every output. manifest: its path.
    """
    options = dict(options or {})
    if command == "encode":
        options = kel._coding(options)
        options.setdefault("threads", 1)
    if "fit" in options:
        options["fit"] = kel._size_pair(options["fit"], "fit")
    folder = pathlib.Path(folder)
    ending = ending or (".png" if command == "decode" else ".kel")
    jobs = _jobs(sources, folder, ending, {".kel"} if command == "decode" else IMAGES)
    memory = kel._bytes_number(memory) if memory else None
    told = {"command": command, **json.loads(json.dumps(options))}
    path = os.path.abspath(manifest or folder / f"{command}.jsonl")
    failed = []
    with contextlib.closing(Manifest(path)) as record:
        if command != "check" and not record.existed and not overwrite:
            for job in jobs:
                if os.path.exists(job.output):
                    raise UsageError(f"{job.output} exists, and no manifest of it; "
                                     "--overwrite replaces such files")
        left = [job for job in jobs if not record.has(job, told)]
        if not left:
            return Summary(0, len(jobs), failed)
        _remove_parts(left)
        bar = _Progress(len(left), progress)

        def report(job, result):
            record.add({**result, "input_bytes": job.size, "input_mtime_ns": job.mtime,
                        "options": told})
            if result.get("error") is not None:
                failed.append(result)
            bar.add(result)

        try:
            with _client(scheduler, workers, memory) as client:
                _run_jobs(client, command, left, options, memory, psnr, report)
        finally:
            bar.finish()
        _remove_parts(left)
    return Summary(len(left) - len(failed), len(jobs) - len(left), failed)


# ---- The command line ----

_TYPES = {"int": int, "float, decibels": float, "float or (x, y), samples per inch": float}


def _parser():
    parser = argparse.ArgumentParser(prog="python3 -m kel.fleet", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)
    for name, says in (("encode", "image files into Kel files"),
                       ("decode", "Kel files into image files"),
                       ("check", "compare image files with what was made of them")):
        command = commands.add_parser(name, help=says, description=says)
        command.add_argument("sources", nargs="+", metavar="SRC", help="files and folders")
        command.add_argument("folder", metavar="DEST", help="folder of the outputs")
        command.add_argument("--scheduler", metavar="ADDRESS", help="of a running cluster")
        command.add_argument("--workers", type=int, metavar="N",
                             help="processes on this machine [one per processor]")
        command.add_argument("--memory", metavar="BYTES", help="of each worker, such as 2G")
        command.add_argument("--manifest", metavar="FILE",
                             help=f"lines of JSON [DEST/{name}.jsonl]")
        command.add_argument("--measure", action="store_true", help="PSNR of every output")
        command.add_argument("--overwrite", action="store_true",
                             help="replace outputs of which there is no manifest")
        command.add_argument("--no-progress", action="store_true", help="no bar")
    for keyword, option in ENCODE.items():
        if option["words"].startswith("array"):
            continue
        more = {"default": None, "dest": "option_" + keyword, "help": option["help"]}
        encode = commands.choices["encode"]
        if option["words"] == "bool":
            encode.add_argument(option["spelling"], action="store_const",
                                const=not option["default"], **more)
        else:
            encode.add_argument(option["spelling"], metavar=keyword.upper(),
                                type=_TYPES.get(option["words"], str), **more)
    decode = commands.choices["decode"]
    decode.add_argument("--format", choices=FORMATS, default="png", help="of the outputs [png]")
    decode.add_argument("--reduce", type=int, dest="option_reduce", metavar="N",
                        help="halve width and height N times")
    decode.add_argument("--fit", dest="option_fit", metavar="WxH",
                        help="halve as often as it takes to be no larger than this")
    decode.add_argument("--exact", action="store_const", const=True, dest="option_exact",
                        help="compute lossy pictures of up to 8 bits in double precision")
    decode.add_argument("--strict", action="store_const", const=True, dest="option_strict",
                        help="treat incomplete data as an error")
    return parser


def main(arguments=None):
    given = _parser().parse_args(arguments)
    options = {name[len("option_"):]: value for name, value in vars(given).items()
               if name.startswith("option_") and value is not None}
    try:
        summary = run(given.command, given.sources, given.folder, options=options,
                      ending="." + given.format if given.command == "decode" else None,
                      scheduler=given.scheduler, workers=given.workers, memory=given.memory,
                      psnr=given.measure, manifest=given.manifest, overwrite=given.overwrite,
                      progress=False if given.no_progress else None)
    except (UsageError, kel.ParameterError, TypeError) as error:
        print(f"kel.fleet: {error}", file=sys.stderr)
        return 1
    for result in summary.failed:
        print(f"kel.fleet: {result['input']}: {result['error']}", file=sys.stderr)
    print(f"{summary.done} done, {summary.skipped} as they were, {len(summary.failed)} failed")
    return 2 if summary.failed else 0


if __name__ == "__main__":
    from kel.fleet import main  # so that workers find what they are sent by name
    sys.exit(main())
