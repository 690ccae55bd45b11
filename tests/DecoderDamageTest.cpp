// Decoding of damaged and incomplete data: what one source can still make of them, every source
// does, and nothing is lost that need not be. And hosts that take away what the decoder works with.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "EncodeHost.h"
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

// ---- Bytes lost, added and changed ----

/// 72 x 72 samples in 9 tiles of 3 tile-parts each, bare, and where the tile-parts stand.
struct NineTiles {
  explicit NineTiles(KelLong order)
      : host(MakePicture(72, 72, order == KelCPRL ? 3 : 1, 8), 24, 24,
             {.irreversible = 0, .levels = 2, .order = order}) {
    const Bytes file = host.Encode();
    const std::uint8_t SOC[] = {0xAB, 0x4F, 0xAB, 0x51};
    data.assign(std::search(file.begin(), file.end(), SOC, SOC + 4), file.end());
    for (std::size_t at = FirstPacket(data) - 14; data[at + 1] == 0x90;) {
      starts.push_back(at);
      at += std::size_t{data[at + 8]} << 8 | data[at + 9];
    }
    starts.push_back(data.size() - 2);
    EXPECT_EQ(starts.size(), 28U);
  }
  Bytes Part(std::size_t n) const {
    return {data.begin() + std::ptrdiff_t(starts[n]), data.begin() + std::ptrdiff_t(starts[n + 1])};
  }
  /// How many tiles a decoder gets right.
  int Right(const Bytes& damaged, const DecodeJob& job = {}) const {
    const Decoded decoded = test::Decode(damaged, job);
    if (decoded.planes.size() != host.image.planes.size()) return 0;
    int right = 0;
    for (int t = 0; t < 9; ++t) {
      bool isRight = true;
      for (int i = 0; i < 24 * 24; ++i) {
        const int x = t % 3 * 24 + i % 24, y = t / 3 * 24 + i / 24;
        for (std::size_t c = 0; c < decoded.planes.size(); ++c) {
          isRight = isRight && decoded.planes[c].At(x, y) == host.image.planes[c].At(x, y);
        }
      }
      right += isRight ? 1 : 0;
    }
    return right;
  }

  EncodeHost host;
  Bytes data;
  std::vector<std::size_t> starts;
};

void Erase(Bytes& data, std::size_t from, std::size_t to) {
  data.erase(data.begin() + std::ptrdiff_t(from), data.begin() + std::ptrdiff_t(to));
}
void Insert(Bytes& data, std::size_t at, const Bytes& bytes) {
  data.insert(data.begin() + std::ptrdiff_t(at), bytes.begin(), bytes.end());
}
Bytes Noise(std::size_t count, std::mt19937& random) {
  Bytes noise;
  while (noise.size() < count) noise.push_back(std::uint8_t(random()));
  return noise;
}

/// A place to be damaged: the n-th tile-part, and a byte of its packets.
struct Place {
  const NineTiles& nine;
  Bytes data;
  std::size_t n, at;
  std::mt19937& random;
  std::size_t Start() const { return nine.starts[n]; }
  std::size_t End() const { return nine.starts[n + 1]; }
  void Flip(std::size_t byte) { data[byte] ^= std::uint8_t(1 << random() % 8); }
};

struct Harm {
  const char* name;
  void (*harm)(Place& p);
  double mean;  ///< tiles right, at least, on average
  int least;    ///< and in every case
};

