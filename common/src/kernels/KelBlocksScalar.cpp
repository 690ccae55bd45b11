// Scalar reference kernels of the block coder. The code of a block stands in KelBlocksKernels.h;
// here it is taken a word at a time: planes as 64-bit words, low bits of several coefficients from
// one load.
#include <bit>
#include <type_traits>

#include "KelBlocksOrder.h"
#include "KelBlocksPut.h"
#include "KelBlocksRead.h"

namespace kel {
namespace {

// For four places and four bits, with the places first in the index: the first of the bits, at the
// places. And the number of places.
struct ScatteredFours {
  std::uint8_t scattered[256];
  std::uint8_t taken[16];

  consteval ScatteredFours() : scattered{}, taken{} {
    for (unsigned index = 0; index < 256; ++index) {
      taken[index >> 4] = static_cast<std::uint8_t>(std::popcount(index >> 4));
      unsigned next = 8;
      for (unsigned place = 8; place != 0; place >>= 1) {
        if ((index >> 4 & place) == 0) continue;
        if ((index & next) != 0)
          scattered[index] = static_cast<std::uint8_t>(scattered[index] | place);
        next >>= 1;
      }
    }
  }
};
constexpr ScatteredFours kScatteredFours;

/// The first bits of `bits`, as many as there are places set, moved to those places.
std::uint64_t ScatterBits(std::uint64_t bits, std::uint64_t places) {
  std::uint64_t result = 0;
  for (int shift = 60; shift >= 0; shift -= 4) {
    const std::uint64_t four = places >> shift & 15;
    result = result << 4 | kScatteredFours.scattered[four << 4 | bits >> 60];
    bits <<= kScatteredFours.taken[four];
  }
  return result;
}

/// The lowest bits of 64 bytes, in the order of the bytes.
std::uint64_t GatherLowestBits(const std::uint8_t* bytes) {
  std::uint64_t plane = 0;
  for (int y = 0; y < 8; ++y) {
    // Multiplying adds byte k, counted from the first, to the top at bit 63 - k, without carries.
    const std::uint64_t row = LoadWord(bytes + 8 * y) & 0x0101010101010101;
    plane = plane << 8 | row * 0x0102040810204080 >> 56;
  }
  return plane;
}

/// Reads the top planes of a block: the magnitudes without their low bits.
void ReadTopPlanes(const std::uint8_t* window, std::uint64_t bits, std::uint64_t& position,
                   unsigned planes, std::uint32_t* magnitudes) {
  GroupWalk walk{window, position, bits};
  const std::uint64_t upper = RasterFromCodeOrder(walk.ReadPlane());
  const std::uint64_t lower = planes > 1 ? RasterFromCodeOrder(walk.ReadPlane()) : 0;
  position = walk.position;
  for (int y = 0; y < 8; ++y) SpreadTopPlanes(upper, lower, y, planes, magnitudes + 8 * y);
}

/// Adds the low bits of a block's magnitudes, as many coefficients from one load as it holds.
template <int kTogether>
void AddLowBits(const std::uint8_t* window, std::uint64_t position, unsigned lowBits,
                std::uint32_t* magnitudes) {
  const std::uint32_t mask = 0xFFFFFFFF >> (32 - lowBits);
  for (int i = 0; i < 64; i += kTogether) {
    std::uint64_t bits = LoadBits(window, position);
    position += kTogether * lowBits;
    for (int j = 0; j < kTogether; ++j) {
      bits = bits << lowBits | bits >> (64 - lowBits);  // lowBits is 1 to 32
      magnitudes[i + j] |= static_cast<std::uint32_t>(bits) & mask;
    }
  }
}

/// The value with the sign that a mask of all ones (negative) or zeros gives it.
std::int32_t WithSign(std::uint32_t magnitude, std::uint32_t signMask) {
  return static_cast<std::int32_t>((magnitude ^ signMask) - signMask);
}

/// A coefficient as a cell holds it.
template <class Cell>
Cell ToCell(std::int32_t coefficient, float step) {
  if constexpr (std::is_same_v<Cell, float>) {
    return static_cast<float>(coefficient) * step;
  } else {
    return static_cast<Cell>(coefficient);
  }
}

template <class Cell>
std::uint64_t DecodeSeparateSigns(const std::uint8_t* window, std::uint64_t bits,
                                  std::uint64_t position, unsigned planes, float step, Cell* cells,
                                  std::ptrdiff_t strideCells) {
  std::uint32_t magnitudes[64];
  ReadTopPlanes(window, bits, position, planes, magnitudes);
  if (planes > 2) {
    const unsigned lowBits = planes - 2;
    auto* const add = lowBits <= 7    ? AddLowBits<8>
                      : lowBits <= 14 ? AddLowBits<4>
                      : lowBits <= 28 ? AddLowBits<2>
                                      : AddLowBits<1>;
    add(window, position, lowBits, magnitudes);
    position += 64 * lowBits;
  }
  std::uint8_t isNonZero[64];
  for (int i = 0; i < 64; ++i) isNonZero[i] = magnitudes[i] != 0;
  const std::uint64_t nonZero = GatherLowestBits(isNonZero);
  const std::uint64_t negative = ScatterBits(LoadAllBits(window, position), nonZero);
  for (int y = 0; y < 8; ++y, cells += strideCells) {
    const std::uint32_t row = RowOfPlane(negative, y);
    for (int x = 0; x < 8; ++x) {
      const std::uint32_t signMask = (row & kColumnBits[x]) != 0 ? 0xFFFFFFFF : 0;
      cells[x] = ToCell<Cell>(WithSign(magnitudes[8 * y + x], signMask), step);
    }
  }
  return position + static_cast<unsigned>(std::popcount(nonZero));
}

/// Adds the low bits of a block's magnitudes and stores them with their signs, as many coefficients
/// from one load as it surely holds. Returns the position behind them.
template <int kTogether>
std::uint64_t StoreInterleaved(const std::uint8_t* window, std::uint64_t position, unsigned lowBits,
                               const std::uint32_t* magnitudes, std::int32_t* cells,
                               std::ptrdiff_t strideCells) {
  for (int i = 0; i < 64; i += kTogether) {
    std::uint64_t bits = LoadBits(window, position);
    std::int32_t* const row = cells + (i / 8) * strideCells + i % 8;
    for (int j = 0; j < kTogether; ++j) {
      const auto low = static_cast<std::uint32_t>(bits >> 1 >> (63 - lowBits));
      const std::uint32_t magnitude = magnitudes[i + j] | low;
      bits <<= lowBits;
      row[j] = WithSign(magnitude, 0 - static_cast<std::uint32_t>(bits >> 63));
      bits <<= magnitude != 0;
      position += lowBits + (magnitude != 0);
    }
  }
  return position;
}

std::uint64_t DecodeInterleavedSigns(const std::uint8_t* window, std::uint64_t bits,
                                     std::uint64_t position, unsigned planes, std::int32_t* cells,
                                     std::ptrdiff_t strideCells) {
  std::uint32_t magnitudes[64];
  ReadTopPlanes(window, bits, position, planes, magnitudes);
  const unsigned lowBits = planes > 2 ? planes - 2 : 0;
  auto* const store = lowBits <= 6    ? StoreInterleaved<8>
                      : lowBits <= 13 ? StoreInterleaved<4>
                                      : StoreInterleaved<1>;
  return store(window, position, lowBits, magnitudes, cells, strideCells);
}

template <class Cell>
void EncodeBlock(const Cell* cells, std::ptrdiff_t strideCells, unsigned planes, BlockSink& sink) {
  std::uint32_t magnitudes[64];
  std::uint8_t isNegative[64], isNonZero[64], inUpper[64], inLower[64];
  for (int y = 0; y < 8; ++y, cells += strideCells) {
    for (int x = 0; x < 8; ++x) {
      const std::int32_t value = ToInteger(cells[x]);
      magnitudes[8 * y + x] = MagnitudeOf(value);
      isNegative[8 * y + x] = value < 0;
    }
  }
  for (int i = 0; i < 64; ++i) {
    isNonZero[i] = magnitudes[i] != 0;
    inUpper[i] = static_cast<std::uint8_t>(magnitudes[i] >> (planes - 1));
    inLower[i] = static_cast<std::uint8_t>(magnitudes[i] << 1 >> (planes - 1));
  }
  PutTopPlanes(sink, planes, CodeFromRasterOrder(GatherLowestBits(inUpper)),
               CodeFromRasterOrder(GatherLowestBits(inLower)));
  if (planes > 2) PutLowBits(sink, magnitudes, planes - 2);
  PutSigns(sink, GatherLowestBits(isNegative), GatherLowestBits(isNonZero));
}

template <class Cell>
std::uint8_t CountPlanes(const Cell* cells, std::ptrdiff_t strideCells, std::size_t rows) {
  std::uint32_t all = 0;
  for (std::size_t y = 0; y < rows; ++y, cells += strideCells) {
    for (int x = 0; x < 8; ++x) {
      all |= MagnitudeOf(ToInteger(cells[x]));
    }
  }
  return static_cast<std::uint8_t>(std::bit_width(all));
}

template <class Cell>
void CountPlanesOfRun(const Cell* cells, std::ptrdiff_t strideCells, std::size_t rows,
                      std::size_t count, std::uint8_t* planeCounts) {
  for (std::size_t i = 0; i < count; ++i) {
    planeCounts[i] = CountPlanes(cells + 8 * i, strideCells, rows);
  }
}

void EncodeShortsScalar(const std::int16_t* cells, std::ptrdiff_t strideCells,
                        const std::uint8_t* planeCounts, std::size_t count, BlockSink& sink) {
  EncodeRun(cells, strideCells, planeCounts, count, sink, EncodeBlock<std::int16_t>);
}

std::size_t DecodeInterleavedSignsScalar(BlockSource& source, std::int32_t* cells,
                                         std::ptrdiff_t strideCells, std::size_t count) {
  return DecodeRun(source, cells, strideCells, count, kMostPlanes, DecodeInterleavedSigns);
}

}  // namespace

template <class Cell>
std::size_t DecodeSeparateSignsScalar(BlockSource& source, Cell* cells, std::ptrdiff_t strideCells,
                                      std::size_t count) {
  const float step = source.step;
  return DecodeRun(source, cells, strideCells, count, kMostPlanesOf<Cell>,
                   [step](const std::uint8_t* window, std::uint64_t bits, std::uint64_t position,
                          unsigned planes, Cell* to, std::ptrdiff_t stride) {
                     return DecodeSeparateSigns(window, bits, position, planes, step, to, stride);
                   });
}

template BlocksKernels::Decode<std::int32_t> DecodeSeparateSignsScalar<std::int32_t>;
template BlocksKernels::Decode<std::int16_t> DecodeSeparateSignsScalar<std::int16_t>;
template BlocksKernels::Decode<float> DecodeSeparateSignsScalar<float>;

void EncodeIntegersScalar(const std::int32_t* cells, std::ptrdiff_t strideCells,
                          const std::uint8_t* planeCounts, std::size_t count, BlockSink& sink) {
  EncodeRun(cells, strideCells, planeCounts, count, sink, EncodeBlock<std::int32_t>);
}

void FillScalarBlocksKernels(BlocksKernels& table) noexcept {
  table.decodeSeparateSigns = DecodeSeparateSignsScalar<std::int32_t>;
  table.decodeShorts = DecodeSeparateSignsScalar<std::int16_t>;
  table.decodeFloats = DecodeSeparateSignsScalar<float>;
  table.decodeInterleavedSigns = DecodeInterleavedSignsScalar;
  table.encodeIntegers = EncodeIntegersScalar;
  table.encodeShorts = EncodeShortsScalar;
  table.countPlanesOfIntegers = CountPlanesOfRun<std::int32_t>;
  table.countPlanesOfShorts = CountPlanesOfRun<std::int16_t>;
}

}  // namespace kel
