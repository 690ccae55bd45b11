// Walking the blocks of bands: counting their planes, and encoding them. Whole blocks go to the
// kernels, a row of them at a time; smaller ones are encoded here.
//
// The plane counts of all bands are known before the first bit is put, and with them the most bytes
// that can come: room for them is made beforehand and never grows.
#include "KelBlockEncode.h"

#include <algorithm>
#include <bit>
#include <cassert>

#include "KelBitWriter.h"
#include "KelBlockRuns.h"
#include "format/KelBlockGrid.h"
#include "kernels/KelColumnPatternCode.h"
#include "kernels/KelKernels.h"

namespace kel {
namespace {

// ---- Plane counts ----

BlocksKernels::CountPlanes<std::int32_t>* CountKernel(const std::int32_t*) {
  return Kernels().blocks.countPlanesOfIntegers;
}
BlocksKernels::CountPlanes<std::int16_t>* CountKernel(const std::int16_t*) {
  return Kernels().blocks.countPlanesOfShorts;
}

template <class Cell>
std::uint8_t CountPlanesOfBlock(const BlockRun<Cell>& block, std::ptrdiff_t strideCells) {
  std::uint32_t all = 0;
  for (int y = 0; y < block.height; ++y) {
    for (int x = 0; x < block.width; ++x) {
      all |= MagnitudeOf(ToInteger(block.cells[y * strideCells + x]));
    }
  }
  return static_cast<std::uint8_t>(std::bit_width(all));
}

template <class Cell>
void CountPlanesOfBlocks(const EncodeBand& band) {
  ForEachRun<Cell>(band, [&](const BlockRun<Cell>& run) {
    if (run.width < kBlockSide) {
      band.planeCounts[run.first] = CountPlanesOfBlock(run, band.strideCells);
      return;
    }
    CountKernel(run.cells)(run.cells, band.strideCells, static_cast<std::size_t>(run.height),
                           run.count, band.planeCounts + run.first);
  });
}

/// The plane counts of a band as its header has them.
struct PlaneBounds {
  std::uint8_t minPlanes;  ///< the smallest count; 127 in a band without blocks
  std::uint8_t maxPlanes;  ///< the largest count; 0 in a band without blocks
};

PlaneBounds BoundsOf(const EncodeBand& band) {
  PlaneBounds bounds{127, 0};
  const std::uint64_t numBlocks = CountBlocksOf(band);
  for (std::uint64_t i = 0; i < numBlocks; ++i) {
    bounds.minPlanes = std::min(bounds.minPlanes, band.planeCounts[i]);
    bounds.maxPlanes = std::max(bounds.maxPlanes, band.planeCounts[i]);
  }
  return bounds;
}

/// The most bits that a block of n planes takes, for n from 0 on: a whole block, whose groups all
/// have four columns in both top planes. A smaller block never takes more.
std::uint64_t MostBitsOfBlock(unsigned planes, unsigned fieldBits) {
  if (planes == 0) return fieldBits;
  return fieldBits + (planes == 1 ? 80 : 160 + 64 * std::uint64_t{planes - 2}) + 64;
}

/// Bytes of a band's header.
constexpr std::uint64_t kBandHeaderBytes = 2;

/// The most bytes that a band takes, its header included.
std::uint64_t MostBytesOf(const EncodeBand& band, const PlaneBounds& bounds) {
  const unsigned fieldBits = PlaneCountFieldBits(bounds.minPlanes, bounds.maxPlanes);
  std::uint64_t numWithPlanes[kMostPlanes] = {};
  const std::uint64_t numBlocks = CountBlocksOf(band);
  for (std::uint64_t i = 0; i < numBlocks; ++i) ++numWithPlanes[band.planeCounts[i]];
  std::uint64_t bits = 0;
  for (unsigned planes = 0; planes < kMostPlanes; ++planes) {
    bits += numWithPlanes[planes] * MostBitsOfBlock(planes, fieldBits);
  }
  return kBandHeaderBytes + (bits + 7) / 8;
}

// ---- One block ----

/// A block smaller than 8 x 8: magnitudes in raster order, and planes in raster order whose rows
/// have eight places.
struct SmallBlock {
  int width, height;
  std::uint32_t magnitudes[kBlockSide * kBlockSide];
  std::uint64_t negative, nonZero, upper, lower;
};

template <class Cell>
SmallBlock LoadSmallBlock(const BlockRun<Cell>& block, std::ptrdiff_t strideCells,
                          unsigned planes) {
  SmallBlock small{};
  small.width = block.width;
  small.height = block.height;
  std::uint32_t* magnitude = small.magnitudes;
  for (int y = 0; y < block.height; ++y) {
    for (int x = 0; x < block.width; ++x, ++magnitude) {
      const std::int32_t value = ToInteger(block.cells[y * strideCells + x]);
      *magnitude = MagnitudeOf(value);
      const int place = 63 - 8 * y - x;
      small.negative |= std::uint64_t{value < 0} << place;
      small.nonZero |= std::uint64_t{value != 0} << place;
      small.upper |= std::uint64_t{*magnitude >> (planes - 1) & 1} << place;
      small.lower |= std::uint64_t{*magnitude << 1 >> (planes - 1) & 1} << place;
    }
  }
  return small;
}

/// Four bits of a column of a plane in raster order, row y's first.
unsigned ColumnOf(std::uint64_t plane, int x, int y) {
  const std::uint32_t spread = static_cast<std::uint32_t>(plane >> (39 - 8 * y - x)) & 0x01010101;
  return spread * 0x10204080U >> 28;  // adds bits 24, 16, 8 and 0 to bits 31, 30, 29 and 28
}

void PutGroup(BlockSink& sink, std::uint64_t plane, int x, int y) {
  unsigned pattern = 0, columns = 0, length = 0;
  for (int j = 0; j < 4; ++j) {
    const unsigned column = ColumnOf(plane, x + j, y);
    const unsigned taken = column != 0 ? 4 : 0;
    pattern = pattern << 1 | (column != 0 ? 1 : 0);
    columns = columns << taken | column;
    length += taken;
  }
  const ColumnPatternWord word = kColumnPatternCode[pattern];
  PutValue(sink, std::uint64_t{word.code} << length | columns, word.length + length);
}

/// Columns that belong to no group have a flag each, then, when it is set, their bits.
void PutColumns(BlockSink& sink, std::uint64_t plane, int xBegin, int xEnd, int y, int rows) {
  for (int x = xBegin; x < xEnd; ++x) {
    const unsigned column = ColumnOf(plane, x, y) >> (4 - rows);
    if (column != 0) {
      PutValue(sink, 1U << rows | column, static_cast<unsigned>(rows) + 1);
    } else {
      PutValue(sink, 0, 1);
    }
  }
}

/// Puts one of the top planes: strips of four rows, each as groups of four columns and then the
/// columns left over at the right; and at last the rows left over at the bottom, in columns.
void PutPlane(BlockSink& sink, std::uint64_t plane, int width, int height) {
  const int groupsEnd = width & ~3;
  int y = 0;
  for (; y + 4 <= height; y += 4) {
    for (int x = 0; x < groupsEnd; x += 4) PutGroup(sink, plane, x, y);
    PutColumns(sink, plane, groupsEnd, width, y, 4);
  }
  if (y < height) PutColumns(sink, plane, 0, width, y, height - y);
}

/// Encodes a block that has planes.
void EncodeCodeBlock(BlockSink& sink, const SmallBlock& block, unsigned planes) {
  PutValue(sink, planes - sink.minPlanes, sink.fieldBits);
  PutPlane(sink, block.upper, block.width, block.height);
  if (planes > 1) PutPlane(sink, block.lower, block.width, block.height);
  if (planes > 2) {
    const unsigned lowBits = planes - 2;
    const std::uint32_t mask = 0xFFFFFFFF >> (32 - lowBits);
    const int count = block.width * block.height;
    for (int i = 0; i < count; ++i) PutValue(sink, block.magnitudes[i] & mask, lowBits);
  }
  PutSigns(sink, block.negative, block.nonZero);
}

// ---- Bands ----

/// A band's encoding under way.
struct BandEncoding {
  const EncodeBand& band;
  BitWriter& writer;
  BlockRateTable& rates;
};

BlocksKernels::Encode<std::int32_t>* EncodeKernel(const std::int32_t*) {
  return Kernels().blocks.encodeIntegers;
}
BlocksKernels::Encode<std::int16_t>* EncodeKernel(const std::int16_t*) {
  return Kernels().blocks.encodeShorts;
}

template <class Cell>
void EncodeRunOfBlocks(BandEncoding& encoding, const BlockRun<Cell>& run) {
  BlockSink& sink = encoding.writer.sink;
  const std::ptrdiff_t strideCells = encoding.band.strideCells;
  const std::uint8_t* const planeCounts = encoding.band.planeCounts + run.first;
  if (run.width == kBlockSide && run.height == kBlockSide) {
    EncodeKernel(run.cells)(run.cells, strideCells, planeCounts, run.count, sink);
    return;
  }
  BlockRun<Cell> block = run;
  for (std::size_t i = 0; i < run.count; ++i, block.cells += kBlockSide) {
    const unsigned planes = planeCounts[i];
    if (planes == 0) {
      PutValue(sink, 0, sink.fieldBits);
    } else {
      EncodeCodeBlock(sink, LoadSmallBlock(block, strideCells, planes), planes);
    }
  }
}

/// Encodes the blocks of a run one by one and records what each came to.
template <class Cell>
void EncodeRunWithRates(BandEncoding& encoding, BlockRun<Cell> run) {
  const BitWriter& writer = encoding.writer;
  BlockRateTable& rates = encoding.rates;
  const std::size_t end = run.first + run.count;
  run.count = 1;
  for (; run.first < end; ++run.first, run.cells += kBlockSide) {
    const std::uint64_t before = rates.count == 0 ? 0 : writer.NumBytes();
    EncodeRunOfBlocks(encoding, run);
    const std::uint8_t planes = encoding.band.planeCounts[run.first];
    const std::uint64_t length = planes == 0 ? 0 : writer.NumBytes() - before;
    rates.records[rates.count++] = {static_cast<std::uint16_t>(length), planes, 0, 0};
  }
}

template <class Cell>
void EncodeBandBlocks(BandEncoding& encoding) {
  ForEachRun<Cell>(encoding.band, [&](const BlockRun<Cell>& run) {
    if (encoding.rates.records != nullptr) return EncodeRunWithRates(encoding, run);
    EncodeRunOfBlocks(encoding, run);
    encoding.rates.count += static_cast<std::uint32_t>(run.count);
  });
}

/// Encodes a band and returns its bytes: the header, the blocks, and the filling of the last byte.
std::uint32_t EncodeBandData(BandEncoding& encoding, const PlaneBounds& bounds) {
  BitWriter& writer = encoding.writer;
  const std::uint64_t start = writer.NumBytes();
  writer.Put(bounds.minPlanes, 8);
  writer.Put(bounds.maxPlanes, 8);
  writer.sink.minPlanes = bounds.minPlanes;
  writer.sink.fieldBits = PlaneCountFieldBits(bounds.minPlanes, bounds.maxPlanes);
  if (encoding.band.areShorts) {
    EncodeBandBlocks<std::int16_t>(encoding);
  } else {
    EncodeBandBlocks<std::int32_t>(encoding);
  }
  writer.Flush();
  return static_cast<std::uint32_t>(writer.NumBytes() - start);
}

}  // namespace

std::uint64_t CountBlocksOf(const EncodeBand& band) {
  return AsCount(CountBlocks(band.x0, band.x1, kBlockExponent)) *
         AsCount(CountBlocks(band.y0, band.y1, kBlockExponent));
}

bool EndsBlocks(const EncodeBand& band, std::int32_t row) {
  return row + 1 == BlockEnd(row, band.y1, kBlockExponent);
}

EncodeBand BlocksAbove(const EncodeBand& band, std::int32_t row) {
  EncodeBand blocks = band;
  blocks.y0 = static_cast<std::int32_t>(std::max<std::int64_t>(band.y0, row & -kBlockSide));
  blocks.y1 = row + 1;
  const std::ptrdiff_t cells = (blocks.y0 - band.y0) * band.strideCells;
  const std::int64_t rowsOfBlocks = CountBlocks(band.y0, blocks.y0, kBlockExponent);
  blocks.planeCounts += rowsOfBlocks * CountBlocks(band.x0, band.x1, kBlockExponent);
  if (band.areShorts) {
    blocks.data = static_cast<std::int16_t*>(band.data) + cells;
  } else {
    blocks.data = static_cast<std::int32_t*>(band.data) + cells;
  }
  return blocks;
}

void CountPlanesAbove(const EncodeBand& band, std::int32_t row) {
  const EncodeBand blocks = BlocksAbove(band, row);
  if (band.areShorts) {
    CountPlanesOfBlocks<std::int16_t>(blocks);
  } else {
    CountPlanesOfBlocks<std::int32_t>(blocks);
  }
}

void PlaceSizes(std::int32_t numLevels, std::uint32_t* memory, CodedTileComponent& coded) {
  coded.numLevels = numLevels;
  coded.resSize = memory;
  coded.bandSize = coded.resSize + numLevels + 1;
  coded.firstRecord = coded.bandSize + 3 * numLevels + 1;
}

void EncodeTileComponent(const EncodeBand* bands, bool keepRates, bool dropEmpty,
                         CodedTileComponent& coded) {
  const std::int32_t numLevels = coded.numLevels;
  assert(numLevels >= 0 && numLevels <= format::kMostLevels);
  const std::int32_t numBands = 3 * numLevels + 1;
  PlaneBounds bounds[kMaxSubbands];
  std::uint64_t numBlocks = 0, mostBytes = kStoreSlackBytes;
  for (std::int32_t b = 0; b < numBands; ++b) {
    numBlocks = SaturatingAdd(numBlocks, CountBlocksOf(bands[b]));
    bounds[b] = BoundsOf(bands[b]);
    mostBytes += MostBytesOf(bands[b], bounds[b]);
  }
  KelFree(coded.rates.records);
  coded.rates = {};
  std::fill_n(coded.resSize, CountSizes(numLevels), 0U);
  if (keepRates) coded.rates.records = OwnedArray<BlockRateRecord>::Make(numBlocks).Release();
  BitWriter writer(static_cast<std::uint8_t*>(EnsureKept(coded.room, mostBytes)));
  for (std::int32_t b = 0; b < numBands; ++b) {
    const std::int32_t resolution = (b + 2) / 3;
    if (b == 0 || b % 3 == 1) coded.firstRecord[resolution] = coded.rates.count;
    if (dropEmpty && bounds[b].maxPlanes == 0) continue;
    BandEncoding encoding{bands[b], writer, coded.rates};
    coded.bandSize[b] = EncodeBandData(encoding, bounds[b]);
    coded.resSize[resolution] += coded.bandSize[b];
  }
  coded.firstRecord[numLevels + 1] = coded.rates.count;
  coded.numBytes = writer.NumBytes();
}

OwnedArray<std::uint8_t> EncodeBandAlone(const Box& box, std::int32_t* cells) {
  EncodeBand band{.x0 = static_cast<std::int32_t>(box.x0),
                  .x1 = static_cast<std::int32_t>(box.x1),
                  .y0 = static_cast<std::int32_t>(box.y0),
                  .y1 = static_cast<std::int32_t>(box.y1),
                  .data = cells,
                  .strideCells = static_cast<std::ptrdiff_t>(box.x1 - box.x0),
                  .areShorts = false,
                  .planeCounts = nullptr};
  const std::uint64_t numCells = SaturatingMul(AsCount(box.x1 - box.x0), AsCount(box.y1 - box.y0));
  std::replace(cells, cells + numCells, INT32_MIN, -INT32_MAX);
  const auto planeCounts = OwnedArray<std::uint8_t>::Make(CountBlocksOf(band));
  band.planeCounts = planeCounts.Data();
  for (std::int32_t row = band.y0; row < band.y1; ++row) {
    if (EndsBlocks(band, row)) CountPlanesAbove(band, row);
  }
  std::uint32_t sizes[CountSizes(0)];
  CodedTileComponent coded{};
  ScopeGuard release([&] { ReleaseCodedTileComponent(coded); });
  PlaceSizes(0, sizes, coded);
  EncodeTileComponent(&band, false, true, coded);
  return OwnedArray<std::uint8_t>::CopyOf(coded.Bytes(), coded.numBytes);
}

std::uint64_t MostBytesOfBand(std::uint64_t numBlocks, unsigned planes) {
  const std::uint64_t bits =
      MostBitsOfBlock(planes, PlaneCountFieldBits(0, static_cast<int>(planes)));
  return SaturatingAdd(kBandHeaderBytes, SaturatingAdd(SaturatingMul(numBlocks, bits), 7) / 8);
}

void ReleaseCodedTileComponent(CodedTileComponent& coded) noexcept {
  KelFree(coded.rates.records);
  coded.rates = {};
  ReleaseKept(coded.room);
}

}  // namespace kel
