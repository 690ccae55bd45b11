// Recasting in three steps over short pieces of samples: samples to levels (offset added,
// limited), levels to values (scaled into the target range), values to bytes, words or packed
// bits. The vector kernels do the steps in 32-bit integers; where a depth or a measured range
// does not fit these, a plain 64-bit loop stands in for the first two.
#include "samples/KelRecast.h"

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "base/KelRaise.h"
#include "kernels/KelKernels.h"
#include "samples/KelImageDataAccess.h"
#include "samples/KelPackedSamples.h"
#include "samples/KelResample.h"

namespace kel {
namespace {

/// Samples of a piece: a multiple of 8, so that packed pieces end at whole bytes.
constexpr std::size_t kPiece = 1024;

/// How samples become values:
/// level = clamp(nearest(s) + offset, lowest, highest) - base, then the scale, or v = level.
struct RecastPlan {
  std::int64_t offset, lowest, highest, base;
  bool scaled;
  LevelScale scale;
  int numBits, shift;  ///< of the output; words are shifted left at the end
};

struct Limits {
  std::int64_t lowest, highest;
};

/// The target range, as far as a sample of the output can hold it.
Limits ValueLimits(const RecastTarget& target, Limits storage) {
  const auto [low, high] = std::minmax(target.outMin, target.outMax);
  return {std::clamp<std::int64_t>(low, storage.lowest, storage.highest),
          std::clamp<std::int64_t>(high, storage.lowest, storage.highest)};
}

std::int64_t OffsetOf(const RecastTarget& target) {
  return std::int64_t{1} << (target.bitDepth - 1);
}

/// 2^B - 1, the nominal maximum.
std::int64_t MaximumOf(const RecastTarget& target) {
  return 2 * OffsetOf(target) - 1;
}

/// A plan that maps levels from the nominal range. The scale lacks multiplier and divisor.
RecastPlan NominalPlan(const RecastTarget& target, int numBits, Limits storage) {
  const Limits limits = ValueLimits(target, storage);
  RecastPlan plan{};
  plan.offset = OffsetOf(target);
  plan.highest = MaximumOf(target);
  plan.scaled = true;
  plan.scale = {1.0F, 1.0F, static_cast<float>(target.outMin),
                static_cast<std::int32_t>(limits.lowest),
                static_cast<std::int32_t>(limits.highest)};
  plan.numBits = numBits;
  return plan;
}

float SpanOf(const RecastTarget& target) {
  return static_cast<float>(std::int64_t{target.outMax} - target.outMin);
}

/// v = nearest(q * factor + outMin) with factor = (outMax - outMin) * (1 / M).
RecastPlan BytePlan(const RecastTarget& target) {
  RecastPlan plan = NominalPlan(target, 8, {0, 255});
  plan.scale.multiplier = SpanOf(target) * (1.0F / static_cast<float>(MaximumOf(target)));
  return plan;
}

/// v = nearest(q * (outMax - outMin) / M + outMin). Negative values are stored in two's
/// complement, so the output holds both signed and unsigned numbers of its bits.
RecastPlan GeneralPlan(const RecastTarget& target) {
  const std::int64_t half = std::int64_t{1} << (target.numBits - 1);
  const std::int64_t most = std::min<std::int64_t>(2 * half - 1, INT32_MAX);
  RecastPlan plan = NominalPlan(target, target.numBits, {-half, most});
  plan.scale.multiplier = SpanOf(target);
  plan.scale.divisor = static_cast<float>(plan.highest);
  // Below 2^22 two roundings cannot move q M / M as far as half a unit away from q.
  constexpr std::int64_t kExact = std::int64_t{1} << 22;
  plan.scaled = target.outMin != 0 || target.outMax != plan.highest || plan.highest >= kExact ||
                plan.highest > plan.scale.highest;
  return plan;
}

std::int64_t NearestOf(std::int32_t sample) {
  return sample;
}

/// NaN counts as 0; what is beyond every depth is limited.
std::int64_t NearestOf(float sample) {
  if (sample != sample) return 0;
  return static_cast<std::int64_t>(std::nearbyint(std::clamp(sample, -0x1p60F, 0x1p60F)));
}

/// The source range that a method maps, from the samples' own range where it says so.
Limits SourceRange(const RecastTarget& target, const SampleRange& data) {
  const std::int64_t offset = OffsetOf(target);
  const Limits nominal = {0, MaximumOf(target)};
  const Limits measured = {NearestOf(data.minimum) + offset, NearestOf(data.maximum) + offset};
  switch (target.method) {
    case KelRecastData:
      return measured;
    case KelRecastDataMax:
      return {nominal.lowest, measured.highest};
    case KelRecastDataMin:
      return {measured.lowest, nominal.highest};
    default:
      return nominal;
  }
}

/// Words: below 16 bits of depth the target range ends at M and values are shifted left by what
/// is missing. The full range [0, M] takes levels as they are. Otherwise
/// v = nearest((q - lo) * factor + outMin), factor = (outMax - outMin) / (hi - lo), or 0 for an
/// empty source range. Levels outside [lo, hi], which the methods clamp only in part, would end
/// up outside the target range and be limited to its ends, so they are limited here.
RecastPlan WordPlan(RecastTarget target, KelImageData& image, const void* samples) {
  const std::int64_t maximum = MaximumOf(target);
  const int shift = std::max(16 - target.bitDepth, 0);
  if (shift > 0 && target.outMax > maximum) target.outMax = static_cast<KelLong>(maximum);
  RecastPlan plan = NominalPlan(target, 16, {0, 65535 >> shift});
  plan.shift = shift;
  if (target.outMin == 0 && target.outMax == maximum) {
    plan.highest = plan.scale.highest;
    plan.scaled = false;
    return plan;
  }
  const bool nominal = target.method == KelRecastNominal;
  const SampleRange data = nominal ? SampleRange{} : RangeOfSamples(image, samples);
  const Limits range = SourceRange(target, data);
  plan.lowest = plan.base = range.lowest;
  plan.highest = std::max(range.lowest, range.highest);
  const bool empty = range.highest <= range.lowest;
  plan.scale.multiplier =
      empty ? 0.0F : SpanOf(target) / static_cast<float>(range.highest - range.lowest);
  return plan;
}

bool FitsInt32(std::int64_t v) {
  return v == SaturateToInt32(v);
}

/// Whether the kernels can form the plan's levels: limits on the sample itself, and levels, which
/// begin at 0, in 32 bits. What is added in between may wrap around.
bool IsNarrow(const RecastPlan& plan) {
  return FitsInt32(plan.lowest - plan.offset) && FitsInt32(plan.highest - plan.offset) &&
         FitsInt32(plan.highest - plan.base);
}

/// The whole way from a sample to a value, in 64-bit integers: what the kernels do piece by piece.
template <class Cell>
std::int32_t WideValue(const RecastPlan& plan, Cell sample) {
  const std::int64_t shifted = NearestOf(sample) + plan.offset;
  const std::int64_t level = std::clamp(shifted, plan.lowest, plan.highest) - plan.base;
  const LevelScale& scale = plan.scale;
  if (!plan.scaled) return static_cast<std::int32_t>(level);
  const float value = static_cast<float>(level) * scale.multiplier / scale.divisor + scale.addend;
  return std::clamp(RoundToInt32(double{value}), scale.lowest, scale.highest);
}

template <class Cell>
void ValuesOf(const RecastPlan& plan, const Cell* in, std::int32_t* values, std::size_t count) {
  if (!IsNarrow(plan)) {
    for (std::size_t i = 0; i < count; ++i) values[i] = WideValue(plan, in[i]);
    return;
  }
  const SamplesKernels& kernels = Kernels().samples;
  const auto lowest = static_cast<std::int32_t>(plan.lowest - plan.offset);
  const auto highest = static_cast<std::int32_t>(plan.highest - plan.offset);
  const auto addend =
      static_cast<std::int32_t>(static_cast<std::uint32_t>(plan.offset - plan.base));
  if constexpr (std::is_same_v<Cell, float>) {
    kernels.floatsToLevels(in, values, count, lowest, highest, addend);
  } else {
    kernels.intsToLevels(in, values, count, lowest, highest, addend);
  }
  if (plan.scaled) kernels.scaleLevels(values, count, plan.scale);
}

/// Recasts at most kPiece samples to an address at which a sample of the output may begin.
template <class Cell>
void RecastPiece(const RecastPlan& plan, const Cell* in, std::size_t count, std::uint8_t* out) {
  std::int32_t values[kPiece];
  ValuesOf(plan, in, values, count);
  if (plan.numBits == 8) {
    Kernels().samples.levelsToBytes(values, out, count);
  } else if (plan.numBits == 16) {
    void* words = out;
    Kernels().samples.levelsToWords(values, static_cast<std::uint16_t*>(words), count, plan.shift);
  } else {
    PackSamples(values, count, plan.numBits, out);
  }
}

/// A plane of samples without gaps between rows.
template <class Cell>
struct Plane {
  const Cell* cells;
  std::uint64_t width, height;
};

template <class Cell>
void RecastRow(const RecastPlan& plan, const Cell* in, std::uint64_t count, std::uint8_t* out) {
  for (std::uint64_t x = 0; x < count; x += kPiece) {
    const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, count - x));
    RecastPiece(plan, in + x, piece, out + x * static_cast<unsigned>(plan.numBits) / 8);
  }
}

