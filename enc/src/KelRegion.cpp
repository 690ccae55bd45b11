// Fitting the mask of the region of interest.
#include "KelRegion.h"

#include <algorithm>

#include "format/KelTileBox.h"

namespace kel {
namespace {

/// The samples of the mask, along one axis, in the area that a component's sample stands for;
/// the nearest one when there is none. Indices count from the mask's first sample.
struct Cover {
  std::int64_t first, end;
};
Cover CoverOf(std::int64_t sample, std::int64_t spacing, std::int64_t maskSpacing,
              std::int64_t maskFirst, std::int64_t maskEnd) {
  const std::int64_t from = CeilDiv(sample * spacing, maskSpacing);
  const std::int64_t to = CeilDiv((sample + 1) * spacing, maskSpacing);
  const std::int64_t first = std::max(from, maskFirst);
  const std::int64_t end = std::min(to, maskEnd);
  if (first < end) return {first - maskFirst, end - maskFirst};
  const std::int64_t nearest =
      std::clamp(FloorDiv(sample * spacing, maskSpacing), maskFirst, maskEnd - 1) - maskFirst;
  return {nearest, nearest + 1};
}

}  // namespace

RegionSamples EmptyRegion(const KelTileGeometry& t) {
  const Box box = BoxOf(t);
  const std::uint64_t samples = SaturatingMul(AsCount(box.Width()), AsCount(box.Height()));
  return {OwnedArray<std::uint8_t>::Make(samples), box, t.XRsiz, t.YRsiz};
}

RegionSamples FitRegion(const RegionSamples& region, const KelTileGeometry& component) {
  RegionSamples fitted = EmptyRegion(component);
  if (region.box.IsEmpty()) return fitted;
  std::uint8_t* out = fitted.bytes.Data();
  for (std::int64_t y = fitted.box.y0; y < fitted.box.y1; ++y) {
    const Cover rows = CoverOf(y, fitted.yRsiz, region.yRsiz, region.box.y0, region.box.y1);
    for (std::int64_t x = fitted.box.x0; x < fitted.box.x1; ++x) {
      const Cover columns = CoverOf(x, fitted.xRsiz, region.xRsiz, region.box.x0, region.box.x1);
      bool isInside = false;
      for (std::int64_t row = rows.first; row < rows.end; ++row) {
        const std::uint8_t* line = region.bytes.Data() + row * region.box.Width();
        isInside = isInside || std::any_of(line + columns.first, line + columns.end,
                                           [](std::uint8_t inside) { return inside != 0; });
      }
      *out++ = isInside ? kInsideRegion : 0;
    }
  }
  return fitted;
}

const RegionSamples& RegionFor(const KelTileGeometry& component, const RegionSamples& region,
                               RegionSamples& fitted) {
  if (region.box == BoxOf(component) && region.xRsiz == component.XRsiz &&
      region.yRsiz == component.YRsiz) {
    return region;
  }
  fitted = FitRegion(region, component);
  return fitted;
}

RegionMarks::RegionMarks(const RegionSamples& region, int numLevels, bool irreversible)
    : box_(region.box), numLevels_(numLevels) {
  const std::uint64_t columns = AsCount(box_.Width() + 2 * kMaskMargin);
  marks_ = OwnedArray<std::uint8_t>::Make(
      SaturatingMul(columns, AsCount(box_.Height() + 2 * kMaskMargin)));
  const auto scratch = ScratchArray<std::uint8_t>::Make(RegionMaskScratchBytes(box_));
  CarryRegionMask({region.bytes.Data(), box_, numLevels, irreversible}, scratch.Data(),
                  marks_.Data());
}

const std::uint8_t* RegionMarks::Row(int subband, std::int64_t row) const {
  return RegionMaskRow(marks_.Data(), box_, numLevels_, subband, row);
}

}  // namespace kel
