// The decoder's byte source among the markers of tile-parts: queries at the read position, the
// scan for the next SOT, and the way to a given tile-part.
//
// An SOT segment is 12 bytes: marker, Lsot (2), Isot (2), Psot (4), TPsot (1), TNsot (1). Packet
// data carry no stuffing, so either marker can turn up in them by chance; what is scanned for is
// therefore checked further (FindPlausibleSOT).
#include <algorithm>
#include <cstring>

#include "KelDecDataMgr.h"
#include "KelTilePartIndex.h"
#include "base/KelInt.h"

namespace kel {
namespace {

constexpr std::uint32_t kSOT = 0x90, kSOP = 0x91, kEPH = 0x92, kEOC = 0xD9;
constexpr std::uint64_t kSopBytes = 6;

/// Most tiles that a 16-bit tile index can tell apart.
constexpr std::int64_t kMostTiles = 65536;

}  // namespace

bool KelDecDataMgr::NextIs(std::uint32_t secondByte) {
  return EnsureBuffered(2) == kBufferedOk && PeekByte(0) == MarkerByte() &&
         PeekByte(1) == secondByte;
}

bool KelDecDataMgr::IsSOT() {
  return NextIs(kSOT) && EnsureBuffered(kSotSegmentBytes) == kBufferedOk;
}

bool KelDecDataMgr::IsEOCOrEnd() {
  return EnsureBuffered(2) != kBufferedOk || NextIs(kEOC) || (NextIs(kSOT) && !IsSOT());
}

bool KelDecDataMgr::AtTilePartBoundary() {
  return EnsureBuffered(2) != kBufferedOk || NextIs(kEOC) || NextIs(kSOT);
}

bool KelDecDataMgr::ReadEOC() {
  if (AtEnd()) return false;
  const bool isEOC = NextIs(kEOC);
  SkipForward(2);
  return isEOC;
}

bool KelDecDataMgr::SkipSOP() {
  if (!NextIs(kSOP)) return false;
  SkipForward(kSopBytes);
  return true;
}

bool KelDecDataMgr::SkipEPH() {
  if (!NextIs(kEPH)) return false;
  SkipForward(2);
  return true;
}

/// Moves to the first SOT or EOC pattern of the window; without one to its last byte, which may
/// be the first of a marker, and the answer is false.
bool KelDecDataMgr::ScanWindowForMarker() {
  while (Available() >= 2) {
    const std::size_t places = static_cast<std::size_t>(Available() - 1);
    const void* found = std::memchr(readPosition_, static_cast<int>(MarkerByte()), places);
    if (found == nullptr) {
      readPosition_ += places;
      return false;
    }
    readPosition_ = static_cast<const std::uint8_t*>(found);
    if (readPosition_[1] == kSOT || readPosition_[1] == kEOC) return true;
    ++readPosition_;
  }
  return false;
}

bool KelDecDataMgr::FindNextSOT() {
  AlignToByte();
  while (EnsureBuffered(2) == kBufferedOk) {
    if (ScanWindowForMarker()) return PeekByte(1) == kSOT;
  }
  SkipForward(1);
  return false;
}

bool KelDecDataMgr::FindPlausibleSOT() {
  const std::int64_t numTiles = std::int64_t{tilesAcross_} * tilesDown_;
  for (;; SkipForward(2)) {
    if (!FindNextSOT()) {
      if (NextIs(kEOC) && EnsureBuffered(3) == kBufferedOk) continue;
      return false;
    }
    if (!IsSOT()) return false;
    const std::uint32_t length = PeekSotPsot();
    if (PeekBytesAt(2, 2) == kSotSegmentBytes - 2 && PeekSotIsot() < numTiles &&
        (length == 0 || length >= kLeastTilePartBytes)) {
      return true;
    }
  }
}

bool KelDecDataMgr::GoToTilePart(std::int32_t tile, std::int32_t part) {
  if (tile < 0 || part < 0) return false;
  if (IsSOT() && PeekSotIsot() == AsCount(tile) && PeekSotTPsot() == AsCount(part)) {
    EnsureBuffered(std::min<std::uint64_t>(PeekSotPsot(), capacity_));
    return true;
  }
  if (index_ == nullptr) {
    if (!IndexAllowed()) return false;
    const std::int64_t numTiles = std::int64_t{tilesAcross_} * tilesDown_;
    index_ = BuildTilePartIndex(
        *this, static_cast<std::uint32_t>(std::clamp<std::int64_t>(numTiles, 0, kMostTiles)));
  }
  const KelTilePartEntry* entry = FindTilePart(*index_, tile, part);
  if (entry == nullptr || !MoveTo(entry->position)) return false;
  EnsureBuffered(std::min<std::uint64_t>(entry->length, capacity_));
  return true;
}

}  // namespace kel
