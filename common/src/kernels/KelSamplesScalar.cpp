// Scalar reference kernels of sample values. The formulas stand in the header.
#include <algorithm>

#include "KelInt.h"
#include "KelSamplesKernels.h"

namespace kel {
namespace {

std::uint8_t LowByte(std::int64_t v) {
  return static_cast<std::uint8_t>(v & 0xFF);
}

std::uint8_t ClampToByte(std::int32_t v) {
  return static_cast<std::uint8_t>(std::clamp(v, 0, 255));
}

std::uint8_t RoundToByte(double v) {
  return ClampToByte(RoundToInt32(static_cast<double>(static_cast<float>(v))));
}

void InverseRctTo8Bit(const std::int32_t* y, const std::int32_t* u, const std::int32_t* v,
                      std::uint8_t* r, std::uint8_t* g, std::uint8_t* b, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::int64_t green = std::int64_t{y[i]} + 128 - ((std::int64_t{u[i]} + v[i]) >> 2);
    r[i] = LowByte(v[i] + green);
    g[i] = LowByte(green);
    b[i] = LowByte(u[i] + green);
  }
}

void InverseIctTo8Bit(const float* y, const float* cb, const float* cr, std::uint8_t* r,
                      std::uint8_t* g, std::uint8_t* b, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const double shifted = double{y[i]} + 128.0;
    r[i] = RoundToByte(shifted + double{1.402F} * double{cr[i]});
    g[i] =
        RoundToByte(shifted - double{0.34413F} * double{cb[i]} - double{0.71414F} * double{cr[i]});
    b[i] = RoundToByte(shifted + double{1.772F} * double{cb[i]});
  }
}

void IntTo8Bit(const std::int32_t* in, std::uint8_t* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    out[i] = ClampToByte(std::clamp(in[i], -128, 127) + 128);
  }
}

void FloatTo8Bit(const float* in, std::uint8_t* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) out[i] = RoundToByte(double{in[i] + 128.0F});
}

}  // namespace

void FillScalarSamplesKernels(SamplesKernels& table) noexcept {
  table.inverseRctTo8Bit = InverseRctTo8Bit;
  table.inverseIctTo8Bit = InverseIctTo8Bit;
  table.intTo8Bit = IntTo8Bit;
  table.floatTo8Bit = FloatTo8Bit;
}

}  // namespace kel
