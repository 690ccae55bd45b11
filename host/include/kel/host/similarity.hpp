// How alike two images look.
#ifndef KEL_HOST_SIMILARITY_HPP
#define KEL_HOST_SIMILARITY_HPP

#include "language.hpp"

#include "image.hpp"

namespace kel::host {

/// The structural similarity of two images, at most 1, which means equal: the mean over the planes
/// of the mean over all windows of (2 ma mb + c1)(2 cov + c2) / ((ma^2 + mb^2 + c1)(va + vb + c2)),
/// with the means, variances and covariance of a window weighted by a Gaussian of 11 x 11 samples
/// and a standard deviation of 1.5, c1 = (0.01 peak)^2 and c2 = (0.03 peak)^2: the values in common
/// use. In a plane narrower or lower than a window, windows are as wide or high as the plane.
/// Throws Error (kParameter) when the images differ in the number, size or depth of their planes.
double Ssim(const Image& a, const Image& b);

}  // namespace kel::host

#endif
