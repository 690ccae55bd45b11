// Encoding an image: tiles are handed out to workers, each with an image object of its own, and
// their bytes are joined in the order of the tiles behind one set of headers. So the output does
// not depend on the number of workers.
#include "kel/host/encode.hpp"

#include <map>
#include <mutex>

#include "EncodeTargets.hpp"
#include "RowBands.hpp"
#include "kel/host/convert.hpp"

namespace kel::host {
namespace {

/// Writes pieces in the order of their numbers, whatever the order in which they come.
class OrderedWriter {
 public:
  OrderedWriter(Sink& sink, ByteView first, Progress progress, std::size_t total)
      : sink_(sink), progress_(std::move(progress)), totalPieces_(total) {
    Write(first);
  }

  /// The next bytes of a piece that is not complete. False when others come first.
  bool PutPart(std::size_t number, ByteView part) {
    const std::lock_guard lock(mutex_);
    if (number != next_) return false;
    Write(part);
    return true;
  }

  /// The rest of a piece.
  void Put(std::size_t number, ByteView piece) {
    const std::lock_guard lock(mutex_);
    if (number == next_) {
      Write(piece);
      ++next_;
    } else {
      waiting_.emplace(number, Bytes(piece.begin(), piece.end()));
    }
    for (auto it = waiting_.find(next_); it != waiting_.end(); it = waiting_.find(next_)) {
      Write(it->second);
      waiting_.erase(it);
      ++next_;
    }
    if (progress_) progress_(++donePieces_, totalPieces_);
  }

  std::uint64_t BytesWritten() const { return bytes_; }

 private:
  void Write(ByteView piece) {
    bytes_ += piece.size();
    sink_.Write(piece);
  }

  Sink& sink_;
  Progress progress_;
  std::mutex mutex_;
  std::map<std::size_t, Bytes> waiting_;
  std::size_t next_ = 0, donePieces_ = 0, totalPieces_;
  std::uint64_t bytes_ = 0;
};

/// Returns the number of bytes written.
std::uint64_t EncodeOnce(const Image& image, TileSamples& samples, const EncodeParams& params,
                         int quality, Sink& sink) {
  std::vector<std::unique_ptr<TileEncoder>> encoders(params.threads);
  encoders[0] = std::make_unique<TileEncoder>(image, samples, params, quality);
  const std::size_t numTiles = encoders[0]->NumTiles();
  OrderedWriter writer(sink, encoders[0]->Headers(), params.progress, numTiles);
  ForEachIndex(numTiles, params.threads, [&](unsigned worker, std::size_t tile) {
    try {
      std::unique_ptr<TileEncoder>& encoder = encoders[worker];
      if (!encoder) encoder = std::make_unique<TileEncoder>(image, samples, params, quality);
      writer.Put(tile, encoder->EncodeTile(
                           tile, [&](ByteView part) { return writer.PutPart(tile, part); }));
    } catch (...) {
      samples.Abandon();
      throw;
    }
  });
  return writer.BytesWritten();
}

EncodeReport EncodeAll(const Image& image, TileSamples& samples, const EncodeParams& params,
                       Sink& sink) {
  EncodeReport report;
  report.quality = params.lossless ? 0 : params.quality;
  report.bytes = EncodeOnce(image, samples, params, params.quality, sink);
  sink.Finish();
  return report;
}

}  // namespace

EncodeReport Encode(const Image& image, const EncodeParams& params, Sink& sink) {
  const EncodeParams checked = CheckedParams(image, params);
  if (!HasTarget(checked)) {
    const Image halved = checked.halfChroma ? WithHalfChroma(image) : Image();
    const Image& coded = checked.halfChroma ? halved : image;
    PlaneSamples samples(coded);
    return EncodeAll(coded, samples, checked, sink);
  }
  const EncodeReport report = EncodeToTarget(image, checked, sink);
  sink.Finish();
  return report;
}

EncodeReport Encode(RowSource& rows, const EncodeParams& params, Sink& sink) {
  if (HasTarget(params) || params.halfChroma) return Encode(ReadImage(rows), params, sink);
  const EncodeParams checked = CheckedParams(rows.Description(), params);
  RowBands bands(rows, checked);
  return EncodeAll(rows.Description(), bands, checked, sink);
}

}  // namespace kel::host
