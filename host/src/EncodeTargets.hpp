// Encoding to a target: a size of the file, or an error of the decoded image.
#ifndef KEL_HOST_ENCODE_TARGETS_HPP
#define KEL_HOST_ENCODE_TARGETS_HPP

#include "TileEncoder.hpp"

namespace kel::host {

inline bool HasTarget(const EncodeParams& params) {
  return params.sizeLimit != 0 || params.psnr != 0;
}

/// Encodes for a sizeLimit or a psnr. The parameters are as CheckedParams returned them. Does not
/// finish the sink.
EncodeReport EncodeToTarget(const Image& image, const EncodeParams& params, Sink& sink);

}  // namespace kel::host

#endif
