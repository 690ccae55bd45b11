// Vector kernel that decodes whole blocks with separate signs.
//
// The top planes are walked a word at a time as in the scalar kernel; from there on a row of a
// block is one vector, and everything happens to all its coefficients at once. Written for AVX2;
// where BMI2 may be used the walk and the signs take its bit scattering, and blocks of few planes
// stand in half as many vectors. Everything is local to the including source.
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

/// The two uppermost planes, and how many are below them. A single plane takes the part of the
/// lower one.
struct TopPlanes {
  std::uint64_t upper, lower;
  unsigned lowBits;
};

KEL_INLINE TopPlanes ReadTopPlanes(GroupWalk& walk, unsigned planes) {
  const std::uint64_t first = walk.ReadPlane();
  if (planes < 2) return {0, first, 0};
  return {first, walk.ReadPlane(), planes - 2};
}

template <class Cell>
KEL_INLINE std::uint64_t DecodeBlock(const std::uint8_t* window, std::uint64_t bits,
                                     std::uint64_t start, unsigned planes, float step, Cell* cells,
                                     std::ptrdiff_t strideCells) {
  GroupWalk walk{window, start, bits};
  const auto [upper, lower, lowBits] = ReadTopPlanes(walk, planes);
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

#if defined(__BMI2__)

// ---- Blocks of few planes ----
//
// Up to eleven planes a coefficient fits into a lane of 16 bits, its low bits into two bytes, and
// two rows into a vector: row y of the upper or lower four in its low half, row y + 2 in its high
// half, so that two of these vectors, packed to bytes, are four rows in raster order. The signs
// are put to their coefficients all at once, as bits of a plane.

/// Most planes, two of them at the top: with nine low bits, from any phase in a byte, a
/// coefficient lies within two bytes and a row within ten.
constexpr unsigned kMostNarrowPlanes = 11;

/// The bytes of a row's coefficients, for each number of low bits and phase: in each lane the two
/// bytes that hold its bits, the first one most significant; and what shifts the bits of other
/// coefficients out at the top.
struct NarrowPlaces {
  std::uint8_t bytes[kMostNarrowPlanes - 1][8][16];
  std::uint16_t factors[kMostNarrowPlanes - 1][8][8];

  consteval NarrowPlaces() : bytes{}, factors{} {
    for (unsigned lowBits = 0; lowBits < kMostNarrowPlanes - 1; ++lowBits) {
      for (unsigned phase = 0; phase < 8; ++phase) {
        for (unsigned x = 0; x < 8; ++x) {
          const unsigned start = phase + x * lowBits;
          bytes[lowBits][phase][2 * x] = static_cast<std::uint8_t>(start / 8 + 1);
          bytes[lowBits][phase][2 * x + 1] = static_cast<std::uint8_t>(start / 8);
          factors[lowBits][phase][x] = static_cast<std::uint16_t>(1U << start % 8);
        }
      }
    }
  }
};
alignas(64) constexpr NarrowPlaces kNarrowPlaces;

/// Where the bits of four rows stand in a plane of the upper half, for bytes in raster order: of a
/// plane in the order of the code, and of one in raster order.
struct RasterPlaces {
  std::uint8_t codeByte[32], codeBit[32], rasterByte[32], rasterBit[32];

  consteval RasterPlaces() : codeByte{}, codeBit{}, rasterByte{}, rasterBit{} {
    for (unsigned i = 0; i < 32; ++i) {
      const unsigned row = i / 8, column = i % 8;
      const unsigned place = 63 - (16 * (column / 4) + 4 * (column % 4) + row);
      codeByte[i] = static_cast<std::uint8_t>(place / 8);
      codeBit[i] = static_cast<std::uint8_t>(1U << place % 8);
      rasterByte[i] = static_cast<std::uint8_t>((63 - i) / 8);
      rasterBit[i] = static_cast<std::uint8_t>(1U << (63 - i) % 8);
    }
  }
};
alignas(32) constexpr RasterPlaces kRasterPlaces;

/// Half of a plane as bytes, all ones where its bit is set.
KEL_INLINE __m256i SpreadBits(std::uint64_t plane, int half, const std::uint8_t* byte,
                              const std::uint8_t* bit) {
  const __m256i places =
      _mm256_sub_epi8(LoadRow(byte), _mm256_set1_epi8(static_cast<char>(4 * half)));
  const __m256i word = _mm256_set1_epi64x(static_cast<long long>(plane));
  const __m256i bits = LoadRow(bit);
  return _mm256_cmpeq_epi8(_mm256_and_si256(_mm256_shuffle_epi8(word, places), bits), bits);
}

KEL_INLINE __m256i ReversedBytes(__m256i bytes) {
  const __m256i reversed = _mm256_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0,
                                            15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
  const __m256i swapped = _mm256_permute4x64_epi64(bytes, 0x4E);
  return _mm256_shuffle_epi8(swapped, reversed);
}

KEL_INLINE void StoreNarrow(__m128i values, float, std::int16_t* cells) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(cells), values);
}
template <class Cell>
KEL_INLINE void StoreNarrow(__m128i values, float step, Cell* cells) {
  StoreCells(_mm256_cvtepi16_epi32(values), step, cells);
}

