// Exported operations of the image object. Each hands its work to the guard, names what a failure
// returns, and calls one internal function.
#include "KelApiGlue.h"
#include "KelSignature.h"
#include "kel/KelImage.h"

KelImage::~KelImage() = default;

bool KelImage::FileIsKel(KelCodeStm* stream) {
  return stream != nullptr && kel::RecogniseSignature(*stream).has_value();
}

bool KelImage::FileIsKel(KelCompressedData* data) {
  return data != nullptr && kel::RecogniseSignature(*data).has_value();
}
