"""Arrays in and out: every shape, type and stride, and what options mean."""

import inspect
import json
import os
import subprocess
import threading

import numpy
import pytest
from hypothesis import given
from hypothesis import strategies as st

import kel

from conftest import psnr


@st.composite
def arrays(draw):
    """An array seen through strides: cut, reversed, with axes exchanged, or of one value."""
    dtype = draw(st.sampled_from(["u1", "<u2", ">u2"]))
    shape = (draw(st.integers(1, 40)), draw(st.integers(1, 40)), draw(st.integers(1, 5)))
    steps = [draw(st.sampled_from([1, 2, 3, -1, -2])) for _ in shape]
    full = [extent * abs(step) for extent, step in zip(shape, steps)]
    order = draw(st.permutations(range(3)))
    rng = numpy.random.default_rng(draw(st.integers(0, 9)))
    array = rng.integers(0, numpy.iinfo(dtype).max, [full[i] for i in order], "u2", endpoint=True)
    array = array.astype(dtype).transpose(numpy.argsort(order))
    array = array[tuple(slice(None, None, step) for step in steps)]
    if draw(st.booleans()):
        array = array[:, :, 0]
    if draw(st.booleans()):
        array = numpy.broadcast_to(array[:1], array.shape)
    array.flags.writeable = False
    return array


@given(arrays(), st.fixed_dictionaries({}, optional={
    "tile": st.sampled_from([(16, 16), "32x8", (7, 40)]), "levels": st.integers(0, 6),
    "order": st.sampled_from(["rlcp", "cprl"]), "layers": st.integers(1, 3),
    "colour_transform": st.booleans(), "plain": st.booleans(), "threads": st.integers(1, 3)}),
    st.data())
def test_lossless_round_trips_are_exact(array, options, data):
    coded = kel.encode(array, lossless=True, **options)
    one_channel = array.ndim == 3 and array.shape[2] == 1
    expected = array[:, :, 0] if one_channel else array
    decoded = kel.decode(coded)
    assert decoded.dtype == array.dtype.newbyteorder("=")
    numpy.testing.assert_array_equal(decoded, expected)

    room = numpy.zeros([2 * n for n in expected.shape], decoded.dtype)
    steps = data.draw(st.tuples(*[st.sampled_from([2, -2, 1])] * expected.ndim))
    out = room[tuple(slice(None, None, step) for step in steps)]
    out = out[tuple(slice(0, n) for n in expected.shape)]
    assert kel.decode(coded, out=out) is out
    numpy.testing.assert_array_equal(out, expected)
    assert numpy.count_nonzero(room) == numpy.count_nonzero(expected)  # nothing beside it

    picture = kel.open(coded)
    assert (picture.shape, picture.dtype) == (expected.shape, decoded.dtype)
    span = st.builds(slice, st.integers(-50, 50) | st.none(), st.integers(-50, 50) | st.none(),
                     st.sampled_from([None, 1, 2, -1, -3]))
    key = data.draw(st.tuples(*[span | st.just(0) | st.just(-1)] * 2) | st.tuples(span, st.just(...)))
    numpy.testing.assert_array_equal(picture[key], expected[key])


@pytest.mark.parametrize("depth", [1, 5, 8, 9, 12, 16, 17, 28])
def test_depths_below_the_type(depth):
    dtype = "u1" if depth <= 8 else "u2" if depth <= 16 else "u4"
    array = numpy.random.default_rng(1).integers(0, 1 << depth, (30, 50), dtype=dtype)
    array[0, 0] = (1 << depth) - 1
    coded = kel.encode(array, lossless=True, depth=depth)
    assert kel.open(coded).depth == depth
    numpy.testing.assert_array_equal(kel.decode(coded), array)
    if depth % 8:
        with pytest.raises(kel.ParameterError, match="does not fit the depth"):
            kel.encode(array + array.dtype.type(1), lossless=True, depth=depth)


def test_targets(photo):
    assert psnr(photo, kel.decode(kel.encode(photo))) > 39
    assert len(kel.encode(photo, quality=20)) < len(kel.encode(photo, quality=80))
    assert abs(psnr(photo, kel.decode(kel.encode(photo, psnr=37.5))) - 37.5) < 0.1
    assert 55_000 < len(kel.encode(photo, size="60K")) <= 60 << 10
    for wrong in ({"quality": 0}, {"quality": 50, "lossless": True}, {"size": 0}, {"psnr": -1},
                  {"psnr": 40, "size": 9}, {"order": "xyz"},
                  {"size": "much"}, {"tile": "big"}, {"alpha": "yes"}, {"depth": 9}):
        with pytest.raises(kel.ParameterError):
            kel.encode(photo, **wrong)
    with pytest.raises(TypeError, match="no option 'qualty'"):
        kel.encode(photo, qualty=3)
    with pytest.raises(TypeError, match="levels"):
        kel.encode(photo, levels="many")
    for wrong in (photo.astype("i4"), photo[0, 0], photo[:0], photo[..., None], [["a"]]):
        with pytest.raises(kel.ParameterError):
            kel.encode(wrong)


def test_region_of_interest_is_kept_exactly_where_the_rest_is_not(photo):
    mask = numpy.zeros(photo.shape[:2], bool)
    mask[100:200, 300:400] = True
    decoded = kel.decode(kel.encode(photo, quality=10, roi=mask))
    assert psnr(photo[mask], decoded[mask]) > psnr(photo[~mask], decoded[~mask]) + 10


