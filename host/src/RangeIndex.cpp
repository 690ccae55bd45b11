// The index over a source of ranges.
#include "RangeIndex.hpp"

#include <algorithm>
#include <numeric>
#include <tuple>

#include "kel/host/limits.hpp"

namespace kel::host {

Bytes FetchBytes(RangeSource& source, std::uint64_t from, std::uint64_t to) {
  Bytes bytes(LengthInMemory(to - from));
  if (!bytes.empty()) source.Fetch(from, bytes);
  return bytes;
}

void CopyBytes(RangeSource& source, ByteRange range, Sink& sink) {
  constexpr std::uint64_t kMostAtOnce = std::uint64_t{1} << 20;
  Bytes buffer;
  while (range.from < range.to) {
    const auto count = static_cast<std::size_t>(std::min(kMostAtOnce, range.to - range.from));
    buffer.resize(count);
    source.Fetch(range.from, buffer);
    sink.Write(buffer);
    range.from += count;
  }
}

RangeStream::RangeStream(RangeSource& source) : source_(source) {
  large_.clientData = this;
  large_.Read = [](void* self, void* to, KelLong count) {
    return static_cast<RangeStream*>(self)->Read(static_cast<std::uint8_t*>(to), count);
  };
  large_.Write = [](void*, const void*, KelLong) { return KelLong{-1}; };
  large_.Seek = [](void* self, std::int64_t position) {
    static_cast<RangeStream*>(self)->position_ = static_cast<std::uint64_t>(position);
    return position;
  };
  large_.InitStream(&stream_, static_cast<std::int64_t>(source_.Size()), false, true, true, false);
}

void RangeStream::Rethrow() {
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

KelLong RangeStream::Read(std::uint8_t* to, KelLong count) {
  const std::uint64_t left = source_.Size() - std::min(source_.Size(), position_);
  const auto taken =
      static_cast<std::size_t>(std::min<std::uint64_t>(left, static_cast<std::uint64_t>(count)));
  if (taken == 0) return 0;
  try {
    CheckTime();
    source_.Fetch(position_, {to, taken});
  } catch (...) {
    failure_ = std::current_exception();
    return -1;
  }
  position_ += taken;
  return static_cast<KelLong>(taken);
}

std::size_t LengthInMemory(std::uint64_t length) {
  if (length > Bytes().max_size()) {
    throw Error(Failure::kMemory, "a part of the data is larger than memory can be");
  }
  return static_cast<std::size_t>(length);
}

RangeIndex::RangeIndex(RangeSource& source) : stream_(source) {
  RequireSession();
  const KelLong code = index_.InitIndex(stream_.Stream(), nullptr);
  if (code == KelOK) return;
  try {
    stream_.Rethrow();
    Bytes first(
        static_cast<std::size_t>(std::min<std::uint64_t>(source.Size(), format::kSignatureBytes)));
    source.Fetch(0, first);
    ThrowIndexFailure(index_, code, Failure::kInput, first);
  } catch (...) {
    index_.Die();
    throw;
  }
}

RangeIndex::~RangeIndex() {
  index_.Die();
}

template <class Result>
const Result& RangeIndex::Checked(const Result* result) {
  stream_.Rethrow();
  if (result == nullptr) ThrowIndexFailure(index_, KelErrNoMemory, Failure::kMemory);
  return *result;
}

std::span<const KelIndexComponent> RangeIndex::Components() const {
  return {Facts().components, static_cast<std::size_t>(Facts().geometry->Csiz)};
}

const KelIndexTileParts& RangeIndex::TileParts() {
  return Checked(index_.GetTileParts());
}

std::span<const KelULong> RangeIndex::PartsOf(std::uint32_t tile) {
  const KelIndexTilePart* parts = TileParts().parts;
  if (byTile_.empty()) {
    byTile_.resize(TileParts().count);
    std::iota(byTile_.begin(), byTile_.end(), KelULong{0});
    std::ranges::sort(byTile_, {}, [&](KelULong i) {
      return std::tuple(parts[i].tile, parts[i].part, parts[i].offset);
    });
  }
  const auto tileOf = [&](KelULong i) { return parts[i].tile; };
  const auto first = std::ranges::lower_bound(byTile_, tile, {}, tileOf);
  const auto last = std::ranges::upper_bound(byTile_, tile, {}, tileOf);
  return std::span(byTile_).subspan(static_cast<std::size_t>(first - byTile_.begin()),
                                    static_cast<std::size_t>(last - first));
}

std::span<const KelIndexSegment> RangeIndex::Segments(KelULong part) {
  KelULong count = 0;
  const KelIndexSegment* segments = index_.GetSegments(part, &count);
  stream_.Rethrow();
  if (segments != nullptr) return std::span(segments, count);
  if (TileParts().parts[part].headerBytes != 0) {
    ThrowIndexFailure(index_, KelErrNoMemory, Failure::kMemory);
  }
  return {};  // a header that cannot be read
}

const KelIndexPackets& RangeIndex::Packets(const KelIndexWant& want) {
  return Checked(index_.GetPackets(&want));
}

const KelIndexRanges& RangeIndex::Ranges(const KelIndexWant& want) {
  return Checked(index_.GetRanges(&want));
}

const KelIndexFindings& RangeIndex::Examine(std::uint32_t tile, KelULong mostLost) {
  return Checked(index_.ExamineTile(tile, mostLost));
}

const KelIndexFindings& RangeIndex::Mend(std::uint32_t tile, KelULong mostLost) {
  return Checked(index_.MendTile(tile, mostLost));
}

/// The lowest resolution of a component stands so many levels below full size.
unsigned RangeIndex::LevelsOf(std::uint32_t tile) {
  constexpr KelULong kLowestOnly = format::kMostLevels;
  const KelIndexPackets& found = Packets({tile, -1, kLowestOnly, 1});
  unsigned levels = kLowestOnly;
  for (const KelIndexPacket& packet : std::span(found.packets, found.count)) {
    if (packet.resolution == 0) levels = std::min(levels, packet.levelsAbove);
  }
  return found.count == 0 ? Facts().numLevels : levels;
}

unsigned RangeIndex::LeastLevels() {
  const KelIndexTileParts& parts = TileParts();
  std::vector<bool> hasOwn(static_cast<std::size_t>(Facts().geometry->NumXTiles) *
                           static_cast<std::size_t>(Facts().geometry->NumYTiles));
  for (const KelIndexTilePart& part : std::span(parts.parts, parts.count)) {
    hasOwn[part.tile] = hasOwn[part.tile] || part.hasCodingStyle;
  }
  unsigned least = format::kMostLevels;
  bool isCommonKnown = false;  // of the tiles that follow the main header
  for (std::uint32_t tile = 0; tile < hasOwn.size(); ++tile) {
    if ((!hasOwn[tile] && isCommonKnown) || PartsOf(tile).empty()) continue;
    isCommonKnown = isCommonKnown || !hasOwn[tile];
    least = std::min(least, LevelsOf(tile));
  }
  return isCommonKnown ? least : std::min(least, Facts().numLevels);
}

}  // namespace kel::host
