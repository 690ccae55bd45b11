// Initialising a decoder: recognising the data, reading boxes and main header, and preparing the
// records of the image.
//
// Failures of its own checks fill the image's failure record and are returned, not raised.
#include "decode/KelImageDecode.h"

#include <algorithm>
#include <new>

#include "KelTileLayout.h"
#include "base/KelRaise.h"
#include "decode/KelFileFormatRead.h"
#include "decode/KelHeadersRead.h"

namespace kel {
namespace {

/// Tile-components of all tiles together that an image may have: far more than pictures do, and
/// a small part of what two numbers of 16 bits can ask for.
constexpr std::int64_t kMostTileComps = std::int64_t{1} << 20;

/// First load, loads after a move, and largest loads of a stream of which little will be read.
constexpr std::uint32_t kLittleLoadBytes = 4096, kLittleAfterMove = 64, kMostLittle = 128;

/// Bytes asked for before the headers are read; the data may be shorter. Given, like the window.
constexpr std::uint64_t kHeaderBytes = 1024;

constexpr float kMetresPerInch = 0.0254F;
static_assert(kWindowBytes >= kBoxWindowBytes && kWindowBytes >= kHeaderWindowBytes,
              "the readers' longest requests fit the window");

/// Records a failed check in the state and returns its code.
KelLong Fail(ImageState& state, KelLong code, SourcePlace place = SourcePlace::Here()) {
  state.failure = MakeFailure(code, kModuleImage, place);
  return code;
}

/// The same for what a reader has refused.
KelLong Fail(ImageState& state, const Failure& refusal) {
  state.failure = refusal;
  return refusal.errCode;
}

/// Finds out the flavour of the data and sets the byte source up over them.
KelLong OpenData(ImageState& state, KelCodeStm* stream, const KelCompressedData* data) {
  DecoderState& d = *state.decoder;
  // A stream that cannot seek back is not tested.
  d.flavour = Flavour::kAB;
  d.streamIsSeekable = stream != nullptr && stream->IsSeekable();
  if (data != nullptr) {
    state.endsInHeader = data->length <= format::kSignatureBytes;
    const auto flavour = RecogniseSignature(*data);
    if (!flavour) return Fail(state, KelErrUnknownFormat);
    d.flavour = *flavour;
  } else if (d.streamIsSeekable) {
    // A host may have looked at the beginning, or at everything, before.
    if (stream->seek(1, 0) != 0) return Fail(state, KelErrUnknownFormat);
    const auto flavour = RecogniseSignature(*stream);
    if (!flavour || stream->seek(1, 0) != 0) return Fail(state, KelErrUnknownFormat);
    d.flavour = *flavour;
  }
  d.dataMgr = OwnedRecord<KelDecDataMgr>::Make().Release();
  if (data != nullptr) {
    d.block = *data;
    d.dataMgr->InitFromMemory(d.block, d.flavour);
  } else {
    state.codeStm = stream;
    const std::uint32_t firstLoad = state.servesIndex ? kLittleLoadBytes : kFirstLoadBytes;
    const bool isThere = d.dataMgr->InitFromStream(firstLoad, kWindowBytes, stream, d.flavour);
    if (state.servesIndex) d.dataMgr->SetLoads(kLittleAfterMove, kMostLittle);
    if (!isThere) return Fail(state, KelErrNothingRead);
  }
  d.dataMgr->EnsureBuffered(kHeaderBytes);
  return KelOK;
}

/// Whether the data begin with a code stream, not with boxes around one.
bool IsBareCodeStream(KelDecDataMgr& data) {
  return data.PeekByte(0) == data.MarkerByte() || data.PeekByte(1) == format::kSOC;
}

KelLong ReadFileBoxes(ImageState& state) {
  DecoderState& d = *state.decoder;
  if (IsBareCodeStream(*d.dataMgr)) return KelOK;
  d.fileInfo = OwnedRecord<KelFileInfo>::Make().Release();
  InitFileInfo(*d.fileInfo);
  // A stream is not walked past its code stream; a block of memory is.
  d.dataMgr->SetIndexAllowed(false);
  const Failure refusal = ReadBoxes(*d.fileInfo, *d.dataMgr);
  d.dataMgr->SetIndexAllowed(true);
  const KelLong code = refusal.errCode;
  state.endsInHeader = code == KelErrBoxRange || code == KelErrBoxHeader ||
                       code == KelErrBoxTruncated ||
                       (code == KelOK && !d.fileInfo->codeStreamFound);
  if (code != KelOK) return Fail(state, refusal);
  if (!d.fileInfo->codeStreamFound) return Fail(state, KelErrBoxSignature);
  return KelOK;
}

KelLong ReadMainHeader(ImageState& state) {
  DecoderState& d = *state.decoder;
  KelHeaderParams& header = d.mainHeader;
  InitHeaderParams(header, true);
  header.keepsPlaces = state.servesIndex;
  d.codeStreamStart = d.dataMgr->GetPosition();
  std::uint32_t unused = 0;
  const HeaderResult result = ReadHeader(header, *d.dataMgr, &unused);
  state.endsInHeader = result.refusal.errCode != KelOK && result.incomplete;
  if (result.refusal.errCode != KelOK) return Fail(state, result.refusal);
  d.dataMgr->SavePositionB();
  if (std::any_of(header.isSigned, header.isSigned + header.Csiz,
                  [](std::uint8_t isSigned) { return isSigned != 0; })) {
    return Fail(state, KelErrUnsupported);
  }
  return KelOK;
}

/// Copies an array of bytes into longs.
OwnedArray<KelLong> Widen(const std::uint8_t* bytes, std::int32_t count) {
  auto longs = OwnedArray<KelLong>::Make(AsCount(count));
  std::copy_n(bytes, longs.Size(), longs.Data());
  return longs;
}

KelLong FromU32(std::uint32_t v) {
  return SaturateToInt32(v);
}

/// Gives the options the description of the image: the geometry of the main header, its coding
/// parameters, and what the boxes told.
void DescribeImage(ImageState& state, KelEncOpt& o) {
  const KelHeaderParams& h = state.decoder->mainHeader;
  const KelSizParams& s = *h.sizes;
  const auto across = Widen(s.XRsiz, h.Csiz);
  const auto down = Widen(s.YRsiz, h.Csiz);
  const auto depths = Widen(h.bitDepths, h.Csiz);
  KelImageGeometry geometry;
  ScopeGuard release([&] { geometry.Die(); });
  geometry.InitImageGeometry(FromU32(s.Xsiz), FromU32(s.Ysiz), FromU32(s.XOsiz), FromU32(s.YOsiz),
                             FromU32(s.XTsiz), FromU32(s.YTsiz), FromU32(s.XTOsiz),
                             FromU32(s.YTOsiz), across.Data(), down.Data(), h.Csiz, depths.Data());
  o.Die();
  o.InitToDefaults(&geometry);
  o.Irreversible = h.irreversible;
  o.NumLayers = h.numLayers;
  o.NumLevels = h.numLevels;
  o.ProgressionOrder = h.progressionOrder;
  o.ComponentTransform = h.componentTransform != 0;
  o.RoiEnabled = h.seenRGN != 0;

  const KelFileInfo* file = state.decoder->fileInfo;
  if (file == nullptr) return;
  o.ChannelDefPresent = file->ChannelDefPresent;
  o.ChannelDefs = file->ChannelDefs;
  o.PalettePresent = file->PalettePresent;
  o.Palette = file->Palette;
  o.XMLPresent = file->XMLPresent;
  o.NumXMLBoxes = static_cast<KelLong>(file->NumXMLBoxes);
  o.XMLBoxes = file->XMLBoxes;
  o.UUIDPresent = file->UUIDPresent;
  o.NumUUIDBoxes = static_cast<KelLong>(file->NumUUIDBoxes);
  o.UUIDBoxes = file->UUIDBoxes;
  o.ResolutionInfoPresent = file->ResolutionInfoPresent;
  o.ResolutionX = file->horizontalResolution * kMetresPerInch;
  o.ResolutionY = file->verticalResolution * kMetresPerInch;
  o.ColorSpecList = file->ColorSpecList;
  o.RateParamB = static_cast<KelLong>(std::min<std::uint64_t>(file->codeStreamLength, INT32_MAX));
  o.RateMode = format::kRateModeOfFile;
}

/// Levels below full size that a component is decoded at.
KelLong Reduction(KelDecodePixelAspectRatio aspect, std::int32_t component) {
  const bool isChroma = component == 1 || component == 2;
  switch (aspect) {
    case KelAspectHalfChroma:
      return isChroma ? 1 : 0;
    case KelAspectQuarterChroma:
      return isChroma ? 2 : 1;
    case KelAspectHalf:
      return 1;
    default:
      return 0;
  }
}

/// The depths that a file gives to single components, where they refine those of the code stream:
/// our own writer announces the first component's depth for all of them there, and the rest in the
/// boxes. Where boxes contradict the code stream otherwise, the code stream decides.
const std::uint8_t* FileDepths(const DecoderState& d) {
  const KelHeaderParams& h = d.mainHeader;
  if (d.flavour != Flavour::kAB || d.fileInfo == nullptr || d.fileInfo->imageHeader == nullptr) {
    return nullptr;
  }
  const KelImageHeaderInfo& header = *d.fileInfo->imageHeader;
  if (header.bitDepths == nullptr || header.isSigned == nullptr ||
      header.NC != static_cast<std::uint32_t>(h.Csiz) || header.numDepths != header.NC ||
      header.bitDepths[0] + 1 != h.bitDepths[0]) {
    return nullptr;
  }
  for (std::int32_t c = 0; c < h.Csiz; ++c) {
    if (h.bitDepths[c] != h.bitDepths[0] || header.isSigned[c] != 0 || header.bitDepths[c] > 37) {
      return nullptr;
    }
  }
  return header.bitDepths;
}

/// Prepares the records of tiles and components, and the resolutions to decode.
KelLong PrepareMap(ImageState& state, KelDecodePixelAspectRatio aspect) {
  DecoderState& d = *state.decoder;
  ImageMap& map = state.map;
  const KelImageGeometry& geometry = *state.geometry;
  const std::int64_t numTiles = std::int64_t{geometry.NumXTiles} * geometry.NumYTiles;
  if (geometry.NumXTiles < 1 || geometry.NumYTiles < 1 || numTiles > format::kMostTiles) {
    return Fail(state, KelErrBadMarker);
  }
  if (numTiles * geometry.Csiz > kMostTileComps) return Fail(state, KelErrNoMemory);

  map.geometry = state.geometry;
  map.numComps = geometry.Csiz;
  map.numTiles = static_cast<std::int32_t>(numTiles);
  map.encOpt = state.decOpt->EncOpt;
  map.decOpt = state.decOpt;
  map.firstExtra = map.numComps;
  map.dec = OwnedRecord<DecMap>::Make().Release();
  map.dec->mainHeader = &d.mainHeader;
  map.dec->mainParams = {.style = d.mainHeader.codingStyle,
                         .quant = d.mainHeader.quantisation,
                         .changes = d.mainHeader.progressionChanges};
  map.dec->fileDepths = FileDepths(d);
  map.dec->reductions = OwnedArray<std::int32_t>::Make(AsCount(map.numComps)).Release();
  state.maxRes = d.mainHeader.numLevels;
  for (std::int32_t c = 0; c < map.numComps; ++c) {
    map.dec->reductions[c] = std::min(Reduction(aspect, c), state.maxRes);
    const KelCodingStyle* own = FindComponentStyle(d.mainHeader, c);
    const KelLong xr = geometry.XRsiz[c];
    const KelLong yr = geometry.YRsiz[c];
    const Box box = {CeilDiv(geometry.XOsiz, xr), CeilDiv(geometry.Xsiz, xr),
                     CeilDiv(geometry.YOsiz, yr), CeilDiv(geometry.Ysiz, yr)};
    if (HasLargeBlocks(own != nullptr ? *own : *d.mainHeader.codingStyle, box)) {
      return Fail(state, KelErrUnsupported);
    }
  }
  InitTileRecords(map);
  d.dataMgr->SetTileGrid(geometry.NumXTiles, geometry.NumYTiles);
  d.dataMgr->SetDamageLog(&d.damages);
  d.furthest = d.dataMgr->PositionB();
  return KelOK;
}

/// What the readers found belongs to the image: the host's options, unless they describe another
/// one by now, must not keep addresses of it.
void ForgetFindings(const ImageState& state) noexcept {
  const KelFileInfo* file = state.decoder->fileInfo;
  KelEncOpt* o = state.decOpt != nullptr ? state.decOpt->EncOpt : nullptr;
  if (o == nullptr || file == nullptr) return;
  if (o->ChannelDefs == file->ChannelDefs) {
    o->ChannelDefs = nullptr;
    o->ChannelDefPresent = false;
  }
  if (o->Palette == file->Palette) {
    o->Palette = nullptr;
    o->PalettePresent = false;
  }
  if (o->XMLBoxes == file->XMLBoxes) {
    o->XMLBoxes = nullptr;
    o->XMLPresent = false;
    o->NumXMLBoxes = 0;
  }
  if (o->UUIDBoxes == file->UUIDBoxes) {
    o->UUIDBoxes = nullptr;
    o->UUIDPresent = false;
    o->NumUUIDBoxes = 0;
  }
  if (o->ColorSpecList == file->ColorSpecList) o->ColorSpecList = nullptr;
}

/// The array of resolutions that the host receives and releases with its own Free.
KelULong* MakeResolutions(const ImageState& state) {
  auto resolutions = OwnedArray<KelULong>::Make(AsCount(state.map.numComps));
  for (std::int32_t c = 0; c < state.map.numComps; ++c) {
    resolutions[AsIndex(c)] = static_cast<KelULong>(state.maxRes - state.map.dec->reductions[c]);
  }
  return resolutions.Release();
}

/// A set of options that describes the image and belongs to the decoder alone.
KelEncOpt* MakeDescription(ImageState& state) {
  KelEncOpt*& own = state.decoder->description;
  own = OwnedRecord<KelEncOpt>::Make().Release();
  DescribeImage(state, *own);
  return own;
}

KelLong ReadHeaders(ImageState& state, KelCodeStm* stream, KelCompressedData* data,
                    KelDecOpt* options, KelClientProcs* procs, KelULong** resolutions,
                    KelDecodePixelAspectRatio aspect) {
  if ((stream == nullptr && data == nullptr) || options == nullptr || options->EncOpt == nullptr) {
    return Fail(state, KelErrBadParam);
  }
  state.decoder = OwnedRecord<DecoderState>::Make().Release();
  state.decOpt = options;
  if (procs != nullptr) {
    state.progress.actions = procs->UserActions;
    state.imageDataProcs = procs->ImageDataProcs;
    state.decoder->work.actions = procs->UserActions;
  }
  KelLong code = OpenData(state, stream, data);
  if (code == KelOK) code = ReadFileBoxes(state);
  if (code == KelOK) code = ReadMainHeader(state);
  if (code != KelOK) return code;

  // The host may use its set for another decoder, and then it describes another image.
  DescribeImage(state, *options->EncOpt);
  state.encOpt = MakeDescription(state);
  state.geometry = state.encOpt->GeomParams;
  code = PrepareMap(state, aspect);
  if (code != KelOK) return code;
  if (resolutions != nullptr) *resolutions = MakeResolutions(state);
  return KelOK;
}

}  // namespace

KelLong InitDecoder(ImageState& state, KelCodeStm* stream, KelCompressedData* data,
                    KelDecOpt* options, KelClientProcs* procs, KelULong** resolutions,
                    KelDecodePixelAspectRatio aspect) {
  // Nothing may be asked of a half-built decoder: only the record of the failure stays.
  ScopeGuard release([&] { ReleaseDecoder(state); });
  const KelLong code = ReadHeaders(state, stream, data, options, procs, resolutions, aspect);
  if (code == KelOK) release.Disarm();
  return code;
}

KelLong SetOrientation(ImageState& state, KelLong orientation) {
  if (orientation != KelOrientation0 && orientation != KelOrientation90 &&
      orientation != KelOrientation180 && orientation != KelOrientation270) {
    return Fail(state, KelErrBadParam);
  }
  state.decoder->orientation = orientation;
  return KelOK;
}

void ReleaseDecoder(ImageState& state) noexcept {
  DecoderState* d = state.decoder;
  if (d == nullptr) return;
  ReleaseDecMap(state.map);
  ReleaseImageMap(state.map);
  ForgetFindings(state);
  if (d->description != nullptr) {
    d->description->Die();
    KelFree(d->description);
  }
  if (d->fileInfo != nullptr) {
    ReleaseFileInfo(d->fileInfo);
    KelFree(d->fileInfo);
  }
  ReleaseHeaderParams(&d->mainHeader);
  if (d->dataMgr != nullptr) {
    d->dataMgr->Release();
    KelFree(d->dataMgr);
  }
  ReleaseRequest(d->request);
  ReleaseDamageLog(d->damages);
  KelFree(d);
  state.decoder = nullptr;
  state.encOpt = nullptr;
  state.decOpt = nullptr;
  state.geometry = nullptr;
  state.codeStm = nullptr;
  state.imageDataProcs = nullptr;
  state.progress = {};
  state.maxRes = 0;
  state.map = {};
}

}  // namespace kel
