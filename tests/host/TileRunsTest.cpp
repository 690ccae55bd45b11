// Finding the way through files and code streams, and cutting them into parts.
#include "TileRuns.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "BitAssembler.h"

namespace {

using namespace kel::host;
using test::BitAssembler;

struct Part {
  unsigned tile, part;
  std::size_t packetBytes;
  bool hidesLength = false;  ///< written with length 0
};

/// Markers and segments of a code stream whose canvas ends at (x1, y1).
class CodeStream {
 public:
  explicit CodeStream(unsigned marker = 0xAB) : marker_(marker) {}

  CodeStream& Header(unsigned x1, unsigned y1, unsigned x0, unsigned y0, unsigned tile) {
    Marker(0x4F).Marker(0x51).stream.U16(41).U16(0).U32(x1).U32(y1).U32(x0).U32(y0);
    stream.U32(tile).U32(tile).U32(2).U32(1).U16(1).U8(7).U8(1).U8(1);
    Marker(0x64).stream.U16(9).U16(1).Text("words");
    return *this;
  }
  CodeStream& TilePart(const Part& part, bool ownStyle = false) {
    const std::size_t style = ownStyle ? 4 : 0;
    Marker(0x90).stream.U16(10).U16(part.tile);
    stream.U32(part.hidesLength ? 0 : 14 + style + part.packetBytes).U8(part.part).U8(0);
    if (ownStyle) Marker(0x52).stream.U16(2);
    Marker(0x93);
    for (std::size_t i = 0; i < part.packetBytes; ++i) stream.U8(0x10 * part.tile + part.part);
    return *this;
  }
  CodeStream& End() { return Marker(0xD9); }
  CodeStream& Marker(unsigned second) {
    stream.U8(marker_).U8(second);
    return *this;
  }

  BitAssembler stream;

 private:
  unsigned marker_;
};

constexpr std::size_t kHeaderBytes = 2 + 43 + 11;

TEST(StreamScan, FollowsTilePartsByTheirLengths) {
  CodeStream code;
  code.Header(100, 70, 10, 5, 50).TilePart({0, 0, 5}).TilePart({3, 0, 0}).TilePart({0, 1, 7}, true);
  const StreamScan scan = ScanStream(code.End().stream.Result());
  EXPECT_FALSE(scan.boxed);
  EXPECT_EQ(scan.markerByte, 0xAB);
  EXPECT_EQ(scan.comment, "words");
  EXPECT_TRUE(scan.hasMainHeader && scan.tilePartsRegular && scan.tilesHaveOwnStyle);
  EXPECT_EQ(scan.tilePartOffset, kHeaderBytes);
  ASSERT_EQ(scan.tileParts.size(), 3U);
  EXPECT_EQ(scan.tileParts[1].offset, kHeaderBytes + 19);
  EXPECT_EQ(scan.tileParts[2].length, 14U + 4U + 7U);
  EXPECT_EQ(scan.grid.TilesAcross(), 2U);
}

TEST(StreamScan, LastPartWithoutLengthRunsToTheEnd) {
  for (const bool marked : {true, false}) {
    CodeStream code(0xFF);
    code.Header(100, 70, 10, 5, 50).TilePart({0, 0, 5}).TilePart({1, 0, 7, true});
    if (marked) code.End();
    const StreamScan scan = ScanStream(code.stream.Result());
    EXPECT_TRUE(scan.tilePartsRegular);
    EXPECT_EQ(scan.tileParts.back().length, 21U);
  }
}

// Whatever is cut off or wrong: never regular, never outside the data. (Sanitizers watch.)
TEST(StreamScan, LosesItsWayQuietly) {
  CodeStream code;
  code.Header(100, 70, 10, 5, 50).TilePart({0, 0, 5}).TilePart({2, 0, 7});
  const test::Bytes whole = code.stream.Result();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const StreamScan scan = ScanStream(ByteView(whole).first(length));
    EXPECT_EQ(scan.hasMainHeader, length >= kHeaderBytes + 4) << length;
    EXPECT_EQ(scan.tilePartsRegular, length == kHeaderBytes + 19) << length;
  }
  for (const std::size_t at : {kHeaderBytes + 5, kHeaderBytes + 9, kHeaderBytes + 19}) {
    test::Bytes damaged = whole;  // tile number, length, marker of the second
    damaged[at] = 0x7F;
    EXPECT_FALSE(ScanStream(damaged).tilePartsRegular) << at;
  }
}

BitAssembler Boxed(const test::Bytes& code, bool withLength) {
  BitAssembler file;
  file.U32(12).Text("weabzolt").U32(20).Text("ftypweab").U32(1).Text("weab");
  file.U32(8 + 24).Text("vrmh").U32(16).Text("cmap").U32(0x00000100).U32(0x00000101);
  file.U32(8).Text("none").U32(12).Text("xml <a/>");
  file.U32(withLength ? code.size() + 8 : 0).Text("vrmc").Append(code);
  if (withLength) file.U32(12).Text("abchlate").U32(11).Text("xml cut");
  return file;
}

TEST(StreamScan, FindsTheCodeStreamAmongBoxes) {
  CodeStream code;
  code.Header(100, 70, 10, 5, 50).TilePart({0, 0, 5}).End();
  for (const bool withLength : {true, false}) {
    const test::Bytes file = Boxed(code.stream.Result(), withLength).Result();
    const StreamScan scan = ScanStream(file);
    EXPECT_TRUE(scan.boxed && scan.tilePartsRegular);
    EXPECT_EQ(scan.codeStreamOffset, 76U + 8U);
    EXPECT_EQ(scan.numMappedChannels, 2U);
    EXPECT_EQ(scan.boxes.size(), withLength ? 7U : 5U);
    for (std::size_t length = 0; length < file.size(); ++length) {
      ScanStream(ByteView(file).first(length));
    }
  }
}

