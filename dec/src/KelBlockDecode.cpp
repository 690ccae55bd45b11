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
#include <iterator>
#include <type_traits>

#include "format/KelBlockGrid.h"
#include "kernels/KelBlocksOrder.h"
#include "kernels/KelBlocksRead.h"
#include "kernels/KelColumnPatternCode.h"
#include "kernels/KelKernels.h"

namespace kel {

/// A block of 1 to 8 coefficients each way, in rows of eight places.
struct DecodedBlock {
  int width, height;
  std::uint32_t cells[kBlockSide * kBlockSide];  ///< magnitudes, then two's complements
};

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
  /// A group of four columns of four rows, in the order of the code.
  std::uint32_t TakeGroup() {
    const std::uint64_t bits = LoadBits(window, position);
    const std::uint32_t group = kGroupsByBits.group[bits >> 58];
    position += group & 63;
    return SpreadColumns(bits >> (64 - (group & 63)), group);
  }
  /// Up to eight columns that belong to no group, of 1 to 4 rows: a flag each, then, when it is
  /// set, their bits. In the order of the code, four places for each.
  std::uint32_t TakeColumns(int count, unsigned rows) {
    std::uint64_t bits = LoadBits(window, position);
    std::uint32_t columns = 0;
    for (int i = 0; i < count; ++i) {
      const std::uint64_t mask = 0 - (bits >> 63);
      const auto column = static_cast<std::uint32_t>(bits << 1 >> (64 - rows) & mask);
      const auto taken = 1 + static_cast<unsigned>(rows & mask);
      columns = columns << 4 | column << (4 - rows);
      bits <<= taken;
      position += taken;
    }
    return columns;
  }
  /// Adds the low bits of up to eight magnitudes.
  void AddLow(unsigned lowBits, int count, std::uint32_t* magnitudes) {
    std::uint64_t bits = 0;
    unsigned numValid = 0;
    for (int i = 0; i < count; ++i, numValid -= lowBits, position += lowBits) {
      if (numValid < lowBits) {
        bits = LoadBits(window, position);
        numValid = 57;
      }
      magnitudes[i] |= static_cast<std::uint32_t>(bits >> (64 - lowBits));
      bits <<= lowBits;
    }
  }
  /// Gives up to eight magnitudes their signs.
  void AddSigns(int count, std::uint32_t* magnitudes) {
    std::uint64_t bits = LoadBits(window, position);
    for (int i = 0; i < count; ++i) {
      const auto mask = 0 - static_cast<std::uint32_t>(bits >> 63);
      const unsigned taken = magnitudes[i] != 0;
      magnitudes[i] = (magnitudes[i] ^ mask) - mask;  // of 0 it is 0
      bits <<= taken;
      position += taken;
    }
  }
};

/// The same through the reader.
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
  std::uint32_t TakeGroup() {
    std::uint32_t group = 0;
    const unsigned pattern = TakePattern();
    for (int j = 3; j >= 0; --j) group = group << 4 | ((pattern >> j & 1) != 0 ? Take(4) : 0);
    return group;
  }
  std::uint32_t TakeColumns(int count, unsigned rows) {
    std::uint32_t columns = 0;
    for (int i = 0; i < count; ++i) {
      columns = columns << 4 | (Take(1) != 0 ? Take(rows) << (4 - rows) : 0);
    }
    return columns;
  }
  void AddLow(unsigned lowBits, int count, std::uint32_t* magnitudes) {
    for (int i = 0; i < count; ++i) magnitudes[i] |= Take(lowBits);
  }
  void AddSigns(int count, std::uint32_t* magnitudes) {
    for (int i = 0; i < count; ++i) {
      if (magnitudes[i] != 0 && Take(1) != 0) magnitudes[i] = 0 - magnitudes[i];
    }
  }
};

// ---- One block ----

/// Reads up to four rows of a plane: where there are four, groups of four columns, and then the
/// columns left over at the right; else in columns. In the order of the code.
template <class Bits>
std::uint64_t ReadStrip(Bits& bits, int width, int rows) {
  std::uint64_t strip = 0;
  int left = width;
  for (; rows == 4 && left >= 4; left -= 4) strip = strip << 16 | bits.TakeGroup();
  strip = strip << 4 * left | bits.TakeColumns(left, static_cast<unsigned>(rows));
  return strip << 4 * (kBlockSide - width);
}

/// Reads one of the top planes, in raster order.
template <class Bits>
std::uint64_t ReadPlane(Bits& bits, int width, int height) {
  const std::uint64_t upper = ReadStrip(bits, width, std::min(height, 4)) << 32;
  return RasterFromCodeOrder(height > 4 ? upper | ReadStrip(bits, width, height - 4) : upper);
}

