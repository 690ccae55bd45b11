// Tiles cut out of the rows of a picture that is read from top to bottom, without holding it: a
// band of rows stands in memory for every row of tiles at work.
#ifndef KEL_HOST_ROW_BANDS_HPP
#define KEL_HOST_ROW_BANDS_HPP

#include <array>
#include <condition_variable>
#include <exception>
#include <mutex>

#include "TileEncoder.hpp"
#include "kel/host/row_streams.hpp"
#include "kel/host/session.hpp"

namespace kel::host {

/// The workers that encode tiles read the bands themselves, one worker at a time, in strips that
/// fit the caches: as rows are wanted, and where there are several workers the next band behind a
/// tile, so that reading and coding go on side by side. Rows can be looked at as soon as their
/// strip is there. A band whose tiles all have been taken makes room for the next. Tiles as wide as
/// the picture need no band where there is one worker for them.
class RowBands final : public TileSamples {
 public:
  /// source outlives this. Throws Error (kMemory) beyond the session's limit.
  RowBands(RowSource& source, const EncodeParams& params);
  bool Interleaved() const override { return true; }
  void Copy(std::size_t, const TileBox& box, std::uint8_t* to) override;
  bool GivesRows() const override { return givesRows_; }
  Rows RowsOf(const TileBox& box, std::uint32_t row) override;
  void ReleaseRows(const TileBox& box) noexcept override;
  void Abandon() override;

 private:
  struct Band {
    std::size_t index = SIZE_MAX;  ///< SIZE_MAX: free to be read into
    std::size_t numTaken = 0;      ///< tiles
    SampleBuffer rows;
  };
  using Lock = std::unique_lock<std::mutex>;

  Band& BandOf(std::size_t index) { return bands_[index % numBands_]; }
  /// Waits until a row of the picture has been read, or reads it. Returns the row behind the last
  /// one that was.
  std::uint32_t AwaitRow(std::uint32_t y);
  /// Whether the next row can be read now: nobody reads, and there is room in its band.
  bool CanRead(const Lock&);
  /// Reads the next strip, or what is left of a band of it, with the lock let go meanwhile.
  void ReadStrip(Lock& lock);
  /// A tile of a band has been taken. Reads the band behind it where that can be.
  void EndTile(std::size_t index);
  /// Where a rectangle begins in its band.
  const std::uint8_t* Inside(const TileBox& box);
  /// A tile as wide as the picture, straight from the source.
  void ReadTile(const TileBox& box, std::uint8_t* to);

  RowSource& source_;
  const std::uint32_t width_, height_, bandHeight_;
  const std::size_t tilesAcross_, numBands_, pixelBytes_, rowBytes_;
  const bool areAsTheyAre_, givesRows_;
  std::array<Band, 2> bands_;
  const std::uint32_t stripHeight_;
  SampleBuffer strip_;  ///< rows of tiles as wide as the picture, which only one worker takes
  MemoryReservation room_;

  std::mutex mutex_;  ///< of what follows, and of the bands' numbers
  std::condition_variable changed_;
  bool reading_ = false;
  std::uint32_t nextRow_ = 0;  ///< of the picture, to be read
  std::exception_ptr failure_;
};

}  // namespace kel::host

#endif
