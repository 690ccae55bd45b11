// What the library itself needs of sample containers: making and releasing container objects,
// byte sizes, and installing converted samples.
#ifndef KEL_IMAGE_DATA_ACCESS_H
#define KEL_IMAGE_DATA_ACCESS_H

#include <cstdint>

#include "base/KelMemFuncDefs.h"
#include "kel/KelImageData.h"

namespace kel {

/// Kinds of samples, as ImageBufferType holds them.
inline constexpr KelLong kIntegerSamples = 0;
inline constexpr KelLong kFloatSamples = 1;

/// Bytes of a plane; saturates, and counts negative sides as 0.
inline std::uint64_t PlaneBytes(std::int64_t width, std::int64_t height, std::int64_t sampleBytes) {
  return SaturatingMul(SaturatingMul(AsCount(width), AsCount(height)), AsCount(sampleBytes));
}

/// Bytes of one row of packed samples of the given depth.
inline std::uint64_t PackedRowBytes(std::int64_t width, std::int64_t bitsPerSample) {
  return SaturatingAdd(SaturatingMul(AsCount(width), AsCount(bitsPerSample)), 7) / 8;
}

/// Marks the cached range as unknown: its maximum is below its minimum.
inline void ForgetDynRange(KelImageData& image) noexcept {
  image.DynRangeMin = 1.0F;
  image.DynRangeMax = 0.0F;
}

/// A new container object from the memory layer, without samples. The caller owns it.
KelImageData* NewImage();

/// Releases a container object and its buffer, and clears the pointer. Accepts null.
void ReleaseImage(KelImageData*& image) noexcept;

/// Gives a container other samples: frees the buffer it holds and installs another with its size
/// and kind. Cannot fail.
void InstallSamples(KelImageData& image, OwnedBuffer samples, KelLong width, KelLong height,
                    KelLong sampleBytes, KelLong bufferType) noexcept;

/// Drops the padding at the end of the rows: moves the first trueWidth samples of each row
/// together, in place, and makes that the width. The buffer keeps its size. A width that is not
/// below the container's leaves everything as it is. Raises 8 when the samples cannot be locked.
void CompactRows(KelImageData& image, KelLong trueWidth);

}  // namespace kel

#endif
