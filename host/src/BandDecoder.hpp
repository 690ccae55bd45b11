// Decoding a picture whose tile-parts come one after another, a row of tiles at a time, into rows.
#ifndef KEL_HOST_BAND_DECODER_HPP
#define KEL_HOST_BAND_DECODER_HPP

#include <array>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#include "DecodePart.hpp"
#include "TilePartFeed.hpp"
#include "kel/host/session.hpp"

namespace kel::host {

/// Workers take runs of neighbouring tiles in the order of the data. The one that comes first to a
/// row of tiles fetches its tile-parts, the one that ends a row writes it, while others go on with
/// the next. One band of planes is in work for one worker, two for more.
class BandDecoder {
 public:
  /// All of these outlive this. Throws Error (kMemory) beyond the session's limit.
  BandDecoder(TilePartFeed& feed, const DecodeParams& params, RowSink& sink);
  /// Decodes and writes everything, between Begin and Finish of the sink, which are the caller's.
  DecodeReport Run();

 private:
  struct Band {
    std::size_t row = SIZE_MAX;  ///< of tiles; SIZE_MAX: free
    std::size_t numLeft = 0;     ///< runs that are not done
    std::vector<ComponentArea> areas;
    std::vector<Plane> planes;
    std::vector<std::vector<TilePartFeed::Part>> parts;  ///< of every tile of the row
  };

  Band& BandOf(std::size_t row) { return bands_[row % numBands_]; }
  TileRun RowOfTiles(std::size_t row) const;
  void MakeRoom(unsigned threads);
  /// Waits for a band, or opens it.
  Band& Ready(std::size_t row);
  void Open(std::size_t row);
  /// data: for the run's bytes, kept from one to the next.
  void DecodeRun(Band& band, const TileRun& run, Bytes& data);
  void DecodeTiles(Band& band, const TileRun& run, const std::vector<TilePartBytes>& parts,
                   Bytes& data);
  void EndRun(std::size_t row);
  void Write(const Band& band);

  TilePartFeed& feed_;
  const DecodeParams& params_;
  RowSink& sink_;
  const KelImageGeometry& grid_;
  const std::size_t across_, down_;
  std::size_t numBands_ = 1;
  std::array<Band, 2> bands_;
  MemoryReservation room_;
  std::shared_mutex alone_;  ///< held alone by a worker that memory did not suffice for

  std::mutex mutex_;  ///< of what follows, and of the bands' numbers
  std::condition_variable changed_;
  bool opening_ = false, writing_ = false, failed_ = false;
  std::size_t nextOpened_ = 0, nextWritten_ = 0;
  DecodeTally tally_;
};

}  // namespace kel::host

#endif
