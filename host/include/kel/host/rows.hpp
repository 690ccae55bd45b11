// Rows of samples as files hold them: pixel after pixel, or packed without gaps, most significant
// bit first. PBM and TIFF files and the library's own sample buffers pack depths that do not fill
// whole bytes.
#ifndef KEL_HOST_ROWS_HPP
#define KEL_HOST_ROWS_HPP

#include <cstdint>

#include "image.hpp"

namespace kel::host {

inline std::uint64_t PackedRowBytes(std::uint64_t samples, unsigned depth) {
  return (samples * depth + 7) / 8;
}

/// Writes samples of up to 32 bits one after another; Finish fills the last byte with zero bits.
class PackedRowWriter {
 public:
  explicit PackedRowWriter(std::uint8_t* to) : to_(to) {}
  void Put(std::uint32_t value, unsigned depth) {
    pending_ = pending_ << depth | value;
    for (pendingBits_ += depth; pendingBits_ >= 8; pendingBits_ -= 8) {
      *to_++ = static_cast<std::uint8_t>(pending_ >> (pendingBits_ - 8));
    }
  }
  void Finish() {
    if (pendingBits_ != 0) *to_++ = static_cast<std::uint8_t>(pending_ << (8 - pendingBits_));
    pendingBits_ = 0;
  }

 private:
  std::uint8_t* to_;
  std::uint64_t pending_ = 0;  // its low pendingBits_ bits, at most 7 between calls
  unsigned pendingBits_ = 0;
};

/// Reads what a PackedRowWriter wrote.
class PackedRowReader {
 public:
  explicit PackedRowReader(const std::uint8_t* from) : from_(from) {}
  std::uint32_t Get(unsigned depth) {
    for (; pendingBits_ < depth; pendingBits_ += 8) pending_ = pending_ << 8 | *from_++;
    pendingBits_ -= depth;
    return static_cast<std::uint32_t>(pending_ >> pendingBits_) & (UINT32_MAX >> (32 - depth));
  }

 private:
  const std::uint8_t* from_;
  std::uint64_t pending_ = 0;  // its low pendingBits_ bits, at most 7 between calls
  unsigned pendingBits_ = 0;
};

/// Spreads a row of pixels, one value per plane each, over the planes of an image of full size.
template <class Value>
void SplitRow(const Value* pixels, Image& image, std::uint32_t y) {
  const std::size_t channels = image.planes.size();
  for (std::size_t c = 0; c < channels; ++c) {
    WithSampleType(image.planes[c].BytesPerSample(), [&](auto sample) {
      auto* row = image.planes[c].Row<decltype(sample)>(y);
      for (std::size_t x = 0; x < image.width; ++x) {
        row[x] = static_cast<decltype(sample)>(pixels[x * channels + c]);
      }
    });
  }
}

/// The reverse of SplitRow.
template <class Value>
void JoinRow(const Image& image, std::uint32_t y, Value* pixels) {
  const std::size_t channels = image.planes.size();
  for (std::size_t c = 0; c < channels; ++c) {
    WithSampleType(image.planes[c].BytesPerSample(), [&](auto sample) {
      const auto* row = image.planes[c].Row<decltype(sample)>(y);
      for (std::size_t x = 0; x < image.width; ++x) {
        pixels[x * channels + c] = static_cast<Value>(row[x]);
      }
    });
  }
}

}  // namespace kel::host

#endif
