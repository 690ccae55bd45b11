// Pictures that are coded and decoded row of tiles by row of tiles.
#include "kel/host/decode.hpp"

#include <algorithm>
#include <numeric>

#include "BandDecoder.hpp"
#include "TestImages.hpp"
#include "kel/host/encode.hpp"

namespace {

using namespace kel::host;
using test::ErrorOf;
using test::ExpectSamePlanes;
using test::NoiseImage;

/// Hands out bytes in small pieces, once.
CallbackSource Trickle(ByteView bytes) {
  auto at = std::make_shared<std::size_t>(0);
  return CallbackSource([bytes, at](std::span<std::uint8_t> to) {
    const std::size_t count = std::min({to.size(), bytes.size() - *at, std::size_t{777}});
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(*at), count, to.begin());
    *at += count;
    return count;
  });
}

Bytes Encoded(const Image& image, std::uint32_t tileWidth, std::uint32_t tileHeight) {
  EncodeParams params;
  params.lossless = true;
  params.tileWidth = tileWidth;
  params.tileHeight = tileHeight;
  params.levels = 2;
  MemorySink file;
  Encode(image, params, file);
  return std::move(file.bytes);
}

/// The file with its tile-parts in another order, and without those that `kept` does not want.
template <class Order, class Kept>
Bytes Rearranged(const Bytes& file, Order&& order, Kept&& kept) {
  Index index(file);
  const KelIndexTileParts& found = index.TileParts();
  std::vector<KelIndexTilePart> parts(found.parts, found.parts + found.count);
  std::ranges::stable_sort(parts, {}, order);
  Bytes result(file.begin(),
               file.begin() + static_cast<std::ptrdiff_t>(index.Facts().firstTilePartOffset));
  for (const KelIndexTilePart& part : parts) {
    if (!kept(part)) continue;
    const auto from = file.begin() + static_cast<std::ptrdiff_t>(part.offset);
    result.insert(result.end(), from, from + static_cast<std::ptrdiff_t>(part.length));
  }
  result.insert(result.end(), file.end() - 2, file.end());
  return result;
}

DecodeReport DecodeByWindows(const Bytes& file, unsigned threads, std::size_t window, Image& image,
                             bool acceptIncomplete = false) {
  CallbackSource source = Trickle(file);
  TilePartFeed feed(source, {}, window);
  DecodeParams params;
  params.threads = threads;
  params.acceptIncomplete = acceptIncomplete;
  ImageRowSink sink;
  sink.Begin(image);
  BandDecoder bands(feed, params, sink);
  const DecodeReport report = bands.Run();
  image = std::move(sink.image);
  return report;
}

// A band cut or written wrong, tile-parts lost between two windows, and workers that overtake each
// other would all show in the samples.
TEST(RowDecoder, WindowsAndBandsChangeNothing) {
  const Session session;
  for (const bool wide : {false, true}) {
    const Image image = wide ? NoiseImage(301, 90, 3, 8) : NoiseImage(70, 333, 1, 12, true);
    const Bytes file = wide ? Encoded(image, 64, 32) : Encoded(image, 70, 48);
    const Bytes shuffled = Rearranged(
        file, [](const KelIndexTilePart& part) { return part.part; }, [](auto&) { return true; });
    for (const Bytes* data : {&file, &shuffled}) {
      for (const unsigned threads : {1U, 3U}) {
        for (const std::size_t window : {std::size_t{500}, std::size_t{20000}, file.size() * 2}) {
          Image decoded;
          CopyDescription(image, decoded);
          EXPECT_TRUE(DecodeByWindows(*data, threads, window, decoded).complete);
          ExpectSamePlanes(image, decoded);
        }
      }
    }
    // Rows in, rows out, through the public entries.
    ImageRowSource rows(image);
    EncodeParams params;
    params.lossless = true;
    params.threads = 3;
    params.levels = 2;
    params.tileWidth = wide ? 64 : 70;
    params.tileHeight = wide ? 32 : 48;
    MemorySink again;
    Encode(rows, params, again);
    EXPECT_TRUE(again.bytes == file) << "rows are coded as the image is";
    CallbackSource source = Trickle(file);
    RowDecoder decoder(source, {});
    ImageRowSink sink;
    decoder.Decode(sink);
    ExpectSamePlanes(image, sink.image);
  }
}

