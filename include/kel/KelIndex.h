// KelStreamIndex, the structure of a file or code stream as records: main header, boxes, comment,
// component mapping, tile-parts, packets, and the bytes that a part of the picture needs.
//
// It reads as a decoder does, by the same readers and the same rules for what is wrong, so that a
// host that cuts, serves or checks data needs no walk of its own. It decodes no samples, and of a
// stream it reads headers and length fields, moving past the rest. It holds the packets of one tile
// at a time.
//
// Offsets are in bytes from the first byte of the data. Every record that a query hands out
// belongs to the index and lives until its Die. Guarded operations and threads: as for KelImage. An
// operation during which a read of the stream fails gives null, GetErrorDetails code 3; the next
// one reads again.
#ifndef KEL_INDEX_H
#define KEL_INDEX_H

#include "KelGeometry.h"
#include "KelMemory.h"
#include "KelStream.h"
#include "KelTypes.h"

namespace kel {
struct IndexState;
}

/// A box at the top level of a file.
struct KelIndexBox {
  KelULong type;         ///< four characters as one big-endian number
  KelULong headerBytes;  ///< 8, or 16 with a long length
  std::uint64_t offset;  ///< of the box
  std::uint64_t length;  ///< of the whole box, as far as the data go
  bool isWhole;          ///< its length is given, and all of it has arrived
};

/// A component as the code stream and the boxes describe it.
struct KelIndexComponent {
  KelULong depth;         ///< bits per sample, by the code stream
  KelULong xStep, yStep;  ///< subsampling
  KelULong boxDepth;      ///< bits per sample, by the boxes; 0 when they give none
  bool boxIsSigned;
};

/// An entry of the component mapping.
struct KelIndexMapping {
  KelULong component;  ///< CMP
  KelULong type;       ///< MTYP: 0 direct, 1 through the palette
  KelULong column;     ///< PCOL
};

/// A marker segment of a header.
struct KelIndexSegment {
  KelULong code;         ///< second byte of its marker
  KelULong length;       ///< up to what is read next, marker included
  std::uint64_t offset;  ///< of its marker
};

/// What stands before the first tile-part.
struct KelIndexFacts {
  bool isBoxed;                         ///< a file of boxes, not a bare code stream
  KelULong markerByte;                  ///< first byte of every marker: 0xAB or 0xFF
  std::uint64_t codeStreamOffset;       ///< of its first byte
  std::uint64_t codeStreamEnd;          ///< behind its box or, without a length, the data
  std::uint64_t sizOffset;              ///< of the SIZ marker
  std::uint64_t firstTilePartOffset;    ///< behind the main header
  const KelImageGeometry* geometry;     ///< canvas, image area, tiles, components
  const KelIndexComponent* components;  ///< geometry->Csiz of them
  // Coding style of the main header.
  KelULong numLevels, numLayers, progressionOrder;
  bool isIrreversible, hasComponentTransform;
  const KelIndexSegment* segments;  ///< of the main header, from SOC on
  KelULong numSegments;
  const KelIndexBox* boxes;  ///< null without any
  KelULong numBoxes;
  const KelIndexMapping* mappings;  ///< of a file with a palette; null without any
  KelULong numMappings;
  const std::uint8_t* comment;  ///< the last one; null without any
  KelULong commentLength;
};

/// A tile-part.
struct KelIndexTilePart {
  KelULong tile, part;      ///< Isot, TPsot
  KelULong announcedBytes;  ///< Psot: 0 leaves the length open
  std::uint64_t offset;     ///< of its SOT marker
  /// Bytes to what follows it: the announced ones, or where no tile-part, end marker or end of the
  /// data stands there, those up to the next place where a tile-part can begin, or to the end.
  std::uint64_t length;
  KelULong headerBytes;  ///< up to and with SOD; 0 for a header that cannot be read
  bool isRegular;        ///< length is as announced, or left open by the last one, header readable
  bool hasCodingStyle;   ///< its header brings a coding style, of the tile or of a component
  KelULong numParts;     ///< TNsot: tile-parts that the tile has; 0 where that is not said
};

/// The tile-parts that can be found, in the order of the data.
struct KelIndexTileParts {
  const KelIndexTilePart* parts;  ///< null without any
  KelULong count;
  /// All are regular, one follows the other from the main header on, and behind the last stands
  /// the end marker or the end of the code stream.
  bool areRegular;
};

/// A packet: the coded data of one precinct of a resolution in one layer.
struct KelIndexPacket {
  KelULong component, resolution, layer;
  KelULong levelsAbove;    ///< levels of the tile-component above its resolution; 0: full size
  std::uint64_t precinct;  ///< in raster order within the resolution
  std::uint64_t offset;    ///< of its length field
  KelULong length;         ///< of the whole packet, that field included
  KelULong part;           ///< the tile-part that it stands in
};

/// What of a tile is wanted.
struct KelIndexWant {
  KelULong tile;
  KelLong component;   ///< one of them; -1: all
  KelULong reduce;     ///< levels left out from the top; a component with fewer gives its lowest
  KelULong numLayers;  ///< the first so many; 0: all
};

/// The packets of a tile in the order in which they are decoded, up to the last one wanted; those
/// between that are not wanted are among them.
struct KelIndexPackets {
  const KelIndexPacket* packets;  ///< null without any
  KelULong count;
  bool areAll;  ///< everything wanted has arrived
};

/// Bytes [offset, offset + length) of the data.
struct KelIndexRange {
  std::uint64_t offset, length;
};

/// Ranges in the order of the data, none touching the next.
struct KelIndexRanges {
  const KelIndexRange* ranges;  ///< null without any
  KelULong count;
  std::uint64_t bytes;  ///< of all of them
  bool areAll;          ///< everything wanted has arrived
};

