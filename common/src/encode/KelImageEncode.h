// The encoding flow of the image object.
#ifndef KEL_IMAGE_ENCODE_H
#define KEL_IMAGE_ENCODE_H

#include "KelPacketWrite.h"
#include "encode/KelSourceReader.h"
#include "image/KelImageState.h"

namespace kel {

struct EncoderState {
  /// The options as they were at initialisation, in checked form: a colour channel count within
  /// the components, flags 0 or 1, and a geometry of its own (owned; no other array). Whatever the
  /// host does to its options afterwards, everything structural goes by these; only the quality is
  /// read from the host's.
  KelEncOpt settings;
  SourceReader reader;
  // What the tiles are coded in, one after the other.
  TileCompCoder** coders;     ///< owned; one per component, null until it is needed
  TileCompToWrite* toWrite;   ///< owned; room for one per component
  KeptBlock rowsMemory;       ///< of the transforms at work
  float* bandWeights;         ///< owned; one per subband
  bool isCompressed;          ///< every tile has been coded
  std::uint32_t headerBytes;  ///< of boxes and main header
  // Steps that the main header announces, by the role of a component.
  ChosenSteps announced[kNumRoles];
  bool hasAnnounced[kNumRoles];
  // Rate control.
  KelLong quality;        ///< the image's quality percentage
  KelLong* qualitySteps;  ///< owned; kNumQualitySteps entries
  // -1 until computed.
  KelLong byteTarget, extraChannelsSize, transparencySize;
};

/// The encoder's part of a tile-component, made when its tile is first coded.
struct EncTileComp {
  std::uint64_t codedBytes;  ///< of its packets in all layers; 0 until it is coded
};

inline constexpr std::uint64_t kNumQualitySteps = 101;

/// Initialises an encoder and writes the headers. Returns the code of a failed check, with the
/// failure recorded in the state; raises 8. After a failure nothing is held.
[[nodiscard]] KelLong InitEncoder(ImageState& state, KelEncOpt* options, KelCodeStm* stream,
                                  KelClientProcs* procs);

/// Releases an encoder's state; may run on a half-built one.
void ReleaseEncoder(ImageState& state) noexcept;

/// Takes callbacks for rows, or none with null. Returns 0 or 15.
[[nodiscard]] KelLong SetRowProcs(ImageState& state, const KelRowProcs* procs);

/// Writes boxes and main header: at the start of a seekable stream, which is then where it was
/// unless the headers reach further; else at the current position. Returns 0 or 15; raises 8, 32.
[[nodiscard]] KelLong WriteKelHeaders(ImageState& state, KelULong* bytes);

/// Codes a tile and writes it, the last one with the end marker. Raises; returns 0.
[[nodiscard]] KelLong CompressAndWriteTile(ImageState& state, KelLong tile, KelULong* bytes);

/// Codes every tile for the size queries; nothing is written. Raises; returns 0.
[[nodiscard]] KelLong CompressImage(ImageState& state);

/// Releases what tiles are coded in; further tiles obtain it anew.
void ReleaseCoders(const ImageState& state) noexcept;

// Sizes and steps. Neutral values for a decoder.
KelLong StepsOfCompressing(const ImageState& state);
KelLong ProgressionSteps(const ImageState& state);
KelLong NumQualitySteps(const ImageState& state);
KelLong* QualitySteps(ImageState& state, KelLong* count);
KelLong MinCodeStreamLength(ImageState& state);
KelLong MaxCodeStreamLength(ImageState& state);
KelLong ExtraChannelsSize(ImageState& state);
KelLong TransparencySize(ImageState& state);
KelLong QualityForTarget(ImageState& state, KelLong targetBytes);
KelLong CodeStreamLengthBound(ImageState& state);
KelLong UpdateCodestreamSize(const ImageState& state, KelLong fromOrganisation, KelLong size,
                             KelLong toOrganisation);

}  // namespace kel

#endif
