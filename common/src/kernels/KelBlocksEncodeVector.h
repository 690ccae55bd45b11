// Vector kernels that count planes and encode whole blocks.
//
// A row of a block is one vector, four rows are packed into a vector of bytes, and the highest bits
// of those make half a plane; planes, low bits and signs are then put a word at a time. Written for
// AVX2; where BMI2 may be used the putting takes its bit gathering. Everything is local to the
// including source.
#ifndef KEL_BLOCKS_ENCODE_VECTOR_H
#define KEL_BLOCKS_ENCODE_VECTOR_H

#include "KelBlocksPut.h"
#include "KelBlocksRows.h"

namespace kel {
namespace {

/// A row as 32-bit integers.
KEL_INLINE __m256i LoadCells(const std::int32_t* cells) {
  return LoadRow(cells);
}
KEL_INLINE __m256i LoadCells(const std::int16_t* cells) {
  return _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(cells)));
}

/// Four rows of two neighbouring groups, values 0 to 3, as two planes of the groups in the order of
/// the code.
struct GroupPairPlanes {
  std::uint32_t upper, lower;
};
KEL_INLINE GroupPairPlanes GroupPairOf(const __m256i* rows, __m128i shift) {
  const __m256i packed = _mm256_packs_epi16(
      _mm256_packs_epi32(_mm256_srl_epi32(rows[0], shift), _mm256_srl_epi32(rows[1], shift)),
      _mm256_packs_epi32(_mm256_srl_epi32(rows[2], shift), _mm256_srl_epi32(rows[3], shift)));
  // Each lane holds a group by rows; by columns, the last coefficient first. The left group is the
  // lower lane, but the upper half of the result.
  const __m256i byColumns = _mm256_setr_epi8(15, 11, 7, 3, 14, 10, 6, 2, 13, 9, 5, 1, 12, 8, 4, 0,
                                             15, 11, 7, 3, 14, 10, 6, 2, 13, 9, 5, 1, 12, 8, 4, 0);
  const __m256i sorted = _mm256_shuffle_epi8(_mm256_permute4x64_epi64(packed, 0x4E), byColumns);
  const auto planeOf = [](__m256i highest) {
    return static_cast<std::uint32_t>(_mm256_movemask_epi8(highest));
  };
  return {planeOf(_mm256_slli_epi16(sorted, 6)), planeOf(_mm256_slli_epi16(sorted, 7))};
}

/// Most low bits of a coefficient for which a row is put at once.
constexpr unsigned kMostLowBitsByRow = 7;

/// Puts the low bits of a block, a row at once. A row has as many bytes as a coefficient has low
/// bits, so that the number of pending bits stays.
KEL_INLINE void PutRowsOfLowBits(BlockSink& sink, const __m256i* magnitudes, unsigned lowBits) {
  const auto count = [](unsigned bits) { return _mm_cvtsi32_si128(static_cast<int>(bits)); };
  const __m256i lowMask = _mm256_set1_epi32((1 << lowBits) - 1);
  // The bits of two neighbours, in the low half of 64.
  const auto pairs = [&](__m256i row) {
    const __m256i low = _mm256_and_si256(row, lowMask);
    return _mm256_or_si256(_mm256_sll_epi64(low, count(lowBits)), _mm256_srli_epi64(low, 32));
  };
  const __m128i fourMask = _mm_set1_epi64x((1LL << 4 * lowBits) - 1);
  for (int y = 0; y < 8; y += 2) {
    const __m256i upper = pairs(magnitudes[y]);
    const __m256i lower = pairs(magnitudes[y + 1]);
    const __m256i fours =
        _mm256_or_si256(_mm256_sll_epi64(_mm256_unpacklo_epi64(upper, lower), count(2 * lowBits)),
                        _mm256_unpackhi_epi64(upper, lower));
    // Above the four coefficients the words hold remains, which leave with the last shift.
    const __m128i left = _mm256_castsi256_si128(fours);
    const __m128i right = _mm_and_si128(_mm256_extracti128_si256(fours, 1), fourMask);
    const __m128i both = _mm_sll_epi64(_mm_or_si128(_mm_sll_epi64(left, count(4 * lowBits)), right),
                                       count(64 - 8 * lowBits));
    const long long bits[] = {_mm_cvtsi128_si64(both), _mm_extract_epi64(both, 1)};
    for (const long long row : bits) {
      sink.pending |= static_cast<std::uint64_t>(row) >> sink.numPending;
      StoreWord(sink.next, sink.pending);
      sink.next += lowBits;
      sink.pending <<= 8 * lowBits;
    }
  }
}

template <class Cell>
KEL_INLINE void EncodeBlock(const Cell* cells, std::ptrdiff_t strideCells, unsigned planes,
                            BlockSink& sink) {
  __m256i rows[8];
  __m256i magnitudes[8];
  for (int y = 0; y < 8; ++y) {
    rows[y] = LoadCells(cells + y * strideCells);
    magnitudes[y] = _mm256_abs_epi32(rows[y]);
  }
  const unsigned lowBits = planes > 2 ? planes - 2 : 0;
  const __m128i shift = _mm_cvtsi32_si128(static_cast<int>(lowBits));
  const GroupPairPlanes top = GroupPairOf(magnitudes, shift);
  const GroupPairPlanes bottom = GroupPairOf(magnitudes + 4, shift);
  const std::uint64_t upper = std::uint64_t{top.upper} << 32 | bottom.upper;
  const std::uint64_t lower = std::uint64_t{top.lower} << 32 | bottom.lower;
  PutTopPlanes(sink, planes, planes == 1 ? lower : upper, lower);
  if (lowBits > kMostLowBitsByRow) {
    alignas(32) std::uint32_t stored[64];
    for (int y = 0; y < 8; ++y) {
      _mm256_store_si256(reinterpret_cast<__m256i*>(stored + 8 * y), magnitudes[y]);
    }
    PutLowBits(sink, stored, lowBits);
  } else if (lowBits > 0) {
    PutRowsOfLowBits(sink, magnitudes, lowBits);
  }
  const __m256i upperBytes = ReversedRaster(PackRows(rows));
  const __m256i lowerBytes = ReversedRaster(PackRows(rows + 4));
  PutSigns(sink, HighestBits(upperBytes, lowerBytes),
           ~HighestBits(IsZero(upperBytes), IsZero(lowerBytes)));
}

void EncodeShortsVector(const std::int16_t* cells, std::ptrdiff_t strideCells,
                        const std::uint8_t* planeCounts, std::size_t count, BlockSink& sink) {
  EncodeRun(cells, strideCells, planeCounts, count, sink, EncodeBlock<std::int16_t>);
}

/// Most planes of a block that the vector kernel encodes: with more, -2^31 may be in it.
constexpr unsigned kMostEncodedPlanes = 30;

void EncodeIntegersVector(const std::int32_t* cells, std::ptrdiff_t strideCells,
                          const std::uint8_t* planeCounts, std::size_t count, BlockSink& sink) {
  EncodeRun(
      cells, strideCells, planeCounts, count, sink,
      [](const std::int32_t* block, std::ptrdiff_t stride, unsigned planes, BlockSink& local)
          __attribute__((always_inline)) {
            if (planes <= kMostEncodedPlanes) return EncodeBlock(block, stride, planes, local);
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
