// The private state of an image object: what both directions share, and the state of each.
#ifndef KEL_IMAGE_STATE_H
#define KEL_IMAGE_STATE_H

#include <cstdint>

#include "base/KelRaise.h"
#include "format/KelSignature.h"
#include "image/KelImageMap.h"
#include "kel/KelImage.h"

namespace kel {

struct DecoderState;
struct EncoderState;

/// Progress reports of one run. Begin and End frame a run; each step reports what is done before
/// it counts. Without callbacks, and outside a run, nothing happens.
struct ProgressState {
  KelUserActions* actions;
  KelLong total, done;
  bool isActive;
};

void BeginProgress(ProgressState& progress, KelLong total);
void StepProgress(ProgressState& progress, KelLong steps);
void EndProgress(ProgressState& progress);

struct ImageState {
  bool isEncoder;
  /// Decoder: initialising failed only because the data end before the first tile-part.
  bool endsInHeader;
  bool servesIndex;  ///< it reads headers and lengths here and there, and notes where they stand
  KelLong maxRes;    ///< decomposition levels of the main header
  KelImageGeometry* geometry;
  ImageMap map;
  KelEncOpt* encOpt;  ///< the options that describe the image: a decoder's are its own
  KelDecOpt* decOpt;
  KelClientData* clientData;
  Failure failure;  ///< the last one
  KelCodeStm* codeStm;
  KelImageDataProcs* imageDataProcs;
  ProgressState progress;
  bool previewsTransparency, previewsExtras;  ///< channels that previews include
  DecoderState* decoder;                      ///< owned; null for an encoder
  EncoderState* encoder;                      ///< owned; null for a decoder
};

/// What an image object's handle points to.
struct ImageHandle {
  ImageState* state;
};

/// The handle with an empty state, made if need be. Raises 8, with the handle null.
ImageState& EnsureState(ImageHandle*& handle);

/// The state behind a handle, or null.
inline ImageState* StateOf(const ImageHandle* handle) {
  return handle != nullptr ? handle->state : nullptr;
}

}  // namespace kel

#endif
