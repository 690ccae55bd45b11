// The plainest image files, so that a program can begin without any other library: PBM, PGM, PPM
// (plain and raw) and PAM, of grey or colour samples of 1 to 16 bits, with or without opacity.
#ifndef KEL_HOST_PNM_HPP
#define KEL_HOST_PNM_HPP

#include "image.hpp"
#include "streams.hpp"

namespace kel::host {

/// Reads one image. A largest value that is not 2^n - 1 is scaled up to the next one that is.
/// Throws Error (kInput).
Image ReadPnm(Source& source);

enum class PnmKind {
  kPlainest,  ///< PGM or PPM, or PAM when there is opacity
  kPbm,       ///< PBM; one grey plane of 1 bit
  kPam        ///< PAM
};

/// Writes one image, raw, and finishes the sink. Palettes, profiles and whatever else the format
/// cannot hold are left out; throws Error (kOutput) for samples that it cannot hold.
void WritePnm(const Image& image, Sink& sink, PnmKind kind = PnmKind::kPlainest);

}  // namespace kel::host

#endif
