// The index's packets and byte ranges: a reduction decodes the same from the announced bytes alone,
// and of a stream few bytes are read.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "DecodeHost.h"
#include "HostMemory.h"
#include "HostStream.h"
#include "VectorFile.h"
#include "VectorNames.h"
#include "kel/KelIndex.h"

namespace {

using namespace test;
using IndexPackets = test::LibraryTest;

struct MemoryIndex {
  explicit MemoryIndex(Bytes content) : bytes(std::move(content)) {
    const KelCompressedData block{bytes.data(), static_cast<KelULong>(bytes.size())};
    code = index.InitIndex(nullptr, &block);
  }
  ~MemoryIndex() { index.Die(); }
  MemoryIndex(const MemoryIndex&) = delete;

  KelULong NumTiles() const {
    const KelImageGeometry& g = *index.GetFacts()->geometry;
    return static_cast<KelULong>(g.NumXTiles * g.NumYTiles);
  }

  Bytes bytes;
  KelStreamIndex index;
  KelLong code;
};

/// The data with packet bytes that are not in the ranges wanted of any tile made zero.
Bytes KeepOnly(const Bytes& bytes, KelULong reduce) {
  MemoryIndex file(bytes);
  Bytes kept = bytes;
  const auto copy = [&](Bytes& to, std::uint64_t offset, std::uint64_t length) {
    const auto at = static_cast<std::ptrdiff_t>(offset);
    std::copy_n(bytes.begin() + at, length, to.begin() + at);
  };
  const KelIndexTileParts& list = *file.index.GetTileParts();
  for (KelULong i = 0; i < list.count; ++i) {
    const KelIndexTilePart& p = list.parts[i];
    const auto packets = kept.begin() + static_cast<std::ptrdiff_t>(p.offset + p.headerBytes);
    std::fill_n(packets, p.length - p.headerBytes, std::uint8_t{0});
  }
  for (KelULong tile = 0; tile < file.NumTiles(); ++tile) {
    const KelIndexWant want{tile, -1, reduce, 0};
    const KelIndexRanges& ranges = *file.index.GetRanges(&want);
    std::uint64_t sum = 0, end = 0;
    for (KelULong i = 0; i < ranges.count; ++i) {
      EXPECT_GT(ranges.ranges[i].offset, i == 0 ? 0 : end) << "joined, in the order of the data";
      copy(kept, ranges.ranges[i].offset, ranges.ranges[i].length);
      sum += ranges.ranges[i].length;
      end = ranges.ranges[i].offset + ranges.ranges[i].length;
    }
    EXPECT_EQ(ranges.bytes, sum);
  }
  return kept;
}

TEST_F(IndexPackets, AReductionNeedsItsRangesAlone) {
  int numLess = 0;
  for (const std::string& name : VectorNames()) {
    const Bytes bytes = Vector(name);
    MemoryIndex file(bytes);
    if (file.code != KelOK || !file.index.GetTileParts()->areRegular) continue;
    SCOPED_TRACE(name);
    EXPECT_EQ(KeepOnly(bytes, 0), bytes);
    const Bytes half = KeepOnly(bytes, 1);
    numLess += half != bytes;
    const DecodeJob job{.aspect = KelAspectHalf, .skipRecast = true};
    const Decoded expected = Decode(bytes, job), found = Decode(half, job);
    EXPECT_EQ(expected.planes, found.planes);
  }
  EXPECT_GT(numLess, 60);
}

// Every packet once, where it stands, whatever the order and the tile-parts.
TEST_F(IndexPackets, PacketsFillTheirTileParts) {
  for (const std::string& name : VectorNames()) {
    MemoryIndex file(Vector(name));
    if (file.code != KelOK || !file.index.GetTileParts()->areRegular) continue;
    SCOPED_TRACE(name);
    const KelIndexTileParts& parts = *file.index.GetTileParts();
    std::uint64_t inParts = 0, inPackets = 0;
    for (KelULong i = 0; i < parts.count; ++i) {
      inParts += parts.parts[i].length - parts.parts[i].headerBytes;
    }
    for (KelULong tile = 0; tile < file.NumTiles(); ++tile) {
      const KelIndexWant want{tile, -1, 0, 0};
      const KelIndexPackets& list = *file.index.GetPackets(&want);
      EXPECT_TRUE(list.areAll);
      std::set<std::tuple<KelULong, KelULong, KelULong, std::uint64_t>> met;
      for (KelULong i = 0; i < list.count; ++i) {
        const KelIndexPacket& p = list.packets[i];
        EXPECT_TRUE(met.emplace(p.component, p.resolution, p.layer, p.precinct).second);
        inPackets += p.length;
      }
    }
    EXPECT_EQ(inPackets, inParts);
  }
}

// A decoder that has the ranges alone loses no more to damage than one that has everything, unless
// a wrong length leads to what could be a packet: that only bits tell.
TEST_F(IndexPackets, OfDamagedDataAllThatADecoderReads) {
  std::mt19937 random(11);
  int numRegular = 0, numEqual = 0;
  for (const char* name : {"order_cprl", "order_rlcp_precincts", "parts_per_layer"}) {
    const Bytes sound = Vector(name);
    MemoryIndex file(sound);
    const std::uint64_t front = file.index.GetFacts()->firstTilePartOffset;
    for (int trial = 0; trial < 25; ++trial) {
      Bytes damaged = sound;
      damaged[front + random() % (sound.size() - front)] ^=
          static_cast<std::uint8_t>(1U << random() % 8);
      MemoryIndex index(damaged);
      if (!index.index.GetTileParts()->areRegular) continue;
      const DecodeJob job{.aspect = KelAspectHalf, .skipRecast = true};
      numEqual += Decode(damaged, job).planes == Decode(KeepOnly(damaged, 1), job).planes;
      ++numRegular;
    }
  }
  EXPECT_GT(numRegular, 50);
  EXPECT_GE(numEqual, numRegular - 2);
}

TEST_F(IndexPackets, OfOneComponentAndLayer) {
  MemoryIndex file(Vector("order_cprl"));
  KelIndexWant want{0, -1, 0, 0};
  const std::uint64_t all = file.index.GetRanges(&want)->bytes;
  want.component = 0;
  const KelIndexRanges first = *file.index.GetRanges(&want);
  EXPECT_LT(first.bytes, all);
  EXPECT_EQ(first.count, 1U) << "nothing behind the last packet wanted";
  MemoryIndex layers(Vector("parts_per_layer"));
  want = {0, -1, 0, 1};
  const KelIndexRanges one = *layers.index.GetRanges(&want);
  EXPECT_EQ(one.count, 1U);
  for (const KelIndexWant& wrong : {KelIndexWant{1 << 20, -1, 0, 0}, KelIndexWant{0, 3, 0, 0}}) {
    EXPECT_EQ(layers.index.GetRanges(&wrong), nullptr);
  }
  EXPECT_EQ(layers.index.GetRanges(nullptr), nullptr);
}

// Data that end inside a packet: those before it stand, and it is said that others are missing.
TEST_F(IndexPackets, WhatHasNotArrivedIsNotPromised) {
  const Bytes whole = Vector("order_rlcp_precincts");
  MemoryIndex full(whole);
  const KelIndexWant want{0, -1, 0, 0};
  const KelIndexPackets all = *full.index.GetPackets(&want);
  const KelIndexPacket last = all.packets[all.count - 1];
  Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(last.offset + 3));
  MemoryIndex file(cut);
  EXPECT_EQ(file.index.GetPackets(&want)->count, all.count - 1);
  EXPECT_FALSE(file.index.GetPackets(&want)->areAll);
  EXPECT_FALSE(file.index.GetRanges(&want)->areAll);
  // Ranges of one reduction after the other, by a list that is kept, are those of each alone.
  for (const Bytes& bytes : {whole, cut, Bytes(whole.begin(), whole.end() - 900)}) {
    MemoryIndex kept(bytes);
    for (KelULong reduce = 0; reduce < 5; ++reduce) {
      MemoryIndex fresh(bytes);
      const KelIndexWant reduced{0, -1, reduce, 0};
      const KelIndexRanges a = *kept.index.GetRanges(&reduced),
                           b = *fresh.index.GetRanges(&reduced);
      EXPECT_EQ(std::tuple(a.count, a.bytes, a.areAll), std::tuple(b.count, b.bytes, b.areAll));
    }
  }
  SweepRefusals(memory, [&] {
    MemoryIndex index(whole);
    if (index.code != KelOK) return index.code;
    return index.index.GetRanges(&want) != nullptr ? KelLong{KelOK} : KelErrNoMemory;
  });
}

