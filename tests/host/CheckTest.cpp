// What `Check` says of sound, damaged and trimmed files, and that nothing else was lost.
#include <kel/KelIndex.h>
#include <nlohmann/json.hpp>

#include <random>

#include "Tool.hpp"
#include "VectorFile.h"
#include "VectorNames.h"

namespace {

using namespace kel::host;
using nlohmann::json;

CheckReport Checked(const Bytes& bytes) {
  MemoryRanges source(bytes);
  return Check(source);
}

Image Decoded(const Bytes& bytes, unsigned reduce = 0) {
  MemorySource source(bytes);
  DecodeParams params;
  params.acceptIncomplete = true;
  params.reduce = reduce;
  return Decode(source, params);
}

Bytes Encoded(const Image& image, EncodeParams params) {
  params.checksums = true;
  MemorySink sink;
  Encode(image, params, sink);
  return sink.bytes;
}

Image Strictly(const Bytes& bytes) {
  MemorySource source(bytes);
  return Decode(source, {});
}

void Clear(Image& image, const Region& tile) {
  for (Plane& plane : image.planes) {
    for (std::uint32_t y = tile.y; y < tile.y + tile.height; ++y) {
      for (std::uint32_t x = tile.x; x < tile.x + tile.width; ++x) plane.Set(x, y, 0);
    }
  }
}

/// A repaired file has nothing wrong with it, and the samples of the damaged one, but for tiles of
/// which nothing is there: these get a mean, not zeros.
void ExpectRepaired(const Bytes& damaged) {
  MemoryRanges source(damaged);
  MemorySink sink;
  const RepairReport report = Repair(source, sink);
  EXPECT_EQ(report.bytes, sink.bytes.size());
  const CheckReport after = Checked(sink.bytes);
  EXPECT_TRUE(after.IsSound()) << (after.flaws.empty() ? "" : NameOf(after.flaws[0].kind));
  Image expected = Decoded(damaged), found = Strictly(sink.bytes);
  for (const Loss& loss : report.losses) {
    if (loss.resolution != 0) continue;
    MemoryRanges ranges(damaged);
    const Region tile = Picture(ranges).TileRegion(static_cast<std::uint32_t>(loss.tile));
    for (Image* image : {&expected, &found}) Clear(*image, tile);
  }
  test::ExpectSamePlanes(found, expected);
}

/// Every order, precincts, layers, progression changes, wrong lengths: no false alarm and none
/// missed.
TEST(Check, OfTheVectors) {
  const Session session;
  std::set<std::string> damaged;
  int numSound = 0;
  for (const std::string& name : test::VectorNames()) {
    if (name.starts_with("error_")) continue;
    const CheckReport report = Checked(test::Vector(name));
    numSound += report.IsSound();
    if (!report.IsSound()) damaged.insert(name);
    EXPECT_EQ(report.numLosses, 0U) << name << ": lengths alone are wrong";
    ExpectRepaired(test::Vector(name));
  }
  EXPECT_GT(numSound, 80);
  EXPECT_EQ(damaged,
            (std::set<std::string>{"no_eoc", "psot_past_end", "psot_too_large_ff", "psot_too_small",
                                   "psot_zero_last_no_eoc", "segments_unknown_and_repeated_ab"}))
      << "and a list of lengths that is none";
}

/// Samples of tiles that a report does not name are those of the sound file, and so is the whole
/// picture at resolutions below those that it names.
void ExpectOnlyReportedLosses(const Bytes& sound, const Bytes& damaged, unsigned levels) {
  const CheckReport report = Checked(damaged);
  std::set<std::int64_t> tiles;
  std::int64_t lowest = levels + 1;
  for (const Loss& loss : report.losses) {
    for (std::uint64_t i = 0; i < loss.tiles; ++i) tiles.insert(loss.tile + static_cast<int>(i));
    lowest = std::min(lowest, loss.resolution);
  }
  const Image expected = Decoded(sound), found = Decoded(damaged);
  MemoryRanges source(sound);
  const Picture picture(source);
  for (std::uint32_t tile = 0; tile < picture.TilesAcross() * picture.TilesDown(); ++tile) {
    if (tiles.contains(tile)) continue;
    const Region r = picture.TileRegion(tile);
    for (std::size_t c = 0; c < expected.planes.size(); ++c) {
      for (std::uint32_t y = r.y; y < r.y + r.height; ++y) {
        for (std::uint32_t x = r.x; x < r.x + r.width; ++x) {
          ASSERT_EQ(found.planes[c].At(x, y), expected.planes[c].At(x, y)) << "tile " << tile;
        }
      }
    }
  }
  if (lowest <= 0 || lowest > levels) return;
  const auto reduce = static_cast<unsigned>(levels + 1 - lowest);
  test::ExpectSamePlanes(Decoded(damaged, reduce), Decoded(sound, reduce));
}

TEST(Check, NothingIsLostButWhatItSays) {
  const Session session;
  std::mt19937 random(7);
  for (const bool lossless : {true, false}) {
    EncodeParams params;
    params.lossless = lossless;
    params.tileWidth = params.tileHeight = 64;
    params.levels = 3;
    params.order = lossless ? PacketOrder::kResolutions : PacketOrder::kComponents;
    const Bytes sound = Encoded(test::NoiseImage(190, 130, 3, 8), params);
    const CheckReport whole = Checked(sound);
    ASSERT_TRUE(whole.IsSound());
    EXPECT_EQ(whole.checksums, whole.packets);
    MemoryRanges source(sound);
    Picture picture(source);
    for (int trial = 0; trial < 25; ++trial) {
      Bytes damaged = sound;
      const auto front = static_cast<std::size_t>(picture.FrontBytes());
      const std::size_t at = front + random() % (sound.size() - front);
      damaged[at] ^= static_cast<std::uint8_t>(1U << random() % 8);
      SCOPED_TRACE(std::to_string(at) + " of " + std::to_string(sound.size()));
      EXPECT_FALSE(Checked(damaged).IsSound());
      ExpectOnlyReportedLosses(sound, damaged, params.levels);
      ExpectRepaired(damaged);
      if (::testing::Test::HasFatalFailure()) return;
    }
    for (int trial = 0; trial < 6; ++trial) {
      Bytes cut = sound;
      cut.resize(picture.FrontBytes() + random() % (sound.size() - picture.FrontBytes()));
      EXPECT_FALSE(Checked(cut).IsSound());
      ExpectOnlyReportedLosses(sound, cut, params.levels);
      ExpectRepaired(cut);
    }
  }
}

// Checksums that decoding or sizes see; lists that stay behind when packets go.
TEST(Check, ChecksumsArePassedOverAndTrimmed) {
  const Session session;
  EncodeParams params;
  params.tileWidth = params.tileHeight = 128;
  params.layers = 2;
  const Image image = test::NoiseImage(256, 200, 3, 8);
  MemorySink plain;
  Encode(image, params, plain);
  const Bytes marked = Encoded(image, params);
  EXPECT_GT(marked.size(), plain.bytes.size());
  test::ExpectSamePlanes(Decoded(marked), Decoded(plain.bytes));
  for (const TrimParams& trim :
       {TrimParams{.reduce = 2}, TrimParams{.region = Region{0, 0, 9, 9}}}) {
    MemoryRanges source(marked);
    MemorySink sink;
    Trim(source, trim, sink);
    const CheckReport report = Checked(sink.bytes);
    EXPECT_TRUE(report.IsSound());
    EXPECT_EQ(report.checksums, report.packets);
    EXPECT_NE(report.packets, 0U);
  }
}

/// A tile-part's or the main header's list of lengths, put in front of the marker at a place.
void InsertList(Bytes& bytes, std::size_t at, std::uint8_t code, Bytes content) {
  const std::size_t length = content.size() + 2;
  const std::uint8_t head[] = {bytes[at], code, static_cast<std::uint8_t>(length >> 8),
                               static_cast<std::uint8_t>(length)};
  content.insert(content.begin(), std::begin(head), std::end(head));
  bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), content.begin(), content.end());
}

