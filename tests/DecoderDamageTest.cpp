// Decoding of damaged and incomplete data: what one source can still make of them, every source
// does, and nothing is lost that need not be. And hosts that take away what the decoder works with.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "DecodeHost.h"
#include "HostMemory.h"
#include "HostStream.h"
#include "VectorFile.h"

namespace {

using namespace test;
using DecoderDamage = test::LibraryTest;
using DecoderHosts = test::LibraryTest;

/// Where the first tile-part's packets begin.
std::size_t FirstPacket(const Bytes& data) {
  const std::uint8_t SOD[] = {0xAB, 0x93};
  return std::size_t(std::search(data.begin(), data.end(), SOD, SOD + 2) - data.begin()) + 2;
}

struct Decoder : MemoryDecoder {
  explicit Decoder(const Bytes& bytes) : MemoryDecoder(bytes) { EXPECT_EQ(code, KelOK); }
  KelLong Frame(std::size_t arrived) {
    block.length = static_cast<KelULong>(arrived);
    return image.GetNextFrame(&block, nullptr, false, true, nullptr);
  }
  /// The 32-bit samples of component 0 in tile 0.
  std::vector<std::int32_t> Samples() {
    const KelImageData& out = *image.GetTileComponent(0, 0)->GetOutputImage();
    std::vector<std::int32_t> samples(std::size_t(out.Width) * std::size_t(out.Height));
    std::memcpy(samples.data(), KelGetMemObj()->LockBuf(out.GetImageBuffer()), 4 * samples.size());
    KelGetMemObj()->UnlockBuf(out.GetImageBuffer());
    return samples;
  }
};

// The bands tell where they end, so that a length which points behind its tile-part costs nothing.
TEST_F(DecoderDamage, APacketLengthTooLargeLosesNothing) {
  Bytes data = Vector("tile_coc_qcc");
  const Decoded whole = test::Decode(data);
  data[FirstPacket(data)] = 0x7F;
  for (const Source source : {Source::kMemory, Source::kSeekable, Source::kUnseekable}) {
    const Decoded damaged = test::Decode(data, {.source = source});
    EXPECT_TRUE(damaged.isComplete);
    EXPECT_EQ(damaged.planes, whole.planes);
  }
}

// A source that cannot go back must not lose more than one that can; pieces must not show.
TEST_F(DecoderDamage, SourcesAndPiecesMakeTheSameOfIt) {
  const struct {
    const char* name;
    std::size_t begin, end;
    DecodeJob other;
  } cases[] = {{"poc_component_first", 100, 420, {.source = Source::kUnseekable}},
               {"tile_coc_qcc", 94, 400, {.source = Source::kUnseekable}},
               {"blocks_4x8", 640, 980, {.piece = 500}}};
  for (const auto& c : cases) {
    const Bytes whole = Vector(c.name);
    for (std::size_t i = c.begin; i < c.end; ++i) {
      Bytes changed = whole;
      changed[i] ^= 0x80;
      const Decoded one = test::Decode(changed), other = test::Decode(changed, c.other);
      ASSERT_EQ(one.planes, other.planes) << c.name << " changed at " << i;
    }
  }
}

TEST_F(DecoderDamage, ATileWithoutPacketsIsGrey) {
  Bytes data = Vector("rev53_rgb_rct");
  data.resize(FirstPacket(data));
  const Decoded decoded = test::Decode(data, {.useHostBuffers = true});
  EXPECT_EQ(decoded.frameCode, KelOK);
  EXPECT_FALSE(decoded.isComplete);
  for (const auto& planes : {decoded.planes, decoded.hostPlanes}) {
    ASSERT_EQ(planes.size(), 3U);
    for (const test::Plane& plane : planes) {
      EXPECT_EQ(std::count(plane.samples.begin(), plane.samples.end(), 128),
                std::ptrdiff_t(plane.samples.size()));
    }
  }
}

// ---- Hosts ----

TEST_F(DecoderHosts, AStreamThatWasLookedAtBeginsAgain) {
  HostStream stream(Vector("constant_zero"));
  KelImage image;
  KelDecOpt options;
  options.InitToDefaults();
  EXPECT_TRUE(image.FileIsKel(stream.Stream()));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(
        image.InitDecoder(stream.Stream(), nullptr, &options, nullptr, nullptr, KelAspectFull),
        KelOK);
    EXPECT_EQ(image.GetNextFrame(nullptr, nullptr, false, true, nullptr), KelOK);
    EXPECT_TRUE(image.TileIsComplete(0));
  }
  image.Die();
  options.Die();
}

TEST_F(DecoderHosts, OutputImagesTellTheirSizeFromTheStart) {
  Decoder d(Vector("order_pcrl_subsampled_precincts"));
  for (KelLong c = 0; c < d.image.GetNumComponents(); ++c) {
    const KelTileComponent& component = *d.image.GetTileComponent(0, c);
    const KelImageData& out = *component.GetOutputImage();
    EXPECT_EQ(out.GetWidth(), (component.GetWidth() + 15) / 16 * 16);
    EXPECT_TRUE(out.GetHeight() == component.GetHeight() && out.GetImageBuffer() == nullptr);
  }
}

int locksLeft;
void* (*lockBuf)(KelBufID_I* buffer);

// A packet whose plane cannot be locked must not count as decoded.
TEST_F(DecoderHosts, RefusedLocksEndInCode8AndLoseNothing) {
  const Bytes data = Vector("rev53_grey_5_levels");
  Decoder undisturbed(data);
  ASSERT_EQ(undisturbed.Frame(data.size()), KelOK);
  bool refused = true;
  for (int n = 0; refused; ++n) {
    Decoder d(data);
    ASSERT_EQ(d.Frame(data.size() / 2), KelOK);
    lockBuf = KelGetMemObj()->LockBuf;
    locksLeft = n;
    KelGetMemObj()->LockBuf = [](KelBufID_I* buffer) {
      return locksLeft-- != 0 ? lockBuf(buffer) : nullptr;
    };
    const KelLong code = d.Frame(data.size());
    KelGetMemObj()->LockBuf = lockBuf;
    refused = locksLeft < 0;
    EXPECT_EQ(code, refused ? KelErrNoMemory : KelOK) << n;
    EXPECT_EQ(d.Frame(data.size()), KelOK);
    ASSERT_TRUE(d.image.TileIsComplete(0));
    EXPECT_EQ(d.Samples(), undisturbed.Samples()) << n;
  }
}

// The coefficients that a host takes away are zeros, never what its memory happens to hold.
TEST_F(DecoderHosts, ATakenPlaneLeavesNothingUndefined) {
  Decoder d(Vector("rev53_grey_5_levels"));
  ASSERT_EQ(d.Frame(d.data.size() / 2), KelOK);
  KelTileComponent* component = d.image.GetTileComponent(0, 0);
  KelImageData* plane = component->GetWaveletData();
  ASSERT_NE(plane, nullptr);
  component->ReleaseWaveletData();
  plane->FreeImageBuffer();
  KelGetMemObj()->Free(plane);
  ASSERT_EQ(d.Frame(d.data.size()), KelOK);
  for (const std::int32_t sample : d.Samples()) ASSERT_LT(std::abs(sample), 1 << 16);
}

}  // namespace
