"""What docs/format.md says is all that a reader needs: examples/reader.py, written from it alone,
gives the samples of the shared streams and of what the package writes."""

import json
import sys

import numpy
import pytest

import kel

from conftest import ROOT

sys.path.insert(0, str(ROOT / "examples"))
import reader  # noqa: E402


def test_shared_streams(vectors):
    told = {path: json.loads(path.read_text()) for path in sorted(vectors.glob("*.json"))}
    sound = {path: stream for path, stream in told.items() if "error" not in stream}
    assert len(sound) > 80
    for path, stream in sound.items():
        planes = reader.Reader(path.with_suffix(".kel").read_bytes()).planes
        for plane, component in zip(planes, stream["components"]):
            if "raw" not in component or not (vectors / component["raw"]).exists():
                continue
            kind = "u1" if component["depth"] <= 8 else "<u2"
            expected = numpy.fromfile(vectors / component["raw"], kind).reshape(plane.shape)
            off = numpy.abs(plane - expected).max(initial=0)
            assert off <= stream["tolerance"], path.stem


@pytest.mark.parametrize("options, off", [
    ({"lossless": True, "tile": (32, 32)}, 0),
    ({"lossless": True, "layers": 2}, 0),
    ({"quality": 80}, 1),
    ({"quality": 20, "tile": (40, 24)}, 1),
])
def test_written_files(photo, options, off):
    data = kel.encode(photo[100:161, 200:283], **options)
    planes = numpy.stack(reader.Reader(data).planes, axis=2)
    assert numpy.abs(planes - kel.decode(data)).max() <= off
