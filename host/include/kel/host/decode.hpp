// From a file or code stream to an image: at once, on several threads, or as the bytes arrive.
#ifndef KEL_HOST_DECODE_HPP
#define KEL_HOST_DECODE_HPP

#include "language.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "image.hpp"
#include "parallel.hpp"
#include "row_streams.hpp"
#include "streams.hpp"

namespace kel::host {

/// A rectangle of the picture, in its full size from its upper left corner.
struct Region {
  std::uint32_t x = 0, y = 0, width = 0, height = 0;
};

struct DecodeParams {
  unsigned reduce = 0;            ///< halvings of width and height
  bool acceptIncomplete = false;  ///< deliver what is there instead of throwing (kIncomplete)
  /// Sums of the irreversible filter in double instead of single precision, for samples of up to 8
  /// bits: fewer than one of 15,000 samples of photographs differ, by one level.
  bool exact = false;
  unsigned threads = 0;               ///< 0: one per processor. The samples do not depend on it
  Progress progress;                  ///< groups of tiles done; may be empty
  std::optional<Region> region = {};  ///< only this part, clipped to the picture; else all of it
  /// Unless 0: at least as many halvings as make the image so small.
  std::uint32_t fitWidth = 0, fitHeight = 0;
};

struct DecodeReport {
  bool complete = false;                           ///< every packet of every tile was there
  std::size_t numTiles = 0, numCompleteTiles = 0;  ///< of those that the region touches
  std::string problem;  ///< first failure met on the way, as a sentence; empty when none
};

/// Decodes everything. Planes are in the order of the code stream. Where tiles are missing the
/// samples are zero. Throws Error: kInput when the data cannot be decoded at all, kIncomplete,
/// kMemory, kParameter.
///
/// Halvings leave out resolutions of the wavelet; where some tile holds fewer, those beyond are
/// averages of 2 x 2 samples, and with a region an error (kParameter). With halvings or a region
/// only the bytes that they need are read of a source that knows its size.
Image Decode(Source& source, const DecodeParams& params = {}, DecodeReport* report = nullptr);

/// A picture that is decoded row of tiles by row of tiles, while its data are read, where these
/// allow it: full size, several tiles, tile after tile in the data. Else it is decoded whole.
class RowDecoder {
 public:
  /// Reads the header. source outlives the decoder. Throws as Decode.
  RowDecoder(Source& source, const DecodeParams& params);
  ~RowDecoder();
  RowDecoder(const RowDecoder&) = delete;
  RowDecoder& operator=(const RowDecoder&) = delete;

  /// The image but for its samples.
  const Image& Description() const;
  /// What Decode gives, and throws. Call one of these, once. That into rows throws Error
  /// (kParameter) unless HasPlainRows(Description()), and finishes the sink.
  DecodeReport Decode(RowSink& sink);
  Image DecodeImage(DecodeReport* report = nullptr);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

struct ProgressiveParams {
  std::optional<Region> region = {};  ///< only this part, clipped to the picture; else all of it
  unsigned reduce = 0;  ///< halvings, by resolutions of the wavelet; tiles without so many
                        ///< levels stay empty
};

/// Decodes data as they arrive.
class ProgressiveDecoder {
 public:
  /// What has changed since the last piece.
  struct Update {
    bool headerIsNew = false;  ///< Description, Look and GetImage can be called from now on
    std::vector<std::size_t> improvedTiles;   ///< whose samples became better
    std::vector<std::size_t> completedTiles;  ///< of which nothing more can come
    bool complete = false;                    ///< every tile wanted is complete
    Region improved;  ///< of the image's samples, what became better; empty when nothing did
  };

  explicit ProgressiveDecoder(const ProgressiveParams& params = {});
  ~ProgressiveDecoder();
  ProgressiveDecoder(const ProgressiveDecoder&) = delete;
  ProgressiveDecoder& operator=(const ProgressiveDecoder&) = delete;

  /// Takes the next bytes. They are decoded when enough have come to make it worth while, which is
  /// about once for every tile, when the end marker comes (unless many pieces ended with one that
  /// was none), and when `more` is empty: then all that has come is decoded. Planes are made when
  /// the first packets have come. Throws Error: kInput for data that cannot become an image,
  /// kParameter for a region outside the picture and more halvings than it holds, kMemory. After an
  /// Error the bytes are taken, and a later call decodes them; after std::bad_alloc they are not.
  Update Feed(ByteView more);
  bool HasHeader() const;
  /// What the header says of the image. Its planes tell their sizes; whether they hold samples
  /// already, is not said. Throws Error (kIncomplete) before the header is there.
  const Image& Description() const;
  /// The image as the last Update left it, not a copy: it holds until the next Feed or GetImage.
  /// Throws as Description, and Error (kMemory) when this makes the planes.
  const Image& Look() const;
  /// Decodes all that has come, and copies the image; the next Update tells what became better by
  /// it. Throws as Feed and Look.
  Image GetImage() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kel::host

#endif
