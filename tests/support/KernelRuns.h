// Calls of every kernel of a table on cells made of arbitrary bytes: what the sets' comparison and
// its fuzz target share.
#ifndef TESTS_SUPPORT_KERNEL_RUNS_H
#define TESTS_SUPPORT_KERNEL_RUNS_H

#include <algorithm>
#include <bit>
#include <concepts>
#include <limits>
#include <vector>

#include "BitAssembler.h"
#include "kernels/KelKernels.h"

namespace test {

/// What a set made of the cells. The bits of a NaN are left open.
using Result = std::vector<std::uint64_t>;
inline std::uint64_t BitsOf(double v) {
  return v != v ? 0x7FF8ULL << 48 : std::bit_cast<std::uint64_t>(v);
}
inline std::uint64_t BitsOf(float v) {
  return BitsOf(double{v});
}
inline std::uint64_t BitsOf(std::integral auto v) {
  return static_cast<std::uint64_t>(v);
}

/// Rows of cells made of bytes, each from another place on, with cells in front of the first and
/// `behind` of them behind the last. Written to, these show in the result; beyond, or without any,
/// it is the sanitizers that see what goes too far.
template <class Cell>
struct CellRows {
  std::size_t lead;
  std::vector<Cell> rows[9];

  CellRows(const Bytes& data, std::size_t count, std::size_t behind = 0) : lead(8 + count % 3) {
    for (std::size_t k = 0; k < std::size(rows); ++k) {
      rows[k].resize(lead + count + behind);
      auto* bytes = reinterpret_cast<std::uint8_t*>(rows[k].data());
      for (std::size_t i = 0; i < rows[k].size() * sizeof(Cell); ++i) {
        bytes[i] = data[(i + 16 * k) % data.size()];
      }
    }
  }
  Cell* operator[](std::size_t row) { return rows[row].data() + lead; }
  void AppendTo(Result& result) const {
    for (const auto& row : rows) {
      for (const Cell cell : row) result.push_back(BitsOf(cell));
    }
  }
};

/// Cells behind a row: what the wavelet kernels may read, and the margin of outputs.
inline constexpr std::size_t kReach = 8;

template <class Cell>
void Synthesise(const kel::SynthesisKernels<Cell>& k, const Bytes& data, std::size_t n,
                Result& result) {
  CellRows<Cell> in(data, 2 * n, kReach), out(data, 2 * n, kReach);
  k.row(in[0], in[1], out[0], n);
  const Cell* const low[] = {in[2], in[3], in[4]};
  const Cell* const high[] = {in[5], in[6], in[7], in[8]};
  k.rows(low, high, in[0], out[1], out[2], n);
  out.AppendTo(result);
}

template <class Cell>
void Analyse(const kel::AnalysisKernels<Cell>& k, const Bytes& data, std::size_t n,
             Result& result) {
  CellRows<Cell> in(data, 2 * n, kReach), out(data, 2 * n, kReach);
  k.row(in[0], out[0], out[1], n);
  const Cell* const x[] = {in[1], in[2], in[3]};
  k.rows(x, in[4], out[2], out[3], n);
  out.AppendTo(result);
}

inline void AnalyseFloats(const kel::WaveletKernels& k, const Bytes& data, std::size_t n,
                          Result& result) {
  CellRows<float> in(data, 2 * n, kReach), out(data, 2 * n, kReach);
  CellRows<double> cores(data, n);
  CellRows<std::int32_t> ints(data, n);
  CellRows<std::uint8_t> bytes(data, n, kReach);
  const double factors[] = {1.0 / 3, 0.7};
  k.analyseRow97(in[0], out[0], out[1], n, factors);
  const float* const x[] = {in[0], in[1], in[2], in[3], in[4], in[5], in[6]};
  float* const lowHigh[] = {out[2], out[3]};
  k.analyseRows97(x, cores[0], cores[1], lowHigh, n);
  k.dequantise(ints[0], out[4], n, 0.3F);
  k.floatTo8BitAway(in[7], bytes[0], n);
  out.AppendTo(result);
  cores.AppendTo(result);
  bytes.AppendTo(result);
}

inline void ToPlanes(const kel::SamplesKernels& k, const Bytes& data, std::size_t n,
                     Result& result) {
  CellRows<std::uint8_t> bytes(data, 5 * n), splitBytes(data, n, kReach);
  CellRows<std::uint16_t> words(data, 5 * n), splitWords(data, n, kReach);
  CellRows<std::int16_t> shorts(data, n, kReach);
  CellRows<std::int32_t> samples(data, n), ints(data, n, kReach);
  CellRows<float> floats(data, n, kReach), more(data, n, kReach);
  const std::size_t step = 3 + n % 3;
  k.splitBytes(bytes[0], step, splitBytes[0], splitBytes[1], splitBytes[2], n);
  k.splitWords(words[0], step, splitWords[0], splitWords[1], splitWords[2], n);
  k.bytesToShorts(bytes[1], shorts[0], n);
  k.bytesToInts(bytes[1], ints[0], n);
  k.wordsToInts(words[1], ints[1], n);
  k.bytesToFloats(bytes[1], floats[0], n);
  k.wordsToFloats(words[1], floats[1], n);
  k.forwardRct8(bytes[0], bytes[1], bytes[2], shorts[1], shorts[2], shorts[3], n);
  k.forwardRct16(words[0], words[1], words[2], ints[2], ints[3], ints[4], n);
  k.forwardRct32(samples[0], samples[1], samples[2], ints[5], ints[6], ints[7], n);
  k.forwardIct8(bytes[0], bytes[1], bytes[2], floats[2], floats[3], floats[4], n);
  k.forwardIct16(words[0], words[1], words[2], floats[5], floats[6], floats[7], n);
  k.forwardIct32(samples[0], samples[1], samples[2], more[0], more[1], more[2], n);
  splitBytes.AppendTo(result);
  splitWords.AppendTo(result);
  shorts.AppendTo(result);
  ints.AppendTo(result);
  floats.AppendTo(result);
  more.AppendTo(result);
}

inline void FromPlanes(const kel::SamplesKernels& k, const Bytes& data, std::size_t n,
                       Result& result) {
  CellRows<std::int16_t> in16(data, n), shorts(data, n, kReach);
  CellRows<std::int32_t> in(data, n), ints(data, n, kReach);
  CellRows<float> inFloats(data, n), floats(data, n, kReach);
  CellRows<std::uint8_t> rgb(data, n, kReach), more(data, n, kReach);
  CellRows<std::uint16_t> words(data, n, kReach);
  k.inverseRct(ints[0], ints[1], ints[2], n);
  k.inverseIct(floats[0], floats[1], floats[2], n);
  k.inverseRctTo8Bit(in[0], in[1], in[2], rgb[0], rgb[1], rgb[2], n);
  k.inverseRctShortsTo8Bit(in16[0], in16[1], in16[2], rgb[3], rgb[4], rgb[5], n);
  k.inverseIctTo8Bit(inFloats[0], inFloats[1], inFloats[2], rgb[6], rgb[7], rgb[8], n);
  k.inverseIctSingleTo8Bit(inFloats[3], inFloats[4], inFloats[5], more[4], more[5], more[6], n);
  k.intTo8Bit(in[0], more[0], n);
  k.shortTo8Bit(in16[0], more[1], n);
  k.floatTo8Bit(inFloats[0], more[2], n);
  k.levelsToBytes(in[1], more[3], n);
  const std::int32_t least = std::min(*in[3], *in[4]), most = std::max(*in[3], *in[4]);
  k.intsToLevels(in[1], ints[3], n, least, most, *in[5]);
  k.floatsToLevels(inFloats[1], ints[4], n, least, most, *in[5]);
  k.scaleLevels(ints[5], n, {255.0F, 4095.0F, 0.5F, least, most});
  k.floatsToShorts(inFloats[2], shorts[0], n);
  k.levelsToWords(in[2], words[0], n, static_cast<int>(n % 16));
  shorts.AppendTo(result);
  ints.AppendTo(result);
  floats.AppendTo(result);
  rgb.AppendTo(result);
  more.AppendTo(result);
  words.AppendTo(result);
}

template <class Cell>
void Decode(kel::BlocksKernels::Decode<Cell>* decode, const Bytes& data, std::size_t blocks,
            Result& result) {
  Bytes window = data;
  window.resize(data.size() + kel::kMostBlockBytes + kel::kLoadSlackBytes);
  kel::BlockSource source{window.data(),         data[0] % 8U,  8 * data.size() - 8,
                          1U + data[0] / 8 % 6U, data[0] / 64U, 0};
  std::vector<Cell> cells(64 * blocks);
  result.push_back(decode(source, cells.data(), static_cast<std::ptrdiff_t>(8 * blocks), blocks));
  result.push_back(source.bitPosition);
  result.push_back(source.planesSeen);
  // What a kernel leaves of blocks that it does not decode is open.
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (i % (8 * blocks) < 8 * result[result.size() - 3]) continue;
    cells[i] = 0;
  }
  for (const Cell cell : cells) result.push_back(BitsOf(cell));
}

