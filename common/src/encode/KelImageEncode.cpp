// Initialising an encoder: checking the options, taking a private copy of them, preparing the
// records, and writing the headers; and releasing it again.
//
// Failures of its own checks fill the image's failure record and are returned, not raised.
#include "encode/KelImageEncode.h"

#include <algorithm>
#include <cstdio>

#include "KelRate.h"
#include "KelStreamWrite.h"
#include "KelTileCoder.h"
#include "base/KelRaise.h"
#include "encode/KelFileFormatWrite.h"
#include "encode/KelMainHeader.h"
#include "encode/KelMainStream.h"
#include "encode/KelTileRows.h"
#include "format/KelHeaders.h"
#include "format/KelStreamPosition.h"
#include "samples/KelImageDataAccess.h"
#include "transform/KelBandWeights.h"

namespace kel {
namespace {

/// Code-block exponents and region style that every encoder has.
constexpr KelLong kBlockExp = 3;
constexpr KelLong kRegionStyle = 2;

bool IsWithin(KelLong v, KelLong least, KelLong most) {
  return v >= least && v <= most;
}

/// Creates the host's debug file, or empties it. What becomes of it matters to nobody here.
void EmptyDebugFile(const char* name) noexcept {
  if (name == nullptr || name[0] == '\0') return;
  if (std::FILE* file = std::fopen(name, "wb")) std::fclose(file);
}

/// Whether a geometry can be copied: its arrays are there and its tiling is allowed.
bool GeometryIsWhole(const KelImageGeometry* g) {
  return g != nullptr && IsWithin(g->Csiz, 1, format::kMostComponents) && g->XRsiz != nullptr &&
         g->YRsiz != nullptr && g->BitDepths != nullptr && !g->ParamsAreInConsistent();
}

bool ArgumentsAreThere(const KelEncOpt* options, const KelCodeStm* stream,
                       const KelClientProcs* procs) {
  return options != nullptr && GeometryIsWhole(options->GeomParams) && stream != nullptr &&
         !stream->ReadOnly() && procs != nullptr && procs->ImageDataProcs != nullptr;
}

/// The code stream carries no offsets, and tile indices of 16 bits.
bool GeometryCanBeCoded(const KelImageGeometry& g) {
  const bool hasOffsets = g.XOsiz != 0 || g.YOsiz != 0 || g.XTOsiz != 0 || g.YTOsiz != 0;
  const std::int64_t numTiles = std::int64_t{g.NumXTiles} * g.NumYTiles;
  if (hasOffsets || g.Xsiz < 1 || g.Ysiz < 1 || g.NumXTiles < 1 || g.NumYTiles < 1 ||
      numTiles > format::kMostTiles) {
    return false;
  }
  for (KelLong c = 0; c < g.Csiz; ++c) {
    if (!IsWithin(g.XRsiz[c], 1, format::kMostSubsampling) ||
        !IsWithin(g.YRsiz[c], 1, format::kMostSubsampling) ||
        !IsWithin(g.BitDepths[c], 1, format::kMostEncodedDepth)) {
      return false;
    }
  }
  return true;
}

bool CodingParamsAreAllowed(const KelEncOpt& o) {
  return IsWithin(o.NumLayers, 1, format::kMostLayers) &&
         IsWithin(o.NumLevels, 0, format::kMostLevels) &&
         IsWithin(o.ProgressionOrder, KelLRCP, KelCPRL) &&
         IsWithin(o.PrecinctWidthExp, 0, format::kWholePrecinct) &&
         IsWithin(o.PrecinctHeightExp, 0, format::kWholePrecinct);
}

/// A component transform needs three components alike, all of them written.
bool ComponentTransformIsAllowed(const KelEncOpt& o) {
  const KelImageGeometry& g = *o.GeomParams;
  if (!o.ComponentTransform || g.Csiz < 3) return true;
  const auto areAlike = [](const KelLong* factors) {
    return factors[0] == factors[1] && factors[0] == factors[2];
  };
  if (!areAlike(g.XRsiz) || !areAlike(g.YRsiz)) return false;
  return o.NumColorChannels < 3 || StreamIndex(o, 3) == 3;
}

/// Mask and transparency must be components, two different ones, and the latter no colour: it would
/// be coded with loss and not be marked. Something must be written, and fit the tile-parts of its
/// organisation.
bool ChannelsAreAllowed(const KelEncOpt& o) {
  const KelLong last = o.GeomParams->Csiz - 1;
  if (o.RoiEnabled && !IsWithin(o.RoiMaskComponent, 0, last)) return false;
  if (o.TransparencyPresent && (!IsWithin(o.TransparencyComponent, o.NumColorChannels, last) ||
                                IsRegionMask(o, o.TransparencyComponent))) {
    return false;
  }
  const KelLong numWritten = NumInMainStream(o);
  const KelLong mostWritten =
      o.ProgressionOrder == KelCPRL ? format::kMostCountedTileParts : format::kMostComponents;
  return IsWithin(numWritten, 1, mostWritten);
}

/// The encoder's own copy of the options, in checked form. Raises 8.
void TakeSettings(EncoderState& e, const KelEncOpt& options) {
  KelEncOpt& s = e.settings;
  s.InitToDefaults(options.GeomParams);
  KelImageGeometry* geometry = s.GeomParams;
  s = options;
  s.GeomParams = geometry;
  s.LayerTargets = s.RateTable = nullptr;
  s.NumColorChannels = std::min(s.NumColorChannels, geometry->Csiz);
  s.Irreversible = s.Irreversible != 0 ? 1 : 0;
}

bool SettingsAreAllowed(const KelEncOpt& o) {
  return GeometryCanBeCoded(*o.GeomParams) && o.NumColorChannels >= 0 &&
         CodingParamsAreAllowed(o) && ChannelsAreAllowed(o) && ComponentTransformIsAllowed(o) &&
         FileRecordsAreWritable(o);
}

/// Extra channels get an option set of their own, coded without loss. One serves them all: a set
/// holds a geometry with arrays of all components. Raises 8.
void MakeExtraOptions(ImageMap& map, KelEncOpt& options) {
  if (map.firstExtra == map.numComps) return;
  map.extraOptions = OwnedRecord<KelEncOpt>::Make().Release();
  map.extraOptions->Clone(&options);
  map.extraOptions->Irreversible = 0;
}

void PrepareMap(ImageMap& map, EncoderState& e, KelEncOpt& options) {
  const KelImageGeometry& g = *e.settings.GeomParams;
  map.geometry = e.settings.GeomParams;
  map.encOpt = &options;
  map.numComps = g.Csiz;
  map.numTiles = g.NumXTiles * g.NumYTiles;
  map.firstExtra = e.settings.NumColorChannels;
  MakeExtraOptions(map, options);
  InitTileRecords(map);
}

void PrepareRateControl(EncoderState& e) {
  const KelEncOpt& s = e.settings;
  e.bandWeights = OwnedArray<float>::Make(AsCount(NumSubbands(s.NumLevels))).Release();
  if (s.ChooseIndices != 0 && !s.RoiEnabled) {
    ComputeWholeBandWeights(s.NumLevels, e.bandWeights);
  } else {
    ComputeBandWeights(s.NumLevels, e.bandWeights);
  }
  ChooseAnnouncedSteps(e);
  e.qualitySteps = OwnedArray<KelLong>::Make(kNumQualitySteps).Release();
  e.quality = IsWithin(s.RateParamA, 1, 100) ? s.RateParamA : QualityNumber(s.TargetQuality);
  e.byteTarget = e.extraChannelsSize = e.transparencySize = -1;
}

/// Releases what an encoder that is given up has not handed to the host: the buffer comes from the
/// library, and nobody else would.
void DropHeldOutput(KelCodeStm& stream) noexcept {
  KelFree(stream.wbuf);
  stream.wbuf = nullptr;
  stream.wbufCap = stream.wbufFill = 0;
}

/// Records a failed check and returns its code.
KelLong Refuse(ImageState& state, SourcePlace place = SourcePlace::Here()) {
  state.failure = MakeFailure(KelErrBadParam, kModuleImage, place);
  return KelErrBadParam;
}

/// Writes boxes and main header; *bytes receives their size.
KelLong WriteHeaders(ImageState& state, KelULong* bytes) {
  const KelEncOpt& o = state.encoder->settings;
  std::uint32_t boxBytes = 0;
  if (!WriteBoxes(o, *state.codeStm, &boxBytes)) return Refuse(state);
  const std::uint32_t headerBytes = WriteMainHeader(o, state.encoder, *state.codeStm);
  state.encoder->headerBytes = boxBytes + headerBytes;
  if (bytes != nullptr) *bytes = boxBytes + headerBytes;
  return KelOK;
}

}  // namespace

KelLong InitEncoder(ImageState& state, KelEncOpt* options, KelCodeStm* stream,
                    KelClientProcs* procs) {
  const char* debugFileName = options != nullptr ? options->DebugFileName : nullptr;
  ScopeGuard undo([&] {
    ReleaseEncoder(state);
    EmptyDebugFile(debugFileName);
  });
  if (options != nullptr) {
    options->RateMode = format::kRateModeEncoder;
    options->CodeBlockWidthExp = options->CodeBlockHeightExp = kBlockExp;
    if (options->RoiEnabled) options->RoiStyle = kRegionStyle;
  }
  if (!ArgumentsAreThere(options, stream, procs)) return Refuse(state);
  state.encoder = OwnedRecord<EncoderState>::Make().Release();
  EncoderState& e = *state.encoder;
  TakeSettings(e, *options);
  if (!SettingsAreAllowed(e.settings)) return Refuse(state);
  if (!InitSourceReader(e.reader, *procs->ImageDataProcs, *e.settings.GeomParams)) {
    return Refuse(state);
  }
  state.encOpt = options;
  state.geometry = options->GeomParams;
  state.codeStm = stream;
  state.imageDataProcs = procs->ImageDataProcs;
  state.progress.actions = procs->UserActions;
  state.maxRes = e.settings.NumLevels;
  PrepareMap(state.map, e, *options);
  PrepareRateControl(e);
  e.coders = OwnedArray<TileCompCoder*>::Make(AsCount(state.map.numComps)).Release();
  e.toWrite = OwnedArray<TileCompToWrite>::Make(AsCount(state.map.numComps)).Release();
  if (!e.settings.ProgressPerCall) BeginProgress(state.progress, state.map.numTiles);
  WriteHeaders(state, nullptr);
  undo.Disarm();
  return KelOK;
}

KelLong SetRowProcs(ImageState& state, const KelRowProcs* procs) {
  SourceReader& reader = state.encoder->reader;
  if (procs != nullptr && (procs->GetTileRows == nullptr || reader.numInterleaved == 0)) {
    return Refuse(state);
  }
  reader.rows = procs != nullptr ? *procs : KelRowProcs();
  return KelOK;
}

void ReleaseCoders(const ImageState& state) noexcept {
  EncoderState& e = *state.encoder;
  for (KelLong c = 0; e.coders != nullptr && c < state.map.numComps; ++c) {
    ReleaseTileCompCoder(e.coders[c]);
  }
  ReleaseKept(e.rowsMemory);
}

KelLong WriteKelHeaders(ImageState& state, KelULong* bytes) {
  if (bytes != nullptr) *bytes = 0;
  KelCodeStm& stream = *state.codeStm;
  const std::int64_t position = PositionOf(stream);
  const KelLong code = WriteHeaders(state, bytes);
  if (code != KelOK) return code;
  // Output behind the headers stays where it is.
  if (stream.IsSeekable() && position > PositionOf(stream)) {
    FlushOut(stream);
    MoveStream(stream, position);
  }
  return KelOK;
}

void ReleaseEncoder(ImageState& state) noexcept {
  EncoderState* e = state.encoder;
  if (e == nullptr) return;
  EndProgress(state.progress);
  if (state.codeStm != nullptr) DropHeldOutput(*state.codeStm);
  const char* debugFileName = e->settings.DebugFileName;
  ReleaseCoders(state);
  ReleaseImageMap(state.map);
  state.map = {};
  KelFree(e->coders);
  KelFree(e->toWrite);
  KelFree(e->bandWeights);
  KelFree(e->qualitySteps);
  e->settings.Die();
  KelFree(e);
  state.encoder = nullptr;
  state.encOpt = nullptr;
  state.geometry = nullptr;
  state.codeStm = nullptr;
  state.imageDataProcs = nullptr;
  state.progress = {};
  EmptyDebugFile(debugFileName);
}

}  // namespace kel
