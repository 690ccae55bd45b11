// The index: facts, boxes and tile-parts, from memory and from streams, of whole, cut and damaged
// data. Its rules are the decoder's, whose code it must give.
#include <gtest/gtest.h>

#include <algorithm>

#include "HostMemory.h"
#include "HostStream.h"
#include "VectorFile.h"
#include "VectorNames.h"
#include "kel/KelIndex.h"

namespace {

using namespace test;
using StreamIndex = test::LibraryTest;

/// An index over a block of memory, or over a seekable stream of the same bytes.
struct OwnedIndex {
  explicit OwnedIndex(Bytes content, bool fromStream = false) : bytes(std::move(content)) {
    if (fromStream) {
      host.emplace(bytes, true);
      code = index.InitIndex(host->Stream(), nullptr);
    } else {
      const KelCompressedData block{bytes.data(), static_cast<KelULong>(bytes.size())};
      code = index.InitIndex(nullptr, &block);
    }
  }
  ~OwnedIndex() { index.Die(); }
  OwnedIndex(const OwnedIndex&) = delete;

  const KelIndexFacts& Facts() const { return *index.GetFacts(); }

  Bytes bytes;
  std::optional<HostStream> host;
  KelStreamIndex index;
  KelLong code;
};

/// Where each tile-part stands: offset, length, tile and part, "!" behind one that is not regular.
std::string PartsOf(KelStreamIndex index) {
  const KelIndexTileParts& list = *index.GetTileParts();
  std::string text;
  for (KelULong i = 0; i < list.count; ++i) {
    const KelIndexTilePart& p = list.parts[i];
    text += std::to_string(p.offset) + "+" + std::to_string(p.length) + ":" +
            std::to_string(p.tile) + "." + std::to_string(p.part) + (p.isRegular ? " " : "! ");
  }
  return text + (list.areRegular ? "regular" : "irregular");
}

Bytes First(const Bytes& bytes, std::size_t n) {
  return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n));
}

/// A bare code stream of 2 x 2 tiles of 50 x 50, one component, no levels; main header 76 bytes.
BitAssembler Header() {
  BitAssembler out;
  out.U16(0xAB4F).U16(0xAB51).U16(41).U16(0).U32(100).U32(70).U32(10).U32(5);
  out.U32(50).U32(50).U32(2).U32(1).U16(1).U8(7).U8(1).U8(1);
  out.U16(0xAB52).U16(12).U8(0).U8(1).U16(1).U8(0).U8(0).U8(1).U8(1).U8(8).U8(1);
  return out.U16(0xAB5C).U16(4).U8(0x40).U8(0x40).U16(0xAB64).U16(9).U16(1).Text("words");
}
constexpr std::size_t kHeaderBytes = 45 + 14 + 6 + 11;

void AddPart(BitAssembler& out, unsigned tile, unsigned part, std::size_t packetBytes,
             std::uint32_t Psot = 1, const char* segments = "") {
  const Bytes more = Hex(segments);
  const std::size_t length = 14 + more.size() + packetBytes;
  out.U16(0xAB90).U16(10).U16(tile).U32(Psot == 1 ? length : Psot).U8(part).U8(0);
  out.Append(more).U16(0xAB93).Append(Bytes(packetBytes, 0x11));
}

TEST_F(StreamIndex, TilePartsStandWhereTheirLengthsSayOrTheNextOneIsFound) {
  BitAssembler good = Header();
  AddPart(good, 0, 0, 5);
  AddPart(good, 3, 0, 0);
  AddPart(good, 0, 1, 7, 1, "AB52 000C 00 01 0001 00 00 01 01 08 01");
  Bytes bytes = good.U16(0xABD9).Result();
  OwnedIndex whole(bytes);
  ASSERT_EQ(whole.code, KelOK);
  EXPECT_EQ(PartsOf(whole.index), "76+19:0.0 95+14:3.0 109+35:0.1 regular");
  const KelIndexTilePart* parts = whole.index.GetTileParts()->parts;
  EXPECT_EQ(parts[2].headerBytes, 28U);
  EXPECT_TRUE(!parts[1].hasCodingStyle && parts[2].hasCodingStyle);
  const KelIndexFacts& facts = whole.Facts();
  EXPECT_EQ(std::string(facts.comment, facts.comment + facts.commentLength), "words");
  EXPECT_EQ(facts.sizOffset, 2U);
  EXPECT_EQ(facts.firstTilePartOffset, kHeaderBytes);
  EXPECT_EQ(facts.markerByte, 0xABU);
  EXPECT_FALSE(facts.isBoxed);

  bytes[76 + 9] = 25;  // the first length points into the second tile-part
  EXPECT_EQ(PartsOf(OwnedIndex(bytes).index), "76+19:0.0! 95+14:3.0 109+35:0.1 irregular");
  bytes[76 + 9] = 19;
  bytes[109 + 12 + 1] = 0x60;  // packed headers, which the library does not read
  EXPECT_EQ(PartsOf(OwnedIndex(bytes).index), "76+19:0.0 95+14:3.0 109+35:0.1! irregular");

  for (const bool marked : {true, false}) {
    BitAssembler open = Header();
    AddPart(open, 1, 0, 7, 0);
    EXPECT_EQ(PartsOf(OwnedIndex(marked ? open.U16(0xABD9).Result() : open.Result()).index),
              "76+21:1.0 regular")
        << "the last length may be left open";
  }
}

