// Word-wise putting of blocks, which the scalar and the vector kernels share: bits into a sink, the
// groups of the top planes, low bits, signs, and the walk from block to block.
//
// A plane of a block is a 64-bit word, first bit first. Here it stands in the order of the code:
// the four groups, in a group the columns from the left, in a column from the top. Included by
// sources with different target flags, so that everything is local to the including source, and no
// inline function of the standard library is called.
#ifndef KEL_BLOCKS_PUT_H
#define KEL_BLOCKS_PUT_H

#include <bit>
#include <cstring>
#if defined(__BMI2__)
#include <immintrin.h>
#endif

#include "KelBlocksKernels.h"
#include "kernels/KelColumnPatternCode.h"

namespace kel {
namespace {

// ---- Coefficients ----

/// Largest magnitude of an encoded coefficient.
constexpr std::int32_t kMostMagnitude = 0x7FFFFFFF;

[[maybe_unused]] KEL_INLINE std::int32_t ToInteger(std::int32_t v) {
  return v < -kMostMagnitude ? -kMostMagnitude : v;
}
[[maybe_unused]] KEL_INLINE std::uint32_t MagnitudeOf(std::int32_t v) {
  return static_cast<std::uint32_t>(v < 0 ? -v : v);
}

// ---- Bits ----

/// Stores a number as eight bytes, the first byte most significant.
[[maybe_unused]] KEL_INLINE void StoreWord(std::uint8_t* address, std::uint64_t word) {
  if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap64(word);
  std::memcpy(address, &word, sizeof word);
}

/// Puts the first n bits of `bits`, the others of which are zero; n is at most 56.
[[maybe_unused]] KEL_INLINE void PutBits(BlockSink& sink, std::uint64_t bits, unsigned n) {
  sink.pending |= bits >> sink.numPending;
  StoreWord(sink.next, sink.pending);
  const unsigned filled = sink.numPending + n;
  sink.next += filled >> 3;
  sink.pending <<= filled & 56;
  sink.numPending = filled & 7;
}

/// Puts the low n bits of a value below 2^n; n is 1 to 56.
[[maybe_unused]] KEL_INLINE void PutValue(BlockSink& sink, std::uint64_t value, unsigned n) {
  PutBits(sink, value << (64 - n), n);
}

/// The first `length` bits of a word, the others of which are zero.
struct BitString {
  std::uint64_t bits;
  unsigned length;
};

/// The code of each of the two pairs of groups of a plane.
struct PlaneCode {
  BitString top, bottom;
};

#if defined(__BMI2__)

// Two neighbouring groups by the eight bits of their patterns: the words of both, with zeros for
// the columns' bits, from the most significant end; at the low end the length of all. Beside it,
// the places of the columns' bits.
struct PairCode {
  std::uint64_t words;
  std::uint64_t columnPlaces;
};
struct PairCodes {
  PairCode byPatterns[256];

  consteval PairCodes() : byPatterns{} {
    for (unsigned patterns = 0; patterns < 256; ++patterns) {
      unsigned length = 0;
      PairCode& pair = byPatterns[patterns];
      for (int shift = 4; shift >= 0; shift -= 4) {
        const unsigned pattern = patterns >> shift & 15;
        const ColumnPatternWord word = kColumnPatternCode[pattern];
        const auto columnBits = 4 * static_cast<unsigned>(std::popcount(pattern));
        pair.words |= std::uint64_t{word.code} << (64 - length - word.length);
        length += word.length + columnBits;
        pair.columnPlaces |= ((std::uint64_t{1} << columnBits) - 1) << (64 - length);
      }
      pair.words |= length;
    }
  }
};
alignas(64) constexpr PairCodes kPairCodes;

[[maybe_unused]] KEL_INLINE PlaneCode CodePlane(std::uint64_t plane) {
  const std::uint64_t halves = plane | plane >> 2;
  const std::uint64_t columns = (halves | halves >> 1) & 0x1111111111111111;
  const std::uint64_t patterns = _pext_u64(columns, 0x1111111111111111);
  const std::uint64_t kept = columns * 15;
  const auto codeOf = [](std::uint64_t word, std::uint64_t places, std::uint64_t pattern) {
    const PairCode& pair = kPairCodes.byPatterns[pattern];
    const std::uint64_t bits = _pdep_u64(_pext_u64(word, places), pair.columnPlaces);
    return BitString{(pair.words & ~std::uint64_t{63}) | bits,
                     static_cast<unsigned>(pair.words & 63)};
  };
  return {codeOf(plane, kept & 0xFFFFFFFF00000000, patterns >> 8),
          codeOf(plane, kept & 0xFFFFFFFF, patterns & 0xFF)};
}

#else

// Two neighbouring columns of a group, by their eight bits: those of the columns that are not zero,
// at the low end (bits 0-7), the number of such bits (8-11) and which columns they are (12-13).
struct ColumnPairs {
  std::uint16_t byBits[256];

