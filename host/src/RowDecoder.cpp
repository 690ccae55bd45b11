// Choosing how a picture is decoded into rows: by bands as the data come, or whole.
#include <algorithm>

#include "BandDecoder.hpp"
#include "Describe.hpp"
#include "RegionDecode.hpp"
#include "kel/host/decode.hpp"
#include "kel/host/limits.hpp"

namespace kel::host {
namespace {

/// Data up to this size are read at once, which lets the library find its way in damaged ones.
constexpr std::size_t kReadAtOnce = 16 << 20;
/// Where a part of the picture is wanted, this first.
constexpr std::size_t kFirstOfPart = 1 << 16;
/// Of larger ones, this first.
constexpr std::size_t kFirstOfLarge = 1 << 20;

/// Bytes that were read, then the rest of their source.
class ChainedSource final : public Source {
 public:
  ChainedSource(ByteView first, Source& rest) : first_(first), rest_(rest) {}
  std::size_t Read(std::span<std::uint8_t> to) override {
    if (first_.empty()) return rest_.Read(to);
    const std::size_t count = std::min(to.size(), first_.size());
    std::copy_n(first_.begin(), count, to.begin());
    first_ = first_.subspan(count);
    return count;
  }
  std::optional<std::uint64_t> Size() const override { return rest_.Size(); }
  std::size_t ReadAt(std::uint64_t offset, std::span<std::uint8_t> to) const override {
    return rest_.ReadAt(offset, to);
  }

 private:
  ByteView first_;
  Source& rest_;
};

}  // namespace

struct RowDecoder::State {
  State(Source& from, const DecodeParams& itsParams) : source(from), params(itsParams) {}

  void ReadFirst();
  void ReadHeader();
  void Describe(Index& index);
  /// Whether rows of tiles can be decoded one after another.
  bool CanStream(Index& index) const;

  Source& source;
  DecodeParams params;
  SampleBuffer first;  ///< for what was read of the source
  ByteView seen;       ///< that, or everything where it stands in memory
  bool isAll = false;  ///< nothing is left in the source
  bool streams = false;
  Image description;
};

void RowDecoder::State::ReadFirst() {
  if (!IsBeyondBlock(source)) {
    if (const auto view = source.View()) {
      seen = *view;
      isAll = true;
      return;
    }
  }
  const auto size = source.Size();
  if (size && IsPartial(params)) return ReadHeader();
  first = SampleBuffer(!size                  ? kReadAtOnce
                       : *size >= kReadAtOnce ? kFirstOfLarge
                                              : static_cast<std::size_t>(*size) + 1);
  const std::span all(first.Data(), first.Size());
  std::size_t filled = 0;
  while (filled < all.size()) {
    const std::size_t count = source.Read(all.subspan(filled));
    if (count == 0) break;
    filled += count;
  }
  isAll = filled < all.size();
  seen = all.first(filled);
}

/// Little more than the header: what is needed of the rest is read by ranges.
void RowDecoder::State::ReadHeader() {
  for (std::size_t length = kFirstOfPart; !isAll; length *= 4) {
    first = SampleBuffer(length);
    const std::span all(first.Data(), first.Size());
    seen = all.first(source.ReadAt(0, all));
    isAll = seen.size() < length;
    if (Index::OfArrived(seen)) return;
  }
}

void RowDecoder::State::Describe(Index& index) {
  Decoder decoder(seen);
  description = DescribeImage(decoder, index.Facts());
  const KelImageGeometry& grid = *index.Facts().geometry;
  const CanvasBox box =
      BoxOf(grid, params.region.value_or(Region{0, 0, description.width, description.height}));
  const unsigned halvings = HalvingsOf(params, box);
  SetSize(description, box, halvings);
  const auto roles = ComponentRoles(decoder.Object());
  for (const ComponentArea& area : AreasWithin(grid, box, halvings)) {
    if (area.depth > 32) throw Error(Failure::kInput, "samples of more than 32 bits");
    CheckPixels(static_cast<std::uint64_t>(area.x1 - area.x0),
                static_cast<std::uint64_t>(area.y1 - area.y0));
    Plane& plane = description.planes.emplace_back(
        Plane::WithoutSamples(static_cast<std::uint32_t>(area.x1 - area.x0),
                              static_cast<std::uint32_t>(area.y1 - area.y0), area.depth));
    plane.xStep = area.xStep;
    plane.yStep = area.yStep;
    plane.role = roles[description.planes.size() - 1].role;
    plane.colour = roles[description.planes.size() - 1].colour;
  }
}

bool RowDecoder::State::CanStream(Index& index) const {
  const KelImageGeometry& grid = *index.Facts().geometry;
  const bool several = grid.NumXTiles > 1 || grid.NumYTiles > 1;
  if (IsPartial(params) || !several || !CanBeCut(index.Facts())) return false;
  return HasPlainRows(description) && (!isAll || index.TileParts().areRegular);
}

RowDecoder::RowDecoder(Source& source, const DecodeParams& params)
    : state_(std::make_unique<State>(source, params)) {
  RequireSession();
  if (params.reduce > kMostHalvings) {
    throw Error(Failure::kParameter, "at most 31 halvings are possible");
  }
  State& state = *state_;
  state.ReadFirst();
  Index index(state.seen);
  state.Describe(index);
  state.streams = state.CanStream(index);
}

RowDecoder::~RowDecoder() = default;

const Image& RowDecoder::Description() const {
  return state_->description;
}

DecodeReport RowDecoder::Decode(RowSink& sink) {
  State& state = *state_;
  if (!state.streams) {
    if (IsPartial(state.params)) {
      MemorySource seen(state.seen);
      Source& all = state.isAll ? static_cast<Source&>(seen) : state.source;
      if (const auto rows = OpenPartRows(all, state.params, state.description)) {
        CopyRows(*rows, sink);
        return rows->Report();
      }
    }
    DecodeReport report;
    ImageRowSource rows(DecodeImage(&report));
    CopyRows(rows, sink);
    return report;
  }
  if (state.isAll) {
    Index index(state.seen);
    RequirePackets(index);
  }
  const auto feed = state.isAll ? std::make_unique<TilePartFeed>(state.seen)
                                : std::make_unique<TilePartFeed>(state.source, state.seen);
  BandDecoder bands(*feed, state.params, sink);
  sink.Begin(state.description);
  const DecodeReport report = bands.Run();
  sink.Finish();
  return report;
}

Image RowDecoder::DecodeImage(DecodeReport* report) {
  State& state = *state_;
  if (state.isAll) {
    MemorySource source(state.seen);
    return host::Decode(source, state.params, report);
  }
  ChainedSource source(state.seen, state.source);
  return host::Decode(source, state.params, report);
}

}  // namespace kel::host
