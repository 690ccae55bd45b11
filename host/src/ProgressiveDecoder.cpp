// Decoding while data arrive: one image object over the growing bytes.
//
// To show what has come of a tile takes as long as to show all of it. So not every piece is decoded
// when it comes: about one look is taken for every tile, and within the first one whenever its data
// have doubled.
#include <algorithm>
#include <iterator>
#include <new>

#include "Describe.hpp"
#include "RegionDecode.hpp"
#include "kel/host/session.hpp"

namespace kel::host {
namespace {

/// Fewer new bytes are not worth a look.
constexpr std::size_t kLeastStep = 4096;
/// The header is looked for again when the bytes have grown by this part.
constexpr std::size_t kHeaderGrowth = 8;
/// End markers at the ends of pieces that were none: so many are looked at, and one more for so
/// many bytes, which is twice as often as they turn up by chance.
constexpr std::size_t kFalseEnds = 16, kBytesPerFalseEnd = 32768;

using Update = ProgressiveDecoder::Update;

/// The smallest rectangle that holds two, of which either may be empty.
Region Union(const Region& a, const Region& b) {
  if (a.width == 0 || a.height == 0) return b;
  if (b.width == 0 || b.height == 0) return a;
  const std::uint32_t x = std::min(a.x, b.x), y = std::min(a.y, b.y);
  return {x, y, std::max(a.x + a.width, b.x + b.width) - x,
          std::max(a.y + a.height, b.y + b.height) - y};
}

/// What there is from the header on.
class Opened {
 public:
  Opened(ByteView bytes, const Index& index, const ProgressiveParams& params);
  void DecodeMore(ByteView bytes, Update& update);
  const Image& Description() const { return image_; }
  /// With samples, which are made when they are first asked for.
  const Image& Picture();
  std::uint8_t MarkerByte() const { return markerByte_; }
  std::size_t NumComplete() const { return numTiles_ - open_.size(); }

 private:
  CanvasBox PlaceOf(std::uint32_t tile) const;
  void Show(std::uint32_t tile, Update& update);

  Decoder decoder_;
  const std::uint8_t markerByte_;
  const unsigned reduce_;
  Image image_;
  const CanvasBox box_;
  const std::vector<ComponentArea> areas_;
  FrameTarget target_;
  MemoryReservation room_;
  std::vector<Plane> below_;  ///< as the library leaves them, where that is not what is shown
  std::vector<std::uint32_t> open_;  ///< the tiles wanted that are not complete
  std::size_t numTiles_ = 0;
  bool hasSamples_ = false;  ///< planes in image_, and in below_ where that is needed
  bool hasPackets_ = false;  ///< before, decoding would only fill planes with nothing
};

Opened::Opened(ByteView bytes, const Index& index, const ProgressiveParams& params)
    : decoder_(bytes),
      markerByte_(static_cast<std::uint8_t>(index.Facts().markerByte)),
      reduce_(params.reduce),
      image_(DescribeImage(decoder_, index.Facts())),
      box_(BoxOf(*decoder_.Object().GetGeometryParams(),
                 params.region.value_or(Region{0, 0, image_.width, image_.height}))),
      areas_(AreasWithin(*decoder_.Object().GetGeometryParams(), box_, reduce_)),
      target_(areas_, areas_, index.Components(), decoder_.Found().ComponentTransform) {
  const unsigned levels = index.Facts().numLevels;
  if (reduce_ > (image_.palette ? 0 : levels)) {
    throw Error(Failure::kParameter, image_.palette
                                         ? "an image with a palette cannot be reduced"
                                         : "the picture can be halved " + std::to_string(levels) +
                                               " times, not " + std::to_string(reduce_));
  }
  decoder_.SetExact(false);
  NarrowDecoder(decoder_.Object(), reduce_, box_);
  image_.planes = DescribePlanes(areas_);
  SetSize(image_, box_, reduce_);
  const auto roles = ComponentRoles(decoder_.Object());
  for (std::size_t c = 0; c < areas_.size(); ++c) {
    image_.planes[c].role = roles[c].role;
    image_.planes[c].colour = roles[c].colour;
  }
  open_ = TilesTouching(*decoder_.Object().GetGeometryParams(), box_);
  numTiles_ = open_.size();
}

const Image& Opened::Picture() {
  if (hasSamples_) return image_;
  const bool needsFinish = target_.NeedsFinish();
  MemoryReservation room(PlaneBytes(areas_) * (needsFinish ? 2 : 1), "the decoded image");
  std::vector<Plane> planes = MakePlanes(areas_);
  for (std::size_t c = 0; c < planes.size(); ++c) {
    planes[c].role = image_.planes[c].role;
    planes[c].colour = image_.planes[c].colour;
  }
  if (needsFinish) below_ = MakePlanes(areas_);
  image_.planes = std::move(planes);
  room_ = std::move(room);
  hasSamples_ = true;
  return image_;
}

/// The part of a tile that is shown.
CanvasBox Opened::PlaceOf(std::uint32_t tile) const {
  const CanvasBox all = TileBox(*decoder_.Object().GetGeometryParams(), tile);
  return {std::max(all.x0, box_.x0), std::max(all.y0, box_.y0), std::min(all.x1, box_.x1),
          std::min(all.y1, box_.y1)};
}

/// Takes over what the library has delivered of a tile.
void Opened::Show(std::uint32_t tile, Update& update) {
  const CanvasBox place = PlaceOf(tile);
  if (!below_.empty()) {
    target_.FinishTile(decoder_.Object(), tile, reduce_,
                       AreasWithin(*decoder_.Object().GetGeometryParams(), place, reduce_), below_,
                       image_.planes);
  }
  const auto edge = [&](std::int64_t at, std::int64_t origin) {
    return static_cast<std::uint32_t>(HalvedEdge(at, reduce_) - HalvedEdge(origin, reduce_));
  };
  const std::uint32_t x = edge(place.x0, box_.x0), y = edge(place.y0, box_.y0);
  update.improved =
      Union(update.improved, {x, y, edge(place.x1, box_.x0) - x, edge(place.y1, box_.y0) - y});
  update.improvedTiles.push_back(tile);
}

void Opened::DecodeMore(ByteView bytes, Update& update) {
  if (!hasPackets_) {
    hasPackets_ = Index(bytes).HasPackets();
    if (!hasPackets_) return;
  }
  Picture();
  KelImage& object = decoder_.Object();
  // A code other than 0 says that some tile is missing or damaged; more data may bring it.
  decoder_.DecodeFrame(bytes, target_.Raw(),
                       target_.Frame(below_.empty() ? image_.planes : below_));
  // What is ready stays so until it is shown: after a failure the next look shows it.
  for (const std::uint32_t tile : open_) {
    if (object.TileIsUntouched(static_cast<KelLong>(tile))) continue;
    bool improved = false;
    for (std::size_t c = 0; c < areas_.size(); ++c) {
      improved |= TileComponent(object, tile, c).TileCompDataReady();
    }
    if (!improved) continue;
    Show(tile, update);
    for (std::size_t c = 0; c < areas_.size(); ++c) {
      TileComponent(object, tile, c).ResetTileCompDataReady();
    }
  }
  const auto isComplete = [&](std::uint32_t tile) {
    return object.TileIsComplete(static_cast<KelLong>(tile));
  };
  std::ranges::copy_if(open_, std::back_inserter(update.completedTiles), isComplete);
  std::erase_if(open_, isComplete);
  update.complete = open_.empty();
}

}  // namespace

struct ProgressiveDecoder::State {
  explicit State(const ProgressiveParams& itsParams) : params(itsParams) {}

