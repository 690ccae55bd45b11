// One image object set up to encode an image, from which tiles are taken in any number.
//
// Every worker of an encode has one of its own. All of them write the same headers; each tile's
// bytes depend on the image, the parameters and the tile alone.
#ifndef KEL_HOST_TILE_ENCODER_HPP
#define KEL_HOST_TILE_ENCODER_HPP

#include <memory>

#include "Library.hpp"
#include "kel/host/encode.hpp"

namespace kel::host {

/// The parameters with every default filled in. Throws Error (kParameter) for an image or
/// parameters that cannot be encoded.
EncodeParams CheckedParams(const Image& image, const EncodeParams& params);

class TileEncoder {
 public:
  /// image and params, as CheckedParams returned them, outlive the encoder.
  TileEncoder(const Image& image, const EncodeParams& params, int quality);
  ~TileEncoder();
  TileEncoder(const TileEncoder&) = delete;
  TileEncoder& operator=(const TileEncoder&) = delete;

  std::size_t NumTiles() const;
  /// Boxes and main header.
  const Bytes& Headers() const;
  /// All tile-parts of a tile; the last tile's end with the end marker. Tiles in increasing order.
  Bytes EncodeTile(std::size_t tile);
  KelImage& Object();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kel::host

#endif
