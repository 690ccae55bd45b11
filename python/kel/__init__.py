"""Wavelet-coded pictures as arrays.

    data = kel.encode(array)                      # bytes, about 40 dB on a photo
    array = kel.decode(data)
    with kel.open("map.kel") as picture:          # reads only what is looked at
        part = picture[4000:5000, 2000:3000]
        small = picture.level(3)[:]

Arrays are (rows, columns) or (rows, columns, channels), uint8 or uint16 (uint32 with depths up to
28 bits), with any strides. One or two channels are grey, three and more begin with red, green and
blue; the last of two or four is opacity unless `alpha` says otherwise. Failures are kel.Error.
"""

import inspect
import json
import os
import re

import numpy

from . import _kel
from ._kel import (Error, IncompleteError, InputError, MemoryLimitError, OutputError,
                   ParameterError)
from ._options import ENCODE as _ENCODE
from ._options import VERSION as __version__

__all__ = [
    "Decoder", "Error", "IncompleteError", "InputError", "MemoryLimitError", "OutputError",
    "ParameterError", "Picture", "decode", "encode", "info", "memory_limit", "open",
    "set_memory_limit", "write",
]

_METADATA = {
    "threads": ("int | None", "int; one per processor by default, the output is the same"),
    "depth": ("int | None", "int, bits of a sample where they are fewer than the dtype's"),
    "alpha": ("bool | str | None", "True, False, 'straight' or 'premultiplied': the last channel"),
    "palette": ("ndarray | None", "(entries, channels) array: the picture holds indices (lossless)"),
    "icc_profile": ("bytes | None", "bytes"),
    "exif": ("bytes | None", "bytes of a TIFF structure"),
    "xmp": ("str | None", "str"),
    "colour_space": ("int | None", "number of the file format; 16 is sRGB, 17 grey"),
}


def _half_of_memory():
    try:
        return os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") // 2
    except (AttributeError, OSError, ValueError):
        return 0


def set_memory_limit(limit):
    """Refuse work that needs more memory than `limit` bytes in all; None or 0 for no limit.

    It holds for calls and pictures that begin after it, in all threads together, and begins with
    half of the machine's memory. What exceeds it raises MemoryLimitError.
    """
    _kel.set_memory_limit(_bytes_number(limit) if limit else 0)


def memory_limit():
    """The limit of set_memory_limit in bytes; 0 for none."""
    return _kel.memory_limit()


def _bytes_number(value):
    """A number of bytes, from an int or text such as '500K' (units of 1024)."""
    if not isinstance(value, str):
        return value
    match = re.fullmatch(r"(\d+)\s*([KMG]?)I?B?", value.strip().upper())
    if not match:
        raise ParameterError(f"{value!r} is not a number of bytes")
    return int(match[1]) << {"": 0, "K": 10, "M": 20, "G": 30}[match[2]]


def _size_pair(value, name):
    if not isinstance(value, str):
        return value
    match = re.fullmatch(r"(\d+)[xX](\d+)", value)
    if not match:
        raise ParameterError(f"{name} is (width, height) or 'WIDTHxHEIGHT', not {value!r}")
    return int(match[1]), int(match[2])


def _array_of(array):
    array = numpy.asarray(array)
    if array.dtype == numpy.bool_ and array.ndim:
        return (array.view(numpy.uint8) != 0).view(numpy.uint8), 1  # some hold other bytes than 1
    if array.dtype.kind == "u" and not array.dtype.isnative:
        array = array.astype(array.dtype.newbyteorder("="))
    return array, None


