// Reading the boxes about colour and channels: colour descriptions, palette, component mapping,
// channel definitions, opacity. A box that says a finding anew replaces it, but colour
// descriptions, which form a list.
//
// Every count is checked against the box's length, and the box's bytes must have arrived, before
// room is obtained for what it counts.
#include <algorithm>

#include "decode/KelFileFormatBoxes.h"

namespace kel {
namespace {

constexpr std::uint32_t kColorTemperature = 0x4354;  // the characters CT

/// Bytes of a palette entry or key value whose stored depth byte is given: depth minus one, so
/// that 0 stands for no bytes at all.
constexpr std::uint32_t BytesOf(std::uint32_t storedDepth) {
  return (storedDepth + 7) / 8;
}

/// Depth of a component by the image header; 8 where that does not tell.
KelULong DepthOf(const KelFileInfo& info, std::uint32_t component) {
  const KelImageHeaderInfo& header = *info.imageHeader;
  return component < header.NC ? header.bitDepths[component] + 1U : 8U;
}

KelColorSpec& AppendColorSpec(KelFileInfo& info) {
  if (info.ColorSpecList == nullptr) {
    info.ColorSpecList = OwnedRecord<__tagColorSpecList>::Make().Release();
  }
  KelColorSpec* entry = OwnedRecord<KelColorSpec>::Make().Release();
  (info.lastColorSpec != nullptr ? info.lastColorSpec->next : info.ColorSpecList->first) = entry;
  info.lastColorSpec = entry;
  ++info.ColorSpecList->count;
  return *entry;
}

/// The parameters of the two CIE spaces: six ranges and offsets; for CIELab also an illuminant or,
/// behind the characters CT, a colour temperature. A box without them means the defaults.
void ReadCIEParams(BoxReader& in, KelCIEParams& cie, bool isLab, std::uint64_t bytesLeft) {
  cie.kind = isLab ? format::kKindCIELab : format::kKindCIEJab;
  if (bytesLeft == 0) {
    InitDefaultCIEParams(cie.kind, &cie, DepthOf(in.info, 1), DepthOf(in.info, 2));
    return;
  }
  const std::uint64_t needed = isLab ? 28 : 24;
  if (bytesLeft < needed) Refuse(KelErrBoxSignature);
  if (!in.Has(needed)) Refuse(KelErrBoxTruncated);
  for (KelULong* field :
       {&cie.rangeL, &cie.offsetL, &cie.rangeA, &cie.offsetA, &cie.rangeB, &cie.offsetB}) {
    *field = in.U32();
  }
  if (!isLab) return;
  const std::uint32_t first = in.U16();
  const std::uint16_t second = in.U16();
  if (first == kColorTemperature) {
    cie.illuminantKind = format::kIlluminantTemperature;
    cie.temperature = second;
  } else {
    cie.illuminantKind = format::kIlluminantCode;
    cie.illuminant = first << 16 | second;
  }
}

void ReadICCProfile(BoxReader& in, const BoxExtent& box, KelColorSpec& entry) {
  entry.iccProfile = OwnedRecord<__tagICCProfile>::Make().Release();
  GatheredBytes contents{};
  if (!ReadContents(in.data, box.bodyLength - 3, box.toEnd, contents)) Refuse(KelErrBoxRange);
  entry.iccProfile->size = static_cast<KelULong>(contents.length);
  entry.iccProfile->data = contents.bytes.Release();
}

/// Room for NE entries of every column. Columns without bytes share one block of zeros, an entry a
/// byte, so that a host that reads them stays inside.
void ObtainColumns(KelFileInfo& info, const __tagKelPalette& palette) {
  info.paletteColumns = OwnedArray<std::uint8_t*>::Make(palette.numColumns).Release();
  info.numPaletteColumns = palette.numColumns;
  for (KelULong i = 0; i < palette.numColumns; ++i) {
    const std::uint32_t entryBytes = BytesOf(palette.depths[i]);
    if (entryBytes == 0 && info.emptyColumn == nullptr) {
      info.emptyColumn = OwnedArray<std::uint8_t>::Make(palette.numEntries).Release();
    }
    info.paletteColumns[i] =
        entryBytes == 0
            ? info.emptyColumn
            : OwnedArray<std::uint8_t>::Make(SaturatingMul(palette.numEntries, entryBytes))
                  .Release();
  }
}

/// Channels of the colours 1 to k in their order, k being the number of colour entries, -1 for a
/// colour that no entry names; then the other channel numbers below N ascending.
void DeriveChannelOrder(KelChannelDefinition& channels) {
  const KelULong n = channels.N;
  auto isPlaced = OwnedArray<std::uint8_t>::Make(n);
  const auto isColour = [&](KelULong i) { return channels.Typ[i] == 0; };
  KelULong numColours = 0;
  for (KelULong i = 0; i < n; ++i) numColours += isColour(i) ? 1 : 0;
  std::fill_n(channels.order, numColours, -1);
  for (KelULong i = n; i-- > 0;) {  // of several entries for a colour the first one holds
    const bool isNumbered = AsCount(channels.Asoc[i]) - 1 < numColours;
    if (isColour(i) && isNumbered) channels.order[channels.Asoc[i] - 1] = channels.Cn[i];
  }
  for (KelULong slot = 0; slot < numColours; ++slot) {
    const auto channel = static_cast<std::size_t>(AsCount(channels.order[slot]));
    if (channels.order[slot] >= 0 && channel < n) isPlaced[channel] = 1;
  }
  KelULong slot = numColours;
  for (KelULong channel = 0; channel < n && slot < n; ++channel) {
    if (isPlaced[channel] == 0) channels.order[slot++] = static_cast<KelLong>(channel);
  }
}

}  // namespace

/// 'colr': METH PREC APPROX, then EnumCS (4) and its parameters for method 1, an ICC profile for
/// methods 2 and 3, nothing known for others.
void ReadColorSpec(BoxReader& in, const BoxExtent& box) {
  if (box.bodyLength < 3) Refuse(KelErrBoxSignature);
  if (!in.Has(3)) Refuse(KelErrBoxTruncated);
  KelColorSpec& entry = AppendColorSpec(in.info);
  entry.method = in.U8();
  entry.precedence = in.U8();
  entry.approximation = in.U8();
  if (entry.method == 2 || entry.method == 3) {
    ReadICCProfile(in, box, entry);
    return;
  }
  if (entry.method != 1) return;
  if (box.bodyLength < 7) Refuse(KelErrBoxSignature);
  if (!in.Has(4)) Refuse(KelErrBoxTruncated);
  entry.enumeratedSpace = in.info.enumeratedSpace = in.U32();
  const bool isLab = entry.enumeratedSpace == format::kSpaceCIELab;
  if (!isLab && entry.enumeratedSpace != format::kSpaceCIEJab) return;
  ReadCIEParams(in, entry.cie, isLab, box.bodyLength - 7);
}

/// 'pclr': NE (2) NPC (1), a depth byte per column, then the entries, each with all its columns.
void ReadPalette(BoxReader& in, const BoxExtent& box) {
  KelFileInfo& info = in.info;
  if (box.bodyLength < 3) Refuse(KelErrBoxSignature);
  if (!in.Has(3)) Refuse(KelErrBoxTruncated);
  ReleasePalette(info);
  info.PalettePresent = true;
  info.Palette = OwnedRecord<__tagKelPalette>::Make().Release();
  __tagKelPalette& palette = *info.Palette;
  palette.numEntries = in.U16();
  const std::uint32_t numColumns = in.U8();
  if (box.bodyLength < 3 + numColumns) Refuse(KelErrBoxSignature);
  palette.depths = OwnedArray<std::uint8_t>::Make(numColumns).Release();
  palette.columns = OwnedArray<std::uint8_t*>::Make(numColumns).Release();
  palette.numColumns = numColumns;
  if (in.data.ReadBytes(palette.depths, numColumns) < numColumns) Refuse(KelErrBoxTruncated);
  std::uint64_t entryBytes = 0;
  for (std::uint32_t i = 0; i < numColumns; ++i) entryBytes += BytesOf(palette.depths[i]);
  const std::uint64_t allBytes = SaturatingMul(entryBytes, palette.numEntries);
  if (allBytes > box.bodyLength - 3 - numColumns) Refuse(KelErrBoxSignature);
  GatheredBytes entries{};
  if (!ReadContents(in.data, allBytes, false, entries)) Refuse(KelErrBoxTruncated);
  ObtainColumns(info, palette);
  // Column by column: those without bytes cost nothing, however many entries are announced.
  const std::uint8_t* first = entries.bytes.Data();
  for (std::uint32_t i = 0; i < numColumns; ++i) {
    const std::size_t width = BytesOf(palette.depths[i]);
    if (width == 0 || palette.numEntries == 0) continue;
    for (std::size_t j = 0; j < palette.numEntries; ++j) {
      std::copy_n(first + j * entryBytes, width, info.paletteColumns[i] + j * width);
    }
    first += width;
  }
  std::copy_n(info.paletteColumns, numColumns, palette.columns);
}

/// 'cmap': CMP (2) MTYP PCOL per channel. All three arrays have an entry for every column at least.
/// Without a palette the box means nothing.
void ReadComponentMapping(BoxReader& in, const BoxExtent& box) {
  KelFileInfo& info = in.info;
  if (info.Palette == nullptr) return;
  __tagKelPalette& palette = *info.Palette;
  const std::uint64_t count = box.bodyLength / 4;
  GatheredBytes mappings{};
  if (!ReadContents(in.data, 4 * count, false, mappings)) Refuse(KelErrBoxTruncated);
  const std::uint64_t size = std::max<std::uint64_t>(count, palette.numColumns);
  auto components = OwnedArray<KelULong>::Make(size);
  auto types = OwnedArray<std::uint8_t>::Make(size);
  auto indices = OwnedArray<std::uint8_t>::Make(size);
  for (std::size_t i = 0; i < count; ++i) {
    components[i] = mappings.U16At(4 * i);
    types[i] = mappings.bytes[4 * i + 2];
    indices[i] = mappings.bytes[4 * i + 3];
    if (types[i] != 0 && indices[i] >= palette.numColumns) Refuse(KelErrBoxSignature);
  }
  KelFree(palette.mapComponent);
  KelFree(palette.mapType);
  KelFree(palette.mapColumn);
  palette.mapComponent = components.Release();
  palette.mapType = types.Release();
  palette.mapColumn = indices.Release();
  info.numMappings = static_cast<KelULong>(count);
}

/// 'cdef': N (2), then Cn Typ Asoc (2 each) per entry.
void ReadChannelDefinition(BoxReader& in, const BoxExtent& box) {
  if (box.bodyLength < 2) Refuse(KelErrBoxSignature);
  if (!in.Has(2)) Refuse(KelErrBoxTruncated);
  const std::uint32_t count = in.U16();
  if (box.bodyLength - 2 < 6 * std::uint64_t{count}) Refuse(KelErrBoxSignature);
  GatheredBytes entries{};
  if (!ReadContents(in.data, 6 * std::uint64_t{count}, false, entries)) Refuse(KelErrBoxTruncated);
  ReleaseChannelDefinition(in.info);
  in.info.ChannelDefPresent = true;
  in.info.ChannelDefs = OwnedRecord<KelChannelDefinition>::Make().Release();
  KelChannelDefinition& channels = *in.info.ChannelDefs;
  channels.order = OwnedArray<KelLong>::Make(count).Release();
  channels.Cn = OwnedArray<KelLong>::Make(count).Release();
  channels.Typ = OwnedArray<KelLong>::Make(count).Release();
  channels.Asoc = OwnedArray<KelLong>::Make(count).Release();
  channels.N = count;
  for (std::uint32_t i = 0; i < count; ++i) {
    channels.Cn[i] = static_cast<KelLong>(entries.U16At(6 * i));
    channels.Typ[i] = static_cast<KelLong>(entries.U16At(6 * i + 2));
    channels.Asoc[i] = static_cast<KelLong>(entries.U16At(6 * i + 4));
  }
  DeriveChannelOrder(channels);
}

/// 'opct': Otyp; for a chroma key Nch, then a value per channel as long as its stored depth asks.
void ReadOpacity(BoxReader& in, const BoxExtent& box) {
  KelFileInfo& info = in.info;
  const KelImageHeaderInfo& header = *info.imageHeader;
  if (header.bitDepths == nullptr || box.bodyLength < 1) Refuse(KelErrBoxSignature);
  if (!in.Has(1)) Refuse(KelErrBoxTruncated);
  ReleaseOpacity(info);
  info.opacityPresent = true;
  info.opacity = OwnedRecord<KelOpacityInfo>::Make().Release();
  info.opacity->Otyp = in.U8();
  if (info.opacity->Otyp != 2) return;
  if (box.bodyLength < 2) Refuse(KelErrBoxSignature);
  if (!in.Has(1)) Refuse(KelErrBoxTruncated);
  const std::uint32_t count = in.U8();
  if (count > header.NC) Refuse(KelErrBoxSignature);
  std::uint64_t allBytes = 0;
  for (std::uint32_t c = 0; c < count; ++c) allBytes += BytesOf(header.bitDepths[c]);
  if (box.bodyLength - 2 < allBytes) Refuse(KelErrBoxSignature);
  if (!in.Has(allBytes)) Refuse(KelErrBoxTruncated);
  info.opacity->chromaKey = OwnedRecord<KelChromaKey>::Make().Release();
  KelChromaKey& key = *info.opacity->chromaKey;
  key.values = OwnedArray<KelLong>::Make(count).Release();
  key.numChannels = count;
  for (std::uint32_t c = 0; c < count; ++c) {
    const std::uint32_t numBytes = BytesOf(header.bitDepths[c]);
    std::uint32_t value = 0;
    for (std::uint32_t i = 0; i < numBytes; ++i) value = value << 8 | in.U8();
    value &= 0xFFFFFFFF >> (8 * numBytes - header.bitDepths[c]);
    key.values[c] = static_cast<KelLong>(header.isSigned[c] != 0 ? 0 - value : value);
  }
}

}  // namespace kel
