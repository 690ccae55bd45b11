// Reading lists of lengths.
#include "LengthLists.hpp"

#include <utility>

namespace kel::host {
namespace {

constexpr std::size_t kNumberAt = 4;

std::uint64_t NumberAt(ByteView bytes, std::size_t at, std::size_t count) {
  std::uint64_t value = 0;
  for (const std::uint8_t byte : bytes.subspan(at, count)) value = value << 8 | byte;
  return value;
}

}  // namespace

void LengthList::Add(ByteView segment) {
  const bool isNew =
      segment.size() > kNumberAt &&
      pieces_.emplace(segment[kNumberAt], Bytes(segment.begin() + kNumberAt + 1, segment.end()))
          .second;
  isOdd_ = isOdd_ || !isNew;
}

std::optional<std::vector<ListedTilePart>> LengthList::OfTileParts() const {
  std::vector<ListedTilePart> listed;
  for (const auto& [number, piece] : pieces_) {
    if (isOdd_ || piece.empty()) return std::nullopt;
    const std::size_t tileBytes = piece[0] >> 4 & 3U, lengthBytes = (piece[0] & 0x40U) != 0 ? 4 : 2;
    const std::size_t entryBytes = tileBytes + lengthBytes;
    if (tileBytes > 2 || (piece.size() - 1) % entryBytes != 0) return std::nullopt;
    for (std::size_t at = 1; at < piece.size(); at += entryBytes) {
      const auto tile = tileBytes != 0 ? NumberAt(piece, at, tileBytes) : listed.size();
      listed.push_back(
          {static_cast<std::uint32_t>(tile), NumberAt(piece, at + tileBytes, lengthBytes)});
    }
  }
  return listed;
}

std::optional<std::vector<std::uint64_t>> LengthList::OfPackets() const {
  std::vector<std::uint64_t> listed;
  std::uint64_t length = 0;
  bool isOpen = false;
  for (const auto& [number, piece] : pieces_) {
    for (const std::uint8_t byte : piece) {
      if (length > UINT32_MAX) return std::nullopt;
      length = length << 7 | (byte & 0x7FU);
      isOpen = (byte & 0x80U) != 0;
      if (!isOpen) listed.push_back(std::exchange(length, 0));
    }
  }
  if (isOdd_ || isOpen) return std::nullopt;
  return listed;
}

}  // namespace kel::host
