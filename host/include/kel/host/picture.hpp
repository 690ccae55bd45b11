// A picture opened for looking at: any region of it at any of its resolutions, read and decoded
// when it is asked for.
#ifndef KEL_HOST_PICTURE_HPP
#define KEL_HOST_PICTURE_HPP

#include "language.hpp"

#include <cstdint>
#include <memory>

#include "decode.hpp"
#include "image.hpp"
#include "ranges.hpp"

namespace kel::host {

struct PictureParams {
  std::uint64_t cacheBytes = std::uint64_t{64} << 20;  ///< of decoded tiles that are kept
  bool exact = false;                                  ///< as in DecodeParams
  /// Of a source that is not near: data are fetched, and up to 8 MiB of them kept, in blocks of so
  /// many bytes. 0: exactly what is needed, each time that it is.
  std::uint64_t blockBytes = 1024;
};

/// Every operation may be called on any thread.
class Picture {
 public:
  /// Reads what stands in front of the tiles, and where these are. source outlives the picture.
  /// Throws Error (kInput, kMemory).
  explicit Picture(RangeSource& source, const PictureParams& params = {});
  ~Picture();
  Picture(const Picture&) = delete;
  Picture& operator=(const Picture&) = delete;

  /// Everything about the picture but its samples: the planes are empty.
  const Image& Description() const;
  /// The image that Decode gives of the whole picture with so many halvings, without its samples.
  /// Throws Error (kParameter) for more than 31.
  Image Describe(unsigned reduce) const;
  std::uint32_t Width() const;
  std::uint32_t Height() const;
  std::uint32_t TilesAcross() const;
  std::uint32_t TilesDown() const;
  /// The place of a tile, counted in rows from 0; throws Error (kParameter) for others.
  Region TileRegion(std::uint32_t tile) const;
  /// Halvings that the coding holds by the main header; a tile may hold fewer.
  unsigned Levels() const;

  /// Bytes of the data that stand in front of the tiles, and those that a tile needs, in the order
  /// of the data. Throw Error: kParameter for a tile that does not exist, kInput, kMemory.
  std::uint64_t FrontBytes() const;
  std::vector<ByteRange> BytesOf(std::uint32_t tile, unsigned reduce = 0);
  /// Where a tile stands in the data, whatever of it is needed; nothing in it is read for that.
  /// Throws as BytesOf.
  std::vector<ByteRange> PlacesOf(std::uint32_t tile);

  /// The samples of a region, clipped to the picture, with width and height halved `reduce` times:
  /// those that decoding everything at this resolution gives there. Only the bytes that they need
  /// are read. Where data are missing the samples are zero; *report, unless null, receives how many
  /// of the tiles touched are whole. Throws Error: kParameter for a region outside the picture and
  /// for more halvings than a tile holds; kInput, kMemory.
  Image Decode(const Region& region, unsigned reduce = 0, unsigned threads = 1,
               DecodeReport* report = nullptr);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kel::host

#endif
