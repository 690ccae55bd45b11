#include "FileWalk.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "PlainBlocks.h"

namespace test {
namespace {

struct Cursor {
  const Bytes& file;
  std::size_t at = 0;

  std::uint32_t Take(int bytes) {
    std::uint32_t value = 0;
    while (bytes-- > 0) value = value << 8 | (at < file.size() ? file[at] : 0), ++at;
    return value;
  }
};

struct Rect {
  int x0, x1, y0, y1;
  bool IsEmpty() const { return x0 >= x1 || y0 >= y1; }
};

int CeilHalf(std::int64_t v, int shift) {
  return static_cast<int>((v + (std::int64_t{1} << shift) - 1) >> shift);
}
Rect Reduce(const Rect& r, int shift) {
  return {CeilHalf(r.x0, shift), CeilHalf(r.x1, shift), CeilHalf(r.y0, shift),
          CeilHalf(r.y1, shift)};
}
/// A band of level n: samples whose place is odd across (dx) or down (dy), at the level's spacing.
Rect BandOf(const Rect& r, int n, int dx, int dy) {
  const std::int64_t half = n > 0 ? std::int64_t{1} << (n - 1) : 0;
  return {CeilHalf(r.x0 - half * dx, n), CeilHalf(r.x1 - half * dx, n),
          CeilHalf(r.y0 - half * dy, n), CeilHalf(r.y1 - half * dy, n)};
}

/// What the main header says.
struct Stream {
  int width = 0, height = 0, tileWidth = 1, tileHeight = 1;
  std::vector<int> across, down;
  int order = 0, layers = 0, levels = 0;

