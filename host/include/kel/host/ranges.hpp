// Bytes that can be fetched anywhere: a file, memory, or what a program's own function brings, over
// a network for instance; and a cache that turns many small requests into few.
#ifndef KEL_HOST_RANGES_HPP
#define KEL_HOST_RANGES_HPP

#include "language.hpp"

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <utility>

#include "streams.hpp"

namespace kel::host {

/// Bytes [from, to).
struct ByteRange {
  std::uint64_t from = 0, to = 0;
};

class RangeSource {
 public:
  virtual ~RangeSource() = default;
  virtual std::uint64_t Size() const = 0;
  /// Fills `to` with the bytes from `from` on, all of which lie below Size(). May be called on any
  /// thread. Throws Error (kInput) when they cannot be had.
  virtual void Fetch(std::uint64_t from, std::span<std::uint8_t> to) = 0;
  /// Whether a fetch costs so little that nothing need be kept or fetched along.
  virtual bool IsNear() const { return false; }
};

class MemoryRanges : public RangeSource {
 public:
  explicit MemoryRanges(ByteView bytes) : bytes_(bytes) {}  ///< bytes outlive the source
  std::uint64_t Size() const override { return bytes_.size(); }
  bool IsNear() const override { return true; }
  void Fetch(std::uint64_t from, std::span<std::uint8_t> to) override;

 private:
  ByteView bytes_;
};

class FileRanges : public RangeSource {
 public:
  explicit FileRanges(const std::string& path);  ///< throws Error (kInput)
  std::uint64_t Size() const override { return *file_.Size(); }
  bool IsNear() const override { return true; }
  void Fetch(std::uint64_t from, std::span<std::uint8_t> to) override;

 private:
  FileSource file_;
};

/// A program's own function, such as an HTTP request for [from, from + to.size()).
class CallbackRanges : public RangeSource {
 public:
  using Function = std::function<void(std::uint64_t from, std::span<std::uint8_t> to)>;
  CallbackRanges(std::uint64_t size, Function fetch) : size_(size), fetch_(std::move(fetch)) {}
  std::uint64_t Size() const override { return size_; }
  void Fetch(std::uint64_t from, std::span<std::uint8_t> to) override { fetch_(from, to); }

 private:
  std::uint64_t size_;
  Function fetch_;
};

/// Keeps what was fetched, in blocks, the last used the longest. Blocks that are missing next to
/// each other are fetched with one request. With blocks of 0 bytes, and over a near source, nothing
/// is kept, and every fetch goes on as it is.
class RangeCache : public RangeSource {
 public:
  /// source outlives the cache.
  explicit RangeCache(RangeSource& source, std::uint64_t mostBytes = std::uint64_t{8} << 20,
                      std::uint64_t blockBytes = 1024);
  std::uint64_t Size() const override { return source_.Size(); }
  void Fetch(std::uint64_t from, std::span<std::uint8_t> to) override;
  /// Fetches what of the ranges is missing, those a few kilobytes apart with one request.
  void Prepare(std::span<const ByteRange> ranges);

  std::uint64_t Requests() const { return requests_; }  ///< made of the source
  std::uint64_t BytesFetched() const { return bytesFetched_; }

 private:
  using Order = std::list<std::uint64_t>;
  struct Block {
    Bytes bytes;
    Order::iterator place;
  };
  bool Has(std::uint64_t block) const { return blocks_.contains(block); }
  void Load(std::uint64_t first, std::uint64_t last);

  RangeSource& source_;
  const std::uint64_t blockBytes_, mostBlocks_;
  std::mutex mutex_;
  std::map<std::uint64_t, Block> blocks_;
  Order order_;  ///< the last used first
  std::uint64_t requests_ = 0, bytesFetched_ = 0;
};

}  // namespace kel::host

#endif