// Readers that trust a list that is wrong lose what it misplaces.
TEST(Check, ListsOfLengthsAreThoseOfWhatIsThere) {
  const Session session;
  const Bytes plain = test::Vector("parts_per_layer");
  MemorySource forProbe(plain);
  const Info info = Probe(forProbe);
  const std::size_t front = info.codeStreamOffset + info.tileParts[0].offset;
  Bytes table = {0, 0x50};  // tiles of one byte, lengths of four
  for (const Info::TilePart& part : info.tileParts) {
    table.push_back(static_cast<std::uint8_t>(part.tile));
    for (int shift = 24; shift >= 0; shift -= 8) {
      table.push_back(static_cast<std::uint8_t>(part.length >> shift));
    }
  }
  for (const bool isRight : {true, false}) {
    Bytes listed = plain;
    table.back() ^= isRight ? 0 : 1;
    InsertList(listed, front, 0x55, table);
    const CheckReport report = Checked(listed);
    EXPECT_EQ(report.IsSound(), isRight);
    for (const Flaw& flaw : report.flaws) EXPECT_EQ(flaw.kind, FlawKind::kLengthList);
    for (const Flaw& flaw : report.flaws) EXPECT_EQ(flaw.offset, front);
    ExpectRepaired(listed);
    Bytes odd = plain;
    InsertList(odd, front, 0x55, {0});
    EXPECT_EQ(Checked(odd).numFlaws, 1U);
  }

  KelStreamIndex index;
  const KelCompressedData block{plain.data(), static_cast<KelULong>(plain.size())};
  ASSERT_EQ(index.InitIndex(nullptr, &block), KelOK);
  const KelIndexWant all{0, -1, 0, 0};
  const KelIndexPackets packets = *index.GetPackets(&all);
  Bytes lengths = {0};
  for (KelULong i = 0; i < packets.count && packets.packets[i].part == 0; ++i) {
    for (int shift = 28; shift >= 0; shift -= 7) {
      const KelULong rest = packets.packets[i].length >> shift;
      if (rest != 0) lengths.push_back(static_cast<std::uint8_t>((rest & 127) | (shift ? 128 : 0)));
    }
  }
  index.Die();
  for (const bool isRight : {true, false}) {
    Bytes listed = plain;
    lengths.back() ^= isRight ? 0 : 1;
    InsertList(listed, front + 12, 0x58, lengths);
    listed[front + 9] = static_cast<std::uint8_t>(listed[front + 9] + lengths.size() + 4);
    ASSERT_EQ(listed[front + 9] > plain[front + 9], true) << "the length has no carry";
    const CheckReport report = Checked(listed);
    EXPECT_EQ(report.numFlaws, isRight ? 0U : 1U);
    for (const Flaw& flaw : report.flaws) EXPECT_EQ(flaw.kind, FlawKind::kLengthList);
    ExpectRepaired(listed);
  }
}

