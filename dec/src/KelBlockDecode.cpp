// Walking the blocks of a band, and decoding those that no kernel takes.
//
// As long as the reader's window holds the largest block and what kernels load behind it, whole
// blocks of 8 x 8 go to the kernel, which decodes as many in a row as it can, and smaller blocks
// are decoded from the window as well. Near the end of the data blocks are read through the reader,
// which delivers 0xFF bytes behind the end and tells so. Both ways are the same text over two
// sources of bits.
#include "KelBlockDecode.h"

#include <algorithm>
#include <cassert>
#include <type_traits>

#include "format/KelBlockGrid.h"
#include "kernels/KelBlocksRead.h"
#include "kernels/KelColumnPatternCode.h"
#include "kernels/KelKernels.h"

namespace kel {
namespace {

// ---- Sources of bits ----

/// Bits straight from a window that surely holds them.
struct WindowBits {
  const std::uint8_t* window;
  std::uint64_t position;

  /// The next n = 1 to 32 bits.
  std::uint32_t Take(unsigned n) {
    const std::uint64_t bits = LoadBits(window, position) >> (64 - n);
    position += n;
    return static_cast<std::uint32_t>(bits);
  }
  unsigned TakePattern() {
    const unsigned pattern = kColumnPatternsByBits.pattern[LoadBits(window, position) >> 58];
    position += kColumnPatternCode[pattern].length;
    return pattern;
  }
};

/// Bits through the reader.
struct ReaderBits {
  KelDecDataMgr& reader;

  std::uint32_t Take(unsigned n) { return reader.ReadBits(static_cast<int>(n)); }
  /// Bits are added until they are a whole word: the one that six bits beginning so stand for.
  unsigned TakePattern() {
    unsigned bits = 0;
    for (unsigned length = 1;; ++length) {
      bits = bits << 1 | Take(1);
      const unsigned pattern = kColumnPatternsByBits.pattern[bits << (6 - length)];
      if (kColumnPatternCode[pattern].length == length) return pattern;
    }
  }
};

// ---- One block ----

/// A block: its size, 1 to 8 each way, and where it goes.
struct Block {
  int width, height;
  std::int32_t* cells;
  std::ptrdiff_t strideCells;
};

/// Four bits of a column, the first one in row y, at their places in a plane in raster order, whose
/// rows have eight places.
std::uint64_t ColumnAt(std::uint32_t word, int x, int y) {
  const std::uint64_t spread = word * 0x00204081U & 0x01010101U;  // the first bit is bit 24
  return spread << (39 - 8 * y - x);
}

template <class Bits>
std::uint64_t ReadGroup(Bits& bits, int x, int y) {
  std::uint64_t plane = 0;
  const unsigned pattern = bits.TakePattern();
  for (int j = 0; j < 4; ++j) {
    if ((pattern >> (3 - j) & 1) != 0) plane |= ColumnAt(bits.Take(4), x + j, y);
  }
  return plane;
}

/// Columns that belong to no group have a flag each, then, when it is set, their bits.
template <class Bits>
std::uint64_t ReadColumns(Bits& bits, int xBegin, int xEnd, int y, int rows) {
  std::uint64_t plane = 0;
  const auto count = static_cast<unsigned>(rows);
  for (int x = xBegin; x < xEnd; ++x) {
    if (bits.Take(1) != 0) plane |= ColumnAt(bits.Take(count) << (4 - count), x, y);
  }
  return plane;
}

/// Reads one of the top planes: strips of four rows, each as groups of four columns and then the
/// columns left over at the right; and at last the rows left over at the bottom, in columns.
template <class Bits>
std::uint64_t ReadPlane(Bits& bits, int width, int height) {
  std::uint64_t plane = 0;
  const int groupsEnd = width & ~3;
  int y = 0;
  for (; y + 4 <= height; y += 4) {
    for (int x = 0; x < groupsEnd; x += 4) plane |= ReadGroup(bits, x, y);
    plane |= ReadColumns(bits, groupsEnd, width, y, 4);
  }
  return y < height ? plane | ReadColumns(bits, 0, width, y, height - y) : plane;
}

/// A block's planes as they are read, then its coefficients in raster order.
template <class Bits>
struct Coefficients {
  Bits& bits;
  std::uint64_t upper, lower;
  unsigned planes;

