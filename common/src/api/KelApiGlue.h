// The guard of the public boundary: where failures become result codes.
//
// An exported operation hands its work to the guard. The guard sets rounding to nearest for the
// call, so that results do not depend on the host's mode, and turns what is thrown into a code:
// a KelException is copied into the image's failure record, anything else becomes code 31.
#ifndef KEL_API_GLUE_H
#define KEL_API_GLUE_H

#include <cfenv>

#include "base/KelRaise.h"
#include "kel/KelMemory.h"

namespace kel {

/// Rounding to nearest, halves to even, for the life of the object.
class RoundingScope {
 public:
  RoundingScope() noexcept : hostMode_(std::fegetround()) {
    if (hostMode_ != FE_TONEAREST) std::fesetround(FE_TONEAREST);
  }
  ~RoundingScope() {
    if (hostMode_ != FE_TONEAREST) std::fesetround(hostMode_);
  }
  RoundingScope(const RoundingScope&) = delete;
  RoundingScope& operator=(const RoundingScope&) = delete;

 private:
  int hostMode_;
};

/// The record of a KelException that a host's callback threw: nobody knows its place.
inline Failure HostsFailure(const KelException& thrown) {
  Failure failure;
  failure.Clone(&thrown);
  return failure;
}

/// Runs work and returns its result. On a failure the record goes to *failure (unless null) and
/// the result is what onFailure makes of the code. The place, the entry point's own, names the
/// entry in records of failures that are not KelExceptions.
template <class Work, class OnFailure>
auto Guard(Failure* failure, Work work, OnFailure onFailure,
           SourcePlace place = SourcePlace::Here()) {
  const RoundingScope rounding;
  try {
    return work();
  } catch (const Failure& caught) {
    if (failure != nullptr) *failure = caught;
    return static_cast<decltype(work())>(onFailure(caught.errCode));
  } catch (const KelException& caught) {  // a host's
    if (failure != nullptr) *failure = HostsFailure(caught);
    return static_cast<decltype(work())>(onFailure(caught.errCode));
  } catch (...) {
    if (failure != nullptr) *failure = MakeFailure(KelErrUnexpected, kModuleApiGlue, place);
    return static_cast<decltype(work())>(onFailure(KelErrUnexpected));
  }
}

/// The second form, for the one entry through which other exceptions pass to the host.
template <class Work>
[[nodiscard]] KelLong GuardKelExceptions(Failure* failure, Work work) {
  const RoundingScope rounding;
  try {
    return work();
  } catch (const Failure& caught) {
    if (failure != nullptr) *failure = caught;
    return caught.errCode;
  } catch (const KelException& caught) {  // a host's
    if (failure != nullptr) *failure = HostsFailure(caught);
    return caught.errCode;
  }
}

}  // namespace kel

#endif
