// The boxes of a file: signature, file type, reader requirements, header superbox, XML and UUID
// boxes, and the header of the code-stream box.
//
// A box is its length and its type (32 bits each) and its contents. Everything is gathered in an
// output buffer; a box's length is filled in when its contents stand behind it. Relies on records
// that FileRecordsAreWritable found in order.
#include "encode/KelFileFormatWrite.h"

#include <algorithm>

#include "KelStreamWrite.h"
#include "base/KelBytes.h"
#include "base/KelOutBuffer.h"
#include "base/KelRaise.h"
#include "encode/KelMainStream.h"
#include "kel/KelFormat.h"

namespace kel {
namespace {

constexpr std::uint32_t kBoxBufferBytes = 10240;

/// Most bytes that records of the host may bring, so that all boxes together, with what the
/// library adds, stay below what a stream position can count.
constexpr std::uint64_t kMostRecordBytes = 0x7FFFFFFF - 0x100000;

/// Most bytes of one box beyond its payload.
constexpr std::uint64_t kBoxOverhead = 64;

constexpr float kInchesPerMetre = 39.37008F;

/// A box under construction: its header is written first, its length at the end of the scope.
class BoxScope {
 public:
  BoxScope(KelOutBuffer& out, const char (&type)[5]) : out_(out), start_(out.count) {
    PutU32(out, 0);
    PutBytes(out, type, 4);
  }
  ~BoxScope() { PatchU32(out_, start_, out_.count - start_); }
  BoxScope(const BoxScope&) = delete;
  BoxScope& operator=(const BoxScope&) = delete;