  /// Place (x, y)'s magnitude without its low bits.
  std::uint32_t TopAt(int x, int y) const {
    const int place = 63 - 8 * y - x;
    const auto first = static_cast<std::uint32_t>(upper >> place & 1) << (planes - 1);
    return first | (static_cast<std::uint32_t>(lower >> place & 1) << (planes - 1)) >> 1;
  }
  std::uint32_t TakeLow() { return planes > 2 ? bits.Take(planes - 2) : 0; }
  std::int32_t TakeSigned(std::uint32_t magnitude) {
    if (magnitude == 0) return 0;
    return static_cast<std::int32_t>(bits.Take(1) != 0 ? 0 - magnitude : magnitude);
  }
};

void StoreZeros(const Block& block) {
  for (int y = 0; y < block.height; ++y) {
    std::fill_n(block.cells + y * block.strideCells, block.width, 0);
  }
}

/// Decodes what follows a block's plane count.
template <class Bits>
void DecodeCodeBlock(Bits& bits, unsigned planes, SignLayout layout, const Block& block) {
  if (planes == 0) return StoreZeros(block);
  const std::uint64_t upper = ReadPlane(bits, block.width, block.height);
  const std::uint64_t lower = planes > 1 ? ReadPlane(bits, block.width, block.height) : 0;
  Coefficients<Bits> coefficients{bits, upper, lower, planes};
  std::uint32_t magnitudes[kBlockSide * kBlockSide];
  std::uint32_t* magnitude = magnitudes;
  for (int y = 0; y < block.height; ++y) {
    std::int32_t* const row = block.cells + y * block.strideCells;
    for (int x = 0; x < block.width; ++x, ++magnitude) {
      *magnitude = coefficients.TopAt(x, y) | coefficients.TakeLow();
      if (layout == SignLayout::kInterleavedSigns) row[x] = coefficients.TakeSigned(*magnitude);
    }
  }
  if (layout == SignLayout::kInterleavedSigns) return;
  magnitude = magnitudes;
  for (int y = 0; y < block.height; ++y) {
    std::int32_t* const row = block.cells + y * block.strideCells;
    for (int x = 0; x < block.width; ++x) row[x] = coefficients.TakeSigned(*magnitude++);
  }
}

/// A coefficient as a cell holds it.
std::int16_t ToCell(std::int32_t coefficient, float, std::int16_t) {
  return static_cast<std::int16_t>(coefficient);
}
float ToCell(std::int32_t coefficient, float step, float) {
  return static_cast<float>(coefficient) * step;
}

}  // namespace

// ---- A band ----

/// A position behind all data, small enough to be counted in bits.
static constexpr std::int64_t kNoEnd = INT64_MAX / 16;

void BandDecoder::Begin(KelDecDataMgr& reader, const BandPart& part, bool isStrict, float step) {
  part_ = part;
  part_.end = std::min(part.end, kNoEnd);
  windowIsOpen_ = false;
  nextRow_ = part.IsEmpty() ? part.y1 : part.y0;
  source_ = {};
  const int minPlanes = static_cast<std::int8_t>(reader.ReadByte());
  const int maxPlanes = static_cast<std::int8_t>(reader.ReadByte());
  end_ = reader.ReadPastEnd() ? BandEnd::kCutOff : BandEnd::kWhole;
  if (IsOver()) return;
  assert(part.widthExponent <= kBlockExponent && part.heightExponent <= kBlockExponent);
  if (minPlanes < 0 || maxPlanes > int{kMostPlanes} || maxPlanes < minPlanes) {
    end_ = BandEnd::kOutOfRange;
    return;
  }
  source_.fieldBits = PlaneCountFieldBits(minPlanes, maxPlanes);
  source_.minPlanes = static_cast<unsigned>(minPlanes);
  if (isStrict) source_.mostPlanes = static_cast<unsigned>(maxPlanes);
  source_.step = step;
}

/// Whether the next block, whatever it is, can be decoded from the window.
bool BandDecoder::OpenWindow(KelDecDataMgr& reader) {
  if (windowIsOpen_ && source_.bitPosition <= source_.lastStart) return true;
  CloseWindow(reader);
  constexpr std::uint64_t kReach = kMostBlockBytes + kLoadSlackBytes;
  if (reader.EnsureBuffered(kReach) != kBufferedOk) return false;
  // While bits are unread, the byte that holds them stands before the read position.
  const unsigned unread = static_cast<unsigned>(reader.UnreadBits());
  const unsigned before = unread != 0 ? 1 : 0;
  source_.window = reader.ReadPointer() - before;
  source_.bitPosition = 8 * before - unread;
  source_.lastStart = 8 * (reader.Available() - kReach) + 7;
  const std::int64_t left = part_.end - reader.GetPosition();
  if (left < static_cast<std::int64_t>(reader.Available())) {
    // A block without bits may begin at the very end.
    const std::int64_t leftBits = 8 * (left + before);
    if (leftBits < static_cast<std::int64_t>(source_.bitPosition)) return false;
    source_.lastStart = std::min(source_.lastStart, static_cast<std::uint64_t>(leftBits));
  }
  windowIsOpen_ = true;
  return true;
}

/// Gives the place in the window back to the reader.
void BandDecoder::CloseWindow(KelDecDataMgr& reader) {
  if (!windowIsOpen_) return;
  windowIsOpen_ = false;
  const std::uint64_t next = (source_.bitPosition + 7) / 8;
  const auto unread = static_cast<int>(8 * next - source_.bitPosition);
  reader.ResumeAt(source_.window + next, unread);
}

/// Decodes whole blocks that follow each other in a row, up to `count`. Returns how many: none
/// when the next one must be decoded singly.
template <class Cell>
std::int64_t BandDecoder::DecodeRun(KelDecDataMgr& reader, Cell* cells, std::ptrdiff_t strideCells,
                                    std::int64_t count) {
  if (!OpenWindow(reader)) return 0;
  const BlocksKernels& kernels = Kernels().blocks;
  const auto decode = [&] {
    if constexpr (std::is_same_v<Cell, std::int16_t>) {
      return kernels.decodeShorts;
    } else if constexpr (std::is_same_v<Cell, float>) {
      return kernels.decodeFloats;
    } else {
      return part_.layout == SignLayout::kSeparateSigns ? kernels.decodeSeparateSigns
                                                        : kernels.decodeInterleavedSigns;
    }
  }();
  return static_cast<std::int64_t>(
      decode(source_, cells, strideCells, static_cast<std::size_t>(count)));
}

template <class Bits>
BandEnd BandDecoder::DecodeFrom(Bits& bits, int width, int height, std::int32_t* cells,
                                std::ptrdiff_t strideCells) {
  const std::uint64_t planes = std::uint64_t{bits.Take(source_.fieldBits)} + source_.minPlanes;
  if (planes > source_.mostPlanes) return BandEnd::kOutOfRange;
  source_.planesSeen |= static_cast<unsigned>(planes);
  DecodeCodeBlock(bits, static_cast<unsigned>(planes), part_.layout,
                  {width, height, cells, strideCells});
  return BandEnd::kWhole;
}

BandEnd BandDecoder::DecodeOne(KelDecDataMgr& reader, int width, int height, std::int32_t* cells,
                               std::ptrdiff_t strideCells) {
  if (OpenWindow(reader)) {
    WindowBits bits{source_.window, source_.bitPosition};
    const BandEnd end = DecodeFrom(bits, width, height, cells, strideCells);
    source_.bitPosition = bits.position;
    return end;
  }
  if (8 * reader.GetPosition() - reader.UnreadBits() > 8 * part_.end) return BandEnd::kPastEnd;
  ReaderBits bits{reader};
  const BandEnd end = DecodeFrom(bits, width, height, cells, strideCells);
  if (!reader.ReadPastEnd()) return end;
  StoreZeros({width, height, cells, strideCells});
  return BandEnd::kCutOff;
}

template <class Cell>
std::int32_t BandDecoder::DecodeRow(KelDecDataMgr& reader, Cell* cells,
                                    std::ptrdiff_t strideCells) {
  const auto rowEnd = static_cast<std::int32_t>(BlockEnd(nextRow_, part_.y1, part_.heightExponent));
  const int height = rowEnd - nextRow_;
  nextRow_ = rowEnd;
  for (std::int64_t x = part_.x0; x < part_.x1 && end_ == BandEnd::kWhole;) {
    Cell* const to = cells + (x - part_.x0);
    const auto width = static_cast<int>(BlockEnd(x, part_.x1, part_.widthExponent) - x);
    if (width == kBlockSide && height == kBlockSide) {
      const std::int64_t done = DecodeRun(reader, to, strideCells, (part_.x1 - x) / kBlockSide);
      x += done * kBlockSide;
      if (done != 0) continue;
    }
    if constexpr (std::is_same_v<Cell, std::int32_t>) {
      end_ = DecodeOne(reader, width, height, to, strideCells);
    } else {
      std::int32_t block[kBlockSide * kBlockSide];
      end_ = DecodeOne(reader, width, height, block, kBlockSide);
      for (int y = 0; y < height && end_ == BandEnd::kWhole; ++y) {
        for (int i = 0; i < width; ++i) {
          to[y * strideCells + i] = ToCell(block[y * kBlockSide + i], source_.step, Cell{});
        }
      }
    }
    x += width;
  }
  if (IsOver()) {
    CloseWindow(reader);
    reader.AlignToByte();
  }
  if (part_.work != nullptr) {
    CountWork(*part_.work, AsCount(std::int64_t{height} * (part_.x1 - part_.x0)));
  }
  return height;
}

template std::int32_t BandDecoder::DecodeRow(KelDecDataMgr&, std::int32_t*, std::ptrdiff_t);
template std::int32_t BandDecoder::DecodeRow(KelDecDataMgr&, std::int16_t*, std::ptrdiff_t);
template std::int32_t BandDecoder::DecodeRow(KelDecDataMgr&, float*, std::ptrdiff_t);

BandOutcome DecodeBandBlocks(KelDecDataMgr& reader, const BandPart& part, std::int32_t* cells,
                             std::ptrdiff_t strideCells) {
  BandDecoder decoder;
  decoder.Begin(reader, part, false, 1.0F);
  while (!decoder.IsOver()) {
    cells += decoder.DecodeRow(reader, cells, strideCells) * strideCells;
  }
  return decoder.Outcome();
}

}  // namespace kel
