// An image object behind callbacks that cut tiles out of an image's planes, and a stream that
// gathers what it writes.
#include "TileEncoder.hpp"

#include <algorithm>
#include <utility>

#include "EncoderOptions.hpp"
#include "kel/host/rows.hpp"

namespace kel::host {
namespace {

constexpr std::uint32_t kLargestSingleTile = 2048;
constexpr std::uint32_t kTileSize = 1024;
constexpr unsigned kMostLevels = 32, kMostLayers = 65535, kMostDepth = 28;
constexpr std::uint64_t kMostTiles = 65535;

/// Left, top, width and height of a tile in the samples of one component.
struct TileBox {
  std::uint32_t x, y, width, height;
};

TileBox BoxOf(KelImage& image, KelLong component, KelLong tile) {
  const KelImageGeometry& geometry = *image.GetGeometryParams();
  KelLong x0 = 0, x1 = 0, y0 = 0, y1 = 0;
  geometry.GetTileCompBoundingBox(geometry.GetXIndex(tile), geometry.GetYIndex(tile), component,
                                  &x0, &x1, &y0, &y1);
  return {static_cast<std::uint32_t>(x0), static_cast<std::uint32_t>(y0),
          static_cast<std::uint32_t>(std::max(x1 - x0, 0)),
          static_cast<std::uint32_t>(std::max(y1 - y0, 0))};
}

/// A stretch of a row in the form that the encoder takes: bytes for a depth of 8, words for 16,
/// else packed bits.
void CopyRow(const Plane& plane, const TileBox& box, std::uint32_t y, std::uint8_t* to) {
  WithSampleType(plane.BytesPerSample(), [&](auto sample) {
    using Sample = decltype(sample);
    const Sample* from = plane.Row<Sample>(y) + box.x;
    if (plane.Depth() == 8 * sizeof(Sample)) {
      std::copy_n(reinterpret_cast<const std::uint8_t*>(from), box.width * sizeof(Sample), to);
      return;
    }
    PackedRowWriter writer(to);
    for (std::uint32_t x = 0; x < box.width; ++x) writer.Put(from[x], plane.Depth());
    writer.Finish();
  });
}

/// A stretch of a row of the region mask: one byte per sample, nonzero inside.
void CopyMaskRow(const Plane& mask, const TileBox& box, std::uint32_t y, std::uint8_t* to) {
  for (std::uint32_t x = 0; x < box.width; ++x) to[x] = mask.At(box.x + x, y) != 0 ? 255 : 0;
}

void Require(bool allowed, const std::string& sentence) {
  if (!allowed) throw Error(Failure::kParameter, sentence);
}

void CheckPlanes(const Image& image) {
  Require(image.width != 0 && image.height != 0 && !image.planes.empty(), "the image is empty");
  Require(image.width <= INT32_MAX && image.height <= INT32_MAX, "the image is too large");
  const unsigned depth = image.planes[0].Depth();
  Require(depth <= kMostDepth, "samples of more than 28 bits cannot be encoded");
  const unsigned colours = NumColours(image);
  for (std::size_t i = 0; i < image.planes.size(); ++i) {
    const Plane& plane = image.planes[i];
    Require(plane.Depth() == depth, "channels of different depths cannot be encoded together");
    Require(plane.xStep >= 1 && plane.xStep <= 255 && plane.yStep >= 1 && plane.yStep <= 255,
            "the distance of samples is 1 to 255");
    Require(plane.Width() == (image.width + plane.xStep - 1) / plane.xStep &&
                plane.Height() == (image.height + plane.yStep - 1) / plane.yStep,
            "the planes do not have the size that the image says");
    const bool inOrder = i < colours ? plane.role == ChannelRole::kColour && plane.colour == i + 1
                                     : plane.role != ChannelRole::kColour;
    Require(inOrder, "colour planes must come first, in the order of their numbers");
  }
}

void CheckPalette(const Image& image) {
  if (!image.palette) return;
  const Palette& palette = *image.palette;
  Require(image.planes.size() == 1 && !palette.columns.empty() && palette.columns.size() <= 255,
          "an image with a palette has one plane of indices");
  const std::size_t entries = palette.columns[0].entries.size();
  Require(entries >= 1 && entries <= 1024, "a palette has 1 to 1024 entries");
  for (const Palette::Column& column : palette.columns) {
    Require(column.entries.size() == entries, "the columns of the palette differ in length");
    Require(column.depth == 8 || column.depth == 16, "a palette has columns of 8 or 16 bits");
    Require(column.role == ChannelRole::kColour, "a palette with opacity cannot be encoded");
  }
}

}  // namespace

EncodeParams CheckedParams(const Image& image, const EncodeParams& params) {
  CheckPlanes(image);
  CheckPalette(image);
  Require(params.quality >= 1 && params.quality <= 100, "the quality is a number from 1 to 100");
  Require(params.levels <= kMostLevels, "at most 32 levels are possible");
  Require(params.layers >= 1 && params.layers <= kMostLayers, "1 to 65535 layers are possible");
  Require(!params.lossless || params.sizeLimit == 0, "a lossless file cannot be limited to a size");
  if (params.regionMask != nullptr) {
    Require(!params.lossless, "a region is for lossy coding");
    Require(
        params.regionMask->Width() == image.width && params.regionMask->Height() == image.height,
        "the mask of the region has another size than the image");
  }
  EncodeParams checked = params;
  checked.threads = ThreadCount(params.threads);
  const bool small = std::max(image.width, image.height) <= kLargestSingleTile;
  if (params.tileWidth == 0) checked.tileWidth = small ? image.width : kTileSize;
  if (params.tileHeight == 0) checked.tileHeight = small ? image.height : kTileSize;
  checked.tileWidth = std::min(checked.tileWidth, image.width);
  checked.tileHeight = std::min(checked.tileHeight, image.height);
  const std::uint64_t across = (image.width + checked.tileWidth - 1) / checked.tileWidth;
  const std::uint64_t down = (image.height + checked.tileHeight - 1) / checked.tileHeight;
  Require(across * down <= kMostTiles, "more than 65535 tiles are not possible");
  const auto step = [&](std::size_t i) {
    return std::pair(image.planes[i].xStep, image.planes[i].yStep);
  };
  checked.colourTransform =
      params.colourTransform && NumColours(image) >= 3 && step(0) == step(1) && step(1) == step(2);
  return checked;
}

struct TileEncoder::State {
  State(const Image& source, const EncodeParams& params, int quality)
      : image(source), mask(params.regionMask), options(source, params, quality) {
    streamProcs.clientData = this;
    streamProcs.Read = [](void*, void*, KelLong) -> KelLong { return 0; };
    streamProcs.Write = Write;
    streamProcs.Seek = StayAtEnd;
    stream.InitKelCodeStm(0, true, true, false, true, &streamProcs);
    dataProcs.clientData = this;
    dataProcs.GetTileInterleaved = nullptr;
    dataProcs.GetTileComponent = FetchTileComponent;
    dataProcs.GetNumInterleaved = nullptr;
    dataProcs.GetReserved = nullptr;
    clientProcs.UserActions = nullptr;
    clientProcs.ImageDataProcs = &dataProcs;
  }
  ~State() { object.Die(); }

