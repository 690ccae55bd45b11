// Rows of a block as vectors of eight 32-bit lanes, and four rows as one vector of bytes: the
// pieces that the vector kernels of both directions share.
//
// Written for AVX2. Everything is local to the including source.
#ifndef KEL_BLOCKS_ROWS_H
#define KEL_BLOCKS_ROWS_H

#include <immintrin.h>

#include "KelBlocksKernels.h"

namespace kel {
namespace {

KEL_INLINE __m256i LoadRow(const void* address) {
  return _mm256_loadu_si256(static_cast<const __m256i*>(address));
}

/// Four rows as bytes that keep sign and zero, in the order in which lanes are packed: the left
/// four columns of the four rows, then the right ones.
KEL_INLINE __m256i PackRows(const __m256i* rows) {
  return _mm256_packs_epi16(_mm256_packs_epi32(rows[0], rows[1]),
                            _mm256_packs_epi32(rows[2], rows[3]));
}

/// Packed bytes in raster order, but the last coefficient first, so that a mask of the bytes is
/// half a plane in raster order.
KEL_INLINE __m256i ReversedRaster(__m256i packed) {
  const __m256i sorted =
      _mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(7, 3, 6, 2, 5, 1, 4, 0));
  const __m256i reversed = _mm256_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12, 3,
                                            2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
  return _mm256_shuffle_epi8(sorted, reversed);
}

/// The highest bits of 64 bytes, those of the upper half first.
KEL_INLINE std::uint64_t HighestBits(__m256i upper, __m256i lower) {
  return static_cast<std::uint64_t>(static_cast<std::uint32_t>(_mm256_movemask_epi8(upper))) << 32 |
         static_cast<std::uint32_t>(_mm256_movemask_epi8(lower));
}

KEL_INLINE __m256i IsZero(__m256i bytes) {
  return _mm256_cmpeq_epi8(bytes, _mm256_setzero_si256());
}

}  // namespace
}  // namespace kel

#endif
