// Subband geometry of the wavelet transform: boxes of subbands and their places in the Mallat
// layout.
#include <algorithm>

#include "transform/KelWavelet.h"

namespace kel {
namespace {

bool IsHighAcross(int subband) {
  return KindOfSubband(subband) == SubbandKind::kHL || KindOfSubband(subband) == SubbandKind::kHH;
}

bool IsHighDown(int subband) {
  return KindOfSubband(subband) == SubbandKind::kLH || KindOfSubband(subband) == SubbandKind::kHH;
}

}  // namespace

// An edge x of the samples becomes ceil((x - 2^(level - 1) high) / 2^level) in the subband. That
// equals the edge of the box one level finer, moved down by one for a high-pass band, and halved.
Box SubbandBox(const Box& box, int numLevels, int subband) {
  const int level = LevelOfSubband(subband, numLevels);
  if (level == 0) return box;
  const Box finer = ReduceBox(box, level - 1);
  const std::int64_t across = IsHighAcross(subband) ? 1 : 0;
  const std::int64_t down = IsHighDown(subband) ? 1 : 0;
  return ReduceBox({finer.x0 - across, finer.x1 - across, finer.y0 - down, finer.y1 - down}, 1);
}

CellOffset MallatOffset(const Box& box, int numLevels, int subband) {
  const Box low = ReduceBox(box, LevelOfSubband(subband, numLevels));
  return {IsHighAcross(subband) ? low.Width() : 0, IsHighDown(subband) ? low.Height() : 0};
}

// With |L| <= l and |H| <= h, a pass of the 5/3 filter gives
//   |X(2n)|     <= l + (h + 1) / 2 = e, since |floor((H + H' + 2) / 4)| <= (h + 1) / 2,
//   |X(2n + 1)| <= h + e,               since |floor((X + X') / 2)| <= e,
// and forms no sums beyond these but H + H' + 2 <= 2h + 2 and X + X', up to 2e. A level makes two
// passes across, of LL with HL and of LH with HH, and one down over their results. Mirrored samples
// and lines of one sample, which are copied or halved, stay within the same limits.
bool FitsShorts(int numLevels, const std::uint8_t* bandBits, std::int64_t mostSample) {
  constexpr std::int64_t kMost = INT16_MAX;
  const auto mostOf = [&](int band) {
    return (std::int64_t{1} << std::min<int>(bandBits[band], 32)) - 1;
  };
  bool fits = true;
  const auto pass = [&](std::int64_t low, std::int64_t high) {
    const std::int64_t even = low + (high + 1) / 2;
    fits = fits && 2 * high + 2 <= kMost && 2 * even <= kMost;
    return high + even;
  };
  std::int64_t most = mostOf(0);
  for (int b = 1; b < NumSubbands(numLevels) && fits; b += 3) {
    const std::int64_t low = pass(most, mostOf(b)), high = pass(mostOf(b + 1), mostOf(b + 2));
    most = pass(low, high);
  }
  return fits && most <= std::min(mostSample, kMost);
}

}  // namespace kel
