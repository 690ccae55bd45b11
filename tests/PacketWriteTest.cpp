// What a tile announces of its steps, and lengths beyond a stream, from coded components made by
// hand. Whole files are walked through in EncoderTest.
#include "KelPacketWrite.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "BitAssembler.h"
#include "HostMemory.h"
#include "HostStream.h"
#include "base/KelRaise.h"

namespace {

using namespace test;
using PacketWrite = test::LibraryTest;

/// A component of 2 x 2 samples and one level: bands of one byte.
struct MadeComp {
  explicit MadeComp(std::array<std::int32_t, 4> exps, std::array<std::int32_t, 4> mants = {})
      : exponents(exps), mantissas(mants) {
    coded.box = {0, 2, 0, 2};
    coded.code.numLevels = 1;
    coded.code.room.bytes = bytes.data();
    coded.code.resSize = resSize.data();
    coded.code.bandSize = bandSize.data();
    coded.hasSteps = true;
    coded.exponents = exponents.data();
    coded.mantissas = mantissas.data();
  }
  MadeComp(const MadeComp&) = delete;

  std::array<std::uint32_t, 4> bandSize{1, 1, 1, 1};
  std::array<std::uint32_t, 2> resSize{1, 3};
  std::array<std::int32_t, 4> exponents, mantissas;
  std::array<std::uint8_t, 4> bytes{};
  kel::CodedTileComp coded{};
};

/// The segments of a tile's first header.
Bytes Announced(const std::vector<kel::TileCompToWrite>& comps) {
  HostStream host({}, false);
  kel::WriteTile(
      {0, comps.data(), static_cast<std::int32_t>(comps.size()), 1, {1, true}, 8, false, 0},
      host.stream);
  const std::uint8_t sod[] = {0xAB, 0x93};
  return Bytes(host.bytes.begin() + 12,
               std::search(host.bytes.begin(), host.bytes.end(), std::begin(sod), std::end(sod)));
}

// Steps that do not reach the decoder, or reach the wrong component.
TEST_F(PacketWrite, StepsTravelInTheFirstHeaderOfTheTile) {
  const MadeComp one({8, 9, 9, 10});  // steps of 1 for 8 bits
  const MadeComp small({8, 9, 9, 10}, {1, 2, 3, 4});
  const MadeComp large({1, 2, 3, 4});
  const kel::TileCompToWrite ones{&one.coded, true}, smalls{&small.coded, true},
      larges{&large.coded, true}, reversible{&large.coded, false};
  EXPECT_TRUE(Announced({reversible, ones}).empty()) << "steps of 1 are announced already";
  EXPECT_EQ(Announced({reversible, ones, smalls, smalls}),
            Hex("AB5D 000C 02 42 4001 4802 4803 5004  AB5D 000C 03 42 4001 4802 4803 5004"));
  EXPECT_EQ(Announced({reversible, smalls, larges, smalls, ones}),
            Hex("AB5C 000B 42 4001 4802 4803 5004"
                "AB5D 000C 02 42 0800 1000 1800 2000"
                "AB5D 000C 04 42 4000 4800 4800 5000"))
      << "a component that goes back to steps of 1 says so";
}

// A tile of another quality whose steps lose against those that the main header gave a component.
TEST_F(PacketWrite, TilesOfOtherStepsNameWhomTheMainHeaderNamed) {
  const MadeComp small({8, 9, 9, 10}, {1, 2, 3, 4}), large({1, 2, 3, 4});
  const auto announcedLike = [](const MadeComp& comp) {
    kel::ChosenSteps steps = {};
    std::copy_n(comp.exponents.begin(), 4, steps.exponents);
    std::copy_n(comp.mantissas.begin(), 4, steps.mantissas);
    return steps;
  };
  const kel::ChosenSteps first = announcedLike(small), other = announcedLike(large);
  MadeComp empty({8, 9, 9, 10});
  empty.coded.hasSteps = false;
  const auto comp = [](const MadeComp& made, const kel::ChosenSteps& announced) {
    return kel::TileCompToWrite{&made.coded, true, &announced};
  };
  EXPECT_TRUE(Announced({comp(small, first), comp(large, other), comp(empty, other)}).empty());
  EXPECT_EQ(Announced({comp(large, first), comp(large, other)}),
            Hex("AB5C 000B 42 0800 1000 1800 2000  AB5D 000C 01 42 0800 1000 1800 2000"));
  EXPECT_EQ(Announced({comp(empty, first), comp(small, other)}),
            Hex("AB5D 000C 01 42 4001 4802 4803 5004"));
}

// A length of more than 31 bits must end before anything is written.
TEST_F(PacketWrite, LengthsBeyondAStream) {
  MadeComp comp({8, 9, 9, 10});
  const kel::TileCompToWrite comps[] = {{&comp.coded, false}};
  HostStream host;
  const auto codeOf = [&](std::int32_t numLayers) {
    return RaisedBy([&] {
             kel::WriteTile({0, comps, 1, 1, {numLayers, true}, 8, false, 0}, host.stream);
           })
        .errCode;
  };
  host.stream.curPos = INT32_MAX - 50;
  EXPECT_EQ(codeOf(1), KelErrUnsupported);
  host.stream.curPos = 0;
  comp.resSize[0] = 0x7FFFFFFF;
  EXPECT_EQ(codeOf(1), KelErrUnsupported);
  EXPECT_EQ(codeOf(65535), KelErrUnsupported);
  EXPECT_EQ(host.writes, 0);
  EXPECT_EQ(host.stream.wbuf, nullptr);
}

}  // namespace
