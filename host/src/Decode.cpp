// Decoding a whole file: in runs of tiles on several threads, or in one piece where the data
// cannot be cut.
#include "kel/host/decode.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>

#include "Describe.hpp"
#include "FrameTarget.hpp"
#include "TileRuns.hpp"
#include "kel/host/session.hpp"

namespace kel::host {
namespace {

constexpr unsigned kMostHalvings = 31;

/// What the parts of a decode share.
struct Job {
  Job(ByteView data, Index& indexOfData) : bytes(data), index(indexOfData) {}

  ByteView bytes;
  Index& index;
  unsigned halvings = 0;  ///< by the decoder: 0 or 1
  std::vector<ComponentArea> areas;
  std::vector<Plane> planes;

  std::mutex mutex;  ///< of what follows
  DecodeReport report;
  std::size_t numTilesWithSamples = 0;
  KelException failure;  ///< the first one
  KelErrorPlace place{nullptr, -1};
};

/// Decodes a file or code stream that covers a rectangle of the planes: a run, or everything.
/// False, with nothing decoded, when the library sees something else in the run.
bool DecodePart(Job& job, ByteView bytes, const TileRun* run) {
  Decoder decoder(bytes, job.halvings == 0 ? KelAspectFull : KelAspectHalf);
  KelImage& object = decoder.Object();
  if (run != nullptr && !IsRunOf(*job.index.Facts().geometry, *run, *object.GetGeometryParams())) {
    return false;
  }
  const std::vector<ComponentArea> part = ComponentAreas(*object.GetGeometryParams(), job.halvings);
  FrameTarget target(job.areas, part, job.index.Components(), decoder.Found().ComponentTransform);
  const KelLong code = decoder.DecodeFrame(bytes, target.Raw(), target.Frame(job.planes));
  target.FinishPlanes(object, job.halvings, job.planes);

  std::size_t numReady = 0, numComplete = 0;
  const auto numTiles = static_cast<std::size_t>(object.GetNumTiles());
  for (std::size_t tile = 0; tile < numTiles; ++tile) {
    numReady += TileComponent(object, tile, 0).TileCompDataReady();
    numComplete += object.TileIsComplete(static_cast<KelLong>(tile));
  }
  const std::lock_guard lock(job.mutex);
  job.report.numCompleteTiles += numComplete;
  job.numTilesWithSamples += numReady;
  if (code != KelOK && job.failure.errCode == KelOK) {
    job.failure = object.GetErrorDetails();
    job.place = object.GetErrorPlace();
    job.failure.errCode = code;
    job.report.problem = CodeSentence(code);
  }
  return true;
}

/// False when some run did not come out as planned.
bool DecodeRuns(Job& job, const std::vector<TileRun>& runs, unsigned threads,
                const Progress& progress) {
  std::size_t done = 0;
  std::atomic<bool> asPlanned{true};
  ForEachIndex(runs.size(), threads, [&](unsigned, std::size_t index) {
    const TileRun& run = runs[index];
    if (!asPlanned) return;
    if (!DecodePart(job, BuildRun(job.bytes, job.index.Facts(), run), &run)) asPlanned = false;
    const std::lock_guard lock(job.mutex);
    if (progress) progress(++done, runs.size());
  });
  return asPlanned;
}

/// Back to the state before anything was decoded.
void StartAnew(Job& job) {
  const std::size_t numTiles = job.report.numTiles;
  job.report = {};
  job.report.numTiles = numTiles;
  job.numTilesWithSamples = 0;
  job.failure.ClearErrState();
}

/// Decodes everything into the job's planes.
void DecodeParts(Job& job, const DecodeParams& params) {
  const std::vector<TileRun> runs = PlanRuns(job.index);
  const unsigned threads = ThreadCount(params.threads);
  if (!runs.empty()) {
    try {
      if (DecodeRuns(job, runs, threads, params.progress)) return;
    } catch (const Error& error) {
      // Whether an image fits into memory must not depend on the number of threads.
      if (error.Kind() != Failure::kMemory || threads == 1) throw;
      StartAnew(job);
      if (DecodeRuns(job, runs, 1, params.progress)) return;
    }
    StartAnew(job);
    job.planes = MakePlanes(job.areas);
  }
  DecodePart(job, job.bytes, nullptr);
}

/// Whether the decoder can leave out the finest resolution of every tile-component. The coding
/// styles of all tiles must be known for that, and be those of the main header.
bool CanHalve(const KelImage& image, Index& index) {
  const KelIndexTileParts& tileParts = index.TileParts();
  return tileParts.areRegular && image.GetMaxRes(0) >= 1 &&
         std::none_of(tileParts.parts, tileParts.parts + tileParts.count,
                      [](const KelIndexTilePart& part) { return part.hasCodingStyle; });
}

/// Averages 2 x 2 samples, at even positions of the component's grid.
Plane Halved(const Plane& plane, ComponentArea& area) {
  const ComponentArea from = area;
  for (std::int64_t* edge : {&area.x0, &area.y0, &area.x1, &area.y1}) *edge = HalvedEdge(*edge, 1);
  Plane half(static_cast<std::uint32_t>(area.x1 - area.x0),
             static_cast<std::uint32_t>(area.y1 - area.y0), plane.Depth());
  half.xStep = plane.xStep;
  half.yStep = plane.yStep;
  for (std::int64_t y = area.y0; y < area.y1; ++y) {
    for (std::int64_t x = area.x0; x < area.x1; ++x) {
      std::uint64_t sum = 0, count = 0;
      for (std::int64_t v = 2 * y; v < std::min(2 * y + 2, from.y1); ++v) {
        for (std::int64_t u = 2 * x; u < std::min(2 * x + 2, from.x1); ++u, ++count) {
          sum += plane.At(static_cast<std::uint32_t>(u - from.x0),
                          static_cast<std::uint32_t>(v - from.y0));
        }
      }
      half.Set(static_cast<std::uint32_t>(x - area.x0), static_cast<std::uint32_t>(y - area.y0),
               static_cast<std::uint32_t>((sum + count / 2) / count));
    }
  }
  return half;
}

/// Ends a decode that brought nothing, or less than was asked for.
void SettleReport(Job& job, const DecodeParams& params) {
  if (job.numTilesWithSamples == 0) {
    if (job.failure.errCode != KelOK) ThrowFailure(job.failure, Failure::kInput, job.place);
    throw Error(Failure::kInput, "the data end before the first samples");
  }
  DecodeReport& report = job.report;
  report.complete = report.numCompleteTiles == report.numTiles;
  if (report.complete || params.acceptIncomplete) return;
  std::string sentence = "incomplete: " + std::to_string(report.numCompleteTiles) + " of " +
                         std::to_string(report.numTiles) + " tiles are whole";
  if (!report.problem.empty()) sentence += "; " + report.problem;
  throw Error(Failure::kIncomplete, sentence);
}

}  // namespace

Image Decode(Source& source, const DecodeParams& params, DecodeReport* report) {
  RequireSession();
  if (params.reduce > kMostHalvings) {
    throw Error(Failure::kParameter, "at most 31 halvings are possible");
  }
  Bytes storage;
  const ByteView bytes = ReadAll(source, storage);
  Index index(bytes);
  Job job(bytes, index);

  auto whole = std::make_unique<Decoder>(job.bytes);
  const KelImageGeometry& geometry = *whole->Object().GetGeometryParams();
  Image image = DescribeImage(*whole, index.Facts());
  if (image.palette && params.reduce != 0) {
    throw Error(Failure::kParameter, "an image with a palette cannot be reduced");
  }
  const auto roles = ComponentRoles(whole->Object());
  const ComponentArea gridArea{geometry.XOsiz, geometry.YOsiz, geometry.Xsiz, geometry.Ysiz};
  job.report.numTiles = static_cast<std::size_t>(whole->Object().GetNumTiles());
  job.halvings = params.reduce != 0 && CanHalve(whole->Object(), index) ? 1 : 0;
  job.areas = ComponentAreas(geometry, job.halvings);
  whole.reset();  // what it holds is not needed beside the parts

  const MemoryReservation room(PlaneBytes(job.areas), "the decoded image");
  job.planes = MakePlanes(job.areas);
  DecodeParts(job, params);
  SettleReport(job, params);

  for (std::size_t c = 0; c < job.planes.size(); ++c) {
    for (unsigned i = job.halvings; i < params.reduce; ++i) {
      job.planes[c] = Halved(job.planes[c], job.areas[c]);
    }
    job.planes[c].role = roles[c].role;
    job.planes[c].colour = roles[c].colour;
  }
  const auto reduced = [&](std::int64_t from, std::int64_t to) {
    return static_cast<std::uint32_t>(HalvedEdge(to, params.reduce) -
                                      HalvedEdge(from, params.reduce));
  };
  image.width = reduced(gridArea.x0, gridArea.x1);
  image.height = reduced(gridArea.y0, gridArea.y1);
  image.planes = std::move(job.planes);
  if (report != nullptr) *report = job.report;
  return image;
}

}  // namespace kel::host
