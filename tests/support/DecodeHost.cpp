#include "DecodeHost.h"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "HostStream.h"

namespace test {
namespace {

std::int64_t CeilTo(std::int64_t v, int shift) {
  return (v + (std::int64_t{1} << shift) - 1) >> shift;
}

/// Sample i of a row in an output image's form.
std::int64_t SampleAt(const std::uint8_t* row, std::int64_t i, const KelImageData& image,
                      int bits) {
  if (image.SizeOfDataType == 4) {
    if (image.ImageBufferType == 1) {
      float v;
      std::memcpy(&v, row + 4 * i, 4);
      return static_cast<std::int64_t>(v * 65536.0F);
    }
    std::int32_t v;
    std::memcpy(&v, row + 4 * i, 4);
    return v;
  }
  if (image.SizeOfDataType == 2 && bits == 16) {
    std::uint16_t v;
    std::memcpy(&v, row + 2 * i, 2);
    return v;
  }
  if (bits == 8) return row[i];
  std::int64_t v = 0;
  for (std::int64_t k = i * bits; k < (i + 1) * bits; ++k) {
    v = v << 1 | (row[k / 8] >> (7 - k % 8) & 1);
  }
  return v;
}

/// Larger planes are not gathered: only hostile headers have them.
constexpr std::int64_t kMostSamples = std::int64_t{1} << 24;

struct Frame {
  KelFrameData data;
  std::vector<void*> buffers;
  std::vector<KelLong> strides, in, out, isSigned;
  std::vector<double> most, least;
  std::vector<std::vector<std::uint8_t>> memory;
};

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

  /// Width and height of a component at the decoded resolution, before rotation.
  std::pair<std::int64_t, std::int64_t> SizeOf(int c) const {
    const KelImageGeometry& g = *image_.GetGeometryParams();
    const int k = reduction_[static_cast<std::size_t>(c)];
    const auto edge = [&](std::int64_t v, std::int64_t sub) {
      return CeilTo((v + sub - 1) / sub, k);
    };
    return {edge(g.Xsiz, g.XRsiz[c]) - edge(g.XOsiz, g.XRsiz[c]),
            edge(g.Ysiz, g.YRsiz[c]) - edge(g.YOsiz, g.YRsiz[c])};
  }

  bool IsTurned() const {
    return job_.orientation == KelOrientation90 || job_.orientation == KelOrientation270;
  }

  void Frames(std::size_t arrived, const KelULong* resolutions, Result& result) {
    const int n = image_.GetNumComponents();
    for (int c = 0; c < n; ++c) {
      reduction_.push_back(image_.GetMaxRes() - static_cast<int>(resolutions[c]));
      result.depths.push_back(DepthOf(c));
    }
    Describe(n, result);
    for (;; arrived = std::min(arrived + job_.piece, data_.size())) {
      Show(job_.source == Source::kUnseekable ? data_.size() : arrived);
      result.frameCode =
          image_.GetNextFrame(job_.source == Source::kMemory ? &block_ : nullptr, nullptr,
                              job_.skipConversion, job_.skipRecast, &frame_.data);
      result.ranOutOfMemory = result.ranOutOfMemory || result.frameCode == KelErrNoMemory;
      if (arrived == data_.size() || job_.source == Source::kUnseekable) break;
    }
    result.consumed = image_.BytesConsumedInLastFrame();
    result.isComplete = true;
    for (KelLong t = 0; t < image_.GetNumTiles(); ++t) {
      result.isComplete = result.isComplete && image_.TileIsComplete(t);
    }
    for (int c = 0; c < n; ++c) {
      const auto [width, height] = SizeOf(c);
      if (IsTooLarge(width, height)) continue;
      result.planes.push_back(Gather(c, result.depths[static_cast<std::size_t>(c)]));
      if (frame_.buffers[static_cast<std::size_t>(c)] != nullptr)
        result.hostPlanes.push_back(FromHostBuffer(c));
    }
  }

  /// The depth that the file tells is not in the interface; tests set what they know.
  int DepthOf(int c) const { return image_.GetBitDepths()[c]; }

  int BitsOf(int c, const Result& result) const {
    return job_.outBits != 0 ? job_.outBits : result.depths[static_cast<std::size_t>(c)];
  }

  /// Planes that only a header announces, and that this host would be slow to make.
  bool IsTooLarge(std::int64_t width, std::int64_t height) const {
    return height > 0 && width > kMostSamples / image_.GetNumComponents() / height;
  }

