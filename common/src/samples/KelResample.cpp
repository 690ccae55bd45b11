// Range, crop and bilinear enlargement, written once over the kind of the samples.
#include "samples/KelResample.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <type_traits>

#include "base/KelRaise.h"
#include "samples/KelImageDataAccess.h"

namespace kel {
namespace {

[[noreturn]] void RaiseNoLock(SourcePlace place = SourcePlace::Here()) {
  Raise(KelErrNoMemory, kModuleMemFuncDefs, place);
}

/// Calls visit(first sample, with the type that the container says). False for a kind of samples
/// that there is not.
template <class Visit>
bool VisitSamples(const KelImageData& image, const void* samples, Visit visit) {
  const KelLong size = image.SizeOfDataType;
  if (image.ImageBufferType == kFloatSamples) {
    if (size != 4) return false;
    visit(static_cast<const float*>(samples));
    return true;
  }
  if (image.ImageBufferType != kIntegerSamples) return false;
  if (size == 4) {
    visit(static_cast<const std::int32_t*>(samples));
  } else if (size == 2) {
    visit(static_cast<const std::uint16_t*>(samples));
  } else if (size == 1) {
    visit(static_cast<const std::uint8_t*>(samples));
  } else {
    return false;
  }
  return true;
}

std::uint64_t CountOf(const KelImageData& image) {
  return SaturatingMul(AsCount(image.Width), AsCount(image.Height));
}

SampleRange CachedRange(const KelImageData& image) {
  return {image.DynRangeMin, image.DynRangeMax, 0, 0};
}

/// Smallest and largest sample, beginning with the first, into the cache.
template <class Sample>
void Scan(KelImageData& image, const Sample* samples) {
  Sample smallest = samples[0], largest = samples[0];
  for (std::uint64_t i = 0; i < CountOf(image); ++i) {
    smallest = samples[i] < smallest ? samples[i] : smallest;
    largest = samples[i] > largest ? samples[i] : largest;
  }
  image.DynRangeMin = static_cast<float>(smallest);
  image.DynRangeMax = static_cast<float>(largest);
}

/// The share of samples for which outside(sample) holds.
template <class Sample, class Outside>
float ShareOf(const Sample* samples, std::uint64_t count, Outside outside) {
  const auto found = std::count_if(samples, samples + count, outside);
  return static_cast<float>(static_cast<double>(found) / static_cast<double>(count));
}

/// Along one axis: the destination positions between two source samples, or beyond the last one.
struct AxisCell {
  std::int64_t source, nextSource;  ///< the two samples: the last one twice
  std::int64_t from, to;            ///< their positions; beyond the last, the last position
  std::int64_t end;                 ///< positions from..end - 1 belong to the cell