const Harm kHarms[] = {
    {"bytes lost",
     [](Place& p) { Erase(p.data, p.at, std::min(p.at + 1 + p.random() % 20, p.End())); }, 8, 8},
    {"bytes added", [](Place& p) { Insert(p.data, p.at, Noise(1 + p.random() % 20, p.random)); }, 8,
     8},
    {"junk", [](Place& p) { Insert(p.data, p.at, Noise(40, p.random)); }, 8, 8},
    {"a bit from SOT to SOD", [](Place& p) { p.Flip(p.Start() + p.random() % 14); }, 8, 7},
    {"a bit of a packet", [](Place& p) { p.Flip(p.at); }, 8, 8},
    {"a length below zero, or tiny",
     [](Place& p) {
       const Bytes length = p.random() % 2 != 0 ? Hex("80000000") : Hex("00000003");
       std::copy(length.begin(), length.end(), p.data.begin() + std::ptrdiff_t(p.Start()) + 6);
     },
     9, 9},
    {"a tile-part lost", [](Place& p) { Erase(p.data, p.Start(), p.End()); }, 8, 8},
    {"a tile-part twice", [](Place& p) { Insert(p.data, p.Start(), p.nine.Part(p.n)); }, 9, 9},
    {"two tile-parts exchanged",
     [](Place& p) {
       const std::size_t other = p.random() % 27;
       Bytes parts;
       for (std::size_t i = 0; i < 27; ++i) {
         const Bytes part = p.nine.Part(i == p.n ? other : i == other ? p.n : i);
         parts.insert(parts.end(), part.begin(), part.end());
       }
       std::copy(parts.begin(), parts.end(), p.data.begin() + std::ptrdiff_t(p.nine.starts[0]));
     },
     9, 9}};

// One damaged place must cost one tile at most, from every source, and be told of.
TEST_F(DecoderDamage, OneDamagedPlaceCostsOneTile) {
  for (const KelLong order : {KelRLCP, KelCPRL}) {
    const NineTiles nine(order);
    for (const Source source : {Source::kMemory, Source::kSeekable, Source::kUnseekable}) {
      const DecodeJob job{.source = source};
      ASSERT_EQ(nine.Right(nine.data, job), 9);
      for (const Harm& harm : kHarms) {
        std::mt19937 random(7);
        int sum = 0;
        constexpr int kTrials = 27;
        for (std::size_t n = 0; n < kTrials; ++n) {
          const std::size_t packets = nine.starts[n] + 14;
          const std::size_t at = packets + random() % (nine.starts[n + 1] - packets);
          Place place{nine, nine.data, n, at, random};
          harm.harm(place);
          const int right = nine.Right(place.data, job);
          EXPECT_GE(right, harm.least) << harm.name << " in " << n << ", source " << int(source);
          sum += right;
        }
        EXPECT_GE(sum, harm.mean * kTrials) << harm.name << ", source " << int(source);
      }
    }
  }
}

// In CPRL the next tile-part is another component's, whatever was lost before.
TEST_F(DecoderDamage, ALostComponentKeepsTheOthers) {
  const NineTiles nine(KelCPRL);
  Bytes data = nine.data;
  Erase(data, nine.starts[1] + 60, nine.starts[1] + 63);
  const Decoded decoded = test::Decode(data);
  EXPECT_FALSE(decoded.isComplete);
  for (const std::size_t c : {0U, 2U}) EXPECT_EQ(decoded.planes[c], nine.host.image.planes[c]);
}

TEST_F(DecoderDamage, DamagesAreTold) {
  const NineTiles nine(KelRLCP);
  Decoder intact(nine.data);
  intact.Frame(nine.data.size());
  EXPECT_EQ(intact.image.GetNumDamages(), 0);
  KelDamage damage{};
  EXPECT_EQ(intact.image.GetDamage(0, &damage), KelErrBadParam);

  // Three bytes in the packets of tile 1's tile-part 1: its length is wrong then, its only packet
  // does not fit, and its third has no place.
  Bytes data = nine.data;
  Erase(data, nine.starts[4] + 30, nine.starts[4] + 33);
  data[nine.starts[16]] ^= 1;  // SOT of tile 5's tile-part 1
  Decoder d(data);
  for (int frame = 0; frame < 2; ++frame) EXPECT_EQ(d.Frame(data.size()), KelOK);
  const auto toldBy = [&](const Decoder& decoder) {
    std::string told;
    for (KelLong n = 0; decoder.image.GetDamage(n, &damage) == KelOK; ++n) {
      told += std::to_string(damage.kind) + ":" + std::to_string(damage.tile) + "." +
              std::to_string(damage.tilePart) + " ";
      EXPECT_TRUE(damage.offset >= nine.starts[4] && damage.offset < data.size());
    }
    return told;
  };
  EXPECT_EQ(toldBy(d), "2:1.1 4:1.1 7:1.2 1:-1.-1 ");

  // A frame that runs out of memory loses none of them.
  bool wasRefused = true;
  for (std::size_t n = 1; wasRefused && !HasFailure(); ++n) {
    Decoder refused(data);
    memory.RefuseRequest(n);
    refused.Frame(data.size());
    wasRefused = memory.HasRefused();
    memory.RefuseRequest(0);
    refused.Frame(data.size());
    EXPECT_EQ(toldBy(refused), toldBy(d)) << "request " << n;
  }
}

