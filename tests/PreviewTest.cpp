// Previews and zoom through the public interface: a preview must be what decoding the coded tile
// gives, at every resolution, and must leave no trace in what is coded.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "EncodeHost.h"
#include "HostMemory.h"
#include "KelRegion.h"
#include "WaveletTruth.h"
#include "api/KelApiGlueImage.h"
#include "base/KelRaise.h"
#include "decode/KelImageDecode.h"

namespace {

using kel::Box;
using namespace test;
using Preview = test::LibraryTest;
using Zoom = test::LibraryTest;

/// The first columns of each row of an image of samples of a depth.
Plane SamplesOf(const KelImageData* image, KelLong depth, KelLong columns) {
  if (image == nullptr || image->ImageBuffer == nullptr) return {};
  Plane plane{columns, image->Height, {}};
  const auto* row = static_cast<const std::uint8_t*>(KelGetMemObj()->LockBuf(image->ImageBuffer));
  for (KelLong y = 0; y < image->Height; ++y, row += (std::int64_t{image->Width} * depth + 7) / 8) {
    for (KelLong x = 0; x < columns; ++x) {
      plane.samples.push_back(test::SampleAt(row, x, *image, depth));
    }
  }
  KelGetMemObj()->UnlockBuf(image->ImageBuffer);
  return plane;
}

Plane Crop(const Plane& plane, const Box& box) {
  Plane part{box.Width(), box.Height(), {}};
  for (std::int64_t y = box.y0; y < box.y1; ++y) {
    const auto row = plane.samples.begin() + y * plane.width;
    part.samples.insert(part.samples.end(), row + box.x0, row + box.x1);
  }
  return part;
}

/// -1 for planes of different sizes.
std::int64_t LargestDifference(const Plane& a, const Plane& b) {
  if (a.width != b.width || a.height != b.height) return -1;
  std::int64_t largest = 0;
  for (std::size_t i = 0; i < a.samples.size(); ++i) {
    largest = std::max(largest, std::abs(a.samples[i] - b.samples[i]));
  }
  return largest;
}

/// An encoder that has been initialised and wrote its headers.
struct Encoding {
  explicit Encoding(EncodeHost& from) : host(from) { EXPECT_EQ(host.Init(stream), KelOK); }
  ~Encoding() { host.encoder.Die(); }
  Encoding(const Encoding&) = delete;

  Plane Shown(KelLong tile, KelLong c) {
    const KelTileComponent& record = *host.encoder.GetTileComponent(tile, c);
    EXPECT_EQ(record.GetOutputImage(), record.GetProgData());
    const KelImageData* image = record.GetOutputImage();
    const KelLong depth = host.image.depths[static_cast<std::size_t>(c)];
    return image != nullptr ? SamplesOf(image, depth, image->Width) : Plane{};
  }
  KelLong Preview(KelLong tile, const Box& r, KelLong resolution, bool luminance = false) {
    return host.encoder.GetPreviewData(tile, Edge(r.x0), Edge(r.x1), Edge(r.y0), Edge(r.y1),
                                       resolution, luminance);
  }
  KelImageData* Zoom(KelLong tile, KelLong c, float factor, const Box& r) {
    width = height = -1;
    return host.encoder.Zoom(tile, c, factor, Edge(r.x0), Edge(r.x1), Edge(r.y0), Edge(r.y1),
                             &width, &height);
  }
  Plane Zoomed(KelLong tile, KelLong c, float factor, const Box& r) {
    KelImageData* image = Zoom(tile, c, factor, r);
    EXPECT_EQ(image->Width, width);
    EXPECT_EQ(image->Height, height);
    const KelLong depth = host.image.depths[static_cast<std::size_t>(c)];
    Plane plane = SamplesOf(image, depth, image->Width);
    plane.width = width;
    plane.height = height;
    image->FreeImageBuffer();
    KelGetMemObj()->Free(image);
    return plane;
  }

  static KelLong Edge(std::int64_t v) { return static_cast<KelLong>(v); }