TEST(Check, TheCommandTellsProgramsAndPeople) {
  const test::Tool tool;
  tool.Put("in.png", test::NoiseImage(100, 80, 3, 8));
  tool.Do("encode --checksums in.png a.kel");
  tool.Do("encode in.png b.kel");
  std::string bytes = tool.folder.Get("b.kel");
  tool.folder.Put("cut.kel", bytes.substr(0, bytes.size() / 2));
  bytes = tool.folder.Get("a.kel");
  bytes[bytes.size() - 40] = static_cast<char>(bytes[bytes.size() - 40] ^ 1);
  tool.folder.Put("flipped.kel", bytes);
  tool.folder.Put("list", "cut.kel\nnone.kel\n\nflipped.kel");
  EXPECT_EQ(tool.Do("check --quiet a.kel b.kel"), "");
  EXPECT_NE(tool.Do("check b.kel").find("b.kel: sound"), std::string::npos);
  EXPECT_EQ(tool.Run("check - <cut.kel").code, 3);
  const auto result = tool.Run("check --json --report r -j 1 --files-from list a.kel");
  EXPECT_EQ(result.code, 2) << "the worst of all";
  std::map<std::string, json> lines;
  std::istringstream out(result.out);
  for (std::string line; std::getline(out, line);) {
    const json object = json::parse(line);
    lines[object["file"]] = object;
  }
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines["a.kel"]["sound"], true);
  EXPECT_EQ(lines["a.kel"]["checksums"], lines["a.kel"]["packets"]);
  EXPECT_EQ(lines["none.kel"]["code"], 2);
  EXPECT_EQ(lines["cut.kel"]["code"], 3);
  EXPECT_EQ(lines["flipped.kel"]["flaws"][0]["kind"], "checksum");
  const json loss = lines["flipped.kel"]["losses"][0];
  EXPECT_EQ(loss["tile"], 0);
  EXPECT_GE(loss["resolution"], 4);
  EXPECT_EQ(loss["damaged"], 1);
  EXPECT_EQ(tool.Run("repair cut.kel whole.kel").code, 3);
  tool.Do("check whole.kel");
  tool.Do("decode whole.kel whole.png");
  const std::string report = tool.folder.Get("r");
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 4);
}

}  // namespace
