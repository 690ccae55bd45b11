// Exported operations of the image object: preview and zoom.
#include "api/KelApiGlueImage.h"
#include "encode/KelPreview.h"
#include "kel/KelImage.h"

namespace {

using kel::Guarded;
using kel::ImageState;
using kel::kTheCode;
using kel::Side;
using kel::StateOf;

}  // namespace

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
