// What happens to rows of samples on their way between images, files and the library: joining and
// splitting of pixels, byte order, depth, and packing without gaps, as PBM and TIFF files and the
// library do it with depths that do not fill whole bytes.
//
// Leaf functions over plain arrays, written so that the compiler makes vectors of them. Sample is
// std::uint8_t, std::uint16_t or std::uint32_t.
#ifndef KEL_HOST_ROWS_HPP
#define KEL_HOST_ROWS_HPP

#include "language.hpp"

#include <cstddef>
#include <cstdint>

namespace kel::host {

inline std::uint64_t PackedRowBytes(std::uint64_t samples, unsigned depth) {
  return (samples * depth + 7) / 8;
}

/// pixels[x * channels + c] = planes[c][x].
template <class Sample>
void JoinSamples(const Sample* const* planes, std::size_t channels, std::size_t width,
                 Sample* pixels);

/// The reverse of JoinSamples.
template <class Sample>
void SplitSamples(const Sample* pixels, std::size_t channels, std::size_t width,
                  Sample* const* planes);

/// Exchanges the bytes of every word.
void SwapBytes(std::uint16_t* words, std::size_t count);
/// From big-endian words to the machine's, or back.
void SwapBigEndian(std::uint16_t* words, std::size_t count);

/// Divides every word by 2^bits.
void ShiftDown(std::uint16_t* words, std::size_t count, unsigned bits);

/// Largest of the samples; 0 for none.
template <class Sample>
Sample Largest(const Sample* samples, std::size_t count);

/// samples[i] = (samples[i] * to + from / 2) / from, for largest values below 2^16. What is above
/// `from` comes out above `to` or cut to the sample's bits.
template <class Sample>
void Rescale(Sample* samples, std::size_t count, std::uint32_t from, std::uint32_t to);

/// Samples of `depth` bits one after another, most significant bit first; the last byte is filled
/// with zero bits. Depths of the sample's own size are words in the machine's order.
template <class Sample>
void PackSamples(const Sample* samples, std::size_t count, unsigned depth, std::uint8_t* packed);
/// The reverse of PackSamples.
template <class Sample>
void UnpackSamples(const std::uint8_t* packed, std::size_t count, unsigned depth, Sample* samples);

}  // namespace kel::host

#endif
