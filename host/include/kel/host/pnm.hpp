// The plainest image files, so that a program can begin without any other library: PBM, PGM, PPM
// (plain and raw) and PAM, of grey or colour samples of 1 to 16 bits, with or without opacity.
#ifndef KEL_HOST_PNM_HPP
#define KEL_HOST_PNM_HPP

#include "language.hpp"

#include <memory>

#include "image.hpp"
#include "row_streams.hpp"
#include "streams.hpp"

namespace kel::host {

struct PnmParams {
  unsigned page = 1;  ///< of pictures that stand one behind the other
  /// A largest value that is not 2^n - 1 is scaled up to the next one that is. When this is set
  /// the samples stay, and the value becomes a payload of the image (KeptMaxValue).
  bool keepValues = false;
};

/// Opens an image whose rows are read as they are asked for. Null when there are fewer pages. The
/// source of bytes outlives that of rows. Throws Error (kInput).
std::unique_ptr<RowSource> OpenPnm(Source& source, const PnmParams& params = {});
/// Reads one image.
Image ReadPnm(Source& source);

/// The largest value of samples that were kept as they are below it; 0 when they use their depth.
/// It is written to PNM files again; an image without it is scaled.
std::uint32_t KeptMaxValue(const Image& image);
/// Notes it; 0 takes the note away.
void SetKeptMaxValue(Image& image, std::uint32_t value);
/// Scales such samples up to their depth; of others nothing changes.
void UseFullRange(Image& image);

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
