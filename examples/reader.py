#!/usr/bin/python3
"""Reads a Kel file with nothing of Kel, by docs/format.md alone: slow, whole and short.

    reader.py FILE.kel OUT        writes every component as OUT.0.pgm, OUT.1.pgm, ...

Data have to be complete and sound: what is damaged ends in an exception. Palettes, channel roles
and colour spaces of the boxes are left to others; what is written are the code stream's samples.
"""

import struct
import sys
from dataclasses import dataclass, field, replace

import numpy as np

SOC, SIZ, COD, COC, QCD, QCC, POC = 0x4F, 0x51, 0x52, 0x53, 0x5C, 0x5D, 0x5F
SOT, SOP, EPH, SOD, EOC = 0x90, 0x91, 0x92, 0x93, 0xD9
LRCP, RLCP, RPCL, PCRL, CPRL = range(5)


def ceil_div(a, b):
    return -(-a // b)


def code_stream_of(data):
    """The code stream, which boxes may stand around."""
    if data[:2] in (b"\xab\x4f", b"\xff\x4f"):
        return data
    at = 0
    while at < len(data):
        length, kind = struct.unpack_from(">I4s", data, at)
        head = 8
        if length == 1:
            length, head = struct.unpack_from(">Q", data, at + 8)[0], 16
        end = at + length if length else len(data)
        if kind in (b"vrmc", b"jp2c"):
            return data[at + head : end]
        at = end
    raise ValueError("no code stream")


@dataclass
class Coding:
    """How a tile-component is coded: a COD or COC."""

    levels: int = 0
    block: tuple = (3, 3)
    signs_last: bool = True
    reversible: bool = True
    precincts: list = field(default_factory=list)  # exponents (across, down) per resolution

    @staticmethod
    def read(body, has_precincts):
        levels, width, height, style, kind = body[:5]
        sizes = [(15, 15)] * (levels + 1)
        if has_precincts:
            sizes = [(b & 15, b >> 4) for b in body[5 : 6 + levels]]
        return Coding(levels, (width + 2, height + 2), bool(style & 8), kind != 0, sizes)


@dataclass
class Steps:
    """Exponents and mantissas of the bands' steps: a QCD or QCC."""

    style: int = 0
    values: list = field(default_factory=list)

    @staticmethod
    def read(body):
        style = body[0] & 3
        if style == 0:
            return Steps(style, [(b >> 3, 0) for b in body[1:]])
        values = struct.unpack_from(f">{(len(body) - 1) // 2}H", body, 1)
        return Steps(style, [(v >> 11, v & 2047) for v in values])

    def of(self, resolution, band, depth):
        """band: 0 LL, 1 HL, 2 LH, 3 HH."""
        if self.style == 0:
            return 1
        if self.style == 1:
            exponent, mantissa = self.values[0]
            exponent -= max(0, resolution - 1)
        else:
            exponent, mantissa = self.values[0 if band == 0 else 3 * (resolution - 1) + band]
        return (1 + mantissa / 2048) * 2.0 ** (depth + (0, 1, 1, 2)[band] - exponent)


@dataclass
class Header:
    """What a main header says, or a tile's, which begins as a copy of it."""

    order: int = 0
    layers: int = 1
    transform: bool = False
    sop_eph: tuple = (False, False)
    cod: Coding = None
    qcd: Steps = None
    coc: dict = field(default_factory=dict)
    qcc: dict = field(default_factory=dict)
    changes: list = field(default_factory=list)

    def take(self, code, body, wide):
        def index(at):
            return struct.unpack_from(">H", body, at)[0] if wide else body[at]

        size = 2 if wide else 1
        if code == COD and not self.cod:
            self.sop_eph = (bool(body[0] & 2), bool(body[0] & 4))
            self.order, self.layers, transform = struct.unpack_from(">BHB", body, 1)
            self.transform = transform == 1
            self.cod = Coding.read(body[5:], body[0] & 1)
        elif code == COC:
            self.coc[index(0)] = Coding.read(body[size + 1 :], body[size] & 1)
        elif code == QCD:
            self.qcd = Steps.read(body)
        elif code == QCC:
            self.qcc[index(0)] = Steps.read(body[size:])
        elif code == POC and not self.changes:
            for at in range(0, len(body) - (4 + 2 * size), 5 + 2 * size):
                layers, resolutions = struct.unpack_from(">HB", body, at + 1 + size)
                self.changes.append(
                    (body[at], index(at + 1), layers, resolutions, index(at + 4 + size),
                     body[at + 4 + 2 * size])
                )

    def for_tile(self):
        return replace(self, coc=dict(self.coc), qcc=dict(self.qcc), changes=list(self.changes))


@dataclass
class Component:
    depth: int
    dx: int
    dy: int


class Band:
    def __init__(self, kind, box, shape):
        self.kind, self.box = kind, box
        self.values = np.zeros(shape, np.int64)


class Resolution:
    """A resolution of a tile-component: its bands and the grid of its precincts."""

    def __init__(self, box, number, levels, coding):
        self.number = number
        self.box = [ceil_div(v, 1 << (levels - number)) for v in box]
        x0, y0, x1, y1 = self.box
        self.px, self.py = coding.precincts[number]
        self.first = (x0 >> self.px, y0 >> self.py)
        self.across = ceil_div(x1, 1 << self.px) - self.first[0] if x1 > x0 and y1 > y0 else 0
        self.down = ceil_div(y1, 1 << self.py) - self.first[1] if self.across else 0
        self.bands = []
        for kind in [1, 2, 3] if number else [0]:
            n = levels - number + (1 if number else 0)
            shift = [0, 0] if n == 0 else [(1 << n >> 1) * (kind & 1), (1 << n >> 1) * (kind >> 1)]
            edges = [ceil_div(v - shift[i & 1], 1 << n) for i, v in enumerate(box)]
            shape = (max(0, edges[3] - edges[1]), max(0, edges[2] - edges[0]))
            self.bands.append(Band(kind, edges, shape))

    def corner(self, precinct, levels_below, component, tile):
        """Where a precinct begins on the grid; the first ones with the tile."""
        i, j = precinct % self.across, precinct // self.across
        x = (self.first[0] + i << self.px + levels_below) * component.dx
        y = (self.first[1] + j << self.py + levels_below) * component.dy
        return (x if i else tile[0], y if j else tile[1])

    def part(self, band, precinct):
        """The part of a band that belongs to a precinct."""
        less = 1 if self.number else 0
        i = self.first[0] + precinct % self.across
        j = self.first[1] + precinct // self.across
        px, py = self.px - less, self.py - less
        x0, y0, x1, y1 = band.box
        return (max(x0, i << px), max(y0, j << py), min(x1, i + 1 << px), min(y1, j + 1 << py))


class Bits:
    def __init__(self, data):
        self.data, self.at = data, 0

    def bit(self):
        value = self.data[self.at >> 3] >> (7 - (self.at & 7)) & 1
        self.at += 1
        return value

    def bits(self, count):
        value = 0
        for _ in range(count):
            value = value << 1 | self.bit()
        return value


PATTERNS = {
    word: pattern
    for pattern, word in enumerate(
        "0 1011 10011 11110 1101 100001 100100 11001 "
        "1110 100010 100011 100101 11111 100000 11000 1010".split()
    )
}


def column_pattern(bits):
    word = ""
    while word not in PATTERNS:
        word += str(bits.bit())
    return PATTERNS[word]


def read_plane(bits, magnitudes, value):
    """One of the two highest planes of a block, in strips of four rows."""
    height, width = magnitudes.shape
    whole_width, whole_height = width & ~3, height & ~3
    for y in range(0, whole_height, 4):
        for x in range(0, whole_width, 4):
            pattern = column_pattern(bits)
            for i in range(4):
                if pattern & 8 >> i:
                    for row in range(4):
                        magnitudes[y + row, x + i] += value * bits.bit()
        for x in range(whole_width, width):
            if bits.bit():
                for row in range(4):
                    magnitudes[y + row, x] += value * bits.bit()
    for x in range(width if whole_height < height else 0):
        if bits.bit():
            for row in range(whole_height, height):
                magnitudes[row, x] += value * bits.bit()


def read_block(bits, least, most, shape, signs_last):
    planes = least + bits.bits(max(1, (most - least).bit_length()))
    values = np.zeros(shape, np.int64)
    for plane in range(planes - 1, max(-1, planes - 3), -1):
        read_plane(bits, values, 1 << plane)
    low = max(0, planes - 2)
    if signs_last:
        if low:
            for at in np.ndindex(shape):
                values[at] += bits.bits(low)
        for at in np.ndindex(shape):
            if values[at] and bits.bit():
                values[at] = -values[at]
    else:
        for at in np.ndindex(shape):
            values[at] += bits.bits(low)
            if values[at] and bits.bit():
                values[at] = -values[at]
    return values


def read_band(data, band, part, coding):
    bits = Bits(data)
    least, most = bits.bits(8), bits.bits(8)
    x0, y0, x1, y1 = part
    if x0 >= x1 or y0 >= y1:
        return
    width, height = 1 << coding.block[0], 1 << coding.block[1]
    for by in range(y0 // height * height, y1, height):
        for bx in range(x0 // width * width, x1, width):
            left, top = max(bx, x0), max(by, y0)
            right, bottom = min(bx + width, x1), min(by + height, y1)
            block = read_block(bits, least, most, (bottom - top, right - left), coding.signs_last)
            band.values[top - band.box[1] : bottom - band.box[1],
                        left - band.box[0] : right - band.box[0]] = block


def lift(x, parity, change):
    """Adds to places of a parity what change makes of both neighbours, mirrored at the ends."""
    n = x.shape[-1]
    places = np.arange(parity, n, 2)
    before = np.where(places > 0, places - 1, 1)
    behind = np.where(places < n - 1, places + 1, n - 2)
    x[..., places] += change(x[..., before], x[..., behind])


def join(low, high, start, reversible):
    """One level along the last axis; start: place of the first sample."""
    n = low.shape[-1] + high.shape[-1]
    x = np.zeros(low.shape[:-1] + (n,), np.int64 if reversible else np.float64)
    even = start & 1  # where even places begin in the array
    x[..., even::2], x[..., 1 - even :: 2] = low, high
    if n == 1:
        return x if even == 0 else (x >> 1 if reversible else x / 2)
    if reversible:
        lift(x, even, lambda a, b: -((a + b + 2) >> 2))
        lift(x, 1 - even, lambda a, b: (a + b) >> 1)
        return x
    x[..., even::2] *= 1.230174105
    x[..., 1 - even :: 2] /= 1.230174105
    lift(x, even, lambda a, b: -0.443506852 * (a + b))
    lift(x, 1 - even, lambda a, b: -0.882911075 * (a + b))
    lift(x, even, lambda a, b: 0.052980118 * (a + b))
    lift(x, 1 - even, lambda a, b: 1.586134342 * (a + b))
    return x


class TileComponent:
    def __init__(self, box, coding, steps, depth):
        self.coding, self.steps, self.depth = coding, steps, depth
        self.box = box
        self.resolutions = [
            Resolution(box, r, coding.levels, coding) for r in range(coding.levels + 1)
        ]

    def samples(self):
        def scaled(resolution, band):
            if self.coding.reversible:
                return band.values
            return band.values * self.steps.of(resolution.number, band.kind, self.depth)

        first, *others = self.resolutions
        picture = scaled(first, first.bands[0])
        for resolution in others:
            hl, lh, hh = (scaled(resolution, band) for band in resolution.bands)
            x0, y0 = resolution.box[:2]
            top = join(picture, hl, x0, self.coding.reversible)
            bottom = join(lh, hh, x0, self.coding.reversible)
            picture = join(top.T, bottom.T, y0, self.coding.reversible).T
        return picture


class Tile:
    """A tile as its tile-parts come: first its header, then all of its packets."""

    def __init__(self, header):
        self.header, self.parts = header, {}


class Reader:
    def __init__(self, data):
        self.data = code_stream_of(data)
        self.tiles = {}
        self.read_headers()
        self.planes = [
            np.zeros((y1 - y0, x1 - x0), np.int64)
            for x0, y0, x1, y1 in (self.on_component(self.image, c) for c in self.components)
        ]
        for number, tile in sorted(self.tiles.items()):
            self.read_tile(number, tile)

    def segments(self, at, header, ends):
        """Takes segments into a header up to a marker of those given; where that stands."""
        while True:
            code = self.data[at + 1]
            if code in ends:
                return at
            if code in (SOC, EPH) or 0x30 <= code <= 0x3F:
                at += 2
                continue
            (length,) = struct.unpack_from(">H", self.data, at + 2)
            body = self.data[at + 4 : at + 2 + length]
            if code == SIZ:
                self.take_size(body)
            else:
                header.take(code, body, len(self.components) > 256)
            at += 2 + length

    def take_size(self, body):
        _, x1, y1, x0, y0, *self.grid, count = struct.unpack_from(">H8IH", body)
        self.image = (x0, y0, x1, y1)
        self.components = [Component((s & 127) + 1, dx, dy)
                           for s, dx, dy in struct.iter_unpack("3B", body[36 : 36 + 3 * count])]

    def read_headers(self):
        main = Header()
        at = self.segments(0, main, (SOT, EOC))
        while at + 12 <= len(self.data) and self.data[at + 1] == SOT:
            number, length, part, _ = struct.unpack_from(">HIBB", self.data, at + 4)
            end = self.end_of_part(at, length)
            if number not in self.tiles:
                self.tiles[number] = Tile(main.for_tile())
            tile = self.tiles[number]
            own = Header()
            start = self.segments(at + 12, own, (SOD,)) + 2
            self.merge(tile.header, own)
            tile.parts[part] = self.data[start:end]
            at = end

    def end_of_part(self, at, length):
        """Where the length says, if something begins there, else where the next SOT stands."""
        end = at + length if length else len(self.data)
        if end == len(self.data) or self.data[end + 1 : end + 2] in (b"\x90", b"\xd9"):
            return end
        end = self.data.find(self.data[at : at + 4], at + 12)
        return end if end >= 0 else len(self.data)

    @staticmethod
    def merge(tile, own):
        """A tile's own segments count before the main header's."""
        if own.cod:
            for name in ("order", "layers", "transform", "sop_eph", "cod"):
                setattr(tile, name, getattr(own, name))
        if own.qcd:
            tile.qcd = own.qcd
        tile.coc.update(own.coc)
        tile.qcc.update(own.qcc)
        if own.changes:
            tile.changes = own.changes

    @staticmethod
    def on_component(box, component):
        steps = (component.dx, component.dy) * 2
        return [ceil_div(v, s) for v, s in zip(box, steps)]

    def read_tile(self, number, tile):
        width, height, left, top = self.grid
        across = ceil_div(self.image[2] - left, width)
        x0, y0 = left + number % across * width, top + number // across * height
        x1, y1 = min(x0 + width, self.image[2]), min(y0 + height, self.image[3])
        box = (max(x0, self.image[0]), max(y0, self.image[1]), x1, y1)
        header = tile.header
        parts = [
            TileComponent(self.on_component(box, c), header.coc.get(i, header.cod),
                          header.qcc.get(i, header.qcd), c.depth)
            for i, c in enumerate(self.components)
        ]
        data = b"".join(part for _, part in sorted(tile.parts.items()))
        self.read_packets(data, header, parts, box)
        pictures = [part.samples() for part in parts]
        if header.transform:
            pictures[:3] = self.to_rgb(pictures[:3], parts[0].coding.reversible)
        for component, part, picture, plane in zip(self.components, parts, pictures, self.planes):
            value = picture + (1 << component.depth - 1)
            if not part.coding.reversible:
                value = np.copysign(np.floor(np.abs(value) + 0.5), value).astype(np.int64)
            px0, py0 = self.on_component(self.image, component)[:2]
            rows = slice(part.box[1] - py0, part.box[3] - py0)
            columns = slice(part.box[0] - px0, part.box[2] - px0)
            plane[rows, columns] = np.clip(value, 0, (1 << component.depth) - 1)

    @staticmethod
    def to_rgb(planes, reversible):
        y, cb, cr = planes
        if reversible:
            green = y - ((cb + cr) >> 2)
            return [cr + green, green, cb + green]
        return [y + 1.402 * cr, y - 0.34413 * cb - 0.71414 * cr, y + 1.772 * cb]

    def order_of(self, order, header, parts, tile, ranges):
        """Layers, components, resolutions and precincts in an order, within ranges."""
        r0, c0, layers, r1, c1 = ranges
        packets = []
        for c in range(c0, min(c1, len(parts))):
            component = self.components[c]
            for r, resolution in enumerate(parts[c].resolutions[:r1]):
                if r < r0:
                    continue
                for k in range(resolution.across * resolution.down):
                    if order == CPRL and k > 0:
                        break
                    if order == RPCL and k >= self.count_of_first(parts, r):
                        break
                    x, y = resolution.corner(k, parts[c].coding.levels - r, component, tile)
                    for layer in range(min(layers, header.layers)):
                        key = ((layer, r, c, k), (r, layer, c, k), (r, k, c, layer),
                               (y, x, c, r, k, layer), (c, r, k, layer))[order]
                        packets.append((key, (layer, c, r, k)))
        return [packet for _, packet in sorted(packets)]

    @staticmethod
    def count_of_first(parts, r):
        resolutions = parts[0].resolutions
        return resolutions[r].across * resolutions[r].down if r < len(resolutions) else 0

    def read_packets(self, data, header, parts, tile):
        changes = [(c[:5], c[5]) for c in header.changes]
        changes = changes or [((0, 0, header.layers, 33, len(parts)), header.order)]
        seen = set()
        at = 0
        for ranges, order in changes:
            for packet in self.order_of(order, header, parts, tile, ranges):
                if packet in seen:
                    continue
                seen.add(packet)
                _, c, r, k = packet
                if at < len(data):
                    at = self.read_packet(data, at, header, parts[c], parts[c].resolutions[r], k)

    def read_packet(self, data, at, header, part, resolution, precinct):
        def count():
            nonlocal at
            at += 4
            return struct.unpack_from(">I", data, at - 4)[0]

        if header.sop_eph[0] and data[at + 1] == SOP and data[at] in (0xAB, 0xFF):
            at += 6
        length = count()
        if header.sop_eph[1] and data[at : at + 2] in (b"\xab\x92", b"\xff\x92"):
            at += 2
        end = at + length
        for band in resolution.bands if length else []:
            size = count() if resolution.number else length
            if size:
                read_band(data[at : at + size], band, resolution.part(band, precinct), part.coding)
            at += size
        return end


def write_pgm(path, plane, depth):
    with open(path, "wb") as out:
        out.write(b"P5 %d %d %d\n" % (plane.shape[1], plane.shape[0], (1 << depth) - 1))
        out.write(plane.astype(">u2" if depth > 8 else "u1").tobytes())


def main():
    with open(sys.argv[1], "rb") as file:
        reader = Reader(file.read())
    for i, (component, plane) in enumerate(zip(reader.components, reader.planes)):
        write_pgm(f"{sys.argv[2]}.{i}.pgm", plane, component.depth)


if __name__ == "__main__":
    main()
