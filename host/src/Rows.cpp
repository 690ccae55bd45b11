// Row kernels. The numbers of channels that pictures have are spelled out, so that the loops over
// pixels know the distance of their samples.
#include "kel/host/rows.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

// Three bytes per pixel need shuffles that the basic instruction set lacks. The compiler builds
// these functions a second time, for wider vectors; the loader picks what the processor has.
#if defined(__x86_64__) && defined(__gnu_linux__) && defined(__GNUC__) && !defined(__clang__) && \
    !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define KEL_HOST_CLONES [[gnu::target_clones("avx2", "default")]]
#else
#define KEL_HOST_CLONES
#endif

namespace kel::host {
namespace {

template <std::size_t channels, class Sample>
[[gnu::always_inline]] inline void JoinFixed(const Sample* const* planes, std::size_t width,
                                             Sample* __restrict pixels) {
  const Sample* plane[channels];
  for (std::size_t c = 0; c < channels; ++c) plane[c] = planes[c];
  for (std::size_t x = 0; x < width; ++x) {
    for (std::size_t c = 0; c < channels; ++c) pixels[x * channels + c] = plane[c][x];
  }
}

template <std::size_t channels, class Sample>
[[gnu::always_inline]] inline void SplitFixed(const Sample* pixels, std::size_t width,
                                              Sample* const* planes) {
  for (std::size_t c = 0; c < channels; ++c) {
    Sample* __restrict plane = planes[c];
    for (std::size_t x = 0; x < width; ++x) plane[x] = pixels[x * channels + c];
  }
}

KEL_HOST_CLONES void JoinBytesOf3(const std::uint8_t* const* planes, std::size_t width,
                                  std::uint8_t* pixels) {
  JoinFixed<3>(planes, width, pixels);
}
KEL_HOST_CLONES void JoinBytesOf4(const std::uint8_t* const* planes, std::size_t width,
                                  std::uint8_t* pixels) {
  JoinFixed<4>(planes, width, pixels);
}
KEL_HOST_CLONES void JoinWordsOf3(const std::uint16_t* const* planes, std::size_t width,
                                  std::uint16_t* pixels) {
  JoinFixed<3>(planes, width, pixels);
}
KEL_HOST_CLONES void SplitBytesOf3(const std::uint8_t* pixels, std::size_t width,
                                   std::uint8_t* const* planes) {
  SplitFixed<3>(pixels, width, planes);
}

/// Whether samples of this depth are stored as they are.
template <class Sample>
bool FillsSample(unsigned depth) {
  return depth == 8 * sizeof(Sample);
}

}  // namespace

template <class Sample>
void JoinSamples(const Sample* const* planes, std::size_t channels, std::size_t width,
                 Sample* pixels) {
  if (channels == 1) {
    std::copy_n(planes[0], width, pixels);
  } else if (channels == 3) {
    if constexpr (sizeof(Sample) == 1) {
      JoinBytesOf3(planes, width, pixels);
    } else if constexpr (sizeof(Sample) == 2) {
      JoinWordsOf3(planes, width, pixels);
    } else {
      JoinFixed<3>(planes, width, pixels);
    }
  } else if (channels == 4 && sizeof(Sample) == 1) {
    if constexpr (sizeof(Sample) == 1) JoinBytesOf4(planes, width, pixels);
  } else {
    for (std::size_t c = 0; c < channels; ++c) {
      for (std::size_t x = 0; x < width; ++x) pixels[x * channels + c] = planes[c][x];
    }
  }
}

template <class Sample>
void SplitSamples(const Sample* pixels, std::size_t channels, std::size_t width,
                  Sample* const* planes) {
  if (channels == 1) {
    std::copy_n(pixels, width, planes[0]);
  } else if (channels == 3) {
    if constexpr (sizeof(Sample) == 1) {
      SplitBytesOf3(pixels, width, planes);
    } else {
      SplitFixed<3>(pixels, width, planes);
    }
  } else {
    for (std::size_t c = 0; c < channels; ++c) {
      Sample* plane = planes[c];
      for (std::size_t x = 0; x < width; ++x) plane[x] = pixels[x * channels + c];
    }
  }
}

void SwapBytes(std::uint16_t* words, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    words[i] = static_cast<std::uint16_t>(words[i] << 8 | words[i] >> 8);
  }
}

void SwapBigEndian(std::uint16_t* words, std::size_t count) {
  if constexpr (std::endian::native == std::endian::little) SwapBytes(words, count);
}

void ShiftDown(std::uint16_t* words, std::size_t count, unsigned bits) {
  for (std::size_t i = 0; i < count; ++i) words[i] = static_cast<std::uint16_t>(words[i] >> bits);
}

template <class Sample>
Sample Largest(const Sample* samples, std::size_t count) {
  Sample largest = 0;
  for (std::size_t i = 0; i < count; ++i) largest = std::max(largest, samples[i]);
  return largest;
}

template <class Sample>
void Rescale(Sample* samples, std::size_t count, std::uint32_t from, std::uint32_t to) {
  for (std::size_t i = 0; i < count; ++i) {
    samples[i] = static_cast<Sample>((samples[i] * to + from / 2) / from);
  }
}

template <class Sample>
void PackSamples(const Sample* samples, std::size_t count, unsigned depth, std::uint8_t* packed) {
  if (FillsSample<Sample>(depth)) {
    std::memcpy(packed, samples, count * sizeof(Sample));
    return;
  }
  std::uint64_t pending = 0;  // its low numPending bits are still to be written, at most 7
  unsigned numPending = 0;
  for (std::size_t i = 0; i < count; ++i) {
    pending = pending << depth | samples[i];
    for (numPending += depth; numPending >= 8; numPending -= 8) {
      *packed++ = static_cast<std::uint8_t>(pending >> (numPending - 8));
    }
  }
  if (numPending != 0) *packed = static_cast<std::uint8_t>(pending << (8 - numPending));
}

template <class Sample>
void UnpackSamples(const std::uint8_t* packed, std::size_t count, unsigned depth, Sample* samples) {
  if (FillsSample<Sample>(depth)) {
    std::memcpy(samples, packed, count * sizeof(Sample));
    return;
  }
  const auto mask = static_cast<std::uint32_t>((std::uint64_t{1} << depth) - 1);
  std::uint64_t pending = 0;
  unsigned numPending = 0;
  for (std::size_t i = 0; i < count; ++i) {
    for (; numPending < depth; numPending += 8) pending = pending << 8 | *packed++;
    numPending -= depth;
    samples[i] = static_cast<Sample>(static_cast<std::uint32_t>(pending >> numPending) & mask);
  }
}

#define KEL_HOST_FOR_SAMPLE(Sample)                                                    \
  template void JoinSamples(const Sample* const*, std::size_t, std::size_t, Sample*);  \
  template void SplitSamples(const Sample*, std::size_t, std::size_t, Sample* const*); \
  template void PackSamples(const Sample*, std::size_t, unsigned, std::uint8_t*);      \
  template void UnpackSamples(const std::uint8_t*, std::size_t, unsigned, Sample*);    \
  template Sample Largest(const Sample*, std::size_t);                                 \
  template void Rescale(Sample*, std::size_t, std::uint32_t, std::uint32_t);
KEL_HOST_FOR_SAMPLE(std::uint8_t)
KEL_HOST_FOR_SAMPLE(std::uint16_t)
KEL_HOST_FOR_SAMPLE(std::uint32_t)
#undef KEL_HOST_FOR_SAMPLE

}  // namespace kel::host
