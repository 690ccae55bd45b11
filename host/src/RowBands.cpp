// Reading bands and cutting tiles out of them.
#include "RowBands.hpp"

#include <algorithm>
#include <cstring>

#include "kel/host/rows.hpp"

namespace kel::host {
namespace {

/// Rows that are made at once stay in the cache of the second level.
constexpr std::size_t kStripBytes = 256 * 1024;

}  // namespace

RowBands::RowBands(RowSource& source, const EncodeParams& params)
    : source_(source),
      width_(source.Description().width),
      height_(source.Description().height),
      bandHeight_(params.tileHeight),
      tilesAcross_((width_ + params.tileWidth - 1) / params.tileWidth),
      numBands_(params.threads > 1 && params.tileHeight < height_ ? 2 : 1),
      pixelBytes_(source.Description().planes.size() *
                  source.Description().planes[0].BytesPerSample()),
      rowBytes_(host::RowBytes(source.Description())),
      areAsTheyAre_(source.Description().planes[0].Depth() ==
                    8 * source.Description().planes[0].BytesPerSample()),
      givesRows_(areAsTheyAre_ &&
                 (tilesAcross_ > 1 || params.threads == 1 || bandHeight_ >= height_)),
      stripHeight_(static_cast<std::uint32_t>(
          std::clamp<std::size_t>(kStripBytes / rowBytes_, 1, bandHeight_))) {
  if (tilesAcross_ > 1) {
    room_ = MemoryReservation(std::uint64_t{rowBytes_} * bandHeight_ * numBands_,
                              "the rows of the picture at work");
  }
}

void RowBands::Copy(std::size_t, const TileBox& box, std::uint8_t* to) {
  const Image& description = source_.Description();
  const unsigned depth = description.planes[0].Depth();
  const std::size_t samples = std::size_t{box.width} * description.planes.size();
  const std::uint64_t tileRowBytes = PackedRowBytes(samples, depth);
  if (tilesAcross_ == 1 && areAsTheyAre_) {
    ReadTile(box, to);
    return;
  }
  AwaitRow(box.y + box.height - 1);
  const std::uint8_t* from = Inside(box);
  WithSampleType(description.planes[0].BytesPerSample(), [&](auto sample) {
    for (std::uint32_t y = 0; y < box.height; ++y, from += rowBytes_, to += tileRowBytes) {
      PackSamples(reinterpret_cast<const decltype(sample)*>(from), samples, depth, to);
    }
  });
  EndTile(box.y / bandHeight_);
}

TileSamples::Rows RowBands::RowsOf(const TileBox& box, std::uint32_t row) {
  if (tilesAcross_ > 1) {
    const std::uint32_t end = std::min(AwaitRow(box.y + row), box.y + box.height);
    return {Inside(box) + row * rowBytes_, end - (box.y + row), rowBytes_};
  }
  if (strip_.Size() == 0) strip_ = SampleBuffer(stripHeight_ * rowBytes_);
  const std::uint32_t count = std::min(stripHeight_, box.height - row);
  source_.Read(count, strip_.Data(), rowBytes_);
  return {strip_.Data(), count, rowBytes_};
}

void RowBands::ReleaseRows(const TileBox& box) noexcept {
  if (tilesAcross_ == 1) return;
  try {
    EndTile(box.y / bandHeight_);
  } catch (...) {
    // The tiles of the band that could not be read say so.
  }
}

const std::uint8_t* RowBands::Inside(const TileBox& box) {
  const Band& band = BandOf(box.y / bandHeight_);
  return band.rows.Data() + (box.y % bandHeight_) * rowBytes_ + box.x * pixelBytes_;
}

void RowBands::EndTile(std::size_t index) {
  Lock lock(mutex_);
  Band& mine = BandOf(index);
  if (++mine.numTaken == tilesAcross_) mine.index = SIZE_MAX;
  changed_.notify_all();
  if (numBands_ == 1) return;
  while (nextRow_ / bandHeight_ == index + 1 && CanRead(lock)) ReadStrip(lock);
}

std::uint32_t RowBands::AwaitRow(std::uint32_t y) {
  Lock lock(mutex_);
  for (;;) {
    if (failure_) std::rethrow_exception(failure_);
    if (y < nextRow_) return nextRow_;
    if (CanRead(lock)) {
      ReadStrip(lock);
    } else {
      changed_.wait(lock);
    }
  }
}

bool RowBands::CanRead(const Lock&) {
  if (reading_ || failure_ || nextRow_ >= height_) return false;
  const std::size_t index = nextRow_ / bandHeight_;
  return BandOf(index).index == index || BandOf(index).index == SIZE_MAX;
}

void RowBands::ReadStrip(Lock& lock) {
  const std::size_t index = nextRow_ / bandHeight_;
  const std::uint32_t inBand = nextRow_ % bandHeight_;
  const std::uint32_t count = std::min({stripHeight_, bandHeight_ - inBand, height_ - nextRow_});
  Band& band = BandOf(index);
  if (inBand == 0) {
    band.index = index;
    band.numTaken = 0;
  }
  reading_ = true;
  lock.unlock();
  try {
    if (band.rows.Size() == 0) band.rows = SampleBuffer(rowBytes_ * bandHeight_);
    source_.Read(count, band.rows.Data() + inBand * rowBytes_, rowBytes_);
  } catch (...) {
    Abandon();
    throw;
  }
  lock.lock();
  reading_ = false;
  nextRow_ += count;
  changed_.notify_all();
}

void RowBands::ReadTile(const TileBox& box, std::uint8_t* to) {
  Lock lock(mutex_);
  changed_.wait(lock, [&] { return failure_ || nextRow_ == box.y; });
  if (failure_) std::rethrow_exception(failure_);
  lock.unlock();
  try {
    source_.Read(box.height, to, rowBytes_);
  } catch (...) {
    Abandon();
    throw;
  }
  lock.lock();
  nextRow_ += box.height;
  changed_.notify_all();
}

void RowBands::Abandon() {
  const Lock lock(mutex_);
  if (!failure_) failure_ = std::current_exception();
  changed_.notify_all();
}

}  // namespace kel::host
