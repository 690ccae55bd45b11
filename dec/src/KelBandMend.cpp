// Mending a band, block by block. Slow and cautious: it runs only where damage is certain.
#include "KelBandMend.h"

#include <algorithm>
#include <cstdlib>

#include "base/KelInt.h"
#include "base/KelMemFuncDefs.h"
#include "format/KelBlockGrid.h"
#include "kernels/KelBlocksRead.h"
#include "kernels/KelColumnPatternCode.h"

namespace kel {
namespace {

/// Columns that random bits, too, would name truly in 15 of 16 cases: so many in a row are no
/// accident, fewer where the blocks end just with the band, which is hard to hit as well.
constexpr std::uint32_t kProof = 350;
constexpr std::uint32_t kProofAtEnd = 120;

/// Blocks looked back over: noise is not recognised at once.
constexpr std::int64_t kLookBack = 8;
/// Places in the chain that blocks found further on can have, from the last sure one on.
constexpr std::int64_t kMostPlaces = 256;

/// Blocks that may be tried for each byte of the band; and of all bands of an object together,
/// which a file of damaged bands alone would otherwise make a hundred times dearer than a sound
/// one: so many, and some more for each of their bytes.
constexpr std::int64_t kTrialsPerByte = 16;
constexpr std::uint64_t kTrialsOfAll = 1 << 17, kFurtherTrialsPerByte = 2;

/// Blocks that may still be tried for all bands of an object.
std::uint64_t TrialsLeft(const WorkMeter& work) {
  const std::uint64_t most = kTrialsOfAll + kFurtherTrialsPerByte * work.mendBytes;
  return most - std::min(most, work.mendTrials);
}

/// The bits of a band as they stand, and what speaks against them.
struct CheckedBits {
  const std::uint8_t* bytes;
  std::uint64_t position, end;
  std::uint32_t numColumns = 0;  ///< named and not empty
  bool isPlausible = true;