template <class Cell>
void Encode(kel::BlocksKernels::CountPlanes<Cell>* count, kel::BlocksKernels::Encode<Cell>* encode,
            const Bytes& data, std::size_t blocks, Result& result) {
  CellRows<Cell> given(data, 64 * blocks);
  Cell* const cells = given[0];
  const Cell least = std::numeric_limits<Cell>::min();
  std::replace(cells, cells + 64 * blocks, least, Cell(least + 1));
  const auto stride = static_cast<std::ptrdiff_t>(8 * blocks);
  std::vector<std::uint8_t> planes(blocks);
  count(cells, stride, 1 + data[0] % 8U, blocks, planes.data());
  for (const std::uint8_t n : planes) result.push_back(n);
  count(cells, stride, 8, blocks, planes.data());
  Bytes code(blocks * kel::kMostBlockBytes + kel::kStoreSlackBytes);
  kel::BlockSink sink{code.data(), 0, 0, 6, 0};
  encode(cells, stride, planes.data(), blocks, sink);
  result.push_back(sink.numPending);
  result.push_back(sink.pending);
  result.insert(result.end(), code.data(), sink.next);
}

template <class Cell>
void Choose(kel::ChoiceKernels::Choose<Cell>* choose, const Bytes& data, std::size_t blocks,
            Result& result) {
  CellRows<Cell> given(data, 64 * blocks);
  const Cell most = std::numeric_limits<Cell>::max() - (sizeof(Cell) == 4 ? 9 : 0);
  Cell* const cells = given[0];
  for (std::size_t i = 0; i < 64 * blocks; ++i) {
    cells[i] = std::clamp(cells[i], Cell(-most), most);
  }
  std::vector<std::uint8_t> planes(blocks);
  choose(cells, static_cast<std::ptrdiff_t>(8 * blocks), blocks, planes.data());
  given.AppendTo(result);
  for (const std::uint8_t n : planes) result.push_back(n);
}

