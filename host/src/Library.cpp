// Calls into the library, and its image object for decoding.
#include "Library.hpp"

#include <new>

#include "kel/host/session.hpp"

namespace kel::host {

void RequireSession() {
  if (!Session::IsRunning()) {
    throw Error(Failure::kParameter, "the library is not started: make a kel::host::Session first");
  }
}

void ThrowFailure(const KelException& raised, Failure kind, const KelErrorPlace& place) {
  std::string sentence(CodeSentence(raised.errCode));
  if (raised.errCode == KelErrNoMemory) {
    kind = Failure::kMemory;
    if (Session::Limit() != 0) {
      sentence = "more memory is needed than the limit of " + FormatBytes(Session::Limit());
    }
  }
  throw Error(kind, sentence, raised, place);
}

void Check(KelLong code, const KelImage& image, Failure kind) {
  if (code == KelOK) return;
  KelException raised = image.GetErrorDetails();
  KelErrorPlace place = image.GetErrorPlace();
  if (raised.errCode != code) {  // a code that was returned without being recorded
    raised.ClearErrState();
    raised.errCode = code;
    place = {nullptr, -1};
  }
  ThrowFailure(raised, kind, place);
}

KelTileComponent& TileComponent(const KelImage& image, std::size_t tile, std::size_t component) {
  KelTileComponent* handle =
      image.GetTileComponent(static_cast<KelLong>(tile), static_cast<KelLong>(component));
  if (handle == nullptr) {
    throw Error(Failure::kMemory, std::string(CodeSentence(KelErrNoMemory)));
  }
  return *handle;
}

Decoder::Decoder(ByteView bytes, KelDecodePixelAspectRatio aspect) {
  RequireSession();
  if (bytes.empty()) throw Error(Failure::kInput, "there are no data");
  Raising(Failure::kInput, [&] { options_.InitToDefaults(); });
  block_ = {bytes.data(), static_cast<KelULong>(bytes.size())};
  try {
    Check(image_.InitDecoder(nullptr, &block_, &options_, nullptr, &resolutions_, aspect), image_,
          Failure::kInput);
  } catch (...) {
    Release();
    throw;
  }
}

Decoder::~Decoder() {
  Release();
}

void Decoder::Release() {
  image_.Die();
  options_.Die();
  KelGetMemObj()->Free(resolutions_);
}

KelLong Decoder::DecodeFrame(ByteView bytes, bool raw, KelFrameData* frame) {
  block_ = {bytes.data(), static_cast<KelULong>(bytes.size())};
  KelLong code = KelOK;
  try {
    code = image_.GetNextFrame(&block_, resolutions_, false, raw, frame);
  } catch (const std::bad_alloc&) {  // the one operation whose guard lets such failures pass
    code = KelErrNoMemory;
  }
  if (code == KelErrNoMemory) Check(code, image_, Failure::kMemory);
  return code;
}

}  // namespace kel::host
