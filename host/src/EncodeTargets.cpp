// The search for a size or an error. A few strips of a large picture, coded at some qualities, give
// the shape of its curve; then the whole picture is coded, mostly two or three times.
#include "EncodeTargets.hpp"

#include <algorithm>
#include <cmath>
#include <mutex>

#include "QualitySearch.hpp"
#include "kel/host/convert.hpp"
#include "kel/host/decode.hpp"

namespace kel::host {
namespace {

/// A share of this size is aimed at below a limit of bytes; anything from 1 % below it to the limit
/// will do.
constexpr double kAimBelowLimit = 0.005, kMostBelowLimit = 0.01;
/// Decibels by which a result may miss.
constexpr double kMostDecibelsOff = 0.08;

/// Rows of a strip, and of the picture to a strip.
constexpr std::uint32_t kStripRows = 128, kRowsPerStrip = 1024;

/// A file as its parts.
struct CodedImage {
  Bytes headers;
  std::vector<Bytes> tiles;

  std::uint64_t TileBytes() const {
    std::uint64_t bytes = 0;
    for (const Bytes& tile : tiles) bytes += tile.size();
    return bytes;
  }
  std::uint64_t NumBytes() const { return headers.size() + TileBytes(); }
  void WriteTo(Sink& sink) const {
    sink.Write(headers);
    for (const Bytes& tile : tiles) sink.Write(tile);
  }
};

CodedImage Code(const Image& given, const EncodeParams& params, double quality) {
  const Image halved = params.halfChroma ? WithHalfChroma(given) : Image();
  const Image& image = params.halfChroma ? halved : given;
  PlaneSamples samples(image);
  std::vector<std::unique_ptr<TileEncoder>> encoders(params.threads);
  encoders[0] = std::make_unique<TileEncoder>(image, samples, params, quality);
  CodedImage coded = {encoders[0]->Headers(), std::vector<Bytes>(encoders[0]->NumTiles())};
  std::mutex mutex;
  std::size_t numDone = 0;
  ForEachIndex(coded.tiles.size(), params.threads, [&](unsigned worker, std::size_t tile) {
    std::unique_ptr<TileEncoder>& encoder = encoders[worker];
    if (!encoder) encoder = std::make_unique<TileEncoder>(image, samples, params, quality);
    const ByteView bytes = encoder->EncodeTile(tile);
    coded.tiles[tile].assign(bytes.begin(), bytes.end());
    if (!params.progress) return;
    const std::lock_guard lock(mutex);
    params.progress(++numDone, coded.tiles.size());
  });
  return coded;
}

/// Strips of a picture below each other, without what stands beside the samples; nothing of one
/// that is not large, or whose samples are not of one grid. Smaller pieces than strips would have
/// more edges than the picture.
Image StripsOf(const Image& image) {
  const std::uint32_t numStrips = std::max(image.height / kRowsPerStrip, 1U);
  Image strips;
  if (image.height < 3 * kStripRows) return strips;
  for (const Plane& plane : image.planes) {
    if (kStripRows % plane.yStep != 0) return strips;
  }
  strips.width = image.width;
  strips.height = numStrips * kStripRows;
  strips.palette = image.palette;
  for (const Plane& plane : image.planes) {
    const std::uint32_t rows = kStripRows / plane.yStep;
    Plane& to = strips.planes.emplace_back(plane.Width(), numStrips * rows, plane.Depth());
    to.role = plane.role;
    to.colour = plane.colour;
    to.xStep = plane.xStep;
    to.yStep = plane.yStep;
    for (std::uint32_t i = 0; i < numStrips; ++i) {
      const std::uint64_t middle = std::uint64_t{2 * i + 1} * image.height / (2 * numStrips);
      const auto first = static_cast<std::uint32_t>((middle - kStripRows / 2) / kStripRows) * rows;
      for (std::uint32_t y = 0; y < rows; ++y) {
        std::copy_n(plane.Row<std::uint8_t>(first + y), plane.StrideBytes(),
                    to.Row<std::uint8_t>(i * rows + y));
      }
    }
  }
  return strips;
}

/// The parameters for strips.
EncodeParams ParamsForStrips(const EncodeParams& params, const Image& strips) {
  EncodeParams its = params;
  its.tileHeight = std::min(params.tileHeight, strips.height);
  its.progress = {};
  return its;
}

/// Qualities go by whole numbers where steps are those of plain coding, and else below the least
/// one that there is a number for.
QualityTarget TargetFor(const EncodeParams& params, double value) {
  constexpr double kLeast = 1, kLeastFractional = -40, kMost = 100;
  const bool isFractional = !params.plain && params.regionMask == nullptr;
  return {.value = value,
          .below = 0,
          .above = 0,
          .least = isFractional ? kLeastFractional : kLeast,
          .most = kMost,
          .isFractional = isFractional};
}

EncodeParams Lossless(const EncodeParams& params) {
  EncodeParams lossless = params;
  lossless.lossless = true;
  lossless.halfChroma = false;
  lossless.colourTransform = params.colourTransform || params.halfChroma;
  return lossless;
}

/// As reports give qualities.
int Rounded(double quality) {
  return std::max(static_cast<int>(std::lround(quality)), 1);
}

class SizeTarget {
 public:
  SizeTarget(const Image& image, const EncodeParams& params) : image_(image), params_(params) {}

  EncodeReport Encode(Sink& sink) {
    if (!FitsWithoutLoss()) Search();
    if (best_.tiles.empty()) {
      throw Error(Failure::kOutput, "the image cannot be made that small: it takes " +
                                        std::to_string(smallest_) + " bytes at least");
    }
    best_.WriteTo(sink);
    report_.bytes = best_.NumBytes();
    return report_;
  }

