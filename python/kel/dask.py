"""Pictures as lazy arrays of dask: chunks are tiles, read when they are computed."""

import os

import dask.array
import numpy
from dask.base import tokenize

import kel


def from_picture(picture, *, level=0, chunks=None, **settings):
    """A dask.array of a picture, of shape (rows, columns) or (rows, columns, channels).

    picture: a kel.Picture, or what kel.open takes, with its settings as further keywords. Pictures
    opened by path can be computed by workers on other machines that see the same path. level:
    halvings of width and height. chunks: as dask takes them; by default the picture's tiles.
    """
    if not isinstance(picture, kel.Picture):
        picture = kel.open(picture, **settings)
    view = picture.level(level)
    opened = view._opened
    if isinstance(opened, (str, os.PathLike)):
        status = os.stat(opened)
        opened = (os.path.abspath(opened), status.st_mtime_ns, status.st_size)
    token = tokenize(opened, level, sorted(view._settings.items()))
    return dask.array.from_array(view, chunks=chunks or (*view.tile_shape, *view.shape[2:]),
                                 name=f"kel-{token}", lock=False,
                                 meta=numpy.empty((0,) * view.ndim, view.dtype))