  std::uint32_t Take(unsigned n) {
    if (n == 0 || position + n > end) {
      isPlausible = isPlausible && n == 0;
      return 0;
    }
    const std::uint64_t bits = LoadBits(bytes, position) >> (64 - n);
    position += n;
    return static_cast<std::uint32_t>(bits);
  }
  unsigned TakePattern() {
    if (position >= end) isPlausible = false;
    if (!isPlausible) return 0;
    const unsigned pattern = kColumnPatternsByBits.pattern[LoadBits(bytes, position) >> 58];
    position += kColumnPatternCode[pattern].length;
    return pattern;
  }
  std::uint32_t TakeColumn(unsigned rows) {
    const std::uint32_t column = Take(rows);
    isPlausible = isPlausible && column != 0;
    ++numColumns;
    return column;
  }
};

/// The header's meaning.
struct Range {
  int least, most;
  unsigned FieldBits() const { return PlaneCountFieldBits(least, most); }
  bool IsValid() const { return least >= 0 && most >= least && most <= int{kMostPlanes}; }
};

/// One block's coefficients, in raster order of its size.
struct BlockCells {
  std::int32_t width, height;
  std::uint32_t magnitudes[kBlockSide * kBlockSide];
  std::int32_t values[kBlockSide * kBlockSide];
};

/// Adds a plane's bits, twice the magnitudes so far. False without any.
bool ReadPlane(CheckedBits& bits, BlockCells& block) {
  const std::int32_t width = block.width, height = block.height;
  std::uint32_t any = 0;
  for (std::int32_t i = 0; i < width * height; ++i) block.magnitudes[i] <<= 1;
  const auto put = [&](std::int32_t x, std::int32_t y, std::uint32_t column, std::int32_t rows) {
    any |= column;
    for (std::int32_t k = 0; k < rows; ++k) {
      block.magnitudes[(y + k) * width + x] |= column >> (rows - 1 - k) & 1;
    }
  };
  const std::int32_t groupsEnd = width & ~3, stripsEnd = height & ~3;
  for (std::int32_t y = 0; y < stripsEnd; y += 4) {
    for (std::int32_t x = 0; x < groupsEnd; x += 4) {
      const unsigned pattern = bits.TakePattern();
      for (std::int32_t j = 0; j < 4; ++j) {
        if ((pattern >> (3 - j) & 1) != 0) put(x + j, y, bits.TakeColumn(4), 4);
      }
    }
    for (std::int32_t x = groupsEnd; x < width; ++x) {
      if (bits.Take(1) != 0) put(x, y, bits.TakeColumn(4), 4);
    }
  }
  const std::int32_t rest = height - stripsEnd;
  for (std::int32_t x = 0; rest > 0 && x < width; ++x) {
    if (bits.Take(1) != 0) put(x, stripsEnd, bits.TakeColumn(static_cast<unsigned>(rest)), rest);
  }
  return any != 0;
}

/// Reads a block, whose plane count is returned; -1 when no encoder can have written it.
int ReadBlock(CheckedBits& bits, const Range& range, SignLayout layout, BlockCells& block) {
  const int planes = range.least + static_cast<int>(bits.Take(range.FieldBits()));
  if (planes > range.most || !bits.isPlausible) return -1;
  const std::int32_t count = block.width * block.height;
  std::fill_n(block.magnitudes, count, 0);
  std::fill_n(block.values, count, 0);
  if (planes == 0) return 0;
  if (!ReadPlane(bits, block) || (planes > 1 && (ReadPlane(bits, block), !bits.isPlausible))) {
    return -1;
  }
  const bool isSeparate = layout == SignLayout::kSeparateSigns;
  const auto sign = [&](std::int32_t i) {
    const std::uint32_t magnitude = block.magnitudes[i];
    if (magnitude == 0) return;
    block.values[i] = static_cast<std::int32_t>(bits.Take(1) != 0 ? 0 - magnitude : magnitude);
  };
  const auto low = static_cast<unsigned>(std::max(planes - 2, 0));
  for (std::int32_t i = 0; i < count; ++i) {
    if (low != 0) block.magnitudes[i] = block.magnitudes[i] << low | bits.Take(low);
    if (!isSeparate) sign(i);
  }
  for (std::int32_t i = 0; isSeparate && i < count; ++i) sign(i);
  return bits.isPlausible ? planes : -1;
}

/// A stretch of blocks that follow each other without contradiction.
struct Chain {
  std::int64_t first = 0, count = 0;  ///< blocks
  std::uint64_t from = 0, to = 0;     ///< bits
  std::uint32_t numColumns = 0;       ///< that speak for it
  bool endsWell = false;              ///< with the band's last block and its last byte
};

class Mender {
 public:
  Mender(std::span<const std::uint8_t> bytes, const BandPart& part, std::int32_t* cells,
         std::ptrdiff_t strideCells)
      : bytes_(bytes),
        part_(part),
        cells_(cells),
        strideCells_(strideCells),
        across_(CountBlocks(part.x0, part.x1, part.widthExponent)),
        numBlocks_(across_ * CountBlocks(part.y0, part.y1, part.heightExponent)),
        trialsLeft_(kTrialsPerByte * static_cast<std::int64_t>(bytes.size())),
        starts_(OwnedArray<std::uint64_t>::Make(AsCount(numBlocks_) + 1)),
        planes_(OwnedArray<std::int8_t>::Make(AsCount(numBlocks_))) {
    if (part.work == nullptr) return;
    trialsLeft_ = std::min(trialsLeft_, static_cast<std::int64_t>(TrialsLeft(*part.work)));
  }

  MendOutcome Run(bool isLowest);
  std::uint64_t NumTrials() const { return numTrials_; }

 private:
  struct Rect {
    std::int32_t x, y, width, height;  ///< from the part's first cell on
  };
  Rect RectOf(std::int64_t block) const;
  bool IsFull(std::int64_t block) const {
    const Rect rect = RectOf(block);
    return rect.width == kBlockSide && rect.height == kBlockSide;
  }
  int Read(std::uint64_t& position, std::int64_t block, std::uint32_t& columns,
           BlockCells& cells) const;
  Chain Follow(std::uint64_t position, std::int64_t block, std::int64_t most);
  void Store(const Chain& chain);
  Chain FindHeader();
  Chain FindNext(const Chain& broken);
  Chain Place(std::uint64_t position, std::int64_t first, std::int64_t last);
  std::int64_t Unlikeness(const Chain& chain) const;
  void Conceal(std::int64_t first, std::int64_t last);