 private:
  KelOutBuffer& out_;
  std::uint32_t start_;
};

std::uint32_t EntryBytes(std::uint8_t depth) {
  return (depth + 7U) / 8;
}

std::uint64_t PaletteRowBytes(const __tagKelPalette& palette) {
  std::uint64_t bytes = 0;
  for (KelULong i = 0; i < palette.numColumns; ++i) bytes += EntryBytes(palette.depths[i]);
  return bytes;
}

bool PaletteIsWritable(const __tagKelPalette* p) {
  if (p == nullptr || p->numEntries > 65535 || p->numColumns > 255 || p->layout > 1) return false;
  if (p->numColumns != 0 && p->depths == nullptr) return false;
  if (p->mapComponent != nullptr && (p->mapType == nullptr || p->mapColumn == nullptr)) {
    return false;
  }
  if (p->numEntries == 0 || p->numColumns == 0) return true;
  const KelULong arrays = p->layout == 0 ? p->numColumns : p->numEntries;
  return p->columns != nullptr &&
         std::find(p->columns, p->columns + arrays, nullptr) == p->columns + arrays;
}

/// Adds up the payloads of records with a length and an address each; beyond any limit when one
/// has the first without the second.
template <class Record>
std::uint64_t PayloadBytes(const Record* records, KelLong count) {
  if (count < 0 || (count > 0 && records == nullptr)) return kMostRecordBytes + 1;
  std::uint64_t bytes = 0;
  for (KelLong i = 0; i < count; ++i) {
    if (records[i].length != 0 && records[i].data == nullptr) return kMostRecordBytes + 1;
    bytes += records[i].length + kBoxOverhead;
  }
  return bytes;
}

/// The colour description in a list with the greatest precedence, the first of equals; null
/// without.
const KelColorSpec* FirstChoice(const __tagColorSpecList& list) {
  const KelColorSpec* choice = nullptr;
  const KelColorSpec* entry = list.first;
  for (KelULong i = 0; i < list.count && entry != nullptr; ++i, entry = entry->next) {
    if (choice == nullptr || entry->precedence > choice->precedence) choice = entry;
  }
  return choice;
}

/// Calls visit for each entry of a list, as far as its count and its chain reach.
template <class Visit>
void ForEachColor(const __tagColorSpecList& list, Visit visit) {
  const KelColorSpec* entry = list.first;
  for (KelULong i = 0; i < list.count && entry != nullptr; ++i, entry = entry->next) visit(*entry);
}

std::uint64_t ColorBytes(const __tagColorSpecList& list) {
  std::uint64_t bytes = 0;
  ForEachColor(list, [&](const KelColorSpec& spec) {
    bytes += kBoxOverhead;
    if (spec.method != 2 && spec.method != 3) return;
    const __tagICCProfile* profile = spec.iccProfile;
    const bool isThere = profile != nullptr && (profile->size == 0 || profile->data != nullptr);
    bytes += isThere ? profile->size : kMostRecordBytes + 1;
  });
  return bytes;
}

/// The requirement that the chosen colour description makes of a reader; 0 for none.
std::uint32_t ColorFeature(const __tagColorSpecList* list) {
  const KelColorSpec* choice = list != nullptr ? FirstChoice(*list) : nullptr;
  if (choice == nullptr) return 0;
  if (choice->method == 3) return 44;
  if (choice->method == 2) return 43;
  if (choice->method != 1) return 0;
  switch (choice->enumeratedSpace) {
    case format::kSpaceSRGB:
      return 45;
    case format::kSpaceGrey:
      return 46;
    case format::kSpaceCMYK:
      return 55;
    case format::kSpaceCIELab:
      return 56;
    default:
      return 0;
  }
}

std::uint32_t NumUuids(const KelEncOpt& o) {
  return o.UUIDPresent ? static_cast<std::uint32_t>(o.NumUUIDBoxes) : 0;
}

/// What a reader must be able to do: standard features by their numbers, then one vendor feature
/// per UUID box. Feature i owns bit 31 - i of a mask, so there are 32 at most; a mask is written
/// as its leading bytes.
void WriteReaderRequirements(const KelEncOpt& o, KelOutBuffer& out) {
  const std::uint32_t standard[] = {1, 5, 12, 18, ColorFeature(o.ColorSpecList)};
  const std::uint32_t numStandard = standard[4] != 0 ? 5 : 4;
  const std::uint32_t numVendor = std::min(NumUuids(o), 32 - numStandard);
  const std::uint32_t numFeatures = numStandard + numVendor;
  const std::uint32_t maskBytes = (numFeatures + 7) / 8;
  const auto putMask = [&](std::uint32_t mask) {
    PutUInt(out, mask >> (32 - 8 * maskBytes), static_cast<int>(maskBytes));
  };
  const auto leading = [](std::uint32_t n) {
    return static_cast<std::uint32_t>(~0ULL << (32 - n));
  };

  const BoxScope box(out, "rreq");
  PutByte(out, maskBytes);
  putMask(leading(numFeatures));
  putMask(leading(numStandard));
  PutU16(out, numStandard);
  for (std::uint32_t i = 0; i < numStandard; ++i) {
    PutU16(out, standard[i]);
    putMask(1U << (31 - i));
  }
  PutU16(out, numVendor);
  for (std::uint32_t i = 0; i < numVendor; ++i) {
    PutBytes(out, o.UUIDBoxes[i].uuid, 16);
    putMask(1U << (31 - numStandard - i));
  }
}

/// Image size, component count and depths; a box of depths only when they differ.
void WriteImageHeader(const KelEncOpt& o, KelOutBuffer& out) {
  const KelImageGeometry& g = *o.GeomParams;
  const KelLong first = AnnouncedDepth(o);
  bool differ = false;
  for (KelLong c = 0; c < g.Csiz; ++c) {
    if (IsInMainStream(o, c) && g.BitDepths[c] != first) differ = true;
  }
  {
    const BoxScope box(out, "ihdr");
    PutU32(out, static_cast<std::uint32_t>(g.Ysiz - g.YOsiz));
    PutU32(out, static_cast<std::uint32_t>(g.Xsiz - g.XOsiz));
    PutU16(out, static_cast<std::uint32_t>(NumInMainStream(o)));
    PutByte(out, differ ? 255 : static_cast<std::uint32_t>(first - 1));
    PutByte(out, 7);  // C: wavelet compression
    PutByte(out, 1);  // UnkC: the colour space may not be accurate
    PutByte(out, 0);  // IPR: no rights information
  }
  if (!differ) return;
  const BoxScope box(out, "bpcc");
  for (KelLong c = 0; c < g.Csiz; ++c) {
    if (IsInMainStream(o, c)) PutByte(out, static_cast<std::uint32_t>(g.BitDepths[c] - 1));
  }
}

void PutCieParams(const KelColorSpec& spec, KelOutBuffer& out) {
  const KelCIEParams& p = spec.cie;
  for (const KelULong value : {p.rangeL, p.offsetL, p.rangeA, p.offsetA, p.rangeB, p.offsetB}) {
    PutU32(out, value);
  }
  if (spec.enumeratedSpace != format::kSpaceCIELab) return;
  if (p.illuminantKind == format::kIlluminantTemperature) {
    PutBytes(out, "CT", 2);
    PutU16(out, p.temperature);
  } else {
    PutU32(out, p.illuminant);
  }
}

/// One colour description; methods other than 1 to 3 are not written.
void WriteColor(const KelColorSpec& spec, KelOutBuffer& out) {
  if (spec.method < 1 || spec.method > 3) return;
  const BoxScope box(out, "colr");
  PutByte(out, spec.method);
  PutByte(out, spec.precedence);
  PutByte(out, spec.approximation);
  if (spec.method != 1) {
    PutBytes(out, spec.iccProfile->data, spec.iccProfile->size);
    return;
  }
  const KelULong space = spec.enumeratedSpace;
  PutU32(out, space == format::kSpacePlainCIELab   ? format::kSpaceCIELab
              : space == format::kSpacePlainCIEJab ? format::kSpaceCIEJab
                                                   : space);
  if (space == format::kSpaceCIELab || space == format::kSpaceCIEJab) PutCieParams(spec, out);
}

/// The options' colour descriptions, or one that follows from the number of components.
void WriteColors(const KelEncOpt& o, KelOutBuffer& out) {
  if (o.ColorSpecList != nullptr) {
    ForEachColor(*o.ColorSpecList, [&](const KelColorSpec& spec) { WriteColor(spec, out); });
    return;
  }
  const KelLong count = NumInMainStream(o);
  KelColorSpec spec{};
  spec.method = 1;
  if (count >= 3 && o.NumColorChannels >= 3) {
    spec.enumeratedSpace = format::kSpaceSRGB;
  } else if (count <= 3 && o.NumColorChannels >= 1) {
    spec.enumeratedSpace = format::kSpaceGrey;
  }
  WriteColor(spec, out);
}

/// The entries of a palette, entry by entry, whichever way they are stored.
void PutPaletteEntries(const __tagKelPalette& p, KelOutBuffer& out) {
  for (KelULong j = 0; j < p.numEntries; ++j) {
    if (p.layout == 1) {
      PutBytes(out, p.columns[j], PaletteRowBytes(p));
      continue;
    }
    for (KelULong i = 0; i < p.numColumns; ++i) {
      const std::uint64_t bytes = EntryBytes(p.depths[i]);
      PutBytes(out, p.columns[i] + j * bytes, bytes);
    }
  }
}

/// The palette, and which of its columns each channel comes from.
void WritePalette(const __tagKelPalette& p, KelOutBuffer& out) {
  {
    const BoxScope box(out, "pclr");
    PutU16(out, p.numEntries);
    PutByte(out, p.numColumns);
    PutBytes(out, p.depths, p.numColumns);
    PutPaletteEntries(p, out);
  }
  const BoxScope box(out, "cmap");
  for (KelULong i = 0; i < p.numColumns; ++i) {
    const bool isMapped = p.mapComponent != nullptr;
    PutU16(out, isMapped ? p.mapComponent[i] : 0);
    PutByte(out, isMapped ? p.mapType[i] : 1U);
    PutByte(out, isMapped ? p.mapColumn[i] : i);
  }
}

/// What each channel is, when there are extra channels: colours with their numbers, the opacity of
/// the whole image, and others without a type.
void WriteChannelDefinitions(const KelEncOpt& o, KelOutBuffer& out) {
  const KelLong numComps = o.GeomParams->Csiz;
  if (!o.ExtraChannelCodingParams || numComps <= o.NumColorChannels) return;
  const BoxScope box(out, "cdef");
  PutU16(out, static_cast<std::uint32_t>(NumInMainStream(o)));
  std::uint32_t index = 0;
  for (KelLong c = 0; c < numComps; ++c) {
    if (!IsInMainStream(o, c)) continue;
    const bool isOpacity = o.TransparencyPresent && c == o.TransparencyComponent;
    const std::uint32_t plainType = IsExtraChannel(o, c) ? 65535 : 0;
    PutU16(out, index);
    PutU16(out, isOpacity ? static_cast<std::uint32_t>(o.TransparencyType) : plainType);
    PutU16(out, isOpacity ? 0 : index + 1);
    ++index;
  }
}

/// Samples per metre as a fraction's numerator: truncated, at least 1, at most what fits.
std::uint32_t PerMetre(float perInch) {
  const float perMetre = perInch * kInchesPerMetre;
  if (!(perMetre >= 1.0F)) return 1;
  return perMetre >= 65535.0F ? 65535 : static_cast<std::uint32_t>(perMetre);
}

void WriteResolution(const KelEncOpt& o, KelOutBuffer& out) {
  const BoxScope box(out, "res ");
  const BoxScope capture(out, "resc");
  PutU16(out, PerMetre(o.ResolutionY));
  PutU16(out, 1);
  PutU16(out, PerMetre(o.ResolutionX));
  PutU16(out, 1);
  PutU16(out, 0);  // both exponents
}

void WriteHeaderBox(const KelEncOpt& o, KelOutBuffer& out) {
  const BoxScope box(out, "vrmh");
  WriteImageHeader(o, out);
  WriteColors(o, out);
  if (o.PalettePresent) WritePalette(*o.Palette, out);
  WriteChannelDefinitions(o, out);
  if (o.ResolutionInfoPresent) WriteResolution(o, out);
}

void WriteDataBoxes(const KelEncOpt& o, KelOutBuffer& out) {
  for (KelLong i = 0; o.XMLPresent && i < o.NumXMLBoxes; ++i) {
    const BoxScope box(out, "xml ");
    PutBytes(out, o.XMLBoxes[i].data, o.XMLBoxes[i].length);
  }
  for (std::uint32_t i = 0; i < NumUuids(o); ++i) {
    const BoxScope box(out, "uuid");
    PutBytes(out, o.UUIDBoxes[i].uuid, 16);
    PutBytes(out, o.UUIDBoxes[i].data, o.UUIDBoxes[i].length);
  }
}

/// The boxes up to the code stream. Raises 8.
KelOutBuffer MakeBoxes(const KelEncOpt& options) {
  KelOutBuffer out = KelOutBuffer::Make(kBoxBufferBytes);
  {
    const BoxScope box(out, "weab");
    PutBytes(out, "zolt", 4);
  }
  {
    const BoxScope box(out, "ftyp");
    PutBytes(out, "weab", 4);
    PutU32(out, 1);  // MinV
    PutBytes(out, "weab", 4);
  }
  WriteReaderRequirements(options, out);
  WriteHeaderBox(options, out);
  WriteDataBoxes(options, out);
  PutU32(out, 0);  // the code stream's box runs to the end of the file
  PutBytes(out, "vrmc", 4);
  return out;
}

}  // namespace

bool FileRecordsAreWritable(const KelEncOpt& o) {
  std::uint64_t bytes = 0;
  if (o.XMLPresent) bytes += PayloadBytes(o.XMLBoxes, o.NumXMLBoxes);
  if (o.UUIDPresent) bytes += PayloadBytes(o.UUIDBoxes, o.NumUUIDBoxes);
  if (o.ColorSpecList != nullptr) bytes += ColorBytes(*o.ColorSpecList);
  if (o.PalettePresent) {
    if (!PaletteIsWritable(o.Palette)) return false;
    bytes += PaletteRowBytes(*o.Palette) * o.Palette->numEntries;
  }
  return bytes <= kMostRecordBytes;
}

bool WriteBoxes(const KelEncOpt& options, KelCodeStm& stream, std::uint32_t* length) {
  if (!FileRecordsAreWritable(options)) return false;
  const KelOutBuffer out = NamingModule(kModuleFileFormat, [&] { return MakeBoxes(options); });
  if (stream.IsSeekable()) stream.seek(1, 0);
  WriteOut(stream, out.bytes.Data(), out.count);
  *length = out.count;
  return true;
}

}  // namespace kel
