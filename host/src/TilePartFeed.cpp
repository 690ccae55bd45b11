// Windows over data that come once.
#include "TilePartFeed.hpp"

#include <algorithm>

namespace kel::host {
namespace {

/// Positions of the format are signed 32-bit numbers, within the window too.
constexpr std::size_t kMostWindow = INT32_MAX;
/// So much behind the main header lets a reader see that a tile-part begins.
constexpr std::size_t kBehindHeader = 64;

}  // namespace

TilePartFeed::TilePartFeed(Source& source, Bytes first, std::size_t windowBytes)
    : source_(&source), window_(std::move(first)), windowBytes_(windowBytes), grow_(windowBytes) {
  std::unique_ptr<Index> index;
  while (!(index = Index::OfArrived(window_))) {
    if (!ReadMore()) throw Error(Failure::kInput, "the data end in the header");
  }
  const std::size_t end = index->Facts().firstTilePartOffset;
  const std::size_t length = std::min(window_.size(), end + kBehindHeader);
  headerBytes_.assign(window_.begin(), window_.begin() + static_cast<std::ptrdiff_t>(length));
  headers_ = headerBytes_;
  header_ = std::make_unique<Index>(headers_);
}

TilePartFeed::TilePartFeed(ByteView all) : ended_(true), done_(true), headers_(all) {
  header_ = std::make_unique<Index>(all);
  const KelIndexTileParts& found = header_->TileParts();
  for (const KelIndexTilePart& part : std::span(found.parts, found.count)) {
    tiles_[part.tile].parts.push_back({{}, all.subspan(part.offset, part.length), 0});
  }
}

bool TilePartFeed::ReadMore() {
  if (ended_ || window_.size() > kMostWindow - grow_) return false;
  const std::size_t before = window_.size();
  window_.resize(before + grow_);
  std::size_t filled = before;
  while (filled < window_.size()) {
    const std::size_t count = source_->Read(std::span(window_).subspan(filled));
    if (count == 0) break;
    filled += count;
  }
  ended_ = filled < window_.size();
  window_.resize(filled);
  return filled > before;
}

void TilePartFeed::Keep(const KelIndexTilePart& part) {
  Tile& tile = tiles_[part.tile];
  const auto from = window_.begin() + static_cast<std::ptrdiff_t>(part.offset);
  const bool cutOff =
      part.announcedBytes > part.length && part.offset + part.length == window_.size();
  tile.parts.push_back({Bytes(from, from + static_cast<std::ptrdiff_t>(part.length)),
                        {},
                        cutOff ? part.announcedBytes - part.length : 0});
  tile.numParts = std::max<std::size_t>(tile.numParts, part.numParts);
}

/// Takes the tile-parts that are whole out of the window; at the end of the data also what is left
/// of others.
void TilePartFeed::TakeParts() {
  const std::size_t headerEnd = Facts().firstTilePartOffset;
  Index index(window_);
  const KelIndexTileParts& found = index.TileParts();
  std::size_t taken = headerEnd;
  for (const KelIndexTilePart& part : std::span(found.parts, found.count)) {
    const bool whole = part.isRegular && part.announcedBytes != 0 && part.offset == taken;
    // What comes next must have been seen, or there may be nothing more to come.
    const bool certain = part.offset + part.length + kBehindHeader <= window_.size();
    if (!ended_ && !(whole && certain)) break;
    Keep(part);
    taken = part.offset + part.length;
  }
  const bool atEnd = window_.size() - taken >= format::kMarkerBytes &&
                     window_[taken] == Facts().markerByte && window_[taken + 1] == format::kEOC;
  done_ = ended_ || atEnd;
  grow_ = taken > headerEnd ? windowBytes_ : std::min(2 * grow_, kMostWindow / 4);
  window_.erase(window_.begin() + static_cast<std::ptrdiff_t>(headerEnd),
                window_.begin() + static_cast<std::ptrdiff_t>(taken));
}

void TilePartFeed::Fetch(std::uint32_t first, std::uint32_t last) {
  for (std::uint32_t tile = first; tile < last && !done_;) {
    const auto found = tiles_.find(tile);
    if (found != tiles_.end() && found->second.IsWhole()) {
      ++tile;
      continue;
    }
    TakeParts();
    const auto now = tiles_.find(tile);
    const bool whole = now != tiles_.end() && now->second.IsWhole();
    if (!whole && !done_ && !ReadMore()) ended_ = true;
  }
}

std::vector<TilePartFeed::Part> TilePartFeed::Take(std::uint32_t tile) {
  const auto node = tiles_.extract(tile);
  return node.empty() ? std::vector<Part>() : std::move(node.mapped().parts);
}

}  // namespace kel::host