template <class Cell>
void RecastRows(const RecastPlan& plan, const Plane<Cell>& in, std::uint8_t* out) {
  if (plan.numBits == 8 || plan.numBits == 16) {
    RecastRow(plan, in.cells, in.width * in.height, out);
    return;
  }
  const auto rowBytes = PackedRowBytes(static_cast<std::int64_t>(in.width), plan.numBits);
  for (std::uint64_t y = 0; y < in.height; ++y) {
    RecastRow(plan, in.cells + y * in.width, in.width, out + y * rowBytes);
  }
}

/// Half a turn: every row backwards, the last one first.
template <class Cell>
void RecastHalfTurn(const RecastPlan& plan, const Plane<Cell>& in, std::uint8_t* out) {
  Cell backwards[kPiece];
  const auto rowBytes = PackedRowBytes(static_cast<std::int64_t>(in.width), plan.numBits);
  for (std::uint64_t y = 0; y < in.height; ++y) {
    const Cell* rowEnd = in.cells + (in.height - y) * in.width;
    for (std::uint64_t x = 0; x < in.width; x += kPiece) {
      const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, in.width - x));
      std::reverse_copy(rowEnd - x - piece, rowEnd - x, backwards);
      RecastPiece(plan, backwards, piece,
                  out + y * rowBytes + x * static_cast<unsigned>(plan.numBits) / 8);
    }
  }
}

