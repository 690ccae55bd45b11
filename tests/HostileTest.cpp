// Small files that once cost seconds or gigabytes: what each costs is counted, in memory, bytes
// read and polls of the abort callback, and judged by the size of the file and of the image.
#include <algorithm>
#include <ctime>
#include <filesystem>

#include "DecodeHost.h"
#include "HostMemory.h"
#include "HostStream.h"
#include "VectorFile.h"

namespace {

using test::Bytes;
using test::Source;

/// An image of more samples would be refused by a host, or costs what it really holds.
constexpr std::uint64_t kMostAccepted = 1 << 20;

KelLong numPolls;

std::uint64_t SamplesOf(const KelImageGeometry& geometry) {
  const auto area = static_cast<std::uint64_t>(geometry.Xsiz - geometry.XOsiz) *
                    static_cast<std::uint64_t>(geometry.Ysiz - geometry.YOsiz);
  return area * static_cast<std::uint64_t>(geometry.Csiz);
}

/// InitDecoder and, of an image that is not large, a frame.
std::uint64_t DecodeOnce(Bytes& data, Source source, test::HostStream& stream) {
  KelUserActions actions;
  actions.AbortRequested = [] { return ++numPolls, KelLong{0}; };
  KelClientProcs procs;
  procs.UserActions = &actions;
  KelCompressedData block{data.data(), static_cast<KelULong>(data.size())};
  const bool isMemory = source == Source::kMemory;
  KelDecOpt options;
  KelImage image;
  options.InitToDefaults();
  std::uint64_t samples = 0;
  if (image.InitDecoder(isMemory ? nullptr : stream.Stream(), isMemory ? &block : nullptr, &options,
                        &procs, nullptr, KelAspectFull) == KelOK) {
    samples = SamplesOf(*image.GetGeometryParams());
    if (samples <= kMostAccepted) {
      image.GetNextFrame(isMemory ? &block : nullptr, nullptr, false, false, nullptr);
    }
  }
  image.Die();
  options.Die();
  return samples;
}

}  // namespace

struct Hostile : test::LibraryTest {};

// Memory or reading that grows with what is announced or with the square of what came.
TEST_F(Hostile, FilesCostNoMoreThanTheirBytesAndSamples) {
  int numFiles = 0;
  for (const auto& entry : std::filesystem::directory_iterator(KEL_HOSTILE)) {
    if (entry.path().extension() != ".kel") continue;
    ++numFiles;
    const Bytes content = test::ReadFile(entry.path().string());
    for (const Source source : {Source::kMemory, Source::kSeekable, Source::kUnseekable}) {
      SCOPED_TRACE(entry.path().filename().string() + ", source " +
                   std::to_string(static_cast<int>(source)));
      Bytes data = content;
      test::HostStream stream(content, source == Source::kSeekable);
      memory.ResetPeak();
      numPolls = 0;
      const std::clock_t start = std::clock();
      const std::uint64_t samples = std::min(DecodeOnce(data, source, stream), kMostAccepted);
      // The slowest build takes a tenth of that; what is bounded badly takes many times as long.
      EXPECT_LE(std::clock() - start, 5 * CLOCKS_PER_SEC);
      const std::size_t most = content.size() <= 1024 ? 16 << 20 : 64 << 20;
      EXPECT_LE(memory.PeakBytes(), most + 16 * samples);
      EXPECT_LE(stream.bytesRead, 4 * content.size() + (1 << 18));
      EXPECT_LE(static_cast<std::uint64_t>(numPolls), 64 + content.size() / 1024 + samples);
    }
  }
  EXPECT_GE(numFiles, 15);
}
