// The encoding side of the image object over its public interface: what it writes, what it
// refuses, and what it leaves behind when something fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <string>

#include "EncodeHost.h"
#include "FileWalk.h"
#include "HostMemory.h"
#include "VectorFile.h"
#include "base/KelRaise.h"

namespace {

using namespace test;
using Encoder = test::LibraryTest;

/// The planes of a stream made elsewhere, as an image.
Picture ReadPlanes(const std::string& name, KelLong width, KelLong height, std::size_t components,
                   KelLong depth) {
  Picture image = MakePicture(width, height, components, depth);
  for (std::size_t c = 0; c < components; ++c) {
    const Bytes raw = ReadFile(KEL_VECTORS "/" + name + ".c" + std::to_string(c) + ".raw");
    image.planes[c].samples.assign(raw.begin(), raw.end());
  }
  return image;
}

// Any difference from the format as another encoder writes it: headers, transforms, block code,
// packets.
TEST_F(Encoder, WritesTheSameBytesAsAnotherEncoder) {
  const auto expect = [](const std::string& name, const Picture& image, bool transform) {
    EncodeHost host(image, {.irreversible = 0, .transform = transform});
    EXPECT_EQ(host.Encode(), test::Vector(name)) << name;
  };
  expect("native_rgb_rct_lossless", ReadPlanes("native_rgb_rct_lossless", 90, 72, 3, 8), true);
  expect("native_one_bit", ReadPlanes("native_one_bit", 50, 40, 1, 1), false);
}

/// A file up to the packets of its first tile-part, less the length of that part.
Bytes HeadersOf(Bytes file) {
  const std::uint8_t sod[] = {0xAB, 0x93}, sot[] = {0xAB, 0x90, 0, 10};
  const auto part = std::search(file.begin(), file.end(), std::begin(sot), std::end(sot));
  std::fill(part + 6, part + 10, std::uint8_t{0});
  file.erase(std::search(part, file.end(), std::begin(sod), std::end(sod)), file.end());
  return file;
}

// Steps derived otherwise, or announced for the wrong component.
TEST_F(Encoder, AnnouncesTheSameStepsAsAnotherEncoder) {
  const auto expect = [](const std::string& name, EncodeHost& host) {
    EXPECT_EQ(HeadersOf(host.Encode()), HeadersOf(test::Vector(name))) << name;
  };
  EncodeHost grey(MakePicture(90, 72, 1, 8), {.quality = 40});
  expect("native_grey_q40", grey);
  EncodeHost colors(MakePicture(90, 72, 3, 8), 64, 48, {.quality = 75, .transform = true});
  expect("native_rgb_ict_q75_tiles", colors);
  EncodeHost subsampled(MakePicture(70, 60, {8, 8, 8}, {1, 2, 2}), {.quality = 80, .levels = 3});
  expect("native_420", subsampled);
}

// A walk through files of many kinds; output that depends on the stream or on how the samples were
// handed over; interleaved samples fetched for each component.
TEST_F(Encoder, FilesAreSoundAndDoNotDependOnTheHost) {
  for (const KelLong depth : {1, 8, 12, 16}) {
    for (const bool byComponent : {false, true}) {
      EncodeHost host(MakePicture(61, 47, 4, depth), 37, 29,
                      {.irreversible = byComponent ? 0 : 1,
                       .transform = depth != 12,
                       .levels = depth == 1 ? 0 : 3,
                       .layers = depth == 8 ? 3 : 1,
                       .order = byComponent ? KelCPRL : KelRLCP,
                       .colors = 3});
      const Bytes file = host.Encode();
      const auto walked = test::WalkFile(file);
      EXPECT_EQ(walked.boxes, "weab ftyp rreq vrmh vrmc ");
      EXPECT_EQ(walked.mainMarkers, "5152535C5D");
      EXPECT_EQ(walked.parts.size(), 4U * (byComponent ? 4 : depth == 1 ? 1 : 4));
      EXPECT_EQ(host.Encode(false), file) << "a stream that cannot seek";
      for (const KelLong channels : {3, 4}) {
        host.numInterleaved = channels;
        host.fetches = 0;
        EXPECT_EQ(host.Encode(), file) << channels << " channels interleaved, depth " << depth;
        EXPECT_EQ(host.fetches, 4 * (5 - channels)) << "one fetch for all of them";
      }
    }
  }
}

// Packets for parts of a tile without samples; components numbered by their place in the image.
TEST_F(Encoder, TinyTilesSubsamplingAndChannelsThatAreNotWritten) {
  for (KelLong side = 1; side <= 4; ++side) {
    for (const KelLong order : {KelRLCP, KelCPRL}) {
      EncodeHost host(MakePicture(9, 7, {8, 8, 8, 8, 8}, {1, 2, 3, 1, 2}), side, side + 1,
                      {.order = order, .colors = 3, .mask = side % 2, .transparency = 3});
      host.options.TransparencyCoded = side > 2;
      test::WalkFile(host.Encode());
    }
  }
  EncodeHost deep(MakePicture(20, 20, 1, 8), {.levels = 32});
  EXPECT_EQ(test::WalkFile(deep.Encode()).parts.size(), 33U);
}

// A tile-part that reaches across the write buffer of a seekable stream.
TEST_F(Encoder, TilePartsOfEveryLengthAroundTheWriteBuffer) {
  const Bytes payload(20000, 7);
  __tagKelUUID uuid{20000, {}, payload.data()};
  for (KelLong width = 42000; width < 66000; width += 1171) {
    EncodeHost host(MakePicture(width, 1, 1, 8, Content::kNoise), {.irreversible = 0, .levels = 0});
    host.options.UUIDPresent = true;
    host.options.NumUUIDBoxes = 1;
    host.options.UUIDBoxes = &uuid;
    EXPECT_EQ(host.Encode(), host.Encode(false)) << width;
  }
}

// Counts that leave something out; an end marker too early, missing or not flushed.
TEST_F(Encoder, CountsAndEndMarker) {
  EncodeHost host(MakePicture(40, 30, 1, 8), 20, 30);
  HostStream stream;
  ASSERT_EQ(host.Init(stream), KelOK);
  EXPECT_EQ(host.options.RateMode, 5);
  EXPECT_EQ(host.options.CodeBlockWidthExp + host.options.CodeBlockHeightExp, 6);
  const KelLong start = stream.stream.GetCurPos();
  KelULong written = 0;
  for (const KelLong tile : {0, 1}) {
    KelULong count = 0;
    EXPECT_EQ(host.encoder.CompressAndWriteTile(tile, &count), KelOK);
    written += count;
    EXPECT_EQ(stream.bytes.size(), start + written - 2);
  }
  EXPECT_EQ(stream.bytes.back(), 0xD9);
  EXPECT_EQ(stream.stream.wbuf, nullptr);
  for (const KelLong tile : {2, -1}) EXPECT_EQ(host.encoder.CompressTile(tile), KelErrBadParam);
  host.encoder.Die();  // while there is a stream
}

// Headers written a second time over tiles; or not where the first ones stand.
TEST_F(Encoder, HeadersCanBeWrittenAgain) {
  for (const bool seekable : {true, false}) {
    EncodeHost host(MakePicture(40, 30, 1, 8), 20, 30);
    const Bytes file = host.Encode();
    HostStream stream({}, seekable);
    host.Init(stream);
    const KelLong start = stream.stream.GetCurPos();
    KelULong bytes = 0;
    EXPECT_EQ(host.encoder.WriteKelHeaders(&bytes), KelOK);
    EXPECT_EQ(bytes, static_cast<KelULong>(start));
    EXPECT_EQ(stream.stream.GetCurPos(), seekable ? start : 2 * start);
    EXPECT_EQ(host.encoder.CompressTile(0), KelOK);
    if (seekable) {
      EXPECT_EQ(host.encoder.WriteKelHeaders(nullptr), KelOK);
    }
    EXPECT_EQ(host.encoder.CompressTile(1), KelOK);
    stream.bytes.erase(stream.bytes.begin(), stream.bytes.begin() + (seekable ? 0 : start));
    EXPECT_EQ(stream.bytes, file);
    host.encoder.Die();
  }
}

// A quality fixed at initialisation; a structure that the host can still change, which would let a
// tile be written that the headers do not describe.
TEST_F(Encoder, OnlyTheQualityIsReadLater) {
  EncodeHost host(MakePicture(64, 48, 3, 8), 32, 48, {.quality = 80});
  const Bytes fine = host.Encode();
  host.options.TargetQuality = 20;
  EXPECT_LT(host.Encode().size(), fine.size());
  HostStream stream;
  ASSERT_EQ(host.Init(stream), KelOK);
  KelEncOpt changed = host.options;
  KelImageGeometry& geometry = *host.options.GeomParams;
  KelImageGeometry kept = geometry;
  // This host fetches by its options' geometry; the encoder must not look at it again.
  host.options = {};
  host.options.GeomParams = &kept;
  host.options.TargetQuality = 80;
  host.options.NumLevels = 9;
  host.options.NumLayers = 4;
  host.options.RoiEnabled = host.options.ComponentTransform = true;
  host.options.ProgressionOrder = KelCPRL;
  geometry.Xsiz = geometry.XTsiz = geometry.Csiz = 100000;
  geometry.BitDepths = geometry.XRsiz = geometry.YRsiz = nullptr;
  for (KelLong t = 0; t < 2; ++t) EXPECT_EQ(host.encoder.CompressTile(t), KelOK);
  host.encoder.Die();
  EXPECT_EQ(stream.bytes, fine);
  geometry = kept;
  host.options = changed;
}

// Options that would make a file that no decoder can read, or an access out of bounds.
TEST_F(Encoder, RefusesWhatCannotBeCoded) {
  const struct {
    const char* what;
    void (*change)(EncodeHost& host, KelEncOpt& o, KelImageGeometry& g);
  } cases[] = {{"levels", [](auto&, auto& o, auto&) { o.NumLevels = 33; }},
               {"layers", [](auto&, auto& o, auto&) { o.NumLayers = 0; }},
               {"order", [](auto&, auto& o, auto&) { o.ProgressionOrder = 5; }},
               {"precincts", [](auto&, auto& o, auto&) { o.PrecinctWidthExp = 16; }},
               {"colours", [](auto&, auto& o, auto&) { o.NumColorChannels = -1; }},
               {"transform of different samplings",
                [](auto&, auto& o, auto& g) {
                  o.ComponentTransform = true;
                  g.XRsiz[1] = g.XRsiz[2] = 2;
                }},
               {"transform of rows that differ",
                [](auto&, auto& o, auto& g) {
                  o.ComponentTransform = true;
                  g.YRsiz[2] = 2;
                }},
               {"mask under a transform",
                [](auto&, auto& o, auto&) {
                  o.ComponentTransform = o.RoiEnabled = true;
                  o.RoiMaskComponent = 1;
                }},
               {"no mask", [](auto&, auto& o, auto&) { o.RoiEnabled = true; }},
               {"transparency", [](auto&, auto& o, auto&) { o.TransparencyPresent = true; }},
               {"opacity among the colours",
                [](auto&, auto& o, auto&) {
                  o.TransparencyPresent = true;
                  o.TransparencyComponent = 3;
                }},
               {"mask and transparency in one",
                [](auto&, auto& o, auto&) {
                  o.RoiEnabled = o.TransparencyPresent = true;
                  o.NumColorChannels = 3;
                  o.RoiMaskComponent = o.TransparencyComponent = 3;
                }},
               {"nothing to write",
                [](auto&, auto& o, auto&) {
                  o.NumColorChannels = 0;
                  o.ExtraChannelCodingParams = false;
                }},
               {"depth", [](auto&, auto&, auto& g) { g.BitDepths[3] = 29; }},
               {"sampling", [](auto&, auto&, auto& g) { g.YRsiz[3] = 256; }},
               {"offsets", [](auto&, auto&, auto& g) { g.YOsiz = 1; }},
               {"tile width", [](auto&, auto&, auto& g) { g.XTsiz = 0; }},
               {"tile height", [](auto&, auto&, auto& g) { g.YTsiz = 0; }},
               {"tiles",
                [](auto&, auto&, auto& g) {
                  g.Xsiz = 65536;
                  g.XTsiz = 1;
                }},
               {"XML",
                [](auto&, auto& o, auto&) {
                  o.XMLPresent = true;
                  o.NumXMLBoxes = 1;
                }},
               {"fetch", [](auto& h, auto&, auto&) { h.dataProcs.GetTileComponent = nullptr; }},
               {"not interleaved",
                [](auto& h, auto&, auto& g) {
                  h.numInterleaved = 4;
                  h.dataProcs.GetTileComponent = nullptr;
                  g.BitDepths[3] = 12;
                }},
               {"image data", [](auto& h, auto&, auto&) { h.procs.ImageDataProcs = nullptr; }}};
  for (const auto& [what, change] : cases) {
    EncodeHost host(MakePicture(64, 48, 4, 8), 32, 48);
    const KelImageGeometry kept = *host.options.GeomParams;
    change(host, host.options, *host.options.GeomParams);
    HostStream stream;
    EXPECT_EQ(host.Init(stream), KelErrBadParam) << what;
    EXPECT_STREQ(host.encoder.GetErrorDetails().srcFile, kel::kModuleImage) << what;
    EXPECT_EQ(host.encoder.CompressTile(0), KelErrBadParam) << "not initialised";
    EXPECT_EQ(stream.stream.GetCurPos(), 0) << what;
    *host.options.GeomParams = kept;
  }
}

// Orders and precincts that the writer does not know: refused before the host is asked for
// anything, but sizes can be had.
TEST_F(Encoder, RefusesToWriteWhatItCanOnlyMeasure) {
  EncodeHost host(MakePicture(64, 48, 1, 8));
  const auto codes = [&](KelLong order, KelLong exponent) {
    host.options.ProgressionOrder = order;
    host.options.PrecinctWidthExp = exponent;
    host.options.PrecinctHeightExp = 6;
    host.fetches = 0;
    HostStream stream;
    EXPECT_EQ(host.Init(stream), KelOK);
    const KelLong tile = host.encoder.CompressTile(0);
    EXPECT_EQ(host.fetches, tile == KelOK ? 1 : 0);
    EXPECT_EQ(host.encoder.CompressImage(), KelOK);
    host.encoder.Die();  // the stream ends here
    return tile;
  };
  EXPECT_EQ(codes(KelLRCP, 6), KelErrBadParam);
  EXPECT_EQ(codes(KelRLCP, 5), KelErrBadParam);
  EXPECT_EQ(codes(KelRLCP, 0), KelErrBadParam);
  EXPECT_EQ(codes(KelRLCP, 6), KelOK);
  // The header announces the precincts even where every component has others.
  host.options.NumColorChannels = 0;
  EXPECT_EQ(codes(KelRLCP, 5), KelOK);
  EXPECT_EQ(codes(KelRLCP, 0), KelErrBadParam);
}

// Samples that are not given back; an encoder that cannot go on; a file without its end marker.
TEST_F(Encoder, FetchesThatFail) {
  EncodeHost host(MakePicture(40, 30, 4, 8), 20, 30, {.transform = true, .colors = 3, .mask = 3});
  const Bytes whole = host.Encode();
  const int fetches = host.fetches;
  EXPECT_EQ(fetches, 8);
  for (const bool withBuffer : {false, true}) {
    host.fetchErrorWithBuffer = withBuffer;
    for (int n = 1; n <= fetches; ++n) {
      HostStream stream;
      host.failFetch = n;
      host.fetches = 0;
      ASSERT_EQ(host.Init(stream), KelOK);
      EXPECT_EQ(host.encoder.CompressTile(0), n <= 4 ? 99 : KelOK);
      if (n <= 4) {
        EXPECT_STREQ(host.encoder.GetErrorDetails().srcFile, kel::kModuleCompTransform);
        EXPECT_EQ(host.encoder.CompressTile(0), KelOK) << "a second try";
      }
      EXPECT_EQ(host.encoder.CompressTile(1), n > 4 ? 99 : KelOK);
      if (n > 4) {
        EXPECT_EQ(host.encoder.CompressTile(1), KelOK);
      }
      EXPECT_EQ(stream.bytes, whole);
      host.encoder.Die();  // while there is a stream
    }
  }
  host.fetchError = 0;
  host.fetchErrorWithBuffer = false;
  host.failFetch = host.fetches + 5;
  const Bytes half = host.Encode();
  const auto parts = test::WalkFile(whole).parts;
  ASSERT_EQ(half.size(), parts[parts.size() / 2] + 2);
  EXPECT_EQ(half.back(), 0xD9);
}

// A failure that leaves something behind, or whose record names the memory layer instead of what
// could not be made.
/// Rows of a picture of bytes, a few at a time, each time in the same memory.
struct RowsOfPicture {
  const Picture& picture;
  const KelImageGeometry& geometry;
  int calls = 0, released = 0, failCall = 0;
  Bytes rows;

