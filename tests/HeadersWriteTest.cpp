// Segments byte by byte. Whole headers are compared with another encoder's in EncoderTest.
#include "encode/KelMainHeader.h"
#include "format/KelHeadersWrite.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "BitAssembler.h"
#include "HostMemory.h"
#include "HostStream.h"
#include "OwnedOptions.h"

namespace {

using namespace test;
using Options = test::OwnedOptions;
using HeadersWrite = test::LibraryTest;

Bytes MainHeader(const KelEncOpt& options) {
  HostStream host({}, false);
  const std::uint32_t bytes = kel::WriteMainHeader(options, nullptr, host.stream);
  host.stream.flushWriteBuffer();
  EXPECT_EQ(bytes, host.bytes.size());
  return host.bytes;
}

/// The bytes of the first segment with a marker, from the marker on; empty without one.
Bytes Segment(const Bytes& header, std::uint8_t marker) {
  for (std::size_t at = 2; at + 3 < header.size();) {
    const std::size_t length = 2U + header[at + 2] * 256U + header[at + 3];
    if (header[at + 1] == marker) return Bytes(header.begin() + at, header.begin() + at + length);
    at += length;
  }
  return {};
}

// Style bits in the wrong place; precinct bytes missing, swapped or not counted.
TEST_F(HeadersWrite, CodingStyleBits) {
  Options o(64, 64, 1, 8);
  o.UseSOP = o.UseEPH = true;
  o.CbBypass = o.CbVertCausal = o.CbSegSymbols = true;
  EXPECT_EQ(Segment(MainHeader(o), 0x52), Hex("AB52 000C 06 01 0001 00 05 01 01 29 00"));
  o.CbBypass = o.CbVertCausal = o.CbSegSymbols = o.UseSOP = false;
  o.CbReset = o.CbTermAll = o.CbPredTerm = true;
  o.PrecinctWidthExp = 7;
  o.PrecinctHeightExp = 8;
  o.NumLayers = 515;
  o.ProgressionOrder = KelCPRL;
  EXPECT_EQ(Segment(MainHeader(o), 0x52),
            Hex("AB52 0012 05 04 0203 00 05 01 01 1E 00 878787878787"));
}

// Extra channels numbered by their place in the image instead of in the stream; a segment for a
// channel that is not written; the depth or guard bits of the wrong component.
TEST_F(HeadersWrite, ExtraChannelsGoByTheirNumberInTheStream) {
  Options o(64, 64, 7, 8);
  o.NumLevels = 1;
  o.NumColorChannels = 4;
  o.RoiEnabled = true;
  o.RoiMaskComponent = 0;
  o.TransparencyPresent = true;
  o.TransparencyCoded = false;
  o.TransparencyComponent = 5;
  o.PrecinctWidthExp = 9;
  KelImageGeometry& g = *o.GeomParams;
  g.BitDepths[0] = 16;
  g.BitDepths[6] = 1;
  g.XRsiz[4] = 2;
  const Bytes header = MainHeader(o);
  const Bytes siz = Segment(header, 0x51);
  EXPECT_EQ(Bytes(siz.begin() + 38, siz.end()), Hex("0005 070101 070101 070101 070201 070101"));
  EXPECT_EQ(Segment(header, 0x53), Hex("AB53 0009 03 00 01 01 01 08 01"));
  const Bytes quants = Hex("AB5D 0008 03 40 40 48 48 50  AB5D 0008 04 60 40 48 48 50");
  EXPECT_TRUE(std::equal(quants.rbegin(), quants.rend(), header.rbegin()));
  o.ExtraChannelCodingParams = false;
  const Bytes colorOnly = MainHeader(o);
  EXPECT_EQ(Segment(colorOnly, 0x51)[39], 3);
  EXPECT_TRUE(Segment(colorOnly, 0x53).empty());
}

// Component indices of the wrong width from 257 components on; a comment that wraps its length.
TEST_F(HeadersWrite, WideIndicesAndLongComments) {
  Options o(8, 8, 300, 8);
  o.NumLevels = 0;
  o.NumColorChannels = 299;
  const Bytes longText(70000, 'x');
  KelComment comment{longText.data(), 70000};
  o.Comment = &comment;
  const Bytes header = MainHeader(o);
  EXPECT_EQ(Segment(header, 0x53), Hex("AB53 000A 012B 00 00 01 01 08 01"));
  EXPECT_EQ(Segment(header, 0x5D), Hex("AB5D 0006 012B 40 40"));
  const Bytes text = Segment(header, 0x64);
  EXPECT_EQ(text.size(), 2U + 65535U);
  EXPECT_EQ(Bytes(text.begin(), text.begin() + 7), Hex("AB64 FFFF 0001 78"));
  const std::size_t runs = test::SweepRefusals(memory, [&] {
    MainHeader(o);
    return KelLong{KelOK};
  });
  EXPECT_GT(runs, 6U);
}

Bytes HeaderOf(const kel::KelHeaderParams& set) {
  kel::KelOutBuffer out = kel::KelOutBuffer::Make(16);
  kel::WriteHeader(set, out);
  return Bytes(out.bytes.Data(), out.bytes.Data() + out.count);
}

// Psot without the header's own bytes; coding segments in a later tile-part; regions, progression
// changes and both forms of quantisation in the wrong layout.
TEST_F(HeadersWrite, TilePartHeaders) {
  kel::KelHeaderParams set{};
  set.Isot = 0x0102;
  set.TNsot = 3;
  set.dataLength = 100;
  set.Csiz = 2;
  EXPECT_EQ(HeaderOf(set), Hex("AB90 000A 0102 00000072 00 03 AB93"));

  std::int32_t exponents[] = {31, 2, 3, 4};
  std::int32_t mantissas[] = {2047, 1, 0, 1024};
  kel::KelQuantParams quants[2] = {};
  quants[0] = {0, 1, 0, 2, exponents, mantissas, 1, 0, 0};
  quants[1] = {1, 1, 1, 3, exponents, mantissas, 1, 0, 0};
  set.seenQCD = set.seenQCC = set.seenRGN = set.seenPOC = 1;
  set.numLevels = 1;
  set.quantisation = &quants[0];
  set.componentQuants = &quants[1];
  set.numComponentQuants = 1;
  kel::KelRoiParams regions[2] = {{0, 9, 1}, {1, 9, 1}};
  set.regions = regions;
  kel::KelProgressionChanges changes{};
  std::uint8_t resolutions[] = {1, 6};
  std::uint16_t components[] = {0, 2};
  std::uint16_t layers[] = {0x0304};
  std::uint8_t order[] = {4};
  changes = {1, &resolutions[0], &components[0], layers, &resolutions[1], &components[1], order, 1};
  set.progressionChanges = &changes;
  const std::string poc = "AB5F 0009 01 00 0304 06 02 04 AB93";
  EXPECT_EQ(HeaderOf(set), Hex("AB90 000A 0102 000000A0 00 03 AB5C 000B 42 FFFF 1001 1800 2400"
                               "AB5D 0006 01 61 FFFF AB5E 0005 00 00 09 AB5E 0005 01 00 09" +
                               poc));
  set.TPsot = 2;
  EXPECT_EQ(HeaderOf(set), Hex("AB90 000A 0102 0000007D 02 03" + poc));
}

}  // namespace
