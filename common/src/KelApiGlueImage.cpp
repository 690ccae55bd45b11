// Exported operations of the image object. Each hands its work to the guard, names what a failure
// returns, and calls one internal function.
#include "KelApiGlue.h"
#include "KelImageDecode.h"
#include "KelImageEncode.h"
#include "KelImageQuery.h"
#include "KelImageState.h"
#include "KelMemFuncDefs.h"
#include "KelPreview.h"
#include "KelRate.h"
#include "KelSignature.h"
#include "kel/KelImage.h"

namespace {

using kel::ImageHandle;
using kel::ImageState;
using kel::StateOf;

/// What guarded operations return on a failure: its code, or a neutral value.
constexpr auto kTheCode = [](KelLong code) { return code; };

template <class Value>
auto Neutral(Value value) {
  return [value](KelLong) { return value; };
}

enum class Side : std::uint8_t { kEither, kDecoder, kEncoder };

bool IsOnSide(const ImageState& state, Side side) {
  return side == Side::kEither ||
         (state.isEncoder ? state.encoder != nullptr && side == Side::kEncoder
                          : state.decoder != nullptr && side == Side::kDecoder);
}

/// Runs a guarded operation on a state of the given side. Without a state the result is what
/// onFailure makes of 31, on the other side of 15.
template <class Work, class OnFailure>
auto Guarded(ImageHandle* handle, Side side, Work work, OnFailure onFailure,
             int line = __builtin_LINE()) {
  using Result = decltype(work(std::declval<ImageState&>()));
  ImageState* state = StateOf(handle);
  if (state == nullptr) return static_cast<Result>(onFailure(KelErrUnexpected));
  return kel::Guard(
      &state->failure,
      [&] {
        if (!IsOnSide(*state, side)) kel::Raise(KelErrBadParam, kel::kModuleImage, line);
        return work(*state);
      },
      onFailure, line);
}

/// A field or query of the state, or a neutral value without one.
template <class Read, class Value>
Value Query(const ImageHandle* handle, Value neutral, Read read) {
  ImageState* state = StateOf(handle);
  return state != nullptr ? static_cast<Value>(read(*state)) : neutral;
}

/// A field or query of the options that describe the image.
template <class Read, class Value>
Value QueryOptions(const ImageHandle* handle, Value neutral, Read read) {
  const ImageState* state = StateOf(handle);
  const KelEncOpt* options = state != nullptr ? state->encOpt : nullptr;
  return options != nullptr ? static_cast<Value>(read(*options)) : neutral;
}

}  // namespace

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

KelMemFuncs* KelImage::GetMemObj() const {
  return KelGetMemObj();
}

// ---- Decoding ----

