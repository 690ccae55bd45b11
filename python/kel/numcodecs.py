"""A codec for Zarr and others over numcodecs: chunks of uint8 and uint16 as Kel files.

    import zarr, kel.numcodecs
    zarr.open("a.zarr", "w", shape=..., chunks=(512, 512, 3), dtype="u1",
              compressor=kel.numcodecs.Kel())

Lossless unless a quality, a size or a PSNR is given. Chunks are (..., rows, columns) or
(..., rows, columns, channels) with 2 to 4 channels; what stands in front is stacked in rows.
Those of order F are taken with their axes reversed. uint16 is little-endian, as dtype "<u2".
"""

import numpy
from numcodecs.abc import Codec
from numcodecs.compat import ensure_contiguous_ndarray, ensure_ndarray, ndarray_copy
from numcodecs.registry import register_codec

import kel

_LOSSY = ("quality", "size", "psnr")


class Kel(Codec):
    """options: those of coding in kel.encode, as numbers, text and booleans."""

    codec_id = "kel"

    def __init__(self, **options):
        self.options = options
        self._encoding = dict(options)
        if not any(options.get(name) is not None for name in _LOSSY):
            self._encoding["lossless"] = True
        self._encoding.setdefault("threads", 1)
        kel.encode(numpy.zeros((1, 1), numpy.uint8), **self._encoding)  # refuses wrong options now

    def encode(self, buf):
        array = ensure_ndarray(buf)
        return kel.encode(_as_picture(array), **self._encoding)

    def decode(self, buf, out=None):
        # Chunks go back as they came: their shape is the store's to know.
        decoded = kel.decode(ensure_contiguous_ndarray(buf), threads=1)
        decoded = decoded.astype(decoded.dtype.newbyteorder("<"), copy=False)
        return ndarray_copy(decoded, out) if out is not None else decoded

    def get_config(self):
        return {"id": self.codec_id, **self.options}

    def __repr__(self):
        return f"Kel({', '.join(f'{name}={value!r}' for name, value in self.options.items())})"


def _as_picture(array):
    if array.dtype == bool:
        array = array.view(numpy.uint8)
    if array.dtype.newbyteorder("<") != array.dtype:
        raise kel.ParameterError("chunks of uint16 are little-endian, of dtype '<u2'")
    if not array.flags.c_contiguous and array.flags.f_contiguous:
        array = array.T  # as it stands in memory
    if array.ndim < 2:
        return array.reshape(1, -1)
    if array.ndim > 2 and 2 <= array.shape[-1] <= 4:
        return array.reshape(-1, *array.shape[-2:])
    return array.reshape(-1, array.shape[-1])


register_codec(Kel)
