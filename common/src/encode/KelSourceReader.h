// Fetching the samples of a tile and the mask of its region through the host's callbacks.
//
// What a callback hands over belongs to the library: buffers are locked while they are read, and
// unlocked and freed at the end of the scope that fetched them, also on a failure. Interleaved
// samples are fetched once per tile and read where they are, never taken apart into copies.
#ifndef KEL_SOURCE_READER_H
#define KEL_SOURCE_READER_H

#include <cstdint>

#include "KelRegion.h"
#include "base/KelMemFuncDefs.h"
#include "kel/KelImage.h"
#include "samples/KelCompTransform.h"

namespace kel {

/// Where an encoder's samples come from. A value; owns nothing.
struct SourceReader {
  KelImageDataProcs procs;  ///< a copy of the host's record
  const KelImageGeometry* geometry;
  KelLong numInterleaved;  ///< channels of the interleaved buffer; 0 without one
  KelRowProcs rows;        ///< a copy; without callbacks unless the host has set them
};

/// Takes the callbacks and asks for the number of interleaved channels. Returns false when a
/// callback that is needed is missing: both fetches, the number of channels, or the fetch of a
/// component that the interleaved buffer does not bring.
bool InitSourceReader(SourceReader& reader, const KelImageDataProcs& procs,
                      const KelImageGeometry& geometry);

/// Whether a component is taken from the interleaved buffer: its index is below the number of
/// channels, it is not subsampled, and its depth is component 0's.
bool IsInterleaved(const SourceReader& reader, KelLong component);

/// The samples of one component, held as long as this lives.
struct FetchedSamples {
  OwnedBuffer buffer;  ///< empty for an interleaved component
  BufferLock lock;
  SampleSource source;
};

/// Rows of a tile in the host's memory.
struct RowsAtHand {
  SampleSource first;     ///< the first of them, as channel 0
  std::uint64_t numRows;  ///< at least 1
};

/// The samples of one tile, fetched as they are asked for.
class TileSource {
 public:
  TileSource(const SourceReader& reader, KelLong tile) : reader_(reader), tile_(tile) {}
  ~TileSource() { ReleaseRows(); }
  TileSource(const TileSource&) = delete;
  TileSource& operator=(const TileSource&) = delete;

  /// Whether the first components, as many as the image has, come row by row.
  bool HasRows(KelLong numComps) const;
  /// Looks at rows of the tile from one on. Returns false, and raises, as Fetch does.
  bool GetRows(std::uint64_t row, RowsAtHand& rows);
  /// Tells the host that its rows are not looked at any longer.
  void ReleaseRows() noexcept;

  /// Fetches a component. Returns false when the host gave no buffer and no error. Raises the code
  /// that the host reported, and 8 when a buffer cannot be locked. Interleaved samples stay valid
  /// as long as the tile's source.
  bool Fetch(KelLong component, FetchedSamples& samples);

  KelLong Tile() const { return tile_; }

 private:
  const SourceReader& reader_;
  KelLong tile_;
  FetchedSamples interleaved_;
  bool holdsRows_ = false;
};

/// Fetches the mask of a tile from a component. Returns false when the host gave none. Raises as
/// TileSource::Fetch, and 8.
bool FetchRegion(TileSource& source, const KelTileGeometry& component, RegionSamples& region);

}  // namespace kel

#endif
