// Sources of byte ranges, and the cache over them.
#include "kel/host/ranges.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
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

FileRanges::FileRanges(const std::string& path)
    : file_(std::fopen(path.c_str(), "rb"), std::fclose), name_(path) {
  // What is asked for is read, and no more.
  if (file_ != nullptr) std::setvbuf(file_.get(), nullptr, _IONBF, 0);
  const bool opened = file_ != nullptr && fseeko(file_.get(), 0, SEEK_END) == 0;
  const off_t size = opened ? ftello(file_.get()) : -1;
  if (size < 0)
    throw Error(Failure::kInput, path, "cannot be opened: " + std::string(std::strerror(errno)));
  size_ = static_cast<std::uint64_t>(size);
}

void FileRanges::Fetch(std::uint64_t from, std::span<std::uint8_t> to) {
  RequireInside(from, to.size(), size_);
  const std::lock_guard lock(mutex_);
  const bool moved = fseeko(file_.get(), static_cast<off_t>(from), SEEK_SET) == 0;
  if (!moved || std::fread(to.data(), 1, to.size(), file_.get()) != to.size()) {
    throw Error(Failure::kInput, name_, "cannot be read: " + std::string(std::strerror(errno)));
  }
}

RangeCache::RangeCache(RangeSource& source, std::uint64_t mostBytes, std::uint64_t blockBytes)
    : source_(source),
      blockBytes_(std::max<std::uint64_t>(blockBytes, 1)),
      mostBlocks_(std::max<std::uint64_t>(mostBytes / blockBytes_, 1)) {}

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
