// Cutting files and code streams into parts.
#include "TileRuns.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "BitAssembler.h"
#include "FrameTarget.hpp"
#include "kel/host/session.hpp"

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
    Style().Marker(0x5C).stream.U16(4).U8(0x40).U8(0x40);
    return *this;
  }
  CodeStream& TilePart(const Part& part, bool ownStyle = false) {
    const std::size_t style = ownStyle ? 14 : 0;
    Marker(0x90).stream.U16(10).U16(part.tile);
    stream.U32(part.hidesLength ? 0 : 14 + style + part.packetBytes).U8(part.part).U8(0);
    if (ownStyle) Style();
    Marker(0x93);
    for (std::size_t i = 0; i < part.packetBytes; ++i) stream.U8(0x10 * part.tile + part.part);
    return *this;
  }
  CodeStream& Style() {
    Marker(0x52).stream.U16(12).U8(0).U8(1).U16(1).U8(0).U8(0).U8(1).U8(1).U8(8).U8(1);
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

BitAssembler Boxed(const test::Bytes& code, bool withLength) {
  BitAssembler file;
  file.U32(12).Text("weabzolt").U32(20).Text("ftypweab").U32(1).Text("weab");
  file.U32(8 + 24).Text("vrmh").U32(16).Text("cmap").U32(0x00000100).U32(0x00000101);
  file.U32(8).Text("none").U32(12).Text("xml <a/>");
  file.U32(withLength ? code.size() + 8 : 0).Text("vrmc").Append(code);
  if (withLength) file.U32(12).Text("abchlate").U32(11).Text("xml cut");
  return file;
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

struct TileRuns : testing::Test {
  Session session;
};

TEST_F(TileRuns, EveryTileIsInOneRun) {
  for (const unsigned size : {600U, 250U, 100U, 20U}) {
    const test::Bytes bytes = Tiles(size).stream.Result();
    Index index(bytes);
    std::set<std::uint64_t> offsets;
    std::size_t parts = 0;
    const std::vector<TileRun> runs = PlanRuns(index);
    for (const TileRun& run : runs) {
      for (const KelIndexTilePart& part : run.parts) {
        EXPECT_TRUE(part.tile % 4 >= run.column && part.tile % 4 < run.column + run.columns);
        EXPECT_TRUE(part.tile / 4 >= run.row && part.tile / 4 < run.row + run.rows);
        offsets.insert(part.offset);
        ++parts;
      }
      EXPECT_TRUE(std::ranges::is_sorted(run.parts, {}, &KelIndexTilePart::offset));
    }
    EXPECT_EQ(parts, 12U);
    EXPECT_EQ(offsets.size(), 12U);
    EXPECT_EQ(runs.size(), size == 250 ? 5U : 11U)
        << "blocks with a missing tile fall apart into tiles";
  }
}

TEST_F(TileRuns, DataThatCannotBeCutStayWhole) {
  const auto isWhole = [](ByteView bytes) {
    Index index(bytes);
    return PlanRuns(index).empty();
  };
  CodeStream one;
  one.Header(50, 50, 10, 5, 60).TilePart({0, 0, 5}).End();
  EXPECT_TRUE(isWhole(one.stream.Result()));
  const test::Bytes cut = Tiles(600).stream.Result();
  EXPECT_FALSE(isWhole(ByteView(cut).first(cut.size() - 3)))
      << "a last part without length ends where the data end";
  EXPECT_TRUE(isWhole(ByteView(cut).first(cut.size() - 40)));
}

// What a run is meant to be, the library finds in it, and in no other.
TEST_F(TileRuns, ARunIsACodeStreamOfItsOwn) {
  for (const unsigned size : {600U, 250U}) {
    const test::Bytes bytes = Tiles(size).stream.Result();
    Index index(bytes);
    const KelImageGeometry& grid = *index.Facts().geometry;
    const std::vector<TileRun> runs = PlanRuns(index);
    for (const TileRun& run : runs) {
      const Bytes part = BuildRun(bytes, index.Facts(), run);
      Index own(part);
      const KelImageGeometry& found = *own.Facts().geometry;
      EXPECT_EQ(found.NumXTiles, static_cast<KelLong>(run.columns));
      const auto column = static_cast<KelLong>(run.column);
      EXPECT_EQ(found.XTOsiz, 2 + grid.XTsiz * column);
      EXPECT_EQ(found.XOsiz, column == 0 ? 12 : found.XTOsiz);
      EXPECT_EQ(found.Xsiz, std::min(grid.Xsiz, found.XTOsiz + grid.XTsiz * found.NumXTiles));
      for (const TileRun& other : runs) {
        EXPECT_EQ(IsRunOf(grid, other, found), &other == &run);
      }
      const KelIndexTileParts& list = own.TileParts();
      ASSERT_TRUE(list.areRegular);
      ASSERT_EQ(list.count, run.parts.size());
      for (std::size_t i = 0; i < run.parts.size(); ++i) {
        const KelIndexTilePart &a = run.parts[i], &b = list.parts[i];
        EXPECT_EQ(b.tile, (a.tile / 4 - run.row) * run.columns + a.tile % 4 - run.column);
        EXPECT_EQ(b.part, a.part);
        EXPECT_TRUE(std::equal(part.begin() + static_cast<std::ptrdiff_t>(b.offset + 12),
                               part.begin() + static_cast<std::ptrdiff_t>(b.offset + b.length),
                               bytes.begin() + static_cast<std::ptrdiff_t>(a.offset + 12)));
      }
    }
  }
}

TEST_F(TileRuns, BoxesThatBearOnDecodingGoAlong) {
  for (const bool withLength : {true, false}) {
    const test::Bytes file = Boxed(Tiles(600).stream.Result(), withLength).Result();
    Index index(file);
    const Bytes part = BuildRun(file, index.Facts(), PlanRuns(index)[0]);
    Index own(part);
    EXPECT_TRUE(own.TileParts().areRegular);
    std::vector<std::uint64_t> lengths;
    for (KelULong i = 0; i < own.Facts().numBoxes; ++i) {
      lengths.push_back(own.Facts().boxes[i].length);
    }
    std::vector<std::uint64_t> expected = {12, 20, 32, 12, part.size() - 76};
    if (!withLength) expected = {12, 20, 32, part.size() - 64};
    EXPECT_EQ(lengths, expected) << "not the XML boxes";
  }
}

// A part that claims another place, or other components, is not placed.
TEST_F(TileRuns, NothingIsPlacedOutsideTheWhole) {
  const std::vector<ComponentArea> whole = {{10, 10, 20, 20, 1, 1, 8}};
  EXPECT_NO_THROW(FrameTarget(whole, {{10, 12, 20, 20, 1, 1, 8}}, {}, false));
  for (const std::vector<ComponentArea>& part : std::vector<std::vector<ComponentArea>>{
           {{9, 10, 20, 20, 1, 1, 8}},
           {{10, 10, 20, 21, 1, 1, 8}},
           {{10, 10, 20, 20, 2, 1, 8}},
           {{10, 10, 20, 20, 1, 1, 9}},
           {{10, 10, 20, 20, 1, 1, 8}, {10, 10, 20, 20, 1, 1, 8}}}) {
    EXPECT_THROW(FrameTarget(whole, part, {}, false), Error);
  }
}

}  // namespace
