"""Pictures looked at in parts, data that arrive, broken data, limits and signals."""

import io
import os
import pickle
import signal
import subprocess
import sys
import threading

import numpy
import pytest
from PIL import Image
from hypothesis import given
from hypothesis import strategies as st

import kel
import kel.pillow  # noqa: F401


class Counted(io.BytesIO):
    """A file object that counts what is read of it."""
    total = 0

    def read(self, size=-1):
        piece = super().read(size)
        self.total += len(piece)
        return piece


def test_a_slice_reads_only_what_it_needs(large):
    path, array = large
    file = Counted(path.read_bytes())
    picture = kel.open(file)
    front = file.total
    numpy.testing.assert_array_equal(picture[300:310, 500:520], array[300:310, 500:520])
    assert file.total - front < path.stat().st_size / 3
    numpy.testing.assert_array_equal(picture[-1, :, 1], array[-1, :, 1])
    numpy.testing.assert_array_equal(numpy.asarray(picture), array)
    for wrong in (700, (0, 900), "a", (0, 0, 0, 0), 1.5, None):
        with pytest.raises(IndexError):
            picture[wrong]
    assert (len(picture), picture.size, picture.tile_shape) == (700, array.size, (128, 128))


def test_levels_are_those_of_decoding(large):
    path, _ = large
    picture = kel.open(path)
    assert picture.levels == 5
    for level in (1, 3, 5):
        view = picture.level(level)
        whole = kel.decode(path, reduce=level)
        assert view.shape == whole.shape == (-(-700 >> level), -(-900 >> level), 3)
        numpy.testing.assert_array_equal(view[:], whole)
        numpy.testing.assert_array_equal(view[3:9, 5:], whole[3:9, 5:])
        numpy.testing.assert_array_equal(view[-1], whole[-1])
    with pytest.raises(kel.ParameterError):
        picture.level(32)
    beyond = kel.decode(path, reduce=7).astype(int)  # averages of what is lowest
    assert beyond.shape == (6, 8, 3)
    lowest = kel.decode(path, reduce=5).astype(int)
    assert numpy.abs(beyond[0, 0] - lowest[:4, :4].mean(axis=(0, 1))).max() <= 2
    for wrong in (lambda: picture.level(7)[:], lambda: kel.decode(path, reduce=7, region=(0, 0, 9, 9)),
                  lambda: kel.decode(path, reduce=1, fit=(9, 9)), lambda: kel.decode(path, fit="9")):
        with pytest.raises(kel.ParameterError):
            wrong()


def test_pictures_are_fitted(large):
    path, _ = large
    for source in (path, Counted(path.read_bytes())):
        for fit, shape in (((900, 700), (700, 900)), ((899, 700), (350, 450)), ("100x9", (6, 8))):
            assert kel.decode(source, fit=fit).shape[:2] == shape
    assert kel.decode(path, fit=(100, 300), rotate=90).shape == (113, 88, 3)
    assert kel.decode(path, fit=(100, 300), region=(100, 0, 300, 300)).shape == (75, 75, 3)


def test_exact_is_that_of_the_command(photo, tmp_path):
    kel.write(tmp_path / "a.kel", photo, quality=60)
    subprocess.run([os.environ["KEL_COMMAND"], "decode", "--quiet", "--exact", tmp_path / "a.kel",
                    tmp_path / "a.png"], check=True)
    exact = numpy.asarray(Image.open(tmp_path / "a.png"))
    numpy.testing.assert_array_equal(kel.decode(tmp_path / "a.kel", exact=True), exact)
    numpy.testing.assert_array_equal(kel.open(tmp_path / "a.kel", exact=True)[:], exact)
    numpy.testing.assert_array_equal(
        kel.decode(tmp_path / "a.kel", exact=True, region=(7, 9, 50, 60)), exact[9:69, 7:57])
    assert 0 < (kel.decode(tmp_path / "a.kel") != exact).sum() < exact.size / 2000


