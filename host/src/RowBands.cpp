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
                 (tilesAcross_ > 1 || params.threads == 1 || bandHeight_ >= height_)) {
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
  const std::size_t index = box.y / bandHeight_;
  const std::uint8_t* from = Inside(Ready(index), box);
  WithSampleType(description.planes[0].BytesPerSample(), [&](auto sample) {
    for (std::uint32_t y = 0; y < box.height; ++y, from += rowBytes_, to += tileRowBytes) {
      PackSamples(reinterpret_cast<const decltype(sample)*>(from), samples, depth, to);
    }
  });
  EndTile(index);
}

TileSamples::Rows RowBands::RowsOf(const TileBox& box, std::uint32_t row) {
  if (tilesAcross_ > 1) {
    const Band& band = Ready(box.y / bandHeight_);
    return {Inside(band, box) + row * rowBytes_, box.height - row, rowBytes_};
  }
  const std::size_t most = std::max<std::size_t>(kStripBytes / rowBytes_, 1);
  if (strip_.Size() == 0) strip_ = SampleBuffer(most * rowBytes_);
  const auto count = static_cast<std::uint32_t>(std::min<std::size_t>(most, box.height - row));
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

const std::uint8_t* RowBands::Inside(const Band& band, const TileBox& box) const {
  return band.rows.Data() + (box.y % bandHeight_) * rowBytes_ + box.x * pixelBytes_;
}

void RowBands::EndTile(std::size_t index) {
  Lock lock(mutex_);
  Band& mine = BandOf(index);
  if (++mine.numCopied == tilesAcross_) mine.index = SIZE_MAX;
  changed_.notify_all();
  if (numBands_ > 1 && ClaimReading(index + 1, lock)) {
    lock.unlock();
    ReadClaimed(index + 1);
  }
}

const RowBands::Band& RowBands::Ready(std::size_t index) {
  Lock lock(mutex_);
  for (;;) {
    if (failure_) std::rethrow_exception(failure_);
    if (BandOf(index).index == index) return BandOf(index);
    if (ClaimReading(index, lock)) {
      lock.unlock();
      ReadClaimed(index);
      lock.lock();
    } else {
      changed_.wait(lock);
    }
  }
}

bool RowBands::ClaimReading(std::size_t index, const Lock&) {
  const bool exists = index * bandHeight_ < height_;
  if (!exists || reading_ || failure_ || nextBand_ != index) return false;
  if (BandOf(index).index != SIZE_MAX) return false;
  reading_ = true;
  return true;
}

void RowBands::ReadClaimed(std::size_t index) {
  Band& band = BandOf(index);
  const std::uint32_t first = static_cast<std::uint32_t>(index) * bandHeight_;
  try {
    if (band.rows.Size() == 0) band.rows = SampleBuffer(rowBytes_ * bandHeight_);
    source_.Read(std::min(bandHeight_, height_ - first), band.rows.Data(), rowBytes_);
  } catch (...) {
    Abandon();
    throw;
  }
  const Lock lock(mutex_);
  band.index = index;
  band.numCopied = 0;
  reading_ = false;
  ++nextBand_;
  changed_.notify_all();
}

void RowBands::ReadTile(const TileBox& box, std::uint8_t* to) {
  Lock lock(mutex_);
  const std::size_t index = box.y / bandHeight_;
  changed_.wait(lock, [&] { return failure_ || nextBand_ == index; });
  if (failure_) std::rethrow_exception(failure_);
  lock.unlock();
  try {
    source_.Read(box.height, to, rowBytes_);
  } catch (...) {
    Abandon();
    throw;
  }
  lock.lock();
  ++nextBand_;
  changed_.notify_all();
}

void RowBands::Abandon() {
  const Lock lock(mutex_);
  if (!failure_) failure_ = std::current_exception();
  changed_.notify_all();
}

}  // namespace kel::host