/// A quarter turn. Output row x, column j takes source row H - 1 - j, column x for 90 degrees and
/// source row j, column W - 1 - x for 270. Output rows advance 32 at a time, so that every
/// cache line of the source is read once.
template <class Cell>
void RecastQuarterTurn(const RecastPlan& plan, const Plane<Cell>& in, bool clockwise,
                       std::uint8_t* out) {
  constexpr std::size_t kRows = 32, kColumns = 128;
  Cell block[kRows][kColumns];
  const std::uint64_t newWidth = in.height;
  const auto rowBytes = PackedRowBytes(static_cast<std::int64_t>(newWidth), plan.numBits);
  for (std::uint64_t x = 0; x < in.width; x += kRows) {
    const auto rows = static_cast<std::size_t>(std::min<std::uint64_t>(kRows, in.width - x));
    for (std::uint64_t j = 0; j < newWidth; j += kColumns) {
      const auto columns =
          static_cast<std::size_t>(std::min<std::uint64_t>(kColumns, newWidth - j));
      for (std::size_t k = 0; k < columns; ++k) {
        const std::uint64_t sourceRow = clockwise ? in.height - 1 - (j + k) : j + k;
        const Cell* source = in.cells + sourceRow * in.width;
        for (std::size_t i = 0; i < rows; ++i) {
          block[i][k] = source[clockwise ? x + i : in.width - 1 - (x + i)];
        }
      }
      for (std::size_t i = 0; i < rows; ++i) {
        RecastPiece(plan, block[i], columns,
                    out + (x + i) * rowBytes + j * static_cast<unsigned>(plan.numBits) / 8);
      }
    }
  }
}

