// Smaller files of the same picture by copying bytes: fewer resolutions, or a part of the tiles.
#ifndef KEL_HOST_TRIM_HPP
#define KEL_HOST_TRIM_HPP

#include "language.hpp"

#include <optional>

#include "decode.hpp"
#include "ranges.hpp"

namespace kel::host {

struct TrimParams {
  unsigned reduce = 0;                ///< resolutions left out, from the top
  std::optional<Region> region = {};  ///< the tiles that it touches stay; else all
};

/// Writes the picture with fewer resolutions or tiles. Headers are rewritten and packets copied;
/// nothing is decoded. Decoded, the result is the full picture decoded with as many halvings, and
/// of a region its tiles. Boxes around the code stream stay, but for the size in them.
///
/// Throws Error: kParameter for a region outside the picture, for more halvings than a tile holds,
/// for halvings of a picture with a palette, and where the tiles' edges would not lie on a grid
/// afterwards; kInput for data that are damaged or incomplete; kMemory, and what the sink throws.
void Trim(RangeSource& source, const TrimParams& params, Sink& sink);

}  // namespace kel::host

#endif
