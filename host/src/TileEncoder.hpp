// One image object set up to encode an image, from which tiles are taken in any number.
//
// Every worker of an encode has one of its own. All of them write the same headers; each tile's
// bytes depend on the image, the parameters and the tile alone.
#ifndef KEL_HOST_TILE_ENCODER_HPP
#define KEL_HOST_TILE_ENCODER_HPP

#include <functional>
#include <memory>

#include "Library.hpp"
#include "kel/host/encode.hpp"

namespace kel::host {

/// Left, top, width and height of a tile in the samples of one component.
struct TileBox {
  std::uint32_t x, y, width, height;
};

/// Where the samples of tiles come from. Used by all encoders of an image together.
class TileSamples {
 public:
  virtual ~TileSamples() = default;
  /// Whether Copy gives all components of a tile together, pixel after pixel.
  virtual bool Interleaved() const = 0;
  /// Writes the samples of a rectangle in the form that the library takes: bytes for a depth of 8,
  /// words for 16, else packed bits; rows fill whole bytes. component is for single ones. May
  /// throw.
  virtual void Copy(std::size_t component, const TileBox& box, std::uint8_t* to) = 0;
  /// Rows that stand in memory, pixel after pixel in the form that Copy gives.
  struct Rows {
    const std::uint8_t* first;
    std::uint32_t count;
    std::size_t strideBytes;
  };
  /// Whether rows can be looked at where they stand, in place of Copy.
  virtual bool GivesRows() const { return false; }
  /// Rows of a rectangle from one on, which stand until the next ones are asked for; from the first
  /// to the last. May throw.
  virtual Rows RowsOf(const TileBox&, std::uint32_t) { return {}; }
  /// The rows of a rectangle have been looked at.
  virtual void ReleaseRows(const TileBox&) noexcept {}
  /// Some tile will not be taken: nobody waits for that any longer.
  virtual void Abandon() {}
};

/// The planes of an image that outlives this.
class PlaneSamples final : public TileSamples {
 public:
  explicit PlaneSamples(const Image& image) : image_(image) {}
  bool Interleaved() const override { return false; }
  void Copy(std::size_t component, const TileBox& box, std::uint8_t* to) override;

 private:
  const Image& image_;
};

/// The parameters with every default filled in. Throws Error (kParameter) for an image or
/// parameters that cannot be encoded.
EncodeParams CheckedParams(const Image& image, const EncodeParams& params);

class TileEncoder {
 public:
  /// All of these, the parameters as CheckedParams returned them, outlive the encoder. The planes
  /// of the image need not hold samples.
  TileEncoder(const Image& image, TileSamples& samples, const EncodeParams& params, double quality);
  ~TileEncoder();
  TileEncoder(const TileEncoder&) = delete;
  TileEncoder& operator=(const TileEncoder&) = delete;

  std::size_t NumTiles() const;
  /// Boxes and main header.
  const Bytes& Headers() const;
  /// Takes the next bytes of the tile at work; false, as long as their turn has not come, to be
  /// asked again. May throw.
  using TakePart = std::function<bool(ByteView)>;
  /// All tile-parts of a tile, less those bytes that were taken on the way; the last tile's end
  /// with the end marker. Tiles in increasing order. The bytes stand until the next call.
  ByteView EncodeTile(std::size_t tile, const TakePart& takePart = {});
  KelImage& Object();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kel::host

#endif