 private:
  /// Measures strips, and tells whether coding without loss is worth trying.
  bool FitsWithoutLoss() {
    report_.trials = 0;
    if (params_.regionMask != nullptr) return false;
    strips_ = StripsOf(image_);
    if (!strips_.planes.empty()) {
      share_ = static_cast<double>(strips_.height) / image_.height;
      const EncodeParams its = Lossless(ParamsForStrips(params_, strips_));
      const auto bytes = static_cast<double>(Code(strips_, its, its.quality).TileBytes());
      constexpr double kNoHope = 1.3;  // as far as strips may be off
      if (bytes / share_ > kNoHope * static_cast<double>(params_.sizeLimit)) return false;
    }
    return Fits(Lossless(params_), 0);
  }

  bool Fits(const EncodeParams& params, double quality) {
    CodedImage coded = Code(image_, params, quality);
    ++report_.trials;
    tileBytes_ = coded.TileBytes();
    smallest_ = std::min(smallest_, coded.NumBytes());
    if (coded.NumBytes() > params.sizeLimit) return false;
    if (coded.NumBytes() > best_.NumBytes()) {
      best_ = std::move(coded);
      report_.quality = params.lossless ? 0 : Rounded(quality);
    }
    return true;
  }

  void Search() {
    const auto limit = static_cast<double>(params_.sizeLimit);
    const double pixels = static_cast<double>(image_.width) * image_.height;
    // A photo takes a bit per pixel at 30, and 3.5 % more for each number.
    RisingCurve curve(30, std::log(pixels / 8), 0.035);
    const double headers = static_cast<double>(
        TileEncoder(image_, samples_, params_, params_.quality).Headers().size());
    const double most = std::max(limit - headers, 1.0);
    QualityTarget target =
        TargetFor(params_, std::log(std::max(most - kAimBelowLimit * limit, 1.0)));
    target.below = target.value - std::log(std::max(most - kMostBelowLimit * limit, 1.0));
    target.above = std::log(most) - target.value;
    Measure estimate;
    if (!strips_.planes.empty()) {
      const EncodeParams its = ParamsForStrips(params_, strips_);
      estimate = [this, its](double quality) {
        const auto bytes = static_cast<double>(Code(strips_, its, quality).TileBytes());
        return std::log(bytes / share_);
      };
    }
    SearchQuality(target, curve, estimate, [&](double quality) {
      Fits(params_, quality);
      return std::log(static_cast<double>(tileBytes_));
    });
  }

  const Image& image_;
  const EncodeParams& params_;
  PlaneSamples samples_{image_};
  Image strips_;
  double share_ = 1;
  CodedImage best_;
  std::uint64_t tileBytes_ = 0, smallest_ = UINT64_MAX;
  EncodeReport report_;
};

/// The ratio over the samples of all colours, which come first.
double PsnrOfColours(const Image& image, const Image& decoded) {
  const Difference difference = Compare(image, decoded);
  double relativeSum = 0, samples = 0;
  for (unsigned c = 0; c < NumColours(image); ++c) {
    const Plane& plane = image.planes[c];
    const double count = static_cast<double>(plane.Width()) * plane.Height();
    relativeSum += count * std::pow(10, -difference.planes[c].psnr / 10);
    samples += count;
  }
  constexpr double kLeastSum = 1e-20;  // of images that are alike
  return -10 * std::log10(std::max(relativeSum / samples, kLeastSum));
}

double MeasurePsnr(const Image& image, const CodedImage& coded, const EncodeParams& params) {
  MemorySink file;
  coded.WriteTo(file);
  MemorySource source(file.bytes);
  DecodeParams decoding;
  decoding.threads = params.threads;
  Image decoded = Decode(source, decoding);
  if (params.halfChroma) MakeOrdinary(decoded);
  return PsnrOfColours(image, decoded);
}

EncodeReport EncodeToPsnr(const Image& image, const EncodeParams& params, Sink& sink) {
  EncodeReport report;
  report.trials = 0;
  QualityTarget target = TargetFor(params, params.psnr);
  target.below = target.above = kMostDecibelsOff;
  RisingCurve curve(20, 33, 0.23);
  const Image strips = params.regionMask == nullptr ? StripsOf(image) : Image();
  Measure estimate;
  if (!strips.planes.empty()) {
    estimate = [&strips, its = ParamsForStrips(params, strips)](double quality) {
      return MeasurePsnr(strips, Code(strips, its, quality), its);
    };
  }
  CodedImage best;
  const auto distance = [&](double psnr) { return std::abs(psnr - target.value); };
  SearchQuality(target, curve, estimate, [&](double quality) {
    CodedImage coded = Code(image, params, quality);
    const double psnr = MeasurePsnr(image, coded, params);
    if (report.trials++ == 0 || distance(psnr) < distance(report.psnr)) {
      best = std::move(coded);
      report.psnr = psnr;
      report.quality = Rounded(quality);
    }
    return psnr;
  });
  if (report.psnr < target.value - kMostDecibelsOff && report.quality == 100) {
    best = Code(image, Lossless(params), 0);
    ++report.trials;
    report.quality = 0;
    report.psnr = HUGE_VAL;
  }
  best.WriteTo(sink);
  report.bytes = best.NumBytes();
  return report;
}

}  // namespace

EncodeReport EncodeToTarget(const Image& image, const EncodeParams& params, Sink& sink) {
  if (params.psnr != 0) return EncodeToPsnr(image, params, sink);
  return SizeTarget(image, params).Encode(sink);
}

}  // namespace kel::host
