// Parts of pictures from sources of any kind, at once and while the data arrive.
#include <kel/host.hpp>

#include "TestImages.hpp"
#include "VectorFile.h"
#include "VectorNames.h"

namespace {

using namespace kel::host;
using test::ErrorOf;

Bytes Encoded(const Image& image, std::uint32_t tileSide) {
  MemorySink sink;
  EncodeParams params;
  params.lossless = true;
  params.tileWidth = params.tileHeight = tileSide;
  Encode(image, params, sink);
  return sink.bytes;
}

Image DecodePart(const Bytes& bytes, const DecodeParams& params) {
  MemorySource source(bytes);
  return Decode(source, params);
}

/// The source as a pipe gives it: read once, no size.
CallbackSource Pipe(MemorySource& source) {
  return CallbackSource([&](std::span<std::uint8_t> to) {
    return source.Read(to.first(std::min<std::size_t>(to.size(), 1000)));
  });
}

// Damaged lengths make the library look for the tile-parts itself: the samples are the same.
TEST(PartialDecode, EverySourceAndDamagedLengthsGiveTheSameSamples) {
  const Session session;
  for (const unsigned depth : {8U, 12U, 20U}) {
    const Bytes bytes = Encoded(test::NoiseImage(300, 260, depth == 8 ? 3 : 1, depth), 128);
    Bytes damaged = bytes;
    MemorySource forProbe(bytes);
    const Info info = Probe(forProbe);
    const auto& part = info.tileParts[4];
    damaged[info.codeStreamOffset + part.offset + 8] ^= 0x40;
    for (const unsigned reduce : {0U, 2U}) {
      DecodeParams params;
      params.reduce = reduce;
      params.region = {101, 47, 150, 1000};
      const Image expected = DecodePart(bytes, params);
      EXPECT_EQ(expected.width, reduce == 0 ? 150U : 37U);
      MemorySource memory(bytes);
      CallbackSource pipe = Pipe(memory);
      test::ExpectSamePlanes(Decode(pipe, params), expected);
      test::ExpectSamePlanes(DecodePart(damaged, params), expected);
      // Rows of tiles one after the other.
      MemorySource again(bytes);
      ImageRowSink rows;
      DecodeReport report = RowDecoder(again, params).Decode(rows);
      EXPECT_TRUE(report.complete);
      EXPECT_EQ(report.numTiles, 6U);
      test::ExpectSamePlanes(rows.image, expected);
    }
  }
}

// Where the wavelet has no more levels averages go on, so that --reduce gives any size.
TEST(PartialDecode, HalvingsBeyondTheLevelsAreAverages) {
  const Session session;
  const Bytes bytes = test::Vector("rev53_no_levels");
  DecodeParams params;
  const Image whole = DecodePart(bytes, params);
  params.reduce = 1;
  const Image half = DecodePart(bytes, params);
  EXPECT_EQ(half.width, (whole.width + 1) / 2);
  const Plane& from = whole.planes[0];
  const std::uint32_t sum = from.At(0, 0) + from.At(1, 0) + from.At(0, 1) + from.At(1, 1);
  EXPECT_EQ(half.planes[0].At(0, 0), (sum + 2) / 4);
  params.reduce = 0;
  params.fitWidth = whole.width - 1;
  EXPECT_EQ(DecodePart(bytes, params).width, half.width);
  params.region = {0, 0, whole.width, 2};
  EXPECT_EQ(ErrorOf([&] { DecodePart(bytes, params); }).Kind(), Failure::kParameter);
}

/// Where two images of one size differ, outside a rectangle.
std::size_t NumChangedOutside(const Image& a, const Image& b, const Region& region) {
  std::size_t count = 0;
  for (std::uint32_t y = 0; y < a.height; ++y) {
    for (std::uint32_t x = 0; x < a.width; ++x) {
      const bool inside = x - region.x < region.width && y - region.y < region.height;
      count += !inside && a.planes[0].At(x, y) != b.planes[0].At(x, y);
    }
  }
  return count;
}

TEST(PartialDecode, ArrivingDataTellWhatBecameBetterInFewLooks) {
  constexpr std::size_t kPiece = 1500;
  const Session session;
  for (const unsigned depth : {8U, 12U, 20U}) {
    const Bytes bytes = Encoded(test::NoiseImage(420, 300, 1, depth), 100);
    DecodeParams params;
    params.region = {90, 30, 310, 200};
    params.reduce = 1;
    ProgressiveDecoder decoder({params.region, params.reduce});
    std::size_t numImprovements = 0;
    bool complete = false;
    Image before;
    for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
      const auto update =
          decoder.Feed(ByteView(bytes).subspan(at, std::min(kPiece, bytes.size() - at)));
      if (!decoder.HasHeader()) continue;
      const Image& now = decoder.Look();
      if (!update.headerIsNew) {
        EXPECT_EQ(NumChangedOutside(before, now, update.improved), 0U);
      }
      if (update.headerIsNew || update.improved.width != 0) before = now;
      numImprovements += update.improvedTiles.size();
      complete = update.complete;
    }
    EXPECT_TRUE(complete);
    EXPECT_LE(numImprovements, 3 * 12U) << "tiles are decoded again and again";
    test::ExpectSamePlanes(decoder.Look(), DecodePart(bytes, params));
  }
}

}  // namespace