// Noise from a damaged bit to the end of its band; and in a file that repeats its data, anything
// at all.
TEST_F(DecoderDamage, ADamagedByteCostsFewBlocks) {
  for (const KelLong layers : {1, 2}) {
    EncodeHost host(MakePicture(256, 256, 1, 8, Content::kShades),
                    {.irreversible = 0, .layers = layers});
    const Bytes data = host.Encode();
    const Plane whole = test::Decode(data).planes[0];
    const std::size_t first = FirstPacket(data);
    std::size_t numWrong = 0;
    constexpr std::size_t kPlaces = 16;
    for (std::size_t n = 0; n < kPlaces; ++n) {
      Bytes damaged = data;
      damaged[first + (data.size() - first) * (4 * n + 3) / (4 * kPlaces)] ^= 0x55;
      const Plane plane = test::Decode(damaged).planes[0];
      for (std::size_t i = 0; i < whole.samples.size(); ++i) {
        numWrong += std::abs(plane.samples[i] - whole.samples[i]) > 8;
      }
    }
    // A low bit or a sign ends nothing too early or late, and is not noticed.
    EXPECT_LE(numWrong, layers == 1 ? kPlaces * whole.samples.size() / 50 : kPlaces * 4);
  }
}

// Tile-parts out of order that arrive bit by bit: none may stand in for one that is to come.
TEST_F(DecoderDamage, PiecesOfTilePartsOutOfOrder) {
  for (const KelLong order : {KelRLCP, KelCPRL}) {
    const NineTiles nine(order);
    Bytes data(nine.data.begin(), nine.data.begin() + std::ptrdiff_t(nine.starts[0]));
    for (const std::size_t part : {1, 0, 2}) {
      for (std::size_t tile = 0; tile < 9; ++tile) {
        const Bytes bytes = nine.Part(3 * tile + part);
        data.insert(data.end(), bytes.begin(), bytes.end());
      }
    }
    for (const Bytes& end : {Bytes{}, Bytes{0xAB, 0xD9}}) {
      Bytes whole = data;
      whole.insert(whole.end(), end.begin(), end.end());
      // The first tile-part to be read is short of three bytes of its length.
      whole[nine.starts[0] + 9] = std::uint8_t(whole[nine.starts[0] + 9] - 3);
      for (const std::size_t piece : {101U, 350U, 997U}) {
        const Decoded decoded = test::Decode(whole, {.piece = piece});
        EXPECT_EQ(decoded.planes, nine.host.image.planes) << piece;
        EXPECT_TRUE(decoded.isComplete);
      }
    }
  }
}

