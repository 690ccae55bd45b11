// EXIF data of an image, and what of them bears on showing it.
#ifndef KEL_HOST_EXIF_HPP
#define KEL_HOST_EXIF_HPP

#include "language.hpp"

#include <array>
#include <cstdint>

#include "image.hpp"

namespace kel::host {

/// The identifier of a UUID payload that holds EXIF data as a TIFF file: the characters
/// JpgTiffExif->JP2.
inline constexpr std::array<std::uint8_t, 16> kExifId = {'J', 'p', 'g', 'T', 'i', 'f', 'f', 'E',
                                                         'x', 'i', 'f', '-', '>', 'J', 'P', '2'};

/// The EXIF data, a TIFF file; empty when there are none.
ByteView FindExif(const Image& image);

/// How EXIF says that the image is to be turned for showing, 1 to 8; 1, as it is, when it says
/// nothing that can be read. 2 is mirrored left to right, 3 upside down, 4 mirrored top to bottom;
/// 5 to 8 have width and height exchanged: 6 has to be turned right by 90 degrees, 8 left, 5 and 7
/// are mirrored at the falling and the rising diagonal.
unsigned OrientationOf(const Image& image);

}  // namespace kel::host

#endif
