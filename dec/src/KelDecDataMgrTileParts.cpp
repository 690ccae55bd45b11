// The decoder's byte source among the markers of tile-parts: queries at the read position, the
// search for the next SOT, and the way to a given tile-part.
//
// Packet data carry no stuffing, so any marker can turn up in them by chance; what is searched for
// is therefore checked further.
#include <algorithm>
#include <cstring>

#include "KelDecDataMgr.h"
#include "KelTilePartIndex.h"
#include "base/KelInt.h"
#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"

namespace kel {
namespace {

/// Bytes behind a tile-part that are held with it, so that reading its last blocks, which looks
/// ahead, does not make the window slide.
constexpr std::uint64_t kHeldBehindPart = 1024;

/// First load of a stream where no more than a marker segment may be looked at.
constexpr std::uint64_t kPeekBytes = 64;

/// So many bytes are read rather than passed over by a move.
constexpr std::uint64_t kReadThrough = 512;

/// Whether a marker can follow SOT: SOD, or one of those that belong into headers.
constexpr bool IsHeaderMarker(std::uint32_t second) {
  return second == format::kSOD ||
         (second >= format::kFirstHeaderMarker && second <= format::kLastHeaderMarker);
}

}  // namespace

bool KelDecDataMgr::NextIs(std::uint32_t secondByte) {
  return EnsureBuffered(2) == kBufferedOk && PeekByte(0) == MarkerByte() &&
         PeekByte(1) == secondByte;
}

bool KelDecDataMgr::IsSOT() {
  return NextIs(format::kSOT) && EnsureBuffered(format::kSotBytes) == kBufferedOk;
}

bool KelDecDataMgr::IsEOCOrEnd() {
  return EnsureBuffered(2) != kBufferedOk || NextIs(format::kEOC) ||
         (NextIs(format::kSOT) && !IsSOT());
}

bool KelDecDataMgr::ReadEOC() {
  if (AtEnd()) return false;
  const bool isEOC = NextIs(format::kEOC);
  SkipForward(2);
  return isEOC;
}

bool KelDecDataMgr::IsEOC() {
  return NextIs(format::kEOC);
}

bool KelDecDataMgr::IsValidSOT() {
  return IsSOT() &&
         PeekBytesAt(format::kMarkerBytes, 2) == format::kSotBytes - format::kMarkerBytes &&
         PeekSotIsot() < AsCount(std::int64_t{tilesAcross_} * tilesDown_);
}

bool KelDecDataMgr::MoveToPeek(std::int64_t position) {
  const bool isMoved = MoveTo(position);
  nextLoad_ = std::min(nextLoad_, kPeekBytes);
  return isMoved;
}

// ---- Boundaries ----

/// What stands so many bytes ahead, as far as the window shows. Of a damaged segment two of three
/// fields must be right: the marker, of which half will do then, the length, and the marker behind.
Boundary KelDecDataMgr::BoundaryAt(std::uint64_t ahead) const {
  if (Available() < ahead) return Boundary::kNone;
  const std::uint8_t* p = readPosition_ + ahead;
  const std::uint64_t shown = Available() - ahead;
  const std::uint32_t first = MarkerByte();
  if (shown < 2) return shown == 0 || p[0] == first ? Boundary::kDataEnd : Boundary::kNone;
  if (p[0] == first && p[1] == format::kEOC) return Boundary::kMarker;
  const bool isMarker = p[0] == first && p[1] == format::kSOT;
  if (shown < format::kSotBytes) return isMarker ? Boundary::kDataEnd : Boundary::kNone;
  const bool hasLength = p[2] == 0 && p[3] == format::kSotBytes - format::kMarkerBytes;
  const bool isFollowed = shown >= format::kLeastTilePartBytes && p[format::kSotBytes] == first &&
                          IsHeaderMarker(p[format::kSotBytes + 1]);
  const bool isHalfMarker = p[0] == first || p[1] == format::kSOT;
  const bool isSOT = isMarker ? hasLength || isFollowed : isHalfMarker && hasLength && isFollowed;
  return isSOT ? Boundary::kMarker : Boundary::kNone;
}

Boundary KelDecDataMgr::LookForBoundary(std::int64_t position, bool willBeRead) {
  const std::int64_t here = GetPosition();
  if (position <= here) return Boundary::kNone;
  const std::uint64_t ahead = AsCount(position - here);
  const std::uint64_t wanted = ahead + format::kLeastTilePartBytes;
  if (!IsMovable()) {
    Hold(wanted + kHeldBehindPart);
    return BoundaryAt(ahead);
  }
  const bool isNear = (willBeRead && !passesOver_) || ahead <= kReadThrough;
  if (wanted <= Available() || (isNear && wanted <= capacity_)) {
    EnsureBuffered(wanted);
    return BoundaryAt(ahead);
  }
  // A stream may be moved behind its end: the byte before tells whether the data reach so far.
  if (position > endsBefore_ || !MoveToPeek(position - 1)) return Boundary::kNone;
  EnsureBuffered(1 + format::kLeastTilePartBytes);
  const Boundary found = BoundaryAt(1);
  if (Available() == 0) endsBefore_ = position - 1;
  if (found != Boundary::kMarker || willBeRead) MoveTo(here);
  return found;
}

// ---- Searching ----

/// The first segment in the window from an address on that can begin a tile-part; null without one.
const std::uint8_t* KelDecDataMgr::FindSOT(const std::uint8_t* from) const {
  const std::int64_t numTiles = std::int64_t{tilesAcross_} * tilesDown_;
  while (windowEnd_ - from >= std::int64_t{format::kLeastTilePartBytes}) {
    const std::size_t places =
        static_cast<std::size_t>(windowEnd_ - from) - format::kLeastTilePartBytes + 1;
    const void* found = std::memchr(from, static_cast<int>(MarkerByte()), places);
    if (found == nullptr) return nullptr;
    const auto* p = static_cast<const std::uint8_t*>(found);
    const std::uint32_t length = LoadBE32(p + format::kPsotAt);
    const bool isLength =
        length == 0 || (length >= format::kLeastTilePartBytes && length <= INT32_MAX);
    const bool isNumber = p[format::kTNsotAt] == 0 || p[format::kTPsotAt] < p[format::kTNsotAt];
    if (p[1] == format::kSOT && p[2] == 0 && p[3] == format::kSotBytes - format::kMarkerBytes &&
        LoadBE16(p + format::kIsotAt) < numTiles && isLength && isNumber &&
        p[format::kSotBytes] == MarkerByte() && IsHeaderMarker(p[format::kSotBytes + 1])) {
      return p;
    }
    from = p + 1;
  }
  return nullptr;
}

SotSearch KelDecDataMgr::SearchSOT(std::int64_t from) {
  AlignToByte();
  const std::int64_t here = GetPosition();
  if (from < here || (IsMovable() && !MoveTo(from))) return {.isFound = false, .position = from};
  // Where the window cannot be left, the place searched is this far ahead in it.
  std::uint64_t ahead = IsMovable() ? 0 : AsCount(from - here);
  const std::uint8_t* found = nullptr;
  for (;;) {
    const std::uint64_t wanted = ahead + format::kLeastTilePartBytes;
    if (IsMovable()) {
      EnsureBuffered(wanted);
    } else {
      Hold(wanted + kHeldBehindPart);
    }
    const bool isThere = Available() >= wanted;
    if (isThere) found = FindSOT(readPosition_ + ahead);
    if (!isThere || found != nullptr) break;
    ahead = Available() - (format::kLeastTilePartBytes - 1);
    if (IsMovable()) {
      readPosition_ += ahead;
      ahead = 0;
      if (memoryMode_) break;
    }
  }
  const std::uint64_t passed = found != nullptr ? AsCount(found - readPosition_) : ahead;
  const SotSearch result = {found != nullptr,
                            std::max(from, GetPosition() + static_cast<std::int64_t>(passed))};
  if (IsMovable()) MoveTo(here);
  return result;
}

// ---- The index ----

void KelDecDataMgr::RefreshTileParts() {
  if (index_ != nullptr) RefreshTilePartIndex(*index_, *this);
}

const KelTilePartEntry* KelDecDataMgr::FindTilePart(std::int32_t tile, std::int32_t part) {
  if (tile < 0 || part < 0 || !IndexAllowed()) return nullptr;
  return NamingModule(kModuleDecDataMgr, [&] { return WalkToTilePart(tile, part); });
}

const KelTilePartEntry* KelDecDataMgr::WalkToTilePart(std::int32_t tile, std::int32_t part) {
  if (index_ == nullptr) {
    const std::int64_t numTiles = std::int64_t{tilesAcross_} * tilesDown_;
    index_ = MakeTilePartIndex(
        static_cast<std::uint32_t>(std::clamp<std::int64_t>(numTiles, 0, format::kMostTiles)),
        positionB_, damages_);
  }
  AlignToByte();
  index_->wantedTile = tile;
  const KelTilePartEntry* entry = kel::FindTilePart(*index_, tile, part);
  while (entry == nullptr && ExtendTilePartIndex(*index_, *this)) {
    const KelTilePartEntry& last = index_->entries[index_->numEntries - 1];
    if (last.tile == tile) entry = kel::FindTilePart(*index_, tile, part);
  }
  return entry;
}

}  // namespace kel
