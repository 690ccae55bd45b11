// Coding parameters: the records that hold the marker segments of a main header or of a tile-part
// header, their making, copying and release.
//
// Fields hold the segments' values; where a record differs (an offset added, a flag inverted) the
// field says so. Names such as Psot and Csiz are those of the format. A KelHeaderParams owns its
// records and every array they point to; all come from the memory layer, zero-filled.
#ifndef KEL_HEADERS_H
#define KEL_HEADERS_H

#include <cstdint>

#include "base/KelMemFuncDefs.h"
#include "kel/KelFormat.h"
#include "transform/KelQuant.h"

namespace kel {

/// The length of every exponent and mantissa array, whatever the level count, so that a count
/// which changes between segments never lets a reader or a copy run past an array: the 97 subbands
/// of the most levels, rounded up.
inline constexpr int kQuantEntries = 100;

/// Image and tile sizes (SIZ).
struct KelSizParams {
  std::uint32_t Xsiz, Ysiz, XOsiz, YOsiz, XTsiz, YTsiz, XTOsiz, YTOsiz;
  std::uint8_t* XRsiz;  ///< Csiz subsampling factors across
  std::uint8_t* YRsiz;  ///< and down
};

/// Coding style of all components (COD) or of one (COC).
struct KelCodingStyle {
  std::int32_t component;  ///< COC only
  // Code-block style bits 0 to 5.
  std::uint8_t cbBypass;                 ///< bit 0
  std::uint8_t cbReset;                  ///< bit 1
  std::uint8_t cbTermAll;                ///< bit 2
  std::uint8_t cbInterleavedSigns;       ///< bit 3 INVERTED: 1 when the bit is clear
  std::uint8_t cbPredTerm;               ///< bit 4
  std::uint8_t cbSegSymbols;             ///< bit 5
  std::uint8_t usesEPH, usesSOP;         ///< COD only
  std::int32_t defaultPrecinctWidthExp;  ///< 15: resolutions are not partitioned
  std::int32_t defaultPrecinctHeightExp;
  std::int32_t* precinctWidthExps;  ///< format::kMostLevels + 1 entries by resolution, or null
  std::int32_t* precinctHeightExps;
  std::int32_t blockWidthExp;  ///< the segment's value plus 2
  std::int32_t blockHeightExp;
  std::int32_t numLevels;           ///< 0 to format::kMostLevels
  std::int32_t irreversible;        ///< 1: 9/7 filter, 0: 5/3 filter
  std::int32_t progressionOrder;    ///< COD only, 0 to 4
  std::int32_t numLayers;           ///< COD only, 1 to format::kMostLayers
  std::int32_t componentTransform;  ///< COD only
  // Region of interest, set for a tile-component whose component has an RGN segment.
  std::int32_t hasRegion;
  std::int32_t regionShift;
  std::int32_t maxBitPlanes;  ///< recomputed from exponents and guard bits with a region
};

/// Quantisation of all components (QCD) or of one (QCC).
struct KelQuantParams {
  std::int32_t component;  ///< QCC only
  std::uint8_t quantised;  ///< 0 exponents only, 1 scalar quantisation
  std::uint8_t derived;    ///< 1: only the first pair was signalled
  std::uint8_t guardBits;
  /// kQuantEntries entries each, in subband order (LL, then HL, LH, HH from the coarsest level);
  /// entries that were not signalled are 0, or as derived by the reader.
  std::int32_t* exponents;
  std::int32_t* mantissas;
  std::int32_t numLevels;  ///< from the COD
  std::int32_t hasRegion;
  std::int32_t regionShift;
};

/// The steps that a quantisation says.
inline SignalledSteps StepsSaid(const KelQuantParams& quant) {
  return {quant.exponents, quant.quantised != 0 ? quant.mantissas : nullptr, quant.derived != 0};
}

/// Region of interest of one component (RGN).
struct KelRoiParams {
  std::int32_t component;
  std::int32_t shift;  ///< SPrgn
  std::int32_t present;
};

/// Progression order changes (POC): arrays of `count` entries.
struct KelProgressionChanges {
  std::int32_t count;
  std::uint8_t* resolutionStart;  ///< RSpoc
  std::uint16_t* componentStart;  ///< CSpoc
  std::uint16_t* layerEnd;        ///< LYEpoc
  std::uint8_t* resolutionEnd;    ///< REpoc
  std::uint16_t* componentEnd;    ///< CEpoc as read
  std::uint8_t* order;            ///< Ppoc, 0 to 4
  std::uint8_t present;
};

/// Where a segment of a header stands.
struct KelSegmentPlace {
  std::int64_t position;  ///< of its marker
  std::uint32_t code;     ///< second byte of the marker
  std::uint32_t length;   ///< bytes that its reader took, marker included
};

/// The parameters of one header.
struct KelHeaderParams {
  std::uint8_t inMainHeader;  ///< else of a tile-part
  std::int64_t sizPosition;   ///< of the SIZ marker that was read
  std::uint8_t seenCOD, usesEPH, usesSOP, seenCOC, seenQCD, seenQCC, seenRGN, seenPOC, seenCOM;
  std::uint8_t* isSigned;  ///< Csiz flags
  std::uint16_t Isot;      ///< of the tile-part whose header was read last
  std::uint8_t TPsot, TNsot;
  KelCodingStyle* codingStyle;      ///< from COD
  KelCodingStyle* componentStyles;  ///< one per component with a COC, in the order met
  std::uint32_t numComponentStyles, obtainedComponentStyles;
  std::uint32_t* styleNumbers;      ///< per component: 0 or one more than its place; may be null
  KelQuantParams* quantisation;     ///< from QCD
  KelQuantParams* componentQuants;  ///< one per component with a QCC, in the order met
  std::uint32_t numComponentQuants, obtainedComponentQuants;
  std::uint32_t* quantNumbers;
  KelRoiParams* regions;  ///< Csiz records by component
  KelSizParams* sizes;
  KelProgressionChanges* progressionChanges;
  std::uint32_t Rsiz;      ///< as read, not interpreted
  std::int32_t numLevels;  ///< of the COD
  std::int32_t progressionOrder, numLayers, componentTransform, irreversible;  ///< of the COD
  std::int32_t Csiz;
  std::uint16_t commentLength;  ///< bytes
  std::uint8_t* comment;
  std::uint32_t dataLength;        ///< packet bytes behind a tile-part header; writer only
  const std::uint32_t* checksums;  ///< of the packets behind a tile-part header; writer only
  std::uint32_t numChecksums;
  std::uint8_t* bitDepths;  ///< Csiz depths, 1 to 38
  bool keepsPlaces;         ///< set by the caller: list the segments
  KelSegmentPlace* places;  ///< null without any
  std::uint32_t numPlaces, obtainedPlaces;
};

/// Fills a zero-filled set with empty records, the quantisation with its two arrays. Raises 8 after
/// releasing what it had obtained.
void InitHeaderParams(KelHeaderParams& set, bool mainHeader);

/// Seeds a set for a tile-part header with copies of the records in force for the tile, and with
/// the component count and region records of the main header. Raises 8; what was copied until then
/// is in the set.
void SeedHeaderParams(KelHeaderParams& set, const KelHeaderParams& mainHeader,
                      const KelCodingStyle& style, const KelQuantParams& quant);

/// Releases everything that a set owns, half-built ones included, and clears it; may run twice.
/// The set itself belongs to the caller. Accepts null.
void ReleaseHeaderParams(KelHeaderParams* set) noexcept;

// Deep copies into a record whose old arrays are not released. Raise 8 with nothing left behind.
// Null arrays copy to null.
void CopyCodingStyle(KelCodingStyle& destination, const KelCodingStyle& source);
void CopyQuantParams(KelQuantParams& destination, const KelQuantParams& source);
void CopyProgressionChanges(KelProgressionChanges& destination,
                            const KelProgressionChanges& source);

// Release the arrays of a record and set them to null; the record belongs to the caller.
void ReleaseCodingStyle(KelCodingStyle& style) noexcept;
void ReleaseQuantParams(KelQuantParams& quant) noexcept;
void ReleaseProgressionChanges(KelProgressionChanges& changes) noexcept;

/// Sets the present flag and the count and obtains the six zero-filled arrays in place of earlier
/// ones. Raises 8, with the record as it was.
void AllocProgressionChanges(KelProgressionChanges& changes, std::int32_t count);

/// The COC or QCC record of a component, or null.
KelCodingStyle* FindComponentStyle(const KelHeaderParams& set, std::int32_t component);
KelQuantParams* FindComponentQuant(const KelHeaderParams& set, std::int32_t component);

}  // namespace kel

#endif
