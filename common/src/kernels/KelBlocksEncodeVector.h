// Vector kernels that count planes and encode whole blocks.
//
// Two rows of a block are one vector of 16-bit lanes, four rows are packed into a vector of bytes,
// and the highest bits of those make half a plane; planes, low bits and signs are then put a word
// at a time. Written for AVX2; where BMI2 may be used the putting takes its bit gathering.
// Everything is local to the including source.
#ifndef KEL_BLOCKS_ENCODE_VECTOR_H
#define KEL_BLOCKS_ENCODE_VECTOR_H

#include "KelBlocksPut.h"
#include "KelBlocksRows.h"

namespace kel {
namespace {

/// Most planes of a block that the vector kernel encodes: those of 16-bit lanes.
constexpr unsigned kMostEncodedPlanes = 15;

/// Two rows, the first in the lower half.
KEL_INLINE __m256i LoadTwoRows(const std::int16_t* first, const std::int16_t* second) {
  const auto half = [](const std::int16_t* row) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(row));
  };
  return _mm256_inserti128_si256(_mm256_castsi128_si256(half(first)), half(second), 1);
}
/// Integers that fit.
KEL_INLINE __m256i LoadTwoRows(const std::int32_t* first, const std::int32_t* second) {
  return _mm256_permute4x64_epi64(_mm256_packs_epi32(LoadRow(first), LoadRow(second)), 0xD8);
}

/// A block: rows 0 and 2, 1 and 3, 4 and 6, 5 and 7. Packing two of these into bytes gives four
/// rows in raster order.
struct BlockRows {
  __m256i pairs[4];
};

template <class Cell>
KEL_INLINE BlockRows LoadBlock(const Cell* cells, std::ptrdiff_t strideCells) {
  const auto rows = [&](int y) {
    return LoadTwoRows(cells + y * strideCells, cells + (y + 2) * strideCells);
  };
  return {{rows(0), rows(1), rows(4), rows(5)}};
}

KEL_INLINE __m128i ShiftCount(unsigned bits) {
  return _mm_cvtsi32_si128(static_cast<int>(bits));
}

KEL_INLINE std::uint32_t HighestBits(__m256i bytes) {
  return static_cast<std::uint32_t>(_mm256_movemask_epi8(bytes));
}

/// Half a block's top planes in the order of the code, from values 0 to 3.
struct HalfPlanes {
  std::uint32_t upper, lower;
};
KEL_INLINE HalfPlanes TopPlanesOf(const __m256i* magnitudes, __m128i shift) {
  const __m256i packed = _mm256_packs_epi16(_mm256_srl_epi16(magnitudes[0], shift),
                                            _mm256_srl_epi16(magnitudes[1], shift));
  // Each lane becomes a group by rows, then by columns, the last coefficient first. The left group
  // is the upper half of the result.
  const __m256i groups =
      _mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(1, 3, 5, 7, 0, 2, 4, 6));
  const __m256i byColumns = _mm256_setr_epi8(15, 11, 7, 3, 14, 10, 6, 2, 13, 9, 5, 1, 12, 8, 4, 0,
                                             15, 11, 7, 3, 14, 10, 6, 2, 13, 9, 5, 1, 12, 8, 4, 0);
  const __m256i sorted = _mm256_shuffle_epi8(groups, byColumns);
  return {HighestBits(_mm256_slli_epi16(sorted, 6)), HighestBits(_mm256_slli_epi16(sorted, 7))};
}

/// Four rows as bytes that keep sign and zero, in raster order, but the last coefficient first.
KEL_INLINE __m256i ReversedBytes(const __m256i* rows) {
  const __m256i reversed = _mm256_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0,
                                            15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
  const __m256i bytes = _mm256_packs_epi16(rows[0], rows[1]);
  return _mm256_permute4x64_epi64(_mm256_shuffle_epi8(bytes, reversed), 0x4E);
}

KEL_INLINE std::uint64_t Joined(std::uint32_t upper, std::uint32_t lower) {
  return std::uint64_t{upper} << 32 | lower;
}

