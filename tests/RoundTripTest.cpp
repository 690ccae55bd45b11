// Encoding and decoding over the public interface: exact where the reversible path promises it,
// within a bound elsewhere.
#include <gtest/gtest.h>

#include <cmath>

#include "EncodeHost.h"
#include "HostMemory.h"

namespace {

using namespace test;
using RoundTrip = test::LibraryTest;

Decoded Decoding(EncodeHost& host, const test::DecodeJob& job = {}) {
  Decoded decoded = Decode(host.Encode(), job);
  EXPECT_EQ(decoded.initCode, KelOK);
  EXPECT_EQ(decoded.frameCode, KelOK);
  EXPECT_TRUE(decoded.isComplete);
  return decoded;
}

/// The planes as they are before recasting, which is exact up to 24 bits only and goes by the depth
/// of the first component, with the level shift undone.
std::vector<Plane> RawPlanes(EncodeHost& host, bool useHostBuffers = false) {
  std::vector<Plane> planes =
      Decoding(host, {.skipRecast = true, .useHostBuffers = useHostBuffers}).planes;
  for (std::size_t c = 0; c < planes.size(); ++c) {
    for (std::int64_t& v : planes[c].samples) v += std::int64_t{1} << (host.image.depths[c] - 1);
  }
  return planes;
}

double Psnr(const Plane& a, const Plane& b) {
  if (a.samples.size() != b.samples.size()) return 0;
  double sum = 0;
  for (std::size_t i = 0; i < a.samples.size(); ++i) {
    const auto d = static_cast<double>(a.samples[i] - b.samples[i]);
    sum += d * d;
  }
  return 10 * std::log10(255.0 * 255.0 * static_cast<double>(a.samples.size()) / sum);
}

struct Mode {
  std::size_t components;
  bool transform;
  KelLong order, layers, levels, tileWidth, tileHeight, depth;
  Content content;
};

// Every pair of values of two columns occurs in some row. Any loss anywhere in the reversible path.
constexpr Mode kModes[] = {
    {1, false, KelRLCP, 1, 0, 61, 53, 1, Content::kNoise},
    {1, false, KelCPRL, 3, 5, 37, 29, 16, Content::kExtremes},
    {1, false, KelRLCP, 2, 2, 16, 16, 12, Content::kShades},
    {3, true, KelRLCP, 3, 2, 61, 53, 8, Content::kExtremes},
    {3, true, KelCPRL, 1, 0, 16, 16, 10, Content::kNoise},
    {3, true, KelRLCP, 2, 5, 37, 29, 1, Content::kShades},
    {3, false, KelCPRL, 2, 0, 61, 53, 16, Content::kShades},
    {3, false, KelRLCP, 1, 2, 37, 29, 8, Content::kNoise},
    {4, true, KelCPRL, 2, 2, 37, 29, 12, Content::kExtremes},
    {4, true, KelRLCP, 1, 5, 16, 16, 16, Content::kNoise},
    {4, false, KelRLCP, 3, 0, 37, 29, 10, Content::kShades},
    {4, false, KelCPRL, 3, 5, 61, 53, 12, Content::kNoise},
    {3, true, KelRLCP, 1, 32, 61, 53, 28, Content::kExtremes},
};

TEST_F(RoundTrip, ReversibleIsExact) {
  for (const Mode& mode : kModes) {
    const Picture image = MakePicture(61, 53, mode.components, mode.depth, mode.content);
    EncodeHost host(image, mode.tileWidth, mode.tileHeight,
                    {.irreversible = 0,
                     .transform = mode.transform,
                     .levels = mode.levels,
                     .layers = mode.layers,
                     .order = mode.order});
    EXPECT_TRUE((mode.depth > 24 ? RawPlanes(host) : Decoding(host).planes) == image.planes)
        << &mode - kModes << ": components " << mode.components << ", depth " << mode.depth;
    EXPECT_TRUE(mode.depth != 8 || RawPlanes(host, true) == image.planes)
        << "bytes, because the host has buffers for them";
  }
}

// A tile between the samples of components that are all subsampled, of which nothing is written and
// the decoder waits for its tile-part; a colour transform that the decoder leaves out because the
// file tells the components' own depths.
TEST_F(RoundTrip, TilesWithoutSamplesAndDifferentDepths) {
  for (const auto source : {test::Source::kMemory, test::Source::kUnseekable}) {
    EncodeHost host(MakePicture(9, 7, {8, 8}, {2, 2}, Content::kNoise), 9, 1, {.irreversible = 0});
    EXPECT_TRUE(Decoding(host, {.source = source}).planes == host.image.planes);
  }
  for (const KelLong second : {8, 10, 16}) {
    EncodeHost host(MakePicture(40, 30, {8, second, 12, 3}, {1, 1, 1, 1}, Content::kNoise), 23, 30,
                    {.irreversible = 0, .transform = true, .colors = 3});
    EXPECT_TRUE(RawPlanes(host) == host.image.planes) << second;
  }
}

// Steps that do not reach the decoder, or for the wrong component: then nothing comes near.
TEST_F(RoundTrip, IrreversibleQualityRises) {
  for (const bool transform : {false, true}) {
    const Picture image = MakePicture(150, 130, 3, 8);
    double before = 0;
    std::size_t bytesBefore = 0;
    for (const int quality : {1, 10, 20, 30, 40, 50, 60, 70, 80, 90, 99}) {
      EncodeHost host(image, 97, 70,
                      {.quality = static_cast<float>(quality), .transform = transform});
      const Bytes file = host.Encode();
      const Decoded decoded = Decode(file);
      double least = INFINITY;
      for (std::size_t c = 0; c < 3; ++c) {
        least = std::min(least, Psnr(image.planes[c], decoded.planes.at(c)));
      }
      EXPECT_GT(least, before - 0.5) << quality;
      EXPECT_GT(least, std::min(17 + 0.4 * quality, 51.0) - 5) << quality;
      EXPECT_GE(file.size(), bytesBefore) << quality;
      before = least;
      bytesBefore = file.size();
    }
  }
}

// A tile's quantisation that overrides the lossless parameters of an extra channel.
TEST_F(RoundTrip, ExtraChannelsStayExactUnderCoarseColors) {
  for (const KelLong order : {KelRLCP, KelCPRL}) {
    const Picture image = MakePicture(70, 50, {8, 8, 8, 8, 8}, {1, 1, 1, 1, 2}, Content::kNoise);
    EncodeHost host(
        image, 40, 30,
        {.quality = 50, .transform = true, .order = order, .colors = 3, .transparency = 3});
    const Decoded decoded = Decoding(host);
    EXPECT_FALSE(decoded.planes.at(0) == image.planes[0]);
    EXPECT_TRUE(decoded.planes.at(3) == image.planes[3]);
    EXPECT_TRUE(decoded.planes.at(4) == image.planes[4]);
  }
}

// Packets where the decoder expects none, or the reverse.
TEST_F(RoundTrip, TinyTilesAndSubsampling) {
  for (KelLong side = 1; side <= 5; ++side) {
    for (const KelLong order : {KelRLCP, KelCPRL}) {
      EncodeHost host(MakePicture(11, 9, {8, 12, 16}, {1, 2, 3}, Content::kNoise), side, 6 - side,
                      {.irreversible = 0, .order = order});
      EXPECT_TRUE(RawPlanes(host) == host.image.planes) << side << " in order " << order;
    }
  }
  // Tiles far from the origin, in which one resolution is a single precinct all the same.
  const Picture wide = MakePicture(33000, 16, 1, 8, Content::kNoise);
  for (const KelLong tileWidth : {1000, 33000}) {
    EncodeHost host(wide, tileWidth, 16, {.irreversible = 0});
    EXPECT_TRUE(Decoding(host).planes == wide.planes) << tileWidth;
  }
}

// A region that is lost, shifted, or that takes the mask of the wrong component or size.
TEST_F(RoundTrip, RegionKeepsItsPrecision) {
  for (const KelLong maskSampling : {1, 2}) {
    for (const KelLong mask : {0, 3}) {
      std::vector<KelLong> sampling(4, 1);
      sampling[static_cast<std::size_t>(mask)] = maskSampling;
      Picture image = MakePicture(75, 61, {8, 8, 8, 8}, sampling, Content::kNoise);
      Plane& region = image.planes[static_cast<std::size_t>(mask)];
      const auto isInside = [](std::int64_t x, std::int64_t y) {
        return x >= 30 && x < 52 && y >= 24 && y < 40;
      };
      for (std::int64_t i = 0; i < region.width * region.height; ++i) {
        const std::int64_t x = i % region.width, y = i / region.width;
        region.At(x, y) = isInside(x * maskSampling, y * maskSampling) ? 9 : 0;
      }
      EncodeHost host(image, 37, 31, {.quality = 5, .mask = mask});
      const Decoded decoded = Decoding(host);
      double inside = 0, outside = 0;
      const std::size_t color = mask == 0 ? 1 : 0;
      for (std::int64_t i = 0; i < 75 * 61; ++i) {
        const std::int64_t x = i % 75, y = i / 75;
        (isInside(x, y) ? inside : outside) += static_cast<double>(
            std::abs(image.planes[color].At(x, y) - decoded.planes.at(0).At(x, y)));
      }
      EXPECT_LT(inside / (22 * 16), 1.0) << "mask " << mask << ", sampling " << maskSampling;
      EXPECT_GT(outside / (75 * 61), 10.0);
    }
  }
}

// A decoder's palette goes to an encoder as it is: columns that follow the mapping while depths do
// not would be read beyond their end, and come out exchanged.
TEST_F(RoundTrip, PalettesPassThrough) {
  const Picture indices = MakePicture(4, 4, 1, 8);
  std::uint8_t depths[] = {15, 7}, wide[] = {1, 2, 3, 4, 5, 6}, narrow[] = {7, 8, 9};
  std::uint8_t *columns[] = {wide, narrow}, mapType[] = {1, 1}, mapColumn[] = {1, 0};
  KelULong mapComponent[] = {0, 0};
  __tagKelPalette palette{3, 2, depths, columns, 0, mapComponent, mapType, mapColumn};
  const auto encode = [&](__tagKelPalette* p) {
    EncodeHost host(indices);
    host.options.PalettePresent = true;
    host.options.Palette = p;
    return host.Encode();
  };
  const Bytes file = encode(&palette);
  KelCompressedData data{file.data(), static_cast<KelULong>(file.size())};
  KelDecOpt options;
  options.InitToDefaults();
  KelImage decoder;
  ASSERT_EQ(decoder.InitDecoder(nullptr, &data, &options, nullptr, nullptr, KelAspectFull), KelOK);
  EXPECT_EQ(encode(decoder.GetPalette()), file);
  decoder.Die();
  options.Die();
}

// A plane more than the route from coefficients to bytes needs, or one kept once a tile is done.
TEST_F(RoundTrip, MemoryOfDecoding) {
  constexpr std::size_t kPositions = 1024 * 1024, kFixed = 400000;
  for (const std::size_t components : {1, 3}) {
    for (const KelLong irreversible : {0, 1}) {
      for (const KelLong side : {1024, 256}) {
        EncodeHost host(MakePicture(1024, 1024, components, 8), side, side,
                        {.irreversible = irreversible, .transform = components == 3});
        const Bytes file = host.Encode();
        const std::size_t tile = static_cast<std::size_t>(side) * static_cast<std::size_t>(side);
        const std::size_t before = memory.Bytes();
        memory.ResetPeak();
        const Decoded decoded = Decode(file);
        EXPECT_EQ(decoded.frameCode, KelOK);
        EXPECT_LE(memory.PeakBytes() - before,
                  tile * (4 * components + 5) + (kPositions - tile) * components + kFixed)
            << components << " components, tiles of " << side << ", filter " << irreversible;
      }
    }
  }
}

// Memory that is asked for anew for each tile where that of the tile before would do: records for
// headers without segments, working memory of the transforms and the block coder.
TEST_F(RoundTrip, RequestsOfATile) {
  std::size_t encoding[2], decoding[2];
  for (const int i : {0, 1}) {
    EncodeHost host(MakePicture(256 << i, 256, 3, 8), 64, 64,
                    {.irreversible = 0, .transform = true});
    const std::size_t start = memory.Requests();
    const Bytes file = host.Encode();
    const std::size_t encoded = memory.Requests();
    EXPECT_EQ(Decode(file).frameCode, KelOK);
    encoding[i] = encoded - start;
    decoding[i] = memory.Requests() - encoded;
  }
  EXPECT_LE(encoding[1] - encoding[0], 16 * 12U) << "what the host hands over counts";
  EXPECT_LE(decoding[1] - decoding[0], 16 * 14U) << "six of them are output images";
}

}  // namespace
