// Vector kernel that decodes whole blocks with separate signs.
//
// The top planes are walked a word at a time as in the scalar kernel; from there on a row of a
// block is one vector, and everything happens to all its coefficients at once. Written for AVX2;
// where BMI2 may be used the walk takes its bit scattering. Everything is local to the including
// source.
#ifndef KEL_BLOCKS_DECODE_VECTOR_H
#define KEL_BLOCKS_DECODE_VECTOR_H

#include <bit>

#include "KelBlocksRead.h"
#include "KelBlocksRows.h"

namespace kel {
namespace {

// ---- Top planes ----
//
// A plane in the order of the code, broadcast to every eight bytes of a vector, is turned into
// packed bytes, one per coefficient of four rows: each takes the byte of the word that holds its
// coefficient's bit, and tests that bit.

// For each packed byte of the upper four rows, that byte of the word, counted from the least
// significant one, and the bit in it. The lower four rows stand four bytes lower.
struct PackedPlaces {
  std::uint8_t byte[32];
  std::uint8_t bit[32];

  consteval PackedPlaces() : byte{}, bit{} {
    for (unsigned i = 0; i < 32; ++i) {
      const unsigned group = i / 16, row = i % 16 / 4, column = i % 4;
      const unsigned place = 63 - (16 * group + 4 * column + row);
      byte[i] = static_cast<std::uint8_t>(place / 8);
      bit[i] = static_cast<std::uint8_t>(1U << place % 8);
    }
  }
};
alignas(32) constexpr PackedPlaces kPackedPlaces;

/// Half of two planes, packed: 2 for a bit of the upper one, plus 1 for a bit of the lower one.
KEL_INLINE __m256i PackedHalf(std::uint64_t upper, std::uint64_t lower, int half) {
  const __m256i bytes =
      _mm256_sub_epi8(LoadRow(kPackedPlaces.byte), _mm256_set1_epi8(static_cast<char>(4 * half)));
  const __m256i bit = LoadRow(kPackedPlaces.bit);
  const auto bytesOf = [&](std::uint64_t plane, char value) {
    const __m256i word = _mm256_set1_epi64x(static_cast<long long>(plane));
    const __m256i kept = _mm256_and_si256(_mm256_shuffle_epi8(word, bytes), bit);
    return _mm256_and_si256(_mm256_cmpeq_epi8(kept, bit), _mm256_set1_epi8(value));
  };
  return _mm256_or_si256(bytesOf(upper, 2), bytesOf(lower, 1));
}

/// One of the four rows, as 32-bit lanes.
KEL_INLINE __m256i RowOfPacked(__m256i packed, int y) {
  // A byte of the row and three zeros, four times in each half of the vector.
  const __m256i firstRow = _mm256_set_epi32(
      static_cast<int>(0x80808003), static_cast<int>(0x80808002), static_cast<int>(0x80808001),
      static_cast<int>(0x80808000), static_cast<int>(0x80808003), static_cast<int>(0x80808002),
      static_cast<int>(0x80808001), static_cast<int>(0x80808000));
  return _mm256_shuffle_epi8(packed, _mm256_add_epi32(firstRow, _mm256_set1_epi32(4 * y)));
}

// ---- Low bits ----

/// Most low bits that a row can be taken with: from any phase in a byte, four coefficients lie
/// within 16 bytes and each within four.
constexpr unsigned kMostVectorLowBits = 25;

/// How the low bits of a row are taken from the bytes that hold them. A row has as many bytes as a
/// coefficient has low bits, so that all rows are alike.
struct LowBitsPlan {
  const std::uint8_t* left;   ///< of the first row, left four columns
  const std::uint8_t* right;  ///< right four columns
  __m256i bytes;   ///< for each lane the four bytes that hold its bits, first one most significant
  __m256i shifts;  ///< bits of other coefficients in front
  __m128i spare;   ///< bits of the lane that are not used
};

KEL_INLINE LowBitsPlan PlanLowBits(const std::uint8_t* window, std::uint64_t position,
                                   unsigned lowBits) {
  // What depends on the position alone comes last: it is known late.
  const std::uint64_t wholeBytesOfLeft = 4 * lowBits / 8;
  const __m256i columns = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  const __m256i width = _mm256_set1_epi32(static_cast<int>(lowBits));
  const __m256i rightByte = _mm256_setr_epi32(0, 0, 0, 0, -1, -1, -1, -1);
  const __m256i fromLeft = _mm256_mullo_epi16(columns, width);
  const __m256i fromHalf = _mm256_sub_epi32(
      fromLeft,
      _mm256_and_si256(rightByte, _mm256_set1_epi32(static_cast<int>(8 * wholeBytesOfLeft))));
  const __m256i starts =
      _mm256_add_epi32(fromHalf, _mm256_set1_epi32(static_cast<int>(position & 7)));
  const __m256i repeat = _mm256_setr_epi8(0, 0, 0, 0, 4, 4, 4, 4, 8, 8, 8, 8, 12, 12, 12, 12, 0, 0,
                                          0, 0, 4, 4, 4, 4, 8, 8, 8, 8, 12, 12, 12, 12);
  LowBitsPlan plan;
  plan.left = window + (position >> 3);
  plan.right = plan.left + wholeBytesOfLeft;
  plan.bytes = _mm256_add_epi8(_mm256_shuffle_epi8(_mm256_srli_epi32(starts, 3), repeat),
                               _mm256_set1_epi32(0x00010203));
  plan.shifts = _mm256_and_si256(starts, _mm256_set1_epi32(7));
  plan.spare = _mm_cvtsi32_si128(static_cast<int>(32 - lowBits));
  return plan;
}

KEL_INLINE __m256i TakeLowBits(const LowBitsPlan& plan, std::size_t offset) {
  const auto half = [&](const std::uint8_t* address) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(address + offset));
  };
  const __m256i bytes = _mm256_set_m128i(half(plan.right), half(plan.left));
  const __m256i lanes = _mm256_shuffle_epi8(bytes, plan.bytes);
  return _mm256_srl_epi32(_mm256_sllv_epi32(lanes, plan.shifts), plan.spare);
}