def test_regions_and_turns(large):
    path, array = large
    for source in (path, path.read_bytes(), Counted(path.read_bytes())):
        part = kel.decode(source, region=(100, 50, 2000, 60))
        numpy.testing.assert_array_equal(part, array[50:110, 100:])
    turned = kel.decode(path, region=(100, 50, 30, 60), rotate=90)
    numpy.testing.assert_array_equal(turned, numpy.rot90(array[50:110, 100:130], -1))
    assert kel.decode(path, bits=16).max() == 65535
    out = numpy.zeros((60, 30, 3), "u1")
    assert kel.decode(path, region=(0, 0, 30, 60), out=out) is out
    assert (out == array[:60, :30]).all()
    for region in ((900, 0, 1, 1), (0, 0, 0, 5), (-1, 0, 5, 5), (1, 2, 3), "1x1"):
        with pytest.raises(kel.ParameterError):
            kel.decode(path, region=region)


def test_vectors(vectors):
    """What others coded: planes of different sizes and depths, signs, tiles at odd places."""
    number = 0
    for path in sorted(vectors.glob("*.kel")):
        try:
            whole = kel.decode(path)
        except kel.Error:
            continue
        picture = kel.open(path)
        assert (picture.shape, picture.dtype) == (whole.shape, whole.dtype), path
        numpy.testing.assert_array_equal(picture[:], whole, str(path))
        numpy.testing.assert_array_equal(picture[1:, 1:], whole[1:, 1:], str(path))
        number += 1
    assert number > 30


def test_pictures_travel_by_name(large):
    view = pickle.loads(pickle.dumps(kel.open(large[0], cache_bytes=0).level(2)))
    numpy.testing.assert_array_equal(view[5:7], kel.decode(large[0], reduce=2)[5:7])
    with pytest.raises(TypeError):
        pickle.dumps(kel.open(io.BytesIO(large[0].read_bytes())))


