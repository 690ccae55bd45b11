// Marker segments, written field by field in the order in which a header carries them.
//
// Lengths count everything behind the marker. Component indices take two bytes from 257
// components on. Relies on records that hold in-range values; nothing is checked here.
#include "format/KelHeadersWrite.h"

#include <algorithm>

#include "base/KelChecksum.h"
#include "format/KelSignature.h"
#include "kel/KelFormat.h"

namespace kel {
namespace {

using format::Marker;

void PutMarker(KelOutBuffer& out, Marker marker) {
  PutByte(out, MarkerByteOf(Flavour::kAB));
  PutByte(out, marker);
}

std::uint32_t IndexBytes(const KelHeaderParams& set) {
  return static_cast<std::uint32_t>(format::ComponentIndexBytes(set.Csiz));
}

void PutComponentIndex(KelOutBuffer& out, const KelHeaderParams& set, std::int32_t component) {
  PutUInt(out, static_cast<std::uint32_t>(component), static_cast<int>(IndexBytes(set)));
}

void PutSmall(KelOutBuffer& out, std::int32_t value) {
  PutByte(out, static_cast<std::uint32_t>(value));
}

void WriteSIZ(const KelHeaderParams& set, KelOutBuffer& out) {
  const KelSizParams& s = *set.sizes;
  PutMarker(out, format::kSIZ);
  PutU16(out, 38 + 3 * static_cast<std::uint32_t>(set.Csiz));
  PutU16(out, 0);  // Rsiz
  for (const std::uint32_t size :
       {s.Xsiz, s.Ysiz, s.XOsiz, s.YOsiz, s.XTsiz, s.YTsiz, s.XTOsiz, s.YTOsiz}) {
    PutU32(out, size);
  }
  PutU16(out, static_cast<std::uint32_t>(set.Csiz));
  for (std::int32_t c = 0; c < set.Csiz; ++c) {
    PutByte(out, (set.bitDepths[c] - 1U) | (set.isSigned[c] != 0 ? 0x80U : 0U));
    PutByte(out, s.XRsiz[c]);
    PutByte(out, s.YRsiz[c]);
  }
}

bool HasPrecincts(const KelCodingStyle& style) {
  return style.defaultPrecinctWidthExp != format::kWholePrecinct ||
         style.defaultPrecinctHeightExp != format::kWholePrecinct;
}

void PutPrecincts(KelOutBuffer& out, const KelCodingStyle& style, std::int32_t numLevels) {
  if (!HasPrecincts(style)) return;
  for (std::int32_t r = 0; r <= numLevels; ++r) {
    PutSmall(out, style.defaultPrecinctWidthExp + 16 * style.defaultPrecinctHeightExp);
  }
}

/// Code-block sizes, the byte of style bits, and the transformation (0 is the 9/7 filter).
void PutBlockCoding(KelOutBuffer& out, const KelCodingStyle& style, std::int32_t irreversible) {
  PutSmall(out, style.blockWidthExp - 2);
  PutSmall(out, style.blockHeightExp - 2);
  PutBit(out, false);
  PutBit(out, false);
  PutBit(out, style.cbSegSymbols != 0);
  PutBit(out, style.cbPredTerm != 0);
  PutBit(out, style.cbInterleavedSigns == 0);
  PutBit(out, style.cbTermAll != 0);
  PutBit(out, style.cbReset != 0);
  PutBit(out, style.cbBypass != 0);
  PutByte(out, irreversible == 1 ? 0 : 1);
}

void WriteCOD(const KelHeaderParams& set, KelOutBuffer& out) {
  const KelCodingStyle& style = *set.codingStyle;
  const bool precincts = HasPrecincts(style);
  PutMarker(out, format::kCOD);
  PutU16(out, precincts ? static_cast<std::uint32_t>(set.numLevels) + 13 : 12);
  PutByte(out, (set.usesEPH != 0 ? 4U : 0U) + (set.usesSOP != 0 ? 2U : 0U) + (precincts ? 1U : 0U));
  PutSmall(out, set.progressionOrder);
  PutU16(out, static_cast<std::uint32_t>(set.numLayers));
  PutSmall(out, set.componentTransform);
  PutSmall(out, set.numLevels);
  PutBlockCoding(out, style, set.irreversible);
  PutPrecincts(out, style, set.numLevels);
}

void WriteCOC(const KelHeaderParams& set, const KelCodingStyle& style, KelOutBuffer& out) {
  const bool precincts = HasPrecincts(style);
  const std::uint32_t length = precincts ? static_cast<std::uint32_t>(style.numLevels) + 10 : 9;
  PutMarker(out, format::kCOC);
  PutU16(out, length + IndexBytes(set) - 1);
  PutComponentIndex(out, set, style.component);
  PutByte(out, precincts ? 1 : 0);
  PutSmall(out, style.numLevels);
  PutBlockCoding(out, style, style.irreversible);
  PutPrecincts(out, style, style.numLevels);
}

/// The style byte and the values of a quantisation, and what they add to a segment's length.
/// Exponents alone take a byte each, their low three bits zero; pairs take two, the exponent in
/// the upper five bits and the mantissa below.
struct QuantFields {
  const KelQuantParams& quant;
  std::int32_t numLevels;

  std::uint32_t NumValues() const {
    return quant.quantised != 0 && quant.derived != 0
               ? 1
               : 3 * static_cast<std::uint32_t>(numLevels) + 1;
  }
  std::uint32_t Bytes() const { return 1 + NumValues() * (quant.quantised != 0 ? 2 : 1); }

