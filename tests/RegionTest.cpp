// Rectangles and resolutions of an image against the same cut out of the whole, from every source;
// and what they cost.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <optional>
#include <random>

#include "EncodeHost.h"
#include "HostMemory.h"
#include "VectorFile.h"
#include "VectorNames.h"

namespace {

using namespace test;
using Regions = test::LibraryTest;

struct Rectangle {
  KelLong x0, x1, y0, y1;
};

KelLong CeilOf(std::int64_t v, std::int64_t by, int shift) {
  v = (v + by - 1) / by;
  return static_cast<KelLong>((v + (std::int64_t{1} << shift) - 1) >> shift);
}

/// A decoder that shows rectangles in buffers of 16-bit samples, or of bytes.
class Viewer {
 public:
  explicit Viewer(const Bytes& data, Source source = Source::kMemory, std::size_t sampleBytes = 2)
      : stream(data, source != Source::kUnseekable), sampleBytes_(sampleBytes) {
    options_.InitToDefaults();
    block_ = {stream.bytes.data(), static_cast<KelULong>(stream.bytes.size())};
    code = image.InitDecoder(source == Source::kMemory ? nullptr : stream.Stream(),
                             source == Source::kMemory ? &block_ : nullptr, &options_, nullptr,
                             nullptr, KelAspectFull);
  }
  ~Viewer() {
    image.Die();
    options_.Die();
  }
  Viewer(const Viewer&) = delete;

  Rectangle Whole() {
    const KelImageGeometry& g = *image.GetGeometryParams();
    return {g.XOsiz, g.Xsiz, g.YOsiz, g.Ysiz};
  }
  /// The place of a rectangle in a component's samples.
  Rectangle Samples(const Rectangle& r, int c, int reduction) {
    const KelImageGeometry& g = *image.GetGeometryParams();
    return {CeilOf(r.x0, g.XRsiz[c], reduction), CeilOf(r.x1, g.XRsiz[c], reduction),
            CeilOf(r.y0, g.YRsiz[c], reduction), CeilOf(r.y1, g.YRsiz[c], reduction)};
  }
  /// The planes of the host's buffers.
  std::vector<Plane> Show(const Rectangle& r, int reduction) {
    const auto count = std::size_t(image.GetNumComponents());
    if (!frame_) frame_.emplace(std::vector<KelLong>(count, KelLong(8 * sampleBytes_)));
    // Earlier buffers stay: the same address would be the same request.
    std::vector<Bytes>& memory = buffers_.emplace_back(count);
    std::vector<Plane> planes(count);
    for (std::size_t c = 0; c < count; ++c) {
      const Rectangle s = Samples(r, int(c), reduction);
      planes[c].width = s.x1 - s.x0;
      planes[c].height = s.y1 - s.y0;
      memory[c].resize(std::size_t(planes[c].width * planes[c].height) * sampleBytes_, 0x55);
      frame_->buffers[c] = memory[c].data();
      frame_->strides[c] = static_cast<KelLong>(sampleBytes_) * planes[c].width;
    }
    EXPECT_EQ(image.SetDecodeReduction(reduction), KelOK);
    EXPECT_EQ(image.SetDecodeRegion(r.x0, r.x1, r.y0, r.y1), KelOK);
    EXPECT_EQ(image.GetNextFrame(nullptr, nullptr, false, false, &frame_->data), KelOK);
    for (std::size_t c = 0; c < count; ++c) {
      for (std::size_t i = 0; i < memory[c].size(); i += sampleBytes_) {
        std::uint16_t word = memory[c][i];
        if (sampleBytes_ == 2) std::memcpy(&word, &memory[c][i], 2);
        planes[c].samples.push_back(word);
      }
    }
    return planes;
  }

  HostStream stream;
  KelImage image;
  KelLong code;

