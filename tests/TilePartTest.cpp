// Finding tile-parts: markers at the read position, the scan for the next one, the index.
#include <gtest/gtest.h>

#include "DataSource.h"
#include "HostMemory.h"
#include "KelTilePartIndex.h"
#include "base/KelRaise.h"

namespace {

using namespace kel;
using namespace test;
using TileParts = test::LibraryTest;

constexpr std::uint32_t kRight = 0xFFFFFFF0;  // asks the builder for the true Psot
const Delivery kDeliveries[] = {{true}, {false}, {false, true, 64}, {false, true, 16, 1}};
using Positions = std::vector<std::int64_t>;

struct Part {
  std::uint32_t tile, part;
  std::uint32_t Psot = kRight;
  Bytes body = Bytes(30, 0x11);
};

/// A code stream of tile-parts, behind seven bytes in place of a main header.
struct Stream {
  Flavour flavour;
  Bytes bytes;
  Positions positions;

  Stream(Flavour kind, const std::vector<Part>& parts, const char* tail = "") : flavour(kind) {
    const std::uint32_t first = kind == Flavour::kFF ? 0xFF : 0xAB;
    BitAssembler out;
    out.Append(Bytes(7, 0));
    for (const Part& p : parts) {
      positions.push_back(static_cast<std::int64_t>(out.Result().size()));
      out.U8(first).U8(0x90).U16(10).U16(p.tile);
      out.U32(p.Psot == kRight ? 14 + p.body.size() : p.Psot).U8(p.part).U8(0);
      out.U8(first).U8(0x93).Append(p.body);
    }
    bytes = out.U8(first).U8(0xD9).Append(Hex(tail)).Result();
  }
};

/// Moves to a tile-part; false when it cannot be found.
bool GoTo(DataSource& data, std::int32_t tile, std::int32_t part) {
  const KelTilePartEntry* entry = data->FindTilePart(tile, part);
  return entry != nullptr && data->MoveTo(entry->position);
}

/// A source over the first bytes of a stream, behind the main header, with a grid of 2 tiles.
struct Source : DataSource {
  Source(const Stream& stream, const Delivery& how, std::size_t size = SIZE_MAX)
      : DataSource(Bytes(stream.bytes.begin(),
                         stream.bytes.begin() +
                             static_cast<std::ptrdiff_t>(std::min(size, stream.bytes.size()))),
                   stream.flavour, how) {
    (**this).SetTileGrid(2, 1);
    (**this).SkipForward(7);
    (**this).SavePositionB();
  }
  /// Positions of the parts 0, 1, ... of a tile, up to the first missing.
  Positions Find(std::int32_t tile) {
    Positions found;
    while (GoTo(*this, tile, static_cast<std::int32_t>(found.size()))) {
      found.push_back((**this).GetPosition());
    }
    return found;
  }
};

/// Runs a check on a stream in both flavours and by every way of delivery that can move.
template <class Check>
void Everywhere(const std::vector<Part>& parts, Check check) {
  for (const Flavour flavour : {Flavour::kAB, Flavour::kFF}) {
    const Stream stream(flavour, parts);
    for (const Delivery& how : kDeliveries) {
      Source data(stream, how);
      check(stream.positions, data);
    }
  }
}

TEST_F(TileParts, IndexPutsThemInOrder) {
  Everywhere({{0, 1}, {1, 0}, {0, 0}, {1, 2}, {1, 1}}, [](const Positions& at, Source& data) {
    EXPECT_EQ(data.Find(1), (Positions{at[1], at[4], at[3]}));
    EXPECT_EQ(data.Find(0), (Positions{at[2], at[0]}));
    EXPECT_FALSE(GoTo(data, 2, 0) || GoTo(data, -1, 0));
    EXPECT_FALSE(GoTo(data, 0, 256) || GoTo(data, 0, -1));
  });
  // Of two that claim one place, the first; a part behind a gap is no substitute for it.
  Everywhere({{1, 0}, {0, 0}, {0, 0}, {0, 2}},
             [](const Positions& at, Source& data) { EXPECT_EQ(data.Find(0), Positions{at[1]}); });
}

// Lengths that are wrong in every way must cost neither the tile-part nor those behind it.
TEST_F(TileParts, WrongLengthsAreRepaired) {
  for (const std::uint32_t wrong : {0U, 1U, 13U, 14U, 41U, 45U, 54U, 100000U, 0x7FFFFFFFU}) {
    Everywhere({{1, 0}, {0, 0, wrong}, {0, 1}, {1, 1, wrong}, {0, 2}},
               [&](const Positions& at, Source& data) {
                 EXPECT_EQ(data.Find(0), (Positions{at[1], at[2], at[4]})) << wrong;
                 EXPECT_EQ(data.Find(1), (Positions{at[0], at[3]})) << wrong;
               });
  }
  // So do a length of 2 GiB and a tile outside the grid.
  for (const Part& bad : {Part{0, 1, 0x80000000}, Part{2, 0}}) {
    Everywhere({{1, 0}, {0, 0}, bad, {1, 1}}, [&](const Positions& at, Source& data) {
      EXPECT_EQ(data.Find(0).size(), 2U - bad.tile / 2);
      EXPECT_EQ(data.Find(1), (Positions{at[0], at[3]}));
    });
  }
}

// Patterns in the packet data that look like markers must not win over real tile-parts.
TEST_F(TileParts, AccidentalMarkersAreNotTakenInRecovery) {
  for (const Flavour flavour : {Flavour::kAB, Flavour::kFF}) {
    const std::uint8_t m = flavour == Flavour::kFF ? 0xFF : 0xAB;
    const Bytes decoys = {m, 0xD9, 1, m,                                // the end
                          m, 0x90, 0, 11, 0, 0, 0, 0, 0, 30, 0, 0,      // a wrong Lsot
                          m, 0x90, 0, 10, 0, 2, 0, 0, 0, 30, 0, 0,      // a tile outside the grid
                          m, 0x90, 0, 10, 0, 1, 0, 0, 0, 13, 0, 0, m};  // too short to be one
    const Stream stream(flavour, {{1, 0}, {0, 0, 98, decoys}, {1, 1}});
    for (const Delivery& how : kDeliveries) {
      Source data(stream, how);
      EXPECT_EQ(data.Find(1), (Positions{stream.positions[0], stream.positions[2]}));
    }
  }
}

TEST_F(TileParts, EveryCutFindsWhatHasArrived) {
  for (const std::uint32_t last : {kRight, 0U}) {
    const Stream whole(Flavour::kAB, {{0, 1}, {0, 0}, {1, 0, last}}, "00 AB");
    for (std::size_t size = 7; size <= whole.bytes.size(); ++size) {
      for (const Delivery& how : {kDeliveries[0], kDeliveries[2]}) {
        Source data(whole, how, size);
        const auto arrived = [&](std::size_t i) {
          return static_cast<std::int64_t>(size) >= whole.positions[i] + format::kSotBytes;
        };
        EXPECT_EQ(GoTo(data, 1, 0), arrived(2)) << size;
        EXPECT_EQ(GoTo(data, 0, 0), arrived(1)) << size;
        data->ReturnToPositionB();
        EXPECT_EQ(data->IsSOT(), arrived(0));
        EXPECT_NE(data->IsEOCOrEnd(), arrived(0));
      }
    }
  }
}

TEST_F(TileParts, QueriesAtTheReadPosition) {
  for (const Flavour flavour : {Flavour::kAB, Flavour::kFF}) {
    Source data(Stream(flavour, {{0x0102, 3, 0x04050607}}), {false, false, 64, 1});
    EXPECT_TRUE(data->IsSOT() && !data->IsEOCOrEnd());
    EXPECT_EQ(List({data->PeekSotIsot(), data->PeekSotPsot(), data->PeekSotTPsot()}),
              " 258,67438087,3");
    EXPECT_FALSE(data->ReadEOC());
    EXPECT_EQ(data->GetPosition(), 9) << "what was no EOC is consumed all the same";
    data->SkipForward(42);
    EXPECT_TRUE(data->IsEOCOrEnd() && !data->IsSOT());
    EXPECT_TRUE(data->ReadEOC());
    EXPECT_TRUE(data->AtEnd() && data->IsEOCOrEnd() && !data->ReadEOC());
  }
}

// Tile-parts as small and as wrong as can be: bounded memory, and no second walk over the same
// bytes, however often one asks for what is not there.
TEST_F(TileParts, AttacksOnTheIndex) {
  Bytes bytes(7, 0);
  for (int i = 0; i < 20000; ++i) {
    const Bytes part = Hex(i % 2 ? "FF90000A00007FFFFFFF0000FF93" : "FF90000A0001000002000100FF93");
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  for (const Delivery& how : kDeliveries) {
    if (!how.memory && !how.seekable) continue;
    memory.ResetPeak();
    DataSource data(bytes, Flavour::kFF, how);
    data->SetTileGrid(65535, 1);
    data->SkipForward(7);
    data->SavePositionB();
    for (int i = 0; i < 2000; ++i) ASSERT_FALSE(GoTo(data, 65534 - i, 1));
    EXPECT_LT(memory.PeakBytes(), 1000000U);
    ASSERT_TRUE(GoTo(data, 0, 0));
    EXPECT_EQ(data->TileParts()->numEntries, 512U) << "no more than 256 parts of a tile are kept";
    if (data.host) {
      EXPECT_LT(data.host->bytesRead, 10 * bytes.size());
    }
  }
}

TEST_F(TileParts, RefusalsLeaveNoIndexBehind) {
  const Stream stream(Flavour::kFF, {{0, 1}, {0, 0}, {0, 2}, {0, 3}, {1, 0}, {1, 1}});
  SweepRefusals(memory, [&]() -> KelLong {
    Source data(stream, {false, true, 200});
    try {
      EXPECT_EQ(data.Find(1).size(), 2U);
    } catch (const KelException& failure) {
      EXPECT_STREQ(failure.srcFile, kModuleDecDataMgr);
      throw;
    }
    data->FreeTilePartIndex();
    EXPECT_EQ(data.Find(0).size(), 4U) << "a forgotten index is built anew";
    return KelOK;
  });
}

}  // namespace
