// Bands of rows between the decoders of tiles and a sink.
#include "BandDecoder.hpp"

#include <algorithm>
#include <cstring>

#include "kel/host/rows.hpp"

namespace kel::host {
namespace {

/// Rows are written in pieces of about this size, which stay in the caches.
constexpr std::size_t kPieceBytes = 256 * 1024;
/// A second band is worth its memory where it takes no more than this part of the limit.
constexpr std::uint64_t kSmallPart = 16;
/// Small tiles are decoded together, up to so many positions of the grid.
constexpr std::uint64_t kRunArea = 512 * 512;

std::uint32_t TilesPerRun(const KelImageGeometry& grid) {
  const std::uint64_t area = std::uint64_t{1} * static_cast<std::uint32_t>(grid.XTsiz) *
                             static_cast<std::uint32_t>(grid.YTsiz);
  return static_cast<std::uint32_t>(std::clamp<std::uint64_t>(
      kRunArea / std::max<std::uint64_t>(area, 1), 1, static_cast<std::uint64_t>(grid.NumXTiles)));
}

void Clear(const std::vector<ComponentArea>& whole, const std::vector<ComponentArea>& part,
           std::vector<Plane>& planes) {
  for (std::size_t c = 0; c < planes.size(); ++c) {
    Plane& plane = planes[c];
    if (part[c].x1 <= part[c].x0) continue;
    const auto width = static_cast<std::size_t>(part[c].x1 - part[c].x0) * plane.BytesPerSample();
    const auto left = static_cast<std::size_t>(part[c].x0 - whole[c].x0) * plane.BytesPerSample();
    for (std::int64_t y = part[c].y0; y < part[c].y1; ++y) {
      std::memset(plane.Row<std::uint8_t>(static_cast<std::uint32_t>(y - whole[c].y0)) + left, 0,
                  width);
    }
  }
}

}  // namespace

BandDecoder::BandDecoder(TilePartFeed& feed, const DecodeParams& params, RowSink& sink)
    : feed_(feed),
      params_(params),
      sink_(sink),
      grid_(*feed.Facts().geometry),
      across_(static_cast<std::size_t>(grid_.NumXTiles)),
      down_(static_cast<std::size_t>(grid_.NumYTiles)),
      tally_(across_ * down_) {
  MakeRoom(ThreadCount(params.threads));
}

TileRun BandDecoder::RowOfTiles(std::size_t row) const {
  return {0, static_cast<std::uint32_t>(row), static_cast<std::uint32_t>(across_), 1, {}};
}

/// Whether an image fits into memory must not depend on the number of threads: there is a second
/// band only where it is a small part of the limit.
void BandDecoder::MakeRoom(unsigned threads) {
  std::uint64_t bytes = 0;
  for (const std::size_t row : {std::size_t{0}, std::min<std::size_t>(1, down_ - 1)}) {
    bytes = std::max(bytes, PlaneBytes(AreasOf(grid_, RowOfTiles(row))));
  }
  const bool small = Session::Limit() == 0 || bytes <= Session::Limit() / kSmallPart;
  numBands_ = threads > 1 && down_ > 1 && small ? 2 : 1;
  room_ = MemoryReservation(bytes * numBands_, "the rows of the picture at work");
}

DecodeReport BandDecoder::Run() {
  const std::uint32_t perRun = TilesPerRun(grid_);
  const std::size_t runsAcross = (across_ + perRun - 1) / perRun;
  const std::size_t numRuns = runsAcross * down_;
  std::size_t numDone = 0;
  const unsigned threads = ThreadCount(params_.threads);
  std::vector<Bytes> data(std::min<std::size_t>(threads, numRuns));  // a run's, of each worker
  ForEachIndex(numRuns, threads, [&](unsigned worker, std::size_t index) {
    try {
      const std::size_t row = index / runsAcross;
      TileRun run = RowOfTiles(row);
      run.column = static_cast<std::uint32_t>(index % runsAcross) * perRun;
      run.columns = std::min(perRun, static_cast<std::uint32_t>(across_) - run.column);
      DecodeRun(Ready(row), run, data[worker]);
      EndRun(row);
      if (!params_.progress) return;
      const std::lock_guard lock(mutex_);
      params_.progress(++numDone, numRuns);
    } catch (...) {
      const std::lock_guard lock(mutex_);
      failed_ = true;
      changed_.notify_all();
      throw;
    }
  });
  tally_.Settle(params_);
  return tally_.report;
}

BandDecoder::Band& BandDecoder::Ready(std::size_t row) {
  std::unique_lock lock(mutex_);
  for (;;) {
    // What failed is thrown on by the worker that it happened to.
    if (failed_) throw Error(Failure::kInput, "the decoding of another part failed");
    if (BandOf(row).row == row) return BandOf(row);
    if (!opening_ && nextOpened_ == row && BandOf(row).row == SIZE_MAX) {
      opening_ = true;
      lock.unlock();
      Open(row);
      lock.lock();
      BandOf(row).row = row;
      opening_ = false;
      ++nextOpened_;
      changed_.notify_all();
    } else {
      changed_.wait(lock);
    }
  }
}

void BandDecoder::Open(std::size_t row) {
  const auto first = static_cast<std::uint32_t>(row * across_);
  const auto last = static_cast<std::uint32_t>(first + across_);
  feed_.Fetch(first, last);
  Band& band = BandOf(row);
  band.areas = AreasOf(grid_, RowOfTiles(row));
  const std::int64_t height = band.areas[0].y1 - band.areas[0].y0;
  if (band.planes.empty() || band.planes[0].Height() < height) band.planes = MakePlanes(band.areas);
  band.parts.clear();
  for (std::uint32_t tile = first; tile < last; ++tile) band.parts.push_back(feed_.Take(tile));
  const std::uint32_t perRun = TilesPerRun(grid_);
  band.numLeft = (across_ + perRun - 1) / perRun;
}

/// Tiles without any data are no part of a run.
void BandDecoder::DecodeRun(Band& band, const TileRun& run, Bytes& data) {
  const auto partsOf = [&](std::uint32_t column, std::vector<TilePartBytes>& parts) {
    const auto tile = static_cast<std::uint32_t>(run.row * across_ + column);
    for (const auto& part : band.parts[column])
      parts.push_back({tile, part.bytes, part.numMissing});
  };
  const auto begin = band.parts.begin() + run.column;
  std::vector<TilePartBytes> parts;
  if (std::none_of(begin, begin + run.columns, [](const auto& p) { return p.empty(); })) {
    for (std::uint32_t i = 0; i < run.columns; ++i) partsOf(run.column + i, parts);
    std::stable_partition(parts.begin(), parts.end(),
                          [](const auto& part) { return part.numMissing == 0; });
    DecodeTiles(band, run, parts, data);
    return;
  }
  for (std::uint32_t i = 0; i < run.columns; ++i) {
    TileRun single = run;
    single.column += i;
    single.columns = 1;
    parts.clear();
    partsOf(single.column, parts);
    DecodeTiles(band, single, parts, data);
  }
}

void BandDecoder::DecodeTiles(Band& band, const TileRun& run,
                              const std::vector<TilePartBytes>& parts, Bytes& data) {
  const auto decode = [&]() -> std::optional<PartResult> {
    if (parts.empty()) return std::nullopt;
    BuildRun(feed_.HeaderBytes(), feed_.Facts(), run, parts, data);
    return DecodeInto({band.areas, feed_.Header().Components(), params_.exact}, data, &grid_, &run,
                      band.planes);
  };
  const auto attempt = [&]() -> std::optional<PartResult> {
    try {
      const std::shared_lock shared(alone_);
      return decode();
    } catch (const Error& error) {
      if (error.Kind() != Failure::kMemory) throw;
    }
    const std::unique_lock alone(alone_);
    return decode();
  };
  std::optional<PartResult> result = attempt();
  if (!result || result->numTilesWithSamples < run.columns) {
    Clear(band.areas, AreasOf(grid_, run), band.planes);  // of what the band held before
    if (result && result->numTilesWithSamples != 0) result = attempt();
  }
  const std::lock_guard lock(mutex_);
  if (result) tally_.Add(*result);
}

void BandDecoder::EndRun(std::size_t row) {
  std::unique_lock lock(mutex_);
  --BandOf(row).numLeft;
  while (!writing_ && nextWritten_ < down_ && BandOf(nextWritten_).row == nextWritten_ &&
         BandOf(nextWritten_).numLeft == 0) {
    Band& band = BandOf(nextWritten_);
    writing_ = true;
    lock.unlock();
    Write(band);
    lock.lock();
    writing_ = false;
    band.parts.clear();
    band.row = SIZE_MAX;
    ++nextWritten_;
    changed_.notify_all();
  }
}

void BandDecoder::Write(const Band& band) {
  const Plane& first = band.planes[0];
  const auto width = static_cast<std::size_t>(band.areas[0].x1 - band.areas[0].x0);
  const auto height = static_cast<std::uint32_t>(band.areas[0].y1 - band.areas[0].y0);
  const std::size_t rowBytes = width * band.planes.size() * first.BytesPerSample();
  const auto rows = static_cast<std::uint32_t>(
      std::clamp<std::size_t>(kPieceBytes / std::max<std::size_t>(rowBytes, 1), 1, height));
  const auto piece = std::make_unique_for_overwrite<std::uint8_t[]>(rowBytes * rows);
  WithSampleType(first.BytesPerSample(), [&](auto sample) {
    using Sample = decltype(sample);
    std::vector<const Sample*> planes(band.planes.size());
    for (std::uint32_t y = 0; y < height; y += rows) {
      const std::uint32_t count = std::min(rows, height - y);
      for (std::uint32_t i = 0; i < count; ++i) {
        for (std::size_t c = 0; c < planes.size(); ++c) {
          planes[c] = band.planes[c].template Row<Sample>(y + i);
        }
        JoinSamples(planes.data(), planes.size(), width,
                    reinterpret_cast<Sample*>(piece.get() + i * rowBytes));
      }
      sink_.Write(count, piece.get(), rowBytes);
    }
  });
}

}  // namespace kel::host
