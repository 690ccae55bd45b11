// The library's index of data that are fetched in ranges: it reads through a stream object, and
// what made a fetch fail is thrown on.
#ifndef KEL_HOST_RANGE_INDEX_HPP
#define KEL_HOST_RANGE_INDEX_HPP

#include <exception>

#include "Library.hpp"
#include "kel/host/ranges.hpp"

namespace kel::host {

/// The bytes [from, to) of a source.
Bytes FetchBytes(RangeSource& source, std::uint64_t from, std::uint64_t to);
/// Writes a range of a source, piece by piece.
void CopyBytes(RangeSource& source, ByteRange range, Sink& sink);

/// The library's stream object over a source of ranges.
class RangeStream {
 public:
  explicit RangeStream(RangeSource& source);
  RangeStream(const RangeStream&) = delete;
  RangeStream& operator=(const RangeStream&) = delete;

  KelCodeStm* Stream() { return &stream_; }
  /// Throws what made a read fail, if one did: the library only sees the data end there.
  void Rethrow();

 private:
  KelLong Read(std::uint8_t* to, KelLong count);

  RangeSource& source_;
  std::uint64_t position_ = 0;
  std::exception_ptr failure_;
  KelLargeStream large_;
  KelCodeStm stream_;
};

/// A source that can be read anywhere, as ranges.
class SourceRanges final : public RangeSource {
 public:
  explicit SourceRanges(const Source& source) : source_(source), size_(source.Size().value()) {}
  std::uint64_t Size() const override { return size_; }
  bool IsNear() const override { return true; }
  void Fetch(std::uint64_t from, std::span<std::uint8_t> to) override {
    if (source_.ReadAt(from, to) != to.size()) {
      throw Error(Failure::kInput, "the data became shorter while they were read");
    }
  }

 private:
  const Source& source_;
  std::uint64_t size_;
};

/// Whether a source is longer than the blocks that the library takes, and so read by ranges only.
inline bool IsBeyondBlock(const Source& source) {
  return source.Size().value_or(0) > INT32_MAX;
}

/// A length of the data as one in memory; throws Error (kMemory) where the machine has none so
/// large.
std::size_t LengthInMemory(std::uint64_t length);

/// One thread at a time. All operations throw Error (kInput, kMemory).
class RangeIndex {
 public:
  /// Reads everything before the first tile-part. source outlives the index.
  explicit RangeIndex(RangeSource& source);
  ~RangeIndex();
  RangeIndex(const RangeIndex&) = delete;
  RangeIndex& operator=(const RangeIndex&) = delete;

  const KelIndexFacts& Facts() const { return *index_.GetFacts(); }
  std::span<const KelIndexComponent> Components() const;
  const KelIndexTileParts& TileParts();
  /// The numbers of a tile's tile-parts in TileParts(), in the order in which they are decoded.
  std::span<const KelULong> PartsOf(std::uint32_t tile);
  /// The segments of the header of a tile-part; none for a header that cannot be read.
  std::span<const KelIndexSegment> Segments(KelULong part);
  const KelIndexPackets& Packets(const KelIndexWant& want);
  const KelIndexRanges& Ranges(const KelIndexWant& want);
  /// What is there of a tile, bit by bit, and at most so many of the packets that are not.
  const KelIndexFindings& Examine(std::uint32_t tile, KelULong mostLost);
  /// The same, with bytes for what is sound of damaged bands.
  const KelIndexFindings& Mend(std::uint32_t tile, KelULong mostLost);
  /// How often every tile-component of the picture can be halved by leaving out resolutions.
  unsigned LeastLevels();

 private:
  unsigned LevelsOf(std::uint32_t tile);
  template <class Result>
  const Result& Checked(const Result* result);

  RangeStream stream_;
  KelStreamIndex index_;
  std::vector<KelULong> byTile_;
};

}  // namespace kel::host

#endif