  KelRowProcs Procs() {
    KelRowProcs procs;
    procs.clientData = this;
    procs.GetTileRows = [](void* client, KelLong tile, KelLong row, KelLong* numRows,
                           std::int64_t* strideBytes, KelLong* error) -> const void* {
      auto& self = *static_cast<RowsOfPicture*>(client);
      if (++self.calls == self.failCall) {
        *error = 99;
        return nullptr;
      }
      const KelTileGeometry box(const_cast<KelImageGeometry*>(&self.geometry), 0, tile);
      *numRows = 1 + self.calls % 4;
      *strideBytes = (box.X1 - box.X0) * static_cast<KelLong>(self.picture.Count()) + 5;
      self.rows.assign(static_cast<std::size_t>(*strideBytes * *numRows), 0xA5);
      for (KelLong y = box.Y0 + row; y < std::min(box.Y0 + row + *numRows, box.Y1); ++y) {
        auto* to = self.rows.data() + (y - box.Y0 - row) * *strideBytes;
        for (KelLong x = box.X0; x < box.X1; ++x) {
          for (const Plane& plane : self.picture.planes) {
            *to++ = static_cast<std::uint8_t>(plane.At(x, y));
          }
        }
      }
      return self.rows.data();
    };
    procs.ReleaseTileRows = [](void* client, KelLong) {
      ++static_cast<RowsOfPicture*>(client)->released;
    };
    return procs;
  }
};

TEST_F(Encoder, RowsInTheHostsMemoryGiveTheSameFile) {
  for (const std::size_t components : {std::size_t{1}, std::size_t{3}, std::size_t{4}}) {
    const Picture picture = MakePicture(77, 50, components, 8);
    const Coding coding = {.irreversible = 0, .transform = components > 1};
    EncodeHost host(picture, 40, 30, coding);
    host.numInterleaved = static_cast<KelLong>(components);
    const Bytes expected = host.Encode();
    RowsOfPicture rows{picture, *host.options.GeomParams, 0, 0, 0, {}};
    const KelRowProcs procs = rows.Procs();
    HostStream stream;
    ASSERT_EQ(host.Init(stream), KelOK);
    ASSERT_EQ(host.encoder.SetRowProcs(&procs), KelOK);
    rows.failCall = components < 4 ? 5 : 0;  // in the middle of the first tile
    host.fetches = 0;
    EXPECT_EQ(host.encoder.CompressAndWriteTile(0, nullptr), components < 4 ? 99 : KelOK);
    for (KelLong tile = components < 4 ? 0 : 1; tile < 4; ++tile) {
      EXPECT_EQ(host.encoder.CompressAndWriteTile(tile, nullptr), KelOK);
    }
    host.encoder.Die();
    EXPECT_EQ(stream.bytes, expected);
    EXPECT_EQ(rows.released, components < 4 ? 5 : 0);
    EXPECT_EQ(host.fetches == 0, components < 4);
  }
}

TEST_F(Encoder, EveryRefusedRequest) {
  EncodeHost host(MakePicture(40, 30, {8, 8, 8, 12, 8}, {1, 1, 1, 2, 1}), 20, 30,
                  {.transform = true, .colors = 3, .mask = 4});
  std::set<std::string> modules;
  memory.RefuseLocksToo();
  const std::size_t runs = test::SweepRefusals(memory, [&] {
    HostStream stream;
    KelLong code = host.Init(stream);
    for (KelLong t = 0; t < 2 && code == KelOK; ++t) code = host.encoder.CompressTile(t);
    const KelException details = host.encoder.GetErrorDetails();
    if (code != KelOK && details.srcFile != nullptr) modules.insert(details.srcFile);
    host.encoder.Die();
    return code;
  });
  EXPECT_GT(runs, 60U);
  for (const char* module : {kel::kModuleFileFormat, kel::kModuleHeaders, kel::kModuleImage}) {
    EXPECT_EQ(modules.count(module), 1U) << module;
  }
}

// A write that fails, or takes a part, and nobody hears of it: whichever write it is, of the
// headers, of a tile-part, past the cache, or at the end. An encoder that is given up then, or
// before its first tile, holds a buffer that only the library can release.
TEST_F(Encoder, StreamsThatFail) {
  for (const bool seekable : {false, true}) {
    EncodeHost host(MakePicture(300, 300, 1, 8, Content::kNoise), 150, 300, {.irreversible = 0});
    HostStream undisturbed({}, seekable);
    ASSERT_EQ(host.EncodeTo(undisturbed), KelOK);
    for (const KelLong result : {-1, 0, 1}) {
      for (int n = 0; n < undisturbed.writes; ++n) {
        HostStream stream({}, seekable);
        stream.writesToFail = n;
        stream.failedResult = result;
        EXPECT_EQ(host.EncodeTo(stream), KelErrWriteFailed) << n;
        EXPECT_EQ(stream.writes, n + 1) << "goes on";
      }
    }
    HostStream stream({}, seekable);
    ASSERT_EQ(host.Init(stream), KelOK);
    host.encoder.Die();
    EXPECT_EQ(stream.stream.wbuf, nullptr);
  }
}

// A host that obtains what the bound says and runs out; or a bound that says nothing.
TEST_F(Encoder, NoFileIsLongerThanItsBound) {
  const struct {
    std::size_t components;
    KelLong depth, tile;
    Coding coding;
  } cases[] = {{1, 8, 256, {.irreversible = 0}},
               {3, 8, 256, {.irreversible = 0, .transform = true}},
               {3, 8, 256, {.quality = 100, .transform = true}},
               {3, 8, 100, {.quality = 99, .transform = true, .layers = 2}},
               {4, 8, 256, {.quality = 1, .order = KelCPRL, .colors = 3, .transparency = 3}},
               {2, 8, 256, {.quality = 50, .mask = 1}},
               {1, 16, 256, {.quality = 99, .levels = 2}},
               {1, 12, 256, {.irreversible = 0, .levels = 0}},
               {1, 1, 256, {.irreversible = 0}},
               {3, 8, 3, {.irreversible = 0, .transform = true}}};
  for (const auto& [components, depth, tile, coding] : cases) {
    for (const Content content : {Content::kNoise, Content::kExtremes, Content::kShades}) {
      EncodeHost host(MakePicture(61, 53, components, depth, content), tile, tile, coding);
      HostStream stream;
      ASSERT_EQ(host.Init(stream), KelOK);
      const auto bound = static_cast<std::size_t>(host.encoder.GetCodeStreamLengthBound());
      host.encoder.Die();
      const std::size_t length = host.Encode().size();
      const std::string what =
          testing::PrintToString(std::vector{static_cast<KelLong>(components), depth, tile}) +
          " quality " + std::to_string(coding.quality);
      EXPECT_LE(length, bound) << what;
      if (content == Content::kNoise && tile > 3 && coding.quality >= 40) {
        EXPECT_LE(bound, 3 * length + 500) << what;
      }
    }
  }
}

// Progress that starts with the wrong total, misses its end, or outlives an abort.
TEST_F(Encoder, ProgressAndAbort) {
  EncodeHost host(MakePicture(40, 30, 2, 8), 20, 15);
  host.Encode();
  EXPECT_EQ(host.progress, "B 0/4 1/4 2/4 3/4 4/4 E");
  HostStream stream;
  const auto start = [&] {
    host.progress.clear();
    host.Init(stream);
  };
  start();
  EXPECT_EQ(host.encoder.CompressImage(), KelOK);
  EXPECT_EQ(host.progress, "B 0/4 1/4 2/4 3/4 4/4 ") << "the tiles' run goes on";
  host.encoder.Die();
  EXPECT_EQ(host.progress, "B 0/4 1/4 2/4 3/4 4/4 4/4 E");
  host.options.ProgressPerCall = true;
  start();
  EXPECT_EQ(host.encoder.CompressImage(), KelOK);
  EXPECT_EQ(host.progress, "B 0/8 1/8 2/8 3/8 4/8 5/8 6/8 7/8 8/8 8/8 E");
  start();
  host.abortAfter = 2;
  EXPECT_EQ(host.encoder.CompressImage(), KelErrAborted);
  EXPECT_EQ(host.encoder.GetErrorDetails().errCode, KelErrAborted);
  EXPECT_EQ(host.progress, "B 0/8 1/8 8/8 E");
  host.abortAfter = -1;
  EXPECT_EQ(host.encoder.CompressTile(0), KelOK) << "goes on";
  host.abortAfter = 1;
  EXPECT_EQ(host.encoder.CompressTile(1), KelErrAborted) << "while a tile is coded for the stream";
  host.abortAfter = -1;
  for (KelLong t = 1; t < 4; ++t) EXPECT_EQ(host.encoder.CompressTile(t), KelOK) << "goes on";
  test::WalkFile(stream.bytes);
  host.encoder.Die();
}

/// The most bytes that encoding takes beyond what was outstanding. The buffers of the host's stream
/// come from the library too, and hold a tile-part.
std::size_t PeakOfEncoding(HostMemory& memory, EncodeHost& host) {
  memory.ResetPeak();
  const std::size_t before = memory.Bytes();
  test::WalkFile(host.Encode());
  return memory.PeakBytes() - before;
}

// Memory that grows with the number of tiles, or a tile that takes more than its coefficients as
// they wait, the room for their bytes and its samples; extra channels that each take memory for all
// components.
TEST_F(Encoder, MemoryOfATile) {
  for (const KelLong irreversible : {0, 1}) {
    const Picture image = MakePicture(512, 512, 3, 8);
    const test::Coding coding = {.irreversible = irreversible, .transform = true};
    EncodeHost host(image, 512, 512, coding);
    host.numInterleaved = 3;
    EXPECT_LE(PeakOfEncoding(memory, host),
              512U * 512 * (2 * 3 + 4) + 300000 + host.Encode().size());
    EncodeHost tiles(image, 64, 64, coding);
    EXPECT_LE(PeakOfEncoding(memory, tiles), 64U * 64 * (2 * 3 + 4) + 64 * 3 * 600 + 190000);
  }
  EncodeHost many(MakePicture(3, 3, 2000, 8), {.colors = 3});
  EXPECT_LE(PeakOfEncoding(memory, many), 2000U * 2300);
}

// Buffers of a tile made anew for the next one: only the stream's buffer for each of six
// tile-parts, a handle for each of three components, the fetched samples and two lists of the
// headers are.
TEST_F(Encoder, FurtherTilesRequestNextToNothing) {
  for (const KelLong irreversible : {0, 1}) {
    EncodeHost host(MakePicture(512, 512, 3, 8), 64, 64,
                    {.irreversible = irreversible, .transform = true});
    host.numInterleaved = 3;
    HostStream stream;
    ASSERT_EQ(host.Init(stream), KelOK);
    std::size_t before = 0;
    for (KelLong tile = 0; tile < 64; ++tile) {
      if (tile == 32) before = memory.Requests();
      ASSERT_EQ(host.encoder.CompressTile(tile), KelOK);
    }
    EXPECT_LE(memory.Requests() - before, 32U * 13);
    host.encoder.Die();
  }
}

// A region that reaches into tiles in which its mask, being subsampled, has no sample: whether they
// are coded as without one must not depend on what the host gives for a request of no bytes.
TEST_F(Encoder, TilesWithoutASampleOfTheMask) {
  Picture image = MakePicture(48, 16, {8, 8}, {1, 32}, Content::kNoise);
  image.planes[1].samples.assign(image.planes[1].samples.size(), 0);
  EncodeHost host(image, 16, 16, {.levels = 0, .mask = 1});
  const Bytes file = host.Encode();
  const auto parts = test::WalkFile(file).parts;
  ASSERT_EQ(parts.size(), 3U);
  for (const std::size_t tile : {0, 1, 2}) {
    EXPECT_EQ(file[parts[tile] + 13], tile == 1 ? 0x5C : 0x93) << "steps announced, or none";
  }
}

// Sizes that count the wrong channels or headers; values that are cached too early.
TEST_F(Encoder, SizesAndSteps) {
  EncodeHost host(MakePicture(40, 30, 5, 8), 20, 15,
                  {.layers = 2, .colors = 2, .mask = 3, .transparency = 4});
  host.options.TransparencyCoded = false;
  HostStream stream;
  KelImage& encoder = host.encoder;
  ASSERT_EQ(host.Init(stream), KelOK);
  EXPECT_EQ(encoder.NumProgressionStepsInEncodeImage(), 24);
  EXPECT_EQ(encoder.NumProgresionStepsInCompressImage(), 20);
  EXPECT_EQ(encoder.UpdateCodestreamSize(7, 1000, 0), -1);
  EXPECT_EQ(encoder.UpdateCodestreamSize(1, 1000, 4), 1000 - 4 * 14 * 6 + 4 * 14 * 3);
  EXPECT_EQ(encoder.GetAlphaChannelCodeStreamSize(), -1);
  const KelLong least = encoder.GetMinCodeStreamLength();
  KelLong count = 9;
  const KelLong* steps = encoder.FindQualityNumbersEmbedded(&count);
  ASSERT_NE(steps, nullptr);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(encoder.QualityForTarget(1 << 20), 2182) << "2400 bytes / 1.1";
  EXPECT_EQ(host.options.TargetQuality, 91.0F);
  EXPECT_EQ(encoder.CompressImage(), KelOK);
  const KelLong extra = encoder.GetAlphaChannelCodeStreamSize();
  const KelLong transparency = encoder.GetTransparencyCodeStreamSize();
  EXPECT_GT(transparency, 0);
  EXPECT_GT(extra, transparency);
  EXPECT_EQ(encoder.GetMinCodeStreamLength(), least + extra - transparency);
  EXPECT_EQ(encoder.GetMaxCodeStreamLength() % 1024, 0);
  encoder.Die();  // while there is a stream
}

// A debug file that is not made, or a name that is read from options that are gone.
TEST_F(Encoder, DebugFileIsEmptied) {
  const std::string name = testing::TempDir() + "kel_encoder_debug.txt";
  const auto fill = [&] { std::ofstream(name) << "something"; };
  EncodeHost host(MakePicture(8, 8, 1, 8));
  host.options.DebugFileName = name.c_str();
  fill();
  HostStream stream;
  ASSERT_EQ(host.Init(stream), KelOK);
  EXPECT_FALSE(ReadFile(name).empty());
  host.encoder.Die();
  EXPECT_TRUE(ReadFile(name).empty());
  fill();
  host.options.NumLevels = 99;
  host.Init(stream);
  EXPECT_TRUE(ReadFile(name).empty());
  std::remove(name.c_str());
}

}  // namespace
