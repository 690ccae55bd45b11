// What coding a tile and previewing it have in common: the way of its samples, row by row, from the
// host's buffers through the component transform into the wavelet transform, and what their
// quantisation follows from.
#ifndef KEL_TILE_ROWS_H
#define KEL_TILE_ROWS_H

#include "encode/KelImageEncode.h"
#include "format/KelTileBox.h"
#include "transform/KelQuant.h"
#include "transform/KelWaveletForward.h"

namespace kel {

/// What the rows of a component are made of.
struct RowKind {
  CellKind cells;
  int sampleBits;  ///< after the component transform, sign included
};

/// The kind of rows that a component is transformed in, through so many levels: floats when it is
/// coded irreversibly, else integers as narrow as they may be.
RowKind RowKindOf(const KelEncOpt& options, KelLong component, int numLevels);
/// The kind of integers for samples that no colour transform changes.
RowKind RowKindAlone(int bitDepth, int numLevels);

/// Components that are transformed together: three colours, or one.
inline constexpr KelLong kMostTogether = 3;

/// How many components, from one on, are transformed together.
KelLong NumTogether(const KelEncOpt& options, KelLong component);

/// Transforms components: three colours with the colour transform, or a single one, out of buffers
/// that are fetched, or row by row where they come so and asRows is set. Jobs with an empty box are
/// not wanted; their cells are of one kind. Nothing is fetched when none is wanted. What was
/// fetched of single components is given back. Returns false when the host gave no samples. Raises
/// as TileSource::Fetch, and 8.
bool TransformTogether(TileSource& source, KelLong first, KelLong count, const ForwardJob* jobs,
                       KeptBlock& memory, bool asRows = false);

/// The steps that the main header announces for a component: even ones at the quality that the
/// encoder was initialised with, which most tiles have. Null: steps of 1, or lossless.
const ChosenSteps* AnnouncedStepsOf(const EncoderState& encoder, KelLong component);

/// Fills what AnnouncedStepsOf gives, once the weights of bands are there.
void ChooseAnnouncedSteps(EncoderState& encoder);

/// What the steps of an irreversible component follow from, at the host's present quality. Even
/// ones mean that its indices are chosen.
QuantTarget QuantTargetOf(const ImageState& state, const KelTileGeometry& component);

}  // namespace kel

#endif