/// A band of a packet, looked at bit by bit.
struct KelIndexBand {
  KelULong band;               ///< 0 LL, 1 HL, 2 LH, 3 HH of its resolution
  std::uint64_t offset;        ///< of its bytes, behind its length field
  std::uint64_t claimedBytes;  ///< by that field; of LL by the packet's
  std::uint64_t foundBytes;    ///< up to where its bits end or make no sense
  bool isWhole;                ///< it can be decoded, and does not contradict other lengths
  /// Of one that is not whole, after MendTile: bytes that stand for what of it is sound,
  /// mendedBytes of them at KelIndexFindings::mended + mendedAt; 0 when there is nothing.
  std::uint64_t mendedAt, mendedBytes;
};

/// What is wrong with a packet that is there. Several can be, so these are bits.
enum KelIndexFlawKind : KelULong {
  KelFlawLength = 1,   ///< it does not end where its length field says
  KelFlawBand = 2,     ///< bands of it do not end where their length fields say
  KelFlawChecksum = 4  ///< its bytes are not those that the encoder wrote
};

struct KelIndexFlaw {
  KelULong packet;             ///< its place in KelIndexFindings::packets
  KelULong kinds;              ///< KelIndexFlawKind
  std::uint64_t claimedBytes;  ///< of the packet by its length field, that field included
  KelULong numBands;           ///< bands of it that have bytes
  KelIndexBand bands[3];
};

/// Bytes of a tile-part that could not be used.
struct KelIndexBreak {
  KelLong kind;  ///< KelDamageHeader, KelDamagePacket, KelDamageExcess or KelDamageNoPlace
  KelULong part;
  std::uint64_t offset, bytes;
};

/// What was found of a tile.
struct KelIndexFindings {
  /// The packets that are there, in the order in which they are decoded; `length` is that up to
  /// what is read next.
  const KelIndexPacket* packets;
  KelULong count;
  const KelIndexFlaw* flaws;  ///< of these, in the same order
  KelULong numFlaws;
  /// Those that are not there, in the order in which they would be: each belongs behind the last
  /// packet that is there of tile-part `part`. Offset and length are 0.
  const KelIndexPacket* lost;
  KelULong numLost;
  bool lostAreAll;  ///< no more are lost than are listed
  const KelIndexBreak* breaks;
  KelULong numBreaks;
  KelULong numParts;           ///< tile-parts, from number 0 on, that a decoder uses
  KelULong numChecksums;       ///< packets whose checksum was compared
  const std::uint8_t* mended;  ///< bytes for bands; null without any
};

class KEL_API KelStreamIndex {
 public:
  KelStreamIndex() : state_(nullptr) {}
  KelStreamIndex(const KelStreamIndex& source) = default;             ///< shares the state
  KelStreamIndex& operator=(const KelStreamIndex& source) = default;  ///< shares the state

  /// Guarded. Reads everything before the first tile-part of a block of memory or, without one, of
  /// a seekable stream; either must stay valid until Die. Returns what KelImage::InitDecoder
  /// returns for the data; 15 also for a stream that cannot seek.
  KelLong InitIndex(KelCodeStm* stream, const KelCompressedData* data);
  /// Whether the last InitIndex failed only because the data end before the first tile-part.
  bool DataEndInHeader() const;
  /// Guarded. Releases everything; the object may be initialised again. Returns 0.
  KelLong Die();
  /// A copy of the details of the last failure.
  KelException GetErrorDetails() const;
  /// The place of the failure that GetErrorDetails tells of; line -1 without one.
  KelErrorPlace GetErrorPlace() const;

  /// The facts; null unless InitIndex succeeded.
  const KelIndexFacts* GetFacts() const;
  /// Guarded (null). The tile-parts, found at the first call by going from one to the next and
  /// reading their headers. Null also unless InitIndex succeeded, and when memory runs out.
  const KelIndexTileParts* GetTileParts();

  /// Guarded (null). The segments of the header of tile-part i of GetTileParts, from SOT to SOD;
  /// *count receives their number. They hold until the next call. Null also for a header that
  /// cannot be read.
  const KelIndexSegment* GetSegments(KelULong i, KelULong* count);
  /// Guarded (null). The packets of a tile, found by reading the headers of its tile-parts and
  /// going from one packet to the next; nothing is decoded. They hold until something else is
  /// wanted of this operation or of GetRanges. Null also for a tile or component that does not
  /// exist.
  const KelIndexPackets* GetPackets(const KelIndexWant* want);
  /// Guarded (null). What a decoder reads of a tile to decode what is wanted: the headers of its
  /// tile-parts, the packets wanted, and length fields of those passed over between, up to the
  /// last; behind a packet that leads nowhere, all of the tile. They hold until the next call of
  /// this operation or of GetPackets. Null also for a tile or component that does not exist.
  const KelIndexRanges* GetRanges(const KelIndexWant* want);

  /// Guarded (null). Reads a tile as a decoder does, every bit of every band, keeping nothing of
  /// what it decodes: memory is taken for a row of blocks and for what is listed, of lost packets
  /// no more than `mostLost`. They hold until the next call. Null also for a tile that does not
  /// exist.
  const KelIndexFindings* ExamineTile(KelULong tile, KelULong mostLost);
  /// Guarded (null). The same, and for bands whose bits are damaged new bytes for what a decoder
  /// finds sound of them; memory is taken for the cells of a band.
  const KelIndexFindings* MendTile(KelULong tile, KelULong mostLost);

 private:
  kel::IndexState* state_;
};

#endif