// ---- Signs ----

// For each row of a plane, how many of its bits stand before each column.
struct BitsBefore {
  std::uint8_t columns[256][8];

  consteval BitsBefore() : columns{} {
    for (unsigned row = 0; row < 256; ++row) {
      for (unsigned x = 0; x < 8; ++x) {
        columns[row][x] = static_cast<std::uint8_t>(std::popcount(row >> (8 - x)));
      }
    }
  }
};
constexpr BitsBefore kBitsBefore;

// A row of coefficients, to cells of each kind.
KEL_INLINE void StoreCells(__m256i values, float, std::int32_t* cells) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(cells), values);
}
KEL_INLINE void StoreCells(__m256i values, float, std::int16_t* cells) {
  const __m128i packed =
      _mm_packs_epi32(_mm256_castsi256_si128(values), _mm256_extracti128_si256(values, 1));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(cells), packed);
}
KEL_INLINE void StoreCells(__m256i values, float step, float* cells) {
  _mm256_storeu_ps(cells, _mm256_mul_ps(_mm256_cvtepi32_ps(values), _mm256_set1_ps(step)));
}

/// Stores rows of magnitudes with the signs of those that are not zero. `nonZero` is a plane in
/// raster order, and the signs are the first bits of a word. Each lane shifts its row's signs so
/// far that its own is the highest bit.
template <class Cell>
KEL_INLINE void StoreWithSigns(const __m256i* rows, std::uint64_t signs, std::uint64_t nonZero,
                               float step, Cell* cells, std::ptrdiff_t strideCells) {
  for (int y = 0; y < 8; ++y, nonZero <<= 8, cells += strideCells) {
    const std::uint64_t row = nonZero >> 56;
    const __m256i before = _mm256_cvtepu8_epi32(
        _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kBitsBefore.columns[row])));
    const __m256i sign =
        _mm256_sllv_epi32(_mm256_set1_epi32(static_cast<int>(signs >> 32)), before);
    const __m256i direction = _mm256_or_si256(sign, _mm256_set1_epi32(1));
    const __m256i values = _mm256_sign_epi32(rows[y], direction);
    StoreCells(values, step, cells);
    signs <<= __builtin_popcountll(row);
  }
}