  consteval ColumnPairs() : byBits{} {
    for (unsigned bits = 0; bits < 256; ++bits) {
      const unsigned left = bits >> 4;
      const unsigned right = bits & 15;
      const unsigned kept = right != 0 ? bits : left;
      const unsigned numKept = (left != 0 ? 4U : 0U) + (right != 0 ? 4U : 0U);
      const unsigned which = (left != 0 ? 2U : 0U) + (right != 0 ? 1U : 0U);
      byBits[bits] = static_cast<std::uint16_t>(kept | numKept << 8 | which << 12);
    }
  }
};
constexpr ColumnPairs kColumnPairs;

// A group by its pattern: the pattern's word in front of zeros for the columns' bits (bits 0-23),
// and the length of both (24-31).
struct GroupCodes {
  std::uint32_t byPattern[16];

  consteval GroupCodes() : byPattern{} {
    for (unsigned pattern = 0; pattern < 16; ++pattern) {
      const ColumnPatternWord word = kColumnPatternCode[pattern];
      const auto columnBits = 4 * static_cast<unsigned>(std::popcount(pattern));
      byPattern[pattern] =
          static_cast<std::uint32_t>(word.code) << columnBits | (word.length + columnBits) << 24;
    }
  }
};
constexpr GroupCodes kGroupCodes;

/// The code of two neighbouring groups, whose columns are the low 32 bits.
[[maybe_unused]] KEL_INLINE BitString CodePair(std::uint64_t columns) {
  std::uint64_t bits = 0;
  unsigned length = 0;
  for (int shift = 16; shift >= 0; shift -= 16) {
    const unsigned left = kColumnPairs.byBits[columns >> (shift + 8) & 0xFF];
    const unsigned right = kColumnPairs.byBits[columns >> shift & 0xFF];
    const std::uint32_t code = kGroupCodes.byPattern[(left >> 12) * 4 + (right >> 12)];
    const std::uint64_t kept = std::uint64_t{left & 0xFF} << (right >> 8 & 15) | (right & 0xFF);
    bits = bits << (code >> 24) | (code & 0xFFFFFF) | kept;
    length += code >> 24;
  }
  return {bits << (64 - length), length};
}

[[maybe_unused]] KEL_INLINE PlaneCode CodePlane(std::uint64_t plane) {
  return {CodePair(plane >> 32), CodePair(plane)};
}

#endif

/// Puts a block's plane count, which is not 0, and its top planes, in the order of the code.
[[maybe_unused]] KEL_INLINE void PutTopPlanes(BlockSink& sink, unsigned planes, std::uint64_t upper,
                                              std::uint64_t lower) {
  const PlaneCode first = CodePlane(upper);
  const std::uint64_t field = std::uint64_t{planes - sink.minPlanes} << (64 - sink.fieldBits);
  PutBits(sink, field | first.top.bits >> sink.fieldBits, sink.fieldBits + first.top.length);
  PutBits(sink, first.bottom.bits, first.bottom.length);
  if (planes == 1) return;
  const PlaneCode second = CodePlane(lower);
  PutBits(sink, second.top.bits, second.top.length);
  PutBits(sink, second.bottom.bits, second.bottom.length);
}

/// Puts the low bits of a block's magnitudes, as many coefficients at once as fit.
template <int kTogether>
[[maybe_unused]] KEL_INLINE void PutLowBitsBy(BlockSink& sink, const std::uint32_t* magnitudes,
                                              unsigned lowBits) {
  const std::uint32_t mask = 0xFFFFFFFF >> (32 - lowBits);
  for (int i = 0; i < 64; i += kTogether) {
    std::uint64_t together = 0;
    for (int j = 0; j < kTogether; ++j) {
      together = together << lowBits | (magnitudes[i + j] & mask);
    }
    PutValue(sink, together, kTogether * lowBits);
  }
}
[[maybe_unused]] KEL_INLINE void PutLowBits(BlockSink& sink, const std::uint32_t* magnitudes,
                                            unsigned lowBits) {
  if (lowBits <= 7) return PutLowBitsBy<8>(sink, magnitudes, lowBits);
  if (lowBits <= 14) return PutLowBitsBy<4>(sink, magnitudes, lowBits);
  if (lowBits <= 28) return PutLowBitsBy<2>(sink, magnitudes, lowBits);
  PutLowBitsBy<1>(sink, magnitudes, lowBits);
}

#if !defined(__BMI2__)

// For four places and four bits, with the places first in the index: the bits at the places, moved
// together. And the number of places.
struct GatheredFours {
  std::uint8_t gathered[256];
  std::uint8_t taken[16];

