// The length that no file made with an encoder's options passes, whatever the samples are.
//
// Coefficients are bounded by the filters' absolute sums, the planes of a block by the
// coefficients, and the bytes of a packet by the planes of its blocks. Headers count with what was
// written, or with the most that a tile can have to announce.
#include <algorithm>
#include <cmath>

#include "KelBlockEncode.h"
#include "KelPacketWrite.h"
#include "encode/KelImageEncode.h"
#include "encode/KelMainStream.h"
#include "encode/KelTileRows.h"
#include "format/KelBlockGrid.h"
#include "format/KelTileBox.h"
#include "transform/KelWavelet.h"

namespace kel {
namespace {

/// Segment of a component's steps without the pairs: marker, length, component, style.
constexpr std::uint64_t kQuantSegmentBytes = 7;

/// What a level makes of values up to m along one axis: sums of the analysis filters' absolute
/// values, rounded up, and the integers' roundings.
double LowOf(double m, bool irreversible) {
  return irreversible ? 1.39 * m : 1.5 * m + 2;
}
double HighOf(double m, bool irreversible) {
  return irreversible ? 2.6 * m : 2 * m + 1;
}

/// The largest sample of a prepared plane. Differences of colours have a bit more.
double LargestSample(const KelEncOpt& o, KelLong c) {
  const bool isColor = c < 3 && ColorTransformApplies(o);
  KelLong depth = o.GeomParams->BitDepths[c];
  for (KelLong other = 0; isColor && other < 3; ++other) {
    depth = std::max(depth, o.GeomParams->BitDepths[other]);
  }
  return std::ldexp(1.0, isColor ? depth : depth - 1);
}

/// The largest coefficient of a band in samples up to m.
double LargestCoefficient(double m, int subband, int numLevels, bool irreversible) {
  const int level = LevelOfSubband(subband, numLevels);
  const SubbandKind kind = KindOfSubband(subband);
  const bool highAcross = kind == SubbandKind::kHL || kind == SubbandKind::kHH;
  const bool highDown = kind == SubbandKind::kLH || kind == SubbandKind::kHH;
  for (int l = 1; l <= level; ++l) {
    m = l == level && highDown ? HighOf(m, irreversible) : LowOf(m, irreversible);
    m = l == level && highAcross ? HighOf(m, irreversible) : LowOf(m, irreversible);
  }
  return m;
}

/// Planes that magnitudes up to a number take.
unsigned PlanesOf(double magnitude) {
  if (magnitude >= 0x1p31) return 31;
  return static_cast<unsigned>(BitLength(static_cast<std::uint32_t>(magnitude)));
}

/// The most bytes of a tile-component's packets in one layer.
std::uint64_t MostPacketBytes(const ImageState& state, const KelTileGeometry& t) {
  const EncoderState& e = *state.encoder;
  const KelEncOpt& o = e.settings;
  const Box box = BoxOf(t);
  if (box.IsEmpty()) return 0;
  const bool irreversible = IsCodedIrreversibly(o, t.Component);
  ChosenSteps chosen;
  if (irreversible) {
    ChooseSteps(QuantTargetOf(state, t), box, o.NumLevels, e.bandWeights, chosen);
  }
  const double largest = LargestSample(o, t.Component);
  std::uint64_t bytes = AsCount(o.NumLevels + 1) * kPacketCountBytes;
  for (int b = 0; b < NumSubbands(o.NumLevels); ++b) {
    const Box band = SubbandBox(box, o.NumLevels, b);
    double magnitude = LargestCoefficient(largest, b, o.NumLevels, irreversible);
    if (irreversible) {
      // With a region what lies outside becomes multiples of the step, the rest is not divided.
      const auto step = static_cast<double>(chosen.steps[b]);
      magnitude = o.RoiEnabled ? magnitude + step : magnitude / step + 1;
    }
    const std::uint64_t blocks = AsCount(CountBlocks(band.x0, band.x1, kBlockExponent)) *
                                 AsCount(CountBlocks(band.y0, band.y1, kBlockExponent));
    bytes = SaturatingAdd(bytes, MostBytesOfBand(blocks, PlanesOf(magnitude)));
  }
  return bytes;
}

/// The most that checksums take in the headers of a tile.
std::uint64_t MostChecksumBytes(const KelEncOpt& o, KelLong partsOfTile) {
  const std::uint64_t packets =
      SaturatingMul(AsCount(o.NumLevels + 1), AsCount(NumInMainStream(o)));
  return SaturatingAdd(format::ChecksumSegmentsBytes(SaturatingMul(packets, AsCount(o.NumLayers))),
                       AsCount(partsOfTile) * format::kChecksumSegmentBytes);
}

}  // namespace

KelLong CodeStreamLengthBound(ImageState& state) {
  const EncoderState& e = *state.encoder;
  const KelEncOpt& o = e.settings;
  const KelLong partsOfTile = o.ProgressionOrder == KelCPRL ? NumInMainStream(o) : o.NumLevels + 1;
  const std::uint64_t stepsBytes =
      kQuantSegmentBytes + 2 * static_cast<std::uint64_t>(NumSubbands(o.NumLevels));
  std::uint64_t bytes = e.headerBytes + format::kMarkerBytes;
  for (std::int32_t t = 0; t < state.map.numTiles && bytes < INT32_MAX; ++t) {
    bytes = SaturatingAdd(bytes, AsCount(partsOfTile) * format::kLeastTilePartBytes);
    if (o.Checksums != 0) bytes = SaturatingAdd(bytes, MostChecksumBytes(o, partsOfTile));
    for (KelLong c = 0; c < state.map.numComps && bytes < INT32_MAX; ++c) {
      if (!IsInMainStream(o, c)) continue;
      if (IsCodedIrreversibly(o, c)) bytes += stepsBytes;
      KelTileGeometry component;
      component.InitKelTileGeometry(o.GeomParams, c, t);
      bytes = SaturatingAdd(bytes,
                            SaturatingMul(MostPacketBytes(state, component), AsCount(o.NumLayers)));
    }
  }
  return static_cast<KelLong>(std::min<std::uint64_t>(bytes, INT32_MAX));
}

}  // namespace kel
