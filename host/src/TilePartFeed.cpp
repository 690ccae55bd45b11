// Windows over data that come once.
#include "TilePartFeed.hpp"

#include <algorithm>
#include <new>

namespace kel::host {
namespace {

/// What the library takes as one block.
constexpr std::size_t kMostWindow = INT32_MAX;
/// So much behind the main header lets a reader see that a tile-part begins.
constexpr std::size_t kBehindHeader = 64;

/// The memory of a window.
class Room {
 public:
  Room(KeptBlocks& blocks, std::size_t bytes) : blocks_(blocks), block_(blocks.Take(bytes)) {
    if (block_.start == nullptr) throw std::bad_alloc();
  }
  ~Room() { blocks_.Return(block_); }
  Room(const Room&) = delete;
  Room& operator=(const Room&) = delete;
  std::uint8_t* Data() const { return static_cast<std::uint8_t*>(block_.start); }

 private:
  KeptBlocks& blocks_;
  const KeptBlocks::Block block_;
};

}  // namespace

TilePartFeed::TilePartFeed(Source& source, ByteView first, std::size_t windowBytes)
    : source_(&source), window_(first), windowBytes_(windowBytes), grow_(windowBytes) {
  std::unique_ptr<Index> index;
  while (!(index = Index::OfArrived(window_))) {
    if (!ReadMore()) throw Error(Failure::kInput, "the data end in the header");
  }
  const std::size_t end = index->Facts().firstTilePartOffset;
  const std::size_t length = std::min(window_.size(), end + kBehindHeader);
  headerBytes_.assign(window_.begin(), window_.begin() + static_cast<std::ptrdiff_t>(length));
  headers_ = headerBytes_;
  header_ = std::make_unique<Index>(headers_);
  taken_ = end;
}

TilePartFeed::TilePartFeed(ByteView all) : ended_(true), done_(true), headers_(all) {
  header_ = std::make_unique<Index>(all);
  const KelIndexTileParts& found = header_->TileParts();
  for (const KelIndexTilePart& part : std::span(found.parts, found.count)) {
    tiles_[part.tile].parts.push_back({nullptr, all.subspan(part.offset, part.length), 0});
  }
}

/// Makes the window one of what has not been taken and of new bytes.
bool TilePartFeed::ReadMore() {
  const std::size_t headerEnd = header_ ? Facts().firstTilePartOffset : 0;
  const ByteView left = window_.subspan(std::max(taken_, headerEnd));
  const std::size_t before = headerEnd + left.size();
  if (ended_ || before > kMostWindow - grow_) return false;
  const auto room = std::make_shared<const Room>(blocks_, before + grow_);
  const std::span all(room->Data(), before + grow_);
  std::copy_n(window_.begin(), headerEnd, all.begin());
  std::copy(left.begin(), left.end(), all.begin() + static_cast<std::ptrdiff_t>(headerEnd));
  std::size_t filled = before;
  while (filled < all.size()) {
    const std::size_t count = source_->Read(all.subspan(filled));
    if (count == 0) break;
    filled += count;
  }
  ended_ = filled < all.size();
  holder_ = room;
  window_ = all.first(filled);
  taken_ = headerEnd;
  return filled > before;
}

void TilePartFeed::Keep(const KelIndexTilePart& part) {
  Tile& tile = tiles_[part.tile];
  const bool cutOff =
      part.announcedBytes > part.length && part.offset + part.length == window_.size();
  tile.parts.push_back({holder_, window_.subspan(part.offset, part.length),
                        cutOff ? part.announcedBytes - part.length : 0});
  tile.numParts = std::max<std::size_t>(tile.numParts, part.numParts);
}

/// Takes the tile-parts that are whole out of the window; at the end of the data also what is left
/// of others.
void TilePartFeed::TakeParts() {
  const std::size_t before = taken_;
  Index index(window_);
  const KelIndexTileParts& found = index.TileParts();
  for (const KelIndexTilePart& part : std::span(found.parts, found.count)) {
    if (part.offset < before) continue;
    const bool whole = part.isRegular && part.announcedBytes != 0 && part.offset == taken_;
    // What comes next must have been seen, or there may be nothing more to come.
    const bool certain = part.offset + part.length + kBehindHeader <= window_.size();
    if (!ended_ && !(whole && certain)) break;
    Keep(part);
    taken_ = part.offset + part.length;
  }
  const bool atEnd = window_.size() - taken_ >= format::kMarkerBytes &&
                     window_[taken_] == Facts().markerByte && window_[taken_ + 1] == format::kEOC;
  done_ = ended_ || atEnd;
  grow_ = taken_ > before ? windowBytes_ : std::min(2 * grow_, kMostWindow / 4);
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
