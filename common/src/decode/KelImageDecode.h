// The decoding flow of the image object.
#ifndef KEL_IMAGE_DECODE_H
#define KEL_IMAGE_DECODE_H

#include "KelDamageLog.h"
#include "KelDecDataMgr.h"
#include "KelDecMap.h"
#include "KelFrameRequest.h"
#include "KelTileOutput.h"
#include "format/KelFileFormat.h"
#include "image/KelImageState.h"
#include "image/KelWork.h"

namespace kel {

struct DecoderState {
  KelDecDataMgr* dataMgr;   ///< owned
  KelCompressedData block;  ///< the last block handed in; empty in stream mode
  bool streamIsSeekable;    ///< as the host declared it at initialisation
  Flavour flavour;
  std::int64_t codeStreamStart;  ///< position of the first byte of the code stream
  KelFileInfo* fileInfo;         ///< owned; null for a bare code stream
  KelEncOpt* description;        ///< owned; what the headers told of the image
  KelHeaderParams mainHeader;    ///< owns its records
  Failure refusal;               ///< the first of this frame that it goes on after
  KelULong framesDecoded;
  KelULong bytesLastFrame;
  KelLong orientation;
  DecodeManner manner;
  FrameRequest request;  ///< of the last frame
  bool hasRequest;
  DamageLog damages;  ///< owns its entries
  WorkMeter work;
  std::int64_t furthest;  ///< end of the furthest tile-part handled
};

/// Initialises a decoder. Returns the code, with the failure recorded in the state, which is no
/// decoder then.
[[nodiscard]] KelLong InitDecoder(ImageState& state, KelCodeStm* stream, KelCompressedData* data,
                                  KelDecOpt* options, KelClientProcs* procs, KelULong** resolutions,
                                  KelDecodePixelAspectRatio aspect);

/// Decodes one frame. Raises; returns codes too.
[[nodiscard]] KelLong GetNextFrame(ImageState& state, KelCompressedData* data, bool skipConversion,
                                   bool skipRecast, KelFrameData* frame);

/// Returns 0; 15, without effect, for an orientation other than 0, 90, 180 and 270.
[[nodiscard]] KelLong SetOrientation(ImageState& state, KelLong orientation);

/// Releases a decoder's state; may run on a half-built one.
void ReleaseDecoder(ImageState& state) noexcept;

}  // namespace kel

#endif
