// The guard over the state of an image object, for the exported operations.
//
// Each exported operation hands its work to one of these, names what a failure returns, and calls
// one internal function.
#ifndef KEL_API_GLUE_IMAGE_H
#define KEL_API_GLUE_IMAGE_H

#include <utility>

#include "api/KelApiGlue.h"
#include "image/KelImageState.h"

namespace kel {

/// What guarded operations return on a failure: its code, or a neutral value.
inline constexpr auto kTheCode = [](KelLong code) { return code; };

template <class Value>
auto Neutral(Value value) {
  return [value](KelLong) { return value; };
}

enum class Side : std::uint8_t { kEither, kDecoder, kEncoder };

inline bool IsOnSide(const ImageState& state, Side side) {
  return side == Side::kEither ||
         (state.isEncoder ? state.encoder != nullptr && side == Side::kEncoder
                          : state.decoder != nullptr && side == Side::kDecoder);
}

/// Releases what a state owns, half-built states included, then the state and its handle.
void ReleaseState(ImageHandle*& handle) noexcept;

/// Makes an empty state for a direction, before its initialisation. Returns 0 or 8.
[[nodiscard]] KelLong MakeState(ImageHandle*& handle, bool isEncoder);

/// Runs a guarded operation on a state of the given side. Without a state the result is what
/// onFailure makes of 31, on the other side of 15.
template <class Work, class OnFailure>
auto Guarded(ImageHandle* handle, Side side, Work work, OnFailure onFailure,
             SourcePlace place = SourcePlace::Here()) {
  using Result = decltype(work(std::declval<ImageState&>()));
  ImageState* state = StateOf(handle);
  if (state == nullptr) return static_cast<Result>(onFailure(KelErrUnexpected));
  return Guard(
      &state->failure,
      [&] {
        if (!IsOnSide(*state, side)) Raise(KelErrBadParam, kModuleImage, place);
        return work(*state);
      },
      onFailure, place);
}

/// A field or query of the state, or a neutral value without one.
template <class Read, class Value>
Value Query(const ImageHandle* handle, Value neutral, Read read) {
  const RoundingScope rounding;
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

}  // namespace kel

#endif
