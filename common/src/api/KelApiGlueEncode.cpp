// Exported operations of the image object: encoding and its size queries.
#include "KelRate.h"
#include "api/KelApiGlueImage.h"
#include "encode/KelImageEncode.h"
#include "kel/KelImage.h"

namespace {

using kel::Guarded;
using kel::ImageState;
using kel::kTheCode;
using kel::Neutral;
using kel::Query;
using kel::Side;

}  // namespace

KelLong KelImage::InitEncoder(KelEncOpt* options, KelCodeStm* stream, KelClientProcs* procs) {
  Die();
  const KelLong made = kel::MakeState(handle_, true);
  if (made != KelOK) return made;
  return Guarded(
      handle_, Side::kEither,
      [&](ImageState& state) { return kel::InitEncoder(state, options, stream, procs); }, kTheCode);
}

KelLong KelImage::SetRowProcs(const KelRowProcs* procs) {
  return Guarded(
      handle_, Side::kEncoder, [&](ImageState& state) { return kel::SetRowProcs(state, procs); },
      kTheCode);
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

KelLong KelImage::GetCodeStreamLengthBound() {
  return Guarded(
      handle_, Side::kEncoder, [](ImageState& state) { return kel::CodeStreamLengthBound(state); },
      Neutral(KelLong{-1}));
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
