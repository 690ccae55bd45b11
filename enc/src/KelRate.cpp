// The formulas of rate control, and the table of quality factors.
#include "KelRate.h"

#include <algorithm>
#include <cmath>

#include "base/KelInt.h"
#include "kel/KelFormat.h"

namespace kel {
namespace {

/// By quality number: how many times larger a byte target is than the data that the quality
/// yields. Measured, part of the format's rate control; the shares are fixed numbers.
constexpr float kQualityFactors[101] = {
    1.092023F,  1.092023F,  1.06029F,   1.0492299F, 1.0451365F, 1.041082F,  1.0378377F, 1.0356867F,
    1.0338826F, 1.0323474F, 1.0308495F, 1.0297831F, 1.0283533F, 1.0273108F, 1.0264156F, 1.0258902F,
    1.0252802F, 1.0244455F, 1.0235577F, 1.0229266F, 1.0222998F, 1.0216801F, 1.0212301F, 1.0207107F,
    1.0202606F, 1.0198921F, 1.0194722F, 1.0190228F, 1.0184733F, 1.0180571F, 1.0176594F, 1.0173074F,
    1.0170021F, 1.0167112F, 1.0164552F, 1.0161632F, 1.0158685F, 1.0155991F, 1.015363F,  1.0151383F,
    1.0149654F, 1.0147722F, 1.0145928F, 1.0143955F, 1.0141522F, 1.0139393F, 1.0137223F, 1.0135404F,
    1.0133793F, 1.01321F,   1.0129917F, 1.0128212F, 1.0126673F, 1.0125452F, 1.0124444F, 1.0122893F,
    1.0121466F, 1.0120207F, 1.0119002F, 1.0117563F, 1.011601F,  1.0114545F, 1.0113301F, 1.011199F,
    1.0110465F, 1.0097556F, 1.0096424F, 1.0095286F, 1.0094423F, 1.0093213F, 1.009237F,  1.0091358F,
    1.0090555F, 1.0089455F, 1.0088655F, 1.0087638F, 1.0086833F, 1.008591F,  1.0085021F, 1.0084112F,
    1.0083525F, 1.0082794F, 1.0082173F, 1.0081264F, 1.0080587F, 1.007975F,  1.0079024F, 1.0078417F,
    1.0077888F, 1.0077232F, 1.0076426F, 1.0075843F, 1.0075158F, 1.0074528F, 1.0073951F, 1.0073394F,
    1.0072918F, 1.0072268F, 1.007182F,  1.0071201F, 1.0070634F};

constexpr std::int64_t kMost = INT32_MAX;
/// Given: what the formulas take for the main header and the end marker.
constexpr std::int64_t kFixedHeader = 167;
/// Given, a single-precision number: how much longer than the samples the packets can become.
constexpr double kMostGrowth = 1.070633888244629;

/// The largest value that formulas pass on: far above every meaningful size, far below overflow.
constexpr double kLimit = 4.0e18;

std::int64_t FromFloat(float v) {
  if (!(v > 0.0F)) return 0;
  return static_cast<double>(v) >= kLimit ? static_cast<std::int64_t>(kLimit)
                                          : static_cast<std::int64_t>(v);
}

/// Roundings of a value taken as a single-precision number; negative values count as 0.
std::int64_t CeilSingle(double v) {
  return FromFloat(std::ceil(static_cast<float>(v)));
}
std::int64_t RoundSingle(double v) {
  return FromFloat(std::nearbyint(static_cast<float>(v)));
}

/// The least size of the data: 15 bytes per tile, 64 Ki samples of it, byte of depth and three
/// components, or one hundredth of the raw size, and not more than the raw size.
std::int64_t LeastData(const RateInputs& in) {
  const double samples = static_cast<double>(in.tileWidth) * static_cast<double>(in.tileHeight);
  const double perTile = 15.0 * static_cast<double>(CeilSingle(samples / 65536.0)) *
                         static_cast<double>(CeilSingle(in.bitDepth / 8.0)) *
                         static_cast<double>(CeilSingle((in.numRated + 1.0) / 3.0));
  const double m1 = std::min(static_cast<double>(in.numTiles) * perTile, kLimit);
  const std::int64_t m2 = CeilSingle(static_cast<double>(in.rawSize) / 100.0);
  return std::min(std::max(static_cast<std::int64_t>(m1), m2), in.rawSize);
}

KelLong Limited(std::int64_t bytes) {
  return static_cast<KelLong>(std::clamp<std::int64_t>(bytes, 0, kMost));
}

/// Headers, data and the channels apart, all limited so that sums stay in range.
std::int64_t WithHeaders(const RateInputs& in, std::int64_t data) {
  return std::min(std::int64_t{format::kLeastTilePartBytes} * in.numTiles, kMost) + kFixedHeader +
         std::min(data, kMost) + in.apartSize;
}

}  // namespace

KelLong MinCodeStreamLength(const RateInputs& in) {
  return Limited(WithHeaders(in, LeastData(in)));
}

KelLong MaxCodeStreamLength(const RateInputs& in) {
  const std::int64_t data = RoundSingle(static_cast<double>(in.rawSize) * kMostGrowth);
  const std::int64_t length = std::max<std::int64_t>(WithHeaders(in, data), 0);
  const std::int64_t whole = CeilSingle(static_cast<double>(length) / 1024.0) * 1024;
  return static_cast<KelLong>(std::min(whole, kMost / 1024 * 1024));
}

KelLong SizeForQuality(const RateInputs& in, std::int32_t quality) {
  const std::int64_t share = RoundSingle(quality / 100.0 * static_cast<double>(in.rawSize));
  return Limited(std::clamp(share, LeastData(in), in.rawSize));
}

QualityChoice ChooseQuality(const RateInputs& in, std::int64_t targetBytes) {
  if (in.rawSize <= 0) return {0, 1};
  const double raw = static_cast<double>(in.rawSize);
  const double target = static_cast<double>(std::max<std::int64_t>(targetBytes, 0));
  const std::int64_t index =
      std::clamp<std::int64_t>(RoundSingle(target * 100.0 / raw + 0.5) - 1, 1, 100);
  // A tenth more than the table says, which is given like the table.
  const double factor = static_cast<double>(kQualityFactors[index]);
  std::int64_t effective = RoundSingle(target / (factor + 0.1 * (factor - 1.0)));
  if (effective > in.rawSize) effective = RoundSingle(raw / 1.1);
  const std::int64_t quality = RoundSingle(static_cast<double>(effective) * 100.0 / raw + 0.5);
  return {Limited(effective), static_cast<std::int32_t>(std::clamp<std::int64_t>(quality, 1, 100))};
}

std::int32_t QualityNumber(float quality) {
  return std::clamp(RoundToInt32(static_cast<double>(quality)), 1, 100);
}

}  // namespace kel
