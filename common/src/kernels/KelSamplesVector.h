// Vector kernels of sample values: component transforms, level shift, output conversion,
// recasting, written once over the vector length.
//
// Included by one source per instruction set, after KelVector.h; everything here is local to that
// source. Same bits as the scalar reference, whose operations appear here in the same order.
//
// A step handles kStep samples: one vector of 16-bit lanes, two of 32-bit lanes. Widening goes
// through a type of twice the vector's length, which both compilers turn into unpack instructions
// when its halves are taken at once. Anything else on such a type is left to those of doubles:
// selections and stores of the others become lane-by-lane code or detours through memory
// (g++ 12). They are passed by reference, there being no convention for passing them by value.
#ifndef KEL_SAMPLES_VECTOR_H
#define KEL_SAMPLES_VECTOR_H

#include <utility>

#include "KelInline.h"
#include "KelSamplesKernels.h"
#include "KelVector.h"

namespace kel {
namespace {
namespace samples {

inline constexpr int kStep = KEL_VECTOR_BYTES / 2;

typedef std::uint8_t Bytes __attribute__((vector_size(kStep)));
typedef std::int16_t Shorts __attribute__((vector_size(2 * kStep)));
typedef std::uint16_t Words __attribute__((vector_size(2 * kStep)));
typedef std::int32_t WideInts __attribute__((vector_size(4 * kStep)));
typedef double WideDoubles __attribute__((vector_size(4 * kStep)));  // kStep / 2 lanes

template <class V>
KEL_INLINE void LoadTo(V& v, const void* address) {
  __builtin_memcpy(&v, address, sizeof v);
}

template <class V>
KEL_INLINE void StoreFrom(void* address, const V& v) {
  __builtin_memcpy(address, &v, sizeof v);
}

/// Converts lane by lane; widths may differ.
template <class To, class From>
KEL_INLINE void Convert(To& to, const From& from) {
  to = __builtin_convertvector(from, To);
}

/// Calls body(in, out) with the addresses of every whole step. The rest goes through copies, so
/// that nothing beyond the counted samples is read or written.
template <int kIns, int kOuts, class In, class Out, class Body>
KEL_INLINE void SweepPadded(const In* const (&in)[kIns], Out* const (&out)[kOuts],
                            std::size_t count, Body body) {
  const In* from[kIns];
  Out* to[kOuts];
  std::size_t i = 0;
  for (; i + kStep <= count; i += kStep) {
    for (int k = 0; k < kIns; ++k) from[k] = in[k] + i;
    for (int k = 0; k < kOuts; ++k) to[k] = out[k] + i;
    body(from, to);
  }
  if (i == count) return;
  In lastIn[kIns][kStep] = {};
  Out lastOut[kOuts][kStep];
  for (int k = 0; k < kIns; ++k) {
    __builtin_memcpy(lastIn[k], in[k] + i, (count - i) * sizeof(In));
    from[k] = lastIn[k];
  }
  for (int k = 0; k < kOuts; ++k) to[k] = lastOut[k];
  body(from, to);
  for (int k = 0; k < kOuts; ++k) {
    __builtin_memcpy(out[k] + i, lastOut[k], (count - i) * sizeof(Out));
  }
}

// --- From samples to planes ---

template <int... kLane>
KEL_INLINE void Widen(VInt (&halves)[2], Shorts v, std::integer_sequence<int, kLane...>) {
  const WideInts wide = __builtin_convertvector(v, WideInts);
  halves[0] = __builtin_shufflevector(wide, wide, kLane...);
  halves[1] = __builtin_shufflevector(wide, wide, (kLanes + kLane)...);
}

// Loads a step of samples with the level shift done.
KEL_INLINE Shorts LoadLevelled(const std::uint8_t* address) {
  Bytes raw;
  LoadTo(raw, address);
  Words wide;
  Convert(wide, raw);
  return __builtin_bit_cast(Shorts, wide) - std::int16_t{128};
}
KEL_INLINE void LoadLevelled(VInt (&levels)[2], const std::uint8_t* address) {
  Widen(levels, LoadLevelled(address), std::make_integer_sequence<int, kLanes>{});
}
KEL_INLINE void LoadLevelled(VInt (&levels)[2], const std::uint16_t* address) {
  // Inverting the top bit of an unsigned word is subtracting 32768 from it as a signed one.
  Words raw;
  LoadTo(raw, address);
  Widen(levels, __builtin_bit_cast(Shorts, raw ^ std::uint16_t{0x8000}),
        std::make_integer_sequence<int, kLanes>{});
}
KEL_INLINE void LoadLevelled(VInt (&levels)[2], const std::int32_t* address) {
  for (int half = 0; half < 2; ++half) levels[half] = Load<VInt>(address + half * kLanes);
}

void BytesToShorts(const std::uint8_t* in, std::int16_t* out, std::size_t count) {
  SweepPadded({in}, {out}, count, [](const auto& from, const auto& to) KEL_FORCED {
    StoreFrom(to[0], LoadLevelled(from[0]));
  });
}

template <class Sample>
void ToInts(const Sample* in, std::int32_t* out, std::size_t count) {
  SweepPadded({in}, {out}, count, [](const auto& from, const auto& to) KEL_FORCED {
    VInt levels[2];
    LoadLevelled(levels, from[0]);
    for (int half = 0; half < 2; ++half) Store(to[0] + half * kLanes, levels[half]);
  });
}

template <class Sample>
void ToFloats(const Sample* in, float* out, std::size_t count) {
  SweepPadded({in}, {out}, count, [](const auto& from, const auto& to) KEL_FORCED {
    VInt levels[2];
    LoadLevelled(levels, from[0]);
    for (int half = 0; half < 2; ++half) {
      Store(to[0] + half * kLanes, __builtin_convertvector(levels[half], VFloat));
    }
  });
}

/// What becomes of bytes stays below 2^10, the sum of four of them included.
void ForwardRct8(const std::uint8_t* r, const std::uint8_t* g, const std::uint8_t* b,
                 std::int16_t* y, std::int16_t* u, std::int16_t* v, std::size_t count) {
  SweepPadded({r, g, b}, {y, u, v}, count, [](const auto& from, const auto& to) KEL_FORCED {
    const Shorts red = LoadLevelled(from[0]), green = LoadLevelled(from[1]);
    const Shorts blue = LoadLevelled(from[2]);
    StoreFrom(to[0], (red + green + green + blue) >> std::int16_t{2});
    StoreFrom(to[1], blue - green);
    StoreFrom(to[2], red - green);
  });
}

template <class Sample>
void ForwardRct(const Sample* r, const Sample* g, const Sample* b, std::int32_t* y, std::int32_t* u,
                std::int32_t* v, std::size_t count) {
  SweepPadded({r, g, b}, {y, u, v}, count, [](const auto& from, const auto& to) KEL_FORCED {
    VInt levels[3][2];
    for (int k = 0; k < 3; ++k) LoadLevelled(levels[k], from[k]);
    for (int half = 0; half < 2; ++half) {
      const VUInt red = __builtin_bit_cast(VUInt, levels[0][half]);
      const VUInt green = __builtin_bit_cast(VUInt, levels[1][half]);
      const VUInt blue = __builtin_bit_cast(VUInt, levels[2][half]);
      const VUInt sum = red + green + green + blue;
      Store(to[0] + half * kLanes, __builtin_bit_cast(VInt, sum) >> 2);
      Store(to[1] + half * kLanes, blue - green);
      Store(to[2] + half * kLanes, red - green);
    }
  });
}

template <class Sample>
void ForwardIct(const Sample* r, const Sample* g, const Sample* b, float* y, float* cb, float* cr,
                std::size_t count) {
  SweepPadded({r, g, b}, {y, cb, cr}, count, [](const auto& from, const auto& to) KEL_FORCED {
    VInt levels[3][2];
    for (int k = 0; k < 3; ++k) LoadLevelled(levels[k], from[k]);
    for (int half = 0; half < 2; ++half) {
      const VFloat red = __builtin_convertvector(levels[0][half], VFloat);
      const VFloat green = __builtin_convertvector(levels[1][half], VFloat);
      const VFloat blue = __builtin_convertvector(levels[2][half], VFloat);
      const int at = half * kLanes;
      Store(to[0] + at, 0.299F * red + 0.587F * green + 0.114F * blue);
      Store(to[1] + at, -0.16875F * red - 0.33126F * green + 0.5F * blue);
      Store(to[2] + at, 0.5F * red - 0.41869F * green - 0.08131F * blue);
    }
  });
}

// --- Channels of interleaved pixels ---

/// The vector of 16 bytes that takes its even lanes from half kFirst and its odd lanes from half
/// kSecond of a sequence of vectors, where half m is the (m mod 2)th half of vector m / 2.
template <int kFirst, int kSecond, class V, int... kLane>
KEL_INLINE V Interleave(const V* blocks, std::integer_sequence<int, kLane...>) {
  constexpr int kCount = sizeof...(kLane);
  return __builtin_shufflevector(
      blocks[kFirst / 2], blocks[kSecond / 2],
      (kLane % 2 == 0 ? kFirst % 2 * kCount / 2 : kCount + kSecond % 2 * kCount / 2) +
          kLane / 2 ...);
}

template <class V, class Lanes, int... kBlock>
KEL_INLINE void PerfectShuffle(V* blocks, Lanes lanes, std::integer_sequence<int, kBlock...>) {
  constexpr int kWays = sizeof...(kBlock);
  const V shuffled[] = {Interleave<kBlock, kWays + kBlock>(blocks, lanes)...};
  for (int k = 0; k < kWays; ++k) blocks[k] = shuffled[k];
}

/// Separates the channels of 16 / sizeof(Sample) pixels of kWays samples. With n samples in a
/// vector the sample at position p of N = kWays n has to go to position p n modulo N - 1 (the last
/// stays). A perfect shuffle of the whole sequence, its halves interleaved, takes position p to
/// 2 p modulo N - 1; n being a power of two, log2(n) of them do it.
template <int kWays, class Sample>
KEL_INLINE std::size_t SplitBlocks(const Sample* in, Sample* const (&out)[3], std::size_t count) {
  typedef Sample Block __attribute__((vector_size(16)));
  constexpr int kPixels = 16 / static_cast<int>(sizeof(Sample));
  std::size_t i = 0;
  for (; i + kPixels <= count; i += kPixels) {
    Block blocks[kWays];
    __builtin_memcpy(blocks, in + i * kWays, sizeof blocks);
    for (int n = kPixels; n > 1; n /= 2) {
      PerfectShuffle(blocks, std::make_integer_sequence<int, kPixels>{},
                     std::make_integer_sequence<int, kWays>{});
    }
    for (int k = 0; k < 3; ++k) StoreFrom(out[k] + i, blocks[k]);
  }
  return i;
}

template <class Sample>
void Split(const Sample* in, std::size_t step, Sample* a, Sample* b, Sample* c, std::size_t count) {
  std::size_t i = 0;
  if (step == 3) i = SplitBlocks<3>(in, {a, b, c}, count);
  if (step == 4) i = SplitBlocks<4>(in, {a, b, c}, count);
  for (; i < count; ++i) {
    a[i] = in[i * step];
    b[i] = in[i * step + 1];
    c[i] = in[i * step + 2];
  }
}

// --- From planes to samples ---

/// Half a step of the inverse reversible transform.
KEL_INLINE void InverseRctHalf(const std::int32_t* const (&in)[3], VUInt (&rgb)[3]) {
  const VUInt blue = Load<VUInt>(in[1]), red = Load<VUInt>(in[2]);
  const VInt quarter = __builtin_bit_cast(VInt, blue + red) >> 2;
  rgb[1] = Load<VUInt>(in[0]) - __builtin_bit_cast(VUInt, quarter);
  rgb[0] = red + rgb[1];
  rgb[2] = blue + rgb[1];
}

void InverseRct(std::int32_t* y, std::int32_t* u, std::int32_t* v, std::size_t count) {
  SweepPadded<3, 3, std::int32_t>(
      {y, u, v}, {y, u, v}, count, [](const auto& from, const auto& to) KEL_FORCED {
        for (int at = 0; at < kStep; at += kLanes) {
          VUInt rgb[3];
          InverseRctHalf({from[0] + at, from[1] + at, from[2] + at}, rgb);
          for (int k = 0; k < 3; ++k) Store(to[k] + at, rgb[k]);
        }
      });
}

/// Half a step of the inverse irreversible transform, from luma plus an offset.
KEL_INLINE void InverseIctHalf(const float* const (&in)[3], double offset, VFloat (&rgb)[3]) {
  WideDoubles wide[3];
  for (int k = 0; k < 3; ++k) Convert(wide[k], Load<VFloat>(in[k]));
  const WideDoubles luma = wide[0] + offset;
  Convert(rgb[0], luma + double{1.402F} * wide[2]);
  Convert(rgb[1], luma - double{0.34413F} * wide[1] - double{0.71414F} * wide[2]);
  Convert(rgb[2], luma + double{1.772F} * wide[1]);
}

void InverseIct(float* y, float* cb, float* cr, std::size_t count) {
  SweepPadded<3, 3, float>(
      {y, cb, cr}, {y, cb, cr}, count, [](const auto& from, const auto& to) KEL_FORCED {
        for (int half = 0; half < 2; ++half) {
          const int at = half * kLanes;
          VFloat rgb[3];
          // An offset of -0 leaves every value as it is, zeros of either sign
          // included.
          InverseIctHalf({from[0] + at, from[1] + at, from[2] + at}, -0.0, rgb);
          for (int k = 0; k < 3; ++k) Store(to[k] + at, rgb[k]);
        }
      });
}

/// The low halves of the 32-bit lanes of two vectors.
template <int... kLane>
KEL_INLINE Words LowHalves(VInt a, VInt b, std::integer_sequence<int, kLane...>) {
  return __builtin_shufflevector(__builtin_bit_cast(Words, a), __builtin_bit_cast(Words, b),
                                 (2 * kLane)...);
}

KEL_INLINE Words LowHalves(VInt a, VInt b) {
  return LowHalves(a, b, std::make_integer_sequence<int, kStep>{});
}

/// Stores the low bytes of two vectors.
KEL_INLINE void StoreBytes(std::uint8_t* address, VInt a, VInt b) {
  Bytes bytes;
  Convert(bytes, LowHalves(a, b));
  StoreFrom(address, bytes);
}

KEL_INLINE VInt Clamp(VInt v, std::int32_t lowest, std::int32_t highest) {
  const VInt low = VInt{} + lowest, high = VInt{} + highest;
  v = v < low ? low : v;
  return v > high ? high : v;
}

/// Stores two vectors of integers limited to -128..127, and 128 added: which inverts the top bit.
KEL_INLINE void StoreShifted(std::uint8_t* address, VInt a, VInt b) {
#if KEL_VECTOR_BYTES == 64 && defined(__AVX512F__)
  const __m128i flip = _mm_set1_epi8(-128);
  const auto narrow = [](VInt v) KEL_FORCED {
    return _mm512_maskz_cvtsepi32_epi8(0xFFFF, __builtin_bit_cast(__m512i, v));
  };
  StoreFrom(address, _mm_xor_si128(narrow(a), flip));
  StoreFrom(address + kLanes, _mm_xor_si128(narrow(b), flip));
#elif KEL_VECTOR_BYTES == 32 && defined(__AVX2__)
  // Packing works on the halves of vectors: a0 b0 a1 b1 for a0 a1 and b0 b1.
  const __m256i packed =
      _mm256_packs_epi32(__builtin_bit_cast(__m256i, a), __builtin_bit_cast(__m256i, b));
  const __m256i words = _mm256_permute4x64_epi64(packed, 0xD8);
  const __m128i bytes =
      _mm_packs_epi16(_mm256_castsi256_si128(words), _mm256_extracti128_si256(words, 1));
  StoreFrom(address, _mm_xor_si128(bytes, _mm_set1_epi8(-128)));
#elif KEL_VECTOR_BYTES == 16 && defined(__SSE2__)
  const __m128i words =
      _mm_packs_epi32(__builtin_bit_cast(__m128i, a), __builtin_bit_cast(__m128i, b));
  const __m128i bytes = _mm_xor_si128(_mm_packs_epi16(words, words), _mm_set1_epi8(-128));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(address), bytes);
#else
  StoreBytes(address, Clamp(a, -128, 127) + 128, Clamp(b, -128, 127) + 128);
#endif
}

/// The same of a vector of 16-bit lanes.
KEL_INLINE void StoreShifted(std::uint8_t* address, Shorts v) {
#if KEL_VECTOR_BYTES == 64 && defined(__AVX512BW__)
  const __m256i bytes = _mm512_maskz_cvtsepi16_epi8(0xFFFFFFFF, __builtin_bit_cast(__m512i, v));
  StoreFrom(address, _mm256_xor_si256(bytes, _mm256_set1_epi8(-128)));
#elif KEL_VECTOR_BYTES == 32 && defined(__AVX2__)
  const __m256i words = __builtin_bit_cast(__m256i, v);
  const __m128i bytes =
      _mm_packs_epi16(_mm256_castsi256_si128(words), _mm256_extracti128_si256(words, 1));
  StoreFrom(address, _mm_xor_si128(bytes, _mm_set1_epi8(-128)));
#elif KEL_VECTOR_BYTES == 16 && defined(__SSE2__)
  const __m128i words = __builtin_bit_cast(__m128i, v);
  const __m128i bytes = _mm_xor_si128(_mm_packs_epi16(words, words), _mm_set1_epi8(-128));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(address), bytes);
#else
  const Shorts low = Shorts{} - std::int16_t{128}, high = Shorts{} + std::int16_t{127};
  v = v < low ? low : v;
  v = (v > high ? high : v) + std::int16_t{128};
  Bytes bytes;
  Convert(bytes, v);
  StoreFrom(address, bytes);
#endif
}

/// Lanes whose low bytes hold the nearest integers, clamped to 0..255: added to 2^23, a number
/// below it is rounded to an integer, halves to even, in the low bits of its representation. The
/// first comparison is false for NaN.
KEL_INLINE VInt NearestBytes(VFloat v) {
  const VFloat zero{}, top = zero + 255.0F;
  v = v > zero ? v : zero;
  v = v < top ? v : top;
  return __builtin_bit_cast(VInt, v + 8388608.0F);
}

void InverseRctTo8Bit(const std::int32_t* y, const std::int32_t* u, const std::int32_t* v,
                      std::uint8_t* r, std::uint8_t* g, std::uint8_t* b, std::size_t count) {
  SweepPadded({y, u, v}, {r, g, b}, count, [](const auto& from, const auto& to) KEL_FORCED {
    VInt rgb[3][2];
    for (int half = 0; half < 2; ++half) {
      VUInt pixels[3];
      InverseRctHalf({from[0] + half * kLanes, from[1] + half * kLanes, from[2] + half * kLanes},
                     pixels);
      for (int k = 0; k < 3; ++k) rgb[k][half] = __builtin_bit_cast(VInt, pixels[k]);
    }
    for (int k = 0; k < 3; ++k) StoreShifted(to[k], rgb[k][0], rgb[k][1]);
  });
}

void InverseRctShortsTo8Bit(const std::int16_t* y, const std::int16_t* u, const std::int16_t* v,
                            std::uint8_t* r, std::uint8_t* g, std::uint8_t* b, std::size_t count) {
  SweepPadded({y, u, v}, {r, g, b}, count, [](const auto& from, const auto& to) KEL_FORCED {
    // Sums of unsigned lanes, which may wrap around.
    Words luma, blue, red;
    LoadTo(luma, from[0]);
    LoadTo(blue, from[1]);
    LoadTo(red, from[2]);
    const Shorts chroma = __builtin_bit_cast(Shorts, blue + red) >> 2;
    const Words green = luma - __builtin_bit_cast(Words, chroma);
    StoreShifted(to[0], __builtin_bit_cast(Shorts, red + green));
    StoreShifted(to[1], __builtin_bit_cast(Shorts, green));
    StoreShifted(to[2], __builtin_bit_cast(Shorts, blue + green));
  });
}

void InverseIctTo8Bit(const float* y, const float* cb, const float* cr, std::uint8_t* r,
                      std::uint8_t* g, std::uint8_t* b, std::size_t count) {
  SweepPadded({y, cb, cr}, {r, g, b}, count, [](const auto& from, const auto& to) KEL_FORCED {
    VFloat low[3], high[3];
    InverseIctHalf({from[0], from[1], from[2]}, 128.0, low);
    InverseIctHalf({from[0] + kLanes, from[1] + kLanes, from[2] + kLanes}, 128.0, high);
    for (int k = 0; k < 3; ++k) StoreBytes(to[k], NearestBytes(low[k]), NearestBytes(high[k]));
  });
}

void InverseIctSingleTo8Bit(const float* y, const float* cb, const float* cr, std::uint8_t* r,
                            std::uint8_t* g, std::uint8_t* b, std::size_t count) {
  SweepPadded({y, cb, cr}, {r, g, b}, count, [](const auto& from, const auto& to) KEL_FORCED {
    VInt rgb[3][2];
    for (int half = 0; half < 2; ++half) {
      const int at = half * kLanes;
      const VFloat luma = Load<VFloat>(from[0] + at) + 128.0F;
      const VFloat blue = Load<VFloat>(from[1] + at), red = Load<VFloat>(from[2] + at);
      rgb[0][half] = NearestBytes(luma + 1.402F * red);
      rgb[1][half] = NearestBytes(luma - 0.34413F * blue - 0.71414F * red);
      rgb[2][half] = NearestBytes(luma + 1.772F * blue);
    }
    for (int k = 0; k < 3; ++k) StoreBytes(to[k], rgb[k][0], rgb[k][1]);
  });
}

void IntTo8Bit(const std::int32_t* in, std::uint8_t* out, std::size_t count) {
  SweepPadded({in}, {out}, count, [](const auto& from, const auto& to) KEL_FORCED {
    StoreShifted(to[0], Load<VInt>(from[0]), Load<VInt>(from[0] + kLanes));
  });
}

void ShortTo8Bit(const std::int16_t* in, std::uint8_t* out, std::size_t count) {
  SweepPadded({in}, {out}, count, [](const auto& from, const auto& to) KEL_FORCED {
    Shorts v;
    LoadTo(v, from[0]);
    StoreShifted(to[0], v);
  });
}

void FloatTo8Bit(const float* in, std::uint8_t* out, std::size_t count) {
  SweepPadded({in}, {out}, count, [](const auto& from, const auto& to) KEL_FORCED {
    StoreBytes(to[0], NearestBytes(Load<VFloat>(from[0]) + 128.0F),
               NearestBytes(Load<VFloat>(from[0] + kLanes) + 128.0F));
  });
}

// --- Recasting ---

/// Nearest integers for any input. Below 2^23 a number is rounded by adding and subtracting 2^23
/// with its own sign; from there on it is an integer already.
KEL_INLINE VInt Nearest(VFloat v) {
  const VFloat zero{}, limit = zero + 2147483648.0F;
  v = v == v ? v : zero;
  const VInt bits = __builtin_bit_cast(VInt, v);
  const VInt magnitude = bits & 0x7FFFFFFF;
  const VInt signedBig = (bits ^ magnitude) | __builtin_bit_cast(VInt, zero + 8388608.0F);
  const VFloat big = __builtin_bit_cast(VFloat, signedBig);
  v = __builtin_bit_cast(VFloat, magnitude) < zero + 8388608.0F ? (v + big) - big : v;
  v = v > -limit ? v : -limit;
  const VInt tooLarge = v >= limit;
  const VInt nearest = __builtin_convertvector(tooLarge ? zero : v, VInt);
  return tooLarge ? VInt{} + 0x7FFFFFFF : nearest;
}

/// Limited and moved; the sum wraps around.
KEL_INLINE void StoreLevel(std::int32_t* address, VInt v, std::int32_t lowest, std::int32_t highest,
                           std::int32_t addend) {
  const VUInt limited = __builtin_bit_cast(VUInt, Clamp(v, lowest, highest));
  Store(address, limited + static_cast<std::uint32_t>(addend));
}

void IntsToLevels(const std::int32_t* in, std::int32_t* out, std::size_t count, std::int32_t lowest,
                  std::int32_t highest, std::int32_t addend) {
  SweepPadded({in}, {out}, count,
              [lowest, highest, addend](const auto& from, const auto& to) KEL_FORCED {
                for (int at = 0; at < kStep; at += kLanes) {
                  StoreLevel(to[0] + at, Load<VInt>(from[0] + at), lowest, highest, addend);
                }
              });
}

void FloatsToLevels(const float* in, std::int32_t* out, std::size_t count, std::int32_t lowest,
                    std::int32_t highest, std::int32_t addend) {
  SweepPadded(
      {in}, {out}, count, [lowest, highest, addend](const auto& from, const auto& to) KEL_FORCED {
        for (int at = 0; at < kStep; at += kLanes) {
          StoreLevel(to[0] + at, Nearest(Load<VFloat>(from[0] + at)), lowest, highest, addend);
        }
      });
}

void ScaleLevels(std::int32_t* levels, std::size_t count, const LevelScale& scale) {
  SweepPadded<1, 1, std::int32_t>(
      {levels}, {levels}, count, [scale](const auto& from, const auto& to) KEL_FORCED {
        for (int at = 0; at < kStep; at += kLanes) {
          const VFloat level = __builtin_convertvector(Load<VInt>(from[0] + at), VFloat);
          const VFloat value = level * scale.multiplier / scale.divisor + scale.addend;
          Store(to[0] + at, Clamp(Nearest(value), scale.lowest, scale.highest));
        }
      });
}

void FloatsToShorts(const float* in, std::int16_t* out, std::size_t count) {
  SweepPadded({in}, {out}, count, [](const auto& from, const auto& to) KEL_FORCED {
    const VFloat low = Load<VFloat>(from[0]) + 12582912.0F;
    const VFloat high = Load<VFloat>(from[0] + kLanes) + 12582912.0F;
    StoreFrom(to[0], LowHalves(__builtin_bit_cast(VInt, low), __builtin_bit_cast(VInt, high)));
  });
}

void LevelsToBytes(const std::int32_t* in, std::uint8_t* out, std::size_t count) {
  SweepPadded({in}, {out}, count, [](const auto& from, const auto& to) KEL_FORCED {
    StoreBytes(to[0], Load<VInt>(from[0]), Load<VInt>(from[0] + kLanes));
  });
}

void LevelsToWords(const std::int32_t* in, std::uint16_t* out, std::size_t count, int shift) {
  SweepPadded({in}, {out}, count, [shift](const auto& from, const auto& to) KEL_FORCED {
    const Words words = LowHalves(Load<VInt>(from[0]), Load<VInt>(from[0] + kLanes));
    StoreFrom(to[0], words << static_cast<std::uint16_t>(shift));
  });
}

}  // namespace samples

