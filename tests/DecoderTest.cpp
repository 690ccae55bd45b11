// The decoder's boundary: refusals, counters, queries, changes of request, and memory that runs
// out. Samples are the business of the vectors' test.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <set>

#include "DecodeHost.h"
#include "EncodeHost.h"
#include "HostMemory.h"
#include "HostStream.h"
#include "VectorFile.h"

namespace {

using namespace test;
using Decoder = test::LibraryTest;
using DecoderHostile = test::LibraryTest;

TEST_F(Decoder, RefusalsAndTheirDetails) {
  KelImage image;
  KelDecOpt options;
  options.InitToDefaults();
  KelCompressedData block{};
  KelULong* resolutions = nullptr;
  const auto init = [&](KelCompressedData* data, KelDecOpt* opt) {
    return image.InitDecoder(nullptr, data, opt, nullptr, &resolutions, KelAspectFull);
  };
  EXPECT_EQ(image.GetNextFrame(nullptr, nullptr, false, false, nullptr), KelErrBadParam);
  EXPECT_EQ(image.SetOrientationForDecode(KelOrientation0), KelErrUnexpected);
  EXPECT_EQ(image.GetNumTiles(), 0);
  EXPECT_EQ(image.GetTileComponent(0, 0), nullptr);

  EXPECT_EQ(init(nullptr, &options), KelErrBadParam);
  const KelException details = image.GetErrorDetails();
  EXPECT_TRUE(details.errCode == KelErrBadParam && details.errLevel == 3);
  EXPECT_STREQ(details.srcFile, "common/src/KelImage");
  KelDecOpt empty;
  for (KelDecOpt* none : {&empty, static_cast<KelDecOpt*>(nullptr)}) {
    EXPECT_EQ(init(&block, none), KelErrBadParam);
  }
  const Bytes stream = Vector("constant_zero");
  for (const KelCompressedData& bad : {KelCompressedData{stream.data(), 12}, {nullptr, 100}}) {
    block = bad;
    EXPECT_EQ(init(&block, &options), KelErrUnknownFormat);
  }
  // An encoder's operation on a decoder.
  block = {stream.data(), static_cast<KelULong>(stream.size())};
  EXPECT_EQ(init(&block, &options), KelOK);
  EXPECT_EQ(image.CompressTile(0), KelErrBadParam);
  KelGetMemObj()->Free(resolutions);
  EXPECT_EQ(image.Die(), KelOK);
  EXPECT_EQ(image.Die(), KelOK);
  options.Die();
}

/// A line of a source file, by its path from the top of the sources.
std::string SourceLine(const KelErrorPlace& place) {
  std::ifstream file(std::string(KEL_SOURCES "/") + (place.file != nullptr ? place.file : ""));
  std::string line;
  for (KelLong i = 0; i < place.line; ++i) std::getline(file, line);
  return line;
}

// A diagnosis must lead to the condition that refused the data, whoever passes the refusal on.
TEST_F(DecoderHostile, RefusalsNameTheLineThatRefused) {
  std::mt19937 random(12);
  std::set<KelLong> lines;
  for (int i = 0; i < 400; ++i) {
    Bytes stream = Vector(i % 2 == 0 ? "tile_coc_qcc" : "file_jp2_palette");
    for (int flips = 0; flips < 3; ++flips) stream[12 + random() % 150] = std::uint8_t(random());
    MemoryDecoder d(stream);
    if (d.code == KelOK && d.image.GetNextFrame(nullptr, nullptr, false, true, nullptr) == KelOK) {
      continue;
    }
    const std::string line = SourceLine(d.image.GetErrorPlace());
    const auto has = [&](const char* call) { return line.find(call) != std::string::npos; };
    EXPECT_TRUE(has("Refuse(") || has("Fail(") || has("Raise(") || has("MakeFailure(KelErr"))
        << d.image.GetErrorPlace().file << ": " << line;
    lines.insert(d.image.GetErrorPlace().line);
  }
  EXPECT_GT(lines.size(), 15U) << "one place would stand for many";
}

TEST_F(Decoder, CountersOrientationAndResolutions) {
  MemoryDecoder d(Vector("rev53_four_components_rct"), KelAspectQuarterChroma);
  ASSERT_EQ(d.code, KelOK);
  const KelULong n = static_cast<KelULong>(d.image.GetMaxRes());
  for (int c = 0; c < 4; ++c) EXPECT_EQ(d.resolutions[c], c % 3 == 0 ? n - 1 : n - 2) << c;
  EXPECT_EQ(d.image.SetOrientationForDecode(KelOrientation90), KelOK);
  EXPECT_EQ(d.image.SetOrientationForDecode(KelImageOrientation{45}), KelErrBadParam);
  EXPECT_EQ(d.image.GetOrientationForDecode(), KelOrientation90);

  EXPECT_EQ(d.image.NumFramesDecoded(), 0U);
  EXPECT_FALSE(d.image.TileIsComplete(0));
  EXPECT_EQ(d.image.GetNextFrame(nullptr, nullptr, false, false, nullptr), KelOK);
  EXPECT_EQ(d.image.NumFramesDecoded(), 1U);
  EXPECT_EQ(d.image.BytesConsumedInLastFrame(), d.data.size());
  EXPECT_TRUE(d.image.TileIsComplete(0));
  // A block that ends before the first tile-part decodes nothing and is no failure.
  KelCompressedData head{d.data.data(), 20};
  EXPECT_EQ(d.image.GetNextFrame(&head, nullptr, false, false, nullptr), KelOK);
  KelCompressedData nothing{nullptr, 0};
  EXPECT_EQ(d.image.GetNextFrame(&nothing, nullptr, true, false, nullptr), KelOK);
  EXPECT_EQ(d.image.NumFramesDecoded(), 3U);
}

/// A grey image of 16 x 16 in two components, the second with a level count of its own.
Bytes HeaderWithTwoLevelCounts() {
  return Hex(
      "AB4F AB51 002C 0000 00000010 00000010 00000000 00000000 00000010 00000010 00000000 00000000"
      "0002 070101 070101 AB52 000C 00 01 0001 00 03 01 01 08 01 AB53 0009 01 00 02 01 01 08 01"
      "AB5C 000D 40 48484848 48484848 4848 ABD9");
}

TEST_F(Decoder, LevelsOfTilesWhoseComponentsDiffer) {
  {
    MemoryDecoder d(HeaderWithTwoLevelCounts());
    ASSERT_EQ(d.code, KelOK);
    EXPECT_EQ(d.image.GetMaxRes(), 3);
    for (const KelLong tile : {0, 1}) EXPECT_EQ(d.image.GetMaxRes(tile), -1);
    EXPECT_EQ(d.image.GetTileComponent(0, 2), nullptr);
    EXPECT_EQ(d.image.GetTileComponent(-1, 0), nullptr);
    // Without a tile-part there is nothing to deliver, and no plane has been obtained.
    EXPECT_EQ(d.image.GetNextFrame(nullptr, nullptr, false, false, nullptr), KelOK);
    EXPECT_EQ(d.image.GetTileComponent(0, 0)->GetOutputImage()->GetImageBuffer(), nullptr);
    EXPECT_FALSE(d.image.GetTileComponent(0, 0)->TileCompDataReady());
    EXPECT_EQ(d.image.GetChannelIndex(2), 1);
    EXPECT_EQ(d.image.GetChannelIndex(INT32_MIN), -1);
    d.image.GetTileComponent(0, 0)->SetOutputImage(nullptr);  // releases the image it replaces
  }
  MemoryDecoder d(Vector("tiles_8x8_grid"));
  EXPECT_GE(d.image.GetMaxRes(63), 0);
  EXPECT_EQ(d.image.GetMaxRes(64), -1);
}

TEST_F(Decoder, QueriesTellWhatTheFileHolds) {
  {
    MemoryDecoder d(Vector("file_jp2_extras"));
    ASSERT_TRUE(d.image.GetNumXMLBoxes() == 2 && d.image.GetNumUUIDBoxes() == 2);
    EXPECT_EQ(d.image.GetXMLBoxes()[1].length, 8U);
    EXPECT_EQ(d.image.GetUUIDBoxes()[1].uuid[15], 0x73);
    EXPECT_EQ(d.image.GetColorSpecList()->count, 2U);
    EXPECT_EQ(d.image.GetNumColorChannels(), 3);
    EXPECT_EQ(d.image.GetEncodeOptions()->RateMode, 3);
    // From a stream, what stands behind the code stream is not read.
    HostStream stream(d.data);
    KelImage other;
    KelDecOpt options;
    options.InitToDefaults();
    other.InitDecoder(stream.Stream(), nullptr, &options, nullptr, nullptr, KelAspectFull);
    EXPECT_EQ(other.GetNumXMLBoxes(), 1);
    other.Die();
    EXPECT_EQ(options.EncOpt->XMLBoxes, nullptr) << "the options keep no address of what is gone";
    options.Die();
  }
  {
    MemoryDecoder d(Vector("file_jp2_icc"));
    ASSERT_NE(d.image.GetICCProfile(), nullptr);
    EXPECT_EQ(d.image.GetICCProfile(), d.image.GetColorSpecList()->first->next->iccProfile);
  }
  {
    MemoryDecoder d(Vector("file_jp2_chroma_key"));
    EXPECT_EQ(d.image.GetChromaKey()->values[1], 3001);
    EXPECT_EQ(d.image.GetTransparencyType(), KelOpacityChromaKey);
    EXPECT_EQ(d.image.GetGlobalTransparencyChannelNum(), -1);
  }
  {
    MemoryDecoder d(Vector("file_jp2_opacity_layer"));
    EXPECT_EQ(d.image.GetTransparencyType(), KelOpacityPremultiplied);
    EXPECT_EQ(d.image.GetGlobalTransparencyChannelNum(), 1);
    EXPECT_FLOAT_EQ(d.image.GetEncodeOptions()->ResolutionY, 500.0F * 0.0254F);
    EXPECT_FLOAT_EQ(d.image.GetEncodeOptions()->ResolutionX, 5.0F * 0.0254F);
  }
  {
    MemoryDecoder d(Vector("file_weab_depths_cdef"));
    const KelLong order[] = {-1, 1, 0, 2, -1};
    for (const KelLong n : {0, 1, 2, 3, 5}) {
      EXPECT_EQ(d.image.GetChannelIndex(n), order[std::min(n, 4)]) << n;
    }
    EXPECT_EQ(d.image.GetNumColorChannels(), 3);
    EXPECT_EQ(d.image.GetComponentType(3), KelChannelOpacity);
    EXPECT_EQ(d.image.GetComponentType(4), KelChannelUnspecified);
    EXPECT_EQ(d.image.GetGlobalTransparencyChannelNum(), 3);
    EXPECT_EQ(d.image.GetTransparencyChannelNum(1), -1);
  }
}

// The data that a frame did not use are given back by a seek, while nothing may be thrown.
TEST_F(Decoder, ASeekThatThrowsDoesNotEndTheProgram) {
  Bytes data = Vector("rev53_grey_5_levels");
  data.resize(data.size() + 100, 0x55);
  HostStream stream(data);
  KelDecOpt options;
  options.InitToDefaults();
  KelImage image;
  ASSERT_EQ(image.InitDecoder(stream.Stream(), nullptr, &options, nullptr, nullptr, KelAspectFull),
            KelOK);
  stream.procs.Seek = [](void*, KelLong, KelLong) -> KelLong { throw 1; };
  EXPECT_EQ(image.GetNextFrame(nullptr, nullptr, false, true, nullptr), KelOK);
  EXPECT_TRUE(image.TileIsComplete(0));
  image.Die();
  options.Die();
}

// Host buffers must be filled once and left alone while nothing changes, and filled again when the
// request does.
TEST_F(Decoder, AFinishedTileIsDecodedAgainOnlyForAnotherRequest) {
  MemoryDecoder d(Vector("rev53_rgb_rct"));
  const KelImageGeometry& g = *d.image.GetGeometryParams();
  const Bytes untouched(std::size_t((g.Xsiz - g.XOsiz) * (g.Ysiz - g.YOsiz)), 0xEE);
  Bytes plane = untouched;
  test::FrameRequest frame({8, 8, 8});
  frame.buffers[0] = plane.data();
  frame.strides[0] = g.Xsiz - g.XOsiz;
  const auto decode = [&](bool skipConversion = false) {
    EXPECT_EQ(d.image.GetNextFrame(&d.block, nullptr, skipConversion, false, &frame.data), KelOK);
  };
  decode();
  const Bytes red = plane;
  EXPECT_NE(red, untouched);
  std::fill(plane.begin(), plane.end(), std::uint8_t{0xEE});
  decode();
  EXPECT_EQ(plane, untouched) << "a finished tile was touched";
  decode(true);
  EXPECT_NE(plane, red) << "without the inverse transform";
  decode();
  EXPECT_EQ(plane, red);
  --frame.strides[0];
  std::fill(plane.begin(), plane.end(), std::uint8_t{0xEE});
  decode();
  EXPECT_EQ(plane, untouched) << "a buffer whose rows are too short must not be used";
}

/// A bare code stream with a segment added to its n-th tile-part header, and where that begins.
std::size_t AddSegment(Bytes& data, int n, const Bytes& segment) {
  const Bytes SOT = Hex("AB90 000A");
  auto at = std::search(data.begin(), data.end(), SOT.begin(), SOT.end());
  const auto length = [&] { return at[6] << 24 | at[7] << 16 | at[8] << 8 | at[9]; };
  for (; n > 0; --n) at += length();
  const auto more = static_cast<int>(segment.size()) + length();
  for (int i = 0; i < 4; ++i) at[6 + i] = static_cast<std::uint8_t>(more >> (24 - 8 * i));
  const auto start = std::size_t(at - data.begin());
  data.insert(at + 12, segment.begin(), segment.end());
  return start;
}

// Each packet is in a tile-part of its own: those of resolution 0 as a change in the first header
// says, the others as one in the seventh does. A tile is complete when all have come.
TEST_F(Decoder, ChangesOfProgressionGoOnInLaterHeaders) {
  const Bytes plain = Vector("parts_per_component");
  Bytes data = plain;
  AddSegment(data, 0, Hex("AB5F 0009 00 00 0002 01 03 01"));
  const std::size_t seventh = AddSegment(data, 6, Hex("AB5F 0009 01 00 0002 21 03 01"));
  const auto expected = test::Decode(plain);
  for (const Source source : {Source::kMemory, Source::kSeekable, Source::kUnseekable}) {
    for (const std::size_t piece : {std::size_t{0}, seventh}) {
      const auto decoded = test::Decode(data, {.source = source, .piece = piece});
      EXPECT_TRUE(decoded.isComplete && decoded.planes == expected.planes) << int(source) << piece;
    }
  }
  MemoryDecoder d(Bytes(data.begin(), data.begin() + std::ptrdiff_t(seventh)));
  EXPECT_EQ(d.image.GetNextFrame(nullptr, nullptr, false, true, nullptr), KelOK);
  EXPECT_FALSE(d.image.TileIsComplete(0)) << "the first change ended";
}

std::ptrdiff_t BoxAt(const Bytes& data, const std::string& type) {
  return std::search(data.begin(), data.end(), type.begin(), type.end()) - data.begin();
}

// Boxes that tell no depth, another than the code stream, or not every component's, must not change
// a sample.
TEST_F(Decoder, TheCodeStreamsDepthDecides) {
  const test::Picture picture = test::MakePicture(40, 30, {8, 11, 4}, {1, 1, 1});
  Bytes few = test::EncodeHost(picture).Encode();
  const auto list = few.begin() + BoxAt(few, "bpcc");
  ASSERT_EQ(Bytes(list - 4, list + 7), Hex("0000000B 62706363 07 0A 03"));
  list[-1] -= 2;
  few[std::size_t(BoxAt(few, "vrmh") - 1)] -= 2;  // of the box around it
  few.erase(list + 5, list + 7);
  for (Bytes data : {Vector("file_jp2_minimal"), Vector("file_weab_minimal"), few}) {
    Bytes bare(data.begin() + BoxAt(data, data[4] == 'j' ? "jp2c" : "vrmc") + 4, data.end());
    const auto expected = test::Decode(bare);
    const auto box = BoxAt(data, "bpcc");
    for (const int bits : {0, 11, 255}) {
      data[std::size_t(BoxAt(data, "ihdr") + 14)] = static_cast<std::uint8_t>(bits);
      const auto decoded = test::Decode(data);
      EXPECT_EQ(decoded.initCode, KelOK);
      EXPECT_EQ(decoded.planes, expected.planes) << box << " " << bits;
    }
  }
}

TEST_F(Decoder, RefusedRequestsEndInCode8AndLeakNothing) {
  for (const char* name : {"native_rgb_ict_q75_tiles", "native_all_boxes", "file_jp2_palette",
                           "order_pcrl_subsampled_precincts", "poc_component_first",
                           "file_jp2_opacity_layer", "tile_coc_qcc", "parts_shuffled"}) {
    const Bytes data = Vector(name);
    for (const Source source : {Source::kMemory, Source::kSeekable, Source::kUnseekable}) {
      if (source == Source::kUnseekable && data[0] != 0xAB) continue;
      test::SweepRefusals(memory, [&]() -> KelLong {
        const auto decoded = test::Decode(data, {.source = source, .piece = data.size() / 2 + 1});
        if (decoded.ranOutOfMemory) return KelErrNoMemory;
        return decoded.initCode != KelOK ? decoded.initCode : decoded.frameCode;
      });
      ASSERT_FALSE(HasFailure()) << name;
    }
  }
}

// ---- Hostile data ----

bool IsDocumented(KelLong code) {
  constexpr KelLong kCodes[] = {0, 3, 8, 10, 15, 17, 18, 21, 22, 25, 26, 29};
  return std::find(std::begin(kCodes), std::end(kCodes), code) != std::end(kCodes);
}

void DecodeHostile(const Bytes& data, const std::string& what) {
  const bool inPieces = data.size() % 2 == 0;
  for (const Source source : {Source::kMemory, Source::kSeekable}) {
    const auto decoded =
        test::Decode(data, {.source = source, .piece = inPieces ? data.size() / 3 + 1 : 0});
    EXPECT_TRUE(IsDocumented(decoded.initCode) &&
                (decoded.initCode != 0 || IsDocumented(decoded.frameCode)))
        << what << ": " << decoded.initCode << ", " << decoded.frameCode;
  }
}

// Headers are cut and changed at every byte, packets at some.
TEST_F(DecoderHostile, EveryPrefixAndChangedByteEndsInADocumentedCode) {
  memory.LimitBytes(64 << 20);
  for (const std::string name :
       {"constant_zero", "blocks_4x8", "file_jp2_chroma_key", "bands_empty_box_length_0",
        "sparse_no_levels", "native_palette", "irr97_no_levels_8bit", "order_pcrl_odd_origin"}) {
    const Bytes whole = Vector(name);
    for (std::size_t i = 0; i < whole.size(); i += i < 300 ? 1 : 11) {
      DecodeHostile(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(i)),
                    name + " cut to " + std::to_string(i));
      for (const unsigned change : {0x01U, 0x80U, 0xFFU}) {
        Bytes changed = whole;
        changed[i] = static_cast<std::uint8_t>(changed[i] ^ change);
        DecodeHostile(changed, name + " changed at " + std::to_string(i));
      }
    }
    EXPECT_EQ(memory.Outstanding(), 0U) << name;
  }
}

// A header may promise an image that nobody can hold; only what has arrived may cost memory.
TEST_F(DecoderHostile, ASmallHeaderObtainsLittle) {
  for (const char* sizes : {"7FFFFFFF 7FFFFFFF 00000000 00000000 7FFFFFFF 7FFFFFFF",
                            "40000000 00000001 00000000 00000000 00004001 00004001"}) {
    const Bytes header = Hex(
        std::string("AB4F AB51 0029 0000 ") + sizes +
        "00000000 00000000 0001 070101 AB52 000C 00 01 FFFF 00 05 01 01 08 01 AB5C 0013 40 48484848"
        "48484848 48484848 48484848 AB90 000A 0000 00000000 00 01 AB93 00000000");
    memory.ResetPeak();
    const auto decoded = test::Decode(header);
    EXPECT_TRUE(decoded.initCode == KelOK || IsDocumented(decoded.initCode));
    EXPECT_LT(memory.PeakBytes(), 16U << 20) << sizes;
  }
}

}  // namespace
