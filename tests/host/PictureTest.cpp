// Opened pictures: every region at every resolution equals what decoding everything gives there,
// and few bytes are read.
#include <kel/KelIndex.h>
#include <kel/host.hpp>

#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "TestImages.hpp"
#include "VectorFile.h"
#include "VectorNames.h"

namespace {

using namespace kel::host;
using test::ErrorOf;

std::int64_t Halved(std::int64_t edge, unsigned times) {
  return (edge + (std::int64_t{1} << times) - 1) >> times;
}

/// Where a region of a plane begins in the plane of the whole, in samples.
std::uint32_t Start(std::int64_t origin, std::uint32_t at, std::uint32_t step, unsigned reduce) {
  const auto edge = [&](std::int64_t x) { return Halved((x + step - 1) / step, reduce); };
  return static_cast<std::uint32_t>(edge(origin + at) - edge(origin));
}

/// A region's samples are those of the whole at its place.
void ExpectCropOf(const Image& whole, const Image& part, const Region& region, const Info& info,
                  unsigned reduce) {
  ASSERT_EQ(whole.planes.size(), part.planes.size());
  for (std::size_t c = 0; c < part.planes.size(); ++c) {
    const Plane &from = whole.planes[c], &to = part.planes[c];
    const std::uint32_t x0 = Start(info.originX, region.x, from.xStep, reduce);
    const std::uint32_t y0 = Start(info.originY, region.y, from.yStep, reduce);
    ASSERT_LE(x0 + to.Width(), from.Width());
    ASSERT_LE(y0 + to.Height(), from.Height());
    std::uint32_t numWrong = 0;
    for (std::uint32_t y = 0; y < to.Height(); ++y) {
      for (std::uint32_t x = 0; x < to.Width(); ++x) {
        numWrong += to.At(x, y) != from.At(x0 + x, y0 + y);
      }
    }
    EXPECT_EQ(numWrong, 0U) << "component " << c << " reduced " << reduce;
  }
}

/// The whole at the resolution below, as the library's own decoder gives it.
std::optional<Image> LibraryHalf(const Bytes& bytes) {
  MemorySource source(bytes);
  DecodeParams params;
  params.reduce = 1;
  try {
    return Decode(source, params);
  } catch (const Error&) {
    return std::nullopt;
  }
}

TEST(Picture, RegionsAreCropsOfTheWhole) {
  const Session session;
  std::mt19937 random(3);
  int numReduced = 0;
  for (const std::string& name : test::VectorNames()) {
    SCOPED_TRACE(name);
    const Bytes bytes = test::Vector(name);
    MemorySource forProbe(bytes), forAll(bytes);
    std::optional<Image> whole;
    Info info;
    try {
      whole = Decode(forAll);
      info = Probe(forProbe);
    } catch (const Error&) {
      continue;
    }
    if (!info.tilePartsRegular) continue;
    MemoryRanges ranges(bytes);
    Picture picture(ranges);
    const auto some = [&](std::uint32_t below) {
      return static_cast<std::uint32_t>(random() % below);
    };
    for (int i = 0; i < 6; ++i) {
      Region region{some(info.width), some(info.height), 1 + some(info.width),
                    1 + some(info.height)};
      if (i == 0) region = {0, 0, info.width, info.height};
      DecodeReport report;
      ExpectCropOf(*whole, picture.Decode(region, 0, 1, &report), region, info, 0);
      EXPECT_TRUE(report.complete);
    }
    const std::optional<Image> half = LibraryHalf(bytes);
    // Where tiles have a coding style of their own the kit's other decoder averages instead.
    const bool averages = name.starts_with("tile_co");
    if (!half || picture.Levels() == 0 || info.palette || averages) continue;
    const Region all{0, 0, info.width, info.height};
    try {
      ExpectCropOf(*half, picture.Decode(all, 1), all, info, 1);
      ++numReduced;
    } catch (const Error& error) {
      EXPECT_EQ(error.Kind(), Failure::kParameter) << "a tile without a level to leave out";
    }
  }
  EXPECT_GT(numReduced, 50);
}

// Deeper reductions, of tiles of odd sizes at odd places, against reductions of reductions: the
// lowest resolution of one level is that of the next.
TEST(Picture, EveryResolutionAndFewBytes) {
  const Session session;
  const Image image = test::NoiseImage(700, 500, 3, 8);
  MemorySink sink;
  EncodeParams params;
  params.lossless = true;
  params.tileWidth = params.tileHeight = 150;
  Encode(image, params, sink);
  std::atomic<std::uint64_t> fetched{0};
  CallbackRanges counted(sink.bytes.size(), [&](std::uint64_t from, std::span<std::uint8_t> to) {
    fetched += to.size();
    std::copy_n(sink.bytes.begin() + static_cast<std::ptrdiff_t>(from), to.size(), to.begin());
  });
  Picture picture(counted, {0});
  const Image lowest = picture.Decode({0, 0, 700, 500}, 5);
  EXPECT_EQ(lowest.width, 22U);
  EXPECT_EQ(lowest.height, 16U);
  EXPECT_LT(fetched, sink.bytes.size() / 3) << "noise: what is left out is nearly everything";
  for (const unsigned reduce : {2U, 5U}) {
    const Region part{301, 99, 222, 333};
    const Image cut = picture.Decode(part, reduce, 3);
    const Image all = picture.Decode({0, 0, 700, 500}, reduce);
    MemorySource forProbe(sink.bytes);
    ExpectCropOf(all, cut, part, Probe(forProbe), reduce);
  }
  EXPECT_EQ(ErrorOf([&] { picture.Decode({0, 0, 1, 1}, 6); }).Kind(), Failure::kParameter);
  EXPECT_EQ(ErrorOf([&] { picture.Decode({700, 0, 1, 1}); }).Kind(), Failure::kParameter);
  EXPECT_EQ(ErrorOf([&] { picture.TileRegion(20); }).Kind(), Failure::kParameter);
  const Region tile = picture.TileRegion(9);
  EXPECT_EQ(tile.x, 600U);
  EXPECT_EQ(tile.width, 100U);
}

// Threads share the index and the caches; whoever asks gets what it asked for.
TEST(Picture, ManyThreadsAskAtOnce) {
  const Session session;
  const Image image = test::NoiseImage(256, 256, 1, 8);
  MemorySink sink;
  EncodeParams params;
  params.lossless = true;
  params.tileWidth = params.tileHeight = 64;
  Encode(image, params, sink);
  MemoryRanges ranges(sink.bytes);
  Picture picture(ranges, {20000});
  MemorySource forProbe(sink.bytes);
  const Info info = Probe(forProbe);
  ForEachIndex(60, 4, [&](unsigned, std::size_t i) {
    const auto at = static_cast<std::uint32_t>(i * 37 % 200);
    const Region region{at, (at * 7) % 200, 70, 50};
    ExpectCropOf(image, picture.Decode(region), region, info, 0);
  });
}

/// The file with its packets in another order; nothing where a tile has several tile-parts or an
/// order of its own.
std::optional<Bytes> Reordered(const Bytes& bytes, KelULong order) {
  using Place = std::tuple<KelULong, KelULong, KelULong, std::uint64_t>;
  const auto placeOf = [](const KelIndexPacket& p) {
    return Place(p.component, p.resolution, p.layer, p.precinct);
  };
  Bytes changed = bytes;
  KelStreamIndex before, after;
  const KelCompressedData old{bytes.data(), static_cast<KelULong>(bytes.size())};
  const KelCompressedData block{changed.data(), static_cast<KelULong>(changed.size())};
  before.InitIndex(nullptr, &old);
  const KelIndexFacts& facts = *before.GetFacts();
  const KelIndexTileParts& parts = *before.GetTileParts();
  bool isPlain = true;
  for (const KelIndexSegment& segment : std::span(facts.segments, facts.numSegments)) {
    if (segment.code == kel::format::kCOD)
      changed[static_cast<std::size_t>(segment.offset) + 5] = static_cast<std::uint8_t>(order);
    isPlain = isPlain && segment.code != kel::format::kPOC;
  }
  after.InitIndex(nullptr, &block);
  for (KelULong i = 0; i < parts.count && isPlain; ++i) {
    const KelIndexWant want{parts.parts[i].tile, -1, 0, 0};
    const KelIndexPackets* from = before.GetPackets(&want);
    const KelIndexPackets* to = after.GetPackets(&want);
    isPlain = parts.parts[i].part == 0 && parts.parts[i].numParts <= 1 &&
              !parts.parts[i].hasCodingStyle && from->areAll && from->count == to->count;
    if (!isPlain || from->count == 0) continue;
    std::map<Place, ByteView> packets;
    for (const KelIndexPacket& p : std::span(from->packets, from->count)) {
      packets[placeOf(p)] = ByteView(bytes).subspan(static_cast<std::size_t>(p.offset), p.length);
    }
    auto at = static_cast<std::size_t>(from->packets[0].offset);
    for (const KelIndexPacket& p : std::span(to->packets, to->count)) {
      const ByteView packet = packets.at(placeOf(p));
      std::ranges::copy(packet, changed.begin() + static_cast<std::ptrdiff_t>(at));
      at += packet.size();
    }
  }
  before.Die();
  after.Die();
  return isPlain ? std::optional(changed) : std::nullopt;
}

// A tile's packets are put into another order for decoding: which one they come in must not matter,
// also where resolutions have several precincts.
TEST(Picture, OrdersOfPacketsMakeNoDifference) {
  const Session session;
  int numCases = 0;
  for (const std::string& name : test::VectorNames()) {
    if (!name.starts_with("order_") && !name.starts_with("coc_")) continue;
    const Bytes bytes = test::Vector(name);
    MemoryRanges ranges(bytes);
    Picture expected(ranges);
    for (const KelULong order : {KelLRCP, KelRLCP, KelRPCL, KelPCRL, KelCPRL}) {
      SCOPED_TRACE(name + " in order " + std::to_string(order));
      const auto reordered = Reordered(bytes, order);
      if (!reordered) continue;
      MemoryRanges others(*reordered);
      Picture picture(others);
      MemorySource forAll(*reordered), original(bytes);
      test::ExpectSamePlanes(Decode(forAll), Decode(original));
      for (unsigned reduce = 0; reduce <= picture.Levels(); ++reduce, ++numCases) {
        const Region part{picture.Width() / 3, 0, picture.Width() / 2, picture.Height()};
        test::ExpectSamePlanes(picture.Decode(part, reduce), expected.Decode(part, reduce));
      }
    }
  }
  EXPECT_GT(numCases, 50);
}

/// A file of the image beyond 6 GiB, with holes: between the tiles stand tile-parts that no tile
/// needs.
void WriteFarApart(const Image& image, const std::string& path) {
  MemorySink sink;
  EncodeParams params;
  params.lossless = true;
  params.tileWidth = params.tileHeight = 32;
  Encode(image, params, sink);
  MemorySource forProbe(sink.bytes);
  const Info info = Probe(forProbe);
  std::ofstream file(path, std::ios::binary);
  const auto piece = [&](std::uint64_t from, std::uint64_t length) {
    file.write(reinterpret_cast<const char*>(&sink.bytes[static_cast<std::size_t>(from)]),
               static_cast<std::streamsize>(length));
  };
  piece(0, info.codeStreamOffset + info.tileParts[0].offset);
  for (std::size_t i = 0; i < info.tileParts.size(); ++i) {
    piece(info.codeStreamOffset + info.tileParts[i].offset, info.tileParts[i].length);
    if (i + 1 == info.tileParts.size() || info.tileParts[i + 1].tile == info.tileParts[i].tile) {
      continue;
    }
    const std::streamoff start = file.tellp();
    file.write("\xAB\x90\0\x0A\0\0\x7F\xFF\xFF\xFF\xC8\0\xAB\x93", 14);
    file.seekp(start + INT32_MAX);
  }
  piece(sink.bytes.size() - 2, 2);
}

TEST(LargeFiles, AreReadAndCutBeyondFourGibibytes) {
  const Session session;
  const Image image = test::NoiseImage(64, 64, 1, 8);
  const test::Folder dir;
  const std::string path = dir.Path("large.kel");
  WriteFarApart(image, path);
  FileSource forProbe(path), forAll(path);
  const Info info = Probe(forProbe);
  EXPECT_GT(info.tileParts.back().offset, std::uint64_t{6} << 30);
  EXPECT_TRUE(info.tilePartsRegular);
  test::ExpectSamePlanes(Decode(forAll), image);
  FileRanges ranges(path);
  const Region part{40, 10, 20, 50};
  ExpectCropOf(image, Picture(ranges).Decode(part), part, info, 0);
  MemorySink cut;
  Trim(ranges, {.region = Region{32, 32, 1, 1}}, cut);
  MemorySource trimmed(cut.bytes);
  ExpectCropOf(image, Decode(trimmed), {32, 32, 32, 32}, info, 0);
}

// What the data seemed to be when a fetch failed must not be kept.
TEST(Picture, AFailedFetchIsForgotten) {
  const Session session;
  const Image image = test::NoiseImage(200, 150, 1, 8);
  MemorySink sink;
  EncodeParams params;
  params.lossless = true;
  params.tileWidth = params.tileHeight = 64;
  Encode(image, params, sink);
  int left = 0;
  CallbackRanges source(sink.bytes.size(), [&](std::uint64_t from, std::span<std::uint8_t> to) {
    if (left-- == 0) throw Error(Failure::kInput, "the line is down");
    std::copy_n(sink.bytes.begin() + static_cast<std::ptrdiff_t>(from), to.size(), to.begin());
  });
  int numFailed = 0;
  for (bool hasFailed = true; hasFailed; ++numFailed) {
    left = -1;
    Picture picture(source);
    left = numFailed;
    hasFailed = false;
    try {
      picture.Decode({0, 0, 200, 150}, 0, 1);
    } catch (const Error& error) {
      EXPECT_STREQ(error.what(), "the line is down");
      hasFailed = true;
    }
    DecodeReport report;
    test::ExpectSamePlanes(picture.Decode({0, 0, 200, 150}, 0, 1, &report), image);
    EXPECT_TRUE(report.complete);
  }
  EXPECT_GT(numFailed, 5);
}

/// Data of a file with every request noted.
struct CountedFile {
  explicit CountedFile(const Bytes& content)
      : ranges(content.size(), [&content, this](std::uint64_t from, std::span<std::uint8_t> to) {
          requests.push_back({from, from + to.size()});
          std::copy_n(content.begin() + static_cast<std::ptrdiff_t>(from), to.size(), to.begin());
        }) {}
  std::vector<ByteRange> requests;
  CallbackRanges ranges;
};

std::vector<std::uint32_t> TilesOf(const Picture& picture, const Region& region) {
  std::vector<std::uint32_t> tiles;
  for (std::uint32_t t = 0; t < picture.TilesAcross() * picture.TilesDown(); ++t) {
    const Region tile = picture.TileRegion(t);
    const bool isApart = tile.x >= region.x + region.width || region.x >= tile.x + tile.width ||
                         tile.y >= region.y + region.height || region.y >= tile.y + tile.height;
    if (!isApart) tiles.push_back(t);
  }
  return tiles;
}

/// What is read lies in the ranges announced, or just behind one, where a look at a header or a
/// length goes on.
void ExpectWithin(const std::vector<ByteRange>& requests, const std::vector<ByteRange>& announced) {
  constexpr std::uint64_t kLook = 256;
  for (const ByteRange& request : requests) {
    const bool isAnnounced = std::ranges::any_of(announced, [&](const ByteRange& range) {
      return request.from + 1 >= range.from && request.to <= range.to + kLook;
    });
    EXPECT_TRUE(isAnnounced) << request.from << " to " << request.to;
  }
}

TEST(Picture, ReadsTheBytesAnnouncedAndNoOthers) {
  const Session session;
  std::mt19937 random(5);
  int numCases = 0;
  MemorySink noise;
  EncodeParams params;
  params.lossless = true;
  params.tileWidth = params.tileHeight = 150;
  Encode(test::NoiseImage(700, 500, 3, 8), params, noise);
  std::vector<std::string> names = test::VectorNames();
  names.push_back("noise");
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const Bytes bytes = name == "noise" ? noise.bytes : test::Vector(name);
    MemorySource forAll(bytes), forProbe(bytes);
    CountedFile file(bytes);
    std::unique_ptr<Picture> picture;
    try {
      Decode(forAll);
      if (!Probe(forProbe).tilePartsRegular) continue;
      picture = std::make_unique<Picture>(file.ranges, PictureParams{0, false, 0});
      picture->PlacesOf(0);  // finds the tiles
    } catch (const Error&) {
      continue;
    }
    const auto some = [&](std::uint32_t below) {
      return static_cast<std::uint32_t>(random() % below);
    };
    for (int i = 0; i < 4; ++i, ++numCases) {
      const Region region{some(picture->Width()), some(picture->Height()),
                          1 + some(picture->Width()), 1 + some(picture->Height())};
      const unsigned reduce = some(picture->Levels() + 1);
      std::vector<ByteRange> announced;
      file.requests.clear();
      for (const std::uint32_t tile : TilesOf(*picture, region)) {
        const auto more = picture->BytesOf(tile, reduce);
        announced.insert(announced.end(), more.begin(), more.end());
      }
      try {
        picture->Decode(region, reduce);
      } catch (const Error& error) {
        EXPECT_EQ(error.Kind(), Failure::kParameter) << "a tile of fewer levels, or a palette";
        continue;
      }
      ExpectWithin(file.requests, announced);
    }
  }
  EXPECT_GT(numCases, 200);
}

