// From an image to a file: all tiles, on several threads, with everything the image carries.
#ifndef KEL_HOST_ENCODE_HPP
#define KEL_HOST_ENCODE_HPP

#include "language.hpp"

#include "image.hpp"
#include "parallel.hpp"
#include "row_streams.hpp"
#include "streams.hpp"

namespace kel::host {

enum class PacketOrder {
  kResolutions,  ///< coarse to fine over the whole tile: what arrives first shows a small image
  kComponents    ///< component after component
};

struct EncodeParams {
  bool lossless = false;
  /// 1 to 100, of lossy coding: 60 gives about 40 dB on a photo, 100 is the finest there is.
  /// Samples of one bit are coded without loss whatever it says, since that takes less.
  int quality = 60;
  /// When not 0: the best file of at most so many bytes, without loss if that fits. It is at most
  /// 1 % smaller, unless the finest lossy coding is, or qualities go by whole numbers: with `plain`
  /// and with a region.
  std::uint64_t sizeLimit = 0;
  /// 0: pictures up to 1024 x 1024 samples are not cut, larger ones evenly into tiles of about
  /// 1024 x 512.
  std::uint32_t tileWidth = 0;
  std::uint32_t tileHeight = 0;
  unsigned levels = kFittingLevels;                ///< wavelet decompositions, 0 to 32
  static constexpr unsigned kFittingLevels = ~0U;  ///< 5; of lossy pictures up to 7
  /// Nearest indices and all packets, as encoders before this choice wrote them: larger files.
  bool plain = false;
  PacketOrder order = PacketOrder::kResolutions;
  unsigned layers = 1;
  bool colourTransform = true;        ///< of the first three colours, where they allow it
  const Plane* regionMask = nullptr;  ///< lossy: nonzero where full precision is kept; grid size
  unsigned threads = 0;               ///< 0: one per processor. The output does not depend on it
  Progress progress;                  ///< tiles done; may be empty
  /// When not 0: the peak signal-to-noise ratio, in decibels over the samples of all colours, that
  /// the decoded image has, within 0.1; as near as the quality can bring it where that is not
  /// near enough, and without loss above the finest lossy coding. Not together with sizeLimit.
  double psnr = 0;
  /// Lossy: red, green and blue as luminance and chroma, the latter at half the size both ways, in
  /// the file's standard colour space for that. For low qualities. Pictures of other colours are
  /// coded as ever; those with a profile, which such a file cannot have, are refused.
  bool halfChroma = false;
  /// A checksum of every packet, so that Check and programs like it know what is damaged: four
  /// bytes each, and 14 a tile-part.
  bool checksums = false;
};

struct EncodeReport {
  std::uint64_t bytes = 0;  ///< written
  int quality = 0;          ///< used, to the nearest whole number; 0 when lossless
  unsigned trials = 1;      ///< times that the whole image was coded
  double psnr = 0;          ///< what was reached, when it was asked for
};

/// Encodes an image into a complete file and finishes the sink. The planes must be of one depth
/// (the format has one for all that the encoder writes), 1 to 28 bits, colours first, each of the
/// size that the grid and its steps give. Throws Error: kParameter for an image or parameters that
/// are not allowed, kMemory, kOutput.
EncodeReport Encode(const Image& image, const EncodeParams& params, Sink& sink);

/// The same of rows, of which no more than two rows of tiles stand in memory (one with one thread).
/// A sizeLimit or a psnr takes several trials, and so the whole picture.
EncodeReport Encode(RowSource& rows, const EncodeParams& params, Sink& sink);

/// What a decoder will make of the image encoded with these parameters, without encoding it; with
/// a sizeLimit or a psnr it is encoded and decoded.
/// Samples of 8 bits are what decoding delivers, but for the rounding of few; those of other
/// depths are approximate, since the library's previews have half as many levels.
Image Preview(const Image& image, const EncodeParams& params);

}  // namespace kel::host

#endif