[[maybe_unused]] void OverwriteWithVector(SamplesKernels& table) noexcept {
  // Splitting works on vectors of 16 bytes in any case, and what the compilers make of it for the
  // least instruction set is the fastest.
  constexpr bool kLeast = KEL_VECTOR_BYTES == 16;
  table = {
      .splitBytes = kLeast ? samples::Split<std::uint8_t> : table.splitBytes,
      .splitWords = kLeast ? samples::Split<std::uint16_t> : table.splitWords,
      .bytesToShorts = samples::BytesToShorts,
      .bytesToInts = samples::ToInts<std::uint8_t>,
      .wordsToInts = samples::ToInts<std::uint16_t>,
      .bytesToFloats = samples::ToFloats<std::uint8_t>,
      .wordsToFloats = samples::ToFloats<std::uint16_t>,
      .forwardRct8 = samples::ForwardRct8,
      .forwardRct16 = samples::ForwardRct<std::uint16_t>,
      .forwardRct32 = samples::ForwardRct<std::int32_t>,
      .forwardIct8 = samples::ForwardIct<std::uint8_t>,
      .forwardIct16 = samples::ForwardIct<std::uint16_t>,
      .forwardIct32 = samples::ForwardIct<std::int32_t>,
      .inverseRct = samples::InverseRct,
      .inverseIct = samples::InverseIct,
      .inverseRctTo8Bit = samples::InverseRctTo8Bit,
      .inverseRctShortsTo8Bit = samples::InverseRctShortsTo8Bit,
      .inverseIctTo8Bit = samples::InverseIctTo8Bit,
      .inverseIctSingleTo8Bit = samples::InverseIctSingleTo8Bit,
      .intTo8Bit = samples::IntTo8Bit,
      .shortTo8Bit = samples::ShortTo8Bit,
      .floatTo8Bit = samples::FloatTo8Bit,
      .intsToLevels = samples::IntsToLevels,
      .floatsToLevels = samples::FloatsToLevels,
      .scaleLevels = samples::ScaleLevels,
      .floatsToShorts = samples::FloatsToShorts,
      .levelsToBytes = samples::LevelsToBytes,
      .levelsToWords = samples::LevelsToWords,
  };
}

}  // namespace
}  // namespace kel

#endif
