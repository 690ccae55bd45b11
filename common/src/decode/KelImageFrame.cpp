// One frame of decoding: opens the data, visits the tiles, and leaves the source ready for the
// next frame.
#include <algorithm>

#include "KelHostPlacement.h"
#include "KelTileOutput.h"
#include "base/KelRaise.h"
#include "decode/KelImageDecode.h"
#include "decode/KelImageQuery.h"
#include "decode/KelImageRegion.h"
#include "decode/KelImageTiles.h"
#include "format/KelStreamPosition.h"

namespace kel {
namespace {

/// What the reader stands on when a frame begins.
enum class FrameSource : std::uint8_t { kReady, kNothing };

/// Sets the reader up over the data of this frame, at the first tile-part. That not a byte could be
/// read there is the frame's refusal.
FrameSource OpenFrame(ImageState& state, const KelCompressedData* block) {
  DecoderState& d = *state.decoder;
  KelDecDataMgr& data = *d.dataMgr;
  const bool isFirst = d.framesDecoded == 0;
  if (block == nullptr && state.codeStm != nullptr) {
    if (isFirst) {
      data.ExpectMore();
      return FrameSource::kReady;
    }
    if (!d.streamIsSeekable || MoveStream(*state.codeStm, data.PositionB()) < 0) {
      return FrameSource::kNothing;
    }
    if (!data.InitFromStream(kFirstLoadBytes, kWindowBytes, state.codeStm, d.flavour)) {
      d.refusal = MakeFailure(KelErrNothingRead, kModuleImage);
      return FrameSource::kNothing;
    }
  } else if (block != nullptr || !isFirst) {
    if (block != nullptr) d.block = *block;
    data.InitFromMemory(d.block, d.flavour);
    data.ReturnToPositionB();
  }
  return FrameSource::kReady;
}

/// Leaves the source as the next frame expects it, whatever has happened in this one.
void CloseFrame(ImageState& state, bool fromStream) noexcept {
  DecoderState& d = *state.decoder;
  try {
    d.dataMgr->ResetDataMgr();
  } catch (...) {
    // The host's Seek threw. That is a move refused, which the frame's own outcome outlives.
  }
  if (fromStream) {
    state.codeStm->InitKelCodeStm(0, true, true, false, false, state.codeStm->GetStmProcs());
  }
  ++d.framesDecoded;
}

/// Notes what is asked for. When it differs from the last frame's request in more than the place of
/// the host's buffers, every tile is decoded again, unless the data are gone.
void NoteRequest(ImageState& state, FrameRequest request) {
  DecoderState& d = *state.decoder;
  const bool hadRequest = d.hasRequest;
  const bool isMoved = hadRequest && !IsSameRequest(d.request, request);
  const bool isOther = isMoved && !AsksForSameSamples(d.request, request);
  ReleaseRequest(d.request);
  d.request = request;
  d.hasRequest = true;
  if (isMoved && !isOther) MoveOutput(state.map);
  if (!isOther) return;
  for (std::int32_t t = 0; t < state.map.numTiles; ++t) RestartTile(state.map, state.map.tiles[t]);
  d.furthest = d.dataMgr->PositionB();
}

/// Copies a delivered tile's samples to where the host wants them now. False when the output images
/// do not hold them: the tile must be decoded again.
bool MoveTile(const ImageState& state, TileRecord& tile) {
  tile.dec->progress.mustMove = false;
  for (std::int32_t c = 0; c < state.map.numComps; ++c) {
    const TileCompRecord& record = tile.comps[c];
    if (!record.dec->resolutionBox.IsEmpty() && !record.shown.dataValid) return false;
  }
  for (std::int32_t c = 0; c < state.map.numComps; ++c) {
    const TileCompRecord& record = tile.comps[c];
    if (record.shown.dataValid) CopyToHostBuffer(state.map, state.decoder->request, record);
  }
  return true;
}

/// The components that carry colours 1 to 3, by the channel definitions when these name three
/// different components, else the first three.
void FindColors(const ImageState& state, std::int32_t (&components)[3]) {
  bool isUsable = true;
  for (std::int32_t i = 0; i < 3; ++i) {
    const KelLong c = ChannelIndexOf(state, i + 1);
    isUsable = isUsable && c >= 0 && c < state.map.numComps;
    for (std::int32_t j = 0; j < i; ++j) isUsable = isUsable && components[j] != c;
    components[i] = c;
  }
  for (std::int32_t i = 0; i < 3 && !isUsable; ++i) components[i] = i;
}

DeliveryContext DescribeDelivery(ImageState& state) {
  DeliveryContext delivery{state.map,
                           state.decoder->request,
                           state.decoder->manner,
                           state.decoder->work,
                           state.decOpt->ForceComponentTransform != 0,
                           {}};
  FindColors(state, delivery.colorComponents);
  return delivery;
}

/// Reads a tile's packets without decoding them, and decodes them while it delivers the tile, so
/// that no plane of coefficients is made. False, and the tile and the reading are as before, when
/// that cannot be: nothing of the tile is there, it has begun, does not arrive whole, or is
/// irregular.
bool TakeTile(TilePass& pass, const DeliveryContext& delivery, TileRecord& tile,
              OutputScratch& scratch) {
  if (ProgressOf(tile).numParts != 0) return false;
  // Without an index none is found.
  if (pass.decoder.dataMgr->FindTilePart(tile.index, 0) == nullptr) return false;
  const std::int64_t furthest = pass.decoder.furthest;
  ScopeGuard restart([&] {
    RestartTile(pass.map, tile);
    pass.decoder.furthest = furthest;
  });
  EnsureDecTile(pass.map, tile).progress.takesBands = true;
  const bool isRead = ReadTile(pass, tile);
  const bool isWhole = isRead && tile.dec->progress.isComplete && !tile.dec->progress.mustNotTake;
  if (!isWhole || !DeliverTile(delivery, tile, scratch)) return false;
  restart.Disarm();
  return true;
}

/// Decodes and delivers the tiles in raster order. Where one fails the others go on.
void VisitTiles(ImageState& state) {
  DecoderState& d = *state.decoder;
  TilePass pass{.map = state.map, .decoder = d, .dataEnded = false, .lastTile = -1};
  const DeliveryContext delivery = DescribeDelivery(state);
  OutputScratch scratch;
  BeginProgress(state.progress, state.map.numTiles);
  ScopeGuard end([&] { EndProgress(state.progress); });
  for (std::int32_t t = 0; t < state.map.numTiles; ++t) {
    TileRecord& tile = state.map.tiles[t];
    StepProgress(state.progress, 1);
    if (HasNoSamples(state.map, tile) || !IsWanted(state.map, tile)) continue;
    if (ProgressOf(tile).mustMove && !MoveTile(state, tile)) RestartTile(state.map, tile);
    if (ProgressOf(tile).isDelivered) continue;
    AskToGoOn(d.work);
    if (TakeTile(pass, delivery, tile, scratch)) continue;
    static_cast<void>(ReadTile(pass, tile));  // what has arrived is delivered in any case
    DeliverTile(delivery, tile, scratch);
  }
}

}  // namespace

KelLong GetNextFrame(ImageState& state, KelCompressedData* data, bool skipConversion,
                     bool skipRecast, KelFrameData* frame) {
  DecoderState& d = *state.decoder;
  KelDecDataMgr& reader = *d.dataMgr;
  d.bytesLastFrame = 0;
  d.refusal.Clear();
  const bool fromStream = data == nullptr && state.codeStm != nullptr;
  ScopeGuard close([&] { CloseFrame(state, fromStream); });

  if (OpenFrame(state, data) == FrameSource::kReady) {
    ScopeGuard notePosition([&] {
      const std::uint64_t most = UINT32_MAX;
      d.bytesLastFrame = static_cast<KelULong>(std::min(most, AsCount(reader.GetPosition())));
    });
    reader.RefreshTileParts();
    NoteRequest(state,
                TakeRequest(frame, state.map.numComps, skipConversion, skipRecast, d.orientation));
    VisitTiles(state);
    if (reader.IndexAllowed()) reader.MoveTo(d.furthest);
    if (reader.IsEOCOrEnd()) reader.ReadEOC();
  }
  if (d.refusal.errCode != KelOK) state.failure = d.refusal;
  return d.refusal.errCode;
}

}  // namespace kel