  std::span<const std::uint8_t> bytes_;
  const BandPart& part_;
  std::int32_t* cells_;
  std::ptrdiff_t strideCells_;
  std::int64_t across_, numBlocks_, trialsLeft_;
  std::uint64_t numTrials_ = 0;
  OwnedArray<std::uint64_t> starts_;
  OwnedArray<std::int8_t> planes_;  ///< plane counts plus one; 0: not decoded
  Range range_{};
};

Mender::Rect Mender::RectOf(std::int64_t block) const {
  const auto edges = [](std::int64_t index, std::int64_t from, std::int64_t to, int exponent) {
    const std::int64_t begin = std::max(from, ((from >> exponent) + index) << exponent);
    return std::pair(static_cast<std::int32_t>(begin - from),
                     static_cast<std::int32_t>(BlockEnd(begin, to, exponent) - begin));
  };
  const auto [x, width] = edges(block % across_, part_.x0, part_.x1, part_.widthExponent);
  const auto [y, height] = edges(block / across_, part_.y0, part_.y1, part_.heightExponent);
  return {x, y, width, height};
}

/// Reads a block as if it were the one of that index.
int Mender::Read(std::uint64_t& position, std::int64_t block, std::uint32_t& columns,
                 BlockCells& cells) const {
  const Rect rect = RectOf(block);
  cells.width = rect.width;
  cells.height = rect.height;
  CheckedBits bits{bytes_.data(), position, 8 * bytes_.size()};
  const int planes = ReadBlock(bits, range_, part_.layout, cells);
  position = bits.position;
  columns += bits.numColumns;
  return planes;
}

/// Follows blocks from a bit on, the first taken for the one of that index, up to `most` of them.
Chain Mender::Follow(std::uint64_t position, std::int64_t block, std::int64_t most) {
  Chain chain{.first = block, .from = position, .to = position};
  const std::int64_t end = std::min(numBlocks_, block + most);
  BlockCells cells;
  while (block + chain.count < end && trialsLeft_ > 0) {
    --trialsLeft_;
    ++numTrials_;
    if (part_.work != nullptr) CountWork(*part_.work, kBlockSide * kBlockSide);
    if (Read(position, block + chain.count, chain.numColumns, cells) < 0) break;
    chain.to = position;
    ++chain.count;
  }
  const bool isLast = block + chain.count == numBlocks_;
  chain.endsWell = isLast && (chain.to + 7) / 8 == bytes_.size();
  return chain;
}

/// Decodes a chain into the cells.
void Mender::Store(const Chain& chain) {
  std::uint64_t position = chain.from;
  std::uint32_t columns = 0;
  BlockCells block;
  for (std::int64_t b = chain.first; b < chain.first + chain.count; ++b) {
    starts_[AsIndex(b)] = position;
    planes_[AsIndex(b)] = static_cast<std::int8_t>(Read(position, b, columns, block) + 1);
    const Rect rect = RectOf(b);
    std::int32_t* row = cells_ + rect.y * strideCells_ + rect.x;
    for (std::int32_t y = 0; y < rect.height; ++y, row += strideCells_) {
      std::copy_n(block.values + y * rect.width, rect.width, row);
    }
  }
}

/// The chain from the band's beginning on; with another header where its own makes no sense.
Chain Mender::FindHeader() {
  constexpr std::uint64_t kHeaderBits = 16;
  constexpr int kMostFieldBits = 5;  // which hold the largest count of planes, 31
  Chain best{.from = kHeaderBits, .to = kHeaderBits};
  if (bytes_.size() < 2) return best;
  range_ = {static_cast<std::int8_t>(bytes_[0]), static_cast<std::int8_t>(bytes_[1])};
  if (range_.IsValid()) best = Follow(kHeaderBits, 0, numBlocks_);
  if (best.endsWell || best.numColumns >= kProofAtEnd) return best;
  Range found = range_.IsValid() ? range_ : Range{0, 0};
  for (int least = 0; least <= int{kMostShortPlanes}; ++least) {
    for (int bits = 1; bits <= kMostFieldBits; ++bits) {
      range_ = {least, std::min(least + (1 << bits) - 1, int{kMostPlanes})};
      if (range_.FieldBits() != static_cast<unsigned>(bits)) continue;
      const Chain chain = Follow(kHeaderBits, 0, numBlocks_);
      const bool proves = chain.numColumns >= (chain.endsWell ? kProofAtEnd : kProof);
      if (!proves || chain.numColumns <= best.numColumns) continue;
      best = chain;
      found = range_;
    }
  }
  range_ = found;
  return best;
}

/// How much the plane counts of a chain's blocks differ from those above them.
std::int64_t Mender::Unlikeness(const Chain& chain) const {
  std::int64_t sum = 0, known = 1;
  std::uint64_t position = chain.from;
  std::uint32_t columns = 0;
  BlockCells cells;
  const std::int64_t most = std::min<std::int64_t>(chain.count, across_);
  for (std::int64_t i = 0; i < most; ++i) {
    const int planes = Read(position, chain.first + i, columns, cells);
    const std::int64_t above = chain.first + i - across_;
    if (above < 0 || planes_[AsIndex(above)] == 0) continue;
    sum += std::abs(planes + 1 - planes_[AsIndex(above)]);
    ++known;
  }
  return 256 * sum / known;
}

/// The best chain of blocks that begins at a bit, the first being one of the given ones; none
/// (count 0) where nothing proves it.
Chain Mender::Place(std::uint64_t position, std::int64_t first, std::int64_t last) {
  constexpr std::int64_t kProbe = 3;
  Chain best{};
  std::int64_t least = INT64_MAX;
  // Blocks that are cut off at an edge tell the place; among whole ones all places look alike.
  const bool allAlike = part_.x0 % kBlockSide == 0 && part_.x1 % kBlockSide == 0 &&
                        part_.y0 % kBlockSide == 0 && part_.y1 % kBlockSide == 0 &&
                        part_.widthExponent == kBlockExponent &&
                        part_.heightExponent == kBlockExponent;
  if (allAlike && Follow(position, first, kProbe).count < std::min(kProbe, numBlocks_ - first)) {
    return best;
  }
  if (allAlike) {
    // How many blocks there are to the end of the bits tells the place of the first one.
    const Chain all = Follow(position, 0, numBlocks_);
    const bool reachesEnd = (all.to + 7) / 8 + 1 >= bytes_.size();
    for (std::int64_t missing = 0; reachesEnd && missing < 8; ++missing) {
      if (all.count - missing > numBlocks_ - first || all.count == missing) continue;
      const Chain chain = Follow(position, numBlocks_ - all.count + missing, numBlocks_);
      if (chain.endsWell && chain.numColumns >= kProofAtEnd) return chain;
    }
    if (all.numColumns < kProof) return best;
  }
  // Most blocks have one size; where none of that begins here, only others need to be looked at.
  const std::int64_t inner = std::min(numBlocks_ - 1, across_ + 1);
  const bool noneOfThat = IsFull(inner) && Follow(position, inner, 1).count == 0;
  for (std::int64_t b = first; b <= last && trialsLeft_ > 0; ++b) {
    if (noneOfThat && IsFull(b)) continue;
    const Chain chain = Follow(position, b, numBlocks_);
    if (chain.endsWell && chain.numColumns >= kProofAtEnd) return chain;
    if (chain.numColumns < kProof) continue;
    const std::int64_t unlikeness = Unlikeness(chain);
    if (unlikeness < least) {
      least = unlikeness;
      best = chain;
    }
  }
  return best;
}

/// The next chain behind one that ends in a contradiction; none (count 0) when there is none.
Chain Mender::FindNext(const Chain& broken) {
  const std::int64_t bad = broken.first + broken.count;
  const std::int64_t sure = std::max(broken.first, bad - kLookBack);
  std::uint64_t position = sure < bad ? starts_[AsIndex(sure)] + 1 : broken.to + 1;
  const std::int64_t first =
      std::max(broken.first + (broken.count != 0 ? 1 : 0), bad - kMostPlaces / 2);
  const std::int64_t last = std::min(numBlocks_ - 1, bad + kMostPlaces / 2);
  for (; position < 8 * bytes_.size() && trialsLeft_ > 0; ++position) {
    const Chain chain = Place(position, first, last);
    if (chain.count != 0) return chain;
  }
  return {};
}

/// Fills lost blocks of the lowest band with the mean of the cells around them.
void Mender::Conceal(std::int64_t first, std::int64_t last) {
  const std::int32_t width = part_.x1 - part_.x0, height = part_.y1 - part_.y0;
  for (std::int64_t b = first; b < last; ++b) {
    const Rect rect = RectOf(b);
    std::int64_t sum = 0, count = 0;
    const auto add = [&](std::int64_t block, std::int32_t x, std::int32_t y) {
      if (x < 0 || y < 0 || x >= width || y >= height) return;
      if (planes_[AsIndex(block)] == 0) return;
      sum += cells_[y * strideCells_ + x];
      ++count;
    };
    for (std::int32_t x = rect.x; x < rect.x + rect.width; ++x) {
      if (b >= across_) add(b - across_, x, rect.y - 1);
      if (b + across_ < numBlocks_) add(b + across_, x, rect.y + rect.height);
    }
    for (std::int32_t y = rect.y; y < rect.y + rect.height; ++y) {
      if (b % across_ != 0) add(b - 1, rect.x - 1, y);
      if ((b + 1) % across_ != 0 && b + 1 < numBlocks_) add(b + 1, rect.x + rect.width, y);
    }
    if (count == 0) continue;
    for (std::int32_t y = 0; y < rect.height; ++y) {
      std::fill_n(cells_ + (rect.y + y) * strideCells_ + rect.x, rect.width,
                  static_cast<std::int32_t>(sum / count));
    }
  }
}

MendOutcome Mender::Run(bool isLowest) {
  Chain chain = FindHeader();
  MendOutcome outcome{bytes_.size(), 0, chain.endsWell};
  Store(chain);
  std::int64_t conceal = numBlocks_;
  while (!chain.endsWell) {
    const std::int64_t bad = chain.first + chain.count;
    const Chain next = FindNext(chain);
    // The damaged block is the last one that begins in front of the place found; without such a
    // place the one before the contradiction is not trusted either.
    std::int64_t lost = std::max(chain.first, bad - 1);
    if (next.count != 0) {
      lost = std::min(next.first - 1, bad);
      while (lost > chain.first && lost < bad && starts_[AsIndex(lost)] >= next.from) --lost;
      lost = std::max(lost, chain.first);
    }
    const std::uint64_t at = lost < bad ? starts_[AsIndex(lost)] : chain.to;
    outcome.firstBad = std::min(outcome.firstBad, at / 8);
    outcome.endOfBad = next.count != 0 ? (next.from + 7) / 8 : bytes_.size();
    for (std::int64_t b = lost; b < bad; ++b) {
      planes_[AsIndex(b)] = 0;
      const Rect rect = RectOf(b);
      for (std::int32_t y = 0; y < rect.height; ++y) {
        std::fill_n(cells_ + (rect.y + y) * strideCells_ + rect.x, rect.width, 0);
      }
    }
    conceal = std::min(conceal, lost);
    if (next.count == 0) break;
    chain = next;
    Store(chain);
  }
  for (std::int64_t b = conceal; isLowest && b < numBlocks_; ++b) {
    if (planes_[AsIndex(b)] == 0) Conceal(b, b + 1);
  }
  return outcome;
}

}  // namespace

MendOutcome MendBand(std::span<const std::uint8_t> bytes, const BandPart& part, bool isLowest,
                     std::int32_t* cells, std::ptrdiff_t strideCells) {
  if (part.IsEmpty()) return {.firstBad = 0, .endOfBad = 0, .isWhole = true};
  const std::int64_t numBlocks = CountBlocks(part.x0, part.x1, part.widthExponent) *
                                 CountBlocks(part.y0, part.y1, part.heightExponent);
  // A block takes a bit at least; records of more would be made of what is only announced.
  if (AsCount(numBlocks) > 8 * bytes.size()) {
    return {.firstBad = 0, .endOfBad = bytes.size(), .isWhole = false};
  }
  Mender mender(bytes, part, cells, strideCells);
  const MendOutcome outcome = mender.Run(isLowest);
  if (part.work != nullptr) part.work->mendTrials += mender.NumTrials();
  return outcome;
}

bool CanMend(const BandPart& part, std::uint64_t bytes) {
  // Clearing so many cells takes as long as trying a block.
  constexpr std::uint64_t kCellsOfTrial = 1 << 13;
  WorkMeter& work = *part.work;
  const std::int64_t width = part.x1 - part.x0, height = part.y1 - part.y0;
  work.mendBytes += bytes;
  if (!part.IsEmpty()) work.mendTrials += AsCount(width * height) / kCellsOfTrial;
  return TrialsLeft(work) != 0;
}

}  // namespace kel
