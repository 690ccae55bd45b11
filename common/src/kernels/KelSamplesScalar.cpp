// Scalar reference kernels of sample values, written to be read. The formulas stand in the
// header; a template serves where only the kind of sample differs.
#include <algorithm>
#include <bit>

#include "KelSamplesKernels.h"
#include "base/KelInt.h"

namespace kel {
namespace {

/// The number with the same low 32 bits: integers here wrap around.
std::int32_t Wrapped(std::int64_t v) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(v));
}

// The sample with the level shift done.
std::int32_t Levelled(std::uint8_t sample) {
  return sample - 128;
}
std::int32_t Levelled(std::uint16_t sample) {
  return sample - 32768;
}
std::int32_t Levelled(std::int32_t sample) {
  return sample;
}

template <class Sample>
void Split(const Sample* in, std::size_t step, Sample* a, Sample* b, Sample* c, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    a[i] = in[i * step];
    b[i] = in[i * step + 1];
    c[i] = in[i * step + 2];
  }
}

template <class Sample, class Cell>
void Shift(const Sample* in, Cell* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) out[i] = static_cast<Cell>(Levelled(in[i]));
}

template <class Sample, class Cell>
void ForwardRct(const Sample* r, const Sample* g, const Sample* b, Cell* y, Cell* u, Cell* v,
                std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::int64_t red = Levelled(r[i]), green = Levelled(g[i]), blue = Levelled(b[i]);
    y[i] = static_cast<Cell>(Wrapped(red + 2 * green + blue) >> 2);
    u[i] = static_cast<Cell>(Wrapped(blue - green));
    v[i] = static_cast<Cell>(Wrapped(red - green));
  }
}

template <class Sample>
void ForwardIct(const Sample* r, const Sample* g, const Sample* b, float* y, float* cb, float* cr,
                std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const auto red = static_cast<float>(Levelled(r[i]));
    const auto green = static_cast<float>(Levelled(g[i]));
    const auto blue = static_cast<float>(Levelled(b[i]));
    y[i] = 0.299F * red + 0.587F * green + 0.114F * blue;
    cb[i] = -0.16875F * red - 0.33126F * green + 0.5F * blue;
    cr[i] = 0.5F * red - 0.41869F * green - 0.08131F * blue;
  }
}

struct Integers {
  std::int32_t r, g, b;
};

Integers InverseRctOf(std::int64_t y, std::int64_t u, std::int64_t v) {
  const std::int64_t green = y - (Wrapped(u + v) >> 2);
  return {Wrapped(v + green), Wrapped(green), Wrapped(u + green)};
}

struct Floats {
  float r, g, b;
};

Floats InverseIctOf(double y, double cb, double cr) {
  return {static_cast<float>(y + double{1.402F} * cr),
          static_cast<float>(y - double{0.34413F} * cb - double{0.71414F} * cr),
          static_cast<float>(y + double{1.772F} * cb)};
}

std::uint8_t LowByte(std::int32_t v) {
  return static_cast<std::uint8_t>(v & 0xFF);
}

std::uint8_t ClampToByte(std::int32_t v) {
  return static_cast<std::uint8_t>(std::clamp(v, 0, 255));
}

std::uint8_t ShiftToByte(std::int32_t v) {
  return ClampToByte(std::clamp(v, -128, 127) + 128);
}

std::uint8_t RoundToByte(float v) {
  return ClampToByte(RoundToInt32(double{v}));
}

void InverseRct(std::int32_t* y, std::int32_t* u, std::int32_t* v, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const Integers pixel = InverseRctOf(y[i], u[i], v[i]);
    y[i] = pixel.r;
    u[i] = pixel.g;
    v[i] = pixel.b;
  }
}

void InverseIct(float* y, float* cb, float* cr, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const Floats pixel = InverseIctOf(double{y[i]}, double{cb[i]}, double{cr[i]});
    y[i] = pixel.r;
    cb[i] = pixel.g;
    cr[i] = pixel.b;
  }
}

void InverseRctTo8Bit(const std::int32_t* y, const std::int32_t* u, const std::int32_t* v,
                      std::uint8_t* r, std::uint8_t* g, std::uint8_t* b, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const Integers pixel = InverseRctOf(y[i], u[i], v[i]);
    r[i] = ShiftToByte(pixel.r);
    g[i] = ShiftToByte(pixel.g);
    b[i] = ShiftToByte(pixel.b);
  }
}

void InverseRctShortsTo8Bit(const std::int16_t* y, const std::int16_t* u, const std::int16_t* v,
                            std::uint8_t* r, std::uint8_t* g, std::uint8_t* b, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const auto green =
        static_cast<std::int16_t>(y[i] - (static_cast<std::int16_t>(u[i] + v[i]) >> 2));
    r[i] = ShiftToByte(static_cast<std::int16_t>(v[i] + green));
    g[i] = ShiftToByte(green);
    b[i] = ShiftToByte(static_cast<std::int16_t>(u[i] + green));
  }
}

