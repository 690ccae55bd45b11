#include "FileWalk.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "DataSource.h"
#include "KelBlockDecode.h"
#include "transform/KelWavelet.h"

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

/// What the main header says.
struct Stream {
  int width = 0, height = 0, tileWidth = 1, tileHeight = 1;
  std::vector<int> across, down;
  int order = 0, layers = 0, levels = 0;

  kel::Box TileComp(int tile, std::size_t c) const {
    const int columns = (width + tileWidth - 1) / tileWidth;
    const int x = tile % columns * tileWidth, y = tile / columns * tileHeight;
    return {kel::CeilDiv(x, across[c]), kel::CeilDiv(std::min(x + tileWidth, width), across[c]),
            kel::CeilDiv(y, down[c]), kel::CeilDiv(std::min(y + tileHeight, height), down[c])};
  }
};

/// A band must end where its size says.
void WalkBand(const Bytes& bytes, const kel::Box& band) {
  DataSource source(bytes, kel::Flavour::kAB);
  std::vector<std::int32_t> cells(static_cast<std::size_t>(band.Width() * band.Height()));
  const auto edge = [](std::int64_t v) { return static_cast<std::int32_t>(v); };
  const kel::BandOutcome outcome =
      DecodeBandBlocks(*source,
                       {edge(band.x0), edge(band.x1), edge(band.y0), edge(band.y1), 3, 3,
                        kel::SignLayout::kSeparateSigns},
                       cells.data(), static_cast<std::ptrdiff_t>(band.Width()));
  EXPECT_EQ(outcome.end, kel::BandEnd::kWhole);
  EXPECT_EQ(source->GetPosition(), static_cast<std::int64_t>(bytes.size()));
}

void WalkPacket(Cursor& in, const kel::Box& comp, int r, int levels) {
  const std::uint32_t length = in.Take(4);
  const std::size_t end = in.at + length;
  for (int b = r == 0 ? 0 : 3 * r - 2; b <= 3 * r; ++b) {
    const std::uint32_t size = r == 0 ? length : in.Take(4);
    ASSERT_LE(in.at + size, in.file.size());
    const auto begin = in.file.begin() + static_cast<std::ptrdiff_t>(in.at);
    WalkBand(Bytes(begin, begin + size), kel::SubbandBox(comp, levels, b));
    in.at += size;
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
      return kel::ReduceBox(s.TileComp(tile, p.comp), s.levels - p.resolution).IsEmpty();
    });
    if (!part.empty() || s.order == 4) parts.push_back(part);
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

/// A marker with its first byte.
constexpr std::uint32_t Marked(kel::format::Marker marker) {
  return 0xAB00U | marker;
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
    markers += "0123456789ABCDEF"[marker >> 4 & 15];
    markers += "0123456789ABCDEF"[marker & 15];
    if (marker == Marked(kel::format::kSIZ)) ReadSizes(in, s);
    if (marker == Marked(kel::format::kCOD)) ReadCodingStyle(in, s);
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
  EXPECT_EQ(in.Take(2), Marked(kel::format::kSOC));
  walked.mainMarkers = WalkSegments(in, Marked(kel::format::kSOT), s);
  in.at -= 2;
  int tile = -1;
  std::size_t part = 0;
  std::vector<std::vector<Packet>> parts;
  while (in.at + 2 < file.size() && !testing::Test::HasFatalFailure()) {
    const std::size_t start = in.at;
    EXPECT_EQ(in.Take(2), Marked(kel::format::kSOT));
    EXPECT_EQ(in.Take(2), kel::format::kSotBytes - kel::format::kMarkerBytes);
    // Tiles without samples have no parts.
    for (; part == parts.size() && tile < kel::format::kMostTiles; part = 0)
      parts = PartsOf(s, ++tile);
    EXPECT_EQ(in.Take(2), static_cast<std::uint32_t>(tile));
    const std::size_t end = start + in.Take(4);
    EXPECT_EQ(in.Take(1), part);
    EXPECT_EQ(in.Take(1), parts.size());
    WalkSegments(in, Marked(kel::format::kSOD), s);
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
  EXPECT_EQ(in.Take(2), Marked(kel::format::kEOC));
  EXPECT_EQ(in.at, file.size());
  return walked;
}

}  // namespace test