void SetZeros(DecodedBlock& block) {
  std::fill_n(block.cells, std::size(block.cells), 0);
}

/// Decodes what follows a block's plane count.
template <class Bits>
void DecodeCodeBlock(Bits& bits, unsigned planes, SignLayout layout, DecodedBlock& block) {
  if (planes == 0) return SetZeros(block);
  const std::uint64_t upper = ReadPlane(bits, block.width, block.height);
  const std::uint64_t lower = planes > 1 ? ReadPlane(bits, block.width, block.height) : 0;
  const unsigned lowBits = planes > 2 ? planes - 2 : 0;
  std::uint32_t* row = block.cells;
  for (int y = 0; y < block.height; ++y, row += kBlockSide) {
    SpreadTopPlanes(upper, lower, y, planes, row);
    if (layout == SignLayout::kSeparateSigns) {
      if (lowBits != 0) bits.AddLow(lowBits, block.width, row);
      continue;
    }
    for (int x = 0; x < block.width; ++x) {
      if (lowBits != 0) bits.AddLow(lowBits, 1, row + x);
      bits.AddSigns(1, row + x);
    }
  }
  if (layout == SignLayout::kInterleavedSigns) return;
  row = block.cells;
  for (int y = 0; y < block.height; ++y, row += kBlockSide) bits.AddSigns(block.width, row);
}

/// Stores a block's coefficients as cells hold them.
template <class Cell>
void StoreBlock(const DecodedBlock& block, [[maybe_unused]] float step, Cell* cells,
                std::ptrdiff_t strideCells) {
  const std::uint32_t* row = block.cells;
  for (int y = 0; y < block.height; ++y, row += kBlockSide, cells += strideCells) {
    for (int x = 0; x < block.width; ++x) {
      const auto coefficient = static_cast<std::int32_t>(row[x]);
      if constexpr (std::is_same_v<Cell, float>) {
        cells[x] = static_cast<float>(coefficient) * step;
      } else {
        cells[x] = static_cast<Cell>(coefficient);
      }
    }
  }
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
BandEnd BandDecoder::DecodeFrom(Bits& bits, DecodedBlock& block) {
  const std::uint64_t planes = std::uint64_t{bits.Take(source_.fieldBits)} + source_.minPlanes;
  if (planes > source_.mostPlanes) return BandEnd::kOutOfRange;
  source_.planesSeen |= static_cast<unsigned>(planes);
  DecodeCodeBlock(bits, static_cast<unsigned>(planes), part_.layout, block);
  return BandEnd::kWhole;
}

BandEnd BandDecoder::DecodeOne(KelDecDataMgr& reader, DecodedBlock& block) {
  if (OpenWindow(reader)) {
    WindowBits bits{source_.window, source_.bitPosition};
    const BandEnd end = DecodeFrom(bits, block);
    source_.bitPosition = bits.position;
    return end;
  }
  if (8 * reader.GetPosition() - reader.UnreadBits() > 8 * part_.end) return BandEnd::kPastEnd;
  ReaderBits bits{reader};
  const BandEnd end = DecodeFrom(bits, block);
  if (!reader.ReadPastEnd()) return end;
  SetZeros(block);
  return BandEnd::kCutOff;
}

template <class Cell>
std::int32_t BandDecoder::DecodeRow(KelDecDataMgr& reader, Cell* cells,
                                    std::ptrdiff_t strideCells) {
  const auto rowEnd = static_cast<std::int32_t>(BlockEnd(nextRow_, part_.y1, part_.heightExponent));
  const int height = rowEnd - nextRow_;
  DecodedBlock block;
  nextRow_ = rowEnd;
  for (std::int64_t x = part_.x0; x < part_.x1 && end_ == BandEnd::kWhole;) {
    Cell* const to = cells + (x - part_.x0);
    const auto width = static_cast<int>(BlockEnd(x, part_.x1, part_.widthExponent) - x);
    if (width == kBlockSide && height == kBlockSide) {
      const std::int64_t done = DecodeRun(reader, to, strideCells, (part_.x1 - x) / kBlockSide);
      x += done * kBlockSide;
      if (done != 0) continue;
    }
    block.width = width;
    block.height = height;
    end_ = DecodeOne(reader, block);
    if (end_ == BandEnd::kWhole || end_ == BandEnd::kCutOff) {
      StoreBlock(block, source_.step, to, strideCells);
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
