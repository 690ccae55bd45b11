"""Pillow, Zarr and dask, each asked through its own interface."""

import io

import dask.array
import numcodecs
import numpy
import pytest
import zarr
from PIL import Image, ImageFile

import kel
import kel.dask
import kel.numcodecs
import kel.pillow


@pytest.mark.parametrize("mode", ["1", "L", "LA", "RGB", "RGBA", "RGBa", "P", "I;16", "CMYK"])
def test_pillow_modes_round_trip(mode, photo, tmp_path):
    image = Image.fromarray(photo[:90, :120])
    if mode == "I;16":
        image = Image.fromarray(photo[:90, :120, 0].astype("u2") * 257)
    elif mode == "RGBa":
        image = image.convert("RGBA").convert("RGBa")
    elif mode != "RGB":
        image = image.convert(mode)
    path = tmp_path / "a.kel"
    image.save(path, lossless=True, dpi=(200, 100), exif=b"Exif\0\0II*\0\x08\0\0\0\0\0\0\0\0\0")
    with Image.open(path) as found:
        assert (found.format, found.mode, found.size) == ("KEL", mode, image.size)
        assert found.info["dpi"] == pytest.approx((200, 100), rel=1e-3)
        assert found.getexif() == {} and found.info["exif"].startswith(b"II*")
        numpy.testing.assert_array_equal(numpy.asarray(found.copy()), numpy.asarray(image))
        if mode == "P":
            assert found.getpalette() == image.getpalette()
    with pytest.raises(OSError, match="cannot write mode F"):
        image.convert("F").save(path) if mode == "L" else Image.new("F", (1, 1)).save(path)


def test_pillow_thumbnails_decode_less(large):
    path, array = large
    file = io.BytesIO(path.read_bytes())
    read = []
    take = file.read
    file.read = lambda size=-1: read.append(size) or take(size)
    image = Image.open(file)
    image.thumbnail((100, 100))
    assert image.size == (100, 78)
    drafted = Image.open(path)
    assert drafted.draft("RGB", (200, 150)) == ("RGB", (0, 0, 225, 175))
    assert drafted.size == (225, 175)
    numpy.testing.assert_array_equal(numpy.asarray(drafted), kel.decode(path, reduce=2))


def test_pillow_truncated_files(large, monkeypatch):
    path, array = large
    half = io.BytesIO(path.read_bytes()[:path.stat().st_size // 2])
    with pytest.raises(OSError, match="incomplete"):
        Image.open(half).load()
    monkeypatch.setattr(ImageFile, "LOAD_TRUNCATED_IMAGES", True)
    assert (numpy.asarray(Image.open(half))[:200] == array[:200]).all()
    with pytest.raises(Image.UnidentifiedImageError):
        Image.open(io.BytesIO(path.read_bytes()[:40]))


@pytest.mark.parametrize("shape, chunks, dtype, order", [
    ((100, 130), (64, 50), "u1", "C"), ((100, 130, 3), (64, 50, 3), "u2", "C"),
    ((2, 40, 30), (1, 32, 32), "<u2", "F"), ((5, 40, 30), (2, 40, 30), "u1", "C"),
    ((500,), (64,), "u1", "C"), ((20, 20), (20, 20), "?", "C")])
def test_zarr_chunks(shape, chunks, dtype, order):
    array = numpy.random.default_rng(2).integers(0, 2 if dtype == "?" else 250, shape).astype(dtype)
    store = zarr.array(array, chunks=chunks, compressor=kel.numcodecs.Kel(), order=order)
    numpy.testing.assert_array_equal(store[:], array)
    again = zarr.open_array(store.store, mode="r")
    assert again.compressor == kel.numcodecs.Kel()
    numpy.testing.assert_array_equal(again[...], array)


def test_codecs_by_configuration(photo):
    codec = numcodecs.get_codec({"id": "kel", "quality": 90})
    coded = codec.encode(photo)
    assert len(coded) < photo.nbytes / 3
    out = numpy.empty_like(photo)
    assert abs(codec.decode(coded, out).astype(int) - photo).mean() < 2
    with pytest.raises(TypeError):
        kel.numcodecs.Kel(qualty=9)
    with pytest.raises(kel.ParameterError, match="little-endian"):
        codec.encode(photo[:, :, 0].astype(">u2"))


def test_dask_arrays_are_lazy_and_right(large):
    path, array = large
    lazy = kel.dask.from_picture(path)
    assert lazy.chunks[0][:2] == (128, 128) and lazy.dtype == numpy.uint8
    numpy.testing.assert_array_equal(lazy[100:300, ::7].compute(scheduler="threads"),
                                     array[100:300, ::7])
    assert (lazy.max(axis=(0, 1)).compute() == array.max(axis=(0, 1))).all()
    numpy.testing.assert_array_equal(
        kel.dask.from_picture(kel.open(path), level=2, chunks=100).compute(),
        kel.decode(path, reduce=2))
    assert lazy.name != kel.dask.from_picture(path, level=1).name
