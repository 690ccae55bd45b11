// Delivering a tile: from its coefficients to the samples that the host asked for.
#ifndef KEL_TILE_OUTPUT_H
#define KEL_TILE_OUTPUT_H

#include "KelBandSource.h"
#include "KelFrameRequest.h"
#include "base/KelMemFuncDefs.h"

namespace kel {

/// Working memory of the inverse transforms, shared by the tiles of a frame.
class OutputScratch {
 public:
  /// At least so many 32-bit cells, aligned; contents undefined. Raises 8.
  void* Cells(std::uint64_t count) {
    if (cells_.Size() < count || !cells_) {
      cells_ = {};
      cells_ = ScratchArray<std::uint32_t>::Make(count);
    }
    return cells_.Data();
  }
  /// At least so many, contents undefined. Raises 8.
  CodedBand* Bands(std::uint64_t count) {
    if (bands_.Size() < count || !bands_) {
      bands_ = {};
      bands_ = ScratchArray<CodedBand>::Make(count);
    }
    return bands_.Data();
  }

 private:
  ScratchArray<CodedBand> bands_;
  ScratchArray<std::uint32_t> cells_;
};

/// What the host leaves to the decoder for the sake of speed.
struct DecodeManner {
  bool singlePrecision;      ///< sums of the 9/7 filter and the colours of 8-bit samples
  bool withoutOutputImages;  ///< for samples of 8 bits that the host's buffer takes whole
};

/// What delivering needs to know beside the tile.
struct DeliveryContext {
  ImageMap& map;
  const FrameRequest& request;
  DecodeManner manner;
  WorkMeter& work;
  bool forceComponentTransform;     ///< the decoder option
  std::int32_t colorComponents[3];  ///< components that carry colours 1 to 3
};

/// Reconstructs the samples of a tile from what has been decoded, in the form that the request
/// describes, into the components' output images and the host's buffers. A tile that has not
/// changed is left alone. A complete tile's coefficients are released on the way. Raises 8 and 28;
/// the tile then starts anew. So it does, with false, when it was taken and a band did not end
/// where its length says: it must be decoded as it is read.
bool DeliverTile(const DeliveryContext& context, TileRecord& tile, OutputScratch& scratch);

}  // namespace kel

#endif