// Whatever is cut off: the decoder's code, and whether more data can help. What is found lies in
// the data.
TEST_F(StreamIndex, CutDataAreToldFromWrongOnes) {
  for (const char* name : {"native_all_boxes", "parts_interleaved", "psot_too_small"}) {
    const Bytes whole = Vector(name);
    const std::uint64_t arrived = OwnedIndex(whole).Facts().firstTilePartOffset + 2;
    for (std::size_t n = 1; n < whole.size(); n += n < arrived + 40 ? 1 : 97) {
      OwnedIndex cut(First(whole, n));
      EXPECT_EQ(cut.code, MemoryDecoder(First(whole, n)).code) << name << n;
      EXPECT_EQ(cut.code == KelOK, n >= arrived) << name << n;
      EXPECT_EQ(cut.index.DataEndInHeader(), cut.code != KelOK) << name << n;
      if (cut.code != KelOK) continue;
      const KelIndexTileParts& list = *cut.index.GetTileParts();
      for (KelULong i = 0; i < list.count; ++i) {
        EXPECT_LE(list.parts[i].offset + list.parts[i].length, n) << name;
      }
    }
  }
  BitAssembler twice = Header();  // a second SIZ, which a reader could follow
  const Bytes once = twice.Result();
  twice.Append(Bytes(once.begin() + 2, once.begin() + 45));
  AddPart(twice, 0, 0, 5);
  OwnedIndex refused(twice.Result());
  EXPECT_EQ(refused.code, KelErrBadMarker);
  EXPECT_EQ(refused.index.GetErrorDetails().errCode, KelErrBadMarker);
  EXPECT_FALSE(refused.index.DataEndInHeader());
  EXPECT_EQ(refused.index.GetFacts(), nullptr);
  EXPECT_EQ(refused.index.GetTileParts(), nullptr);
}

TEST_F(StreamIndex, StreamsAndMemoryGiveTheSame) {
  for (const std::string& name : VectorNames()) {
    OwnedIndex block(Vector(name)), stream(Vector(name), true);
    ASSERT_EQ(block.code, stream.code) << name;
    if (block.code != KelOK) continue;
    EXPECT_EQ(PartsOf(block.index), PartsOf(stream.index)) << name;
    EXPECT_EQ(block.Facts().codeStreamEnd, stream.Facts().codeStreamEnd) << name;
  }
}

TEST_F(StreamIndex, TellsWhatTheBoxesSay) {
  OwnedIndex file(Vector("native_all_boxes"));
  const KelIndexFacts& facts = file.Facts();
  std::uint64_t next = 0;
  for (KelULong i = 0; i < facts.numBoxes; ++i) {
    EXPECT_EQ(facts.boxes[i].offset, next);
    EXPECT_EQ(facts.boxes[i].isWhole, file.bytes[next + 3] != 0) << "a length of 0 leaves it open";
    next += facts.boxes[i].length;
    if (facts.boxes[i].offset + facts.boxes[i].headerBytes == facts.codeStreamOffset) {
      EXPECT_EQ(facts.boxes[i].type, 0x76726D63U);
      EXPECT_EQ(facts.codeStreamEnd, next);
    }
  }
  EXPECT_EQ(next, file.bytes.size());
  EXPECT_EQ(file.bytes[facts.sizOffset + 1], 0x51);

  OwnedIndex depths(Vector("file_weab_depths_cdef"));
  const MemoryDecoder decoder(depths.bytes);
  for (KelLong c = 0; c < decoder.image.GetNumComponents(); ++c) {
    EXPECT_EQ(depths.Facts().components[c].boxDepth,
              static_cast<KelULong>(decoder.image.GetBitDepths()[c]));
  }
  OwnedIndex palette(Vector("file_weab_palette"));
  ASSERT_EQ(palette.Facts().numMappings, 3U);
  for (KelULong i = 0; i < 3; ++i) {
    EXPECT_EQ(palette.Facts().mappings[i].type, 1U);
    EXPECT_EQ(palette.Facts().mappings[i].component, 0U);
  }
}

TEST_F(StreamIndex, WantOfMemoryLeavesNothingBehind) {
  const Bytes bytes = Vector("native_all_boxes");
  SweepRefusals(memory, [&] {
    OwnedIndex index(bytes);
    const bool hasParts = index.code == KelOK && index.index.GetTileParts() != nullptr;
    return index.code != KelOK ? index.code : hasParts ? KelOK : KelErrNoMemory;
  });
}

}  // namespace
