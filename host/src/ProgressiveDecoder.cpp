// Decoding while data arrive: one image object over the growing bytes.
#include <algorithm>

#include "Describe.hpp"
#include "FrameTarget.hpp"
#include "kel/host/decode.hpp"
#include "kel/host/session.hpp"

namespace kel::host {
namespace {

/// What there is from the header on.
struct Opened {
  explicit Opened(ByteView bytes, const Index& index);
  void DecodeMore(ByteView bytes, ProgressiveDecoder::Update& update);

  Decoder decoder;
  Image description;  ///< everything but the planes
  std::vector<ComponentArea> areas;
  FrameTarget target;
  MemoryReservation room;
  std::vector<Plane> planes;  ///< as the library leaves them
  std::vector<bool> complete;
  bool hasPackets = false;  ///< before, decoding would only fill planes with nothing
};

Opened::Opened(ByteView bytes, const Index& index)
    : decoder(bytes),
      description(DescribeImage(decoder, index.Facts())),
      areas(ComponentAreas(*decoder.Object().GetGeometryParams(), 0)),
      target(areas, areas, index.Components(), decoder.Found().ComponentTransform),
      room(PlaneBytes(areas), "the decoded image"),
      planes(MakePlanes(areas)),
      complete(static_cast<std::size_t>(decoder.Object().GetNumTiles())) {
  decoder.SetExact(false);
  const auto roles = ComponentRoles(decoder.Object());
  for (std::size_t c = 0; c < planes.size(); ++c) {
    planes[c].role = roles[c].role;
    planes[c].colour = roles[c].colour;
  }
}

/// What stands in the data once the main header has arrived; nothing before.
std::unique_ptr<Opened> OpenArrived(ByteView bytes) {
  const std::unique_ptr<Index> index = Index::OfArrived(bytes);
  return index ? std::make_unique<Opened>(bytes, *index) : nullptr;
}

void Opened::DecodeMore(ByteView bytes, ProgressiveDecoder::Update& update) {
  if (!hasPackets) {
    hasPackets = Index(bytes).HasPackets();
    if (!hasPackets) return;
  }
  KelImage& object = decoder.Object();
  const auto everyComponent = [&](std::size_t tile, auto&& visit) {
    if (object.TileIsUntouched(static_cast<KelLong>(tile))) return;
    for (std::size_t c = 0; c < areas.size(); ++c) visit(TileComponent(object, tile, c));
  };
  for (std::size_t tile = 0; tile < complete.size(); ++tile) {
    everyComponent(tile, [](KelTileComponent& part) { part.ResetTileCompDataReady(); });
  }
  // A code other than 0 says that some tile is missing or damaged; more data may bring it.
  decoder.DecodeFrame(bytes, target.Raw(), target.Frame(planes));
  for (std::size_t tile = 0; tile < complete.size(); ++tile) {
    bool improved = false;
    everyComponent(tile, [&](KelTileComponent& part) { improved |= part.TileCompDataReady(); });
    if (improved) update.improvedTiles.push_back(tile);
    if (!complete[tile] && object.TileIsComplete(static_cast<KelLong>(tile))) {
      complete[tile] = true;
      update.completedTiles.push_back(tile);
    }
  }
  update.complete = std::ranges::find(complete, false) == complete.end();
}

}  // namespace

struct ProgressiveDecoder::State {
  Bytes bytes;
  std::unique_ptr<Opened> opened;  ///< null before the header has arrived
};

ProgressiveDecoder::ProgressiveDecoder() : state_(std::make_unique<State>()) {
  RequireSession();
}

ProgressiveDecoder::~ProgressiveDecoder() = default;

ProgressiveDecoder::Update ProgressiveDecoder::Feed(ByteView more) {
  State& state = *state_;
  if (more.size() > INT32_MAX - state.bytes.size()) {
    throw Error(Failure::kInput, "is larger than 2 GiB, the most that the format can address");
  }
  state.bytes.insert(state.bytes.end(), more.begin(), more.end());
  Update update;
  if (!state.opened) {
    state.opened = OpenArrived(state.bytes);
    if (!state.opened) return update;
    update.headerIsNew = true;
  }
  state.opened->DecodeMore(state.bytes, update);
  return update;
}

bool ProgressiveDecoder::HasHeader() const {
  return state_->opened != nullptr;
}

Image ProgressiveDecoder::GetImage() const {
  if (!HasHeader()) throw Error(Failure::kIncomplete, "the header has not arrived yet");
  const Opened& opened = *state_->opened;
  Image image = opened.description;
  image.planes = opened.planes;
  opened.target.FinishPlanes(opened.decoder.Object(), 0, image.planes);
  return image;
}

}  // namespace kel::host