TEST(RangeCache, JoinsNeighboursAndForgetsTheOldest) {
  Bytes content(100000);
  for (std::size_t i = 0; i < content.size(); ++i)
    content[i] = static_cast<std::uint8_t>(i * 7 >> 3);
  int requests = 0;
  CallbackRanges source(content.size(), [&](std::uint64_t from, std::span<std::uint8_t> to) {
    ++requests;
    std::copy_n(content.begin() + static_cast<std::ptrdiff_t>(from), to.size(), to.begin());
  });
  RangeCache cache(source, 8000, 1000);
  const auto check = [&](std::uint64_t from, std::size_t count) {
    Bytes bytes(count);
    cache.Fetch(from, bytes);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(),
                           content.begin() + static_cast<std::ptrdiff_t>(from)));
  };
  const std::vector<ByteRange> near = {{10, 20}, {2500, 2600}, {5100, 5900}};
  cache.Prepare(near);
  EXPECT_EQ(requests, 1);
  check(15, 5000);
  EXPECT_EQ(requests, 1);
  check(90500, 9500);
  check(99999, 1);
  EXPECT_EQ(requests, 2);
  check(0, 10);
  EXPECT_EQ(requests, 3) << "more than the cache holds has gone through it";
  EXPECT_EQ(ErrorOf([&] { check(99999, 2); }).Kind(), Failure::kInput);
}

}  // namespace