  /// The weight of the first sample; that of the second is the rest to 1.
  float WeightAt(std::int64_t at) const {
    return to == from ? 1.0F : static_cast<float>(to - at) / static_cast<float>(to - from);
  }
};

/// Calls visit(cell) for the cells of an axis, cut off at newCount positions. A position that two
/// cells share goes to the second one, which gives it the same value.
template <class Visit>
void ForEachCell(std::int64_t count, std::int64_t newCount, std::int64_t step, Visit visit) {
  for (std::int64_t c = 0; c < count && c * step < newCount; ++c) {
    const std::int64_t from = c * step, next = from + step;
    if (c + 1 < count) {
      visit(AxisCell{c, c + 1, from, next, std::min(next, newCount)});
    } else {
      visit(AxisCell{c, c, from, newCount - 1, newCount});
    }
  }
}

template <class Sample>
Sample RoundTo(float value) {
  if constexpr (std::is_same_v<Sample, float>) {
    return std::nearbyint(value);
  } else {
    return static_cast<Sample>(RoundToInt32(double{value}));
  }
}

struct Enlargement {
  std::int64_t width, height, newWidth, newHeight, stepX, stepY;
};

/// In single precision, products and sums from left to right:
/// round(fx fy TL + (1 - fx) fy TR + fx (1 - fy) BL + (1 - fx) (1 - fy) BR).
template <class Sample>
void Enlarge(const Sample* in, Sample* out, const Enlargement& e) {
  ForEachCell(e.height, e.newHeight, e.stepY, [&](const AxisCell& row) {
    const Sample* top = in + row.source * e.width;
    const Sample* bottom = in + row.nextSource * e.width;
    for (std::int64_t y = row.from; y < row.end; ++y) {
      const float fy = row.WeightAt(y);
      ForEachCell(e.width, e.newWidth, e.stepX, [&](const AxisCell& column) {
        const auto topLeft = static_cast<float>(top[column.source]);
        const auto topRight = static_cast<float>(top[column.nextSource]);
        const auto bottomLeft = static_cast<float>(bottom[column.source]);
        const auto bottomRight = static_cast<float>(bottom[column.nextSource]);
        for (std::int64_t x = column.from; x < column.end; ++x) {
          const float fx = column.WeightAt(x);
          *out++ = RoundTo<Sample>(fx * fy * topLeft + (1.0F - fx) * fy * topRight +
                                   fx * (1.0F - fy) * bottomLeft +
                                   (1.0F - fx) * (1.0F - fy) * bottomRight);
        }
      });
    }
  });
}

}  // namespace

SampleRange RangeOfSamples(KelImageData& image, const void* samples) {
  if (!image.DynRangeIsValid() && samples != nullptr && CountOf(image) != 0) {
    VisitSamples(image, samples, [&](const auto* first) { Scan(image, first); });
  }
  return CachedRange(image);
}

KelLong MeasureRange(KelImageData& image, SampleRange& range) {
  range = CachedRange(image);
  if (image.DynRangeIsValid()) return KelOK;
  if (image.ImageBufferType != kIntegerSamples && image.ImageBufferType != kFloatSamples) {
    return KelErrBadParam;
  }
  if (image.ImageBuffer == nullptr || CountOf(image) == 0) return KelOK;
  const BufferLock lock(image.ImageBuffer);
  if (!lock) return KelErrNoMemory;
  range = RangeOfSamples(image, lock.As<void>());
  return KelOK;
}

KelLong MeasureRangeAndSpill(KelImageData& image, KelLong lowLimit, KelLong highLimit,
                             SampleRange& range) {
  range = CachedRange(image);
  if (image.ImageBufferType != kIntegerSamples && image.ImageBufferType != kFloatSamples) {
    return KelErrBadParam;
  }
  const std::uint64_t count = CountOf(image);
  if (image.ImageBuffer == nullptr || count == 0) return KelOK;
  const BufferLock lock(image.ImageBuffer);
  if (!lock) return KelErrNoMemory;
  VisitSamples(image, lock.As<void>(), [&](const auto* samples) {
    Scan(image, samples);
    range = CachedRange(image);
    // Double holds limits and samples of every kind exactly.
    range.belowRatio =
        ShareOf(samples, count, [=](auto s) { return static_cast<double>(s) < lowLimit; });
    range.aboveRatio =
        ShareOf(samples, count, [=](auto s) { return static_cast<double>(s) > highLimit; });
  });
  return KelOK;
}

void CropSamples(KelImageData& image, KelLong x0, KelLong x1, KelLong y0, KelLong y1) {
  ForgetDynRange(image);
  const KelLong size = image.SizeOfDataType;
  if (size != 1 && size != 2) return;
  if (x0 < 0 || y0 < 0 || x1 > image.Width || y1 > image.Height || x0 >= x1 || y0 >= y1) return;
  const KelLong width = x1 - x0, height = y1 - y0;
  if (image.ImageBuffer == nullptr) return;
  OwnedBuffer cropped;
  {
    const BufferLock source(image.ImageBuffer);
    if (!source) RaiseNoLock();
    cropped = OwnedBuffer::Make(PlaneBytes(width, height, size));
    const BufferLock target(cropped.Get());
    if (!target) RaiseNoLock();
    const std::uint64_t rowBytes = PlaneBytes(width, 1, size);
    for (KelLong row = 0; row < height; ++row) {
      const std::uint64_t from = PlaneBytes(image.Width, std::int64_t{y0} + row, size);
      KelMemCopy(target.As<std::uint8_t>() + PlaneBytes(width, row, size),
                 source.As<std::uint8_t>() + from + PlaneBytes(x0, 1, size), rowBytes);
    }
  }
  InstallSamples(image, std::move(cropped), width, height, size, image.ImageBufferType);
}

void InterpolateSamples(KelImageData& image, KelLong newWidth, KelLong newHeight, KelLong stepX,
                        KelLong stepY) {
  if (newWidth < 1 || newHeight < 1 || stepX < 1 || stepY < 1 || CountOf(image) == 0) return;
  if (image.ImageBuffer == nullptr) return;
  const Enlargement e = {image.Width, image.Height, newWidth, newHeight, stepX, stepY};
  OwnedBuffer enlarged;
  {
    const BufferLock source(image.ImageBuffer);
    // A visit that looks at nothing: is there such a kind of samples?
    if (!source) RaiseNoLock();
    if (!VisitSamples(image, source.As<void>(), [](const auto*) {})) return;
    enlarged = OwnedBuffer::Make(PlaneBytes(newWidth, newHeight, image.SizeOfDataType));
    const BufferLock target(enlarged.Get());
    if (!target) RaiseNoLock();
    VisitSamples(image, source.As<void>(), [&](const auto* samples) {
      using Sample = std::remove_cv_t<std::remove_pointer_t<decltype(samples)>>;
      Enlarge(samples, target.As<Sample>(), e);
    });
  }
  InstallSamples(image, std::move(enlarged), newWidth, newHeight, image.SizeOfDataType,
                 image.ImageBufferType);
}

}  // namespace kel
