#include "EncodeHost.h"

#include <cstring>
#include <numeric>
#include <random>
#include <stdexcept>

namespace test {
namespace {

/// Progress callbacks have no handle of their own: the host that is encoding on the thread.
thread_local EncodeHost* current = nullptr;

std::int64_t SampleOf(Content content, std::int64_t x, std::int64_t y, std::size_t c,
                      std::int64_t most, std::mt19937& random) {
  if (content == Content::kNoise) return static_cast<std::int64_t>(random()) % (most + 1);
  if (content == Content::kExtremes) return random() % 2 != 0 ? most : 0;
  const auto shift = static_cast<std::int64_t>(c) * 37;
  const std::int64_t shade = (3 * x + 2 * y + shift) % 400;
  const std::int64_t texture = (x / 5 + y / 3) % 7 * 8 + static_cast<std::int64_t>(random() % 5);
  return (std::abs(shade - 200) + texture) * most / 260;
}

}  // namespace

Picture MakePicture(KelLong width, KelLong height, const std::vector<KelLong>& depths,
                    const std::vector<KelLong>& sampling, Content content) {
  Picture image{width, height, depths, sampling, sampling, {}};
  std::mt19937 random(12345);
  for (std::size_t c = 0; c < depths.size(); ++c) {
    Plane plane{
        (width + sampling[c] - 1) / sampling[c], (height + sampling[c] - 1) / sampling[c], {}};
    const std::int64_t most = (std::int64_t{1} << depths[c]) - 1;
    for (std::int64_t i = 0; i < plane.width * plane.height; ++i) {
      plane.samples.push_back(SampleOf(content, i % plane.width, i / plane.width, c, most, random));
    }
    image.planes.push_back(plane);
  }
  return image;
}

Picture MakePicture(KelLong width, KelLong height, std::size_t components, KelLong depth,
                    Content content) {
  return MakePicture(width, height, std::vector<KelLong>(components, depth),
                     std::vector<KelLong>(components, 1), content);
}

EncodeHost::EncodeHost(const Picture& source, KelLong tileWidth, KelLong tileHeight,
                       const Coding& coding)
    : image(source), procs(), dataProcs(), actions() {
  KelImageGeometry geometry;
  geometry.InitImageGeometry(image.width, image.height, 0, 0, tileWidth, tileHeight, 0, 0,
                             image.xRsiz.data(), image.yRsiz.data(),
                             static_cast<KelLong>(image.Count()), image.depths.data());
  options.InitToDefaults(&geometry);
  geometry.Die();
  options.Irreversible = coding.irreversible;
  options.TargetQuality = coding.quality;
  options.ComponentTransform = coding.transform;
  options.NumLevels = coding.levels;
  options.NumLayers = coding.layers;
  options.ProgressionOrder = coding.order;
  if (coding.colors >= 0) options.NumColorChannels = coding.colors;
  options.RoiEnabled = coding.mask >= 0;
  options.RoiMaskComponent = coding.mask;
  options.ChooseIndices = coding.choose ? 1 : 0;
  options.TransparencyPresent = coding.transparency >= 0;
  options.TransparencyComponent = coding.transparency;

  dataProcs.clientData = this;
  dataProcs.GetTileComponent = [](void* client, KelLong c, KelLong tile, KelLong* error) {
    return static_cast<EncodeHost*>(client)->Fetch({static_cast<std::size_t>(c)}, tile, error);
  };
  dataProcs.GetNumInterleaved = [](void* client) {
    return static_cast<EncodeHost*>(client)->numInterleaved;
  };
  actions.AbortRequested = []() -> KelLong { return current->abortAfter-- == 0 ? 1 : 0; };
  actions.BeginProgress = [] { current->progress += "B "; };
  actions.EndProgress = [] { current->progress += "E"; };
  actions.ReportProgress = [](KelLong done, KelLong total) {
    current->progress += std::to_string(done) + "/" + std::to_string(total) + " ";
  };
  procs.UserActions = &actions;
  procs.ImageDataProcs = &dataProcs;
  current = this;
}

EncodeHost::~EncodeHost() {
  encoder.Die();
  options.Die();
}

KelBufID_I* EncodeHost::Fetch(const std::vector<std::size_t>& channels, KelLong tile,
                              KelLong* error) {
  const bool fails = ++fetches == failFetch;
  if (fails) *error = fetchError;
  if (fails && !fetchErrorWithBuffer) return nullptr;
  const std::size_t c0 = channels[0];
  const KelTileGeometry box(options.GeomParams, static_cast<KelLong>(c0), tile);
  BitAssembler samples;
  for (KelLong y = box.Y0; y < box.Y1; ++y) {
    for (KelLong x = box.X0; x < box.X1; ++x) {
      for (const std::size_t c : channels) {
        samples.Sample(static_cast<std::uint64_t>(image.planes[c].At(x, y)), image.depths[c]);
      }
    }
    samples.Align();
  }
  const Bytes& bytes = samples.Result();
  KelMemFuncs& memory = *KelGetMemObj();
  KelBufID_I* buffer = memory.AllocBuf(static_cast<KelULong>(bytes.size()));
  if (buffer == nullptr) {
    *error = KelErrNoMemory;
    return nullptr;
  }
  void* const to = memory.LockBuf(buffer);
  if (to == nullptr) {
    memory.FreeBuf(buffer);
    *error = KelErrNoMemory;
    return nullptr;
  }
  std::memcpy(to, bytes.data(), bytes.size());
  memory.UnlockBuf(buffer);
  buffer->bufType = bufType;
  return buffer;
}

KelLong EncodeHost::Init(HostStream& stream) {
  current = this;
  if (numInterleaved != 0) {
    dataProcs.GetTileInterleaved = [](void* client, KelLong tile, KelLong* error) {
      auto& self = *static_cast<EncodeHost*>(client);
      std::vector<std::size_t> channels(static_cast<std::size_t>(self.numInterleaved));
      std::iota(channels.begin(), channels.end(), std::size_t{0});
      return self.Fetch(channels, tile, error);
    };
  }
  return encoder.InitEncoder(&options, &stream.stream, &procs);
}

KelLong EncodeHost::EncodeTo(HostStream& stream) {
  KelLong code = Init(stream);
  const KelLong numTiles = code == KelOK ? encoder.GetNumTiles() : 0;
  for (KelLong t = 0; t < numTiles && code == KelOK; ++t) {
    code = encoder.CompressAndWriteTile(t, nullptr);
  }
  encoder.Die();
  if (stream.stream.wbuf != nullptr) stream.stream.flushWriteBuffer();
  return code;
}

Bytes EncodeHost::Encode(bool seekable) {
  HostStream stream({}, seekable);
  if (EncodeTo(stream) != KelOK) throw std::runtime_error("the picture was not encoded");
  return stream.bytes;
}

}  // namespace test
