// Decoding a whole file: in runs of tiles on several threads, or in one piece where the data
// cannot be cut.
#include "kel/host/decode.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>

#include "DecodePart.hpp"
#include "Describe.hpp"
#include "kel/host/session.hpp"

namespace kel::host {
namespace {

constexpr unsigned kMostHalvings = 31;

/// What the parts of a decode share.
struct Job {
  Job(ByteView data, Index& indexOfData, bool isExact)
      : bytes(data), index(indexOfData), exact(isExact) {}

  ByteView bytes;
  Index& index;
  bool exact;
  unsigned halvings = 0;  ///< by the decoder: 0 or 1
  std::vector<ComponentArea> areas;
  std::vector<Plane> planes;

  std::mutex mutex;  ///< of what follows
  DecodeTally tally;
};

/// Decodes a file or code stream that covers a rectangle of the planes: a run, or everything.
/// False, with nothing decoded, when the library sees something else in the run.
bool DecodePart(Job& job, ByteView bytes, const TileRun* run) {
  const auto part =
      DecodeInto({job.areas, job.halvings, job.index.Components(), job.exact}, bytes,
                 run == nullptr ? nullptr : job.index.Facts().geometry, run, job.planes);
  if (!part) return false;
  const std::lock_guard lock(job.mutex);
  job.tally.Add(*part);
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
      job.tally.StartAnew(job.tally.report.numTiles);
      if (DecodeRuns(job, runs, 1, params.progress)) return;
    }
    job.tally.StartAnew(job.tally.report.numTiles);
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

}  // namespace

Image Decode(Source& source, const DecodeParams& params, DecodeReport* report) {
  RequireSession();
  if (params.reduce > kMostHalvings) {
    throw Error(Failure::kParameter, "at most 31 halvings are possible");
  }
  Bytes storage;
  const ByteView bytes = ReadAll(source, storage);
  Index index(bytes);
  Job job(bytes, index, params.exact);

  auto whole = std::make_unique<Decoder>(job.bytes);
  const KelImageGeometry& geometry = *whole->Object().GetGeometryParams();
  Image image = DescribeImage(*whole, index.Facts());
  if (image.palette && params.reduce != 0) {
    throw Error(Failure::kParameter, "an image with a palette cannot be reduced");
  }
  const auto roles = ComponentRoles(whole->Object());
  const ComponentArea gridArea{geometry.XOsiz, geometry.YOsiz, geometry.Xsiz, geometry.Ysiz};
  job.tally.report.numTiles = static_cast<std::size_t>(whole->Object().GetNumTiles());
  job.halvings = params.reduce != 0 && CanHalve(whole->Object(), index) ? 1 : 0;
  job.areas = ComponentAreas(geometry, job.halvings);
  whole.reset();  // what it holds is not needed beside the parts

  RequirePackets(index);
  const MemoryReservation room(PlaneBytes(job.areas), "the decoded image");
  job.planes = MakePlanes(job.areas);
  DecodeParts(job, params);
  job.tally.Settle(params);

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
  if (report != nullptr) *report = job.tally.report;
  return image;
}

}  // namespace kel::host
