// What a decoder would make of an image, from the encoder's own preview of every tile.
#include <algorithm>

#include "EncodeTargets.hpp"
#include "kel/host/decode.hpp"
#include "kel/host/rows.hpp"

namespace kel::host {
namespace {

/// The largest value of the encoder's previews, which it scales samples to.
std::uint32_t PreviewMax(unsigned depth) {
  return depth == 8 ? 255 : std::uint32_t{1} << (depth - 1);
}

/// Copies one component of a tile into its place. The encoder leaves bytes for a depth of 8,
/// words for 16, else packed rows.
void CopyTile(const KelTileComponent& component, Plane& plane) {
  const KelImageData* data = component.GetOutputImage();
  if (data == nullptr || data->GetImageBuffer() == nullptr) return;
  const KelTileGeometry& place = *component.GetTileGeometryParams();
  const unsigned depth = plane.Depth();
  const auto width = static_cast<std::uint32_t>(std::max(place.X1 - place.X0, 0));
  const auto height = static_cast<std::uint32_t>(std::max(place.Y1 - place.Y0, 0));
  const std::uint64_t rowBytes =
      PackedRowBytes(static_cast<std::uint64_t>(data->GetWidth()), depth);
  const std::uint64_t most = plane.MaxValue(), scale = PreviewMax(depth);
  KelMemFuncs& memory = *KelGetMemObj();
  const auto* from = static_cast<const std::uint8_t*>(memory.LockBuf(data->GetImageBuffer()));
  if (from == nullptr) throw Error(Failure::kMemory, std::string(CodeSentence(KelErrNoMemory)));
  for (std::uint32_t y = 0; y < height; ++y, from += rowBytes) {
    WithSampleType(plane.BytesPerSample(), [&](auto sample) {
      using Sample = decltype(sample);
      Sample* to = plane.Row<Sample>(static_cast<std::uint32_t>(place.Y0) + y) + place.X0;
      UnpackSamples(from, width, depth, to);
      for (std::uint32_t x = 0; x < width; ++x) {
        to[x] = static_cast<Sample>(std::min((to[x] * most + scale / 2) / scale, most));
      }
    });
  }
  memory.UnlockBuf(data->GetImageBuffer());
}

}  // namespace

Image Preview(const Image& image, const EncodeParams& params) {
  const EncodeParams checked = CheckedParams(image, params);
  if (HasTarget(checked) || checked.halfChroma) {
    MemorySink file;
    Encode(image, params, file);
    MemorySource source(file.bytes);
    DecodeParams decoding;
    decoding.threads = checked.threads;
    return Decode(source, decoding);
  }
  Image preview = image;  // opacity and other extra channels are coded without loss
  if (checked.lossless) return preview;
  std::vector<std::unique_ptr<TileEncoder>> encoders(checked.threads);
  PlaneSamples samples(image);
  encoders[0] = std::make_unique<TileEncoder>(image, samples, checked, checked.quality);
  const std::size_t numTiles = encoders[0]->NumTiles();
  ForEachIndex(numTiles, checked.threads, [&](unsigned worker, std::size_t tile) {
    std::unique_ptr<TileEncoder>& encoder = encoders[worker];
    if (!encoder) {
      encoder = std::make_unique<TileEncoder>(image, samples, checked, checked.quality);
    }
    KelImage& object = encoder->Object();
    Check(object.GetPreviewData(static_cast<KelLong>(tile)), object, Failure::kParameter);
    for (unsigned c = 0; c < NumColours(image); ++c) {
      CopyTile(TileComponent(object, tile, c), preview.planes[c]);
    }
  });
  return preview;
}

}  // namespace kel::host
