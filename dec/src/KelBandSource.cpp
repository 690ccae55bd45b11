// Making the bands that the synthesis takes rows from.
//
// A coded band is read from memory by a reader of its own, which goes on behind the band as far as
// the data do: blocks end where their bits end, and only then it shows whether the band's length
// was right.
#include "KelBandSource.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "KelPacketRead.h"
#include "KelTileLayout.h"
#include "base/KelRaise.h"

namespace kel {
namespace {

constexpr std::int64_t kBlockRows = 8;

std::int64_t RowStride(const Box& box) {
  return RoundUp(box.Width(), kBandRowMargin) + 2 * kBandRowMargin;
}

/// Decodes a coded band's next row of blocks. Behind the place where decoding ended early, rows are
/// zeros: they are of no use.
template <class Cell>
void DecodeMoreRows(BandRows& rows) {
  CodedBand& band = *static_cast<CodedBand*>(rows.source);
  auto* const first = static_cast<Cell*>(band.rows);
  rows.next = first;
  rows.rowsAhead = kBlockRows;
  if (!band.decoder.IsOver()) {
    rows.rowsAhead =
        band.decoder.DecodeRow(band.reader, first, static_cast<std::ptrdiff_t>(rows.strideCells));
  }
  if (band.decoder.Outcome().end == BandEnd::kWhole) return;
  for (std::size_t y = 0; y < AsIndex(kBlockRows); ++y) {
    std::memset(first + y * rows.strideCells, 0, AsIndex(rows.width) * sizeof(Cell));
  }
}

/// A band without data: one row of zeros, again and again.
void GiveZeros(BandRows& rows, void* cells) {
  std::memset(cells, 0, rows.strideCells * sizeof(std::int32_t));
  rows.next = static_cast<std::int32_t*>(cells) + kBandRowMargin;
  rows.strideCells = 0;
  rows.rowsAhead = std::numeric_limits<std::int64_t>::max();
}

void BeginBand(const TileCompRecord& record, int b, float step, WorkMeter* work, CodedBand& band) {
  const BandRecord& from = record.dec->bands[b];
  const auto readable = std::min<std::uint64_t>(from.readableBytes, UINT32_MAX);
  band.reader = {};
  band.reader.InitFromMemory({from.coded, static_cast<KelULong>(readable)}, Flavour::kFF);
  BandPart part = PartOfBand(record, b, 0);
  part.end = static_cast<std::int64_t>(from.codedBytes);
  part.work = work;
  band.decoder.Begin(band.reader, part, true, step);
}

}  // namespace

std::uint64_t CodedRowBytes(const TileCompRecord& record) {
  std::uint64_t bytes = 0;
  for (int b = 0; b < NumSubbands(record.dec->decodeRes); ++b) {
    if (record.dec->bands[b].box.IsEmpty()) continue;
    bytes = SaturatingAdd(bytes, SaturatingMul(AsCount(RowStride(record.dec->bands[b].box)),
                                               kBlockRows * sizeof(std::int32_t)));
  }
  return bytes;
}

bool CodedBandsFitShorts(const TileCompRecord& record, std::int64_t mostSample) {
  std::uint8_t bits[NumSubbands(format::kMostLevels)] = {};
  for (int b = 0; b < NumSubbands(record.dec->decodeRes); ++b) {
    const BandRecord& band = record.dec->bands[b];
    if (band.coded != nullptr && !band.box.IsEmpty()) bits[b] = band.coded[1];
  }
  return FitsShorts(record.dec->decodeRes, bits, mostSample);
}

ComponentBands BandsOfCodedBytes(const TileCompRecord& record, CellKind cells,
                                 const IndexSteps* steps, const BandMemory& memory) {
  ComponentBands bands = {record.dec->resolutionBox, record.dec->decodeRes, cells, {}};
  auto* room = static_cast<std::int32_t*>(memory.rows);
  for (int b = 0; b < NumSubbands(record.dec->decodeRes); ++b) {
    const BandRecord& from = record.dec->bands[b];
    CodedBand& band = memory.bands[b];
    BandRows& rows = bands.bands[b];
    const bool isLow = b == 0;
    rows.step = steps == nullptr ? 1.0F : isLow ? steps->lowStep : steps->steps[b];
    if (from.coded != nullptr) BeginBand(record, b, rows.step, memory.work, band);
    if (from.box.IsEmpty()) continue;
    rows.width = from.box.Width();
    rows.strideCells = AsIndex(RowStride(from.box));
    rows.hasMargins = true;
    rows.source = &band;
    rows.refill = cells == CellKind::kFloats   ? DecodeMoreRows<float>
                  : cells == CellKind::kShorts ? DecodeMoreRows<std::int16_t>
                                               : DecodeMoreRows<std::int32_t>;
    if (from.coded == nullptr) {
      GiveZeros(rows, room);
    } else {
      // The margin in front is a whole number of 32-bit cells for every kind.
      band.rows = cells == CellKind::kShorts
                      ? static_cast<void*>(reinterpret_cast<std::int16_t*>(room) + kBandRowMargin)
                      : static_cast<void*>(room + kBandRowMargin);
    }
    room += RowStride(from.box) * kBlockRows;
  }
  return bands;
}

bool CodedBandsEndedWell(const TileCompRecord& record, const BandMemory& memory) {
  for (int b = 0; b < NumSubbands(record.dec->decodeRes); ++b) {
    const BandRecord& from = record.dec->bands[b];
    if (from.coded == nullptr) continue;
    const CodedBand& band = memory.bands[b];
    const bool isWhole = band.decoder.IsOver() && band.decoder.Outcome().end == BandEnd::kWhole;
    if (!isWhole || AsCount(band.reader.GetPosition()) != from.codedBytes) return false;
  }
  return true;
}

LockedPlane::LockedPlane(TileCompRecord& record) : record_(record) {
  EnsureCoefficients(record);
  lock_ = BufferLock(record.shown.waveletData->ImageBuffer);
  if (!lock_) Raise(KelErrNoMemory, kModuleImageMap);
  for (int b = 0; b < NumSubbands(record.dec->decodeRes); ++b) {
    EnsureBandFilled(record, b, lock_.As<std::int32_t>());
  }
}

CoefficientPlane LockedPlane::Plane() const {
  return {lock_.As<const std::int32_t>(), static_cast<std::size_t>(record_.dec->rowStride),
          record_.dec->resolutionBox, record_.dec->decodeRes};
}

}  // namespace kel
