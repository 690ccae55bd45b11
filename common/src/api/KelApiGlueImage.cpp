// Exported operations of the image object: those of both directions, and decoding.
#include "api/KelApiGlueImage.h"

#include "base/KelMemFuncDefs.h"
#include "decode/KelImageDecode.h"
#include "decode/KelImageQuery.h"
#include "decode/KelImageRegion.h"
#include "encode/KelImageEncode.h"
#include "format/KelSignature.h"
#include "kel/KelImage.h"

namespace {

using kel::Guarded;
using kel::ImageState;
using kel::kTheCode;
using kel::Neutral;
using kel::Query;
using kel::Side;
using kel::StateOf;

}  // namespace

namespace kel {

KelLong MakeState(ImageHandle*& handle, bool isEncoder) {
  return Guard(
      nullptr,
      [&] {
        EnsureState(handle).isEncoder = isEncoder;
        return KelLong{KelOK};
      },
      kTheCode);
}

void ReleaseState(ImageHandle*& handle) noexcept {
  if (handle == nullptr) return;
  if (ImageState* state = handle->state) {
    ReleaseDecoder(*state);
    ReleaseEncoder(*state);
    if (state->clientData != nullptr) {
      if (state->clientData->data != nullptr) KelFree(state->clientData->data);
      KelFree(state->clientData);
    }
    KelFree(state);
  }
  KelFree(handle);
  handle = nullptr;
}

}  // namespace kel

KelImage::~KelImage() = default;

bool KelImage::FileIsKel(KelCodeStm* stream) {
  return stream != nullptr && kel::RecogniseSignature(*stream).has_value();
}

bool KelImage::FileIsKel(KelCompressedData* data) {
  return data != nullptr && kel::RecogniseSignature(*data).has_value();
}

KelLong KelImage::Die() {
  return kel::Guard(
      nullptr,
      [this] {
        kel::ReleaseState(handle_);
        return KelLong{KelOK};
      },
      kTheCode);
}

KelException KelImage::GetErrorDetails() const {
  return Query(handle_, KelException(), [](ImageState& state) { return state.failure; });
}

KelErrorPlace KelImage::GetErrorPlace() const {
  return Query(handle_, KelErrorPlace{nullptr, -1}, [](ImageState& state) {
    return KelErrorPlace{state.failure.file, state.failure.lineNum};
  });
}

KelMemFuncs* KelImage::GetMemObj() const {
  return KelGetMemObj();
}

KelLong KelImage::InitDecoder(KelCodeStm* stream, KelCompressedData* data, KelDecOpt* options,
                              KelClientProcs* procs, KelULong** resolutions,
                              KelDecodePixelAspectRatio aspect) {
  Die();
  const KelLong made = kel::MakeState(handle_, false);
  if (made != KelOK) return made;
  return Guarded(
      handle_, Side::kEither,
      [&](ImageState& state) {
        return kel::InitDecoder(state, stream, data, options, procs, resolutions, aspect);
      },
      kTheCode);
}

KelLong KelImage::GetNextFrame(KelCompressedData* data, KelULong*, bool skipConversion,
                               bool skipRecast, KelFrameData* frame) {
  ImageState* state = StateOf(handle_);
  if (state == nullptr) return KelErrBadParam;
  return kel::GuardKelExceptions(&state->failure, [&] {
    if (!kel::IsOnSide(*state, Side::kDecoder)) kel::Raise(KelErrBadParam, kel::kModuleImage);
    return kel::GetNextFrame(*state, data, skipConversion, skipRecast, frame);
  });
}

KelULong KelImage::NumFramesDecoded() {
  return Guarded(
      handle_, Side::kDecoder, [](ImageState& state) { return state.decoder->framesDecoded; },
      Neutral(KelULong{0}));
}

KelULong KelImage::BytesConsumedInLastFrame() {
  return Guarded(
      handle_, Side::kDecoder, [](ImageState& state) { return state.decoder->bytesLastFrame; },
      Neutral(KelULong{0}));
}

KelLong KelImage::SetOrientationForDecode(KelImageOrientation orientation) {
  return Guarded(
      handle_, Side::kDecoder,
      [&](ImageState& state) { return kel::SetOrientation(state, orientation); }, kTheCode);
}

KelImageOrientation KelImage::GetOrientationForDecode() const {
  return Query(handle_, KelOrientation0, [](ImageState& state) {
    return state.decoder != nullptr ? KelImageOrientation{state.decoder->orientation}
                                    : KelOrientation0;
  });
}

bool KelImage::TileIsUntouched(KelLong tile) const {
  return Query(handle_, true, [&](ImageState& state) { return kel::TileIsUntouched(state, tile); });
}

bool KelImage::TileIsComplete(KelLong tile) const {
  return Query(handle_, false, [&](ImageState& state) { return kel::TileIsComplete(state, tile); });
}

KelLong KelImage::GetNumDamages() const {
  return Guarded(
      handle_, Side::kDecoder,
      [](ImageState& state) { return static_cast<KelLong>(state.decoder->damages.numEntries); },
      Neutral(KelLong{0}));
}

KelLong KelImage::GetDamage(KelLong n, KelDamage* damage) const {
  return Guarded(
      handle_, Side::kDecoder,
      [&](ImageState& state) { return kel::CopyDamage(state.decoder->damages, n, damage); },
      kTheCode);
}

KelLong KelImage::SetDecodeReduction(KelLong levels) {
  return Guarded(
      handle_, Side::kDecoder, [&](ImageState& state) { return kel::SetReduction(state, levels); },
      kTheCode);
}

KelLong KelImage::SetDecodeRegion(KelLong x0, KelLong x1, KelLong y0, KelLong y1) {
  return Guarded(
      handle_, Side::kDecoder,
      [&](ImageState& state) {
        return kel::SetRegion(state, {x0, x1, y0, y1});
      },
      kTheCode);
}

KelLong KelImage::SetDecodeManner(bool singlePrecision, bool withoutOutputImages) {
  return Guarded(
      handle_, Side::kDecoder,
      [&](ImageState& state) {
        state.decoder->manner = {.singlePrecision = singlePrecision,
                                 .withoutOutputImages = withoutOutputImages};
        return KelOK;
      },
      kTheCode);
}

KelLong KelImage::ReleaseTile(KelLong tile) {
  return Guarded(
      handle_, Side::kDecoder, [&](ImageState& state) { return kel::ReleaseTile(state, tile); },
      kTheCode);
}
