#include "DecodeHost.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>

#include "HostStream.h"

namespace test {
namespace {

std::int64_t CeilTo(std::int64_t v, int shift) {
  return (v + (std::int64_t{1} << shift) - 1) >> shift;
}

class Host {
 public:
  Host(const Bytes& data, const DecodeJob& job) : data_(data), job_(job) {}

  Decoded Run() {
    options_.InitToDefaults();
    options_.ForceComponentTransform = job_.force ? 1 : 0;
    stream_.bytes = data_;
    stream_.stream.seekable = job_.source != Source::kUnseekable;
    std::size_t arrived = job_.piece == 0 ? data_.size() : std::min(job_.piece, data_.size());
    Result result;
    KelULong* resolutions = nullptr;
    // In pieces, the first one has to hold the headers.
    for (;; arrived = std::min(arrived + job_.piece, data_.size())) {
      Show(arrived);
      stream_.position = 0;
      stream_.stream.curPos = 0;
      result.initCode =
          image_.InitDecoder(job_.source == Source::kMemory ? nullptr : stream_.Stream(),
                             job_.source == Source::kMemory ? &block_ : nullptr, &options_, nullptr,
                             &resolutions, job_.aspect);
      if (result.initCode == KelOK || result.initCode == KelErrNoMemory ||
          arrived == data_.size()) {
        break;
      }
      image_.Die();
    }
    if (result.initCode == KelOK) {
      image_.SetOrientationForDecode(job_.orientation);
      Frames(arrived, resolutions, result);
      KelGetMemObj()->Free(resolutions);
    }
    image_.Die();
    options_.Die();
    return result;
  }

 private:
  using Result = Decoded;

  void Show(std::size_t arrived) {
    block_ = {data_.data(), static_cast<KelULong>(arrived)};
    stream_.visible = arrived;
  }

  /// A component's samples at the decoded resolution, before rotation.
  struct Place {
    std::int64_t x, y, width, height;
  };
  Place PlaceOf(int c) const {
    const KelImageGeometry& g = *image_.GetGeometryParams();
    const auto edge = [&](std::int64_t v, std::int64_t sub) {
      return CeilTo((v + sub - 1) / sub, reduction_[static_cast<std::size_t>(c)]);
    };
    const std::int64_t x = edge(g.XOsiz, g.XRsiz[c]), y = edge(g.YOsiz, g.YRsiz[c]);
    return {x, y, edge(g.Xsiz, g.XRsiz[c]) - x, edge(g.Ysiz, g.YRsiz[c]) - y};
  }

  /// Where a sample of an image of w x h stands once the image is turned as the job asks.
  std::pair<std::int64_t, std::int64_t> Turned(std::int64_t x, std::int64_t y, std::int64_t w,
                                               std::int64_t h) const {
    if (job_.orientation == KelOrientation90) return {h - 1 - y, x};
    if (job_.orientation == KelOrientation180) return {w - 1 - x, h - 1 - y};
    if (job_.orientation == KelOrientation270) return {y, w - 1 - x};
    return {x, y};
  }

  bool IsTurned() const {
    return job_.orientation == KelOrientation90 || job_.orientation == KelOrientation270;
  }

  void Frames(std::size_t arrived, const KelULong* resolutions, Result& result) {
    const int n = image_.GetNumComponents();
    for (int c = 0; c < n; ++c) {
      reduction_.push_back(image_.GetMaxRes() - static_cast<int>(resolutions[c]));
      // What a file tells of its depths is not in the interface.
      result.depths.push_back(image_.GetBitDepths()[c]);
    }
    Describe(n, result);
    for (;; arrived = std::min(arrived + job_.piece, data_.size())) {
      Show(job_.source == Source::kUnseekable ? data_.size() : arrived);
      result.frameCode =
          image_.GetNextFrame(job_.source == Source::kMemory ? &block_ : nullptr, nullptr,
                              job_.skipConversion, job_.skipRecast, &frame_->data);
      result.ranOutOfMemory = result.ranOutOfMemory || result.frameCode == KelErrNoMemory;
      if (arrived == data_.size() || job_.source == Source::kUnseekable) break;
    }
    result.consumed = image_.BytesConsumedInLastFrame();
    result.isComplete = true;
    for (KelLong t = 0; t < image_.GetNumTiles(); ++t) {
      result.isComplete = result.isComplete && image_.TileIsComplete(t);
    }
    for (int c = 0; c < n; ++c) {
      const Place place = PlaceOf(c);
      if (IsTooLarge(place.width, place.height)) continue;
      result.planes.push_back(Gather(c));
      if (job_.useHostBuffers) result.hostPlanes.push_back(FromHostBuffer(c));
    }
  }

  /// Planes that only a header announces, and that this host would be slow to make.
  bool IsTooLarge(std::int64_t width, std::int64_t height) const {
    return height > 0 && width > job_.mostSamples / image_.GetNumComponents() / height;
  }

