// Vector kernels of the block coder. They are written for AVX2, and for BMI2 where the set allows
// it. With SSE2 alone, blocks of 16-bit coefficients are encoded in vectors, and the other kernels
// are the scalar ones, as all are without SSE2.
//
// Included by one source per instruction set; everything here is local to that source. Same bits as
// the scalar reference.
#ifndef KEL_BLOCKS_VECTOR_H
#define KEL_BLOCKS_VECTOR_H

#include "KelBlocksKernels.h"

#if defined(__AVX2__)

#include "KelBlocksDecodeVector.h"
#include "KelBlocksEncodeVector.h"

namespace kel {
namespace {

inline void OverwriteWithVector(BlocksKernels& table) noexcept {
  table.decodeSeparateSigns = DecodeRunVector<std::int32_t>;
  table.decodeShorts = DecodeRunVector<std::int16_t>;
  table.decodeFloats = DecodeRunVector<float>;
  table.encodeIntegers = EncodeIntegersVector;
  table.encodeShorts = EncodeShortsVector;
  table.countPlanesOfIntegers = CountPlanesOfIntegers;
  table.countPlanesOfShorts = CountPlanesOfShorts;
}

}  // namespace
}  // namespace kel

#elif defined(__SSE2__)

#include "KelBlocksEncodeBase.h"

namespace kel {
namespace {

inline void OverwriteWithVector(BlocksKernels& table) noexcept {
  table.encodeShorts = EncodeShortsVector;
  table.countPlanesOfShorts = CountPlanesOfShorts;
}

}  // namespace
}  // namespace kel

#else

namespace kel {
namespace {

inline void OverwriteWithVector(BlocksKernels&) noexcept {}

}  // namespace
}  // namespace kel

#endif

#endif
