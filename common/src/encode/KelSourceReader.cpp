// Calls of the host's fetch callbacks.
#include "encode/KelSourceReader.h"

#include <span>

#include "base/KelRaise.h"

namespace kel {
namespace {

/// More channels than any image has components.
constexpr KelLong kMostInterleaved = 65535;

/// Takes over what a fetch handed out, and locks it. The host's word for the kind of the buffer
/// does not count: what it hands over is the library's to free.
bool TakeOver(KelBufID_I* buffer, KelLong error, FetchedSamples& samples, void*& address) {
  if (buffer != nullptr) buffer->bufType = 1;
  samples.buffer = OwnedBuffer(buffer);
  if (error != KelOK) Raise(error, kModuleCompTransform);
  if (buffer == nullptr) return false;
  samples.lock = BufferLock(buffer);
  if (!samples.lock) Raise(KelErrNoMemory, kModuleCompTransform);
  address = samples.lock.As<void>();
  return true;
}

KelTileGeometry TileCompOf(const KelImageGeometry& geometry, KelLong component, KelLong tile) {
  KelTileGeometry box;
  box.InitKelTileGeometry(const_cast<KelImageGeometry*>(&geometry), component, tile);
  return box;
}

}  // namespace

bool InitSourceReader(SourceReader& reader, const KelImageDataProcs& procs,
                      const KelImageGeometry& geometry) {
  reader.procs = procs;
  reader.geometry = &geometry;
  reader.numInterleaved = 0;
  if (procs.GetTileInterleaved != nullptr) {
    if (procs.GetNumInterleaved == nullptr) return false;
    reader.numInterleaved = procs.GetNumInterleaved(procs.clientData);
    if (reader.numInterleaved < 1 || reader.numInterleaved > kMostInterleaved) return false;
  }
  if (procs.GetReserved != nullptr) procs.GetReserved(procs.clientData);
  for (KelLong c = 0; c < geometry.Csiz; ++c) {
    if (procs.GetTileComponent == nullptr && !IsInterleaved(reader, c)) return false;
  }
  return true;
}

bool IsInterleaved(const SourceReader& reader, KelLong c) {
  const KelImageGeometry& g = *reader.geometry;
  return c < reader.numInterleaved && g.XRsiz[c] == 1 && g.YRsiz[c] == 1 &&
         g.BitDepths[c] == g.BitDepths[0];
}

bool TileSource::Fetch(KelLong component, FetchedSamples& samples) {
  const KelImageDataProcs& procs = reader_.procs;
  const KelTileGeometry box = TileCompOf(*reader_.geometry, component, tile_);
  const std::int64_t width = std::int64_t{box.X1} - box.X0;
  KelLong error = KelOK;
  void* address = nullptr;
  if (!IsInterleaved(reader_, component)) {
    KelBufID_I* buffer = procs.GetTileComponent(procs.clientData, component, tile_, &error);
    if (!TakeOver(buffer, error, samples, address)) return false;
    samples.source = MakeSampleSource(address, width, box.BitDepth, 1, 0);
    return true;
  }
  if (!interleaved_.lock) {
    KelBufID_I* buffer = procs.GetTileInterleaved(procs.clientData, tile_, &error);
    if (!TakeOver(buffer, error, interleaved_, address)) return false;
  }
  samples.source = MakeSampleSource(interleaved_.lock.As<void>(), width, box.BitDepth,
                                    static_cast<std::uint32_t>(reader_.numInterleaved),
                                    static_cast<std::uint32_t>(component));
  return true;
}

bool TileSource::HasRows(KelLong numComps) const {
  if (reader_.rows.GetTileRows == nullptr || numComps != reader_.geometry->Csiz) return false;
  for (KelLong c = 0; c < numComps; ++c) {
    if (!IsInterleaved(reader_, c)) return false;
  }
  return true;
}

bool TileSource::GetRows(std::uint64_t row, RowsAtHand& rows) {
  const KelRowProcs& procs = reader_.rows;
  const KelTileGeometry box = TileCompOf(*reader_.geometry, 0, tile_);
  KelLong count = 0, error = KelOK;
  std::int64_t stride = 0;
  holdsRows_ = true;
  const void* address = procs.GetTileRows(procs.clientData, tile_, static_cast<KelLong>(row),
                                          &count, &stride, &error);
  if (error != KelOK) Raise(error, kModuleCompTransform);
  if (address == nullptr || count < 1) return false;
  rows.first = MakeSampleSource(address, std::int64_t{box.X1} - box.X0, box.BitDepth,
                                static_cast<std::uint32_t>(reader_.numInterleaved), 0);
  rows.first.rowBytes = static_cast<std::uint64_t>(stride);
  rows.numRows = static_cast<std::uint64_t>(count);
  return true;
}

void TileSource::ReleaseRows() noexcept {
  const KelRowProcs& procs = reader_.rows;
  if (!holdsRows_) return;
  holdsRows_ = false;
  if (procs.ReleaseTileRows != nullptr) procs.ReleaseTileRows(procs.clientData, tile_);
}

bool FetchRegion(TileSource& source, const KelTileGeometry& component, RegionSamples& region) {
  region = EmptyRegion(component);
  if (region.box.IsEmpty()) return true;
  FetchedSamples samples;
  if (!source.Fetch(component.Component, samples)) return false;
  // Read one row at a time; a sample of 0 is what the level shift makes the least integer.
  const std::int64_t width = region.box.Width();
  auto row = OwnedArray<std::int32_t>::Make(AsCount(width));
  const auto zero = static_cast<std::int32_t>(-(std::int64_t{1} << (component.BitDepth - 1)));
  std::uint8_t* out = region.bytes.Data();
  for (std::int64_t y = 0; y < region.box.Height(); ++y) {
    PreparePlane(FromRow(samples.source, AsCount(y)), {row.Data(), row.Size()}, {width, 1},
                 CellKind::kInts);
    for (const std::int32_t level : std::span(row.Data(), row.Size())) {
      *out++ = level != zero ? kInsideRegion : 0;
    }
  }
  return true;
}

}  // namespace kel
