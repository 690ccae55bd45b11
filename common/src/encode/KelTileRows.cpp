// Rows of a tile from the host's buffers into the transform, and the quantisation targets of its
// components.
#include "encode/KelTileRows.h"

#include <algorithm>
#include <cmath>

#include "KelRate.h"
#include "encode/KelMainStream.h"

namespace kel {
namespace {

/// The part of the error budget that a component gets: the colour transform weighs errors in its
/// results differently. The two divisors are given, part of what a quality number means; the
/// transform's own energies, 3, 3.26 and 2.48, would be others.
float BudgetFactor(const KelEncOpt& o, KelLong component) {
  if (!o.ComponentTransform || o.GeomParams->Csiz < 2 || component > 2) return 1.0F;
  return static_cast<float>(component == 0 ? 1.0 / 3.9172 : 1.0 / 2.13847);
}

bool IsTransformedColor(const KelEncOpt& o, KelLong component) {
  return component < 3 && ColorTransformApplies(o);
}

/// The transforms of components that go together; of those that are wanted.
class TogetherRows {
 public:
  TogetherRows(const ForwardJob* jobs, KelLong count, KeptBlock& memory)
      : jobs_(jobs), count_(count) {
    std::uint64_t needed = 0;
    for (KelLong c = 0; c < count; ++c) needed = SaturatingAdd(needed, BytesOf(c));
    auto* next = static_cast<std::uint8_t*>(EnsureKept(memory, needed));
    for (KelLong c = 0; c < count; ++c) {
      if (!IsWanted(c)) continue;
      BeginForward(jobs[c], next, rows_[c]);
      next += BytesOf(c);
    }
  }

  /// Where the next row of each component goes; null for those that are not wanted.
  void GetPlanes(CodingPlane (&planes)[kMostTogether]) const {
    for (KelLong c = 0; c < count_; ++c) {
      planes[c] = {IsWanted(c) ? NextSampleRow(rows_[c]) : nullptr, 0};
    }
  }
  void TakeRow() {
    for (KelLong c = 0; c < count_; ++c) {
      if (IsWanted(c)) TakeSampleRow(rows_[c]);
    }
  }

 private:
  bool IsWanted(KelLong c) const { return !jobs_[c].box.IsEmpty(); }
  std::uint64_t BytesOf(KelLong c) const {
    return ForwardRowsBytes(jobs_[c].box, jobs_[c].numLevels, jobs_[c].cells);
  }

  const ForwardJob* jobs_;
  KelLong count_;
  ForwardRows rows_[kMostTogether];
};

/// The samples of components that go together: in buffers, or row by row.
class SamplesTogether {
 public:
  SamplesTogether(TileSource& source, KelLong first, KelLong count, bool inRows)
      : source_(source), first_(first), count_(count), inRows_(inRows) {}

  /// Fetches what does not come row by row.
  bool Fetch() {
    for (KelLong c = 0; c < count_ && !inRows_; ++c) {
      if (!source_.Fetch(first_ + c, fetched_[c])) return false;
    }
    return true;
  }

  /// A row of each component; rows from the first to the last.
  bool GetRow(std::uint64_t y, SampleSource (&rows)[kMostTogether]) {
    if (inRows_ && y >= begin_ + atHand_.numRows) {
      if (!source_.GetRows(y, atHand_)) return false;
      begin_ = y;
    }
    for (KelLong c = 0; c < count_; ++c) {
      rows[c] = FromRow(inRows_ ? atHand_.first : fetched_[c].source, y - begin_);
      if (inRows_) rows[c].first = static_cast<std::uint32_t>(c);
    }
    return true;
  }