  EncodeHost& host;
  HostStream stream;
  KelLong width = 0, height = 0;
};

constexpr Box kEverything = {-100, 100000, -100, 100000};

/// What the decoder gives of every component of every tile of 8 bits, so many levels below full
/// size, by its general path.
std::vector<std::vector<Plane>> DecodeTiles(const Bytes& file, int reduction,
                                            bool skipConversion = false) {
  std::vector<std::vector<Plane>> tiles;
  kel::ImageHandle* handle = nullptr;
  kel::ImageState& state = kel::EnsureState(handle);
  KelDecOpt options;
  options.InitToDefaults();
  KelCompressedData block{file.data(), static_cast<KelULong>(file.size())};
  EXPECT_EQ(kel::InitDecoder(state, nullptr, &block, &options, nullptr, nullptr, KelAspectFull),
            KelOK);
  const KelLong count = state.map.numComps;
  FrameRequest frame(std::vector<KelLong>(static_cast<std::size_t>(count), 8));
  std::fill(frame.inBits.begin(), frame.inBits.end(), 0);
  std::fill_n(state.map.dec->reductions, count, reduction);
  EXPECT_EQ(kel::GetNextFrame(state, &block, skipConversion, false, &frame.data), KelOK);
  for (KelLong t = 0; t < state.map.numTiles; ++t) {
    tiles.emplace_back();
    for (KelLong c = 0; c < count; ++c) {
      const kel::TileCompRecord& record = state.map.tiles[t].comps[c];
      tiles.back().push_back(SamplesOf(record.shown.outputImage, 8,
                                       static_cast<KelLong>(record.dec->resolutionBox.Width())));
    }
  }
  kel::ReleaseState(handle);
  options.Die();
  return tiles;
}

/// The part of a component's preview that a rectangle of the canvas shows.
Box PartOf(const Plane& whole, const KelTileGeometry& t, const Box& r) {
  const auto edge = [](std::int64_t v, KelLong sub, KelLong first, KelLong end, std::int64_t size) {
    return ((v + sub - 1) / sub - first) * size / (end - first);
  };
  return {
      edge(r.x0, t.XRsiz, t.X0, t.X1, whole.width), edge(r.x1, t.XRsiz, t.X0, t.X1, whole.width),
      edge(r.y0, t.YRsiz, t.Y0, t.Y1, whole.height), edge(r.y1, t.YRsiz, t.Y0, t.Y1, whole.height)};
}

/// Some rectangle in the first component of a tile, which is not subsampled.
Box SomePart(const KelTileGeometry& t, std::mt19937& random) {
  const auto pick = [&](std::int64_t from, std::int64_t to) {
    return from + static_cast<std::int64_t>(random()) % (to - from);
  };
  const std::int64_t x0 = pick(t.X0, t.X1), y0 = pick(t.Y0, t.Y1);
  return {x0, pick(x0, t.X1) + 1, y0, pick(y0, t.Y1) + 1};
}

/// Any part of a preview must be exactly what it is in the whole.
void CheckPart(Encoding& encoding, KelLong t, KelLong r, const std::vector<Plane>& whole,
               const Box& rectangle) {
  const KelLong code = encoding.Preview(t, rectangle, r);
  if (code != KelOK) {
    // Nothing of a small rectangle may be left at a low resolution.
    EXPECT_EQ(code, KelErrBadParam);
    EXPECT_LT(std::min(rectangle.Width(), rectangle.Height()), 64);
    return;
  }
  for (std::size_t c = 0; c < whole.size(); ++c) {
    const auto component = static_cast<KelLong>(c);
    const KelTileGeometry geometry(encoding.host.options.GeomParams, component, t);
    const Box shown = PartOf(whole[c], geometry, rectangle);
    EXPECT_TRUE(encoding.Shown(t, component) ==
                (shown.IsEmpty() ? Plane{} : Crop(whole[c], shown)));
  }
}

/// Previews of every tile at every resolution, whole and in rectangles, against the decoder's
/// general path; fast paths of the full size round differently.
void CheckAgainstDecoder(EncodeHost& host, std::size_t components, std::mt19937& random) {
  const Bytes file = host.Encode();
  Encoding encoding(host);
  const KelLong levels = host.options.NumLevels;
  for (KelLong r = levels; r >= 0; --r) {
    const auto decoded = DecodeTiles(file, levels - r);
    for (KelLong t = 0; t < host.encoder.GetNumTiles(); ++t) {
      SCOPED_TRACE("resolution " + std::to_string(r) + ", tile " + std::to_string(t));
      ASSERT_EQ(r == levels ? host.encoder.GetPreviewData(t) : encoding.Preview(t, kEverything, r),
                KelOK);
      std::vector<Plane> whole;
      for (std::size_t c = 0; c < components; ++c) {
        whole.push_back(encoding.Shown(t, static_cast<KelLong>(c)));
        EXPECT_TRUE(whole[c] == decoded[static_cast<std::size_t>(t)].at(c)) << c;
      }
      const KelTileGeometry box(host.options.GeomParams, 0, t);
      for (int i = 0; i < 4; ++i) CheckPart(encoding, t, r, whole, SomePart(box, random));
    }
  }
}

/// A picture whose last component marks a region.
Picture WithRegion(Picture image) {
  Plane& mask = image.planes.back();
  for (std::int64_t i = 0; i < mask.width * mask.height; ++i) {
    const std::int64_t x = i % mask.width - 30, y = i / mask.width - 25;
    mask.At(x + 30, y + 25) = x * x + y * y < 150 ? 9 : 0;
  }
  return image;
}

// Steps, weights, levels or colours other than those of coding; phases that begin at 0; regions.
TEST_F(Preview, IsWhatDecodingGives) {
  std::mt19937 random(1);
  for (const float quality : {0.0F, 10.0F, 50.0F, 90.0F, 100.0F}) {
    for (const int kind : {0, 1, 2}) {
      SCOPED_TRACE("quality " + std::to_string(quality));
      const std::size_t components = kind == 0 ? 1 : 3;
      EncodeHost host(MakePicture(83, 71, components, 8), 37, 29,
                      {.irreversible = quality > 0 ? 1 : 0,
                       .quality = quality,
                       .transform = kind == 2,
                       .levels = 4});
      CheckAgainstDecoder(host, components, random);
    }
  }
  for (const bool transform : {false, true}) {
    EncodeHost chosen(MakePicture(83, 71, 3, 8), 83, 37,
                      {.quality = 30, .transform = transform, .levels = 3, .choose = true});
    CheckAgainstDecoder(chosen, 3, random);
    EncodeHost host(WithRegion(MakePicture(83, 71, {8, 8, 8, 8}, {1, 1, 1, 2})), 83, 37,
                    {.quality = 10, .transform = transform, .levels = 3, .colors = 3, .mask = 3});
    CheckAgainstDecoder(host, 3, random);
  }
}

// Windows around a rectangle that are a sample too small; subsampled components.
TEST_F(Preview, PartsOfLargeTilesAndOfSubsampledComponents) {
  std::mt19937 random(2);
  for (const KelLong irreversible : {0, 1}) {
    for (const KelLong levels : {0, 1, 3}) {
      EncodeHost host(MakePicture(411, 200, 1, 8, Content::kNoise), 203, 200,
                      {.irreversible = irreversible, .levels = levels});
      CheckAgainstDecoder(host, 1, random);
    }
    EncodeHost host(MakePicture(75, 61, {8, 8, 8}, {1, 2, 3}), 33, 29,
                    {.irreversible = irreversible, .levels = 2});
    CheckAgainstDecoder(host, 3, random);
  }
}

/// The first columns and rows of cells as samples.
template <class Convert>
Plane PlaneOf(const std::vector<double>& cells, std::int64_t stride, std::int64_t width,
              std::int64_t height, Convert convert) {
  Plane plane{width, height, {}};
  for (std::int64_t i = 0; i < width * height; ++i) {
    plane.samples.push_back(
        convert(cells[static_cast<std::size_t>(i / width * stride + i % width)]));
  }
  return plane;
}

/// A plane's 5/3 coefficients.
std::vector<double> CoefficientsOf(const Plane& plane, double offset, int levels) {
  std::vector<double> cells(plane.samples.begin(), plane.samples.end());
  for (double& v : cells) v -= offset;
  test::TransformTruly(cells, {0, plane.width, 0, plane.height}, levels, {false, false});
  return cells;
}

// Channels shown that were not asked for, or with the wrong filter, offset or range.
TEST_F(Preview, TransparencyAndExtraChannels) {
  const std::vector<KelLong> depths = {8, 8, 8, 16, 8, 12};
  EncodeHost host(MakePicture(43, 31, depths, {1, 1, 1, 1, 1, 2}),
                  {.transform = true, .colors = 3, .transparency = 3});
  Encoding encoding(host);
  for (const bool transparency : {false, true}) {
    for (const bool extras : {true, false}) {
      host.encoder.SetAlphaChannelsForPreview(transparency, extras);
      EXPECT_EQ(host.encoder.GetPreviewData(0), KelOK);
      for (KelLong c = 0; c < 6; ++c) {
        const bool isShown = c < 3 || (c == 3 ? transparency : extras);
        const Plane shown = encoding.Shown(0, c),
                    &given = host.image.planes[static_cast<std::size_t>(c)];
        EXPECT_EQ(shown.samples.empty(), !isShown) << c;
        EXPECT_TRUE(c < 3 || !isShown || shown == given) << c;
      }
    }
  }
  host.encoder.SetAlphaChannelsForPreview(true, true);
  EXPECT_EQ(encoding.Preview(0, {5, 21, 3, 20}, 5), KelOK);
  EXPECT_TRUE(encoding.Shown(0, 3) == Crop(host.image.planes[3], {5, 21, 3, 20}));
  EXPECT_TRUE(encoding.Shown(0, 5) == Crop(host.image.planes[5], {3, 11, 2, 10}));
  EXPECT_EQ(encoding.Preview(0, kEverything, 4), KelOK);
  for (const std::size_t c : {3U, 4U, 5U}) {
    const Plane& given = host.image.planes[c];
    const double half = std::ldexp(1.0, depths[c] - 1), most = 2 * half - 1;
    const std::vector<double> cells = CoefficientsOf(given, half, 1);
    const Plane expected = PlaneOf(cells, given.width, (given.width + 1) / 2,
                                   (given.height + 1) / 2, [&](double cell) {
                                     const double v = std::clamp(cell + half, 0.0, most);
                                     return std::lround(depths[c] == 8 ? v : v * half / most);
                                   });
    EXPECT_LE(LargestDifference(encoding.Shown(0, static_cast<KelLong>(c)), expected),
              depths[c] == 8 ? 0 : 1);
    EXPECT_GT(encoding.Shown(0, static_cast<KelLong>(c)).width, 0);
  }
}

// The budget of a component alone where coding goes by three; colours fetched but not shown.
TEST_F(Preview, LuminanceAloneAndOtherDepths) {
  EncodeHost host(MakePicture(43, 31, 3, 8), {.quality = 10, .transform = true});
  const auto decoded = DecodeTiles(host.Encode(), 1, true);
  {
    Encoding encoding(host);
    ASSERT_EQ(encoding.Preview(0, kEverything, 4, true), KelOK);
    EXPECT_EQ(LargestDifference(encoding.Shown(0, 0), decoded[0][0]), 0);
    EXPECT_TRUE(encoding.Shown(0, 1).samples.empty());
  }
  // Depths other than 8 are scaled to half their range.
  const std::vector<KelLong> depthSets[] = {{1}, {5}, {12}, {16}, {16, 16, 16}, {8, 10, 12}};
  for (const std::vector<KelLong>& depths : depthSets) {
    EncodeHost deep(MakePicture(23, 17, depths, std::vector<KelLong>(depths.size(), 1)),
                    {.irreversible = 0, .transform = true});
    Encoding encoding(deep);
    ASSERT_EQ(deep.encoder.GetPreviewData(0), KelOK);
    for (std::size_t c = 0; c < depths.size(); ++c) {
      Plane expected = deep.image.planes[c];
      const std::int64_t most = (std::int64_t{1} << depths[c]) - 1, half = (most + 1) / 2;
      for (std::int64_t& v : expected.samples) {
        v = depths[c] == 8 ? v : (2 * v * half + most) / (2 * most);
      }
      EXPECT_TRUE(encoding.Shown(0, static_cast<KelLong>(c)) == expected) << depths[c];
    }
  }
}

// Simulated coding: steps that are not 1; a region that is scaled the wrong way.
TEST_F(Preview, SimulatedCoding) {
  EncodeHost grey(MakePicture(43, 31, 1, 8), {.quality = 100});
  {
    Encoding encoding(grey);
    ASSERT_EQ(grey.encoder.GetPreviewData(0), KelOK);
    const Plane best = encoding.Shown(0, 0);
    grey.options.RateMode = 3;
    grey.options.TargetQuality = 1;
    ASSERT_EQ(grey.encoder.GetPreviewData(0), KelOK);
    EXPECT_TRUE(encoding.Shown(0, 0) == best);
  }
  // 8 bits, 2 levels of bands, 2 guard bits: 11 bit-planes, so 9 up inside and 2 down outside.
  EncodeHost host(WithRegion(MakePicture(61, 53, 2, 8)),
                  {.irreversible = 0, .levels = 2, .colors = 1, .mask = 1});
  Encoding encoding(host);
  host.options.RateMode = 3;
  ASSERT_EQ(host.encoder.GetPreviewData(0), KelOK);
  const Plane& given = host.image.planes[0];
  const Box box = {0, 61, 0, 53};
  kel::RegionSamples region{kel::OwnedArray<std::uint8_t>::Make(61 * 53), box, 1, 1};
  for (std::size_t i = 0; i < 61 * 53; ++i) region.bytes[i] = host.image.planes[1].samples[i] != 0;
  const kel::RegionMarks marks(region, 2, false);
  std::vector<double> cells = CoefficientsOf(given, 128, 2);
  for (int b = 0; b < kel::NumSubbands(2); ++b) {
    const Box band = kel::SubbandBox(box, 2, b);
    const kel::CellOffset at = kel::MallatOffset(box, 2, b);
    for (std::int64_t i = 0; i < band.Width() * band.Height(); ++i) {
      const std::int64_t x = i % band.Width(), y = i / band.Width();
      double& v = cells[static_cast<std::size_t>((at.row + y) * 61 + at.column + x)];
      v = marks.Row(b, y)[x] != 0 ? v * 512 : std::trunc(v / 4);
    }
  }
  test::TransformTruly(cells, box, 2, {true, false});
  EXPECT_TRUE(encoding.Shown(0, 0) == PlaneOf(cells, 61, 61, 53, [](double v) {
                return static_cast<std::int64_t>(std::clamp(v + 128, 0.0, 255.0));
              }));
}

/// The samples of a rectangle of a plane as the analysis or the synthesis takes and gives them.
Plane TrulyZoomed(const Plane& from, const Box& part, int levels, bool in, double most) {
  const std::int64_t times = in ? std::int64_t{1} << levels : 1;
  const Box box = {part.x0 * times, part.x1 * times, part.y0 * times, part.y1 * times};
  std::vector<double> cells(static_cast<std::size_t>(box.Width() * box.Height()));
  for (std::int64_t i = 0; i < part.Width() * part.Height(); ++i) {
    const std::int64_t x = i % part.Width(), y = i / part.Width();
    cells[static_cast<std::size_t>(y * box.Width() + x)] =
        static_cast<double>(from.At(part.x0 + x, part.y0 + y));
  }
  test::TransformTruly(cells, box, levels, {in, true});
  const Box result = in ? box : kel::ReduceBox(box, levels);
  return PlaneOf(cells, box.Width(), result.Width(), result.Height(),
                 [&](double v) { return std::lround(std::clamp(v, 0.0, most)); });
}

// Sizes by the factor instead of powers of two; phases; offsets; edges that are not mirrored.
TEST_F(Zoom, AgreesWithAPlainEvaluation) {
  struct {
    float factor;
    int levels;
  } const cases[] = {{0.1F, 4}, {0.25F, 2}, {0.3F, 2}, {0.5F, 1}, {0.75F, 1}, {1.0F, 0},
                     {1.5F, 1}, {2.0F, 1},  {3.0F, 2}, {4.0F, 2}, {8.0F, 3}};
  for (const KelLong depth : {8, 16}) {
    EncodeHost host(MakePicture(61, 45, {depth, depth}, {1, 2}, Content::kNoise), 37, 29);
    Encoding encoding(host);
    for (const KelLong c : {0, 1}) {
      // In tile 3, which begins at (37, 29), so with sample (19, 15) of the second component.
      const Box canvas = c == 0 ? Box{40, 57, 34, 45} : Box{43, 61, 33, 45};
      const Box part = c == 0 ? Box{3, 20, 5, 16} : Box{3, 12, 2, 8};
      const KelTileGeometry tile(host.options.GeomParams, c, 3);
      const Plane source = Crop(host.image.planes[static_cast<std::size_t>(c)],
                                {tile.X0, tile.X1, tile.Y0, tile.Y1});
      for (const auto& [factor, levels] : cases) {
        const Plane expected =
            TrulyZoomed(source, part, levels, factor > 1, depth == 8 ? 255 : 32768);
        const std::int64_t difference =
            LargestDifference(encoding.Zoomed(3, c, factor, canvas), expected);
        EXPECT_TRUE(difference == 0 || difference == 1) << factor << ": " << difference;
      }
    }
  }
}

// Sizes rounded otherwise, or for what lies outside the tile; a depth that is not shown.
TEST_F(Zoom, Sizes) {
  EncodeHost host(MakePicture(40, 30, {8, 16, 12}, {1, 1, 1}));
  Encoding encoding(host);
  const auto sizeOf = [&](KelLong c, float factor, const Box& box) {
    const bool isShown = !encoding.Zoomed(0, c, factor, box).samples.empty();
    return std::tuple(encoding.width, encoding.height, isShown);
  };
  EXPECT_EQ(sizeOf(0, 2, {0, 4, 0, 3}), std::tuple(8, 6, true));
  EXPECT_EQ(sizeOf(0, 0.25F, {0, 9, 0, 9}), std::tuple(3, 3, true));
  EXPECT_EQ(sizeOf(0, 0.25F, {1, 4, 0, 9}), std::tuple(0, 3, false)) << "no multiple of 4 in it";
  EXPECT_EQ(sizeOf(0, 3, {36, 50, -5, 2}), std::tuple(16, 8, true)) << "clamped to the tile";
  EXPECT_EQ(sizeOf(2, 3, {0, 4, 0, 3}), std::tuple(16, 12, false)) << "12 bits";
}

// A plane that is held is what is zoomed; one of another size is not.
TEST_F(Zoom, ShowsThePreviewWhenItIsWhole) {
  EncodeHost host(MakePicture(40, 30, 1, 8), {.quality = 1});
  Encoding encoding(host);
  const Box part = {3, 20, 5, 17};
  ASSERT_EQ(encoding.Preview(0, part, 5), KelOK);
  EXPECT_TRUE(encoding.Zoomed(0, 0, 1, part) == Crop(host.image.planes[0], part));
  ASSERT_EQ(host.encoder.GetPreviewData(0), KelOK);
  const Plane coarse = Crop(encoding.Shown(0, 0), part);
  EXPECT_FALSE(coarse == Crop(host.image.planes[0], part));
  EXPECT_TRUE(encoding.Zoomed(0, 0, 1, part) == coarse);
}

KelLong ZoomCode(Encoding& encoding, KelLong tile, KelLong c, float factor, const Box& box) {
  try {
    KelImageData* image = encoding.Zoom(tile, c, factor, box);
    image->FreeImageBuffer();
    KelGetMemObj()->Free(image);
    return KelOK;
  } catch (const KelException& failure) {
    EXPECT_STREQ(failure.srcFile,
                 failure.errCode == 99 ? kel::kModuleCompTransform : kel::kModulePreview);
    EXPECT_EQ(failure.errLevel, 3);
    return failure.errCode;
  }
}

TEST_F(Preview, RefusesWhatThereIsNot) {
  EncodeHost host(MakePicture(40, 30, 1, 8), 20, 30);
  KelImage nothing;
  EXPECT_EQ(nothing.GetPreviewData(0), KelErrUnexpected);
  EXPECT_THROW(nothing.Zoom(0, 0, 1, 0, 1, 0, 1, nullptr, nullptr), KelException);
  Encoding encoding(host);
  for (const KelLong t : {-1, 2}) EXPECT_EQ(host.encoder.GetPreviewData(t), KelErrBadParam);
  for (const KelLong r : {-1, 6}) EXPECT_EQ(encoding.Preview(0, kEverything, r), KelErrBadParam);
  const Box empties[] = {
      {5, 5, 0, 9}, {9, 5, 0, 9}, {20, 40, 0, 30}, {0, 20, 30, 60}, {-9, 0, 0, 9}};
  for (const Box& empty : empties) {
    EXPECT_EQ(encoding.Preview(0, empty, 5), KelErrBadParam);
    EXPECT_EQ(ZoomCode(encoding, 0, 0, 1, empty), KelErrBadParam);
  }
  EXPECT_STREQ(host.encoder.GetErrorDetails().srcFile, kel::kModulePreview);
  EXPECT_EQ(host.encoder.GetErrorDetails().errLevel, 3);
  constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  for (const float factor : {0.0F, -1.0F, kNaN, kInfinity, 32769.0F, 1.0F / 32769.0F}) {
    EXPECT_EQ(ZoomCode(encoding, 0, 0, factor, kEverything), KelErrBadParam) << factor;
  }
  EXPECT_EQ(ZoomCode(encoding, 2, 0, 1, kEverything), KelErrBadParam);
  EXPECT_EQ(ZoomCode(encoding, 0, 1, 1, kEverything), KelErrBadParam);
  EXPECT_EQ(ZoomCode(encoding, 0, 0, 32768, kEverything), KelErrNoMemory);
  EXPECT_EQ(host.encoder.GetNumComponentsDoneInProgPlay(), 30);
  // The host fails, or has nothing.
  for (const KelLong error : {99, 0}) {
    host.fetchError = error;
    host.failFetch = host.fetches + 1;
    EXPECT_EQ(host.encoder.GetPreviewData(0), error);
    EXPECT_TRUE(encoding.Shown(0, 0).samples.empty());
    host.failFetch = host.fetches + 1;
    EXPECT_EQ(ZoomCode(encoding, 0, 0, 2, kEverything), error);
  }
  EXPECT_EQ(host.encoder.GetPreviewData(0), KelOK);
}

// Traces of a preview in what is coded afterwards; images that outlive the coding of their tile.
TEST_F(Preview, LeavesNoTraceInTheFile) {
  for (const KelLong irreversible : {0, 1}) {
    EncodeHost host(WithRegion(MakePicture(61, 45, 4, 8)), 37, 29,
                    {.irreversible = irreversible, .transform = true, .colors = 3, .mask = 3});
    const Bytes plain = host.Encode();
    Encoding encoding(host);
    host.encoder.SetAlphaChannelsForPreview(true, true);
    for (KelLong t = 0; t < 4; ++t) {
      host.options.TargetQuality = 3;
      EXPECT_EQ(encoding.Preview(3 - t, kEverything, t), KelOK);
      EXPECT_EQ(encoding.Preview(t, kEverything, 1, true), KelOK);
      encoding.Zoomed(t, 1, 2, kEverything);
      EXPECT_EQ(host.encoder.CompressImage(), KelOK);
      EXPECT_EQ(host.encoder.GetPreviewData(t), KelOK);
      host.options.TargetQuality = 40;
      EXPECT_EQ(host.encoder.CompressTile(t), KelOK);
      EXPECT_TRUE(encoding.Shown(t, 0).samples.empty());
    }
    EXPECT_EQ(encoding.stream.bytes, plain);
  }
}

TEST_F(Preview, RefusedMemory) {
  memory.RefuseLocksToo();
  for (const KelLong irreversible : {0, 1}) {
    EncodeHost host(WithRegion(MakePicture(61, 45, 5, 8)), 37, 29,
                    {.irreversible = irreversible, .transform = true, .colors = 3, .mask = 4});
    Encoding encoding(host);
    host.encoder.SetAlphaChannelsForPreview(true, true);
    for (const KelLong mode : {5, 3}) {
      host.options.RateMode = mode;
      const auto preview = [&] { return encoding.Preview(1, {40, 55, 3, 20}, 5); };
      ASSERT_EQ(preview(), KelOK);
      ASSERT_EQ(host.encoder.CompressImage(), KelOK);
      const std::size_t before = memory.Outstanding();
      for (std::size_t n = 1; n == 1 || memory.HasRefused(); ++n) {
        memory.RefuseRequest(n);
        const KelLong code = preview();
        ASSERT_EQ(code, memory.HasRefused() ? KelErrNoMemory : KelOK) << "request " << n;
        // The coding planes, which CompressImage released, may be there again.
        EXPECT_TRUE(code == KelOK || memory.Outstanding() <= before + host.image.Count())
            << "request " << n;
        EXPECT_TRUE(n > 6 || memory.HasRefused());
      }
      memory.RefuseRequest(0);
      EXPECT_EQ(host.encoder.GetErrorDetails().errLevel, 3);
    }
    for (const float factor : {0.5F, 1.0F, 4.0F}) {
      test::SweepRefusals(memory, [&] { return ZoomCode(encoding, 2, 0, factor, kEverything); });
    }
    EXPECT_EQ(host.encoder.CompressTile(0), KelOK);
  }
}

}  // namespace
