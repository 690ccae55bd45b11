// Writing the main header of an image that is encoded.
#ifndef KEL_MAIN_HEADER_H
#define KEL_MAIN_HEADER_H

#include <cstdint>

#include "encode/KelImageEncode.h"

namespace kel {

/// Writes the main header of an image to a stream; returns its bytes. The options must have passed
/// the encoder's checks. Quantisation is announced as the steps that the encoder announces, or as
/// steps of 1, always without an encoder: tiles whose steps are others say so in their own headers,
/// so that a quality can still be chosen. Raises 8.
std::uint32_t WriteMainHeader(const KelEncOpt& options, const EncoderState* encoder,
                              KelCodeStm& stream);

}  // namespace kel

#endif
