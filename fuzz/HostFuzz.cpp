// The host kit over arbitrary data: what it tells, the whole image at once in runs of tiles on
// threads, and the same as the bytes arrive; what is wrong with it, and a file made whole. The kit
// cuts and places by what the library's index says; whether both see the same image shows in the
// samples.
#include <kel/Kel.h>

#include "HostSupport.hpp"

namespace {

using namespace kel::host;
using fuzz::Require;
using fuzz::Try;

/// Pieces in which the data arrive, at most.
constexpr std::size_t kPieces = 5;

struct Arrival {
  std::optional<Image> image;
  bool complete = false;
};

/// Feeds the data, going on after a refusal as a host may.
Arrival DecodeArriving(ByteView data) {
  ProgressiveDecoder decoder;
  Arrival result;
  const std::size_t step = data.size() / kPieces + 1;
  for (std::size_t at = 0; at < data.size(); at += step) {
    const auto update =
        Try([&] { return decoder.Feed(data.subspan(at, std::min(step, data.size() - at))); });
    result.complete = update && update->complete;
  }
  if (decoder.HasHeader()) result.image = Try([&] { return decoder.GetImage(); });
  return result;
}

/// The geometry that a decoder of the library finds is the one that the kit tells.
void CompareWithLibrary(ByteView data, const Info& info) {
  KelCompressedData block{data.data(), static_cast<KelULong>(data.size())};
  KelDecOpt options;
  KelImage object;
  options.InitToDefaults();
  const KelLong code =
      object.InitDecoder(nullptr, &block, &options, nullptr, nullptr, KelAspectFull);
  if (code == KelOK) {
    const KelImageGeometry& geometry = *object.GetGeometryParams();
    Require(static_cast<std::size_t>(geometry.Csiz) == info.components.size());
    Require(static_cast<std::uint32_t>(geometry.Xsiz - geometry.XOsiz) == info.width);
    Require(static_cast<std::uint32_t>(geometry.NumXTiles) == info.tilesAcross);
    for (const Info::TilePart& part : info.tileParts) {
      Require(part.tile < info.tilesAcross * info.tilesDown);
      Require(info.codeStreamOffset + part.offset + part.length <= data.size());
    }
  }
  Require(code == KelOK || code == KelErrNoMemory);
  object.Die();
  options.Die();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Session session(std::uint64_t{24} << 20);
  const ByteView bytes(data, size);
  MemorySource forProbe(bytes), forHalf(bytes), forWhole(bytes);
  if (const auto info = Try([&] { return Probe(forProbe); })) CompareWithLibrary(bytes, *info);

  DecodeParams params;
  params.acceptIncomplete = true;
  params.threads = 2;
  DecodeReport report;
  params.reduce = 1;
  Try([&] { return Decode(forHalf, params); });
  params.reduce = 0;
  const auto whole = Try([&] { return Decode(forWhole, params, &report); });
  const Arrival arrived = DecodeArriving(bytes);
  Try([&] {
    MemoryRanges ranges(bytes);
    const CheckReport checked = Check(ranges, {.mostEntries = 50});
    Require(checked.flaws.size() <= 50 && checked.losses.size() <= 50);
    Require(!checked.IsSound() || !whole || report.complete);
    return true;
  });
  Try([&] {
    MemoryRanges ranges(bytes);
    MemorySink repaired;
    Repair(ranges, repaired, {.mostEntries = 50});
    MemoryRanges again(repaired.bytes);
    Require(Check(again, {.mostEntries = 50}).IsSound());
    return true;
  });
  if (whole && report.complete && arrived.image && arrived.complete) {
    Require(fuzz::AreEqual(*whole, *arrived.image));
    if (auto ordinary = arrived.image) Try([&] { return MakeOrdinary(*ordinary), true; });
  }
  Require(Session::CurrentBytes() == 0);
  return 0;
}
