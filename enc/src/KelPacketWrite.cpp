// Laying a tile out in tile-parts, and writing them front to back: all lengths are known before
// the first byte is written.
#include "KelPacketWrite.h"

#include <algorithm>

#include "KelStreamWrite.h"
#include "base/KelBytes.h"
#include "base/KelChecksum.h"
#include "base/KelRaise.h"
#include "format/KelHeadersWrite.h"
#include "format/KelStreamPosition.h"
#include "transform/KelQuant.h"

namespace kel {
namespace {

constexpr std::uint64_t kMostTilePart = INT32_MAX;

/// What a tile-part holds: resolutions of components, both as half-open ranges.
struct PartRange {
  std::int32_t firstComp, endComp;
  int firstRes, endRes;
};

/// The tile-parts of a tile: those that hold packets, and one for each component where components
/// have their own, so that a reader who counts them keeps step.
struct Parts {
  PartRange ranges[format::kMostCountedTileParts];
  std::uint64_t dataBytes[format::kMostCountedTileParts];
  int count = 0;
};

/// Bytes of the packets of a resolution in all layers.
std::uint64_t BytesInLayers(const CodedTileComp& coded, int r, const Layers& layers) {
  const std::uint64_t first = PacketBytes(coded, r);
  const std::uint64_t other = layers.repeat || first == 0 ? first : kEmptyPacketBytes;
  return SaturatingAdd(first, SaturatingMul(other, AsCount(layers.count - 1)));
}

/// Calls visit for each packet of a part in writing order.
template <class Visit>
void ForEachPacket(const TileToWrite& tile, const PartRange& range, Visit visit) {
  for (int r = range.firstRes; r < range.endRes; ++r) {
    for (std::int32_t layer = 0; layer < tile.layers.count; ++layer) {
      for (std::int32_t c = range.firstComp; c < range.endComp; ++c)
        visit(*tile.comps[c].coded, r, layer);
    }
  }
}

/// Bytes of a part's packets.
std::uint64_t DataBytes(const TileToWrite& tile, const PartRange& range) {
  std::uint64_t bytes = 0;
  for (int r = range.firstRes; r < range.endRes; ++r) {
    for (std::int32_t c = range.firstComp; c < range.endComp; ++c) {
      bytes = SaturatingAdd(bytes, BytesInLayers(*tile.comps[c].coded, r, tile.layers));
    }
  }
  return bytes;
}

Parts DivideTile(const TileToWrite& tile) {
  Parts parts;
  const int numRes = tile.numLevels + 1;
  const int mostParts =
      std::min(tile.isByComponent ? tile.numComps : numRes, format::kMostCountedTileParts);
  for (int i = 0; i < mostParts; ++i) {
    const PartRange range =
        tile.isByComponent ? PartRange{i, i + 1, 0, numRes} : PartRange{0, tile.numComps, i, i + 1};
    const std::uint64_t bytes = DataBytes(tile, range);
    if (bytes == 0 && !tile.isByComponent) continue;
    if (parts.count > 0 && !tile.isByComponent &&
        SaturatingAdd(parts.dataBytes[parts.count - 1], bytes) <= tile.mostJoinedBytes) {
      parts.ranges[parts.count - 1].endRes = i + 1;
      parts.dataBytes[parts.count - 1] += bytes;
      continue;
    }
    parts.ranges[parts.count] = range;
    parts.dataBytes[parts.count++] = bytes;
  }
  return parts;
}

bool SameSteps(const std::int32_t* exponents, const std::int32_t* mantissas,
               const CodedTileComp& b) {
  const int count = NumSubbands(b.code.numLevels);
  return std::equal(exponents, exponents + count, b.exponents) &&
         std::equal(mantissas, mantissas + count, b.mantissas);
}

/// Whether the main header said the steps of all components.
bool AreAnnounced(const TileToWrite& tile) {
  return std::all_of(tile.comps, tile.comps + tile.numComps, [](const TileCompToWrite& comp) {
    if (!comp.irreversible || !comp.coded->hasSteps) return true;
    return comp.announced != nullptr &&
           SameSteps(comp.announced->exponents, comp.announced->mantissas, *comp.coded);
  });
}

/// The quantisation segments of a tile's first header: none when the main header said the same.
/// Else the steps of the tile's first irreversible component become the tile's, and every other
/// irreversible component whose steps differ from those now in force gets a segment of its own, as
/// do those that the main header named. When the main header announced steps of 1, the first
/// component's can be these.
class TileQuantisation {
 public:
  TileQuantisation(const TileToWrite& tile, KelHeaderParams& set) {
    own_ = NamingModule(kModuleImage,
                        [&] { return OwnedArray<KelQuantParams>::Make(AsCount(tile.numComps)); });
    StepsToExpMant(nullptr, tile.announcedDepth, {0, tile.numLevels}, true, unitExponents_,
                   unitMantissas_);
    inForce_.exponents = unitExponents_;
    inForce_.mantissas = unitMantissas_;
    set.quantisation = &inForce_;
    set.componentQuants = own_.Data();
    if (AreAnnounced(tile)) return;
    const TileCompToWrite* const firstComp = std::find_if(
        tile.comps, tile.comps + tile.numComps, [](const auto& comp) { return comp.irreversible; });
    bool isFirst = true;
    for (std::int32_t c = 0; c < tile.numComps; ++c) {
      const CodedTileComp& coded = *tile.comps[c].coded;
      if (!tile.comps[c].irreversible || !coded.hasSteps) continue;
      const bool isNamed = tile.comps[c].announced != firstComp->announced;
      const bool isOfTile = isFirst && !isNamed;
      if (isNamed || (isOfTile && firstComp->announced != nullptr) ||
          !SameSteps(inForce_.exponents, inForce_.mantissas, coded)) {
        KelQuantParams& quant = isOfTile ? inForce_ : own_[set.numComponentQuants++];
        quant = {.component = c,
                 .quantised = 1,
                 .derived = 0,
                 .guardBits = GuardBits(tile.announcedDepth),
                 .exponents = coded.exponents,
                 .mantissas = coded.mantissas,
                 .numLevels = tile.numLevels,
                 .hasRegion = 0,
                 .regionShift = 0};
        if (isOfTile) set.seenQCD = 1;
      }
      if (!isNamed) isFirst = false;
    }
    set.seenQCC = set.numComponentQuants != 0 ? 1 : 0;
  }

