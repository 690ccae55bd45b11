// Tile-parts and packets byte by byte, from coded components made by hand.
#include "KelPacketWrite.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>

#include "BitAssembler.h"
#include "HostMemory.h"
#include "HostStream.h"
#include "KelRaise.h"

namespace {

using test::BitAssembler;
using test::Bytes;
using test::Hex;
using test::HostMemory;
using test::HostStream;

/// A component of one level whose bands have the sizes given and hold consecutive numbers.
struct MadeComp {
  MadeComp(kel::Box box, std::array<std::uint32_t, 4> sizes, std::uint8_t firstByte)
      : bandSize(sizes), resSize{sizes[0], sizes[1] + sizes[2] + sizes[3]} {
    bytes.resize(resSize[0] + resSize[1]);
    std::iota(bytes.begin(), bytes.end(), firstByte);
    coded.box = box;
    coded.code.numLevels = 1;
    coded.code.bytes = bytes.data();
    coded.code.resSize = resSize.data();
    coded.code.bandSize = bandSize.data();
  }
  std::array<std::uint32_t, 4> bandSize;
  std::array<std::uint32_t, 2> resSize;
  std::array<std::int32_t, 4> exponents{}, mantissas{};
  Bytes bytes;
  kel::CodedTileComp coded{};
};

struct Written {
  Bytes bytes;
  int writes;
};

Written Write(const kel::TileToWrite& tile, bool seekable = false) {
  HostStream host({}, seekable);
  const std::uint64_t count = kel::WriteTile(tile, host.stream);
  EXPECT_EQ(count, host.bytes.size());
  EXPECT_EQ(host.stream.wbuf, nullptr) << "flushed";
  EXPECT_EQ(host.seeks, 0) << "nothing is patched";
  return {host.bytes, host.writes};
}

// Counts that leave out or include the wrong bytes; layers outside components; an empty band
// without its count; a packet for a resolution without samples.
TEST(PacketWrite, TilePartPerResolution) {
  HostMemory memory;
  MadeComp wide({0, 8, 0, 8}, {3, 2, 0, 1}, 0x10);
  // One sample at an odd place: resolution 0 has no samples.
  MadeComp narrow({1, 2, 0, 1}, {2, 2, 2, 2}, 0xA0);
  const kel::TileCompToWrite comps[] = {{&wide.coded, false}, {&narrow.coded, false}};
  const Written written = Write({7, comps, 2, 1, 2, 8, false});
  const Bytes low = Hex("00000003 101112");
  const Bytes high =
      Hex("0000000F 00000002 1314 00000000 00000001 15"
          "00000012 00000002 A2A3 00000002 A4A5 00000002 A6A7");
  EXPECT_EQ(written.bytes, BitAssembler()
                               .Append(Hex("AB90 000A 0007 0000001C 00 02 AB93"))
                               .Append(low)
                               .Append(low)
                               .Append(Hex("AB90 000A 0007 00000060 01 02 AB93"))
                               .Append(high)
                               .Append(high)
                               .Result());
  EXPECT_EQ(written.writes, 2) << "one flush per tile-part";
}

// Layers outside resolutions; parts numbered by component instead of by what is written; a
// tile-part for a component without samples; a first resolution without samples counted.
TEST(PacketWrite, TilePartPerComponent) {
  HostMemory memory;
  MadeComp empty({3, 3, 0, 4}, {0, 0, 0, 0}, 0);
  MadeComp narrow({1, 2, 0, 1}, {2, 0, 0, 1}, 0xA0);
  MadeComp wide({0, 8, 0, 8}, {1, 0, 0, 0}, 0x10);
  const kel::TileCompToWrite comps[] = {
      {&empty.coded, false}, {&narrow.coded, false}, {&wide.coded, false}};
  EXPECT_EQ(Write({0, comps, 3, 1, 2, 8, true}).bytes,
            Hex("AB90 000A 0000 00000030 00 02 AB93"
                "0000000D 00000000 00000000 00000001 A2"
                "0000000D 00000000 00000000 00000001 A2"
                "AB90 000A 0000 00000038 01 02 AB93"
                "00000001 10 00000001 10"
                "0000000C 00000000 00000000 00000000 0000000C 00000000 00000000 00000000"));
  EXPECT_TRUE(Write({0, comps, 1, 1, 1, 8, false}).bytes.empty()) << "nothing to write";
}

// Steps that do not reach the decoder, or reach the wrong component.
TEST(PacketWrite, StepsTravelInTheFirstHeaderOfTheTile) {
  HostMemory memory;
  std::vector<MadeComp> made(5, MadeComp({0, 2, 0, 2}, {1, 1, 1, 1}, 0));
  // Steps of 1 for 8 bits, and twice others.
  for (MadeComp& comp : made) comp.exponents = {8, 9, 9, 10};
  made[2].mantissas = made[3].mantissas = {1, 2, 3, 4};
  made[4].exponents = {1, 2, 3, 4};
  std::vector<kel::TileCompToWrite> comps;
  for (MadeComp& comp : made) {
    comp.coded.code.bytes = comp.bytes.data();
    comp.coded.code.resSize = comp.resSize.data();
    comp.coded.code.bandSize = comp.bandSize.data();
    comp.coded.exponents = comp.exponents.data();
    comp.coded.mantissas = comp.mantissas.data();
    comps.push_back({&comp.coded, true});
  }
  comps[0].irreversible = false;
  const std::uint8_t sod[] = {0xAB, 0x93};
  const auto headerOf = [&](std::size_t first, std::size_t end) {
    const kel::TileToWrite tile = {
        0, comps.data() + first, static_cast<std::int32_t>(end - first), 1, 1, 8, false};
    const Bytes bytes = Write(tile).bytes;
    return Bytes(bytes.begin() + 12,
                 std::search(bytes.begin(), bytes.end(), std::begin(sod), std::end(sod)));
  };
  EXPECT_TRUE(headerOf(0, 2).empty()) << "steps of 1 are announced already";
  EXPECT_EQ(headerOf(0, 5), Hex("AB5D 000C 02 42 4001 4802 4803 5004"
                                "AB5D 000C 03 42 4001 4802 4803 5004"
                                "AB5D 000C 04 42 0800 1000 1800 2000"));
  EXPECT_EQ(headerOf(2, 5),
            Hex("AB5C 000B 42 4001 4802 4803 5004  AB5D 000C 02 42 0800 1000 1800 2000"));
  std::swap(comps[1], comps[4]);
  EXPECT_EQ(headerOf(0, 5), Hex("AB5C 000B 42 0800 1000 1800 2000"
                                "AB5D 000C 02 42 4001 4802 4803 5004"
                                "AB5D 000C 03 42 4001 4802 4803 5004"
                                "AB5D 000C 04 42 4000 4800 4800 5000"))
      << "a component that goes back to steps of 1 says so";
}

// A length of more than 31 bits must end before anything is written.
TEST(PacketWrite, LengthsBeyondAStream) {
  HostMemory memory;
  MadeComp comp({0, 8, 0, 8}, {3, 0, 0, 0}, 0);
  comp.resSize[0] = 0x7FFFFFFF;
  const kel::TileCompToWrite comps[] = {{&comp.coded, false}};
  HostStream host;
  const auto codeOf = [&](std::int32_t numLayers) {
    try {
      kel::WriteTile({0, comps, 1, 1, numLayers, 8, false}, host.stream);
      return KelLong{KelOK};
    } catch (const KelException& failure) {
      return failure.errCode;
    }
  };
  EXPECT_EQ(codeOf(1), KelErrUnsupported);
  EXPECT_EQ(codeOf(65535), KelErrUnsupported);
  comp.resSize[0] = 3;
  host.stream.curPos = INT32_MAX - 40;
  EXPECT_EQ(codeOf(1), KelErrUnsupported);
  EXPECT_EQ(host.writes, 0);
  EXPECT_EQ(host.stream.wbuf, nullptr);
}

}  // namespace