/// The low bits of four rows: those of the left and of the right half of each row, at the most
/// significant end of a word.
struct LowHalves {
  __m256i left, right;
};
KEL_INLINE LowHalves LowBitsOf(const __m256i* magnitudes, unsigned lowBits) {
  const __m256i lowMask = _mm256_set1_epi16(static_cast<std::int16_t>((1 << lowBits) - 1));
  // Neighbours are joined: the first times 2^lowBits, plus the second.
  const __m256i weights = _mm256_set1_epi32(1 << 16 | 1 << lowBits);
  const auto fours = [&](__m256i rows) {
    const __m256i pairs = _mm256_madd_epi16(_mm256_and_si256(rows, lowMask), weights);
    // Above the four coefficients the words hold remains, which leave with the last shift.
    return _mm256_or_si256(_mm256_sll_epi64(pairs, ShiftCount(2 * lowBits)),
                           _mm256_srli_epi64(pairs, 32));
  };
  const __m256i even = fours(magnitudes[0]), odd = fours(magnitudes[1]);
  const __m128i toTop = ShiftCount(64 - 4 * lowBits);
  return {_mm256_sll_epi64(_mm256_unpacklo_epi64(even, odd), toTop),
          _mm256_sll_epi64(_mm256_unpackhi_epi64(even, odd), toTop)};
}

/// Puts whole bytes, which leave the number of pending bits as it is; at most 7.
KEL_INLINE void PutWholeBytes(BlockSink& sink, std::uint64_t bits, unsigned numBytes) {
  sink.pending |= bits >> sink.numPending;
  StoreWord(sink.next, sink.pending);
  sink.next += numBytes;
  sink.pending <<= 8 * numBytes;
}

/// Most low bits of a coefficient for which a row is put at once, and two rows. A row has as many
/// bytes as a coefficient has low bits.
constexpr unsigned kMostLowBitsByRow = 7;
constexpr unsigned kMostLowBitsByTwoRows = 3;

/// Puts the low bits of four rows.
KEL_INLINE void PutLowBitsOf(BlockSink& sink, const __m256i* magnitudes, unsigned lowBits) {
  const LowHalves halves = LowBitsOf(magnitudes, lowBits);
  alignas(32) std::uint64_t words[8];
  const auto store = [&](int at, __m256i four) {
    _mm256_store_si256(reinterpret_cast<__m256i*>(words + at), four);
  };
  if (lowBits > kMostLowBitsByRow) {
    store(0, halves.left);
    store(4, halves.right);
    for (int y = 0; y < 4; ++y) {
      PutBits(sink, words[y], 4 * lowBits);
      PutBits(sink, words[4 + y], 4 * lowBits);
    }
    return;
  }
  const __m256i rows =
      _mm256_or_si256(halves.left, _mm256_srl_epi64(halves.right, ShiftCount(4 * lowBits)));
  if (lowBits > kMostLowBitsByTwoRows) {
    store(0, rows);
    for (int y = 0; y < 4; ++y) PutWholeBytes(sink, words[y], lowBits);
    return;
  }
  const __m256i after = _mm256_srl_epi64(_mm256_shuffle_epi32(rows, 0x4E), ShiftCount(8 * lowBits));
  store(0, _mm256_or_si256(rows, after));
  PutWholeBytes(sink, words[0], 2 * lowBits);
  PutWholeBytes(sink, words[2], 2 * lowBits);
}

template <class Cell>
KEL_INLINE void EncodeBlock(const Cell* cells, std::ptrdiff_t strideCells, unsigned planes,
                            BlockSink& sink) {
  const BlockRows rows = LoadBlock(cells, strideCells);
  __m256i magnitudes[4];
  for (int k = 0; k < 4; ++k) magnitudes[k] = _mm256_abs_epi16(rows.pairs[k]);
  const unsigned lowBits = planes > 2 ? planes - 2 : 0;
  const HalfPlanes top = TopPlanesOf(magnitudes, ShiftCount(lowBits));
  const HalfPlanes bottom = TopPlanesOf(magnitudes + 2, ShiftCount(lowBits));
  const std::uint64_t upper = Joined(top.upper, bottom.upper);
  const std::uint64_t lower = Joined(top.lower, bottom.lower);
  PutTopPlanes(sink, planes, planes == 1 ? lower : upper, lower);
  if (lowBits > 0) {
    PutLowBitsOf(sink, magnitudes, lowBits);
    PutLowBitsOf(sink, magnitudes + 2, lowBits);
  }
  const __m256i upperBytes = ReversedBytes(rows.pairs), lowerBytes = ReversedBytes(rows.pairs + 2);
  PutSigns(sink, Joined(HighestBits(upperBytes), HighestBits(lowerBytes)),
           ~Joined(HighestBits(IsZero(upperBytes)), HighestBits(IsZero(lowerBytes))));
}

