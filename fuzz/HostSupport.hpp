// What the targets over the host kit share: what a refusal looks like, and equality of images.
#ifndef FUZZ_HOST_SUPPORT_HPP
#define FUZZ_HOST_SUPPORT_HPP

#include <kel/host.hpp>

#include <algorithm>
#include <cstdlib>
#include <optional>

namespace fuzz {

/// Ends the program, which a fuzzer reports, when something that must hold does not.
inline void Require(bool holds) {
  if (!holds) std::abort();
}

/// What work returns; nothing where it refuses the data, which the kit may only do with an Error.
template <class Work>
auto Try(Work work) -> std::optional<decltype(work())> {
  try {
    return work();
  } catch (const kel::host::Error&) {
    return std::nullopt;
  }
}

inline bool AreEqual(const kel::host::Plane& a, const kel::host::Plane& b) {
  bool same = a.Width() == b.Width() && a.Height() == b.Height() && a.Depth() == b.Depth();
  for (std::uint32_t y = 0; same && y < a.Height(); ++y) {
    const auto* row = a.Row<std::uint8_t>(y);
    same =
        std::equal(row, row + std::size_t{a.Width()} * a.BytesPerSample(), b.Row<std::uint8_t>(y));
  }
  return same;
}

inline bool AreEqual(const kel::host::Image& a, const kel::host::Image& b) {
  return std::equal(a.planes.begin(), a.planes.end(), b.planes.begin(), b.planes.end(),
                    [](const auto& p, const auto& q) { return AreEqual(p, q); });
}

/// A source that gives its bytes once, some at a time, as a pipe does.
inline kel::host::CallbackSource PipeOf(kel::host::MemorySource& bytes, std::size_t most) {
  return kel::host::CallbackSource([&bytes, most](std::span<std::uint8_t> to) {
    return bytes.Read(to.first(std::min(to.size(), most)));
  });
}

}  // namespace fuzz

#endif
