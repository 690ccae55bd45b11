// Reading the boxes of a file, in the layout of the library's own and in the standard one: one
// reader, and a table of box types per layout.
//
// After every box the reader stands on the box's first byte plus its length, or behind what was
// read where a child reached further than its superbox; so it always moves forward. Nothing is
// obtained for bytes that have not arrived.
#include "decode/KelFileFormatRead.h"

#include <algorithm>
#include <array>
#include <cfloat>

#include "base/KelRaise.h"
#include "decode/KelFileFormatBoxes.h"

namespace kel {
namespace {

constexpr std::uint64_t kBoxHeaderBytes = 8;
constexpr std::uint64_t kFirstPiece = 65536;  // of contents that arrive by a stream

/// Reads the header of a box: length and type, and for length 1 the long length. No box is
/// shorter than its header. False when the data cut it off.
[[nodiscard]] bool ReadBoxHeader(BoxReader& in, BoxExtent& box) {
  if (!in.Has(kBoxHeaderBytes)) return false;
  std::uint64_t length = in.U32();
  std::uint64_t headerBytes = kBoxHeaderBytes;
  box.type = in.U32();
  box.toEnd = length == 0;
  if (length == 1) {
    headerBytes = 16;
    if (!in.Has(8)) return false;
    length = in.U32();
    length = length << 32 | in.U32();
  }
  if (!box.toEnd && length < headerBytes) Refuse(KelErrBoxSignature);
  box.bodyLength = box.toEnd ? UINT64_MAX : length - headerBytes;
  return true;
}

/// Lets a box's handler read it, if there is one, and passes over what is left of it.
void ReadBody(BoxReader& in, const BoxExtent& box, std::span<const BoxHandler> handlers) {
  const std::int64_t bodyStart = in.data.GetPosition();
  const auto handler = std::find_if(handlers.begin(), handlers.end(),
                                    [&](const BoxHandler& h) { return h.type == box.type; });
  if (handler == handlers.end() && box.toEnd) return;
  if (handler != handlers.end()) handler->read(in, box);
  if (in.stop) return;
  const std::uint64_t used = AsCount(in.data.GetPosition() - bodyStart);
  if (used < box.bodyLength) in.data.SkipForward(box.bodyLength - used);
}

// ---- Header superbox, compositing-layer header, and their children ----

/// 'ihdr': HEIGHT WIDTH (4 bytes each) NC (2) BPC C UnkC IPR. BPC 255 leaves the depths to 'bpcc'.
void ReadImageHeader(BoxReader& in, const BoxExtent& box) {
  KelImageHeaderInfo& header = *in.info.imageHeader;
  if (box.bodyLength != 14 || header.bitDepths != nullptr) Refuse(KelErrBoxSignature);
  if (!in.Has(14)) Refuse(KelErrBoxTruncated);
  header.HEIGHT = in.U32();
  header.WIDTH = in.U32();
  const std::uint32_t count = in.U16();
  // One byte more than there are components: the arrays tell that the box was read.
  header.isSigned = OwnedArray<std::uint8_t>::Make(count + 1).Release();
  header.bitDepths = OwnedArray<std::uint8_t>::Make(count + 1).Release();
  header.NC = count;
  const std::uint32_t depth = in.U8();
  if (depth < 255) {
    std::fill_n(header.bitDepths, count, static_cast<std::uint8_t>(depth & 0x7F));
    std::fill_n(header.isSigned, count, static_cast<std::uint8_t>(depth >> 7));
    header.numDepths = count;
  }
  if (in.U8() != 7) Refuse(KelErrBoxSignature);
  in.U8();  // UnkC
  in.info.IPR = in.U8() != 0;
}

/// 'bpcc': a byte per component, sign in bit 7 and depth minus one below. One that is too short
/// leaves the last components without a depth of the boxes, whatever 'ihdr' said.
void ReadComponentDepths(BoxReader& in, const BoxExtent& box) {
  KelImageHeaderInfo& header = *in.info.imageHeader;
  if (header.bitDepths == nullptr) Refuse(KelErrBoxSignature);
  const std::uint64_t count = std::min<std::uint64_t>(header.NC, box.bodyLength);
  if (!in.Has(count)) Refuse(KelErrBoxTruncated);
  for (std::uint64_t c = 0; c < count; ++c) {
    const std::uint8_t depth = in.U8();
    header.bitDepths[c] = depth & 0x7F;
    header.isSigned[c] = depth >> 7;
  }
  header.numDepths = static_cast<std::uint32_t>(count);
}

/// A resolution value: numerator over denominator, times ten to a signed power.
float ResolutionOf(double numerator, double denominator, std::int8_t exponent) {
  double value = denominator != 0 ? numerator / denominator : 0;
  for (int i = 0; i < exponent; ++i) value *= 10;
  for (int i = 0; i > exponent; --i) value /= 10;
  return static_cast<float>(std::min<double>(value, FLT_MAX));
}

/// 'resc': VRcN VRcD HRcN HRcD (2 bytes each) VRcE HRcE.
void ReadCaptureResolution(BoxReader& in, const BoxExtent& box) {
  if (box.bodyLength != 10) Refuse(KelErrBoxSignature);
  if (!in.Has(10)) Refuse(KelErrBoxTruncated);
  const double verticalN = in.U16(), verticalD = in.U16();
  const double horizontalN = in.U16(), horizontalD = in.U16();
  const auto verticalE = static_cast<std::int8_t>(in.U8());
  const auto horizontalE = static_cast<std::int8_t>(in.U8());
  in.info.verticalResolution = ResolutionOf(verticalN, verticalD, verticalE);
  in.info.horizontalResolution = ResolutionOf(horizontalN, horizontalD, horizontalE);
}

constexpr BoxHandler kResolutionChildren[] = {{format::BoxType("resc"), ReadCaptureResolution}};

void ReadResolution(BoxReader& in, const BoxExtent& box) {
  in.info.ResolutionInfoPresent = true;
  ReadChildren(in, box, kResolutionChildren, KelErrBoxHeader);
}

constexpr BoxHandler kHeaderChildren[] = {{format::BoxType("ihdr"), ReadImageHeader},
                                          {format::BoxType("bpcc"), ReadComponentDepths},
                                          {format::BoxType("colr"), ReadColorSpec},
                                          {format::BoxType("pclr"), ReadPalette},
                                          {format::BoxType("cmap"), ReadComponentMapping},
                                          {format::BoxType("cdef"), ReadChannelDefinition},
                                          {format::BoxType("res "), ReadResolution}};

void ReadHeaderSuperbox(BoxReader& in, const BoxExtent& box) {
  ReadChildren(in, box, kHeaderChildren, KelErrBoxHeader);
}

constexpr BoxHandler kGroupChildren[] = {{format::BoxType("colr"), ReadColorSpec}};

void ReadColorGroup(BoxReader& in, const BoxExtent& box) {
  ReadChildren(in, box, kGroupChildren, KelErrBoxTruncated);
}

/// The first 'opct' of a layer counts, unless channels were defined before it there.
void ReadLayerOpacity(BoxReader& in, const BoxExtent& box) {
  if (in.layerHasOpacity || in.layerHasChannels) return;
  in.layerHasOpacity = true;
  ReadOpacity(in, box);
}

/// The first 'cdef' of a layer counts, unless the file gave an opacity anywhere.
void ReadLayerChannels(BoxReader& in, const BoxExtent& box) {
  if (in.info.opacityPresent || in.layerHasChannels) return;
  in.layerHasChannels = true;
  ReadChannelDefinition(in, box);
}

constexpr BoxHandler kLayerChildren[] = {{format::BoxType("opct"), ReadLayerOpacity},
                                         {format::BoxType("cdef"), ReadLayerChannels},
                                         {format::BoxType("cgrp"), ReadColorGroup},
                                         {format::BoxType("res "), ReadResolution}};

void ReadLayerHeader(BoxReader& in, const BoxExtent& box) {
  in.layerHasOpacity = in.layerHasChannels = false;
  ReadChildren(in, box, kLayerChildren, KelErrBoxTruncated);
}

// ---- Boxes of the top level ----

void ReadSignature(BoxReader& in, const BoxExtent& box) {
  if (box.bodyLength != 4) Refuse(KelErrBoxSignature);
  if (!in.Has(4)) Refuse(KelErrBoxTruncated);
  if (in.U32() != in.signature) Refuse(KelErrBoxSignature);
}

/// Brand and compatibility list are not looked at, but must be there.
void PassFileType(BoxReader& in, const BoxExtent& box) {
  const std::uint64_t passed = in.data.SkipForward(box.bodyLength);
  if (!box.toEnd && passed != box.bodyLength) Refuse(KelErrBoxTruncated);
}

void PassBox(BoxReader&, const BoxExtent&) {}

/// 'flst': NF, then the fragments, which are not followed.
void ReadFragmentList(BoxReader& in, const BoxExtent& box) {
  if (box.bodyLength < 2) Refuse(KelErrBoxSignature);
  if (!in.Has(2)) Refuse(KelErrBoxTruncated);
  in.U16();  // NF
}

constexpr BoxHandler kFragmentChildren[] = {{format::BoxType("flst"), ReadFragmentList}};

void ReadFragmentTable(BoxReader& in, const BoxExtent& box) {
  ReadChildren(in, box, kFragmentChildren, KelErrBoxHeader);
}

void ReadXML(BoxReader& in, const BoxExtent& box) {
  KelFileInfo& info = in.info;
  GatheredBytes contents{};
  if (!ReadContents(in.data, box.bodyLength, box.toEnd, contents)) Refuse(KelErrBoxRange);
  GrowByOne(info.XMLBoxes, info.NumXMLBoxes, info.obtainedXMLBoxes);
  __tagKelXML& xml = info.XMLBoxes[info.NumXMLBoxes++];
  xml.length = static_cast<KelULong>(contents.length);
  xml.data = contents.bytes.Release();
  info.XMLPresent = true;
}

void ReadUUID(BoxReader& in, const BoxExtent& box) {
  KelFileInfo& info = in.info;
  __tagKelUUID uuid{};
  if (box.bodyLength < sizeof uuid.uuid) Refuse(KelErrBoxSignature);
  if (!in.Has(sizeof uuid.uuid)) Refuse(KelErrBoxTruncated);
  in.data.ReadBytes(uuid.uuid, sizeof uuid.uuid);
  GatheredBytes contents{};
  if (!ReadContents(in.data, box.bodyLength - sizeof uuid.uuid, box.toEnd, contents)) {
    Refuse(KelErrBoxRange);
  }
  GrowByOne(info.UUIDBoxes, info.NumUUIDBoxes, info.obtainedUUIDBoxes);
  uuid.length = static_cast<KelULong>(contents.length);
  uuid.data = contents.bytes.Release();
  info.UUIDBoxes[info.NumUUIDBoxes++] = uuid;
  info.UUIDPresent = true;
}

/// The first code stream is the one to decode. Boxes behind it are read where the data may be
/// walked.
void ReadCodeStreamBox(BoxReader& in, const BoxExtent& box) {
  const bool isFirst = !in.info.codeStreamFound;
  if (isFirst) {
    in.data.SavePositionA();
    in.info.codeStreamFound = true;
    in.info.codeStreamLength = box.toEnd ? 0 : box.bodyLength;
  }
  if (!box.toEnd && in.data.IndexAllowed()) return;
  if (!isFirst) in.data.ReturnToPositionA();
  in.stop = true;
}

// ---- Layouts ----

struct BoxLayout {
  const char* module;
  std::uint32_t signature;
  std::array<BoxHandler, 11> boxes;
};

/// The types in which layouts differ.
struct LayoutTypes {
  std::uint32_t signature, header, codeStream, codeStreamHeader, layerHeader;
};

constexpr std::array<BoxHandler, 11> TopLevel(const LayoutTypes& types) {
  return {{{types.signature, ReadSignature},
           {format::BoxType("ftyp"), PassFileType},
           {format::BoxType("rreq"), PassBox},
           {format::BoxType("cref"), PassBox},
           {types.codeStreamHeader, PassBox},
           {types.header, ReadHeaderSuperbox},
           {types.layerHeader, ReadLayerHeader},
           {format::BoxType("ftbl"), ReadFragmentTable},
           {format::BoxType("xml "), ReadXML},
           {format::BoxType("uuid"), ReadUUID},
           {types.codeStream, ReadCodeStreamBox}}};
}

constexpr BoxLayout kOwnLayout = {
    kModuleFileFormat, format::BoxType("zolt"),
    TopLevel({format::BoxType("weab"), format::BoxType("vrmh"), format::BoxType("vrmc"),
              format::BoxType("abch"), format::BoxType("ablh")})};

constexpr BoxLayout kStandardLayout = {
    kModuleFileFormatOld, 0x0D0A870A,
    TopLevel({format::BoxType("jP  "), format::BoxType("jp2h"), format::BoxType("jp2c"),
              format::BoxType("jpch"), format::BoxType("jplh")})};

/// Whether all of a box has arrived; the reader stays at its contents. False too where a stream
/// does not come back to them.
bool IsComplete(KelDecDataMgr& data, const BoxExtent& box) {
  if (box.toEnd) return true;
  const std::int64_t bodyStart = data.GetPosition();
  const bool isComplete = data.SkipForward(box.bodyLength) == box.bodyLength;
  return data.MoveTo(bodyStart) && isComplete;
}

void RecordBox(BoxReader& in, const BoxExtent& box, std::int64_t position) {
  KelFileInfo& info = in.info;
  GrowByOne(info.boxes, info.numBoxes, info.obtainedBoxes);
  const auto headerBytes = static_cast<std::uint32_t>(in.data.GetPosition() - position);
  info.boxes[info.numBoxes++] = {position, box.bodyLength, box.type, headerBytes};
}

void ReadTopLevel(BoxReader& in, const BoxLayout& layout) {
  while (!in.stop && in.Has(kBoxHeaderBytes)) {
    BoxExtent box{};
    const std::int64_t position = in.data.GetPosition();
    const bool hasHeader = ReadBoxHeader(in, box);
    // Behind the code stream, what is cut off has not arrived yet and is no failure.
    const bool isBehind = in.info.codeStreamFound;
    if (isBehind && !hasHeader) break;
    if (!hasHeader) Refuse(KelErrBoxHeader);
    RecordBox(in, box, position);
    if (isBehind && !IsComplete(in.data, box)) break;
    ReadBody(in, box, layout.boxes);
  }
  if (in.info.codeStreamFound && !in.stop) in.data.ReturnToPositionA();
}

}  // namespace

void ReadChildren(BoxReader& in, const BoxExtent& parent, std::span<const BoxHandler> handlers,
                  KelLong cutCode) {
  const std::int64_t start = in.data.GetPosition();
  for (;;) {
    const std::uint64_t walked = AsCount(in.data.GetPosition() - start);
    if (walked >= parent.bodyLength || parent.bodyLength - walked < kBoxHeaderBytes) return;
    if (parent.toEnd && in.data.AtEnd()) return;
    BoxExtent child{};
    if (!ReadBoxHeader(in, child)) Refuse(cutCode);
    if (child.toEnd) Refuse(KelErrBoxSignature);
    ReadBody(in, child, handlers);
  }
}

bool ReadContents(KelDecDataMgr& data, std::uint64_t length, bool toEnd, GatheredBytes& contents) {
  if (data.InMemory() && !toEnd && length > data.Available()) return false;
  contents = GatherBytes(data, length, kFirstPiece, 0);
  return toEnd || contents.length == length;
}

Failure ReadBoxes(KelFileInfo& info, KelDecDataMgr& data) {
  const BoxLayout& layout = data.GetFlavour() == Flavour::kFF ? kStandardLayout : kOwnLayout;
  return NamingModule(layout.module, [&] {
    BoxReader in{.info = info, .data = data, .signature = layout.signature};
    return RefusalBy([&] { ReadTopLevel(in, layout); });
  });
}

}  // namespace kel
