// Component transforms: from the samples of a tile to what the wavelet transform takes, and back to
// colours.
//
// Forward, the unsigned samples lose their DC offset, 2^(depth - 1), and three colour components
// may go through the reversible (integers) or the irreversible (floats) colour transform; as many
// rows at once as the caller likes.
// Inverse, three reconstructed planes become colours in place; the offset stays away, that is the
// business of output conversion. Everything works on plain records over memory of the caller and
// cannot fail: fetching, locking and releasing buffers, and the choice of components, belong to
// the coding flows.
#ifndef KEL_COMP_TRANSFORM_H
#define KEL_COMP_TRANSFORM_H

#include <cstddef>
#include <cstdint>

#include "kel/KelOptions.h"
#include "samples/KelCellKind.h"

namespace kel {

/// The samples of one component of a tile as a host delivers them: alone, or interleaved with
/// those of other components of the same depth. Depth 8 means bytes, 16 words of the host's byte
/// order, any other depth (1 to 32) samples packed most significant bit first, each row beginning
/// at a byte.
struct SampleSource {
  const std::uint8_t* samples;  ///< the first row
  std::uint64_t rowBytes;       ///< from one row to the next
  int bitDepth;
  std::uint32_t step;   ///< samples from one of the component to the next: the channels of a pixel
  std::uint32_t first;  ///< the component's first sample in a row: its channel
};

/// A buffer of rows of width pixels, `channels` samples each, seen as one of its channels. A
/// component alone is channel 0 of 1.
SampleSource MakeSampleSource(const void* samples, std::int64_t width, int bitDepth,
                              std::uint32_t channels, std::uint32_t channel);

/// The source from a row on.
inline SampleSource FromRow(SampleSource source, std::uint64_t row) {
  source.samples += row * source.rowBytes;
  return source;
}

/// The rows that a component's samples go to.
struct CodingPlane {
  void* cells;              ///< null: not wanted (second and third plane of a colour triple)
  std::size_t strideCells;  ///< from one row to the next; of no account for a single row
};

/// Sizes of a tile-component in samples; sizes of 0 and below are empty.
struct PlaneSize {
  std::int64_t width, height;
};

/// Whether the colour transform applies to components 0 to 2: it is asked for, the image has
/// three components and three colour channels at least, and the three are subsampled alike.
bool ColorTransformApplies(const KelEncOpt& options);

/// Fills one plane with samples less the DC offset. Shorts are for depths up to 15.
void PreparePlane(const SampleSource& source, const CodingPlane& plane, PlaneSize size,
                  CellKind cells);

/// Fills three planes with the colour transform of three sources of equal size: the irreversible
/// one (floats) or the reversible one (integers; shorts for depths up to 15). Depths and layouts
/// may differ between sources.
void PrepareColorPlanes(const SampleSource (&sources)[3], const CodingPlane (&planes)[3],
                        PlaneSize size, CellKind cells);

/// Three planes of equal size and kind: Y, Cb, Cr in floats or Y, U, V in integers.
struct ColorPlanes {
  void* cells[3];
  std::size_t strideCells;  ///< of each
  PlaneSize size;
  bool floats;
};

/// Replaces the planes by R, G and B.
void InverseComponentTransform(const ColorPlanes& planes);

}  // namespace kel

#endif
