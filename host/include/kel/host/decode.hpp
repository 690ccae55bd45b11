// From a file or code stream to an image: at once, on several threads, or as the bytes arrive.
#ifndef KEL_HOST_DECODE_HPP
#define KEL_HOST_DECODE_HPP

#include <memory>
#include <vector>

#include "image.hpp"
#include "parallel.hpp"
#include "row_streams.hpp"
#include "streams.hpp"

namespace kel::host {

struct DecodeParams {
  unsigned reduce = 0;            ///< halvings of width and height
  bool acceptIncomplete = false;  ///< deliver what is there instead of throwing (kIncomplete)
  /// Sums of the irreversible filter in double instead of single precision, for samples of up to 8
  /// bits: fewer than one of 15,000 samples of photographs differ, by one level.
  bool exact = false;
  unsigned threads = 0;  ///< 0: one per processor. The samples do not depend on it
  Progress progress;     ///< groups of tiles done; may be empty
};

struct DecodeReport {
  bool complete = false;  ///< every packet of every tile was there
  std::size_t numTiles = 0, numCompleteTiles = 0;
  std::string problem;  ///< first failure met on the way, as a sentence; empty when none
};

/// Decodes everything. Planes are in the order of the code stream. Where tiles are missing the
/// samples are zero. Throws Error: kInput when the data cannot be decoded at all, kIncomplete,
/// kMemory, kParameter.
///
/// The first halving is the decoder's own, where every component has a resolution to leave out;
/// further ones are averages of 2 x 2 samples.
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

/// Decodes data as they arrive.
class ProgressiveDecoder {
 public:
  /// What a piece of data has changed.
  struct Update {
    bool headerIsNew = false;                 ///< GetImage can be called from now on
    std::vector<std::size_t> improvedTiles;   ///< whose samples became better
    std::vector<std::size_t> completedTiles;  ///< of which nothing more can come
    bool complete = false;                    ///< every tile is complete
  };

  ProgressiveDecoder();
  ~ProgressiveDecoder();
  ProgressiveDecoder(const ProgressiveDecoder&) = delete;
  ProgressiveDecoder& operator=(const ProgressiveDecoder&) = delete;

  /// Takes the next bytes and decodes what they complete. Throws Error (kInput) for data that
  /// cannot become an image, kMemory.
  Update Feed(ByteView more);
  bool HasHeader() const;
  /// The image as it stands; throws Error (kIncomplete) before the header is there.
  Image GetImage() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kel::host

#endif
