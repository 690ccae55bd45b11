"""The C interface from another language: structures by their layout in the header, round trips,
parts, reduced sizes, progress, limits and refusals. Argument: the shared library."""
import ctypes as c
import shutil
import sys
import tempfile
import unittest

LIBRARY = sys.argv.pop(1)
kel = c.CDLL(LIBRARY)
kel.kel_error_text.restype = c.c_char_p
PROGRESS = c.CFUNCTYPE(c.c_int, c.c_void_p, c.c_size_t, c.c_size_t)


def structure(*fields):
    return type("S", (c.Structure,), {"_fields_": [("size", c.c_size_t), *fields]})


def words(names):
    return [(name, c.c_uint32) for name in names.split()]


Info = structure(*words("width height channels depth has_opacity lossless tiles levels"))
Pixels = structure(*words("width height channels depth has_opacity"), ("stride", c.c_size_t),
                   ("samples", c.c_void_p))
DecodeOptions = structure(*words("reduce x y width height accept_incomplete threads"),
                          ("progress", PROGRESS), ("user", c.c_void_p), *words("exact"))
EncodeOptions = structure(*words("lossless quality"), ("size_limit", c.c_uint64),
                          *words("tile_width tile_height threads"), ("progress", PROGRESS),
                          ("user", c.c_void_p), ("session", c.c_void_p))
Limits = structure(("memory", c.c_uint64), ("pixels", c.c_uint64), ("seconds", c.c_double))
INPUT, INCOMPLETE, OUTPUT, MEMORY, PARAMETER, STOPPED = range(1, 7)
WIDTH, HEIGHT = 60, 40


def picture(channels, sample_bytes):
    return bytes(i * 7 % 251 for i in range(WIDTH * HEIGHT * channels * sample_bytes))


def encode(samples, channels, depth, **settings):
    pixels, options = Pixels(), EncodeOptions()
    kel.kel_pixels_init(c.byref(pixels))
    kel.kel_encode_options_init(c.byref(options))
    pixels.width, pixels.height, pixels.channels, pixels.depth = WIDTH, HEIGHT, channels, depth
    pixels.has_opacity = channels in (2, 4)
    pixels.stride = len(samples) // HEIGHT
    pixels.samples = c.cast(c.c_char_p(samples), c.c_void_p)
    for name, value in settings.items():
        setattr(options, name, value)
    made, length = c.c_void_p(), c.c_size_t()
    status = kel.kel_encode_memory(c.byref(pixels), c.byref(options), c.byref(made),
                                   c.byref(length))
    if status:
        assert not made.value and not length.value
        return status
    data = c.string_at(made, length.value)
    kel.kel_free_bytes(made)
    return data


def open_session(**settings):
    limits, session = Limits(), c.c_void_p()
    kel.kel_limits_init(c.byref(limits))
    for name, value in settings.items():
        setattr(limits, name, value)
    assert kel.kel_open_session(c.byref(limits), c.byref(session)) == 0
    return session


def usage(session):
    held, most = c.c_uint64(), c.c_uint64()
    assert kel.kel_get_usage(session, c.byref(held), c.byref(most)) == 0
    return held.value, most.value


def decode(data, session=None, **settings):
    file, image, options, pixels = c.c_void_p(), c.c_void_p(), DecodeOptions(), Pixels()
    status = kel.kel_open_memory_in(session, data, c.c_size_t(len(data)), c.byref(file))
    if status:
        return status
    kel.kel_decode_options_init(c.byref(options))
    kel.kel_pixels_init(c.byref(pixels))
    for name, value in settings.items():
        setattr(options, name, value)
    status = kel.kel_decode(file, c.byref(options), c.byref(image))
    if not status:
        assert kel.kel_get_pixels(image, c.byref(pixels)) == 0
        status = pixels, c.string_at(pixels.samples, pixels.stride * pixels.height)
    kel.kel_free_image(image)
    kel.kel_close(file)
    return status


