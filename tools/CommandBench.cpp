// kel bench: how fast this machine encodes and decodes pictures, and how small and good they get.
//
// Pictures stand in memory while they are measured, so that neither disks nor the readers of image
// files have a part in it. A run that is not counted comes first; of those that follow, the fastest
// counts, since other work on the machine can only make it slower.
#include <kel/host/convert.hpp>
#include <kel/host/decode.hpp>
#include <kel/host/encode.hpp>
#include <kel/host/pnm.hpp>
#include <kel/host/session.hpp>
#include <kel/host/similarity.hpp>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <nlohmann/json.hpp>

#include "Commands.hpp"
#include "Console.hpp"
#include "Files.hpp"

namespace kel::tool {
namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

struct BenchOptions {
  std::vector<std::string> files;
  CodingOptions coding;
  host::Limits limits;
  std::uint64_t maxMemory = HalfOfMemory();
  unsigned runs = 5;
  unsigned jobs = 0;
  bool json = false;
};

struct Measured {
  std::string name;
  std::uint32_t width = 0, height = 0;
  std::uint64_t sampleBytes = 0, bytes = 0;
  double encodeSeconds = 0, decodeSeconds = 0;  ///< of the fastest runs
  double psnr = 0, ssim = 0;
  std::uint64_t encodePeak = 0, decodePeak = 0;  ///< bytes that the library and the kit held
};

/// Seconds of the fastest of some runs, behind one that is not counted.
template <class Work>
double Fastest(unsigned runs, const Work& work) {
  double best = std::numeric_limits<double>::infinity();
  for (unsigned run = 0; run <= runs; ++run) {
    const auto start = Clock::now();
    work();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (run > 0) best = std::min(best, seconds);
  }
  return best;
}

Measured Measure(const std::string& file, const BenchOptions& options) {
  host::Image image = LoadAnyImage(file, options.jobs);
  host::EncodeParams params = ParamsOf(options.coding);
  params.threads = options.jobs;
  host::Image mask;
  if (!options.coding.mask.empty()) {
    mask = ReadMask(options.coding.mask);
    params.regionMask = &mask.planes[0];
  }
  Measured measured{.name = NameOf(file), .width = image.width, .height = image.height};
  for (const host::Plane& plane : image.planes) {
    measured.sampleBytes += std::uint64_t{plane.Width()} * plane.Height() * plane.BytesPerSample();
  }
  host::MemorySink coded;
  host::Session::ResetPeak();
  measured.encodeSeconds = Fastest(options.runs, [&] {
    coded.bytes.clear();
    host::Encode(image, params, coded);
  });
  measured.encodePeak = host::Session::PeakBytes();
  measured.bytes = coded.bytes.size();
  host::DecodeParams decoding;
  decoding.threads = options.jobs;
  host::Image back;
  host::Session::ResetPeak();
  measured.decodeSeconds = Fastest(options.runs, [&] {
    back = host::Image();
    host::MemorySource source(coded.bytes);
    back = host::Decode(source, decoding);
  });
  measured.decodePeak = host::Session::PeakBytes();
  host::MakeOrdinary(back);
  measured.psnr = host::Compare(image, back).psnr;
  measured.ssim = std::isinf(measured.psnr) ? 1 : host::Ssim(image, back);
  return measured;
}

double MegabytesPerSecond(const Measured& measured, double seconds) {
  return static_cast<double>(measured.sampleBytes) / 1e6 / std::max(seconds, 1e-9);
}

double BitsPerPixel(const Measured& measured) {
  return 8.0 * static_cast<double>(measured.bytes) / measured.width / measured.height;
}

void PrintRow(const Measured& measured) {
  const double peak = static_cast<double>(std::max(measured.encodePeak, measured.decodePeak));
  char psnr[16] = "exact";
  if (std::isfinite(measured.psnr)) std::snprintf(psnr, sizeof psnr, "%.2f", measured.psnr);
  std::printf("%6u x %-6u %11.1f %11.1f %11llu %7.3f %8s %8.5f %9.1f  %s\n", measured.width,
              measured.height, MegabytesPerSecond(measured, measured.encodeSeconds),
              MegabytesPerSecond(measured, measured.decodeSeconds),
              static_cast<unsigned long long>(measured.bytes), BitsPerPixel(measured), psnr,
              measured.ssim, peak / 1e6, measured.name.c_str());
}

Json RowJson(const Measured& measured) {
  const bool isExact = std::isinf(measured.psnr);
  return {{"file", measured.name},
          {"width", measured.width},
          {"height", measured.height},
          {"sample_bytes", measured.sampleBytes},
          {"bytes", measured.bytes},
          {"bits_per_pixel", BitsPerPixel(measured)},
          {"encode_seconds", measured.encodeSeconds},
          {"decode_seconds", measured.decodeSeconds},
          {"encode_mb_per_s", MegabytesPerSecond(measured, measured.encodeSeconds)},
          {"decode_mb_per_s", MegabytesPerSecond(measured, measured.decodeSeconds)},
          {"psnr", isExact ? Json(nullptr) : Json(measured.psnr)},
          {"ssim", measured.ssim},
          {"identical", isExact},
          {"encode_peak_bytes", measured.encodePeak},
          {"decode_peak_bytes", measured.decodePeak}};
}

int RunBench(const BenchOptions& options) {
  const host::Session session(options.maxMemory);
  Json rows = Json::array();
  int code = kDone;
  if (!options.json) {
    std::printf("%15s %11s %11s %11s %7s %8s %8s %9s\n", "size", "enc MB/s", "dec MB/s", "bytes",
                "bits/px", "PSNR dB", "SSIM", "mem MB");
  }
  for (const std::string& file : options.files) {
    const host::LimitScope limited(options.limits);
    try {
      const Measured measured = Measure(file, options);
      options.json ? rows.push_back(RowJson(measured)) : PrintRow(measured);
      std::fflush(stdout);
    } catch (const host::Error& error) {
      PrintMessage((error.File().empty() ? NameOf(file) + ": " : "") + Describe(error));
      code = WorseOf(code, ExitCodeOf(error));
    }
  }
  if (options.json) {
    std::printf("%s\n", rows.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
  }
  return code;
}

}  // namespace

void AddBenchCommand(CLI::App& app, Run& run) {
  auto options = std::make_shared<BenchOptions>();
  CLI::App& command =
      *app.add_subcommand("bench", "measure how fast this machine encodes and decodes pictures");
  command.add_option("files", options->files, "images, encoded or not; - is standard input")
      ->required()
      ->type_name("FILE");
  AddCodingOptions(command, options->coding);
  AddLimitOptions(command, options->limits);
  AddMemoryOption(command, options->maxMemory, "half of the machine's memory");
  command.add_option("--runs", options->runs, "runs that are counted, behind one that is not")
      ->capture_default_str()
      ->type_name("N")
      ->check(CLI::Range(1, 1000));
  command.add_option("-j,--jobs", options->jobs, "threads [one per processor]")
      ->type_name("N")
      ->check(CLI::Range(1, 1024));
  command.add_flag("--json", options->json, "for programs: an array of objects");
  command.footer(
      "Speeds are megabytes (1000000 bytes) of samples per second of the fastest run, from and to\n"
      "memory. Memory is the most that the library and decoded samples took, without the picture\n"
      "that is encoded.\n"
      "Example: kel bench -q 80 photos/*.png\n");
  command.callback([options, &run] { run = [options] { return RunBench(*options); }; });
}

}  // namespace kel::tool
