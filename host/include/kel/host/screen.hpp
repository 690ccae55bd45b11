// Pixels as screens and toolkits take them.
#ifndef KEL_HOST_SCREEN_HPP
#define KEL_HOST_SCREEN_HPP

#include "language.hpp"

#include <cstddef>
#include <cstdint>

#include "image.hpp"

namespace kel::host {

/// Writes an image as pixels of 8 bits each for red, green, blue and, if wanted, opacity, by which
/// the colours are not multiplied; rows begin every strideBytes. Palettes are looked up, chroma is
/// brought to full size; profiles are left to the caller. Throws Error: kInput for an image without
/// colours, kMemory.
void PutScreenPixels(Image image, bool withOpacity, std::uint8_t* to, std::size_t strideBytes);

}  // namespace kel::host

#endif