  void Describe(int n, const Result& result) {
    const auto count = static_cast<std::size_t>(n);
    frame_.buffers.assign(count, nullptr);
    frame_.memory.resize(count);
    for (int c = 0; c < n; ++c) {
      const int bits = BitsOf(c, result);
      bits_.push_back(bits);
      frame_.in.push_back(8);
      frame_.out.push_back(bits);
      frame_.isSigned.push_back(0);
      frame_.most.push_back(static_cast<double>((std::int64_t{1} << bits) - 1));
      frame_.least.push_back(0);
      auto [width, height] = SizeOf(c);
      if (IsTurned()) std::swap(width, height);
      const std::int64_t stride = (width * ((bits + 7) / 8) + 15) / 16 * 16;
      frame_.strides.push_back(static_cast<KelLong>(stride));
      if (!job_.useHostBuffers || IsTooLarge(width, height)) continue;
      auto& memory = frame_.memory[static_cast<std::size_t>(c)];
      memory.assign(static_cast<std::size_t>(stride * std::max<std::int64_t>(height, 1)) + 48,
                    0xEE);
      const auto address = reinterpret_cast<std::uintptr_t>(memory.data());
      frame_.buffers[static_cast<std::size_t>(c)] =
          memory.data() + (16 - address % 16) % 16 + job_.misalign;
    }
    frame_.data.NumChannels = n;
    frame_.data.OutBuffers = frame_.buffers.data();
    frame_.data.OutStrides = frame_.strides.data();
    frame_.data.InBitDepths = frame_.in.data();
    frame_.data.OutBitDepths = frame_.out.data();
    frame_.data.OutSigned = frame_.isSigned.data();
    frame_.data.OutMax = frame_.most.data();
    frame_.data.OutMin = frame_.least.data();
  }

  Plane Gather(int c, int) const {
    auto [width, height] = SizeOf(c);
    Plane plane{width, height,
                std::vector<std::int64_t>(static_cast<std::size_t>(width * height), -1)};
    if (IsTurned() && !job_.skipRecast) std::swap(plane.width, plane.height);
    const KelImageGeometry& g = *image_.GetGeometryParams();
    const int k = reduction_[static_cast<std::size_t>(c)];
    const auto edge = [&](std::int64_t v, std::int64_t sub) {
      return CeilTo((v + sub - 1) / sub, k);
    };
    const std::int64_t ox = edge(g.XOsiz, g.XRsiz[c]), oy = edge(g.YOsiz, g.YRsiz[c]);
    for (KelLong t = 0; t < image_.GetNumTiles(); ++t) {
      KelTileComponent* component = image_.GetTileComponent(t, c);
      if (component == nullptr || !component->TileCompDataIsValid()) continue;
      const KelTileGeometry& box = *component->GetTileGeometryParams();
      const std::int64_t x0 = CeilTo(box.X0, k) - ox, x1 = CeilTo(box.X1, k) - ox;
      const std::int64_t y0 = CeilTo(box.Y0, k) - oy, y1 = CeilTo(box.Y1, k) - oy;
      const KelImageData& image = *component->GetOutputImage();
      const int bits = bits_[static_cast<std::size_t>(c)];
      // Raw samples are never rotated, and a tile of fewer levels has no place in a smaller image.
      const bool isTurned = IsTurned() && !job_.skipRecast;
      const std::int64_t across = isTurned ? y1 - y0 : x1 - x0;
      const std::int64_t down = isTurned ? x1 - x0 : y1 - y0;
      if (across > image.Width || down > image.Height) continue;
      const std::int64_t rowBytes = image.SizeOfDataType == 4
                                        ? std::int64_t{image.Width} * 4
                                        : (std::int64_t{image.Width} * bits + 7) / 8;
      const auto* bytes =
          static_cast<const std::uint8_t*>(KelGetMemObj()->LockBuf(image.GetImageBuffer()));
      for (std::int64_t y = y0; y < y1; ++y) {
        for (std::int64_t x = x0; x < x1; ++x) {
          std::int64_t column = x - x0, row = y - y0, px = x, py = y;
          const std::int64_t w = x1 - x0, h = y1 - y0;
          switch (job_.skipRecast ? KelOrientation0 : job_.orientation) {
            case KelOrientation90:
              std::tie(column, row, px, py) = std::tuple(h - 1 - row, column, height - 1 - y, x);
              break;
            case KelOrientation180:
              std::tie(column, row, px, py) =
                  std::tuple(w - 1 - column, h - 1 - row, width - 1 - x, height - 1 - y);
              break;
            case KelOrientation270:
              std::tie(column, row, px, py) = std::tuple(row, w - 1 - column, y, width - 1 - x);
              break;
            default:
              break;
          }
          plane.samples[static_cast<std::size_t>(py * plane.width + px)] =
              SampleAt(bytes + row * rowBytes, column, image, bits);
        }
      }
      KelGetMemObj()->UnlockBuf(image.GetImageBuffer());
    }
    return plane;
  }

  Plane FromHostBuffer(int c) const {
    const auto k = static_cast<std::size_t>(c);
    auto [width, height] = SizeOf(c);
    if (IsTurned()) std::swap(width, height);
    Plane plane{width, height, {}};
    const auto* bytes = static_cast<const std::uint8_t*>(frame_.buffers[k]);
    for (std::int64_t y = 0; y < height; ++y, bytes += frame_.strides[k]) {
      for (std::int64_t x = 0; x < width; ++x) {
        std::uint16_t word = 0;
        if (bits_[k] == 16) std::memcpy(&word, bytes + 2 * x, 2);
        plane.samples.push_back(bits_[k] == 16 ? word : bytes[x]);
      }
    }
    return plane;
  }

  const Bytes& data_;
  const DecodeJob& job_;
  HostStream stream_;
  KelCompressedData block_{};
  KelDecOpt options_;
  KelImage image_;
  Frame frame_;
  std::vector<int> reduction_, bits_;
};

}  // namespace

Decoded Decode(const Bytes& data, const DecodeJob& job) {
  return Host(data, job).Run();
}

}  // namespace test
