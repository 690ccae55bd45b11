// Kernels for vectors of 16 bytes that count planes and encode whole blocks of 16-bit coefficients.
//
// A row of a block is one vector; two rows are packed into bytes, whose highest bits make a quarter
// of a plane. Written for SSE2, which can neither sort bytes nor gather bits: planes are brought
// into order as words. Everything is local to the including source.
#ifndef KEL_BLOCKS_ENCODE_BASE_H
#define KEL_BLOCKS_ENCODE_BASE_H

#include <emmintrin.h>

#include "KelBlocksOrder.h"
#include "KelBlocksPut.h"

namespace kel {
namespace {

KEL_INLINE __m128i LoadRow(const std::int16_t* cells) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(cells));
}

KEL_INLINE __m128i MagnitudesOf(__m128i row) {
  return _mm_max_epi16(row, _mm_sub_epi16(_mm_setzero_si128(), row));
}

KEL_INLINE __m128i ShiftCount(unsigned bits) {
  return _mm_cvtsi32_si128(static_cast<int>(bits));
}

/// A plane in raster order, the first coefficient in the highest bit, of a bit that `bytesOf` gives
/// as the highest of each byte of two rows.
template <class BytesOf>
KEL_INLINE std::uint64_t PlaneOf(BytesOf bytesOf) {
  std::uint64_t plane = 0;
  for (int y = 6; y >= 0; y -= 2) {
    plane = plane << 16 | static_cast<unsigned>(_mm_movemask_epi8(bytesOf(y)));
  }
  // The first coefficient's bit is the lowest one.
  return ReverseBits(plane);
}

/// Puts the low bits of two rows.
KEL_INLINE void PutLowBitsOf(BlockSink& sink, const __m128i* magnitudes, unsigned lowBits) {
  const __m128i lowMask = _mm_set1_epi16(static_cast<std::int16_t>((1 << lowBits) - 1));
  // Neighbours are joined: the first times 2^lowBits, plus the second.
  const __m128i weights = _mm_set1_epi32(1 << 16 | 1 << lowBits);
  const auto fours = [&](__m128i row) {
    const __m128i pairs = _mm_madd_epi16(_mm_and_si128(row, lowMask), weights);
    // Above the four coefficients the words hold remains, which leave with the last shift.
    return _mm_or_si128(_mm_sll_epi64(pairs, ShiftCount(2 * lowBits)), _mm_srli_epi64(pairs, 32));
  };
  const __m128i first = fours(magnitudes[0]), second = fours(magnitudes[1]);
  const __m128i toTop = ShiftCount(64 - 4 * lowBits);
  alignas(16) std::uint64_t left[2], right[2];
  const auto store = [](std::uint64_t* to, __m128i two) {
    _mm_store_si128(reinterpret_cast<__m128i*>(to), two);
  };
  store(left, _mm_sll_epi64(_mm_unpacklo_epi64(first, second), toTop));
  store(right, _mm_sll_epi64(_mm_unpackhi_epi64(first, second), toTop));
  for (int y = 0; y < 2; ++y) {
    if (lowBits <= 7) {
      PutBits(sink, left[y] | right[y] >> 4 * lowBits, 8 * lowBits);
    } else {
      PutBits(sink, left[y], 4 * lowBits);
      PutBits(sink, right[y], 4 * lowBits);
    }
  }
}

KEL_INLINE void EncodeBlock(const std::int16_t* cells, std::ptrdiff_t strideCells, unsigned planes,
                            BlockSink& sink) {
  __m128i rows[8];
  __m128i magnitudes[8];
  for (int y = 0; y < 8; ++y) {
    rows[y] = LoadRow(cells + y * strideCells);
    magnitudes[y] = MagnitudesOf(rows[y]);
  }
  const unsigned lowBits = planes > 2 ? planes - 2 : 0;
  const __m128i shift = ShiftCount(lowBits);
  __m128i top[4];
  for (int k = 0; k < 4; ++k) {
    top[k] = _mm_packs_epi16(_mm_srl_epi16(magnitudes[2 * k], shift),
                             _mm_srl_epi16(magnitudes[2 * k + 1], shift));
  }
  const std::uint64_t lower =
      CodeFromRasterOrder(PlaneOf([&](int y) { return _mm_slli_epi16(top[y / 2], 7); }));
  std::uint64_t upper = lower;
  if (planes > 1) {
    upper = CodeFromRasterOrder(PlaneOf([&](int y) { return _mm_slli_epi16(top[y / 2], 6); }));
  }
  PutTopPlanes(sink, planes, upper, lower);
  for (int y = 0; y < 8 && lowBits > 0; y += 2) PutLowBitsOf(sink, magnitudes + y, lowBits);
  const std::uint64_t negative =
      PlaneOf([&](int y) { return _mm_packs_epi16(rows[y], rows[y + 1]); });
  const std::uint64_t zero = PlaneOf([&](int y) {
    return _mm_cmpeq_epi8(_mm_packs_epi16(rows[y], rows[y + 1]), _mm_setzero_si128());
  });
  PutSigns(sink, negative, ~zero);
}

void EncodeShortsVector(const std::int16_t* cells, std::ptrdiff_t strideCells,
                        const std::uint8_t* planeCounts, std::size_t count, BlockSink& sink) {
  EncodeRun(cells, strideCells, planeCounts, count, sink, EncodeBlock);
}

void CountPlanesOfShorts(const std::int16_t* cells, std::ptrdiff_t strideCells, std::size_t rows,
                         std::size_t count, std::uint8_t* planeCounts) {
  for (std::size_t i = 0; i < count; ++i, cells += 8) {
    __m128i all = _mm_setzero_si128();
    const std::int16_t* row = cells;
    for (std::size_t y = 0; y < rows; ++y, row += strideCells) {
      all = _mm_or_si128(all, MagnitudesOf(LoadRow(row)));
    }
    all = _mm_or_si128(all, _mm_shuffle_epi32(all, 0x4E));
    all = _mm_or_si128(all, _mm_shuffle_epi32(all, 0xB1));
    const auto pair = static_cast<unsigned>(_mm_cvtsi128_si32(all));
    const unsigned bits = (pair | pair >> 16) & 0xFFFF;
    planeCounts[i] = static_cast<std::uint8_t>(bits == 0 ? 0 : 32 - __builtin_clz(bits));
  }
}

}  // namespace
}  // namespace kel

#endif
