// Output conversion over rows. The arithmetic is that of the kernels.
#include "samples/KelOutputConvert.h"

#include <algorithm>

#include "base/KelInt.h"
#include "kernels/KelKernels.h"

namespace kel {
namespace {

std::size_t SamplesOf(std::int64_t width, std::int64_t height) {
  return static_cast<std::size_t>(SaturatingMul(AsCount(width), AsCount(height)));
}

template <class Cell>
const Cell* RowOf(const ColorPlanes& planes, int c, std::size_t y) {
  return static_cast<const Cell*>(planes.cells[c]) + y * planes.strideCells;
}

/// Converts samples x to x + count - 1 of row y.
void ConvertRun(const ColorPlanes& planes, std::size_t y, std::size_t x, std::size_t count,
                std::uint8_t* const (&out)[3]) {
  const SamplesKernels& kernels = Kernels().samples;
  if (planes.floats) {
    kernels.inverseIctTo8Bit(RowOf<float>(planes, 0, y) + x, RowOf<float>(planes, 1, y) + x,
                             RowOf<float>(planes, 2, y) + x, out[0], out[1], out[2], count);
  } else {
    kernels.inverseRctTo8Bit(RowOf<std::int32_t>(planes, 0, y) + x,
                             RowOf<std::int32_t>(planes, 1, y) + x,
                             RowOf<std::int32_t>(planes, 2, y) + x, out[0], out[1], out[2], count);
  }
}

}  // namespace

void FloatPlaneTo8Bit(std::uint8_t* out, std::int64_t width, std::int64_t height, const float* in) {
  Kernels().samples.floatTo8Bit(in, out, SamplesOf(width, height));
}

void IntPlaneTo8Bit(std::uint8_t* out, std::int64_t width, std::int64_t height,
                    const std::int32_t* in) {
  Kernels().samples.intTo8BitWrapped(in, out, SamplesOf(width, height));
}

void ColorPlanesTo8Bit(const ColorPlanes& planes, std::uint8_t* const (&out)[3],
                       std::size_t strideBytes) {
  const std::size_t width = SamplesOf(planes.size.width, 1);
  for (std::size_t y = 0; y < SamplesOf(planes.size.height, 1); ++y) {
    const std::size_t at = y * strideBytes;
    ConvertRun(planes, y, 0, width, {out[0] + at, out[1] + at, out[2] + at});
  }
}

void ColorPlanesToPixels(const ColorPlanes& planes, std::uint8_t* out, std::size_t strideBytes) {
  constexpr std::size_t kPiece = 1024;
  std::uint8_t bytes[3][kPiece];
  const std::size_t width = SamplesOf(planes.size.width, 1);
  for (std::size_t y = 0; y < SamplesOf(planes.size.height, 1); ++y) {
    std::uint8_t* pixel = out + y * strideBytes;
    for (std::size_t x = 0; x < width; x += kPiece) {
      const std::size_t count = std::min(kPiece, width - x);
      ConvertRun(planes, y, x, count, {bytes[0], bytes[1], bytes[2]});
      for (std::size_t i = 0; i < count; ++i, pixel += 3) {
        for (int c = 0; c < 3; ++c) pixel[c] = bytes[c][i];
      }
    }
  }
}

}  // namespace kel