def test_metadata_there_and_back(photo, tmp_path):
    given = {"icc_profile": bytes(range(140)), "exif": b"II*\0\x08\0\0\0", "comment": "Grüße",
             "xmp": "<x:xmpmeta>é</x:xmpmeta>", "resolution": (300.0, 150.0)}
    path = tmp_path / "a.kel"
    kel.write(path, photo[:20, :20], **given)
    picture = kel.open(path)
    found = {name: getattr(picture, name) for name in given}
    assert found.pop("resolution") == pytest.approx(given.pop("resolution"), rel=1e-3)
    assert found == given
    rgba = numpy.dstack([photo[:9, :9], photo[:9, :9, 0]])
    assert [kel.open(kel.encode(rgba, alpha=alpha)).alpha
            for alpha in (None, False, "premultiplied")] == ["straight", None, "premultiplied"]
    with pytest.raises(AttributeError):
        picture.colour


def test_palettes():
    palette = numpy.array([[1, 2, 3], [40, 50, 60], [7, 8, 9]], "u1")
    indices = numpy.array([[0, 1, 2, 1], [2, 2, 0, 0]], "u1")
    coded = kel.encode(indices, palette=palette, lossless=True)
    numpy.testing.assert_array_equal(kel.decode(coded), palette[indices])
    numpy.testing.assert_array_equal(kel.decode(coded, indices=True), indices)
    numpy.testing.assert_array_equal(kel.open(coded)[1:, 1:], palette[indices][1:, 1:])
    numpy.testing.assert_array_equal(kel.open(coded).palette, palette)
    assert kel.open(coded, indices=True).shape == (2, 4)
    with pytest.raises(kel.ParameterError, match="lossless"):
        kel.encode(indices, palette=palette)


def test_write_is_whole_or_not_there(photo, tmp_path):
    path = tmp_path / "a.kel"
    assert kel.write(path, photo) == path.stat().st_size == len(kel.encode(photo))
    with pytest.raises(kel.ParameterError):
        kel.write(path, photo, depth=3)
    numpy.testing.assert_array_equal(kel.decode(path), kel.decode(kel.encode(photo)))
    assert os.listdir(tmp_path) == ["a.kel"]
    with pytest.raises(kel.OutputError) as failure:
        kel.write(tmp_path / "none" / "a.kel", photo)
    assert failure.value.file.endswith("none/a.kel") and failure.value.sentence


def test_out_must_be_of_the_pictures_form(photo):
    coded = kel.encode(photo)
    for out in (numpy.zeros((3, 3), "u1"), photo, numpy.zeros(photo.shape, "u2")):
        with pytest.raises(kel.ParameterError, match="out"):
            if out is photo:
                out = out.copy()
                out.flags.writeable = False
            kel.decode(coded, out=out)


def test_info_is_that_of_the_command(large, vectors):
    files = [large[0], vectors / "native_420.kel", vectors / "native_palette.kel"]
    for path in files:
        told = subprocess.run([os.environ["KEL_COMMAND"], "info", "--json", "--ranges", path],
                              capture_output=True, check=True)
        assert kel.info(path, ranges=True) == json.loads(told.stdout)
    assert kel.info(large[0].read_bytes())["width"] == 900


def test_every_option_of_the_command_is_a_keyword():
    import generate
    with open(os.environ["KEL_OPTIONS"]) as file:
        names = generate.coding_options(json.load(file))
    understood = set(kel._kel.CODING_OPTIONS) | {"comment", "resolution"}
    assert set(names) == understood, (
        "kel encode has options that python/src/Requests.cpp does not take, or the other way "
        "round: add them there, or to ABOUT_FILES in python/generate.py")
    assert set(names) < set(inspect.signature(kel.encode).parameters)
    assert "1 to 100" in kel.encode.__doc__


def test_threads_work_side_by_side(photo):
    """Other threads run while one is coding."""
    coded = kel.encode(numpy.tile(photo, (4, 4, 1)), lossless=True)
    ticks, done = [], threading.Event()

    def tick():
        while not done.wait(0.001):
            ticks.append(1)

    ticker = threading.Thread(target=tick)
    ticker.start()
    kel.decode(coded, threads=1)
    done.set()
    ticker.join()
    assert len(ticks) > 5


def test_stubs_tell_what_is_there():
    import ast
    import pathlib
    stubs = ast.parse(pathlib.Path(kel.__file__).with_name("__init__.pyi").read_text())
    told = {node.name: node for node in stubs.body
            if isinstance(node, (ast.FunctionDef, ast.ClassDef))}
    assert set(kel.__all__) == {name for name in told if not name.startswith("_")}
    for name, node in told.items():
        if isinstance(node, ast.FunctionDef):
            arguments = [a.arg for a in node.args.args + node.args.kwonlyargs]
            assert arguments == list(inspect.signature(getattr(kel, name)).parameters), name
    picture = {getattr(n, "name", None) or n.target.id for n in told["Picture"].body}
    public = {n for n in dir(kel.open(kel.encode(numpy.zeros((1, 1), "u1")))) if n[0] != "_"}
    assert public == {n for n in picture if n[0] != "_"}