/// 4 x 3 tiles of 600 x 600 with a part each; tile 5 has two, tile 7 none.
CodeStream Tiles(unsigned size) {
  CodeStream code;
  code.Header(2 + 4 * size - 10, 1 + 3 * size - 5, 12, 3, size);
  for (unsigned tile = 0; tile < 12; ++tile) {
    if (tile != 7) code.TilePart({tile, 0, tile});
  }
  code.TilePart({5, 1, 3, true}).End();
  return code;
}

TEST(TileRuns, EveryTileIsInOneRun) {
  for (const unsigned size : {600U, 250U, 100U, 20U}) {
    const test::Bytes bytes = Tiles(size).stream.Result();
    std::set<std::uint64_t> offsets;
    std::size_t parts = 0;
    const std::vector<TileRun> runs = PlanRuns(ScanStream(bytes));
    for (const TileRun& run : runs) {
      for (const ScannedTilePart& part : run.parts) {
        EXPECT_TRUE(part.tile % 4 >= run.column && part.tile % 4 < run.column + run.columns);
        EXPECT_TRUE(part.tile / 4 >= run.row && part.tile / 4 < run.row + run.rows);
        offsets.insert(part.offset);
        ++parts;
      }
      EXPECT_TRUE(std::ranges::is_sorted(run.parts, {}, &ScannedTilePart::offset));
    }
    EXPECT_EQ(parts, 12U);
    EXPECT_EQ(offsets.size(), 12U);
    EXPECT_EQ(runs.size(), size == 600   ? 11U
                           : size == 250 ? 5U
                                         : 11U)
        << "blocks with a missing tile fall apart into tiles";
  }
}

TEST(TileRuns, DataThatCannotBeCutStayWhole) {
  CodeStream one;
  one.Header(50, 50, 10, 5, 60).TilePart({0, 0, 5}).End();
  EXPECT_TRUE(PlanRuns(ScanStream(one.stream.Result())).empty());
  const test::Bytes cut = Tiles(600).stream.Result();
  EXPECT_TRUE(PlanRuns(ScanStream(ByteView(cut).first(cut.size() - 3))).empty() == false)
      << "a last part without length ends where the data end";
  EXPECT_TRUE(PlanRuns(ScanStream(ByteView(cut).first(cut.size() - 40))).empty());
}

TEST(TileRuns, ARunIsACodeStreamOfItsOwn) {
  const test::Bytes bytes = Tiles(600).stream.Result();
  const StreamScan scan = ScanStream(bytes);
  for (const TileRun& run : PlanRuns(scan)) {
    const Bytes part = BuildRun(bytes, scan, run);
    const StreamScan own = ScanStream(part);
    ASSERT_TRUE(own.tilePartsRegular);
    EXPECT_EQ(own.grid.TilesAcross() * own.grid.TilesDown(), 1U);
    EXPECT_EQ(own.grid.tileX0, 2 + 600 * run.column);
    EXPECT_EQ(own.grid.tileY0, 1 + 600 * run.row);
    EXPECT_EQ(own.grid.x0, run.column == 0 ? 12 : own.grid.tileX0);
    EXPECT_EQ(own.grid.y0, run.row == 0 ? 3 : own.grid.tileY0);
    EXPECT_EQ(own.grid.x1, run.column == 3 ? scan.grid.x1 : own.grid.tileX0 + 600);
    EXPECT_EQ(own.grid.y1, run.row == 2 ? scan.grid.y1 : own.grid.tileY0 + 600);
    ASSERT_EQ(own.tileParts.size(), run.parts.size());
    for (std::size_t i = 0; i < run.parts.size(); ++i) {
      const ScannedTilePart &a = run.parts[i], &b = own.tileParts[i];
      EXPECT_EQ(b.tile, 0U);
      EXPECT_EQ(b.part, a.part);
      EXPECT_TRUE(std::equal(part.begin() + static_cast<std::ptrdiff_t>(b.offset + 12),
                             part.begin() + static_cast<std::ptrdiff_t>(b.offset + b.length),
                             bytes.begin() + static_cast<std::ptrdiff_t>(a.offset + 12)));
    }
  }
}

TEST(TileRuns, ARunOfManyTilesRenumbersThem) {
  const test::Bytes bytes = Tiles(250).stream.Result();
  const StreamScan scan = ScanStream(bytes);
  const std::vector<TileRun> runs = PlanRuns(scan);
  const StreamScan own = ScanStream(BuildRun(bytes, scan, runs[0]));
  EXPECT_EQ(own.grid.TilesAcross(), 4U);
  std::vector<std::uint32_t> tiles;
  for (const ScannedTilePart& part : own.tileParts) tiles.push_back(part.tile);
  EXPECT_EQ(tiles, (std::vector<std::uint32_t>{0, 1, 2, 3}));
}

TEST(TileRuns, BoxesThatBearOnDecodingGoAlong) {
  const test::Bytes file = Boxed(Tiles(600).stream.Result(), true).Result();
  const StreamScan scan = ScanStream(file);
  const Bytes part = BuildRun(file, scan, PlanRuns(scan)[0]);
  const StreamScan own = ScanStream(part);
  EXPECT_TRUE(own.tilePartsRegular);
  std::vector<std::uint64_t> lengths;
  for (const ScannedBox& box : own.boxes) lengths.push_back(box.length);
  EXPECT_EQ(lengths, (std::vector<std::uint64_t>{12, 20, 32, 12, part.size() - 76}))
      << "not the XML boxes";
}

}  // namespace