KelLong KelImage::InitDecoder(KelCodeStm* stream, KelCompressedData* data, KelDecOpt* options,
                              KelClientProcs* procs, KelULong** resolutions,
                              KelDecodePixelAspectRatio aspect) {
  Die();
  const KelLong made = kel::Guard(
      nullptr,
      [this] {
        kel::EnsureState(handle_).isEncoder = false;
        return KelLong{KelOK};
      },
      kTheCode);
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
    if (!IsOnSide(*state, Side::kDecoder)) kel::Raise(KelErrBadParam, kel::kModuleImage);
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

bool KelImage::TileIsComplete(KelLong tile) const {
  return Query(handle_, false, [&](ImageState& state) { return kel::TileIsComplete(state, tile); });
}

// ---- Encoding ----

KelLong KelImage::InitEncoder(KelEncOpt* options, KelCodeStm* stream, KelClientProcs* procs) {
  Die();
  const KelLong made = kel::Guard(
      nullptr,
      [this] {
        kel::EnsureState(handle_).isEncoder = true;
        return KelLong{KelOK};
      },
      kTheCode);
  if (made != KelOK) return made;
  return Guarded(
      handle_, Side::kEither,
      [&](ImageState& state) { return kel::InitEncoder(state, options, stream, procs); }, kTheCode);
}

KelLong KelImage::WriteKelHeaders(KelULong* bytes) {
  return Guarded(
      handle_, Side::kEncoder,
      [&](ImageState& state) { return kel::WriteKelHeaders(state, bytes); }, kTheCode);
}

KelLong KelImage::CompressAndWriteTile(KelLong tile, KelULong* bytes) {
  return Guarded(
      handle_, Side::kEncoder,
      [&](ImageState& state) { return kel::CompressAndWriteTile(state, tile, bytes); }, kTheCode);
}

KelLong KelImage::CompressTile(KelLong tile) {
  return CompressAndWriteTile(tile, nullptr);
}

KelLong KelImage::CompressImage() {
  return Guarded(
      handle_, Side::kEncoder, [](ImageState& state) { return kel::CompressImage(state); },
      kTheCode);
}

KelLong KelImage::NumProgresionStepsInCompressImage() {
  return Guarded(
      handle_, Side::kEncoder, [](ImageState& state) { return kel::StepsOfCompressing(state); },
      kTheCode);
}

KelLong KelImage::NumProgressionStepsInEncodeImage() {
  return Guarded(
      handle_, Side::kEncoder, [](ImageState& state) { return kel::ProgressionSteps(state); },
      kTheCode);
}

KelLong KelImage::GetNumQualitySteps() const {
  return Query(handle_, KelLong{0}, [](ImageState& state) { return kel::NumQualitySteps(state); });
}

KelLong* KelImage::FindQualityNumbersEmbedded(KelLong* count) {
  return Guarded(
      handle_, Side::kEncoder, [&](ImageState& state) { return kel::QualitySteps(state, count); },
      Neutral<KelLong*>(nullptr));
}

KelLong KelImage::GetMinCodeStreamLength() {
  return Query(handle_, KelLong{0},
               [](ImageState& state) { return kel::MinCodeStreamLength(state); });
}

KelLong KelImage::GetMaxCodeStreamLength() {
  return Query(handle_, KelLong{0},
               [](ImageState& state) { return kel::MaxCodeStreamLength(state); });
}

KelLong KelImage::GetAlphaChannelCodeStreamSize() {
  return Guarded(
      handle_, Side::kEncoder, [](ImageState& state) { return kel::ExtraChannelsSize(state); },
      kTheCode);
}

KelLong KelImage::GetTransparencyCodeStreamSize() {
  return Query(handle_, KelLong{0}, [](ImageState& state) { return kel::TransparencySize(state); });
}

KelLong KelImage::QualityForTarget(KelLong targetBytes) {
  return Query(handle_, KelLong{0},
               [&](ImageState& state) { return kel::QualityForTarget(state, targetBytes); });
}

KelLong KelImage::UpdateCodestreamSize(KelLong fromOrganisation, KelLong size,
                                       KelLong toOrganisation) {
  return Guarded(
      handle_, Side::kEncoder,
      [&](ImageState& state) {
        return kel::UpdateCodestreamSize(state, fromOrganisation, size, toOrganisation);
      },
      kTheCode);
}

KelLong KelImage::EncodeImage(KelLong, KelLong*, float*) {
  return KelOK;
}

KelLong KelImage::OptimizeImage(KelLong, KelLong*, float*) {
  return KelOK;
}

KelLong KelImage::GetNumComponentsDoneInProgPlay() const {
  return KelErrNotImplemented;
}

// ---- Preview ----

KelLong KelImage::GetPreviewData(KelLong tile) {
  return Guarded(
      handle_, Side::kEncoder, [&](ImageState& state) { return kel::GetPreviewData(state, tile); },
      kTheCode);
}

KelLong KelImage::GetPreviewData(KelLong tile, KelLong x0, KelLong x1, KelLong y0, KelLong y1,
                                 KelLong resolution, bool luminanceOnly) {
  return Guarded(
      handle_, Side::kEncoder,
      [&](ImageState& state) {
        return kel::GetPreviewData(state, tile, {x0, x1, y0, y1}, resolution, luminanceOnly);
      },
      kTheCode);
}

void KelImage::SetAlphaChannelsForPreview(bool transparency, bool extraChannels) {
  if (ImageState* state = StateOf(handle_)) {
    kel::SetAlphaChannelsForPreview(*state, transparency, extraChannels);
  }
}

KelImageData* KelImage::Zoom(KelLong tile, KelLong component, float factor, KelLong x0, KelLong x1,
                             KelLong y0, KelLong y1, KelLong* width, KelLong* height) {
  ImageState* state = StateOf(handle_);
  if (state == nullptr) kel::Raise(KelErrBadParam, kel::kModulePreview);
  const kel::RoundingScope rounding;
  return kel::Zoom(*state, tile, component, factor, {x0, x1, y0, y1}, width, height);
}

// ---- Queries ----

KelLong KelImage::GetNumTiles() const {
  return Query(handle_, KelLong{0}, [](ImageState& state) { return state.map.numTiles; });
}

KelLong KelImage::GetNumTileComps() const {
  return Query(handle_, KelLong{0}, [](ImageState& state) {
    return kel::SaturateToInt32(std::int64_t{state.map.numTiles} * state.map.numComps);
  });
}

KelLong KelImage::GetNumComponents() const {
  return Query(handle_, KelLong{0}, [](ImageState& state) { return state.map.numComps; });
}

KelLong KelImage::GetMaxRes() const {
  return Query(handle_, KelLong{0}, [](ImageState& state) { return state.maxRes; });
}

KelLong KelImage::GetMaxRes(KelLong tile) const {
  return Guarded(
      handle_, Side::kEither, [&](ImageState& state) { return kel::LevelsOfTile(state, tile); },
      Neutral(KelLong{-1}));
}

KelImageGeometry* KelImage::GetGeometryParams() const {
  return Query(handle_, static_cast<KelImageGeometry*>(nullptr),
               [](ImageState& state) { return state.geometry; });
}

KelLong* KelImage::GetBitDepths() const {
  return Query(handle_, static_cast<KelLong*>(nullptr), [](ImageState& state) {
    return state.geometry != nullptr ? state.geometry->BitDepths : nullptr;
  });
}

KelCodeStm* KelImage::GetCodeStream() const {
  return Query(handle_, static_cast<KelCodeStm*>(nullptr),
               [](ImageState& state) { return state.codeStm; });
}

KelEncOpt* KelImage::GetEncodeOptions() const {
  return Query(handle_, static_cast<KelEncOpt*>(nullptr),
               [](ImageState& state) { return state.encOpt; });
}

KelDecOpt* KelImage::GetDecodeOptions() const {
  return Query(handle_, static_cast<KelDecOpt*>(nullptr),
               [](ImageState& state) { return state.decOpt; });
}

KelClientData* KelImage::GetClientData() const {
  return Query(handle_, static_cast<KelClientData*>(nullptr),
               [](ImageState& state) { return state.clientData; });
}

KelTileComponent* KelImage::GetTileComponent(KelLong tile, KelLong component) const {
  return Guarded(
      handle_, Side::kEither,
      [&](ImageState& state) { return kel::TileComponentOf(state, tile, component); },
      Neutral<KelTileComponent*>(nullptr));
}

__tagICCProfile* KelImage::GetICCProfile() const {
  return Query(handle_, static_cast<__tagICCProfile*>(nullptr),
               [](ImageState& state) { return kel::ICCProfileOf(state); });
}

__tagColorSpecList* KelImage::GetColorSpecList() const {
  return QueryOptions(handle_, static_cast<__tagColorSpecList*>(nullptr),
                      [](const KelEncOpt& o) { return o.ColorSpecList; });
}

bool KelImage::UUIDPresent() const {
  return QueryOptions(handle_, false, [](const KelEncOpt& o) { return o.UUIDPresent; });
}

KelLong KelImage::GetNumUUIDBoxes() const {
  return QueryOptions(handle_, KelLong{0}, [](const KelEncOpt& o) { return o.NumUUIDBoxes; });
}

__tagKelUUID* KelImage::GetUUIDBoxes() const {
  return QueryOptions(handle_, static_cast<__tagKelUUID*>(nullptr),
                      [](const KelEncOpt& o) { return o.UUIDBoxes; });
}

bool KelImage::XMLPresent() const {
  return QueryOptions(handle_, false, [](const KelEncOpt& o) { return o.XMLPresent; });
}

KelLong KelImage::GetNumXMLBoxes() const {
  return QueryOptions(handle_, KelLong{0}, [](const KelEncOpt& o) { return o.NumXMLBoxes; });
}

__tagKelXML* KelImage::GetXMLBoxes() const {
  return QueryOptions(handle_, static_cast<__tagKelXML*>(nullptr),
                      [](const KelEncOpt& o) { return o.XMLBoxes; });
}

bool KelImage::ResolutionInfoPresent() const {
  return QueryOptions(handle_, false, [](const KelEncOpt& o) { return o.ResolutionInfoPresent; });
}

bool KelImage::PalettePresent() const {
  return QueryOptions(handle_, false, [](const KelEncOpt& o) { return o.PalettePresent; });
}

__tagKelPalette* KelImage::GetPalette() const {
  return QueryOptions(handle_, static_cast<__tagKelPalette*>(nullptr),
                      [](const KelEncOpt& o) { return o.Palette; });
}

KelLong KelImage::GetNumColorChannels() const {
  return Query(handle_, KelLong{0},
               [](ImageState& state) { return kel::NumColorChannelsOf(state); });
}

KelChannelType KelImage::GetComponentType(KelLong component) const {
  return Query(handle_, KelChannelUnspecified,
               [&](ImageState& state) { return kel::ComponentTypeOf(state, component); });
}

KelLong KelImage::GetChannelIndex(KelLong n) {
  return Guarded(
      handle_, Side::kEither, [&](ImageState& state) { return kel::ChannelIndexOf(state, n); },
      kTheCode);
}

bool KelImage::TransparencyChannelPresent() const {
  return Query(handle_, false,
               [](ImageState& state) { return kel::HasTransparencyChannel(state); });
}

KelOpacityType KelImage::GetTransparencyType() const {
  return Query(handle_, KelOpacityNone,
               [](ImageState& state) { return kel::TransparencyTypeOf(state); });
}

KelChromaKey* KelImage::GetChromaKey() const {
  return Query(handle_, static_cast<KelChromaKey*>(nullptr),
               [](ImageState& state) { return kel::ChromaKeyOf(state); });
}

KelLong KelImage::GetTransparencyChannelNum(KelLong n) const {
  return Query(handle_, KelLong{-1},
               [&](ImageState& state) { return kel::TransparencyChannelOf(state, n); });
}

KelLong KelImage::GetGlobalTransparencyChannelNum() const {
  return Query(handle_, KelLong{-1},
               [](ImageState& state) { return kel::GlobalTransparencyChannelOf(state); });
}