  static KelLong Write(void* client, const void* source, KelLong count);
  static KelLong StayAtEnd(void* client, KelLong origin, KelLong offset);
  static KelBufID_I* FetchTileComponent(void* client, KelLong component, KelLong tile,
                                        KelLong* error);
  /// What the object has written since the last call.
  Bytes TakeWritten();

  const Image& image;
  const Plane* mask;
  EncoderOptions options;
  KelStreamProcs streamProcs;
  KelImageDataProcs dataProcs;
  KelClientProcs clientProcs;
  KelCodeStm stream;
  KelImage object;
  Bytes written;             ///< since they were taken last
  KelLong position = 0;      ///< bytes written altogether
  bool outOfMemory = false;  ///< while taking bytes, where no exception may pass
  Bytes headers;
};

KelLong TileEncoder::State::Write(void* client, const void* source, KelLong count) {
  auto& self = *static_cast<State*>(client);
  const auto* first = static_cast<const std::uint8_t*>(source);
  try {
    self.written.insert(self.written.end(), first, first + count);
  } catch (const std::exception&) {
    self.outOfMemory = true;
    return -1;
  }
  self.position += count;
  return count;
}

/// The encoder writes from front to back; bytes that were taken are out of reach.
KelLong TileEncoder::State::StayAtEnd(void* client, KelLong, KelLong offset) {
  return offset == static_cast<State*>(client)->position ? offset : -1;
}

KelBufID_I* TileEncoder::State::FetchTileComponent(void* client, KelLong component, KelLong tile,
                                                   KelLong* error) {
  auto& self = *static_cast<State*>(client);
  const bool isMask = static_cast<std::size_t>(component) == self.image.planes.size();
  const Plane& plane = isMask ? *self.mask : self.image.planes[static_cast<std::size_t>(component)];
  const TileBox box = BoxOf(self.object, component, tile);
  const std::uint64_t rowBytes = PackedRowBytes(box.width, isMask ? 8 : plane.Depth());
  const std::uint64_t size = rowBytes * box.height;
  KelMemFuncs& memory = *KelGetMemObj();
  KelBufID_I* buffer = size <= UINT32_MAX ? memory.AllocBuf(static_cast<KelULong>(size)) : nullptr;
  if (buffer == nullptr) {
    *error = KelErrNoMemory;
    return nullptr;
  }
  auto* to = static_cast<std::uint8_t*>(memory.LockBuf(buffer));
  for (std::uint32_t y = 0; y < box.height; ++y, to += rowBytes) {
    if (isMask) {
      CopyMaskRow(plane, box, box.y + y, to);
    } else {
      CopyRow(plane, box, box.y + y, to);
    }
  }
  memory.UnlockBuf(buffer);
  return buffer;
}

Bytes TileEncoder::State::TakeWritten() {
  stream.flushWriteBuffer();
  if (outOfMemory) throw Error(Failure::kMemory, "out of memory for the coded bytes");
  return std::exchange(written, {});
}

TileEncoder::TileEncoder(const Image& image, const EncodeParams& params, int quality) {
  RequireSession();
  state_ = std::make_unique<State>(image, params, quality);
  State& state = *state_;
  Check(state.object.InitEncoder(state.options.Get(), &state.stream, &state.clientProcs),
        state.object, Failure::kParameter);
  state.headers = state.TakeWritten();
}

TileEncoder::~TileEncoder() = default;

std::size_t TileEncoder::NumTiles() const {
  return static_cast<std::size_t>(state_->object.GetNumTiles());
}

const Bytes& TileEncoder::Headers() const {
  return state_->headers;
}

KelImage& TileEncoder::Object() {
  return state_->object;
}

Bytes TileEncoder::EncodeTile(std::size_t tile) {
  Check(state_->object.CompressAndWriteTile(static_cast<KelLong>(tile), nullptr), state_->object,
        Failure::kParameter);
  return state_->TakeWritten();
}

}  // namespace kel::host
