// Images in memory: planes, rows in the forms of files, and changes of form.
#include <cmath>

#include "BitAssembler.h"
#include "TestImages.hpp"

namespace {

using namespace kel::host;
using test::ErrorOf;
using test::ExpectSamePlanes;
using test::NoiseImage;

TEST(Plane, EveryDepthKeepsItsExtremesInItsOwnCells) {
  for (unsigned depth = 1; depth <= 32; ++depth) {
    Plane plane(3, 2, depth);
    EXPECT_EQ(plane.MaxValue(), (std::uint64_t{1} << depth) - 1);
    EXPECT_EQ(plane.StrideBytes() % 16, 0U);
    plane.Set(1, 1, plane.MaxValue());
    EXPECT_EQ(plane.At(1, 1), plane.MaxValue());
    EXPECT_EQ(plane.At(0, 1) + plane.At(2, 1) + plane.At(1, 0), 0U) << depth;
  }
  EXPECT_EQ(ErrorOf([] { Plane(1, 1, 0); }).Kind(), Failure::kParameter);
  EXPECT_EQ(ErrorOf([] { Plane(1, 1, 33); }).Kind(), Failure::kParameter);
  // The byte count of the largest plane is beyond 64 bits.
  EXPECT_EQ(ErrorOf([] { Plane(UINT32_MAX, UINT32_MAX, 32); }).Kind(), Failure::kMemory);
}

TEST(Rows, PackedBitsAreThoseOfABitwiseWriter) {
  for (unsigned depth = 1; depth <= 32; ++depth) {
    Plane plane(11, 2, depth);
    test::FillWithNoise(plane, depth);
    test::BitAssembler expected;
    for (std::uint32_t x = 0; x < 11; ++x) {
      expected.Bits(plane.At(x, 0), static_cast<int>(depth));
    }
    std::vector<std::uint8_t> packed(PackedRowBytes(11, depth), 0xFF);
    WithSampleType(plane.BytesPerSample(), [&](auto sample) {
      using Sample = decltype(sample);
      PackSamples(plane.Row<Sample>(0), 11, depth, packed.data());
      UnpackSamples(packed.data(), 11, depth, plane.Row<Sample>(1));
    });
    // Depths that fill their cells are words of the machine.
    if (depth != 16 && depth != 32) {
      EXPECT_EQ(packed, expected.Result()) << depth;
    }
    for (std::uint32_t x = 0; x < 11; ++x) EXPECT_EQ(plane.At(x, 1), plane.At(x, 0));
  }
}

TEST(RowStreams, RowsOfAnyLayoutComeBack) {
  for (const unsigned depth : {8U, 12U, 20U}) {
    for (const unsigned channels : {1U, 2U, 3U, 4U, 5U}) {
      Image image = MakeImage(37, 5, channels, depth);
      for (std::size_t c = 0; c < channels; ++c) {
        test::FillWithNoise(image.planes[c], static_cast<unsigned>(c + depth));
      }
      ImageRowSource rows(image);
      ImageRowSink sink;
      CopyRows(rows, sink);
      ExpectSamePlanes(image, sink.image);
    }
  }
  // Pixel after pixel, whatever lies between the rows.
  const Image image = NoiseImage(5, 3, 3, 12, true);
  ImageRowSource rows(image);
  std::vector<std::uint16_t> pixels(3 * 25);
  rows.Read(3, reinterpret_cast<std::uint8_t*>(pixels.data()), 50);
  EXPECT_EQ(pixels[2 * 25 + 4 * 2 + 3], image.planes[3].At(2, 2));
  Image uneven = image;
  uneven.planes[1] = Plane(4, 3, 12);
  EXPECT_EQ(ErrorOf([&] { ImageRowSource source(uneven); }).Kind(), Failure::kParameter);
}

// Tiles of more bytes than are held back are handed on in parts, which must not mix with others'.
TEST(Encode, LargeTilesOfSeveralThreadsComeInOrder) {
  const Session session;
  const Image image = NoiseImage(300, 1700, 1, 16);
  Bytes alone;
  for (const unsigned threads : {1U, 3U}) {
    EncodeParams params;
    params.lossless = true;
    params.tileHeight = 600;  // 360 kB of noise each
    params.threads = threads;
    MemorySink file;
    Encode(image, params, file);
    if (threads == 1) alone = file.bytes;
    EXPECT_EQ(file.bytes, alone);
  }
  MemorySource source(alone);
  EXPECT_TRUE(Compare(image, Decode(source)).identical);
}

// A highest quality that is coarser than the one below it, or larger for nothing; bits that are
// coded with loss into more bytes than they take without.
TEST(Encode, AHigherQualityIsBetterAtEveryDepth) {
  const Session session;
  for (const unsigned depth : {1U, 2U, 7U, 8U, 9U, 12U, 16U}) {
    for (const unsigned channels : {1U, 3U}) {
      const Image image = NoiseImage(96, 64, channels, depth);
      double psnr = 0;
      std::uint64_t bytes = 0;
      for (const int quality : {60, 98, 99, 100}) {
        EncodeParams params;
        params.quality = quality;
        MemorySink file;
        const EncodeReport report = Encode(image, params, file);
        EXPECT_GE(report.bytes, bytes) << depth << " bits, quality " << quality;
        bytes = report.bytes;
        MemorySource source(file.bytes);
        const Difference difference = Compare(image, Decode(source));
        EXPECT_GE(difference.psnr, psnr) << depth << " bits, quality " << quality;
        psnr = difference.psnr;
        EXPECT_TRUE(depth > 1 || (difference.identical && report.quality == 0));
      }
    }
  }
}

TEST(Convert, PaletteBecomesChannels) {
  Image image = NoiseImage(9, 4, 1, 4);
  Palette palette;
  palette.columns = {{8, ChannelRole::kColour, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
                     {16, ChannelRole::kOpacity, {0, 0, 0, 0, 0, 0, 0, 0, 0, 65535}}};
  image.palette = palette;
  const Plane indices = image.planes[0];
  EXPECT_EQ(ErrorOf([&] { ChangeDepth(image, 8); }).Kind(), Failure::kParameter);
  ExpandPalette(image);
  ASSERT_EQ(image.planes.size(), 2U);
  EXPECT_FALSE(image.palette);
  EXPECT_EQ(OpacityPlane(image), &image.planes[1]);
  for (std::uint32_t x = 0; x < 9; ++x) {
    const std::uint32_t index = std::min(indices.At(x, 2), 9U);  // beyond the palette: its last
    EXPECT_EQ(image.planes[0].At(x, 2), palette.columns[0].entries[index]);
    EXPECT_EQ(image.planes[1].At(x, 2), palette.columns[1].entries[index]);
  }
}

TEST(Convert, ChromaPlanesGrowAndBecomeRgb) {
  Image image;
  image.width = 5;
  image.height = 3;
  image.colourSpace = ColourSpace::kSycc;
  image.planes = {Plane(5, 3, 8), Plane(3, 2, 8), Plane(3, 2, 8)};
  for (std::size_t c = 0; c < 3; ++c) {
    image.planes[c].colour = static_cast<unsigned>(c + 1);
    if (c != 0) image.planes[c].xStep = image.planes[c].yStep = 2;
  }
  image.planes[0].Set(4, 2, 100);
  image.planes[1].Set(2, 1, 128);
  image.planes[2].Set(2, 1, 228);
  MakeOrdinary(image);
  EXPECT_EQ(image.colourSpace, ColourSpace::kSrgb);
  EXPECT_EQ(image.planes[1].Width(), 5U);
  EXPECT_EQ(image.planes[0].At(4, 2), 240U);  // 100 + 1.402 * 100
  EXPECT_EQ(image.planes[1].At(4, 2), 29U);   // 100 - 0.714 * 100
  EXPECT_EQ(image.planes[2].At(4, 2), 100U);
  EXPECT_EQ(image.planes[0].At(0, 0), 0U) << "clamped, not wrapped";
}

// Samples repeated, or placed half a step aside; sums that do not fit; a plane that ends early.
TEST(Convert, SamplesBetweenThoseOfASubsampledPlaneLieOnLines) {
  for (const unsigned depth : {8U, 16U, 32U}) {
    const std::uint32_t most = Plane(1, 1, depth).MaxValue();
    Image image;
    image.width = 7;
    image.height = 3;
    Plane& plane = image.planes.emplace_back(2U, 2U, depth);
    plane.xStep = 4;
    plane.yStep = 2;
    plane.Set(0, 0, most);
    plane.Set(1, 0, 8);
    plane.Set(1, 1, most);
    UndoSubsampling(image);
    const Plane& full = image.planes[0];
    const std::uint64_t sum = std::uint64_t{most} + 8;
    EXPECT_EQ(full.At(0, 0), most);
    EXPECT_EQ(full.At(2, 0), (sum + 1) / 2);
    EXPECT_EQ(full.At(4, 0), 8U);
    EXPECT_EQ(full.At(6, 0), 8U) << "nothing to go to";
    EXPECT_EQ(full.At(4, 1), (sum + 1) / 2);
    EXPECT_EQ(full.At(2, 1), (2 * std::uint64_t{most} + 8 + 2) / 4) << "the mean of all four";
    EXPECT_EQ(full.At(4, 2), most);
  }
}

TEST(Convert, PlanesComeInTheOrderOfTheirColours) {
  Image image = NoiseImage(2, 2, 3, 8, true);
  const Image ordered = image;
  std::swap(image.planes[0], image.planes[3]);  // opacity first, then 2, 3, 1
  image.planes.emplace_back(2U, 2U, 8U).role = ChannelRole::kOther;
  std::swap(image.planes[0], image.planes[4]);  // and another channel in front of everything
  OrderPlanes(image);
  EXPECT_EQ(image.planes.back().role, ChannelRole::kOther);
  image.planes.pop_back();
  ExpectSamePlanes(image, ordered);
}

TEST(Convert, DepthsThereAndBack) {
  for (const unsigned depth : {1U, 3U, 8U, 10U, 16U}) {
    const Image image = NoiseImage(40, 3, 1, depth);
    for (unsigned deeper = depth; deeper <= 32; ++deeper) {
      Image changed = image;
      ChangeDepth(changed, deeper);
      if (image.planes[0].At(0, 0) == image.planes[0].MaxValue()) {
        EXPECT_EQ(changed.planes[0].At(0, 0), changed.planes[0].MaxValue());
      }
      ChangeDepth(changed, depth);
      ExpectSamePlanes(image, changed);
    }
  }
  Image full = MakeImage(1, 1, 1, 16);
  full.planes[0].Set(0, 0, 65535);
  ChangeDepth(full, 8);
  EXPECT_EQ(full.planes[0].At(0, 0), 255U) << "white stays white";
}

TEST(Convert, RotationAgainstItsDefinition) {
  for (const unsigned depth : {8U, 16U, 20U}) {
    Image image = NoiseImage(5, 3, 1, depth);
    image.resolution = {100, 200};
    const Plane original = image.planes[0];
    Rotate(image, 90);
    ASSERT_EQ(image.width, 3U);
    EXPECT_EQ(image.resolution->x, 200);
    for (std::uint32_t y = 0; y < 3; ++y) {
      for (std::uint32_t x = 0; x < 5; ++x) {
        EXPECT_EQ(image.planes[0].At(2 - y, x), original.At(x, y));
      }
    }
    Image other = image;
    Rotate(other, 180);
    EXPECT_EQ(other.planes[0].At(0, 0), image.planes[0].At(2, 4));
    Rotate(image, 270);
    EXPECT_EQ(image.planes[0].At(4, 1), original.At(4, 1));
  }
  Image image = NoiseImage(2, 2, 1, 8);
  EXPECT_EQ(ErrorOf([&] { Rotate(image, 45); }).Kind(), Failure::kParameter);
}

TEST(Convert, DifferencesAreMeasured) {
  const Image a = MakeImage(10, 10, 3, 8);
  Image b = a;
  EXPECT_TRUE(Compare(a, b).identical);
  b.planes[1].Set(3, 3, 10);
  b.planes[1].Set(4, 3, 5);
  const Difference difference = Compare(a, b);
  EXPECT_FALSE(difference.identical);
  EXPECT_EQ(difference.planes[1].largest, 10U);
  EXPECT_EQ(difference.planes[1].count, 2U);
  EXPECT_TRUE(std::isinf(difference.planes[0].psnr));
  EXPECT_NEAR(difference.planes[1].psnr, 10 * std::log10(255.0 * 255 * 100 / 125), 1e-9);
  EXPECT_NEAR(difference.psnr, 10 * std::log10(255.0 * 255 * 300 / 125), 1e-9);
  EXPECT_EQ(ErrorOf([&] { Compare(a, MakeImage(10, 11, 3, 8)); }).Kind(), Failure::kParameter);
  EXPECT_EQ(ErrorOf([&] { Compare(a, MakeImage(10, 10, 3, 9)); }).Kind(), Failure::kParameter);
  EXPECT_EQ(ErrorOf([&] { Compare(a, MakeImage(10, 10, 1, 8)); }).Kind(), Failure::kParameter);
}

// The sliding sums against the definition, one window at a time.
TEST(Similarity, IsThatOfTheDefinition) {
  Image a = NoiseImage(13, 12, 1, 8), b = a;
  for (std::uint32_t y = 0; y < 12; ++y) b.planes[0].Set(y, y, 255 - b.planes[0].At(y, y));
  const auto weight = [](int i) { return std::exp(-(i - 5) * (i - 5) / 4.5); };
  double norm = 0, total = 0;
  for (int i = 0; i < 11; ++i) norm += weight(i);
  for (std::uint32_t y0 = 0; y0 < 2; ++y0) {
    for (std::uint32_t x0 = 0; x0 < 3; ++x0) {
      double ma = 0, mb = 0, aa = 0, bb = 0, ab = 0;
      for (int i = 0; i < 121; ++i) {
        const int x = i % 11, y = i / 11;
        const double w = weight(x) * weight(y) / (norm * norm);
        const double va = a.planes[0].At(x0 + unsigned(x), y0 + unsigned(y));
        const double vb = b.planes[0].At(x0 + unsigned(x), y0 + unsigned(y));
        ma += w * va, mb += w * vb, aa += w * va * va, bb += w * vb * vb, ab += w * va * vb;
      }
      const double c1 = 2.55 * 2.55, c2 = 7.65 * 7.65;
      total += (2 * ma * mb + c1) * (2 * (ab - ma * mb) + c2) / (ma * ma + mb * mb + c1) /
               (aa - ma * ma + bb - mb * mb + c2);
    }
  }
  EXPECT_NEAR(Ssim(a, b), total / 6, 1e-9);
  EXPECT_NEAR(Ssim(a, a), 1, 1e-12);
  EXPECT_NEAR(Ssim(NoiseImage(3, 40, 3, 16), NoiseImage(3, 40, 3, 16)), 1, 1e-12);
}

}  // namespace