/// What the kernels of a kind, of six, make of n cells or some blocks that the bytes give.
inline Result RunKernels(const kel::KernelTable& table, std::uint32_t which, std::size_t n,
                         const Bytes& data) {
  Result result;
  const std::size_t blocks = 1 + n % 5;
  switch (which % 6) {
    case 0:
      Synthesise(table.wavelet.synthesis53, data, n, result);
      Synthesise(table.wavelet.synthesis53Short, data, n, result);
      Analyse(table.wavelet.analysis53, data, n, result);
      Analyse(table.wavelet.analysis53Short, data, n, result);
      break;
    case 1:
      Synthesise(table.wavelet.synthesis97, data, n, result);
      Synthesise(table.wavelet.synthesis97Single, data, n, result);
      AnalyseFloats(table.wavelet, data, n, result);
      break;
    case 2:
      ToPlanes(table.samples, data, n, result);
      break;
    case 3:
      FromPlanes(table.samples, data, n, result);
      break;
    case 4:
      Decode(table.blocks.decodeSeparateSigns, data, blocks, result);
      Decode(table.blocks.decodeInterleavedSigns, data, blocks, result);
      Decode(table.blocks.decodeShorts, data, blocks, result);
      Decode(table.blocks.decodeFloats, data, blocks, result);
      break;
    default:
      Encode(table.blocks.countPlanesOfIntegers, table.blocks.encodeIntegers, data, blocks, result);
      Encode(table.blocks.countPlanesOfShorts, table.blocks.encodeShorts, data, blocks, result);
      Choose(table.choice.chooseOfIntegers, data, blocks, result);
      Choose(table.choice.chooseOfShorts, data, blocks, result);
  }
  return result;
}

}  // namespace test

#endif
