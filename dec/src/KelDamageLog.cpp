// The list of damages.
#include "KelDamageLog.h"

#include <algorithm>
#include <tuple>

#include "base/KelInt.h"
#include "base/KelMemFuncDefs.h"

namespace kel {

void NoteDamage(DamageLog& log, const KelDamage& damage) {
  const auto precedes = [](const KelDamage& a, const KelDamage& b) {
    return std::tie(a.offset, a.kind) < std::tie(b.offset, b.kind);
  };
  KelDamage* end = log.entries + log.numEntries;
  KelDamage* place = std::lower_bound(log.entries, end, damage, precedes);
  if (place != end && !precedes(damage, *place)) {
    *place = damage;
    return;
  }
  if (log.numEntries == kMostDamages) return;
  const auto index = place - log.entries;
  GrowByOne(log.entries, log.numEntries, log.obtainedEntries);
  place = log.entries + index;
  std::copy_backward(place, log.entries + log.numEntries, log.entries + log.numEntries + 1);
  *place = damage;
  ++log.numEntries;
}

KelLong CopyDamage(const DamageLog& log, KelLong n, KelDamage* damage) {
  if (n < 0 || AsCount(n) >= log.numEntries || damage == nullptr) return KelErrBadParam;
  *damage = log.entries[n];
  return KelOK;
}

void ReleaseDamageLog(DamageLog& log) noexcept {
  KelFree(log.entries);
  log = {};
}

}  // namespace kel
