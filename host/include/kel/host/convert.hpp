// Changes of form that applications need between a decoded image and the screen or a file.
#ifndef KEL_HOST_CONVERT_HPP
#define KEL_HOST_CONVERT_HPP

#include "language.hpp"

#include <vector>

#include "image.hpp"

namespace kel::host {

/// Replaces indices by the colours of the palette; nothing to do without one.
void ExpandPalette(Image& image);

/// Brings every plane to the size of the grid. The sample in column k of a subsampled plane stands
/// at column k * xStep of the grid, and rows likewise; what lies between is interpolated.
void UndoSubsampling(Image& image);

/// Turns luminance and chroma (ColourSpace::kSycc) into sRGB; nothing to do for other spaces.
/// The planes must be of full size.
void ConvertYccToRgb(Image& image);

/// Red, green and blue as luminance and chroma (ColourSpace::kSycc), the latter at half the size
/// both ways: ConvertYccToRgb behind UndoSubsampling gives them back. The colours come first in the
/// image and stand on the whole grid; other planes are copied.
Image WithHalfChroma(const Image& image);

/// Puts the colour planes first, by colour number, then the opacity of the whole image, then the
/// rest in the order they had.
void OrderPlanes(Image& image);

/// All of the above, in the order needed to show the image or to write an ordinary image file.
void MakeOrdinary(Image& image);

/// Whether MakeOrdinary would leave the image as it is. Its planes need not hold samples.
bool IsOrdinary(const Image& image);

/// Scales all samples to another depth, 1 to 32 bits, rounding to nearest. Throws Error
/// (kParameter) for an image with a palette.
void ChangeDepth(Image& image, unsigned depth);

/// Turns the image clockwise by 0, 90, 180 or 270 degrees; Error (kParameter) for another angle.
void Rotate(Image& image, int degrees);

/// Brings an image upright that is stored in one of the eight ways that EXIF and TIFF number from 1
/// (as it is seen) to 8. Throws Error (kParameter) for another number.
void Orient(Image& image, unsigned orientation);

/// How far two images are apart, per plane.
struct Difference {
  struct PlaneDifference {
    double psnr = 0;            ///< decibels; infinite when equal
    std::uint32_t largest = 0;  ///< largest difference of two samples
    std::uint64_t count = 0;    ///< samples that differ
  };
  std::vector<PlaneDifference> planes;
  double psnr = 0;  ///< over all samples of all planes
  bool identical = false;
};

/// Throws Error (kParameter) when the images differ in the number, size or depth of their planes.
Difference Compare(const Image& a, const Image& b);

}  // namespace kel::host

#endif