// ---- Blocks ----

KEL_INLINE std::uint64_t CountBits(std::uint64_t word) {
  return static_cast<unsigned>(__builtin_popcountll(word));
}

template <class Cell>
KEL_INLINE std::uint64_t DecodeBlock(const std::uint8_t* window, std::uint64_t bits,
                                     std::uint64_t start, unsigned planes, float step, Cell* cells,
                                     std::ptrdiff_t strideCells) {
  GroupWalk walk{window, start, bits};
  // A single plane takes the part of the lower one.
  std::uint64_t upper = 0;
  std::uint64_t lower = walk.ReadPlane();
  unsigned lowBits = 0;
  if (planes > 1) {
    upper = lower;
    lower = walk.ReadPlane();
    lowBits = planes - 2;
  }
  const __m256i top[2] = {PackedHalf(upper, lower, 0), PackedHalf(upper, lower, 1)};
  __m256i rows[8];
  __m256i zero[2];
  std::uint64_t numZero;
  if (lowBits > 0) {
    const LowBitsPlan plan = PlanLowBits(window, walk.position, lowBits);
    for (std::size_t y = 0; y < 8; ++y) rows[y] = TakeLowBits(plan, y * lowBits);
    zero[0] = IsZero(_mm256_or_si256(top[0], PackRows(rows)));
    zero[1] = IsZero(_mm256_or_si256(top[1], PackRows(rows + 4)));
    const __m128i topShift = _mm_cvtsi32_si128(static_cast<int>(lowBits));
    for (int y = 0; y < 8; ++y) {
      rows[y] =
          _mm256_or_si256(rows[y], _mm256_sll_epi32(RowOfPacked(top[y / 4], y % 4), topShift));
    }
    numZero = CountBits(HighestBits(zero[0], zero[1]));
  } else {
    for (int y = 0; y < 8; ++y) rows[y] = RowOfPacked(top[y / 4], y % 4);
    zero[0] = IsZero(top[0]);
    zero[1] = IsZero(top[1]);
    numZero = CountBits(~(upper | lower));
  }
  const std::uint64_t position = walk.position + 64 * lowBits;
  const std::uint64_t nonZero = ~HighestBits(ReversedRaster(zero[0]), ReversedRaster(zero[1]));
  StoreWithSigns(rows, LoadAllBits(window, position), nonZero, step, cells, strideCells);
  return position + 64 - numZero;
}

/// Blocks of more planes than the vector kernel takes go to the scalar one.
template <class Cell>
std::size_t DecodeRunVector(BlockSource& source, Cell* cells, std::ptrdiff_t strideCells,
                            std::size_t count) {
  constexpr unsigned kMost =
      kMostVectorLowBits + 2 < kMostPlanesOf<Cell> ? kMostVectorLowBits + 2 : kMostPlanesOf<Cell>;
  const float step = source.step;
  std::size_t done = 0;
  while (true) {
    done += DecodeRun(source, cells + 8 * done, strideCells, count - done, kMost,
                      [step](const std::uint8_t* window, std::uint64_t bits, std::uint64_t start,
                             unsigned planes, Cell* to, std::ptrdiff_t stride) {
                        return DecodeBlock(window, bits, start, planes, step, to, stride);
                      });
    if (done == count) return done;
    if (DecodeSeparateSignsScalar(source, cells + 8 * done, strideCells, 1) == 0) return done;
    ++done;
  }
}

}  // namespace
}  // namespace kel

#endif