def test_many_threads_read_one_picture(large):
    path, array = large
    picture = kel.open(io.BytesIO(path.read_bytes()), cache_bytes=0, threads=2)
    wrong = []

    def read(x):
        for y in range(0, 600, 97):
            if not (picture[y:y + 90, x:x + 90] == array[y:y + 90, x:x + 90]).all():
                wrong.append((x, y))

    threads = [threading.Thread(target=read, args=(x,)) for x in (0, 211, 430, 777)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not wrong


def test_what_a_file_object_raises_comes_out(large):
    class Failing(io.BytesIO):
        def read(self, size=-1):
            if self.tell() > 50_000:
                raise ConnectionError("gone")
            return super().read(size)

    with pytest.raises(ConnectionError, match="gone"):
        kel.open(Failing(large[0].read_bytes()), threads=2)[:]


def test_arrays_become_better_as_data_arrive(photo):
    coded = kel.encode(photo, tile=(photo.shape[1], photo.shape[0]))
    final = kel.decode(coded)
    decoder = kel.Decoder()
    errors = []
    for at in range(0, len(coded), len(coded) // 6):
        for array in decoder.feed(coded[at:at + len(coded) // 6]):
            errors.append(numpy.abs(array.astype(int) - final).mean())
    assert decoder.complete and errors[-1] == 0
    assert errors == sorted(errors, reverse=True) and len(errors) > 3
    with pytest.raises(kel.IncompleteError):
        kel.Decoder().image


@pytest.mark.parametrize("chroma", ["444", "420"])
@pytest.mark.parametrize("region, reduce", [(None, 2), ((101, 51, 77, 90), 0),
                                            ((13, 200, 5000, 61), 1), ((592, 392, 1, 9), 3)])
def test_parts_become_better_as_data_arrive(photo, chroma, region, reduce):
    coded = kel.encode(photo, chroma=chroma, tile=(128, 128))
    decoder = kel.Decoder(region=region, reduce=reduce)
    for at in range(0, len(coded), 5000):
        decoder.feed(coded[at:at + 5000])
    numpy.testing.assert_array_equal(decoder.image, kel.decode(coded, region=region, reduce=reduce))
    for wrong in ({"region": (600, 0, 1, 1)}, {"region": (0, 0, 0, 1)}, {"reduce": 9},
                  {"reduce": 40}):
        with pytest.raises(kel.ParameterError):
            failing = kel.Decoder(**wrong)
            failing.feed(coded)
            failing.image


def test_incomplete_data(large):
    path, array = large
    half = path.read_bytes()[:path.stat().st_size // 2]
    with pytest.raises(kel.IncompleteError):
        kel.decode(half)
    with pytest.raises(kel.IncompleteError):
        kel.open(half)[690:]
    there = kel.decode(half, strict=False)
    assert (there[:200] == array[:200]).all() and not there[690:].any()
    numpy.testing.assert_array_equal(kel.open(half)[:100], array[:100])


@given(st.binary(max_size=40) | st.tuples(st.integers(0, 3000), st.binary(min_size=1, max_size=4)))
def test_broken_data_raise_kel_errors_only(damage):
    coded = bytearray(_SMALL)
    if isinstance(damage, bytes):
        coded = damage
    else:
        at = damage[0] % len(coded)
        coded[at:at + len(damage[1])] = damage[1]
    for read in (kel.decode, kel.info, lambda data: kel.decode(data, strict=False),
                 lambda data: kel.open(data).level(1)[:], lambda data: kel.Decoder().feed(data)):
        try:
            read(bytes(coded))
        except kel.Error as error:
            assert error.sentence


def test_hostile_files_end_in_pictures_or_errors(hostile):
    """Small files that once cost gigabytes, minutes or the process."""
    def feed(data, **options):
        decoder = kel.Decoder(**options)
        for at in range(0, len(data), len(data) // 7 + 1):
            decoder.feed(data[at:at + len(data) // 7 + 1])
        return decoder.image

    before = kel.memory_limit()
    kel.set_memory_limit("256M")
    for path in hostile:
        data = path.read_bytes()
        for read in (lambda: kel.decode(data), lambda: kel.decode(path, strict=False, reduce=2),
                     lambda: kel.decode(data, strict=False, region=(0, 0, 90, 90)),
                     lambda: kel.info(io.BytesIO(data), ranges=True), lambda: feed(data),
                     lambda: feed(data, region=(0, 0, 90, 90)),
                     lambda: kel.open(io.BytesIO(data), strict=False)[:50, :50],
                     lambda: Image.open(path).load(), lambda: Image.open(path).thumbnail((9, 9))):
            try:
                read()
            except kel.Error as error:
                assert error.sentence
            except (OSError, Image.DecompressionBombError) as error:
                assert str(error)
    kel.set_memory_limit(before)


_SMALL = kel.encode(numpy.arange(60 * 60, dtype="u1").reshape(60, 60), tile=(32, 32))


def test_errors_are_the_kits(tmp_path):
    with pytest.raises(kel.InputError) as failure:
        kel.decode(b"not a picture at all")
    assert failure.value.code != 0 and failure.value.details
    with pytest.raises(kel.InputError) as failure:
        kel.open(tmp_path / "none.kel")
    assert failure.value.file == str(tmp_path / "none.kel") and "none.kel: " in str(failure.value)
    assert issubclass(kel.MemoryLimitError, MemoryError) and issubclass(kel.ParameterError, ValueError)


def test_memory_limit(large):
    path, array = large
    before = kel.memory_limit()
    try:
        kel.set_memory_limit("1M")
        with pytest.raises(kel.MemoryLimitError, match="limit of 1 MiB"):
            kel.decode(path)
        kel.set_memory_limit(None)
        assert (kel.decode(path) == array).all()
    finally:
        kel.set_memory_limit(before)


@pytest.mark.parametrize("work", [
    "kel.encode(array, lossless=True, threads=2)",
    "kel.decode(coded, threads=1)",
    "kel.decode(one_tile, threads=1)",
    "kel.decode(coded, reduce=1, threads=2)",
    "[kel.open(coded, cache_bytes=0)[:] for _ in range(100)]",
])
def test_control_c_ends_a_long_call(work):
    program = f"""
import os, signal, sys, threading, time, numpy, kel
array = numpy.random.default_rng(1).integers(0, 255, (3000, 6000, 3), dtype="u1")
coded = kel.encode(array[:2000], lossless=True)
one_tile = kel.encode(array[:2000], lossless=True, tile=(6000, 2000))
threading.Timer(0.1, lambda: os.kill(os.getpid(), signal.SIGINT)).start()
start = time.perf_counter()
try:
    while True:
        {work}
        assert time.perf_counter() - start < 20
except KeyboardInterrupt:
    import traceback
    sys.exit(3 if "kel" in traceback.format_exc() else 4)
"""
    done = subprocess.run([sys.executable, "-c", program], timeout=60)
    assert done.returncode == 3