void InverseIctTo8Bit(const float* y, const float* cb, const float* cr, std::uint8_t* r,
                      std::uint8_t* g, std::uint8_t* b, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const Floats pixel = InverseIctOf(double{y[i]} + 128.0, double{cb[i]}, double{cr[i]});
    r[i] = RoundToByte(pixel.r);
    g[i] = RoundToByte(pixel.g);
    b[i] = RoundToByte(pixel.b);
  }
}

void InverseIctSingleTo8Bit(const float* y, const float* cb, const float* cr, std::uint8_t* r,
                            std::uint8_t* g, std::uint8_t* b, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const float luma = y[i] + 128.0F;
    r[i] = RoundToByte(luma + 1.402F * cr[i]);
    g[i] = RoundToByte(luma - 0.34413F * cb[i] - 0.71414F * cr[i]);
    b[i] = RoundToByte(luma + 1.772F * cb[i]);
  }
}

template <class Cell>
void IntTo8Bit(const Cell* in, std::uint8_t* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) out[i] = ShiftToByte(in[i]);
}

void FloatTo8Bit(const float* in, std::uint8_t* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) out[i] = RoundToByte(in[i] + 128.0F);
}

void IntsToLevels(const std::int32_t* in, std::int32_t* out, std::size_t count, std::int32_t lowest,
                  std::int32_t highest, std::int32_t addend) {
  for (std::size_t i = 0; i < count; ++i) {
    out[i] = Wrapped(std::int64_t{std::clamp(in[i], lowest, highest)} + addend);
  }
}

void FloatsToLevels(const float* in, std::int32_t* out, std::size_t count, std::int32_t lowest,
                    std::int32_t highest, std::int32_t addend) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::int32_t nearest = RoundToInt32(double{in[i]});
    out[i] = Wrapped(std::int64_t{std::clamp(nearest, lowest, highest)} + addend);
  }
}

void ScaleLevels(std::int32_t* levels, std::size_t count, const LevelScale& scale) {
  for (std::size_t i = 0; i < count; ++i) {
    const float value =
        static_cast<float>(levels[i]) * scale.multiplier / scale.divisor + scale.addend;
    levels[i] = std::clamp(RoundToInt32(double{value}), scale.lowest, scale.highest);
  }
}

void FloatsToShorts(const float* in, std::int16_t* out, std::size_t count) {
  // Added to 1.5 * 2^23, a number is rounded to an integer in the low bits of its representation.
  for (std::size_t i = 0; i < count; ++i) {
    out[i] = static_cast<std::int16_t>(std::bit_cast<std::uint32_t>(in[i] + 12582912.0F));
  }
}

void LevelsToBytes(const std::int32_t* in, std::uint8_t* out, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) out[i] = LowByte(in[i]);
}

void LevelsToWords(const std::int32_t* in, std::uint16_t* out, std::size_t count, int shift) {
  for (std::size_t i = 0; i < count; ++i) {
    out[i] = static_cast<std::uint16_t>(static_cast<std::uint32_t>(in[i]) << shift);
  }
}

}  // namespace

void FillScalarSamplesKernels(SamplesKernels& table) noexcept {
  table = {
      .splitBytes = Split<std::uint8_t>,
      .splitWords = Split<std::uint16_t>,
      .bytesToShorts = Shift<std::uint8_t, std::int16_t>,
      .bytesToInts = Shift<std::uint8_t, std::int32_t>,
      .wordsToInts = Shift<std::uint16_t, std::int32_t>,
      .bytesToFloats = Shift<std::uint8_t, float>,
      .wordsToFloats = Shift<std::uint16_t, float>,
      .forwardRct8 = ForwardRct<std::uint8_t, std::int16_t>,
      .forwardRct16 = ForwardRct<std::uint16_t, std::int32_t>,
      .forwardRct32 = ForwardRct<std::int32_t, std::int32_t>,
      .forwardIct8 = ForwardIct<std::uint8_t>,
      .forwardIct16 = ForwardIct<std::uint16_t>,
      .forwardIct32 = ForwardIct<std::int32_t>,
      .inverseRct = InverseRct,
      .inverseIct = InverseIct,
      .inverseRctTo8Bit = InverseRctTo8Bit,
      .inverseRctShortsTo8Bit = InverseRctShortsTo8Bit,
      .inverseIctTo8Bit = InverseIctTo8Bit,
      .inverseIctSingleTo8Bit = InverseIctSingleTo8Bit,
      .intTo8Bit = IntTo8Bit<std::int32_t>,
      .shortTo8Bit = IntTo8Bit<std::int16_t>,
      .floatTo8Bit = FloatTo8Bit,
      .intsToLevels = IntsToLevels,
      .floatsToLevels = FloatsToLevels,
      .scaleLevels = ScaleLevels,
      .floatsToShorts = FloatsToShorts,
      .levelsToBytes = LevelsToBytes,
      .levelsToWords = LevelsToWords,
  };
}

}  // namespace kel