  void Describe(int n, const Result& result) {
    std::vector<KelLong> bits(result.depths.begin(), result.depths.end());
    if (job_.outBits != 0) std::fill(bits.begin(), bits.end(), job_.outBits);
    frame_.emplace(bits);
    memory_.resize(bits.size());
    for (int c = 0; c < n; ++c) {
      const auto k = static_cast<std::size_t>(c);
      auto [x, y, width, height] = PlaceOf(c);
      if (IsTurned()) std::swap(width, height);
      const std::int64_t stride = (width * ((bits[k] + 7) / 8) + 15) / 16 * 16;
      frame_->strides[k] = static_cast<KelLong>(stride);
      if (!job_.useHostBuffers || IsTooLarge(width, height)) continue;
      memory_[k].assign(static_cast<std::size_t>(stride * std::max<std::int64_t>(height, 1)) + 48,
                        0xEE);
      const auto address = reinterpret_cast<std::uintptr_t>(memory_[k].data());
      frame_->buffers[k] = memory_[k].data() + (16 - address % 16) % 16 + job_.misalign;
    }
  }

  /// A component from the output images of its tiles, turned back.
  Plane Gather(int c) const {
    const auto k = static_cast<std::size_t>(c);
    const Place place = PlaceOf(c);
    Plane plane{
        place.width, place.height,
        std::vector<std::int64_t>(static_cast<std::size_t>(place.width * place.height), -1)};
    for (KelLong t = 0; t < image_.GetNumTiles(); ++t) {
      KelTileComponent* component = image_.GetTileComponent(t, c);
      if (component == nullptr || !component->TileCompDataIsValid()) continue;
      const KelTileGeometry& box = *component->GetTileGeometryParams();
      const std::int64_t x0 = CeilTo(box.X0, reduction_[k]), y0 = CeilTo(box.Y0, reduction_[k]);
      const std::int64_t w = CeilTo(box.X1, reduction_[k]) - x0;
      const std::int64_t h = CeilTo(box.Y1, reduction_[k]) - y0;
      const KelImageData& image = *component->GetOutputImage();
      // Raw samples are never rotated, and a tile of fewer levels has no place in a smaller image.
      const bool isTurned = IsTurned() && !job_.skipRecast;
      if ((isTurned ? h : w) > image.Width || (isTurned ? w : h) > image.Height) continue;
      const std::int64_t rowBytes = image.SizeOfDataType == 4
                                        ? std::int64_t{image.Width} * 4
                                        : (std::int64_t{image.Width} * frame_->outBits[k] + 7) / 8;
      const auto* bytes =
          static_cast<const std::uint8_t*>(KelGetMemObj()->LockBuf(image.GetImageBuffer()));
      for (std::int64_t i = 0; i < w * h; ++i) {
        const std::int64_t x = i % w, y = i / w;
        const auto [column, row] = job_.skipRecast ? std::pair(x, y) : Turned(x, y, w, h);
        plane.At(x0 - place.x + x, y0 - place.y + y) =
            SampleAt(bytes + row * rowBytes, column, image, frame_->outBits[k]);
      }
      KelGetMemObj()->UnlockBuf(image.GetImageBuffer());
    }
    return plane;
  }

  /// A component from the host's buffer, turned back.
  Plane FromHostBuffer(int c) const {
    const auto k = static_cast<std::size_t>(c);
    const Place place = PlaceOf(c);
    Plane plane{place.width, place.height, {}};
    const auto* bytes = static_cast<const std::uint8_t*>(frame_->buffers[k]);
    for (std::int64_t i = 0; i < place.width * place.height; ++i) {
      const auto [x, y] = Turned(i % place.width, i / place.width, place.width, place.height);
      const std::uint8_t* row = bytes + y * frame_->strides[k];
      std::uint16_t word = row[x];
      if (frame_->outBits[k] == 16) std::memcpy(&word, row + 2 * x, 2);
      plane.samples.push_back(word);
    }
    return plane;
  }

  const Bytes& data_;
  const DecodeJob& job_;
  HostStream stream_;
  KelCompressedData block_{};
  KelDecOpt options_;
  KelImage image_;
  std::optional<FrameRequest> frame_;
  std::vector<Bytes> memory_;
  std::vector<int> reduction_;
};

}  // namespace

std::int64_t SampleAt(const std::uint8_t* row, std::int64_t i, const KelImageData& image,
                      int bits) {
  if (image.SizeOfDataType == 4) {
    std::int32_t cell;
    std::memcpy(&cell, row + 4 * i, 4);
    if (image.ImageBufferType != 1) return cell;
    return static_cast<std::int64_t>(std::bit_cast<float>(cell) * 65536.0F);
  }
  if (image.SizeOfDataType == 2 && bits == 16) {
    std::uint16_t word;
    std::memcpy(&word, row + 2 * i, 2);
    return word;
  }
  std::int64_t v = 0;
  for (std::int64_t k = i * bits; k < (i + 1) * bits; ++k) {
    v = v << 1 | (row[k / 8] >> (7 - k % 8) & 1);
  }
  return v;
}

Decoded Decode(const Bytes& data, const DecodeJob& job) {
  return Host(data, job).Run();
}

}  // namespace test