 private:
  TileSource& source_;
  KelLong first_, count_;
  bool inRows_;
  FetchedSamples fetched_[kMostTogether];
  RowsAtHand atHand_ = {};
  std::uint64_t begin_ = 0;  ///< of the rows at hand
};

}  // namespace

RowKind RowKindAlone(int bitDepth, int numLevels) {
  return {SamplesFitShorts(bitDepth, numLevels) ? CellKind::kShorts : CellKind::kInts, bitDepth};
}

RowKind RowKindOf(const KelEncOpt& o, KelLong component, int numLevels) {
  const KelLong* const depths = o.GeomParams->BitDepths;
  const bool isColor = IsTransformedColor(o, component);
  const KelLong depth = isColor ? *std::max_element(depths, depths + 3) : depths[component];
  if (IsCodedIrreversibly(o, component)) return {CellKind::kFloats, depth};
  // Differences of colours have a bit more than the colours.
  return RowKindAlone(isColor ? depth + 1 : depth, numLevels);
}

KelLong NumTogether(const KelEncOpt& o, KelLong component) {
  return component == 0 && ColorTransformApplies(o) ? 3 : 1;
}

bool TransformTogether(TileSource& source, KelLong first, KelLong count, const ForwardJob* jobs,
                       KeptBlock& memory, bool asRows) {
  const ForwardJob* const job =
      std::find_if(jobs, jobs + count, [](const ForwardJob& j) { return !j.box.IsEmpty(); });
  if (job == jobs + count) return true;
  SamplesTogether samples(source, first, count, asRows && first == 0 && source.HasRows(count));
  if (!samples.Fetch()) return false;
  TogetherRows rows(jobs, count, memory);
  const PlaneSize row = {job->box.Width(), 1};
  for (std::uint64_t y = 0; y < AsCount(job->box.Height()); ++y) {
    SampleSource sources[kMostTogether];
    if (!samples.GetRow(y, sources)) return false;
    CodingPlane planes[kMostTogether] = {};
    rows.GetPlanes(planes);
    if (count == 1) {
      PreparePlane(sources[0], planes[0], row, job->cells);
    } else {
      PrepareColorPlanes(sources, planes, row, job->cells);
    }
    rows.TakeRow();
  }
  source.ReleaseRows();
  return true;
}

namespace {

/// Even steps at the end of the scale have the size of steps of 1; deeper samples leave no room for
/// parts of these.
constexpr KelLong kMostDepthAtUnitSteps = 16;

/// Nothing that even steps are wanted for lies below.
constexpr float kLeastQuality = -40.0F;

double ExactQuality(float quality) {
  if (std::isnan(quality)) return 1.0;
  return static_cast<double>(std::clamp(quality, kLeastQuality, 100.0F));
}

ComponentRole RoleOf(const KelEncOpt& o, KelLong component) {
  if (!ColorTransformApplies(o) || component > 2) return ComponentRole::kAlone;
  if (component == 0) return ComponentRole::kLuminance;
  return component == 1 ? ComponentRole::kBlueDifference : ComponentRole::kRedDifference;
}

QuantTarget TargetAt(const KelEncOpt& o, float quality, const KelTileGeometry& component) {
  QuantTarget target = {QualityNumber(quality), component.X1 - component.X0,
                        component.Y1 - component.Y0, AnnouncedDepth(o),
                        BudgetFactor(o, component.Component)};
  target.exactQuality = ExactQuality(quality);
  target.role = RoleOf(o, component.Component);
  target.areEven = o.ChooseIndices != 0 && !o.RoiEnabled &&
                   (target.exactQuality < 100.0 || target.bitDepth <= kMostDepthAtUnitSteps);
  return target;
}

}  // namespace

QuantTarget QuantTargetOf(const ImageState& state, const KelTileGeometry& component) {
  return TargetAt(state.encoder->settings, state.encOpt->TargetQuality, component);
}

void ChooseAnnouncedSteps(EncoderState& e) {
  const KelEncOpt& o = e.settings;
  for (KelLong c = 0; c < o.GeomParams->Csiz; ++c) {
    if (!IsCodedIrreversibly(o, c) || IsRegionMask(o, c)) continue;
    KelTileGeometry component;
    component.InitKelTileGeometry(o.GeomParams, c, 0);
    const QuantTarget target = TargetAt(o, o.TargetQuality, component);
    // Steps of the end of the scale depend on the tile.
    if (!target.areEven || target.exactQuality >= 100.0) continue;
    const auto role = static_cast<std::size_t>(target.role);
    if (e.hasAnnounced[role]) continue;
    ChooseSteps(target, BoxOf(component), o.NumLevels, e.bandWeights, e.announced[role]);
    e.hasAnnounced[role] = true;
  }
}

const ChosenSteps* AnnouncedStepsOf(const EncoderState& e, KelLong component) {
  if (!IsCodedIrreversibly(e.settings, component)) return nullptr;
  const auto role = static_cast<std::size_t>(RoleOf(e.settings, component));
  return e.hasAnnounced[role] ? &e.announced[role] : nullptr;
}

}  // namespace kel