  void Put(KelOutBuffer& out) const {
    const std::uint32_t style = quant.quantised == 0 ? 0 : quant.derived != 0 ? 1 : 2;
    PutByte(out, quant.guardBits * 32U + style);
    for (std::uint32_t b = 0; b < NumValues(); ++b) {
      const auto exponent = static_cast<std::uint32_t>(quant.exponents[b]);
      if (quant.quantised == 0) {
        PutByte(out, exponent * 8);
      } else {
        PutU16(out, (exponent * 2048 & 0xF800) | static_cast<std::uint32_t>(quant.mantissas[b]));
      }
    }
  }
};

void WriteQCD(const KelHeaderParams& set, KelOutBuffer& out) {
  const QuantFields fields{*set.quantisation, set.numLevels};
  PutMarker(out, format::kQCD);
  PutU16(out, 2 + fields.Bytes());
  fields.Put(out);
}

void WriteQCC(const KelHeaderParams& set, const KelQuantParams& quant, KelOutBuffer& out) {
  const QuantFields fields{quant, quant.numLevels};
  PutMarker(out, format::kQCC);
  PutU16(out, 2 + IndexBytes(set) + fields.Bytes());
  PutComponentIndex(out, set, quant.component);
  fields.Put(out);
}

void WriteRGN(const KelHeaderParams& set, const KelRoiParams& region, KelOutBuffer& out) {
  PutMarker(out, format::kRGN);
  PutU16(out, 4 + IndexBytes(set));
  PutComponentIndex(out, set, region.component);
  PutByte(out, 0);  // Srgn
  PutSmall(out, region.shift);
}

void WritePOC(const KelHeaderParams& set, KelOutBuffer& out) {
  const KelProgressionChanges& changes = *set.progressionChanges;
  const int indexBytes = static_cast<int>(IndexBytes(set));
  PutMarker(out, format::kPOC);
  PutU16(out, 2 + (5 + 2 * IndexBytes(set)) * static_cast<std::uint32_t>(changes.count));
  for (std::int32_t i = 0; i < changes.count; ++i) {
    PutByte(out, changes.resolutionStart[i]);
    PutUInt(out, changes.componentStart[i], indexBytes);
    PutU16(out, changes.layerEnd[i]);
    PutByte(out, changes.resolutionEnd[i]);
    PutUInt(out, changes.componentEnd[i], indexBytes);
    PutByte(out, changes.order[i]);
  }
}

void WriteCOM(const KelHeaderParams& set, KelOutBuffer& out) {
  PutMarker(out, format::kCOM);
  PutU16(out, set.commentLength + 4U);
  PutU16(out, 1);  // Rcom: text
  PutBytes(out, set.comment, set.commentLength);
}

/// Segments of so many checksums each as fit, each with one of its own.
void WriteChecksums(const KelHeaderParams& set, KelOutBuffer& out) {
  for (std::uint32_t i = 0; i < set.numChecksums; i += format::kMostChecksumsOfSegment) {
    const std::uint32_t count = std::min(set.numChecksums - i, format::kMostChecksumsOfSegment);
    PutMarker(out, format::kCOM);
    PutU16(out,
           format::kChecksumSegmentBytes - format::kMarkerBytes + count * format::kChecksumBytes);
    PutU16(out, 0);  // Rcom: binary
    const std::uint32_t start = out.count;
    PutU32(out, format::kChecksumTag);
    for (std::uint32_t k = 0; k < count; ++k) PutU32(out, set.checksums[i + k]);
    Checksum own;
    own.Add(out.bytes.Data() + start, out.count - start);
    PutU32(out, own.Value());
  }
}

/// What the first header of an image or a tile carries beyond sizes and index.
void WriteCodingSegments(const KelHeaderParams& set, KelOutBuffer& out) {
  if (set.seenCOD != 0) WriteCOD(set, out);
  if (set.seenCOC != 0) {
    for (std::uint32_t i = 0; i < set.numComponentStyles; ++i) {
      WriteCOC(set, set.componentStyles[i], out);
    }
  }
  if (set.seenQCD != 0) WriteQCD(set, out);
  if (set.seenQCC != 0) {
    for (std::uint32_t i = 0; i < set.numComponentQuants; ++i) {
      WriteQCC(set, set.componentQuants[i], out);
    }
  }
  if (set.seenRGN != 0) {
    for (std::int32_t c = 0; c < set.Csiz; ++c) WriteRGN(set, set.regions[c], out);
  }
}

}  // namespace

void WriteHeader(const KelHeaderParams& set, KelOutBuffer& out) {
  const std::uint32_t start = out.count;
  if (set.inMainHeader != 0) {
    PutMarker(out, format::kSOC);
    WriteSIZ(set, out);
  } else {
    PutMarker(out, format::kSOT);
    PutU16(out, format::kSotBytes - format::kMarkerBytes);
    PutU16(out, set.Isot);
    PutU32(out, 0);
    PutByte(out, set.TPsot);
    PutByte(out, set.TNsot);
  }
  if (set.inMainHeader != 0 || set.TPsot == 0) WriteCodingSegments(set, out);
  if (set.seenPOC != 0) WritePOC(set, out);
  if (set.seenCOM != 0) WriteCOM(set, out);
  if (set.inMainHeader != 0) return;
  WriteChecksums(set, out);
  PutMarker(out, format::kSOD);
  PatchU32(out, start + format::kPsotAt, out.count - start + set.dataLength);
}

}  // namespace kel