TEST_F(DecoderDamage, ATileWithoutPacketsIsGrey) {
  Bytes data = Vector("rev53_rgb_rct");
  data.resize(FirstPacket(data));
  const Decoded decoded = test::Decode(data, {.useHostBuffers = true});
  EXPECT_EQ(decoded.frameCode, KelOK);
  EXPECT_FALSE(decoded.isComplete);
  ASSERT_EQ(decoded.hostPlanes.size(), 3U);
  for (const test::Plane& plane : decoded.hostPlanes) {
    EXPECT_EQ(std::count(plane.samples.begin(), plane.samples.end(), 128),
              std::ptrdiff_t(plane.samples.size()));
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

// A failed initialisation leaves nothing that can be asked; one option set serves two decoders.
TEST_F(DecoderHosts, FailedAndSharedInitialisations) {
  const Bytes good = Vector("tiles_8x8_grid"), other = Vector("rev53_grey_5_levels");
  Bytes large = other;
  const Bytes COD = Hex(large[0] == 0xAB ? "AB52" : "FF52");
  const auto at = std::search(large.begin(), large.end(), COD.begin(), COD.end());
  at[10] = 4;  // code blocks of 64
  for (const Bytes& bad : {Bytes(good.begin(), good.begin() + 60), large, Bytes(40, 1)}) {
    MemoryDecoder d(bad);
    EXPECT_NE(d.code, KelOK);
    EXPECT_EQ(d.image.GetErrorDetails().errCode, d.code);
    EXPECT_EQ(d.image.GetNextFrame(&d.block, nullptr, false, true, nullptr), KelErrBadParam);
    EXPECT_FALSE(d.image.TileIsComplete(0));
    EXPECT_EQ(d.image.GetTileComponent(0, 0), nullptr);
    EXPECT_EQ(d.image.GetMaxRes(0), -1);
    EXPECT_TRUE(d.image.GetNumTiles() == 0 && d.image.GetGeometryParams() == nullptr);
  }
  Decoder first(good);
  KelCompressedData block{other.data(), static_cast<KelULong>(other.size())};
  KelImage second;
  ASSERT_EQ(second.InitDecoder(nullptr, &block, &first.options, nullptr, nullptr, KelAspectFull),
            KelOK);
  EXPECT_EQ(first.Frame(good.size()), KelOK);
  EXPECT_TRUE(first.image.TileIsComplete(63));
  EXPECT_EQ(first.image.GetGeometryParams()->NumXTiles, 8);
  first.image.Die();
  EXPECT_EQ(second.GetNextFrame(&block, nullptr, false, true, nullptr), KelOK);
  EXPECT_TRUE(second.TileIsComplete(0));
  second.Die();
}

// What arrives between the initialisation and the first frame must not be left out.
TEST_F(DecoderHosts, AStreamThatGrowsBeforeTheFirstFrame) {
  const Bytes data = Vector("rev53_grey_5_levels");
  for (const bool seekable : {false, true}) {
    HostStream stream(data, seekable);
    stream.visible = FirstPacket(data) + 100;
    KelImage image;
    KelDecOpt options;
    options.InitToDefaults();
    ASSERT_EQ(
        image.InitDecoder(stream.Stream(), nullptr, &options, nullptr, nullptr, KelAspectFull),
        KelOK);
    stream.visible = data.size();
    EXPECT_EQ(image.GetNextFrame(nullptr, nullptr, false, true, nullptr), KelOK);
    EXPECT_TRUE(image.TileIsComplete(0));
    image.Die();
    options.Die();
  }
}

int asked, askedUntil;
std::string reported;

TEST_F(DecoderHosts, ProgressIsReportedAndFramesCanBeStopped) {
  KelUserActions actions = {[]() -> KelLong { return ++asked == askedUntil ? 1 : 0; },
                            [] { reported += "B"; }, [] { reported += "E"; },
                            [](KelLong done, KelLong total) {
                              reported += std::to_string(done) + "/" + std::to_string(total) + " ";
                            }};
  KelClientProcs procs;
  procs.UserActions = &actions;
  // Nine tiles, then one so large that it is asked for again inside it.
  const NineTiles nine(KelRLCP);
  EncodeHost large(MakePicture(1500, 1500, 1, 8), {.irreversible = 0});
  for (const Bytes& data : {nine.data, large.Encode()}) {
    KelCompressedData block{data.data(), static_cast<KelULong>(data.size())};
    KelDecOpt options;
    options.InitToDefaults();
    KelImage image;
    image.InitDecoder(nullptr, &block, &options, &procs, nullptr, KelAspectFull);
    asked = 0;
    askedUntil = 2;
    reported.clear();
    EXPECT_EQ(image.GetNextFrame(nullptr, nullptr, false, true, nullptr), KelErrAborted);
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(reported.back(), 'E') << "a stopped run ends all the same";
    EXPECT_EQ(image.GetNextFrame(nullptr, nullptr, false, true, nullptr), KelOK);
    for (KelLong t = 0; t < image.GetNumTiles(); ++t) EXPECT_TRUE(image.TileIsComplete(t));
    image.Die();
    options.Die();
    if (data != nine.data) continue;
    EXPECT_EQ(reported, "B0/9 1/9 9/9 EB0/9 1/9 2/9 3/9 4/9 5/9 6/9 7/9 8/9 9/9 E");
  }
}

int locksLeft;
void* (*lockBuf)(KelBufID_I* buffer);

/// Runs a step whose locks behind the first n are refused once. Whether one was.
template <class Step>
bool RefusesLock(int n, Step step) {
  lockBuf = KelGetMemObj()->LockBuf;
  locksLeft = n;
  KelGetMemObj()->LockBuf = [](KelBufID_I* buffer) {
    return locksLeft-- != 0 ? lockBuf(buffer) : nullptr;
  };
  const KelLong code = step();
  KelGetMemObj()->LockBuf = lockBuf;
  const bool isRefused = n >= 0 && locksLeft < 0;
  EXPECT_EQ(code, isRefused ? KelErrNoMemory : KelOK) << n;
  return isRefused;
}

// A packet whose plane cannot be locked must not count as decoded.
TEST_F(DecoderHosts, RefusedLocksEndInCode8AndLoseNothing) {
  const Bytes data = Vector("rev53_grey_5_levels");
  Decoder undisturbed(data);
  ASSERT_EQ(undisturbed.Frame(data.size()), KelOK);
  bool refused = true;
  for (int n = 0; refused; ++n) {
    Decoder d(data);
    ASSERT_EQ(d.Frame(data.size() / 2), KelOK);
    refused = RefusesLock(n, [&] { return d.Frame(data.size()); });
    EXPECT_EQ(d.Frame(data.size()), KelOK);
    ASSERT_TRUE(d.image.TileIsComplete(0));
    EXPECT_EQ(d.Samples(), undisturbed.Samples()) << n;
  }
}

// Nor must a tile count as delivered that did not reach the host: recast, turned, copied, or a
// tile of which only the header has come.
TEST_F(DecoderHosts, RefusedLocksOnTheWayToTheHostLoseNothing) {
  const Bytes whole = Vector("rev53_grey_5_levels");
  const Bytes header(whole.begin(), whole.begin() + std::ptrdiff_t(FirstPacket(whole)));
  for (const int form : {0, 1, 2, 3, 4, 5}) {
    test::FrameRequest request({form % 2 == 0 ? 8 : 16});
    Bytes wanted;
    int numLocks = 0;
    for (int n = -1, left = 1; left != 0; ++n) {  // n of -1: none is refused
      Decoder d(form < 4 ? whole : header);
      d.image.SetOrientationForDecode(form / 2 == 1 ? KelOrientation90 : KelOrientation0);
      const KelImageGeometry& g = *d.image.GetGeometryParams();
      const KelLong row = form / 2 == 1 ? g.Ysiz : g.Xsiz;
      Bytes out(std::size_t(2 * g.Xsiz * g.Ysiz), 0xEE);
      request.buffers[0] = out.data();
      request.strides[0] = row * (form % 2 == 0 ? 1 : 2);
      const auto frame = [&] {
        return d.image.GetNextFrame(&d.block, nullptr, false, false, &request.data);
      };
      left = RefusesLock(n, frame) || n < 0;
      if (n < 0) {
        wanted = out;
        continue;
      }
      numLocks += left;
      EXPECT_EQ(frame(), KelOK);
      EXPECT_EQ(out, wanted) << "form " << form << ", lock " << n;
    }
    EXPECT_NE(wanted[0], 0xEE);
    EXPECT_GE(numLocks, 1) << form;
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
