"""Pillow reads and writes Kel files once this module is imported.

    import kel.pillow
    from PIL import Image
    Image.open("photo.kel").save("again.kel", quality=80)

draft and thumbnail decode a lower resolution; with ImageFile.LOAD_TRUNCATED_IMAGES what is there
of incomplete files is shown. Keywords of save are those of kel.encode. Pixels of 9 to 16 bits are
I;16 where they are grey, and reduced to 8 bits else, since Pillow has no mode for them.
"""

import numpy
from PIL import Image, ImageFile

import kel

FORMAT = "KEL"

_PREFIXES = (b"\0\0\0\x0cweabzolt", b"\xabO\xabQ", b"\xabO\xffQ")
_CMYK = 12  # of colour_space

#: What a picture of a mode is encoded with, beside its array.
_MODES = {
    "1": {}, "L": {}, "I;16": {}, "RGB": {}, "P": {},
    "LA": {"alpha": "straight"}, "RGBA": {"alpha": "straight"},
    "La": {"alpha": "premultiplied"}, "RGBa": {"alpha": "premultiplied"},
    "CMYK": {"alpha": False, "colour_space": _CMYK},
}


def _accept(prefix):
    return prefix.startswith(_PREFIXES)


class KelImageFile(ImageFile.ImageFile):
    format = FORMAT
    format_description = "Kel wavelet image"

    def _open(self):
        try:
            self._picture = kel.open(self.fp)
            if self._picture.palette is not None and self._picture.palette.shape[1] == 3:
                self._picture = kel.open(self.fp, indices=True)
        except kel.Error as error:
            raise SyntaxError(str(error)) from error
        self.tile = []
        self.mode = self._mode_of(self._picture)
        self._set_size()
        self._fill_info()

    @staticmethod
    def _mode_of(picture):
        channels = picture.shape[2] if picture.ndim == 3 else 1
        if channels == 1:
            if picture.palette is not None and picture.palette.dtype == numpy.uint8:
                return "P"
            return "1" if picture.depth == 1 else "L" if picture.depth <= 8 else "I;16"
        straight = picture.alpha != "premultiplied"
        if channels == 2:
            return "L" if picture.alpha is None else "LA" if straight else "La"
        if channels == 3 or picture.alpha is None:
            is_cmyk = channels == 4 and picture.colour_space == _CMYK
            return "CMYK" if is_cmyk else "RGB"
        return "RGBA" if straight else "RGBa"

    def _set_size(self):
        self._size = self._picture.shape[1::-1]

    def _fill_info(self):
        picture = self._picture
        told = {"icc_profile": picture.icc_profile, "exif": picture.exif, "xmp": picture.xmp,
                "comment": picture.comment, "dpi": picture.resolution}
        self.info.update({name: value for name, value in told.items() if value})

    def draft(self, mode, size):
        """Choose the lowest resolution that is not smaller than size; the mode stays."""
        if self._picture is None or self.mode == "P" or self._picture.level_index:
            return None
        full = self.size
        level = 0
        while level < self._picture.levels and all(
                -(-extent >> level + 1) >= asked for extent, asked in zip(full, size)):
            level += 1
        if level == 0:
            return None
        self._picture = self._picture.level(level)
        self._set_size()
        return self.mode, (0, 0, full[0] / (1 << level), full[1] / (1 << level))

    def load(self):
        if self._picture is not None:
            picture, self._picture = self._picture, None
            try:
                array = picture.read(strict=not ImageFile.LOAD_TRUNCATED_IMAGES)
            except kel.Error as error:
                self._picture = picture
                raise OSError(str(error)) from error
            self.im = self._image_of(array, picture).im
            if self._exclusive_fp and self._close_exclusive_fp_after_loading:
                self.fp.close()
            self.fp = None
        return Image.Image.load(self)

    def _image_of(self, array, picture):
        if self.mode == "1":
            return Image.fromarray(array.astype(bool))
        if self.mode == "I;16":
            return Image.fromarray(array.astype(numpy.uint16))
        if self.mode == "P":
            image = Image.fromarray(array, "P")
            image.putpalette(picture.palette.tobytes())
            self.palette = image.palette
            return image
        if picture.depth != 8:
            most = (1 << picture.depth) - 1
            array = ((array.astype(numpy.uint32) * 255 + most // 2) // most).astype(numpy.uint8)
        bands = Image.getmodebands(self.mode)
        if array.ndim == 3:
            array = array[:, :, 0] if bands == 1 else array[:, :, :bands]
        return Image.fromarray(numpy.ascontiguousarray(array), self.mode)


def _exif_bytes(exif):
    if isinstance(exif, Image.Exif):
        exif = exif.tobytes()
    return exif[6:] if exif and exif.startswith(b"Exif\0\0") else exif


def _save(image, file, filename):
    options = {**_MODES.get(image.mode, {}), **image.encoderinfo}
    if image.mode not in _MODES:
        raise OSError(f"cannot write mode {image.mode} as {FORMAT}")
    told = {name: options.pop(name, image.info.get(name))
            for name in ("icc_profile", "exif", "xmp", "comment", "dpi")}
    told["exif"] = _exif_bytes(told["exif"])
    told["resolution"] = told.pop("dpi")
    if isinstance(told["comment"], bytes):
        told["comment"] = told["comment"].decode("utf-8", "replace")
    if isinstance(told["xmp"], bytes):
        told["xmp"] = told["xmp"].decode("utf-8", "replace")
    options = {**{name: value for name, value in told.items() if value}, **options}
    if image.mode == "P":
        if options.get("lossless"):
            options["palette"] = numpy.array(image.getpalette("RGB"), numpy.uint8).reshape(-1, 3)
        else:
            image = image.convert("RGBA" if "transparency" in image.info else "RGB")
    try:
        file.write(kel.encode(numpy.asarray(image), **options))
    except kel.Error as error:
        raise OSError(str(error)) from error


Image.register_open(FORMAT, KelImageFile, _accept)
Image.register_save(FORMAT, _save)
Image.register_extension(FORMAT, ".kel")
Image.register_mime(FORMAT, "image/x-kel")
