// Decoding a whole file: in runs of tiles on several threads, or in one piece where the data
// cannot be cut.
#include "kel/host/decode.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>

#include "Describe.hpp"
#include "RegionDecode.hpp"
#include "WholeData.hpp"
#include "kel/host/session.hpp"

namespace kel::host {
namespace {

/// What the parts of a decode share.
struct Job {
  Job(ByteView data, Index& indexOfData, bool isExact)
      : bytes(data), index(indexOfData), exact(isExact) {}

  ByteView bytes;
  Index& index;
  bool exact;
  std::vector<ComponentArea> areas;
  std::vector<Plane> planes;

  std::mutex mutex;  ///< of what follows
  DecodeTally tally;
};

/// Decodes a file or code stream that covers a rectangle of the planes: a run, or everything.
/// False, with nothing decoded, when the library sees something else in the run.
bool DecodePart(Job& job, ByteView bytes, const TileRun* run) {
  const auto part =
      DecodeInto({job.areas, job.index.Components(), job.exact}, bytes,
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

}  // namespace

Image Decode(Source& source, const DecodeParams& params, DecodeReport* report) {
  RequireSession();
  if (params.reduce > kMostHalvings) {
    throw Error(Failure::kParameter, "at most 31 halvings are possible");
  }
  if (IsPartial(params) || IsBeyondBlock(source)) return DecodePartly(source, params, report);
  const WholeData all(source);
  const ByteView bytes = all.View();
  Index index(bytes);
  Job job(bytes, index, params.exact);

  auto whole = std::make_unique<Decoder>(job.bytes);
  const KelImageGeometry& geometry = *whole->Object().GetGeometryParams();
  Image image = DescribeImage(*whole, index.Facts());
  const auto roles = ComponentRoles(whole->Object());
  job.tally.report.numTiles = static_cast<std::size_t>(whole->Object().GetNumTiles());
  job.areas = ComponentAreas(geometry, 0);
  whole.reset();  // what it holds is not needed beside the parts

  RequirePackets(index);
  const MemoryReservation room(PlaneBytes(job.areas), "the decoded image");
  job.planes = MakePlanes(job.areas);
  DecodeParts(job, params);
  job.tally.Settle(params);

  for (std::size_t c = 0; c < job.planes.size(); ++c) {
    job.planes[c].role = roles[c].role;
    job.planes[c].colour = roles[c].colour;
  }
  image.planes = std::move(job.planes);
  if (report != nullptr) *report = job.tally.report;
  return image;
}

}  // namespace kel::host
