// The limits of a thread's work.
#include "kel/host/limits.hpp"

#include <string>
#include <utility>

namespace kel::host {
namespace {

thread_local const LimitScope::Work* bound = nullptr;

/// Longer ones are none: the clock could not hold their end.
constexpr double kLongest = 1e9;

bool HasEnd(const Limits& limits) {
  return limits.seconds > 0 && limits.seconds < kLongest;
}

}  // namespace

LimitScope::LimitScope(const Limits& limits) : work_{limits, {}}, before_(bound) {
  if (HasEnd(limits)) {
    work_.end = std::chrono::steady_clock::now() +
                std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                    std::chrono::duration<double>(limits.seconds));
  }
  bound = &work_;
}

LimitScope::LimitScope(const Work* work) : work_{}, before_(std::exchange(bound, work)) {}

LimitScope::~LimitScope() {
  bound = before_;
}

const LimitScope::Work* LimitScope::Current() {
  return bound;
}

void CheckPixels(std::uint64_t width, std::uint64_t height) {
  const std::uint64_t most = bound == nullptr ? Limits().maxPixels : bound->limits.maxPixels;
  if (most == 0 || width == 0 || height <= most / width) return;
  throw TooManyPixels(Failure::kMemory,
                      "the image has " + std::to_string(width) + " x " + std::to_string(height) +
                          " pixels, more than the limit of " + std::to_string(most));
}

bool TimeIsUp() {
  if (bound == nullptr) return false;
  if (bound->limits.stop != nullptr && bound->limits.stop()) return true;
  return HasEnd(bound->limits) && std::chrono::steady_clock::now() >= bound->end;
}

void CheckTime() {
  if (TimeIsUp()) throw Error(Failure::kTime, "the time limit was reached");
}

}  // namespace kel::host