/// Stores two vectors of four rows, negative where the bytes say so.
template <class Cell>
KEL_INLINE void StoreFourRows(const __m256i* rows, __m256i negative, float step, Cell* cells,
                              std::ptrdiff_t strideCells) {
  const __m256i masks[2] = {_mm256_unpacklo_epi8(negative, negative),
                            _mm256_unpackhi_epi8(negative, negative)};
  for (int y = 0; y < 2; ++y, cells += strideCells) {
    const __m256i values = _mm256_sub_epi16(_mm256_xor_si256(rows[y], masks[y]), masks[y]);
    StoreNarrow(_mm256_castsi256_si128(values), step, cells);
    StoreNarrow(_mm256_extracti128_si256(values, 1), step, cells + 2 * strideCells);
  }
}

template <class Cell>
KEL_INLINE std::uint64_t DecodeNarrowBlock(const std::uint8_t* window, std::uint64_t bits,
                                           std::uint64_t start, unsigned planes, float step,
                                           Cell* cells, std::ptrdiff_t strideCells) {
  GroupWalk walk{window, start, bits};
  const TopPlanes uppermost = ReadTopPlanes(walk, planes);
  const unsigned lowBits = uppermost.lowBits;
  const std::uint64_t phase = walk.position & 7;
  const std::uint8_t* from = window + (walk.position >> 3);
  const auto twice = [](const void* address) {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(static_cast<const __m128i*>(address)));
  };
  const __m256i bytes = twice(kNarrowPlaces.bytes[lowBits][phase]);
  const __m256i factors = twice(kNarrowPlaces.factors[lowBits][phase]);
  const __m128i spare = _mm_cvtsi32_si128(static_cast<int>(16 - lowBits));
  const __m128i topShift = _mm_cvtsi32_si128(static_cast<int>(lowBits));
  __m256i rows[4], zero[2];
  for (int half = 0; half < 2; ++half) {
    const auto plane = [&](std::uint64_t word, char value) {
      return _mm256_and_si256(SpreadBits(word, half, kRasterPlaces.codeByte, kRasterPlaces.codeBit),
                              _mm256_set1_epi8(value));
    };
    const __m256i top = _mm256_or_si256(plane(uppermost.upper, 2), plane(uppermost.lower, 1));
    const auto takeRows = [&](unsigned y) {
      const auto row = [&](unsigned number) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + number * lowBits));
      };
      const __m256i both = _mm256_set_m128i(row(y + 2), row(y));
      const __m256i shifted = _mm256_mullo_epi16(_mm256_shuffle_epi8(both, bytes), factors);
      return _mm256_srl_epi16(shifted, spare);
    };
    __m256i* const two = rows + 2 * half;
    for (unsigned y = 0; y < 2; ++y) two[y] = takeRows(4 * static_cast<unsigned>(half) + y);
    zero[half] = IsZero(_mm256_or_si256(top, _mm256_packs_epi16(two[0], two[1])));
    const __m256i none = _mm256_setzero_si256();
    two[0] = _mm256_or_si256(two[0], _mm256_sll_epi16(_mm256_unpacklo_epi8(top, none), topShift));
    two[1] = _mm256_or_si256(two[1], _mm256_sll_epi16(_mm256_unpackhi_epi8(top, none), topShift));
  }
  const std::uint64_t numZero = CountBits(HighestBits(zero[0], zero[1]));
  const std::uint64_t position = walk.position + 64 * lowBits;
  const std::uint64_t nonZero = ~HighestBits(ReversedBytes(zero[0]), ReversedBytes(zero[1]));
  // The last sign belongs to the last coefficient that is not zero; where none is, none is taken.
  const std::uint64_t signs = LoadAllBits(window, position) >> (numZero & 63);
  const std::uint64_t negative = _pdep_u64(signs, nonZero);
  for (int half = 0; half < 2; ++half, cells += 4 * strideCells) {
    StoreFourRows(rows + 2 * half,
                  SpreadBits(negative, half, kRasterPlaces.rasterByte, kRasterPlaces.rasterBit),
                  step, cells, strideCells);
  }
  return position + 64 - numZero;
}

#endif

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
#if defined(__BMI2__)
                        if (planes <= kMostNarrowPlanes) {
                          return DecodeNarrowBlock(window, bits, start, planes, step, to, stride);
                        }
#endif
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