/// Whether a container holds what can be recast: 32-bit samples, or none at all but a buffer.
bool IsRecastable(const KelImageData& image, const RecastTarget& target) {
  const KelLong type = image.ImageBufferType;
  return image.ImageBuffer != nullptr && image.SizeOfDataType == 4 &&
         (type == kIntegerSamples || type == kFloatSamples) && target.bitDepth >= 1 &&
         target.bitDepth <= 38 && target.numBits >= 1 && target.numBits <= 32;
}

/// Replaces the samples by what convert(plane of integers or floats, output) makes of them, rows
/// packed into whole bytes. An empty image gets an empty buffer. Raises 8 with the container
/// unchanged.
template <class Convert>
void Replace(KelImageData& image, KelLong numBits, bool turned, Convert convert) {
  const std::uint64_t width = AsCount(image.Width), height = AsCount(image.Height);
  const KelLong newWidth = turned ? image.Height : image.Width;
  const KelLong newHeight = turned ? image.Width : image.Height;
  OwnedBuffer recast;
  {
    const BufferLock source(image.ImageBuffer);
    const bool empty = width == 0 || height == 0;
    if (!source && !empty) Raise(KelErrNoMemory, kModuleImageMap);
    const std::uint64_t rowBytes = PackedRowBytes(newWidth, numBits);
    recast = OwnedBuffer::Make(SaturatingMul(rowBytes, AsCount(newHeight)));
    const BufferLock made(recast.Get());
    if (!made && !empty) Raise(KelErrNoMemory, kModuleImageMap);
    auto* out = made.As<std::uint8_t>();
    if (!empty && image.ImageBufferType == kFloatSamples) {
      convert(Plane<float>{source.As<float>(), width, height}, out);
    } else if (!empty) {
      convert(Plane<std::int32_t>{source.As<std::int32_t>(), width, height}, out);
    }
  }
  InstallSamples(image, std::move(recast), newWidth, newHeight, numBits / 8, kIntegerSamples);
}

/// The shift of 8-bit samples to bytes, which needs no scale.
void ShiftToBytes(const Plane<float>& in, std::uint8_t* out) {
  Kernels().samples.floatTo8Bit(in.cells, out, static_cast<std::size_t>(in.width * in.height));
}
void ShiftToBytes(const Plane<std::int32_t>& in, std::uint8_t* out) {
  Kernels().samples.intTo8Bit(in.cells, out, static_cast<std::size_t>(in.width * in.height));
}

}  // namespace

void RecastToBytes(KelImageData& image, const RecastTarget& target) {
  if (image.ImageBuffer == nullptr) ForgetDynRange(image);
  if (!IsRecastable(image, target)) return;
  Replace(image, 8, false, [&](const auto& in, std::uint8_t* out) {
    if (target.method == KelRecastNominal && target.bitDepth == 8) {
      ShiftToBytes(in, out);
    } else {
      RecastRows(BytePlan(target), in, out);
    }
  });
}

void RecastToWords(KelImageData& image, const RecastTarget& target) {
  if (!IsRecastable(image, target)) return;
  Replace(image, 16, false, [&](const auto& in, std::uint8_t* out) {
    RecastRows(WordPlan(target, image, in.cells), in, out);
  });
}

void RecastAndRotate(KelImageData& image, const RecastTarget& target,
                     KelImageOrientation orientation) {
  if (!IsRecastable(image, target)) return;
  const bool turned = orientation == KelOrientation90 || orientation == KelOrientation270;
  const RecastPlan plan = GeneralPlan(target);
  Replace(image, target.numBits, turned, [&](const auto& in, std::uint8_t* out) {
    if (orientation == KelOrientation0) {
      RecastRows(plan, in, out);
    } else if (orientation == KelOrientation180) {
      RecastHalfTurn(plan, in, out);
    } else if (turned) {
      RecastQuarterTurn(plan, in, orientation == KelOrientation90, out);
    } else {
      const auto rowBytes = PackedRowBytes(image.Width, target.numBits);
      KelMemSet(out, 0, SaturatingMul(rowBytes, in.height));
    }
  });
}

void Recast(KelImageData& image, const RecastTarget& target, bool signedOutput,
            KelImageOrientation orientation) {
  if (orientation == KelOrientation0 && !signedOutput) {
    if (target.numBits == 8) return RecastToBytes(image, target);
    if (target.numBits == 16) return RecastToWords(image, target);
  }
  RecastAndRotate(image, target, orientation);
}

}  // namespace kel