def _coding(options):
    """Options as the module takes them: those given, checked against each other."""
    given = {name: value for name, value in options.items() if value is not None}
    for name in given:
        if name not in _ENCODE and name not in _METADATA:
            raise TypeError(f"there is no option {name!r}; there are "
                            + ", ".join([*_ENCODE, *_METADATA]))
    if not given.get("lossless", True):
        del given["lossless"]
    targets = [name for name in ("quality", "lossless", "size", "psnr") if name in given]
    if len(targets) > 1:
        raise ParameterError(f"{' and '.join(targets)} exclude each other")
    if "size" in given:
        given["size"] = _bytes_number(given["size"])
        if given["size"] == 0:
            raise ParameterError("no file has 0 bytes")
    if "tile" in given:
        given["tile"] = _size_pair(given["tile"], "tile")
    if "roi" in given:
        given["roi"] = numpy.asarray(given["roi"])
        if "lossless" in given:
            raise ParameterError("lossless and roi exclude each other")
    if "palette" in given:
        given["palette"] = numpy.asarray(given["palette"])
        if "lossless" not in given:
            raise ParameterError("a palette needs lossless=True: indices next to each other "
                                 "mean nothing")
    if numpy.ndim(given.get("resolution", ())) == 0:
        given["resolution"] = (given["resolution"], given["resolution"])
    return given


def _prepared(array, options):
    array, depth = _array_of(array)
    given = _coding(options)
    if depth is not None:
        given.setdefault("depth", depth)
    return array, given


def encode(array, **options):
    """Encode an array and return the file as bytes."""
    array, given = _prepared(array, options)
    return _kel.encode(array, given)


def write(path, array, **options):
    """Encode an array into a file, written beside its name and renamed when whole.

    path: str or path-like, or an object with write. Returns the number of bytes.
    """
    if hasattr(path, "write"):
        data = encode(array, **options)
        path.write(data)
        return len(data)
    array, given = _prepared(array, options)
    return _kel.write(_name(path), array, given)


def _document(function, first):
    """Signature and text from the table of options."""
    lines = [inspect.getdoc(function), "", first, "", "Options of coding:"]
    parameters = list(inspect.signature(function).parameters.values())[:-1]
    for name, option in _ENCODE.items():
        default = option["default"]
        lines.append(f"  {name}: {option['words']}"
                     + ("" if default in (None, False, True) else f", {default} by default")
                     + f". {option['help']}")
        parameters.append(inspect.Parameter(name, inspect.Parameter.KEYWORD_ONLY, default=default))
    lines += ["", "About the picture:"]
    for name, (_, words) in _METADATA.items():
        lines.append(f"  {name}: {words}")
        parameters.append(inspect.Parameter(name, inspect.Parameter.KEYWORD_ONLY, default=None))
    function.__doc__ = "\n".join(lines)
    function.__signature__ = inspect.Signature(parameters)


_ARRAY_TEXT = ("array: (rows, columns) or (rows, columns, channels), uint8 or uint16, any strides; "
               "it is not copied.")
_document(encode, _ARRAY_TEXT)
_document(write, _ARRAY_TEXT)


def _name(path):
    name = os.fsdecode(path)
    return os.path.join(os.curdir, name) if name == "-" else name


def _data(data):
    """Coded data as the module takes them: a name, or bytes in one piece."""
    if isinstance(data, (str, os.PathLike)):
        return _name(data)
    if hasattr(data, "read") and hasattr(data, "seek"):
        return data
    view = memoryview(data)
    return view if view.c_contiguous else view.tobytes()


def decode(data, *, region=None, reduce=0, fit=None, out=None, threads=None, strict=True,
           indices=False, rotate=0, bits=None, exact=False):
    """Decode a picture, or a part of it, into an array.

    data: bytes-like, a path, or a file object. region: (x, y, width, height) in samples of full
    size, clipped to the picture; only the bytes that it needs are read. reduce: halvings of width
    and height; the coding's own resolutions, and below the lowest one averages of 2 x 2 samples,
    which a region cannot have. fit: (width, height) or "WIDTHxHEIGHT": as many halvings as make it
    no larger. out: an array of the picture's shape and dtype, any strides, which is filled and
    returned. strict: False decodes what is there of incomplete data, and leaves zeros elsewhere.
    indices: True returns the indices of a picture with a palette instead of its colours. rotate:
    degrees clockwise. bits: scales samples to that many. exact: computes lossy pictures of up to 8
    bits in double precision; without it fewer than one of 15,000 samples differ, by one level.

    Returns (rows, columns) or (rows, columns, channels) of uint8 up to 8 bits, uint16 up to 16,
    else uint32.
    """
    options = _decoding(region, reduce, threads, strict, indices, rotate, bits)
    options.update(fit=_size_pair(fit, "fit"), exact=bool(exact))
    return _kel.decode(_data(data), options, out)


