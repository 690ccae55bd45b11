// What a piece of work may cost beside memory: samples, and time; and how its caller ends it.
#ifndef KEL_HOST_LIMITS_HPP
#define KEL_HOST_LIMITS_HPP

#include "language.hpp"

#include <chrono>
#include <cstdint>

#include "errors.hpp"

namespace kel::host {

struct Limits {
  /// Samples of a plane that is made or announced; 0 for no limit.
  std::uint64_t maxPixels = std::uint64_t{1} << 30;
  double seconds = 0;  ///< from the making of the scope on; 0 for no limit
  /// Asked now and then, on every thread that works: true ends the work as the end of its time
  /// does. Null for nobody to ask. It must not throw.
  bool (*stop)() = nullptr;
};

/// Limits everything that the kit does on the calling thread, and on the threads that it starts for
/// it, for as long as the object lives. Without any, the default of maxPixels holds, and no time.
class LimitScope {
 public:
  struct Work {
    Limits limits;
    std::chrono::steady_clock::time_point end;
  };

  explicit LimitScope(const Limits& limits);
  /// The same limits and the same end as the scope that work belongs to; null for none.
  explicit LimitScope(const Work* work);
  ~LimitScope();
  LimitScope(const LimitScope&) = delete;
  LimitScope& operator=(const LimitScope&) = delete;

  /// What the calling thread's work is limited by; may be null.
  static const Work* Current();

 private:
  Work work_;
  const Work* before_;
};

/// An Error (kMemory) that the limit on samples has caused, whatever memory there is.
class TooManyPixels final : public Error {
 public:
  using Error::Error;
};

/// Throws TooManyPixels when a plane of this size has more samples than the limit allows.
void CheckPixels(std::uint64_t width, std::uint64_t height);

/// Whether the time is over, or the caller wants no more.
bool TimeIsUp();
/// Throws Error (kTime) when it is so.
void CheckTime();

}  // namespace kel::host

#endif
