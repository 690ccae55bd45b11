// Trimmed files decode to the samples of the full ones, whatever their order and tile-parts.
#include <kel/host.hpp>

#include "TestImages.hpp"
#include "VectorFile.h"
#include "VectorNames.h"

namespace {

using namespace kel::host;

std::optional<Image> DecodeOf(const Bytes& bytes, unsigned reduce, std::optional<Region> region) {
  MemorySource source(bytes);
  DecodeParams params;
  params.reduce = reduce;
  params.region = region;
  try {
    return Decode(source, params);
  } catch (const Error&) {
    return std::nullopt;
  }
}

std::optional<Bytes> Trimmed(const Bytes& bytes, const TrimParams& params) {
  MemoryRanges source(bytes);
  MemorySink sink;
  try {
    Trim(source, params, sink);
  } catch (const Error& error) {
    EXPECT_NE(error.Kind(), Failure::kMemory) << error.what();
    return std::nullopt;
  }
  MemoryRanges out(sink.bytes);
  EXPECT_TRUE(Check(out).IsSound());
  return sink.bytes;
}

TEST(Trim, GivesTheSamplesOfTheFullFile) {
  const Session session;
  int numReduced = 0, numCut = 0;
  for (const std::string& name : test::VectorNames()) {
    SCOPED_TRACE(name);
    const Bytes bytes = test::Vector(name);
    const auto whole = DecodeOf(bytes, 0, std::nullopt);
    if (!whole) continue;
    for (const unsigned reduce : {1U, 2U}) {
      const auto expected = DecodeOf(bytes, reduce, Region{0, 0, whole->width, whole->height});
      const auto trimmed = Trimmed(bytes, {.reduce = reduce});
      if (!expected || !trimmed) continue;
      const auto found = DecodeOf(*trimmed, 0, std::nullopt);
      ASSERT_TRUE(found);
      test::ExpectSamePlanes(*found, *expected);
      EXPECT_EQ(found->xml, whole->xml);
      ++numReduced;
    }
    MemoryRanges source(bytes);
    Picture picture(source);
    const std::uint32_t tile = picture.TilesAcross() * picture.TilesDown() - 1;
    const auto cut = Trimmed(bytes, {.region = picture.TileRegion(tile)});
    if (!cut) continue;
    const auto found = DecodeOf(*cut, 0, std::nullopt);
    const auto expected = DecodeOf(bytes, 0, picture.TileRegion(tile));
    ASSERT_TRUE(found && expected);
    test::ExpectSamePlanes(*found, *expected);
    ++numCut;
  }
  EXPECT_GT(numReduced, 60);
  EXPECT_GT(numCut, 60);
}

// A grid that halving breaks up must not become another one.
TEST(Trim, TilesThatDoNotStayAGridAreRefused) {
  const Session session;
  MemorySink sink;
  EncodeParams params;
  params.tileWidth = params.tileHeight = 150;
  Encode(test::NoiseImage(450, 150, 1, 8), params, sink);
  MemoryRanges source(sink.bytes);
  MemorySink out;
  const Error error = test::ErrorOf([&] { Trim(source, {.reduce = 2}, out); });
  EXPECT_EQ(error.Kind(), Failure::kParameter);
  EXPECT_TRUE(out.bytes.empty());
  EXPECT_TRUE(Trimmed(sink.bytes, {.reduce = 1}));
}

}  // namespace