def _decoding(region, reduce, threads, strict, indices, rotate=0, bits=None):
    return {"region": region, "reduce": reduce, "threads": threads, "strict": bool(strict),
            "indices": bool(indices), "rotate": rotate, "bits": bits}


def info(data, *, ranges=False):
    """Everything that a file tells without decoding, as `kel info --json` prints it.

    data: bytes-like, a path, or a file object. The dict has no "file" unless a path was given.
    ranges: also which bytes each tile needs at each resolution.
    """
    data = _data(data)
    told = json.loads(_kel.info(data, data if isinstance(data, str) else "", bool(ranges)))
    if not isinstance(data, str):
        del told["file"]
    return told


class Picture:
    """A picture opened for looking at; made by kel.open.

    picture[y0:y1, x0:x1] decodes a part and reads only the bytes that it needs, also in several
    threads; numpy.asarray(picture) decodes all. Attributes: shape, dtype, ndim, levels, level_index,
    tile_shape, depth, icc_profile, exif, xmp, resolution, palette, alpha, comment, colour_space.
    """

    def __init__(self, data, *, indices=False, strict=True, threads=1, cache_bytes=64 << 20,
                 exact=False):
        self._opened = data
        self._settings = {"indices": indices, "strict": strict, "threads": threads,
                          "cache_bytes": cache_bytes, "exact": exact}
        self._native = _kel.Picture(_data(data), cache_bytes, exact)
        self._attributes = self._native.attributes()
        self._set_level(0)

    def _set_level(self, level):
        self.level_index = level
        self.shape = self._native.shape(level, self._settings["indices"])
        self.dtype, self.depth = self._native.type(self._settings["indices"])
        self.ndim = len(self.shape)
        rows, columns = self._native.tile_shape()
        self.tile_shape = (max(rows >> level, 1), max(columns >> level, 1))

    def __getattr__(self, name):
        attributes = self.__dict__.get("_attributes", {})
        if name in attributes:
            return attributes[name]
        raise AttributeError(f"a picture has no attribute {name!r}")

    def __dir__(self):
        return [*super().__dir__(), *self._attributes]

    @property
    def size(self):
        return int(numpy.prod(self.shape, dtype=object))

    @property
    def levels(self):
        """How often width and height can be halved by leaving out data."""
        return self._native.levels()

    def level(self, number):
        """The same picture with width and height halved `number` times."""
        if not 0 <= number <= 31:
            raise ParameterError("at most 31 halvings are possible")
        view = object.__new__(Picture)
        view.__dict__.update(self.__dict__)
        view._set_level(number)
        return view

    def __len__(self):
        return self.shape[0]

    def read(self, region=None, *, out=None, threads=None, strict=None):
        """A region (x, y, width, height) of this level, or all of it, as an array."""
        level = self.level_index
        rows, columns = self.shape[:2]
        x, y, width, height = region or (0, 0, columns, rows)
        width, height = min(width, columns - x), min(height, rows - y)
        if min(x, y) < 0 or min(width, height) <= 0:
            raise ParameterError("the region lies outside the picture")
        # Sample i of a level stands for those from i << level on; the last may stand for fewer.
        most = 2**32 - 1
        full = (x << level, y << level, min(width << level, most), min(height << level, most))
        settings = self._settings
        return self._native.read(
            _decoding(full, level, threads or settings["threads"],
                      settings["strict"] if strict is None else strict, settings["indices"]), out)

    def __getitem__(self, key):
        key = key if isinstance(key, tuple) else (key,)
        if any(part is Ellipsis for part in key):
            at = next(i for i, part in enumerate(key) if part is Ellipsis)
            key = (*key[:at], *[slice(None)] * (self.ndim - len(key) + 1), *key[at + 1:])
        if len(key) > self.ndim:
            raise IndexError(f"{len(key)} indices for a picture of {self.ndim} dimensions")
        spans, rest = [], []
        for axis in range(2):
            start, count, then = _span(key[axis] if axis < len(key) else slice(None),
                                       self.shape[axis])
            spans.append((start, count))
            rest.append(then)
        rest += key[2:]
        if 0 in (spans[0][1], spans[1][1]):
            empty = numpy.empty((spans[0][1], spans[1][1], *self.shape[2:]), self.dtype)
            return empty[tuple(rest)]
        part = self.read((spans[1][0], spans[0][0], spans[1][1], spans[0][1]))
        return part[tuple(rest)]

    def __array__(self, dtype=None, copy=None):
        return numpy.asarray(self.read(), dtype)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Let go of the data; levels made of this picture keep what they need."""
        self._native = None

    def __reduce__(self):
        if not isinstance(self._opened, (str, os.PathLike, bytes)):
            raise TypeError("a picture opened from a file object cannot be pickled")
        return _reopen, (self._opened, self._settings, self.level_index)

    def __repr__(self):
        level = f" at level {self.level_index}" if self.level_index else ""
        return f"<kel.Picture {self.shape} of {self.dtype}{level}>"


def _reopen(data, settings, level):
    picture = Picture(data, **settings)
    return picture.level(level) if level else picture


def _span(key, extent):
    """What to read along an axis, and the index into what was read: start, count, index."""
    if isinstance(key, slice):
        start, stop, step = key.indices(extent)
        chosen = range(start, stop, step)
        if len(chosen) == 0:
            return 0, 0, slice(None)
        first, last = min(chosen[0], chosen[-1]), max(chosen[0], chosen[-1])
        if step > 0:
            return first, last - first + 1, slice(None, None, step)
        return first, last - first + 1, slice(last - first, None, step)
    try:
        at = key.__index__()
    except AttributeError:
        raise IndexError(f"pictures are indexed by numbers and slices, not {key!r}") from None
    if not -extent <= at < extent:
        raise IndexError(f"{at} is outside of {extent}")
    return at % extent, 1, 0


def open(data, *, indices=False, strict=True, threads=1, cache_bytes=64 << 20, exact=False):
    """Open a picture without decoding it; the result is a Picture.

    data: a path, bytes-like, or an object with seek and read (a file of fsspec, for instance), of
    which only the ranges that are needed are read. indices: True for the indices of a palette.
    strict: False puts zeros where data are missing. threads: for reading a part, None for one per
    processor. cache_bytes: of decoded tiles that are kept. exact: as in decode.
    """
    return Picture(data, indices=indices, strict=strict, threads=threads or 0,
                   cache_bytes=cache_bytes, exact=exact)


class Decoder:
    """Decodes data as they arrive.

        decoder = kel.Decoder()
        for chunk in chunks:
            for array in decoder.feed(chunk):
                show(array)

    region, (x, y, width, height) in samples of full size, and reduce, halvings of width and height:
    only this part, at this resolution, is decoded.
    """

    def __init__(self, *, region=None, reduce=0):
        self._native = _kel.Decoder({"region": region, "reduce": reduce})

    def feed(self, chunk):
        """Take the next bytes; return a list of the picture as it is now, or an empty one.

        The array, if any, is the whole picture, or the part asked for, better than the last; what is
        still missing is zero. An empty chunk has all that has come decoded.
        """
        return [self._native.get()] if self._native.feed(_data(chunk)) else []

    @property
    def complete(self):
        """Whether nothing more can come."""
        return self._native.is_complete()

    @property
    def has_header(self):
        return self._native.has_header()

    @property
    def image(self):
        """The picture as it is; IncompleteError before its header has come."""
        return self._native.get()


_kel.set_memory_limit(_half_of_memory())
