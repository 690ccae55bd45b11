// Exported operations of the index.
#include "KelBlockEncode.h"
#include "api/KelApiGlueImage.h"
#include "decode/KelStreamIndex.h"
#include "kel/KelIndex.h"

KelLong KelStreamIndex::InitIndex(KelCodeStm* stream, const KelCompressedData* data) {
  Die();
  const KelLong made = kel::Guard(
      nullptr,
      [this] {
        state_ = kel::MakeIndex();
        return KelLong{KelOK};
      },
      kel::kTheCode);
  if (made != KelOK) return made;
  return kel::Guard(
      &state_->failure, [&] { return kel::OpenIndex(*state_, stream, data); }, kel::kTheCode);
}

bool KelStreamIndex::DataEndInHeader() const {
  return state_ != nullptr && state_->image != nullptr && state_->image->endsInHeader;
}

KelLong KelStreamIndex::Die() {
  return kel::Guard(
      nullptr,
      [this] {
        kel::ReleaseIndex(state_);
        return KelLong{KelOK};
      },
      kel::kTheCode);
}

KelException KelStreamIndex::GetErrorDetails() const {
  return state_ != nullptr ? state_->failure : KelException();
}

KelErrorPlace KelStreamIndex::GetErrorPlace() const {
  if (state_ == nullptr) return {nullptr, -1};
  return {state_->failure.file, state_->failure.lineNum};
}

const KelIndexFacts* KelStreamIndex::GetFacts() const {
  return state_ != nullptr && state_->isReady ? &state_->facts : nullptr;
}

const KelIndexTileParts* KelStreamIndex::GetTileParts() {
  if (state_ == nullptr) return nullptr;
  return kel::Guard(
      &state_->failure, [this] { return kel::TilePartsOf(*state_); },
      kel::Neutral<const KelIndexTileParts*>(nullptr));
}

const KelIndexSegment* KelStreamIndex::GetSegments(KelULong i, KelULong* count) {
  if (state_ == nullptr || count == nullptr) return nullptr;
  return kel::Guard(
      &state_->failure, [&] { return kel::SegmentsOf(*state_, i, *count); },
      kel::Neutral<const KelIndexSegment*>(nullptr));
}

const KelIndexPackets* KelStreamIndex::GetPackets(const KelIndexWant* want) {
  if (state_ == nullptr || want == nullptr) return nullptr;
  return kel::Guard(
      &state_->failure, [&] { return kel::PacketsOf(*state_, *want); },
      kel::Neutral<const KelIndexPackets*>(nullptr));
}

const KelIndexRanges* KelStreamIndex::GetRanges(const KelIndexWant* want) {
  if (state_ == nullptr || want == nullptr) return nullptr;
  return kel::Guard(
      &state_->failure, [&] { return kel::RangesOf(*state_, *want); },
      kel::Neutral<const KelIndexRanges*>(nullptr));
}

const KelIndexFindings* KelStreamIndex::ExamineTile(KelULong tile, KelULong mostLost) {
  if (state_ == nullptr) return nullptr;
  return kel::Guard(
      &state_->failure, [&] { return kel::FindingsOf(*state_, tile, mostLost, nullptr); },
      kel::Neutral<const KelIndexFindings*>(nullptr));
}

const KelIndexFindings* KelStreamIndex::MendTile(KelULong tile, KelULong mostLost) {
  if (state_ == nullptr) return nullptr;
  return kel::Guard(
      &state_->failure,
      [&] { return kel::FindingsOf(*state_, tile, mostLost, &kel::EncodeBandAlone); },
      kel::Neutral<const KelIndexFindings*>(nullptr));
}