class Interface(unittest.TestCase):
    def test_every_shape_comes_back(self):
        for channels in (1, 2, 3, 4):
            for depth in (8, 16):
                samples = picture(channels, depth // 8)
                data = encode(samples, channels, depth, lossless=1, tile_width=32, tile_height=32)
                pixels, back = decode(data)
                self.assertEqual(back, samples)
                self.assertEqual((pixels.channels, pixels.depth), (channels, depth))
                self.assertEqual(pixels.has_opacity, channels in (2, 4))

    def test_parts_and_halves(self):
        samples = picture(3, 1)
        data = encode(samples, 3, 8, lossless=1)
        pixels, part = decode(data, x=10, y=5, width=20, height=3)
        rows = [samples[(y * WIDTH + 10) * 3:(y * WIDTH + 30) * 3] for y in range(5, 8)]
        self.assertEqual(part, b"".join(rows))
        pixels, _ = decode(data, reduce=1)
        self.assertEqual((pixels.width, pixels.height), (WIDTH // 2, HEIGHT // 2))
        for x, width, height in ((50, 11, 1), (60, 1, 1), (0, 5, 0), (1, 0xFFFFFFFF, 1)):
            self.assertEqual(decode(data, x=x, width=width, height=height), PARAMETER)

    def test_parts_need_their_tiles_alone(self):
        samples = picture(3, 1)
        data = encode(samples, 3, 8, lossless=1, tile_width=20, tile_height=20)
        cut = data[:len(data) // 2]
        self.assertEqual(decode(cut), INCOMPLETE)
        _, part = decode(cut, x=1, y=2, width=18, height=17)
        self.assertEqual(part, decode(data, x=1, y=2, width=18, height=17)[1])
        whole, half = decode(data, reduce=1)
        rows = [half[(y * whole.width + 4) * 3:(y * whole.width + 30) * 3] for y in range(9, 20)]
        _, part = decode(data, reduce=1, x=4, y=9, width=26, height=11, exact=1)
        self.assertEqual(part, b"".join(rows))
        self.assertEqual(decode(data, reduce=1, x=5, width=26, height=1), PARAMETER)

    def test_users_of_one_process_have_limits_and_counters_of_their_own(self):
        samples = picture(3, 1)
        wide, narrow = open_session(), open_session(memory=2000)
        data = encode(samples, 3, 8, session=wide)
        held, most = usage(wide)
        self.assertEqual(held, 0)
        self.assertGreater(most, len(samples))
        self.assertEqual(encode(samples, 3, 8, session=narrow), MEMORY)
        self.assertEqual(decode(data, narrow), MEMORY)
        self.assertEqual(usage(wide), (held, most))
        self.assertLessEqual(usage(narrow)[1], 2000)
        for limits, status in (({"pixels": 2399}, MEMORY), ({"seconds": 1e-9}, STOPPED)):
            session = open_session(**limits)
            self.assertEqual(decode(data, session), status)
            kel.kel_close_session(session)
        file, image = c.c_void_p(), c.c_void_p()
        kel.kel_open_memory_in(wide, data, c.c_size_t(len(data)), c.byref(file))
        kel.kel_close_session(wide)  # what is open goes on
        self.assertEqual(kel.kel_decode(file, None, c.byref(image)), 0)
        kel.kel_close(file)
        kel.kel_free_image(image)
        kel.kel_close_session(narrow)

    def test_another_copy_of_the_interface_is_not_limited_by_this_one(self):
        global kel
        samples, narrow, mine = picture(3, 1), open_session(memory=2000), kel
        with tempfile.TemporaryDirectory() as folder:
            try:
                kel = c.CDLL(shutil.copy(LIBRARY, folder + "/other.so"))
                self.assertEqual(decode(encode(samples, 3, 8, lossless=1))[1], samples)
            finally:
                kel = mine
        self.assertEqual(usage(narrow), (0, 0))
        kel.kel_close_session(narrow)

    def test_info_and_structures_of_other_sizes(self):
        data = encode(picture(4, 1), 4, 8, lossless=1, tile_width=16, tile_height=40)
        file, info = c.c_void_p(), Info()
        self.assertEqual(kel.kel_open_memory(data, c.c_size_t(len(data)), c.byref(file)), 0)
        kel.kel_info_init(c.byref(info))
        self.assertEqual(info.size, c.sizeof(Info))
        self.assertEqual(kel.kel_get_info(file, c.byref(info)), 0)
        found = [getattr(info, name) for name, _ in Info._fields_[1:]]
        self.assertEqual(found, [WIDTH, HEIGHT, 4, 8, 1, 1, 4, 5])
        old = Info(size=c.sizeof(c.c_size_t) + 4, height=77)  # a program that knows the width alone
        self.assertEqual(kel.kel_get_info(file, c.byref(old)), 0)
        self.assertEqual((old.width, old.height, old.size), (WIDTH, 77, c.sizeof(c.c_size_t) + 4))
        self.assertEqual(kel.kel_get_info(file, c.byref(Info())), PARAMETER)
        self.assertEqual(kel.kel_set_memory_limit(c.c_uint64(1)), PARAMETER)
        kel.kel_close(file)

    def test_progress_and_stopping(self):
        calls = []
        samples = picture(1, 1)
        seen = PROGRESS(lambda user, done, total: calls.append((done, total)) or 0)
        stop = PROGRESS(lambda user, done, total: 1)
        data = encode(samples, 1, 8, tile_width=20, tile_height=20, progress=seen)
        self.assertEqual(calls[-1], (6, 6))
        self.assertEqual(encode(samples, 1, 8, tile_width=20, progress=stop), STOPPED)
        self.assertEqual(decode(data, progress=stop), STOPPED)

    def test_failures_are_told(self):
        samples = picture(1, 1)
        data = encode(samples, 1, 8)
        self.assertEqual(decode(b"neither"), INPUT)
        self.assertIn(b"Kel", kel.kel_error_text())
        self.assertEqual(decode(data[:len(data) // 2]), INCOMPLETE)
        self.assertEqual(decode(data[:len(data) // 2], accept_incomplete=1)[0].width, WIDTH)
        self.assertEqual(encode(samples, 1, 8, quality=101), PARAMETER)
        self.assertEqual(encode(samples, 1, 8, size_limit=10), OUTPUT)
        self.assertEqual(encode(samples[:-HEIGHT], 1, 8), PARAMETER)
        self.assertEqual(kel.kel_set_memory_limit(c.c_uint64(1000)), 0)
        self.assertEqual(encode(samples, 1, 8), MEMORY)
        self.assertEqual(kel.kel_set_memory_limit(c.c_uint64(0)), 0)


if __name__ == "__main__":
    unittest.main()
