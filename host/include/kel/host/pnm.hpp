// The plainest image files, so that a program can begin without any other library: PBM, PGM, PPM
// (plain and raw) and PAM, of grey or colour samples of 1 to 16 bits, with or without opacity.
#ifndef KEL_HOST_PNM_HPP
#define KEL_HOST_PNM_HPP

#include <memory>

#include "image.hpp"
#include "row_streams.hpp"
#include "streams.hpp"

namespace kel::host {

/// Opens an image whose rows are read as they are asked for. A largest value that is not 2^n - 1 is
/// scaled up to the next one that is. The source of bytes outlives that of rows. Throws Error
/// (kInput).
std::unique_ptr<RowSource> OpenPnm(Source& source);
/// Reads one image.
Image ReadPnm(Source& source);

enum class PnmKind {
  kPlainest,  ///< PGM or PPM, or PAM when there is opacity
  kPbm,       ///< PBM; one grey plane of 1 bit
  kPam        ///< PAM
};

/// A sink of rows that writes them, raw, and finishes the sink of bytes, which outlives it.
/// Palettes, profiles and whatever else the format cannot hold are left out; Begin throws Error
/// (kOutput) for samples that it cannot hold.
std::unique_ptr<RowSink> MakePnm(Sink& sink, PnmKind kind = PnmKind::kPlainest);
/// Writes one image.
void WritePnm(const Image& image, Sink& sink, PnmKind kind = PnmKind::kPlainest);

}  // namespace kel::host

#endif
