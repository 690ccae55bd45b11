// Reading the marker segments of a main header or a tile-part header, in either flavour: one
// reader, one table of segments. The flavour only decides the first byte of every marker.
//
// A segment is a marker and a 16-bit length that counts itself and the parameters, which must have
// arrived whole. Its reader takes the fields one after another, and the next marker is looked for
// right behind the last field taken; the length decides only what the layouts leave open.
#include "decode/KelHeadersRead.h"

#include <algorithm>
#include <iterator>

#include "KelDecDataMgr.h"
#include "base/KelRaise.h"

namespace kel {
namespace {

/// The record of a refused header names the flow that reads headers.
[[noreturn]] void Refuse(KelLong code, SourcePlace place = SourcePlace::Here()) {
  Raise(code, kModuleImage, place);
}

/// One reading of a header. A segment's reader raises what it refuses; it may end the header, with
/// `stop`, or find that the data end before the segment does, with `cutOff`.
struct HeaderReader {
  KelHeaderParams& set;
  KelDecDataMgr& data;
  std::uint32_t* tilePartLength;
  std::uint32_t length = 0;  ///< value of the length field of the segment being read
  bool seenSIZ = false, seenSOT = false;
  bool stop = false, cutOff = false;

  bool InMainHeader() const { return set.inMainHeader != 0; }
  /// Whether n more bytes have arrived.
  bool Has(std::uint64_t n) {
    cutOff = cutOff || data.EnsureBuffered(n) != kBufferedOk;
    return !cutOff;
  }
  std::uint8_t U8() { return static_cast<std::uint8_t>(data.ReadUInt(1)); }
  std::uint16_t U16() { return static_cast<std::uint16_t>(data.ReadUInt(2)); }
  std::uint32_t U32() { return data.ReadUInt(4); }
  /// Bytes of a component index, and one.
  std::uint32_t IndexBytes() const {
    return static_cast<std::uint32_t>(format::ComponentIndexBytes(set.Csiz));
  }
  std::int32_t Index() {
    return static_cast<std::int32_t>(data.ReadUInt(static_cast<int>(IndexBytes())));
  }
};

// ---- Image and tile sizes ----

/// Tiles along one axis; none where the grid begins behind the canvas.
std::int64_t CountTiles(std::uint32_t size, std::uint32_t origin, std::uint32_t tile) {
  return std::max<std::int64_t>(CeilDiv(std::int64_t{size} - origin, tile), 0);
}

/// Sizes must be positive, the image area not empty, all of them 31-bit numbers, and the tiles few
/// enough for a 16-bit index. A tile may be larger than any canvas.
bool CheckSizes(KelSizParams& sizes) {
  const std::uint32_t most = INT32_MAX;
  const std::uint32_t edges[] = {sizes.Xsiz,  sizes.Ysiz,   sizes.XOsiz,
                                 sizes.YOsiz, sizes.XTOsiz, sizes.YTOsiz};
  if (*std::max_element(std::begin(edges), std::end(edges)) > most) return false;
  if (sizes.XOsiz >= sizes.Xsiz || sizes.YOsiz >= sizes.Ysiz) return false;
  if (sizes.XTsiz == 0 || sizes.YTsiz == 0) return false;
  sizes.XTsiz = std::min(sizes.XTsiz, most);
  sizes.YTsiz = std::min(sizes.YTsiz, most);
  const std::int64_t across = CountTiles(sizes.Xsiz, sizes.XTOsiz, sizes.XTsiz);
  const std::int64_t down = CountTiles(sizes.Ysiz, sizes.YTOsiz, sizes.YTsiz);
  return across * down <= format::kMostTiles;
}

void ReadComponentSizes(HeaderReader& in) {
  KelHeaderParams& set = in.set;
  const auto count = static_cast<std::uint64_t>(set.Csiz);
  if (!in.Has(3 * count)) return;
  set.sizes->XRsiz = OwnedArray<std::uint8_t>::Make(count).Release();
  set.sizes->YRsiz = OwnedArray<std::uint8_t>::Make(count).Release();
  set.isSigned = OwnedArray<std::uint8_t>::Make(count).Release();
  set.bitDepths = OwnedArray<std::uint8_t>::Make(count).Release();
  set.regions = OwnedArray<KelRoiParams>::Make(count).Release();
  for (std::uint64_t c = 0; c < count; ++c) {
    const std::uint8_t depth = in.U8();  // Ssiz: sign in bit 7, depth minus one below
    set.isSigned[c] = depth >> 7;
    set.bitDepths[c] = static_cast<std::uint8_t>((depth & 0x7F) + 1);
    set.sizes->XRsiz[c] = in.U8();
    set.sizes->YRsiz[c] = in.U8();
    if (set.bitDepths[c] > 38) Refuse(KelErrBadMarker);
    if (set.sizes->XRsiz[c] == 0 || set.sizes->YRsiz[c] == 0) Refuse(KelErrBadMarker);
  }
  in.seenSIZ = true;
}

void ReadSIZ(HeaderReader& in) {
  if (!in.InMainHeader() || in.set.regions != nullptr || in.length < 41) Refuse(KelErrBadMarker);
  KelSizParams& sizes = *in.set.sizes;
  in.set.sizPosition = in.data.GetPosition() - 4;
  in.set.Rsiz = in.U16();
  sizes.Xsiz = in.U32();
  sizes.Ysiz = in.U32();
  sizes.XOsiz = in.U32();
  sizes.YOsiz = in.U32();
  sizes.XTsiz = in.U32();
  sizes.YTsiz = in.U32();
  sizes.XTOsiz = in.U32();
  sizes.YTOsiz = in.U32();
  in.set.Csiz = in.U16();
  if (!CheckSizes(sizes) || in.set.Csiz == 0) Refuse(KelErrBadMarker);
  ReadComponentSizes(in);
}

// ---- Coding style ----

void SetDefaultPrecincts(KelCodingStyle& style, std::int32_t exponent) {
  style.defaultPrecinctWidthExp = exponent;
  style.defaultPrecinctHeightExp = exponent;
}

/// The precinct exponents of every resolution: bytes with the width in the low four bits, unless
/// the default says that nothing is partitioned. A detail resolution has bands of half its size,
/// so that its precincts cannot be one sample wide or high.
void ReadPrecincts(HeaderReader& in, KelCodingStyle& style) {
  ReleaseCodingStyle(style);
  style.precinctWidthExps = OwnedArray<std::int32_t>::Make(format::kMostLevels + 1).Release();
  style.precinctHeightExps = OwnedArray<std::int32_t>::Make(format::kMostLevels + 1).Release();
  const bool isPartitioned = style.defaultPrecinctWidthExp != format::kWholePrecinct ||
                             style.defaultPrecinctHeightExp != format::kWholePrecinct;
  if (isPartitioned && !in.Has(static_cast<std::uint64_t>(style.numLevels) + 1)) return;
  for (std::int32_t r = 0; r <= style.numLevels; ++r) {
    const std::uint32_t exponents = isPartitioned ? in.U8() : 0xFF;
    style.precinctWidthExps[r] = exponents & 0x0F;
    style.precinctHeightExps[r] = static_cast<std::int32_t>(exponents >> 4);
    const bool isEmpty = style.precinctWidthExps[r] == 0 || style.precinctHeightExps[r] == 0;
    if (r > 0 && isEmpty) Refuse(KelErrBadMarker);
  }
}

/// The fields that COD and COC share, from the number of levels on.
void ReadStyleFields(HeaderReader& in, KelCodingStyle& style) {
  if (!in.Has(5)) return;
  style.numLevels = in.U8();
  if (style.numLevels > format::kMostLevels) Refuse(KelErrBadMarker);
  style.blockWidthExp = in.U8() + 2;
  style.blockHeightExp = in.U8() + 2;
  const std::uint32_t bits = in.U8();
  style.cbBypass = bits & 1;
  style.cbReset = bits >> 1 & 1;
  style.cbTermAll = bits >> 2 & 1;
  style.cbInterleavedSigns = ~bits >> 3 & 1;
  style.cbPredTerm = bits >> 4 & 1;
  style.cbSegSymbols = bits >> 5 & 1;
  style.irreversible = in.U8() == 0 ? 1 : 0;
  ReadPrecincts(in, style);
}

/// The first COD of a header holds; later ones are passed over. Without precinct sizes it is 12
/// bytes long.
void ReadCOD(HeaderReader& in) {
  if (in.InMainHeader() && !in.seenSIZ) Refuse(KelErrBadMarker);
  KelHeaderParams& set = in.set;
  KelCodingStyle& style = *set.codingStyle;
  set.seenCOD = 1;
  if (!in.Has(1)) return;
  const std::uint32_t flags = in.U8();
  const bool hasPrecincts = in.length != 12;
  if (hasPrecincts ? flags == 0 : (flags & 1) != 0) Refuse(KelErrBadSegmentValue);
  if (in.length < 12) Refuse(KelErrBadMarker);
  SetDefaultPrecincts(style, hasPrecincts ? 0 : format::kWholePrecinct);
  set.usesSOP = style.usesSOP = flags >> 1 & 1;
  set.usesEPH = style.usesEPH = flags >> 2 & 1;
  set.progressionOrder = style.progressionOrder = in.U8();
  set.numLayers = style.numLayers = in.U16();
  set.componentTransform = style.componentTransform = in.U8();
  if (style.progressionOrder > 4 || style.numLayers == 0) Refuse(KelErrBadMarker);
  ReadStyleFields(in, style);
  set.numLevels = set.quantisation->numLevels = style.numLevels;
  set.irreversible = style.irreversible;
  for (std::uint32_t i = 0; i < set.numComponentQuants; ++i) {
    set.componentQuants[i].numLevels = style.numLevels;
  }
}

/// The record of a component in an array of them, the one that it has already or else a new one;
/// `numbers` tell by component which that is.
template <class T>
T& RecordOf(T*& records, std::uint32_t& used, std::uint32_t& obtained, std::uint32_t*& numbers,
            std::int32_t Csiz, std::int32_t component) {
  if (numbers == nullptr) numbers = OwnedArray<std::uint32_t>::Make(AsCount(Csiz)).Release();
  if (numbers[component] == 0) {
    GrowByOne(records, used, obtained);
    numbers[component] = ++used;
  }
  return records[numbers[component] - 1];
}

/// Begins a segment about one component that has so many bytes beside the component's index.
std::int32_t ReadComponent(HeaderReader& in, std::uint32_t otherBytes, std::uint8_t& seen) {
  if (in.InMainHeader() && !in.seenSIZ) Refuse(KelErrBadMarker);
  if (in.length < otherBytes + in.IndexBytes()) Refuse(KelErrBadMarker);
  seen = 1;
  const std::int32_t component = in.Index();
  if (component >= in.set.Csiz) Refuse(KelErrBadMarker);
  return component;
}

/// A component's style begins as a copy of the COD's. Its segment has precinct sizes when Scoc says
/// so and it is longer than its other fields.
void ReadCOC(HeaderReader& in) {
  KelHeaderParams& set = in.set;
  constexpr std::uint32_t kPlainBytes = 8;
  const std::int32_t component = ReadComponent(in, kPlainBytes, set.seenCOC);
  KelCodingStyle& style =
      RecordOf(set.componentStyles, set.numComponentStyles, set.obtainedComponentStyles,
               set.styleNumbers, set.Csiz, component);
  ReleaseCodingStyle(style);
  style = *set.codingStyle;
  style.precinctWidthExps = style.precinctHeightExps = nullptr;
  style.component = component;
  const bool hasPrecincts = (in.U8() & 1) != 0 && in.length > kPlainBytes + in.IndexBytes();
  SetDefaultPrecincts(style, hasPrecincts ? 0 : format::kWholePrecinct);
  ReadStyleFields(in, style);
  if (in.cutOff) return;
  style.defaultPrecinctWidthExp = style.precinctWidthExps[0];
  style.defaultPrecinctHeightExp = style.precinctHeightExps[0];
}

// ---- Quantisation ----

/// Exponent in the upper five bits, mantissa in the lower eleven.
void ReadStep(HeaderReader& in, KelQuantParams& quant, std::uint32_t i) {
  const std::int32_t step = in.U16();
  quant.exponents[i] = step >> 11;
  quant.mantissas[i] = step & 0x7FF;
}

/// Only the lowest band's step was signalled: the exponents of the others fall by one from each
/// resolution to the next.
void DeriveSteps(KelQuantParams& quant) {
  for (std::int32_t i = 1; i < kQuantEntries; ++i) {
    quant.exponents[i] = quant.exponents[0] - ((i - 1) / 3 + 1);
    quant.mantissas[i] = quant.mantissas[0];
  }
}

/// The rest of QCD or QCC from the style byte on, `numBytes` of them behind it.
void ReadSteps(HeaderReader& in, KelQuantParams& quant, std::uint32_t numBytes) {
  const std::uint32_t style = in.U8();
  quant.guardBits = static_cast<std::uint8_t>(style >> 5);
  quant.quantised = (style & 3) != 0 ? 1 : 0;
  quant.derived = style & 1;
  std::fill_n(quant.exponents, kQuantEntries, 0);
  std::fill_n(quant.mantissas, kQuantEntries, 0);
  if (quant.derived != 0) {
    if (numBytes < 2) Refuse(KelErrBadMarker);
    ReadStep(in, quant, 0);
    DeriveSteps(quant);
    return;
  }
  const std::uint32_t count = quant.quantised != 0 ? numBytes / 2 : numBytes;
  if (count > kQuantEntries) Refuse(KelErrBadMarker);
  for (std::uint32_t i = 0; i < count; ++i) {
    if (quant.quantised != 0) {
      ReadStep(in, quant, i);
    } else {
      quant.exponents[i] = in.U8() >> 3;
    }
  }
}

/// A later QCD replaces an earlier one.
void ReadQCD(HeaderReader& in) {
  if (in.InMainHeader() && !in.seenSIZ) Refuse(KelErrBadMarker);
  if (in.length < 3) Refuse(KelErrBadMarker);
  in.set.seenQCD = 1;
  ReadSteps(in, *in.set.quantisation, in.length - 3);
}

void ReadQCC(HeaderReader& in) {
  KelHeaderParams& set = in.set;
  constexpr std::uint32_t kFixedBytes = 3;
  const std::int32_t component = ReadComponent(in, kFixedBytes, set.seenQCC);
  auto exponents = OwnedArray<std::int32_t>::Make(kQuantEntries);
  auto mantissas = OwnedArray<std::int32_t>::Make(kQuantEntries);
  KelQuantParams& quant =
      RecordOf(set.componentQuants, set.numComponentQuants, set.obtainedComponentQuants,
               set.quantNumbers, set.Csiz, component);
  ReleaseQuantParams(quant);
  quant = *set.quantisation;
  quant.exponents = exponents.Release();
  quant.mantissas = mantissas.Release();
  quant.component = component;
  ReadSteps(in, quant, in.length - kFixedBytes - in.IndexBytes());
}

// ---- Region, progression changes, comment ----

void ReadRGN(HeaderReader& in) {
  KelHeaderParams& set = in.set;
  if (set.regions == nullptr) Refuse(KelErrBadMarker);
  set.seenRGN = 1;
  if (in.length != 5 && in.length != 6) Refuse(KelErrBadSegmentValue);
  const std::int32_t component = in.length == 5 ? in.U8() : in.U16();
  if (component >= set.Csiz) Refuse(KelErrBadMarker);
  KelRoiParams& region = set.regions[component];
  region.component = component;
  region.present = 1;
  if ((in.U8() & 1) != 0) Refuse(KelErrBadSegmentValue);
  region.shift = in.U8();
}

/// The first POC of a header holds; later ones are passed over.
void ReadPOC(HeaderReader& in) {
  KelHeaderParams& set = in.set;
  if (in.InMainHeader() && !in.seenSIZ) Refuse(KelErrBadMarker);
  KelProgressionChanges& changes = *set.progressionChanges;
  const std::uint32_t entryBytes = 5 + 2 * in.IndexBytes();
  if (in.length < 2 + entryBytes) Refuse(KelErrBadMarker);
  set.seenPOC = 1;
  const auto count = static_cast<std::int32_t>((in.length - 2) / entryBytes);
  AllocProgressionChanges(changes, count);
  for (std::int32_t i = 0; i < count; ++i) {
    changes.resolutionStart[i] = in.U8();
    changes.componentStart[i] = static_cast<std::uint16_t>(in.Index());
    changes.layerEnd[i] = in.U16();
    changes.resolutionEnd[i] = in.U8();
    changes.componentEnd[i] = static_cast<std::uint16_t>(in.Index());
    changes.order[i] = in.U8();
    if (changes.order[i] > 4) Refuse(KelErrBadMarker);
  }
}

/// A later comment replaces an earlier one.
void ReadCOM(HeaderReader& in) {
  if (in.length < 4) Refuse(KelErrBadMarker);
  in.set.seenCOM = 1;
  in.U16();  // Rcom: binary or Latin-1 text, not kept
  auto comment = OwnedArray<std::uint8_t>::Make(in.length - 4);
  in.data.ReadBytes(comment.Data(), comment.Size());
  KelFree(in.set.comment);
  in.set.commentLength = static_cast<std::uint16_t>(comment.Size());
  in.set.comment = comment.Release();
}

// ---- Delimiters ----

void ReadSOC(HeaderReader& in) {
  in.data.SkipForward(2);
  if (!in.InMainHeader()) Refuse(KelErrBadMarker);
}

/// Ends a main header, unread. Begins a tile-part header, which holds no other.
void ReadSOT(HeaderReader& in) {
  in.stop = in.InMainHeader();
  if (in.stop || !in.Has(format::kSotBytes)) return;
  in.data.SkipForward(format::kMarkerBytes);
  if (in.U16() != format::kSotBytes - format::kMarkerBytes || in.seenSOT) Refuse(KelErrBadMarker);
  in.seenSOT = true;
  in.set.Isot = in.U16();
  const std::uint32_t length = in.U32();
  if (in.tilePartLength != nullptr) *in.tilePartLength = length;
  in.set.TPsot = in.U8();
  in.set.TNsot = in.U8();
}

/// Ends a tile-part header.
void ReadSOD(HeaderReader& in) {
  in.data.SkipForward(2);
  in.stop = true;
  if (in.InMainHeader()) Refuse(KelErrBadMarker);
}

void ReadEOC(HeaderReader& in) {
  in.data.SkipForward(2);
  in.stop = true;
}

void PassSOP(HeaderReader& in) {
  if (in.Has(format::kSopBytes)) in.data.SkipForward(format::kSopBytes);
}

void PassEPH(HeaderReader& in) {
  in.data.SkipForward(2);
}

void RefusePackedHeaders(HeaderReader&) {
  Refuse(KelErrUnsupported);
}

/// Passes over a segment from its length on. False when the data end before it does.
bool PassSegment(KelDecDataMgr& data) {
  if (data.EnsureBuffered(2) != kBufferedOk) return false;
  const std::uint32_t length = data.ReadUInt(2);
  if (length < 2) Refuse(KelErrBadMarker);
  return data.SkipForward(length - 2) == length - 2;
}

/// Passes over what the table does not name, from behind its marker: nothing more for the markers
/// xx30 to xx3F, which stand alone. False when the data end before the segment does.
bool PassUnknown(KelDecDataMgr& data, std::uint32_t marker) {
  const std::uint32_t first = data.MarkerByte() << 8;
  if (marker < first) Refuse(KelErrBadMarker);
  if (marker >= first + 0x30 && marker <= first + 0x3F) return true;
  return PassSegment(data);
}

// ---- The table of segments ----

struct SegmentReader {
  std::uint32_t code;  ///< second byte of the marker
  void (*read)(HeaderReader& in);
  /// Read from behind the length field, the segment complete; else from the marker on.
  bool hasLength = true;
  /// Set: this is a repetition, to be passed over.
  std::uint8_t KelHeaderParams::*seen = nullptr;
};

constexpr SegmentReader kSegments[] = {
    {.code = format::kSOC, .read = ReadSOC, .hasLength = false},
    {.code = format::kSIZ, .read = ReadSIZ},
    {.code = format::kCOD, .read = ReadCOD, .seen = &KelHeaderParams::seenCOD},
    {.code = format::kCOC, .read = ReadCOC},
    {.code = format::kQCD, .read = ReadQCD},
    {.code = format::kQCC, .read = ReadQCC},
    {.code = format::kRGN, .read = ReadRGN},
    {.code = format::kPOC, .read = ReadPOC, .seen = &KelHeaderParams::seenPOC},
    {.code = format::kPPM, .read = RefusePackedHeaders, .hasLength = false},
    {.code = format::kPPT, .read = RefusePackedHeaders, .hasLength = false},
    {.code = format::kCOM, .read = ReadCOM},
    {.code = format::kSOT, .read = ReadSOT, .hasLength = false},
    {.code = format::kSOP, .read = PassSOP, .hasLength = false},
    {.code = format::kEPH, .read = PassEPH, .hasLength = false},
    {.code = format::kSOD, .read = ReadSOD, .hasLength = false},
    {.code = format::kEOC, .read = ReadEOC, .hasLength = false},
};

void ReadSegment(HeaderReader& in) {
  const std::uint32_t marker = in.data.PeekByte(0) << 8 | in.data.PeekByte(1);
  const std::uint32_t code = marker - (in.data.MarkerByte() << 8);
  const SegmentReader* end = std::end(kSegments);
  const SegmentReader* found = std::find_if(std::begin(kSegments), end,
                                            [&](const SegmentReader& s) { return s.code == code; });
  if (found != end && !found->hasLength) return found->read(in);
  in.data.SkipForward(2);
  const bool isRepeated = found != end && found->seen != nullptr && in.set.*found->seen != 0;
  if (found == end || isRepeated) {
    in.cutOff = !PassUnknown(in.data, marker);
    return;
  }
  if (!in.Has(2)) return;
  in.length = in.U16();
  if (in.length < 2) Refuse(KelErrBadMarker);
  if (in.Has(in.length - 2)) found->read(in);
}

void KeepPlace(HeaderReader& in, std::uint32_t code, std::int64_t position) {
  const std::int64_t length = in.data.GetPosition() - position;
  if (in.cutOff || length == 0) return;
  KelHeaderParams& set = in.set;
  GrowByOne(set.places, set.numPlaces, set.obtainedPlaces);
  set.places[set.numPlaces++] = {position, code, static_cast<std::uint32_t>(length)};
}

}  // namespace

HeaderResult ReadHeader(KelHeaderParams& set, KelDecDataMgr& data, std::uint32_t* tilePartLength) {
  HeaderReader in{.set = set, .data = data, .tilePartLength = tilePartLength};
  const Failure refusal = RefusalBy([&] {
    while (!in.stop && in.Has(2)) {
      const std::int64_t position = data.GetPosition();
      const std::uint32_t marker = data.PeekByte(1);
      ReadSegment(in);
      if (set.keepsPlaces) KeepPlace(in, marker, position);
    }
    if (!in.InMainHeader()) return;
    const bool isWhole = !in.cutOff && in.seenSIZ && set.seenCOD != 0 && set.seenQCD != 0;
    if (!isWhole) Refuse(KelErrBadMarker);
  });
  if (refusal.errCode != KelOK) return {refusal, in.InMainHeader() && in.cutOff};
  if (in.cutOff) data.SkipForward(UINT64_MAX);
  return {refusal, in.cutOff};
}

}  // namespace kel
