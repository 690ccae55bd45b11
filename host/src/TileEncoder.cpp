// An image object behind callbacks that cut tiles out of an image's planes, and a stream that
// gathers what it writes.
#include "TileEncoder.hpp"

#include <algorithm>
#include <cmath>
#include <exception>
#include <utility>

#include "EncoderOptions.hpp"
#include "kel/host/rows.hpp"

namespace kel::host {
namespace {

/// Larger pictures are cut, into tiles of about these sides. How depends on the image alone, never
/// on the threads.
constexpr std::uint64_t kLargestUncut = 1024 * 1024;
constexpr std::uint32_t kTileWidth = 1024, kTileHeight = 512;
/// Tiles begin at multiples of this: of what five levels halve, and of the decoder's vectors.
constexpr std::uint32_t kTileStep = 64;
/// What a tile makes is handed on in pieces of this size or more, where that can be.
constexpr std::size_t kPartBytes = 256 * 1024;

TileBox BoxOf(KelImage& image, KelLong component, KelLong tile) {
  const KelImageGeometry& geometry = *image.GetGeometryParams();
  KelLong x0 = 0, x1 = 0, y0 = 0, y1 = 0;
  geometry.GetTileCompBoundingBox(geometry.GetXIndex(tile), geometry.GetYIndex(tile), component,
                                  &x0, &x1, &y0, &y1);
  return {static_cast<std::uint32_t>(x0), static_cast<std::uint32_t>(y0),
          static_cast<std::uint32_t>(std::max(x1 - x0, 0)),
          static_cast<std::uint32_t>(std::max(y1 - y0, 0))};
}

/// A stretch of a row of the region mask: one byte per sample, nonzero inside.
void CopyMaskRow(const Plane& mask, const TileBox& box, std::uint32_t y, std::uint8_t* to) {
  WithSampleType(mask.BytesPerSample(), [&](auto sample) {
    const auto* from = mask.Row<decltype(sample)>(y) + box.x;
    for (std::uint32_t x = 0; x < box.width; ++x) to[x] = from[x] != 0 ? 255 : 0;
  });
}

/// A side divided evenly, so that no narrow tiles are left over at the far edges.
std::uint32_t DividedSide(std::uint32_t side, std::uint32_t about) {
  const std::uint32_t count = std::max((side + about / 4) / about, 1U);
  if (count == 1) return side;
  const std::uint32_t even = (side + count - 1) / count;
  return (even + kTileStep - 1) / kTileStep * kTileStep;
}

void Require(bool allowed, const std::string& sentence) {
  if (!allowed) throw Error(Failure::kParameter, sentence);
}

void CheckPlanes(const Image& image) {
  Require(image.width != 0 && image.height != 0 && !image.planes.empty(), "the image is empty");
  Require(image.width <= INT32_MAX && image.height <= INT32_MAX, "the image is too large");
  const unsigned depth = image.planes[0].Depth();
  Require(depth <= format::kMostEncodedDepth, "samples of more than 28 bits cannot be encoded");
  const unsigned colours = NumColours(image);
  for (std::size_t i = 0; i < image.planes.size(); ++i) {
    const Plane& plane = image.planes[i];
    Require(plane.Depth() == depth, "channels of different depths cannot be encoded together");
    Require(plane.xStep >= 1 && plane.xStep <= format::kMostSubsampling && plane.yStep >= 1 &&
                plane.yStep <= format::kMostSubsampling,
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

/// Whether the colours are red, green and blue, each on the whole grid.
bool HasRgb(const Image& image) {
  const bool isRgb =
      image.colourSpace == ColourSpace::kSrgb || image.colourSpace == ColourSpace::kUnspecified;
  return isRgb && NumColours(image) == 3 && !image.palette &&
         std::all_of(image.planes.begin(), image.planes.begin() + 3,
                     [](const Plane& plane) { return plane.xStep == 1 && plane.yStep == 1; });
}

/// As many decompositions as leave eight samples of the tile's shorter side: what a lossy picture
/// shows in the large takes most of a small file.
unsigned FittingLevels(const EncodeParams& params) {
  constexpr unsigned kUsual = 5, kMost = 7;
  unsigned levels = kUsual;
  const std::uint32_t side = std::min(params.tileWidth, params.tileHeight);
  if (params.lossless || params.plain) return levels;
  while (levels < kMost && side >> (levels + 1) >= 8) ++levels;
  return levels;
}

}  // namespace

EncodeParams CheckedParams(const Image& image, const EncodeParams& params) {
  CheckPlanes(image);
  CheckPalette(image);
  Require(params.quality >= 1 && params.quality <= 100, "the quality is a number from 1 to 100");
  Require(params.levels <= format::kMostLevels || params.levels == EncodeParams::kFittingLevels,
          "at most 32 levels are possible");
  Require(params.layers >= 1 && params.layers <= format::kMostLayers,
          "1 to 65535 layers are possible");
  Require(!params.lossless || params.sizeLimit == 0, "a lossless file cannot be limited to a size");
  Require(!params.lossless || params.psnr == 0, "a lossless file has no error to be chosen");
  Require(params.psnr >= 0 && std::isfinite(params.psnr), "decibels are a number from 0 on");
  Require(!params.lossless || !params.halfChroma, "chroma at half size is for lossy coding");
  Require(params.psnr == 0 || params.sizeLimit == 0,
          "a file has one target, its size or its error");
  if (params.regionMask != nullptr) {
    Require(!params.lossless, "a region is for lossy coding");
    Require(
        params.regionMask->Width() == image.width && params.regionMask->Height() == image.height,
        "the mask of the region has another size than the image");
  }
  EncodeParams checked = params;
  checked.threads = ThreadCount(params.threads);
  // Samples of one bit take less without loss than at any quality.
  if (image.planes[0].Depth() == 1 && params.sizeLimit == 0) {
    checked.lossless = true;
    checked.psnr = 0;
    checked.regionMask = nullptr;
  }
  checked.halfChroma = params.halfChroma && !checked.lossless && HasRgb(image);
  Require(!checked.halfChroma || image.iccProfile.empty(),
          "a picture with a colour profile cannot have chroma at half size");
  const bool uncut = std::uint64_t{image.width} * image.height <= kLargestUncut;
  if (params.tileWidth == 0) {
    checked.tileWidth = uncut ? image.width : DividedSide(image.width, kTileWidth);
  }
  if (params.tileHeight == 0) {
    checked.tileHeight = uncut ? image.height : DividedSide(image.height, kTileHeight);
  }
  checked.tileWidth = std::min(checked.tileWidth, image.width);
  checked.tileHeight = std::min(checked.tileHeight, image.height);
  if (params.levels == EncodeParams::kFittingLevels) checked.levels = FittingLevels(checked);
  const std::uint64_t across = (image.width + checked.tileWidth - 1) / checked.tileWidth;
  const std::uint64_t down = (image.height + checked.tileHeight - 1) / checked.tileHeight;
  Require(across * down <= format::kMostTiles, "more than 65535 tiles are not possible");
  const auto step = [&](std::size_t i) {
    return std::pair(image.planes[i].xStep, image.planes[i].yStep);
  };
  checked.colourTransform = params.colourTransform && !checked.halfChroma &&
                            NumColours(image) >= 3 && step(0) == step(1) && step(1) == step(2);
  return checked;
}

void PlaneSamples::Copy(std::size_t component, const TileBox& box, std::uint8_t* to) {
  const Plane& plane = image_.planes[component];
  const std::uint64_t rowBytes = PackedRowBytes(box.width, plane.Depth());
  WithSampleType(plane.BytesPerSample(), [&](auto sample) {
    for (std::uint32_t y = 0; y < box.height; ++y, to += rowBytes) {
      PackSamples(plane.Row<decltype(sample)>(box.y + y) + box.x, box.width, plane.Depth(), to);
    }
  });
}

struct TileEncoder::State {
  State(const Image& source, TileSamples& itsSamples, const EncodeParams& params, double quality)
      : image(source),
        samples(itsSamples),
        mask(params.regionMask),
        options(source, params, quality) {
    large.clientData = this;
    large.Read = [](void*, void*, KelLong) -> KelLong { return 0; };
    large.Write = Write;
    large.Seek = StayAtEnd;
    large.InitStream(&stream, 0, true, true, false, true);
    dataProcs.clientData = this;
    const bool together = samples.Interleaved();
    dataProcs.GetTileInterleaved = together ? FetchTile : nullptr;
    dataProcs.GetTileComponent = FetchTileComponent;
    dataProcs.GetNumInterleaved = together ? CountInterleaved : nullptr;
    dataProcs.GetReserved = nullptr;
    rowProcs.clientData = this;
    rowProcs.GetTileRows = GetRows;
    rowProcs.ReleaseTileRows = ReleaseRows;
    AskForTime(actions);
    clientProcs.UserActions = &actions;
    clientProcs.ImageDataProcs = &dataProcs;
  }
  ~State() { object.Die(); }

  static KelLong Write(void* client, const void* source, KelLong count);
  /// Hands on what is gathered, and then more. False when it has to be gathered too.
  bool HandOn(ByteView more);
  static std::int64_t StayAtEnd(void* client, std::int64_t position);
  static KelLong CountInterleaved(void* client);
  static KelBufID_I* FetchTile(void* client, KelLong tile, KelLong* error);
  static KelBufID_I* FetchTileComponent(void* client, KelLong component, KelLong tile,
                                        KelLong* error);
  static const void* GetRows(void* client, KelLong tile, KelLong row, KelLong* numRows,
                             std::int64_t* strideBytes, KelLong* error);
  static void ReleaseRows(void* client, KelLong tile);
  /// A buffer of the library's with rowBytes x height bytes that `fill` writes; null with an error.
  template <class Fill>
  KelBufID_I* MakeBuffer(std::uint64_t rowBytes, const TileBox& box, KelLong* error, Fill&& fill);
  /// Makes sure that all of the object's bytes have been written.
  void Flush();

  const Image& image;
  TileSamples& samples;
  const Plane* mask;
  EncoderOptions options;
  KelLargeStream large;
  KelImageDataProcs dataProcs;
  KelRowProcs rowProcs;
  KelUserActions actions;
  KelClientProcs clientProcs;
  KelCodeStm stream;
  KelImage object;
  Bytes written;  ///< of the tile at work
  const TakePart* takePart = nullptr;
  std::int64_t position = 0;  ///< bytes written altogether
  /// What was thrown in a callback, through which no exception may pass.
  std::exception_ptr failure;
  Bytes headers;
};

KelLong TileEncoder::State::Write(void* client, const void* source, KelLong count) {
  auto& self = *static_cast<State*>(client);
  const auto* first = static_cast<const std::uint8_t*>(source);
  try {
    const ByteView more(first, static_cast<std::size_t>(count));
    if (!self.HandOn(more)) self.written.insert(self.written.end(), more.begin(), more.end());
  } catch (...) {
    self.failure = std::current_exception();
    return -1;
  }
  self.position += count;
  return count;
}

bool TileEncoder::State::HandOn(ByteView more) {
  if (takePart == nullptr || !*takePart || written.size() + more.size() < kPartBytes) return false;
  if (!written.empty() && !(*takePart)(written)) return false;
  written.clear();
  return (*takePart)(more);
}

/// The encoder writes from front to back; bytes that were taken are out of reach.
std::int64_t TileEncoder::State::StayAtEnd(void* client, std::int64_t position) {
  return position == static_cast<State*>(client)->position ? position : -1;
}

template <class Fill>
KelBufID_I* TileEncoder::State::MakeBuffer(std::uint64_t rowBytes, const TileBox& box,
                                           KelLong* error, Fill&& fill) {
  const std::uint64_t size = rowBytes * box.height;
  KelMemFuncs& memory = *KelGetMemObj();
  KelBufID_I* buffer = size <= UINT32_MAX ? memory.AllocBuf(static_cast<KelULong>(size)) : nullptr;
  if (buffer == nullptr) {
    *error = KelErrNoMemory;
    return nullptr;
  }
  auto* const bytes = static_cast<std::uint8_t*>(memory.LockBuf(buffer));
  if (bytes == nullptr) {
    memory.FreeBuf(buffer);
    *error = KelErrNoMemory;
    return nullptr;
  }
  try {
    fill(bytes);
  } catch (...) {
    failure = std::current_exception();
    *error = KelErrAborted;
  }
  memory.UnlockBuf(buffer);
  return buffer;
}

KelLong TileEncoder::State::CountInterleaved(void* client) {
  return static_cast<KelLong>(static_cast<State*>(client)->image.planes.size());
}

KelBufID_I* TileEncoder::State::FetchTile(void* client, KelLong tile, KelLong* error) {
  auto& self = *static_cast<State*>(client);
  const auto& planes = self.image.planes;
  const TileBox box = BoxOf(self.object, 0, tile);
  const std::uint64_t rowBytes =
      PackedRowBytes(std::uint64_t{box.width} * planes.size(), planes[0].Depth());
  return self.MakeBuffer(rowBytes, box, error,
                         [&](std::uint8_t* to) { self.samples.Copy(0, box, to); });
}

KelBufID_I* TileEncoder::State::FetchTileComponent(void* client, KelLong component, KelLong tile,
                                                   KelLong* error) {
  auto& self = *static_cast<State*>(client);
  const auto index = static_cast<std::size_t>(component);
  const TileBox box = BoxOf(self.object, component, tile);
  if (index < self.image.planes.size()) {
    return self.MakeBuffer(PackedRowBytes(box.width, self.image.planes[index].Depth()), box, error,
                           [&](std::uint8_t* to) { self.samples.Copy(index, box, to); });
  }
  return self.MakeBuffer(box.width, box, error, [&](std::uint8_t* to) {
    for (std::uint32_t y = 0; y < box.height; ++y, to += box.width) {
      CopyMaskRow(*self.mask, box, box.y + y, to);
    }
  });
}

const void* TileEncoder::State::GetRows(void* client, KelLong tile, KelLong row, KelLong* numRows,
                                        std::int64_t* strideBytes, KelLong* error) {
  auto& self = *static_cast<State*>(client);
  try {
    const TileSamples::Rows rows =
        self.samples.RowsOf(BoxOf(self.object, 0, tile), static_cast<std::uint32_t>(row));
    *numRows = static_cast<KelLong>(rows.count);
    *strideBytes = static_cast<std::int64_t>(rows.strideBytes);
    return rows.first;
  } catch (...) {
    self.failure = std::current_exception();
    *error = KelErrAborted;
    return nullptr;
  }
}

void TileEncoder::State::ReleaseRows(void* client, KelLong tile) {
  auto& self = *static_cast<State*>(client);
  self.samples.ReleaseRows(BoxOf(self.object, 0, tile));
}

void TileEncoder::State::Flush() {
  stream.flushWriteBuffer();
  if (failure) std::rethrow_exception(failure);
}

TileEncoder::TileEncoder(const Image& image, TileSamples& samples, const EncodeParams& params,
                         double quality) {
  RequireSession();
  state_ = std::make_unique<State>(image, samples, params, quality);
  State& state = *state_;
  Check(state.object.InitEncoder(state.options.Get(), &state.stream, &state.clientProcs),
        state.object, Failure::kParameter);
  if (samples.GivesRows()) {
    Check(state.object.SetRowProcs(&state.rowProcs), state.object, Failure::kParameter);
  }
  state.Flush();
  state.headers = state.written;
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

ByteView TileEncoder::EncodeTile(std::size_t tile, const TakePart& takePart) {
  state_->written.clear();
  state_->takePart = &takePart;
  const KelLong code = state_->object.CompressAndWriteTile(static_cast<KelLong>(tile), nullptr);
  if (state_->failure) std::rethrow_exception(state_->failure);
  Check(code, state_->object, Failure::kParameter);
  state_->Flush();
  return state_->written;
}

}  // namespace kel::host