 private:
  std::int32_t unitExponents_[kQuantEntries] = {};
  std::int32_t unitMantissas_[kQuantEntries] = {};
  KelQuantParams inForce_{};
  OwnedArray<KelQuantParams> own_;
};

/// Where packets go: to the stream.
struct StreamTarget {
  KelCodeStm& stream;
  void Put(const std::uint8_t* bytes, std::uint64_t count) { WriteOut(stream, bytes, count); }
};

/// Or into their checksum.
struct ChecksumTarget {
  Checksum sum;
  void Put(const std::uint8_t* bytes, std::uint64_t count) { sum.Add(bytes, count); }
};

template <class Target>
void PutCount(Target& target, std::uint64_t value) {
  std::uint8_t bytes[4];
  StoreBE32(bytes, static_cast<std::uint32_t>(value));
  target.Put(bytes, 4);
}

template <class Target>
void PutCounted(Target& target, const std::uint8_t* bytes, std::uint32_t count) {
  PutCount(target, count);
  if (count != 0) target.Put(bytes, count);
}

template <class Target>
void PutPacket(const CodedTileComp& coded, int r, Target& target) {
  const std::uint64_t bytes = PacketBytes(coded, r);
  const CodedTileComponent& code = coded.code;
  const std::uint8_t* from = code.Bytes();
  for (int lower = 0; lower < r; ++lower) from += code.resSize[lower];
  if (r == 0) {
    PutCounted(target, from, code.resSize[0]);
    return;
  }
  PutCount(target, bytes - 4);
  if (bytes == kEmptyPacketBytes) return;
  for (int b = 3 * r - 2; b <= 3 * r; ++b) {
    PutCounted(target, from, code.bandSize[b]);
    from += code.bandSize[b];
  }
}

/// Calls put(write) for each packet of a part in writing order, where write(target) puts it.
template <class Put>
void ForEachWritten(const TileToWrite& tile, const PartRange& range, Put put) {
  ForEachPacket(tile, range, [&](const CodedTileComp& coded, int r, std::int32_t layer) {
    if (PacketBytes(coded, r) == 0) return;
    const bool isEmpty = layer != 0 && !tile.layers.repeat;
    put([&](auto& target) { isEmpty ? PutCount(target, 0) : PutPacket(coded, r, target); });
  });
}

std::uint64_t CountPackets(const TileToWrite& tile, const PartRange& range) {
  std::uint64_t count = 0;
  ForEachWritten(tile, range, [&](const auto&) { ++count; });
  return count;
}

/// The checksums of a part's packets.
OwnedArray<std::uint32_t> ChecksumsOf(const TileToWrite& tile, const PartRange& range) {
  auto sums = NamingModule(
      kModuleImage, [&] { return OwnedArray<std::uint32_t>::Make(CountPackets(tile, range)); });
  std::size_t i = 0;
  ForEachWritten(tile, range, [&](const auto& write) {
    ChecksumTarget target{};
    write(target);
    sums[i++] = target.sum.Value();
  });
  return sums;
}

}  // namespace

std::uint64_t TileCompBytes(const CodedTileComp& coded, const Layers& layers) {
  std::uint64_t bytes = 0;
  for (int r = 0; r <= coded.code.numLevels; ++r) {
    bytes = SaturatingAdd(bytes, BytesInLayers(coded, r, layers));
  }
  return bytes;
}

std::uint64_t WriteTile(const TileToWrite& tile, KelCodeStm& stream) {
  const Parts parts = DivideTile(tile);
  if (parts.count == 0) return 0;
  KelHeaderParams set{};
  set.Isot = static_cast<std::uint16_t>(tile.index);
  set.TNsot = static_cast<std::uint8_t>(parts.count);
  set.Csiz = tile.numComps;
  set.numLevels = tile.numLevels;
  const TileQuantisation quantisation(tile, set);

  // The first header is the longest.
  KelOutBuffer header = NamingModule(kModuleImage, [&] {
    KelOutBuffer first = KelOutBuffer::Make(kHeaderBufferBytes);
    WriteHeader(set, first);
    return first;
  });
  std::uint64_t total = header.count + AsCount(parts.count - 1) * format::kLeastTilePartBytes;
  std::uint64_t longest = 0;
  for (int i = 0; i < parts.count; ++i) {
    std::uint64_t bytes = parts.dataBytes[i];
    if (tile.hasChecksums)
      bytes += format::ChecksumSegmentsBytes(CountPackets(tile, parts.ranges[i]));
    longest = std::max(longest, bytes);
    total = SaturatingAdd(total, bytes);
  }
  const std::uint64_t left = AsCount(MostPositionOf(stream) - PositionOf(stream));
  if (SaturatingAdd(total, format::kMarkerBytes) > left || longest > kMostTilePart - header.count) {
    Raise(KelErrUnsupported, kModuleImage);
  }
  for (int i = 0; i < parts.count; ++i) {
    set.TPsot = static_cast<std::uint8_t>(i);
    set.dataLength = static_cast<std::uint32_t>(parts.dataBytes[i]);
    OwnedArray<std::uint32_t> sums;
    if (tile.hasChecksums) sums = ChecksumsOf(tile, parts.ranges[i]);
    set.checksums = sums.Data();
    set.numChecksums = static_cast<std::uint32_t>(sums.Size());
    header.count = 0;
    WriteHeader(set, header);
    StreamTarget target{stream};
    target.Put(header.bytes.Data(), header.count);
    ForEachWritten(tile, parts.ranges[i], [&](const auto& write) { write(target); });
    FlushOut(stream);
  }
  return total;
}

}  // namespace kel