// A stream of tiles with one large packet each: headers are read, not what stands between.
TEST_F(IndexPackets, OfAStreamFewBytesAreRead) {
  constexpr std::size_t kTiles = 64, kPacket = 100000;
  BitAssembler out;
  out.U16(0xAB4F).U16(0xAB51).U16(41).U16(0).U32(64 * 64).U32(64).U32(0).U32(0);
  out.U32(64).U32(64).U32(0).U32(0).U16(1).U8(7).U8(1).U8(1);
  out.U16(0xAB52).U16(12).U8(0).U8(1).U16(1).U8(0).U8(0).U8(1).U8(1).U8(8).U8(1);
  out.U16(0xAB5C).U16(4).U8(0x40).U8(0x40);
  for (std::size_t tile = 0; tile < kTiles; ++tile) {
    out.U16(0xAB90).U16(10).U16(tile).U32(18 + kPacket).U8(0).U8(1).U16(0xAB93);
    out.U32(kPacket).Append(Bytes(kPacket, 0x33));
  }
  HostStream host(out.U16(0xABD9).Result(), true);
  KelStreamIndex index;
  ASSERT_EQ(index.InitIndex(host.Stream(), nullptr), KelOK);
  ASSERT_TRUE(index.GetTileParts()->areRegular);
  for (KelULong tile = 0; tile < kTiles; ++tile) {
    const KelIndexWant want{tile, -1, 0, 0};
    ASSERT_EQ(index.GetPackets(&want)->count, 1U);
    EXPECT_EQ(index.GetPackets(&want)->packets[0].length, kPacket + 4);
  }
  EXPECT_LT(host.bytesRead, 4096 + kTiles * 600);
  index.Die();
}

}  // namespace
