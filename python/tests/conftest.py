import pathlib

import numpy
import pytest
from hypothesis import settings

settings.register_profile("kel", max_examples=40, deadline=None, derandomize=True)
settings.load_profile("kel")

ROOT = pathlib.Path(__file__).resolve().parents[2]


@pytest.fixture(scope="session")
def photo():
    from PIL import Image
    return numpy.asarray(Image.open(ROOT / "examples/images/coffee.png").convert("RGB"))


@pytest.fixture(scope="session")
def vectors():
    return ROOT / "tests/vectors"


@pytest.fixture(scope="session")
def hostile():
    """The smallest of the hostile files, which are quick too."""
    files = [path for path in sorted((ROOT / "tests/hostile").iterdir())
             if path.stat().st_size < 400]
    assert len(files) >= 10
    return files


@pytest.fixture(scope="session")
def large(tmp_path_factory):
    """A file of many tiles, and its samples."""
    import kel
    rows, columns = numpy.mgrid[0:700, 0:900]
    array = numpy.stack([rows ^ columns, rows + columns, rows * 3], axis=2).astype(numpy.uint8)
    path = tmp_path_factory.mktemp("large") / "large.kel"
    kel.write(path, array, lossless=True, tile=(128, 128))
    return path, array


def psnr(a, b):
    error = numpy.mean((a.astype(float) - b.astype(float)) ** 2)
    return 10 * numpy.log10(255**2 / error)
