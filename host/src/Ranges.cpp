// Sources of byte ranges, and the cache over them.
#include "kel/host/ranges.hpp"

#include <algorithm>
#include <set>

#include "kel/host/errors.hpp"

namespace kel::host {
namespace {

/// Bytes between missing blocks that are fetched along, to make one request of two.
constexpr std::uint64_t kJoinedGap = 8192;

void RequireInside(std::uint64_t from, std::size_t count, std::uint64_t size) {
  if (from > size || count > size - from) {
    throw Error(Failure::kInput, "bytes behind the end of the data are asked for");
  }
}

}  // namespace

void MemoryRanges::Fetch(std::uint64_t from, std::span<std::uint8_t> to) {
  RequireInside(from, to.size(), bytes_.size());
  std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(from), to.size(), to.begin());
}

FileRanges::FileRanges(const std::string& path) : file_(path) {
  if (!file_.Size()) throw Error(Failure::kInput, path, "has no length to be read by ranges");
}

void FileRanges::Fetch(std::uint64_t from, std::span<std::uint8_t> to) {
  RequireInside(from, to.size(), Size());
  if (file_.ReadAt(from, to) != to.size()) {
    throw Error(Failure::kInput, "the file became shorter while it was read");
  }
}

RangeCache::RangeCache(RangeSource& source, std::uint64_t mostBytes, std::uint64_t blockBytes)
    : source_(source),
      blockBytes_(source.IsNear() ? 0 : blockBytes),
      mostBlocks_(std::max<std::uint64_t>(mostBytes / std::max<std::uint64_t>(blockBytes, 1), 1)) {}

/// Fetches the blocks from the first to the last with one request.
void RangeCache::Load(std::uint64_t first, std::uint64_t last) {
  const std::uint64_t from = first * blockBytes_;
  const std::uint64_t to = std::min((last + 1) * blockBytes_, Size());
  Bytes bytes(static_cast<std::size_t>(to - from));
  source_.Fetch(from, bytes);
  ++requests_;
  bytesFetched_ += bytes.size();
  for (std::uint64_t block = first; block <= last; ++block) {
    if (Has(block)) continue;
    const ByteView all(bytes);
    const std::uint64_t at = (block - first) * blockBytes_;
    const ByteView part = all.subspan(at, std::min<std::uint64_t>(blockBytes_, all.size() - at));
    order_.push_front(block);
    blocks_[block] = {Bytes(part.begin(), part.end()), order_.begin()};
  }
}

void RangeCache::Fetch(std::uint64_t from, std::span<std::uint8_t> to) {
  RequireInside(from, to.size(), Size());
  if (to.empty()) return;
  if (blockBytes_ == 0) return source_.Fetch(from, to);
  const std::lock_guard lock(mutex_);
  const std::uint64_t first = from / blockBytes_, last = (from + to.size() - 1) / blockBytes_;
  for (std::uint64_t block = first; block <= last; ++block) {
    if (Has(block)) continue;
    std::uint64_t end = block;
    while (end < last && !Has(end + 1)) ++end;
    Load(block, end);
    block = end;
  }
  for (std::uint64_t block = first; block <= last; ++block) {
    Block& found = blocks_.at(block);
    order_.splice(order_.begin(), order_, found.place);
    const std::uint64_t start = block * blockBytes_;
    const std::uint64_t begin = std::max(from, start);
    const std::uint64_t end = std::min(from + to.size(), start + found.bytes.size());
    std::copy(found.bytes.begin() + static_cast<std::ptrdiff_t>(begin - start),
              found.bytes.begin() + static_cast<std::ptrdiff_t>(end - start),
              to.begin() + static_cast<std::ptrdiff_t>(begin - from));
  }
  for (; order_.size() > mostBlocks_; order_.pop_back()) blocks_.erase(order_.back());
}

void RangeCache::Prepare(std::span<const ByteRange> ranges) {
  if (blockBytes_ == 0) return;
  const std::lock_guard lock(mutex_);
  std::set<std::uint64_t> missing;
  for (const ByteRange& range : ranges) {
    const std::uint64_t to = std::min(range.to, Size());
    for (std::uint64_t block = range.from / blockBytes_; block * blockBytes_ < to; ++block) {
      if (!Has(block)) missing.insert(block);
      if (missing.size() >= mostBlocks_) break;  // the rest comes when it is read
    }
  }
  const std::uint64_t most = 1 + kJoinedGap / blockBytes_;
  for (auto next = missing.begin(); next != missing.end();) {
    const std::uint64_t first = *next;
    std::uint64_t last = first;
    for (; next != missing.end() && *next <= last + most; ++next) last = *next;
    Load(first, last);
  }
  for (; order_.size() > 2 * mostBlocks_; order_.pop_back()) blocks_.erase(order_.back());
}

}  // namespace kel::host