 private:
  KelDecOpt options_;
  KelCompressedData block_;
  std::optional<test::FrameRequest> frame_;
  std::list<std::vector<Bytes>> buffers_;
  std::size_t sampleBytes_;
};

Plane Cut(const Plane& whole, const Rectangle& at, const Rectangle& r) {
  Plane part{r.x1 - r.x0, r.y1 - r.y0, {}};
  for (KelLong y = r.y0; y < r.y1; ++y) {
    for (KelLong x = r.x0; x < r.x1; ++x) part.samples.push_back(whole.At(x - at.x0, y - at.y0));
  }
  return part;
}

// A rectangle displaced by a sample, tiles left out, samples of another resolution.
TEST_F(Regions, EqualTheCutOfTheWhole) {
  std::mt19937 random(3);
  for (const std::string& name : VectorNames()) {
    const Bytes data = Vector(name);
    Viewer reference(data, Source::kMemory);
    if (reference.code != KelOK) continue;
    const Rectangle whole = reference.Whole();
    const KelLong levels = reference.image.GetMaxRes();
    for (int trial = 0; trial < 4; ++trial) {
      const int reduction = int(random() % 4) % (levels + 1);
      bool levelsAreEqual = true;
      for (KelLong t = 0; t < reference.image.GetNumTiles(); ++t) {
        levelsAreEqual = levelsAreEqual && reference.image.GetMaxRes(t) >= reduction;
      }
      if (!levelsAreEqual) continue;
      const std::vector<Plane> all = reference.Show(whole, reduction);
      for (const Source source : {Source::kMemory, Source::kSeekable, Source::kUnseekable}) {
        if (source == Source::kUnseekable && data[0] != 0xAB) continue;
        Viewer viewer(data, source);
        // A second view of the same decoder has to move what it has.
        for (int view = 0; view < (source == Source::kUnseekable ? 1 : 2); ++view) {
          const auto pick = [&](KelLong a, KelLong b) {
            return a + static_cast<KelLong>(random() % std::uint32_t(b - a));
          };
          Rectangle r = {pick(whole.x0, whole.x1), 0, pick(whole.y0, whole.y1), 0};
          r.x1 = pick(r.x0, whole.x1) + 1;
          r.y1 = pick(r.y0, whole.y1) + 1;
          const std::vector<Plane> shown = viewer.Show(r, reduction);
          for (std::size_t c = 0; c < all.size(); ++c) {
            ASSERT_EQ(shown[c], Cut(all[c], reference.Samples(whole, int(c), reduction),
                                    reference.Samples(r, int(c), reduction)))
                << name << " component " << c << ", reduction " << reduction << ", source "
                << int(source);
          }
        }
      }
    }
  }
}

// Samples that go to the host alone, at the end of a row of its buffer too, and are wanted again at
// another place; sums of single precision that are used where they must not be, or are wrong.
TEST_F(Regions, MannersGiveTheSameSamplesOrNearlySo) {
  for (const std::string& name : VectorNames()) {
    const Bytes data = Vector(name);
    Viewer exact(data, Source::kMemory, 1);
    if (exact.code != KelOK) continue;
    const Rectangle whole = exact.Whole();
    const Rectangle part = {whole.x0 + 1, whole.x1, whole.y0, whole.y1 - 1};
    if (part.x0 >= part.x1 || part.y0 >= part.y1) continue;
    for (const bool single : {false, true}) {
      Viewer fast(data, Source::kMemory, 1);
      EXPECT_EQ(fast.image.SetDecodeManner(single, true), KelOK);
      for (const Rectangle& r : {whole, part}) {
        const std::vector<Plane> wanted = exact.Show(r, 0), got = fast.Show(r, 0);
        for (std::size_t c = 0; c < wanted.size(); ++c) {
          std::size_t numOff = 0;
          for (std::size_t i = 0; i < got[c].samples.size(); ++i) {
            const auto off = std::abs(got[c].samples[i] - wanted[c].samples[i]);
            ASSERT_LE(off, single ? 1 : 0) << name << " component " << c << " sample " << i;
            numOff += off != 0 ? 1 : 0;
          }
          EXPECT_LE(numOff, got[c].samples.size() / 1000) << name << " component " << c;
        }
      }
    }
  }
}

// Records, rows or images of a tile that are made anew for the next one beyond what is known: lists
// of its tile-parts' headers, and records of its components.
TEST_F(Regions, FurtherTilesRequestLittle) {
  EncodeHost host(MakePicture(256, 256, 3, 8), 64, 64, {.irreversible = 1, .transform = true});
  Viewer viewer(host.Encode(), Source::kMemory, 1);
  ASSERT_EQ(viewer.code, KelOK);
  EXPECT_EQ(viewer.image.SetDecodeManner(true, true), KelOK);
  viewer.Show({0, 256, 0, 128}, 0);
  const std::size_t before = memory.Requests();
  viewer.Show({0, 256, 128, 256}, 0);
  EXPECT_LE(memory.Requests() - before, 8U * 96);
}

TEST_F(Regions, HalfSizeIsTheAspectsHalf) {
  const Bytes data = Vector("rev53_rgb_rct");
  const Decoded half =
      test::Decode(data, {.aspect = KelAspectHalf, .useHostBuffers = true, .outBits = 16});
  Viewer viewer(data, Source::kMemory);
  EXPECT_EQ(viewer.Show(viewer.Whole(), 1), half.hostPlanes);
  EXPECT_EQ(viewer.image.SetDecodeReduction(33), KelErrBadParam);
  EXPECT_EQ(viewer.image.SetDecodeRegion(5, 5, 0, 9), KelErrBadParam);
  EXPECT_EQ(viewer.image.SetDecodeRegion(1 << 20, 2 << 20, 0, 9), KelErrBadParam);
}

// What is not shown must be neither read nor held; what is released must be given back.
TEST_F(Regions, CostWhatTheyShow) {
  EncodeHost host(MakePicture(1024, 1024, 3, 8, Content::kNoise), 128, 128,
                  {.irreversible = 0, .transform = true});
  const Bytes data = host.Encode();
  {
    Viewer viewer(data, Source::kSeekable);
    const std::size_t header = viewer.stream.bytesRead;
    memory.ResetPeak();
    const std::size_t before = memory.Bytes();
    viewer.Show({512, 640, 512, 640}, 0);
    // One tile of 64, and a look at each of those before it.
    EXPECT_LT(viewer.stream.bytesRead - header, data.size() / 64 + 64 * 4096 + 300000);
    EXPECT_LT(memory.PeakBytes() - before, 2000000U);
    EXPECT_EQ(viewer.image.ReleaseTile(36), KelOK);
    EXPECT_EQ(viewer.image.ReleaseTile(64), KelErrBadParam);
    EXPECT_TRUE(viewer.image.GetTileComponent(36, 0)->GetOutputImage()->GetImageBuffer() ==
                nullptr);
    EXPECT_FALSE(viewer.image.TileIsComplete(36));
  }
  Viewer viewer(data, Source::kSeekable);
  const std::size_t header = viewer.stream.bytesRead;
  viewer.Show(viewer.Whole(), 4);
  EXPECT_LT(viewer.stream.bytesRead - header, data.size() / 4);
  EXPECT_TRUE(viewer.image.TileIsComplete(63));
}

}  // namespace