  consteval GatheredFours() : gathered{}, taken{} {
    for (unsigned index = 0; index < 256; ++index) {
      unsigned result = 0;
      for (unsigned place = 8; place != 0; place >>= 1) {
        if ((index >> 4 & place) != 0) result = result << 1 | ((index & place) != 0 ? 1 : 0);
      }
      gathered[index] = static_cast<std::uint8_t>(result);
      taken[index >> 4] = static_cast<std::uint8_t>(std::popcount(index >> 4));
    }
  }
};
constexpr GatheredFours kGatheredFours;

#endif

/// The bits of `word` whose places are set, moved together at the low end.
[[maybe_unused]] KEL_INLINE std::uint64_t GatherBits(std::uint64_t word, std::uint64_t places) {
#if defined(__BMI2__)
  return _pext_u64(word, places);
#else
  std::uint64_t gathered = 0;
  for (int shift = 60; shift >= 0; shift -= 4) {
    const std::uint64_t four = places >> shift & 15;
    gathered = gathered << kGatheredFours.taken[four] |
               kGatheredFours.gathered[four << 4 | (word >> shift & 15)];
  }
  return gathered;
#endif
}

/// Puts the signs of the coefficients that are not zero; both words in raster order.
[[maybe_unused]] KEL_INLINE void PutSigns(BlockSink& sink, std::uint64_t negative,
                                          std::uint64_t nonZero) {
  const std::uint64_t signs = GatherBits(negative, nonZero);
  const auto n = static_cast<unsigned>(__builtin_popcountll(nonZero));
  const unsigned late = n < 32 ? n : 32;
  if (n > late) PutValue(sink, signs >> late, n - late);
  PutValue(sink, signs & 0xFFFFFFFF >> (32 - late), late);
}

/// Encodes a run of blocks: the plane counts of blocks without planes. The others are
/// encodeBlock(cells, strideCells, planes, sink).
template <class Cell, class EncodeBlock>
[[maybe_unused]] KEL_INLINE void EncodeRun(const Cell* cells, std::ptrdiff_t strideCells,
                                           const std::uint8_t* planeCounts, std::size_t count,
                                           BlockSink& sink, EncodeBlock encodeBlock) {
  BlockSink local = sink;
  for (std::size_t i = 0; i < count; ++i, cells += 8) {
    if (planeCounts[i] == 0) {
      PutValue(local, 0, local.fieldBits);
    } else {
      encodeBlock(cells, strideCells, planeCounts[i], local);
    }
  }
  sink = local;
}

}  // namespace
}  // namespace kel

#endif
