// The structure of a file or code stream as records. See KelIndex.h for what they mean.
//
// An index is a decoder that has read its headers and decodes nothing: boxes, main header and
// tile-parts come from the same readers, so that both always agree on where things are.
#ifndef KEL_STREAM_INDEX_H
#define KEL_STREAM_INDEX_H

#include "base/KelBox.h"
#include "base/KelMemFuncDefs.h"
#include "base/KelRaise.h"
#include "image/KelImageState.h"
#include "kel/KelFormat.h"
#include "kel/KelIndex.h"

namespace kel {

/// A tile that was examined; the arrays are owned.
struct ExaminedTile {
  KelIndexFindings findings;
  KelIndexPacket *packets, *lost;
  KelIndexFlaw* flaws;
  KelIndexBreak* breaks;
  std::uint8_t* mended;
  std::uint64_t numMended, obtainedMended;
  KelULong obtainedPackets, obtainedLost, obtainedFlaws, obtainedBreaks;
};

struct IndexState {
  ImageState* image;  ///< owned; the decoder's
  KelDecOpt options;  ///< of the decoder
  Failure failure;
  KelCompressedData block;
  std::uint64_t dataEnd;  ///< end of the data; the largest value of a stream that does not tell
  bool isReady, hasTileParts;
  KelIndexFacts facts;
  // Arrays of the facts that are not the decoder's own; owned.
  KelIndexBox* boxes;
  KelIndexComponent* components;
  KelIndexMapping* mappings;
  KelIndexTileParts tileParts;
  KelIndexTilePart* parts;        ///< owned
  KelIndexSegment* mainSegments;  ///< owned
  KelIndexSegment* partSegments;  ///< owned; of the tile-part asked for last
  KelULong* byTile;               ///< owned; the tile-parts by tile, part and offset
  TileRecord* tileAtWork;         ///< it has the records of components, the only ones
  // Of one tile; owned.
  bool hasPackets;
  KelIndexWant wanted;
  KelIndexPackets packets;
  KelULong brokenPart;  ///< where not all wanted ones are listed: the tile-part that the walk ended
  std::uint64_t brokenOffset;  ///< in, and where
  KelIndexPacket* packetList;
  KelULong obtainedPackets;
  bool isLaidOut;  ///< the packets of its layout are counted
  /// Of one layer and the components wanted: wanted of all reductions up to so many levels.
  std::uint64_t numLaidOut[format::kMostLevels + 1];
  KelIndexRanges ranges;
  KelIndexRange* rangeList;
  KelULong obtainedRanges;
  ExaminedTile examined;
};

/// An empty state. Raises 8.
IndexState* MakeIndex();

/// Releases a state, half-built ones included. Accepts null.
void ReleaseIndex(IndexState*& index) noexcept;

/// Reads boxes and main header. Returns the decoder's code; raises 8.
[[nodiscard]] KelLong OpenIndex(IndexState& index, KelCodeStm* stream,
                                const KelCompressedData* data);

/// Raises 3 when a read of the stream has failed since this was asked last: what the data seemed to
/// be then is not to be kept.
void RefuseFailedReads(const IndexState& index);

/// The tile-parts, found at the first call. Raises 3 and 8, and then finds nothing.
const KelIndexTileParts* TilePartsOf(IndexState& index);

/// The segments of a tile-part's header. Raises 3, 8.
const KelIndexSegment* SegmentsOf(IndexState& index, KelULong i, KelULong& count);

/// The tile-part of that number, of several that claim to be it the first one; null without.
const KelIndexTilePart* FindPartOfTile(const IndexState& index, KelULong tile, KelULong part);

// See the operations of these names. Raise 3, 8.
const KelIndexPackets* PacketsOf(IndexState& index, const KelIndexWant& want);
const KelIndexRanges* RangesOf(IndexState& index, const KelIndexWant& want);

/// Makes a band's bytes of its cells, which stand without gaps: the encoder's side is not known
/// here. Raises 8.
using BandEncoder = OwnedArray<std::uint8_t> (*)(const Box& box, std::int32_t* cells);
/// With an encoder, bands whose bits are damaged are mended.
const KelIndexFindings* FindingsOf(IndexState& index, KelULong tile, KelULong mostLost,
                                   BandEncoder encode);

/// Makes the records of a tile's components, by those of the tile that was looked at before. Raises
/// 8.
void BeginTile(IndexState& index, TileRecord& tile);
/// Releases what was found of a tile; may run twice.
void ReleaseExamined(ExaminedTile& found) noexcept;
/// Releases what is known of one tile.
void ReleasePackets(IndexState& index) noexcept;

}  // namespace kel

#endif