  bool IsWorthALook();
  /// Decodes everything that has come, and adds to the update.
  void Decode();

  const ProgressiveParams params;
  Bytes bytes;
  std::size_t numSeen = 0;         ///< bytes, when they were looked at last
  bool hasFailed = false;          ///< that look did
  std::size_t numFalseEnds = 0;    ///< looks for the sake of an end marker that was none
  std::unique_ptr<Opened> opened;  ///< null before the header has arrived
  Update update;                   ///< what has not been told
};

/// The end marker ends the data; whether it is one, the decoder finds out.
bool ProgressiveDecoder::State::IsWorthALook() {
  const std::size_t more = bytes.size() - numSeen;
  if (!opened) return more >= numSeen / kHeaderGrowth;
  const std::size_t n = bytes.size();
  const std::size_t perTile = n / std::max<std::size_t>(opened->NumComplete(), 1);
  if (numSeen == 0 || more >= std::max(kLeastStep, std::min(perTile, numSeen))) return true;
  const bool endsHere =
      n >= 2 && bytes[n - 1] == format::kEOC && bytes[n - 2] == opened->MarkerByte();
  return endsHere && numFalseEnds++ < kFalseEnds + n / kBytesPerFalseEnd;
}

void ProgressiveDecoder::State::Decode() {
  if (numSeen == bytes.size() && !hasFailed) return;
  numSeen = bytes.size();
  hasFailed = true;
  if (!opened) {
    const std::unique_ptr<Index> index = Index::OfArrived(bytes);
    hasFailed = index != nullptr;
    if (!index) return;
    opened = std::make_unique<Opened>(bytes, *index, params);
    update.headerIsNew = true;
  }
  opened->DecodeMore(bytes, update);
  hasFailed = false;
}

ProgressiveDecoder::ProgressiveDecoder(const ProgressiveParams& params)
    : state_(std::make_unique<State>(params)) {
  RequireSession();
  if (params.reduce > kMostHalvings) {
    throw Error(Failure::kParameter, "at most 31 halvings are possible");
  }
}

ProgressiveDecoder::~ProgressiveDecoder() = default;

Update ProgressiveDecoder::Feed(ByteView more) {
  State& state = *state_;
  if (more.size() > INT32_MAX - state.bytes.size()) {
    throw Error(Failure::kInput, "is larger than 2 GiB, the most that is decoded while it arrives");
  }
  state.bytes.insert(state.bytes.end(), more.begin(), more.end());
  try {
    if (more.empty() || state.IsWorthALook()) state.Decode();
  } catch (const std::bad_alloc&) {  // which would say that the bytes were not taken
    throw Error(Failure::kMemory, std::string(CodeSentence(KelErrNoMemory)));
  }
  const bool complete = state.update.complete;
  Update told = std::exchange(state.update, {});
  state.update.complete = complete;
  return told;
}

bool ProgressiveDecoder::HasHeader() const {
  return state_->opened != nullptr;
}

const Image& ProgressiveDecoder::Description() const {
  if (!HasHeader()) throw Error(Failure::kIncomplete, "the header has not arrived yet");
  return state_->opened->Description();
}

const Image& ProgressiveDecoder::Look() const {
  Description();
  return state_->opened->Picture();
}

Image ProgressiveDecoder::GetImage() const {
  state_->Decode();
  return Look();
}

}  // namespace kel::host
