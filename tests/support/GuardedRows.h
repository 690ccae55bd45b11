// Rows of cells with a painted margin around all of them, before the first cell and after every
// row, so that a write outside shows.
#ifndef TESTS_SUPPORT_GUARDED_ROWS_H
#define TESTS_SUPPORT_GUARDED_ROWS_H

#include <cstdint>
#include <cstring>
#include <vector>

namespace test {

template <class T>
class GuardedRows {
 public:
  /// Rows begin `lead` cells after a multiple of the stride; painted all over.
  GuardedRows(std::int64_t width, std::int64_t height, std::int64_t padding = 5,
              std::int64_t lead = 3)
      : width_(width), height_(height), stride_(width + padding), lead_(lead) {
    block_.resize(static_cast<std::size_t>(stride_ * (height + 2) + lead));
    std::memset(block_.data(), kPaint, block_.size() * sizeof(T));
  }

  T* Data() { return block_.data() + stride_ + lead_; }
  std::size_t Stride() const { return static_cast<std::size_t>(stride_); }
  T& At(std::int64_t column, std::int64_t row) { return Data()[row * stride_ + column]; }

  template <class Maker>
  void Fill(Maker make) {
    for (std::int64_t i = 0; i < width_ * height_; ++i) {
      At(i % width_, i / width_) = static_cast<T>(make());
    }
  }
  std::vector<double> Values() {
    std::vector<double> values;
    for (std::int64_t i = 0; i < width_ * height_; ++i) {
      values.push_back(static_cast<double>(At(i % width_, i / width_)));
    }
    return values;
  }
  /// Whether every cell outside the rows still has its paint.
  bool MarginIntact() {
    T paint;
    std::memset(&paint, kPaint, sizeof paint);
    for (std::size_t i = 0; i < block_.size(); ++i) {
      const std::int64_t at = static_cast<std::int64_t>(i) - stride_ - lead_;
      const bool inside = at >= 0 && at / stride_ < height_ && at % stride_ < width_;
      if (!inside && std::memcmp(&block_[i], &paint, sizeof paint) != 0) return false;
    }
    return true;
  }
  bool operator==(const GuardedRows& other) const {
    return block_.size() == other.block_.size() &&
           std::memcmp(block_.data(), other.block_.data(), block_.size() * sizeof(T)) == 0;
  }

 private:
  static constexpr int kPaint = 0xA7;
  std::int64_t width_, height_, stride_, lead_;
  std::vector<T> block_;
};

}  // namespace test

#endif