// What a band held before must not show where tiles are missing; nor may the end of the data, at
// any place, be taken for success or kept waiting for.
TEST(RowDecoder, MissingTilesAreBlackAndTold) {
  const Session session;
  const Image image = NoiseImage(200, 300, 1, 8);
  const Bytes file = Encoded(image, 100, 50);
  const Bytes holed = Rearranged(
      file, [](const KelIndexTilePart&) { return 0; },
      [](const KelIndexTilePart& part) { return part.tile != 5 && part.tile != 10; });
  for (const unsigned threads : {1U, 2U}) {
    Image decoded;
    CopyDescription(image, decoded);
    const DecodeReport report = DecodeByWindows(holed, threads, 3000, decoded, true);
    EXPECT_EQ(report.numCompleteTiles, 10U);
    for (std::uint32_t y = 0; y < 300; ++y) {
      const bool left = y / 50 == 5, right = y / 50 == 2;
      EXPECT_EQ(decoded.planes[0].At(1, y), left ? 0 : image.planes[0].At(1, y));
      EXPECT_EQ(decoded.planes[0].At(199, y), right ? 0 : image.planes[0].At(199, y));
    }
    EXPECT_EQ(ErrorOf([&] { DecodeByWindows(holed, threads, 3000, decoded); }).Kind(),
              Failure::kIncomplete);
  }
  for (std::size_t length = 200; length < file.size(); length += 997) {
    Image decoded;
    CopyDescription(image, decoded);
    const Bytes cut(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length));
    const Error error = ErrorOf([&] { DecodeByWindows(cut, 2, 1500, decoded); });
    EXPECT_TRUE(error.Kind() == Failure::kIncomplete || error.Kind() == Failure::kInput)
        << length << " of " << file.size();
  }
}

// Bands that are read in several strips: rows that were not there yet must not be coded.
TEST(RowDecoder, StripsOfWideRowsAreCodedAsTheImageIs) {
  const Session session;
  const Image image = NoiseImage(20000, 45, 1, 8);
  EncodeParams params;
  params.lossless = true;
  params.levels = 1;
  params.tileWidth = 7000;
  params.tileHeight = 32;
  MemorySink whole;
  Encode(image, params, whole);
  for (const unsigned threads : {1U, 2U, 4U}) {
    ImageRowSource rows(image);
    params.threads = threads;
    MemorySink sink;
    Encode(rows, params, sink);
    EXPECT_TRUE(sink.bytes == whole.bytes) << threads;
  }
}

// A source that fails in the middle, of a band too, ends all workers with its own error.
TEST(RowDecoder, FailingRowsEndTheEncoding) {
  const Session session;
  class Failing final : public RowSource {
   public:
    explicit Failing(std::uint32_t width) { description_ = DescribeNewImage(width, 300, 3, 8); }
    void Read(std::uint32_t count, std::uint8_t* to, std::size_t stride) override {
      if (++numCalls_ == 3) throw Error(Failure::kInput, "torn");
      std::fill_n(to, count * stride, std::uint8_t{7});
    }

   private:
    int numCalls_ = 0;
  };
  for (const unsigned threads : {1U, 4U}) {
    for (const auto& [width, tileWidth] : {std::pair{300U, 64U}, {300U, 300U}, {24000U, 12000U}}) {
      Failing rows(width);
      EncodeParams params;
      params.threads = threads;
      params.tileWidth = tileWidth;
      params.tileHeight = 64;
      MemorySink sink;
      EXPECT_EQ(ErrorOf([&] { Encode(rows, params, sink); }).Sentence(), "torn");
    }
  }
}

}  // namespace
