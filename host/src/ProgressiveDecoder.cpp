// Decoding while data arrive: one image object over the growing bytes.
#include <algorithm>

#include "Describe.hpp"
#include "FrameTarget.hpp"
#include "kel/host/decode.hpp"
#include "kel/host/session.hpp"

namespace kel::host {
namespace {

/// The shortest signature that can be told from others.
constexpr std::size_t kSignatureBytes = 13;

}  // namespace

struct ProgressiveDecoder::State {
  Bytes bytes;
  Image description;                 ///< everything but the planes
  std::unique_ptr<Decoder> decoder;  ///< made when the header is there
  std::vector<ComponentArea> areas;
  std::unique_ptr<FrameTarget> target;
  MemoryReservation room;
  std::vector<Plane> planes;  ///< as the library leaves them
  std::vector<bool> complete;

  bool Open();
  void DecodeMore(Update& update);
};

/// Sets up the decoder when the main header has arrived; false when it has not.
bool ProgressiveDecoder::State::Open() {
  if (bytes.size() < kSignatureBytes) return false;
  KelCompressedData block{bytes.data(), static_cast<KelULong>(bytes.size())};
  if (!KelImage().FileIsKel(&block)) {
    throw Error(Failure::kInput, std::string(CodeSentence(KelErrUnknownFormat)));
  }
  const StreamScan scan = ScanStream(bytes);
  if (!scan.hasMainHeader) return false;
  decoder = std::make_unique<Decoder>(bytes);
  description = DescribeImage(*decoder, scan);
  KelImage& object = decoder->Object();
  areas = ComponentAreas(*object.GetGeometryParams(), 0);
  room = MemoryReservation(PlaneBytes(areas), "the decoded image");
  planes = MakePlanes(areas);
  const auto roles = ComponentRoles(object);
  for (std::size_t c = 0; c < planes.size(); ++c) {
    planes[c].role = roles[c].role;
    planes[c].colour = roles[c].colour;
  }
  target = std::make_unique<FrameTarget>(areas, areas, scan, decoder->Found().ComponentTransform);
  complete.resize(static_cast<std::size_t>(object.GetNumTiles()));
  return true;
}

void ProgressiveDecoder::State::DecodeMore(Update& update) {
  KelImage& object = decoder->Object();
  const auto everyComponent = [&](std::size_t tile, auto&& visit) {
    for (std::size_t c = 0; c < areas.size(); ++c) visit(TileComponent(object, tile, c));
  };
  for (std::size_t tile = 0; tile < complete.size(); ++tile) {
    everyComponent(tile, [](KelTileComponent& part) { part.ResetTileCompDataReady(); });
  }
  // A code other than 0 says that some tile is missing or damaged; more data may bring it.
  decoder->DecodeFrame(bytes, target->Raw(), target->Frame(planes));
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
  if (!state.decoder) {
    if (!state.Open()) return update;
    update.headerIsNew = true;
  }
  state.DecodeMore(update);
  return update;
}

bool ProgressiveDecoder::HasHeader() const {
  return state_->decoder != nullptr;
}

Image ProgressiveDecoder::GetImage() const {
  if (!HasHeader()) throw Error(Failure::kIncomplete, "the header has not arrived yet");
  Image image = state_->description;
  image.planes = state_->planes;
  state_->target->FinishPlanes(state_->decoder->Object(), 0, image.planes);
  return image;
}

}  // namespace kel::host
