// One component of a preview between the forward and the inverse wavelet transform: which part of
// a resolution is shown, which of its coefficients that takes, and their quantisation.
#ifndef KEL_PREVIEW_PLANE_H
#define KEL_PREVIEW_PLANE_H

#include <cstdint>

#include "KelRegion.h"
#include "KelWaitingBands.h"
#include "samples/KelImageDataAccess.h"
#include "transform/KelWavelet.h"

namespace kel {

/// What a preview shows of a tile-component.
struct PreviewView {
  Box resolution;  ///< the tile-component's box at the preview's resolution
  Box shown;       ///< the part of it that is shown; may be empty
};

/// The view of a part of a tile-component, which is relative to its first sample. Edges of the
/// part are scaled by size at the resolution / full size, in integers.
PreviewView ViewOf(const Box& full, const Box& part, int reduction);

/// A part of the view's resolution, not much larger than what is shown, whose coefficients alone
/// rebuild the shown samples exactly.
Box WindowOf(const PreviewView& view, int numLevels);

/// How the coefficients of a region are set apart from the others, as a region is coded by its
/// scale: inside they are multiplied by 2^up, outside divided by 2^down, towards zero.
struct RegionScale {
  const RegionMarks* marks;  ///< null: no scaling
  int up, down;
};

/// The scale for a component whose magnitudes have so many bit-planes.
RegionScale RegionScaleFor(const RegionMarks& marks, int maxBitPlanes);

/// The coefficients of a window at resolution `resolution`, gathered from a tile-component's
/// transform with so many levels or more, in the Mallat layout of the window, without gaps. Floats
/// are rounded to nearest, halves to even: that is their quantisation.
struct GatheredWindow {
  Box box;  ///< of the tile-component
  int numLevels;
  CellKind rowCells;  ///< of the rows that come
  CoarseOutside outside;
  Box window;
  int resolution;
  RegionScale scale;
  std::int32_t* cells;
};

/// Gathers from bands whose indices were chosen; rowCells does not matter.
void GatherFromBands(const WaitingBands& waiting, GatheredWindow& to);

/// Takes a row from the forward transform; `gathered` is a GatheredWindow.
void GatherBandRow(void* gathered, int subband, std::int64_t row, void* cells);

/// Cells of a row, from one on, as integers: floats are rounded as above.
void StoreIntegers(CellKind kind, const void* cells, std::int64_t first, std::int32_t* out,
                   std::size_t count);

/// Samples or coefficients of a box, row by row.
struct BoxPlane {
  const void* cells;
  std::size_t strideCells;
  KelLong cellBytes;
  const Box& box;
};

/// Copies a part of a plane into a buffer of its own, without gaps. Raises 8.
OwnedBuffer CopyPart(const BoxPlane& plane, const Box& part);

/// A fresh plane for the samples of a window, without gaps. Raises 8.
class WindowPlane {
 public:
  WindowPlane(const Box& window, KelLong sampleBytes);

  template <class T>
  Rows<T> RowsOf() const {
    return {lock_.As<T>(), AsIndex(window_.Width())};
  }
  /// Hands over the buffer with the shown part alone. Raises 8.
  OwnedBuffer TakePart(const Box& shown);

 private:
  Box window_;
  KelLong sampleBytes_;
  OwnedBuffer buffer_;
  BufferLock lock_;
};

/// Turns integers that only lost their DC offset back into the samples that they were, in the
/// form in which a host hands them over: bytes, words or packed rows. Raises 8.
void RestoreSamples(KelImageData& image, int bitDepth);

}  // namespace kel

#endif