void EncodeShortsVector(const std::int16_t* cells, std::ptrdiff_t strideCells,
                        const std::uint8_t* planeCounts, std::size_t count, BlockSink& sink) {
  EncodeRun(cells, strideCells, planeCounts, count, sink, EncodeBlock<std::int16_t>);
}

void EncodeIntegersVector(const std::int32_t* cells, std::ptrdiff_t strideCells,
                          const std::uint8_t* planeCounts, std::size_t count, BlockSink& sink) {
  EncodeRun(cells, strideCells, planeCounts, count, sink,
            [](const std::int32_t* block, std::ptrdiff_t stride, unsigned planes, BlockSink& local)
                KEL_FORCED {
                  if (planes <= kMostEncodedPlanes)
                    return EncodeBlock(block, stride, planes, local);
                  // The call takes a copy, so that the sink itself can stay in registers.
                  BlockSink copy = local;
                  const auto planeCount = static_cast<std::uint8_t>(planes);
                  EncodeIntegersScalar(block, stride, &planeCount, 1, copy);
                  local = copy;
                });
}

// ---- Plane counts ----

KEL_INLINE std::uint8_t BitLengthOf(unsigned bits) {
  return static_cast<std::uint8_t>(bits == 0 ? 0 : 32 - __builtin_clz(bits));
}

void CountPlanesOfIntegers(const std::int32_t* cells, std::ptrdiff_t strideCells, std::size_t rows,
                           std::size_t count, std::uint8_t* planeCounts) {
  for (std::size_t i = 0; i < count; ++i, cells += 8) {
    __m256i all = _mm256_setzero_si256();
    const std::int32_t* row = cells;
    for (std::size_t y = 0; y < rows; ++y, row += strideCells) {
      all = _mm256_or_si256(all, _mm256_abs_epi32(LoadRow(row)));
    }
    // A magnitude beyond 31 bits stands for the largest one.
    __m128i half = _mm_or_si128(_mm256_castsi256_si128(all), _mm256_extracti128_si256(all, 1));
    half = _mm_or_si128(half, _mm_shuffle_epi32(half, 0x4E));
    half = _mm_or_si128(half, _mm_shuffle_epi32(half, 0xB1));
    const std::uint8_t planes = BitLengthOf(static_cast<unsigned>(_mm_cvtsi128_si32(half)));
    planeCounts[i] = planes < 31 ? planes : std::uint8_t{31};
  }
}

/// Two blocks at once, or the last one alone.
void CountPlanesOfShorts(const std::int16_t* cells, std::ptrdiff_t strideCells, std::size_t rows,
                         std::size_t count, std::uint8_t* planeCounts) {
  for (std::size_t i = 0; i < count; i += 2, cells += 16) {
    __m256i all = _mm256_setzero_si256();
    const std::int16_t* row = cells;
    const bool areTwo = i + 1 < count;
    for (std::size_t y = 0; y < rows; ++y, row += strideCells) {
      const __m256i values =
          areTwo ? LoadRow(row)
                 : _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row)));
      all = _mm256_or_si256(all, _mm256_abs_epi16(values));
    }
    all = _mm256_or_si256(all, _mm256_shuffle_epi32(all, 0x4E));
    all = _mm256_or_si256(all, _mm256_shuffle_epi32(all, 0xB1));
    const auto bitsOf = [](__m128i half) {
      const auto pair = static_cast<unsigned>(_mm_cvtsi128_si32(half));
      return (pair | pair >> 16) & 0xFFFF;
    };
    planeCounts[i] = BitLengthOf(bitsOf(_mm256_castsi256_si128(all)));
    if (areTwo) planeCounts[i + 1] = BitLengthOf(bitsOf(_mm256_extracti128_si256(all, 1)));
  }
}

}  // namespace
}  // namespace kel

#endif
