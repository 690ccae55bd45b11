// Asking the host, now and then during long work, whether to go on.
#ifndef KEL_WORK_H
#define KEL_WORK_H

#include <cstdint>

#include "base/KelRaise.h"
#include "kel/KelImage.h"

namespace kel {

/// Samples after which the host is asked again; decoding so many takes less than 100 ms.
inline constexpr std::uint64_t kWorkUntilAsked = std::uint64_t{1} << 20;

struct WorkMeter {
  KelUserActions* actions;  ///< may be null
  std::uint64_t samples;    ///< since the host was asked
  /// Of mending bands: their bytes so far, and the blocks that were tried for them.
  std::uint64_t mendBytes, mendTrials;
};

/// Asks the host whether to go on. Raises 28 when it does not want to.
inline void AskToGoOn(WorkMeter& work) {
  work.samples = 0;
  if (work.actions == nullptr || work.actions->AbortRequested == nullptr) return;
  if (work.actions->AbortRequested() != 0) Raise(KelErrAborted, kModuleImage);
}

/// Counts work and asks the host when enough has come together. Raises 28.
inline void CountWork(WorkMeter& work, std::uint64_t samples) {
  work.samples += samples;
  if (work.samples >= kWorkUntilAsked) AskToGoOn(work);
}

}  // namespace kel

#endif