  Rect TileComp(int tile, std::size_t c) const {
    const int columns = (width + tileWidth - 1) / tileWidth;
    const int x = tile % columns * tileWidth;
    const int y = tile / columns * tileHeight;
    const auto divide = [](int v, int by) { return (v + by - 1) / by; };
    return {divide(x, across[c]), divide(std::min(x + tileWidth, width), across[c]),
            divide(y, down[c]), divide(std::min(y + tileHeight, height), down[c])};
  }
};

void WalkBand(const Bytes& bytes, const Rect& band) {
  ASSERT_GE(bytes.size(), 2U);
  const int least = bytes[0], most = bytes[1];
  PlainBits bits{bytes, 16};
  int seenLeast = 127, seenMost = 0;
  for (int y = band.y0; !band.IsEmpty() && y < band.y1; y = (y / 8 + 1) * 8) {
    for (int x = band.x0; x < band.x1; x = (x / 8 + 1) * 8) {
      const int width = std::min((x / 8 + 1) * 8, band.x1) - x;
      const int height = std::min((y / 8 + 1) * 8, band.y1) - y;
      const int planes = TakePlainBlock(bits, width, height, least, most, true).Planes();
      seenLeast = std::min(seenLeast, planes);
      seenMost = std::max(seenMost, planes);
    }
  }
  EXPECT_EQ(seenLeast, least);
  EXPECT_EQ(seenMost, most);
  EXPECT_EQ((bits.position + 7) / 8, bytes.size()) << "the band's size";
  while (bits.position % 8 != 0) EXPECT_EQ(bits.Take(), 0U) << "padding";
}

void WalkPacket(Cursor& in, const Rect& comp, int r, int levels) {
  const auto band = [&](std::uint32_t size, const Rect& rect) {
    ASSERT_LE(in.at + size, in.file.size());
    const auto begin = in.file.begin() + static_cast<std::ptrdiff_t>(in.at);
    WalkBand(Bytes(begin, begin + size), rect);
    in.at += size;
  };
  const std::uint32_t length = in.Take(4);
  const std::size_t end = in.at + length;
  if (r == 0) {
    band(length, Reduce(comp, levels));
  } else {
    const int n = levels - r + 1;
    band(in.Take(4), BandOf(comp, n, 1, 0));
    band(in.Take(4), BandOf(comp, n, 0, 1));
    band(in.Take(4), BandOf(comp, n, 1, 1));
  }
  EXPECT_EQ(in.at, end) << "the packet's count";
}

/// The packets of a tile in writing order, grouped in tile-parts.
struct Packet {
  std::size_t comp;
  int resolution;
};
std::vector<std::vector<Packet>> PartsOf(const Stream& s, int tile) {
  std::vector<std::vector<Packet>> parts;
  const auto add = [&](std::vector<Packet> part) {
    std::erase_if(part, [&](const Packet& p) {
      return Reduce(s.TileComp(tile, p.comp), s.levels - p.resolution).IsEmpty();
    });
    if (!part.empty()) parts.push_back(part);
  };
  std::vector<Packet> part;
  for (int r = 0; s.order == 1 && r <= s.levels; ++r, add(part), part.clear()) {
    for (int layer = 0; layer < s.layers; ++layer) {
      for (std::size_t c = 0; c < s.across.size(); ++c) part.push_back({c, r});
    }
  }
  for (std::size_t c = 0; s.order == 4 && c < s.across.size(); ++c, add(part), part.clear()) {
    for (int r = 0; r <= s.levels; ++r) {
      part.insert(part.end(), static_cast<std::size_t>(s.layers), {c, r});
    }
  }
  return parts;
}

std::string Hex2(std::uint32_t value) {
  static const char digits[] = "0123456789ABCDEF";
  return {digits[value >> 4 & 15], digits[value & 15]};
}

void ReadSizes(Cursor segment, Stream& s) {
  segment.Take(4);
  s.width = static_cast<int>(segment.Take(4));
  s.height = static_cast<int>(segment.Take(4));
  segment.at += 8;
  s.tileWidth = static_cast<int>(segment.Take(4));
  s.tileHeight = static_cast<int>(segment.Take(4));
  segment.at += 8;
  for (std::uint32_t c = segment.Take(2); c > 0; --c) {
    segment.Take(1);
    s.across.push_back(static_cast<int>(segment.Take(1)));
    s.down.push_back(static_cast<int>(segment.Take(1)));
  }
}

void ReadCodingStyle(Cursor segment, Stream& s) {
  segment.Take(3);
  s.order = static_cast<int>(segment.Take(1));
  s.layers = static_cast<int>(segment.Take(2));
  segment.Take(1);
  s.levels = static_cast<int>(segment.Take(1));
}

/// Passes over segments up to a marker, which is taken too.
std::string WalkSegments(Cursor& in, std::uint32_t until, Stream& s) {
  std::string markers;
  for (;;) {
    const std::uint32_t marker = in.Take(2);
    EXPECT_EQ(marker >> 8, 0xABU);
    if (marker == until || marker >> 8 != 0xAB) return markers;
    markers += Hex2(marker);
    if (marker == 0xAB51) ReadSizes(in, s);
    if (marker == 0xAB52) ReadCodingStyle(in, s);
    const std::size_t start = in.at;
    in.at = start + in.Take(2);
  }
}

}  // namespace

WalkedFile WalkFile(const Bytes& file) {
  WalkedFile walked;
  Cursor in{file};
  for (std::string type; type != "vrmc ";) {
    const std::size_t start = in.at;
    const std::uint32_t length = in.Take(4);
    type = std::string(file.begin() + static_cast<std::ptrdiff_t>(in.at),
                       file.begin() + static_cast<std::ptrdiff_t>(in.at) + 4) +
           " ";
    walked.boxes += type;
    EXPECT_EQ(length == 0, type == "vrmc ") << type;
    in.at = length == 0 ? start + 8 : start + length;
    if (in.at >= file.size()) {
      ADD_FAILURE() << "boxes pass the end";
      return walked;
    }
  }

  Stream s;
  EXPECT_EQ(in.Take(2), 0xAB4FU);
  walked.mainMarkers = WalkSegments(in, 0xAB90, s);
  in.at -= 2;
  int tile = -1;
  std::size_t part = 0;
  std::vector<std::vector<Packet>> parts;
  while (in.at + 2 < file.size() && !testing::Test::HasFatalFailure()) {
    const std::size_t start = in.at;
    EXPECT_EQ(in.Take(4), 0xAB90000AU);
    // Tiles without samples have no parts.
    for (; part == parts.size() && tile < 65535; part = 0) parts = PartsOf(s, ++tile);
    EXPECT_EQ(in.Take(2), static_cast<std::uint32_t>(tile));
    const std::size_t end = start + in.Take(4);
    EXPECT_EQ(in.Take(1), part);
    EXPECT_EQ(in.Take(1), parts.size());
    WalkSegments(in, 0xAB93, s);
    if (part < parts.size()) {
      for (const Packet& p : parts[part]) {
        WalkPacket(in, s.TileComp(tile, p.comp), p.resolution, s.levels);
      }
    }
    ++part;
    walked.parts.push_back(start);
    EXPECT_EQ(in.at, end) << "the tile-part's length";
    if (in.at != end) return walked;
  }
  EXPECT_EQ(part, parts.size()) << "tile-parts are missing";
  EXPECT_EQ(in.Take(2), 0xABD9U);
  EXPECT_EQ(in.at, file.size());
  return walked;
}

}  // namespace test
