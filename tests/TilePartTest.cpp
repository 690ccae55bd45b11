// Finding tile-parts: markers at the read position, the scan for the next one, the index.
#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "DataSource.h"
#include "HostMemory.h"
#include "KelRaise.h"
#include "KelTilePartIndex.h"

namespace {

using namespace kel;
using test::BitAssembler;
using test::Bytes;
using test::DataSource;
using test::Delivery;
using test::Hex;
using test::HostMemory;

constexpr std::uint32_t kRight = 0xFFFFFFF0;  // asks the builder for the true Psot

struct Part {
  std::uint32_t tile, part;
  std::uint32_t Psot = kRight;
  Bytes body = Bytes(30, 0x11);
};

/// A code stream of tile-parts in one flavour, after `lead` bytes of main header.
struct Stream {
  Flavour flavour;
  Bytes bytes = Bytes(7, 0);
  std::vector<std::int64_t> positions;

  Stream(Flavour kind, const std::vector<Part>& parts, const Bytes& tail = {}) : flavour(kind) {
    for (const Part& part : parts) Add(part);
    Marker(0xD9);
    bytes.insert(bytes.end(), tail.begin(), tail.end());
  }
  void Marker(std::uint8_t code) {
    bytes.push_back(flavour == Flavour::kFF ? 0xFF : 0xAB);
    bytes.push_back(code);
  }
  void Add(const Part& part) {
    positions.push_back(static_cast<std::int64_t>(bytes.size()));
    const std::uint64_t length = 14 + part.body.size();
    Marker(0x90);
    BitAssembler rest;
    rest.U16(10).U16(part.tile).U32(part.Psot == kRight ? length : part.Psot);
    rest.U8(part.part).U8(0);
    bytes.insert(bytes.end(), rest.Result().begin(), rest.Result().end());
    Marker(0x93);
    bytes.insert(bytes.end(), part.body.begin(), part.body.end());
  }
};

/// Positions of the parts 0, 1, ... of a tile as GoToTilePart finds them, up to the first missing.
std::vector<std::int64_t> Find(DataSource& data, std::int32_t tile) {
  std::vector<std::int64_t> found;
  while (data->GoToTilePart(tile, static_cast<std::int32_t>(found.size()))) {
    found.push_back(data->GetPosition());
  }
  return found;
}

void Prepare(DataSource& data, std::int32_t across, std::int32_t down) {
  data->SetTileGrid(across, down);
  data->SkipForward(7);
  data->SavePositionB();
}

const Delivery kDeliveries[] = {{true}, {false}, {false, true, 64}, {false, true, 16, 1}};

/// Runs a check on a stream in both flavours and every way of delivery that can move.
template <class Check>
void Everywhere(const std::vector<Part>& parts, const Bytes& tail, Check check) {
  for (const Flavour flavour : {Flavour::kAB, Flavour::kFF}) {
    const Stream stream(flavour, parts, tail);
    for (const Delivery& how : kDeliveries) {
      DataSource data(stream.bytes, flavour, how);
      Prepare(data, 2, 1);
      check(stream, data);
    }
  }
}

using Positions = std::vector<std::int64_t>;

TEST(TileParts, IndexPutsThemInOrder) {
  HostMemory memory;
  Everywhere({{0, 1}, {1, 0}, {0, 0}, {1, 2}, {1, 1}}, {}, [](const Stream& s, DataSource& data) {
    EXPECT_EQ(Find(data, 1), (Positions{s.positions[1], s.positions[4], s.positions[3]}));
    EXPECT_EQ(Find(data, 0), (Positions{s.positions[2], s.positions[0]}));
    EXPECT_FALSE(data->GoToTilePart(2, 0));
    EXPECT_FALSE(data->GoToTilePart(-1, 0));
    EXPECT_FALSE(data->GoToTilePart(0, 256));
  });
  // Of two that claim one place, the later one; a part behind a gap is no substitute for it.
  Everywhere({{1, 0}, {0, 0}, {0, 0}, {0, 2}}, {}, [](const Stream& s, DataSource& data) {
    ASSERT_TRUE(data->GoToTilePart(0, 0));
    EXPECT_EQ(data->GetPosition(), s.positions[2]);
    EXPECT_FALSE(data->GoToTilePart(0, 1));
  });
}

// Lengths that are wrong in every way must cost neither the tile-part nor those behind it.
TEST(TileParts, WrongLengthsAreRepaired) {
  HostMemory memory;
  for (const std::uint32_t wrong : {0U, 1U, 13U, 14U, 41U, 45U, 54U, 100000U, 0x7FFFFFFFU}) {
    Everywhere(
        {{1, 0}, {0, 0, wrong}, {0, 1}, {1, 1, wrong}, {0, 2}}, {},
        [&](const Stream& s, DataSource& data) {
          EXPECT_EQ(Find(data, 0), (Positions{s.positions[1], s.positions[2], s.positions[4]}))
              << wrong;
          EXPECT_EQ(Find(data, 1), (Positions{s.positions[0], s.positions[3]}));
        });
  }
  // A length of 2 GiB or a tile outside the grid ends the walk, and what was found stays.
  for (const Part& bad : {Part{0, 1, 0x80000000}, Part{2, 0}}) {
    Everywhere({{1, 0}, {0, 0}, bad, {1, 1}}, {}, [](const Stream& s, DataSource& data) {
      EXPECT_EQ(Find(data, 0), Positions{s.positions[1]});
      EXPECT_EQ(Find(data, 1), Positions{s.positions[0]});
    });
  }
}

// Patterns in the packet data that look like markers must not win over real tile-parts.
TEST(TileParts, AccidentalMarkersAreNotTakenInRecovery) {
  HostMemory memory;
  for (const Flavour flavour : {Flavour::kAB, Flavour::kFF}) {
    const std::uint8_t m = flavour == Flavour::kFF ? 0xFF : 0xAB;
    const Bytes decoys = {m, 0xD9, 1, m,                               // the end
                          m, 0x90, 0, 11, 0, 0, 0, 0, 0, 30, 0, 0, m,  // a wrong Lsot
                          m, 0x90, 0, 10, 0, 2, 0, 0, 0, 30, 0, 0,     // a tile outside the grid
                          m, 0x90, 0, 10, 0, 1, 0, 0, 0, 13, 0, 0, m, m};  // too short to be one
    const Stream stream(flavour, {{1, 0}, {0, 0, 99, decoys}, {1, 1}});
    for (const Delivery& how : kDeliveries) {
      DataSource data(stream.bytes, flavour, how);
      Prepare(data, 2, 1);
      EXPECT_EQ(Find(data, 1), (Positions{stream.positions[0], stream.positions[2]}));
      // The plain scan stops at the end marker.
      ASSERT_TRUE(data->MoveTo(stream.positions[1] + 2));
      EXPECT_FALSE(data->FindNextSOT());
      EXPECT_EQ(data->GetPosition(), stream.positions[1] + 14);
      EXPECT_TRUE(data->ReadEOC());
      EXPECT_TRUE(data->FindNextSOT());
      EXPECT_EQ(data->GetPosition(), stream.positions[1] + 18);
    }
  }
}

TEST(TileParts, EveryCutFindsWhatHasArrived) {
  HostMemory memory;
  for (const std::uint32_t last : {kRight, 0U}) {
    const Stream whole(Flavour::kAB, {{0, 1}, {0, 0}, {1, 0, last}}, Hex("00 AB"));
    for (std::size_t size = 7; size <= whole.bytes.size(); ++size) {
      for (const Delivery& how : {kDeliveries[0], kDeliveries[2]}) {
        DataSource data(Bytes(whole.bytes.begin(), whole.bytes.begin() + static_cast<int>(size)),
                        Flavour::kAB, how);
        Prepare(data, 2, 1);
        const auto arrived = [&](std::size_t i) {
          return static_cast<std::int64_t>(size) >= whole.positions[i] + kSotSegmentBytes;
        };
        EXPECT_EQ(data->GoToTilePart(1, 0), arrived(2)) << size;
        EXPECT_EQ(data->GoToTilePart(0, 0), arrived(1)) << size;
        data->ReturnToPositionB();
        EXPECT_EQ(data->IsSOT(), arrived(0));
        EXPECT_NE(data->IsEOCOrEnd(), arrived(0));
      }
    }
  }
}

TEST(TileParts, QueriesAtTheReadPosition) {
  HostMemory memory;
  for (const Flavour flavour : {Flavour::kAB, Flavour::kFF}) {
    const Stream stream(flavour, {{0x0102, 3, 0x04050607}});
    for (const bool seekable : {true, false}) {
      DataSource data(stream.bytes, flavour, {false, seekable, 64, 1});
      Prepare(data, 300, 1);
      EXPECT_TRUE(data->IsSOT() && data->AtTilePartBoundary() && !data->IsEOCOrEnd());
      EXPECT_EQ(data->PeekSotIsot(), 0x0102U);
      EXPECT_EQ(data->PeekSotPsot(), 0x04050607U);
      EXPECT_EQ(data->PeekSotTPsot(), 3U);
      EXPECT_TRUE(data->GoToTilePart(0x0102, 3)) << "what stands here needs no index";
      EXPECT_EQ(data->GoToTilePart(0x0102, 2), false);
      EXPECT_EQ(data->GetPosition(), 7);
      EXPECT_FALSE(data->SkipSOP() || data->SkipEPH() || data->ReadEOC());
      EXPECT_EQ(data->GetPosition(), 9) << "what was no EOC is consumed all the same";
      data->SkipForward(42);
      EXPECT_TRUE(data->IsEOCOrEnd() && data->AtTilePartBoundary() && !data->IsSOT());
      EXPECT_TRUE(data->ReadEOC());
      EXPECT_TRUE(data->AtEnd() && data->IsEOCOrEnd() && !data->ReadEOC());
    }
  }
  DataSource data(Hex("AB91 0004 0001 AB92 FF92 AB"), Flavour::kAB);
  EXPECT_TRUE(data->SkipSOP());
  EXPECT_TRUE(data->SkipEPH());
  EXPECT_FALSE(data->SkipEPH());
  EXPECT_EQ(data->GetPosition(), 8);
  data->SkipForward(2);
  EXPECT_TRUE(data->IsEOCOrEnd() && data->AtTilePartBoundary() && !data->AtEnd())
      << "a single byte is the end of tile-parts";
}

// Tile-parts as small and as wrong as can be: bounded memory, no second walk over the same bytes.
TEST(TileParts, AttacksOnTheIndex) {
  HostMemory memory;
  Bytes bytes = Bytes(7, 0);
  for (int i = 0; i < 20000; ++i) {
    const Bytes part =
        Hex(i % 2 ? "FF90 000A 0000 7FFFFFFF 00 00" : "FF90 000A 0001 00000200 01 00");
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  for (const Delivery& how : kDeliveries) {
    memory.ResetPeak();
    DataSource data(bytes, Flavour::kFF, how);
    Prepare(data, 65535, 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(data->GoToTilePart(65534, 1));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_LT(memory.PeakBytes(), 500000U);
    ASSERT_TRUE(data->MoveTo(7 + 12));
    ASSERT_TRUE(data->GoToTilePart(1, 1));
    EXPECT_EQ(data->GetPosition(), 7 + 12 * 510) << "no more than 256 parts of a tile are kept";
  }
}

TEST(TileParts, RefusalsLeaveNoIndexBehind) {
  HostMemory memory;
  const Stream stream(Flavour::kFF, {{0, 1}, {0, 0}, {0, 2}, {0, 3}, {1, 0}, {1, 1}});
  test::SweepRefusals(memory, [&]() -> KelLong {
    DataSource data(stream.bytes, Flavour::kFF, {false, true, 200});
    Prepare(data, 2, 1);
    bool found = false;
    try {
      found = data->GoToTilePart(1, 1);
    } catch (const KelException& failure) {
      EXPECT_STREQ(failure.srcFile, kModuleDecDataMgr);
      EXPECT_EQ(data->GetPosition(), 7) << "the walk must end where it began";
      throw;
    }
    data->FreeTilePartIndex();
    EXPECT_TRUE(found && data->GoToTilePart(0, 3)) << "a forgotten index is built anew";
    return KelOK;
  });
}

}  // namespace
