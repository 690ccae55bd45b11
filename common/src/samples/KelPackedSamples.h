// Packed samples: values of 1 to 32 bits behind each other, most significant bit first, as the
// depths other than 8 and 16 have them. A reader and a writer.
//
// The bytes belong to the caller. Neither function touches a byte outside those that the samples
// asked for occupy or, for the reader, outside the row that it is told of.
#ifndef KEL_PACKED_SAMPLES_H
#define KEL_PACKED_SAMPLES_H

#include <cstddef>
#include <cstdint>

namespace kel {

/// Samples in one packed row. Sample k begins at bit firstBit + k * stepBits of the row.
struct PackedSamples {
  const std::uint8_t* row;
  std::uint64_t rowBytes;
  std::uint64_t firstBit;
  std::uint32_t stepBits;
  int bitDepth;  ///< 1 to 32
};

/// Reads samples as unsigned numbers; all of them must lie within the row.
void UnpackSamples(const PackedSamples& packed, std::uint32_t* out, std::size_t count);

/// Writes the low numBits (1 to 32) bits of each value without gaps from the first bit of out on;
/// the last byte is filled up with zero bits.
void PackSamples(const std::int32_t* values, std::size_t count, int numBits, std::uint8_t* out);

}  // namespace kel

#endif
