// The damages that a decoder has met: an ordered list without repetitions, bounded in length.
#ifndef KEL_DAMAGE_LOG_H
#define KEL_DAMAGE_LOG_H

#include "kel/KelDamage.h"

namespace kel {

/// Places kept; further ones are not noted, so that hostile data cannot fill memory with them.
inline constexpr std::uint32_t kMostDamages = 4096;

struct DamageLog {
  KelDamage* entries;  ///< owned; by offset, then kind
  std::uint32_t numEntries, obtainedEntries;
};

/// Notes a damage. One that is known already, by offset and kind, is replaced. Raises 8.
void NoteDamage(DamageLog& log, const KelDamage& damage);

/// Copies the n-th damage. Returns 0, or 15 for n out of range or a null target.
[[nodiscard]] KelLong CopyDamage(const DamageLog& log, KelLong n, KelDamage* damage);

/// Forgets everything; may run twice.
void ReleaseDamageLog(DamageLog& log) noexcept;

}  // namespace kel

#endif
