// The host's handle onto a tile-component record.
#include "kel/KelTileComponent.h"

#include "base/KelMemFuncDefs.h"
#include "image/KelImageMap.h"
#include "samples/KelImageDataAccess.h"

namespace kel {
namespace {

/// Puts an image in a place that owns its own, unless another place holds that one too.
void Replace(KelImageData*& place, KelImageData* image, const KelImageData* elsewhere) noexcept {
  if (place != image && place != elsewhere) ReleaseImage(place);
  place = image;
}

}  // namespace
}  // namespace kel

KelImageData* KelTileComponent::GetOutputImage() const {
  return cell_->record->shown.outputImage;
}

void KelTileComponent::SetOutputImage(KelImageData* image) {
  kel::Replace(cell_->record->shown.outputImage, image, cell_->record->shown.progData);
}

KelImageData* KelTileComponent::GetProgData() const {
  return cell_->record->shown.progData;
}

void KelTileComponent::SetProgData(KelImageData* image) {
  kel::Replace(cell_->record->shown.progData, image, cell_->record->shown.outputImage);
}

KelImageData* KelTileComponent::GetWaveletData() const {
  return cell_->record->shown.waveletData;
}

void KelTileComponent::SetWaveletData(KelImageData* image) {
  if (image != nullptr && image->GetImageBuffer() != nullptr) image->GetImageBuffer()->bufType = 1;
  kel::Replace(cell_->record->shown.waveletData, image, nullptr);
}

void KelTileComponent::ReleaseWaveletData() {
  cell_->record->shown.waveletData = nullptr;
}

KelTileGeometry* KelTileComponent::GetTileGeometryParams() const {
  return &cell_->record->tileGeom;
}

KelLong KelTileComponent::GetWidth() const {
  return cell_->record->tileGeom.X1 - cell_->record->tileGeom.X0;
}

KelLong KelTileComponent::GetHeight() const {
  return cell_->record->tileGeom.Y1 - cell_->record->tileGeom.Y0;
}

KelEncOpt* KelTileComponent::GetEncOpt() const {
  return cell_->record->encOpt;
}

KelDecOpt* KelTileComponent::GetDecOpt() const {
  return cell_->record->decOpt;
}

bool KelTileComponent::TileCompDataReady() const {
  return cell_->record->shown.dataReady;
}

void KelTileComponent::SetTileCompDataReady() {
  cell_->record->shown.dataReady = true;
}

void KelTileComponent::ResetTileCompDataReady() {
  cell_->record->shown.dataReady = false;
}

bool KelTileComponent::TileCompDataIsValid() const {
  return cell_->record->shown.dataValid;
}

void KelTileComponent::SetTileCompDataIsValid() {
  cell_->record->shown.dataValid = true;
}

void KelTileComponent::ResetTileCompDataIsValid() {
  cell_->record->shown.dataValid = false;
}

void KelTileComponent::Init(kel::TileCompRecord* record) {
  cell_ = kel::OwnedRecord<kel::TileCompCell>::Make().Release();
  cell_->record = record;
}
