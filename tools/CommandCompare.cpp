// kel compare: how far two images are apart.
#include <kel/host/convert.hpp>
#include <kel/host/decode.hpp>
#include <kel/host/errors.hpp>
#include <kel/host/pnm.hpp>
#include <kel/host/session.hpp>
#include <kel/host/similarity.hpp>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "Commands.hpp"
#include "Files.hpp"
#include "ImageFile.hpp"

namespace kel::tool {
namespace {

std::string Decibels(double psnr) {
  if (std::isinf(psnr)) return "identical";
  char text[32];
  std::snprintf(text, sizeof text, "%.2f dB", psnr);
  return text;
}

/// Exit code for two images that can be compared and are not the same.
constexpr int kDifferent = 1;

void PrintDifference(const host::Image& image, const host::Difference& difference, double ssim) {
  std::printf("%-12s %12s %10s %18s\n", "component", "PSNR", "largest", "differing samples");
  for (std::size_t i = 0; i < difference.planes.size(); ++i) {
    const auto& plane = difference.planes[i];
    const host::Plane& shape = image.planes[image.palette ? 0 : i];
    const double samples = 1.0 * shape.Width() * shape.Height();
    std::printf("%-12zu %12s %10u %17.2f%%\n", i, Decibels(plane.psnr).c_str(), plane.largest,
                100.0 * static_cast<double>(plane.count) / samples);
  }
  std::printf("%-12s %12s\n", "all", Decibels(difference.psnr).c_str());
  std::printf("%-12s %12.5f\n", "SSIM", ssim);
  std::puts(difference.identical ? "The images are identical." : "The images differ.");
}

/// An image file, encoded or not, with its palette.
host::Image LoadStored(const std::string& name, unsigned threads) {
  const host::Bytes bytes = ReadInput(name);
  try {
    const host::MemoryReservation roomOfFile(bytes.size(), "the file");
    host::Image image;
    if (RecogniseImage(bytes)) {
      image = ReadImage(bytes);
    } else {
      host::DecodeParams params;
      params.threads = threads;
      host::MemorySource source(bytes);
      image = host::Decode(source, params);
    }
    host::UseFullRange(image);
    return image;
  } catch (const host::Error& error) {
    ThrowAbout(name, error);
  }
}

bool AreEqual(const host::Palette& a, const host::Palette& b) {
  return std::ranges::equal(a.columns, b.columns, [](const auto& p, const auto& q) {
    return p.depth == q.depth && p.role == q.role && p.entries == q.entries;
  });
}

std::size_t NumChannels(const host::Image& image) {
  return image.palette ? image.palette->columns.size() : image.planes.size();
}

/// Of two images as they are stored, which become ordinary. The same indices of the same palette
/// stay as they are: the colours may be many times as much.
host::Difference CompareStored(host::Image& a, host::Image& b) {
  const bool areAlike =
      a.colourSpace == b.colourSpace && a.palette && b.palette &&
      AreEqual(*a.palette, *b.palette) && a.planes[0].Width() == b.planes[0].Width() &&
      a.planes[0].Height() == b.planes[0].Height() && a.planes[0].Depth() == b.planes[0].Depth();
  if (areAlike && a.planes.size() == 1 && b.planes.size() == 1) {
    host::Difference difference = host::Compare(a, b);
    difference.planes.resize(NumChannels(a), difference.planes[0]);
    if (difference.identical) return difference;
  }
  if (NumChannels(a) == NumChannels(b)) {
    host::MakeOrdinary(a);
    host::MakeOrdinary(b);
    return host::Compare(a, b);
  }
  throw host::Error(host::Failure::kParameter, "the images have " + std::to_string(NumChannels(a)) +
                                                   " and " + std::to_string(NumChannels(b)) +
                                                   " channels");
}

int RunCompare(const std::vector<std::string>& files, unsigned threads, const host::Limits& limits,
               std::uint64_t maxMemory) {
  const host::Session session(maxMemory);
  const host::LimitScope limited(limits);
  host::Image a = LoadStored(files[0], threads);
  const host::MemoryReservation roomOfA(BytesOf(a), "the first image");
  host::Image b = LoadStored(files[1], threads);
  try {
    const host::Difference difference = CompareStored(a, b);
    PrintDifference(a, difference, difference.identical ? 1.0 : host::Ssim(a, b));
    return difference.identical ? kDone : kDifferent;
  } catch (const host::Error& error) {
    if (error.Kind() != host::Failure::kParameter) throw;
    throw host::Error(host::Failure::kInput, files[0] + " and " + files[1], error.Sentence());
  }
}

}  // namespace

host::Image LoadAnyImage(const std::string& name, unsigned threads) {
  host::Image image = LoadStored(name, threads);
  try {
    host::MakeOrdinary(image);
  } catch (const host::Error& error) {
    ThrowAbout(name, error);
  }
  return image;
}

void AddCompareCommand(CLI::App& app, Run& run) {
  struct Options {
    std::vector<std::string> files;
    unsigned jobs = 0;
    host::Limits limits;
    std::uint64_t maxMemory = HalfOfMemory();
  };
  auto options = std::make_shared<Options>();
  CLI::App& command =
      *app.add_subcommand("compare", "tell how far two images, encoded or not, are apart");
  command.add_option("files", options->files, "the two images; - is standard input")
      ->required()
      ->expected(2)
      ->type_name("FILE");
  command.add_option("-j,--jobs", options->jobs, "threads [one per processor]")
      ->type_name("N")
      ->check(CLI::Range(1, 1024));
  AddLimitOptions(command, options->limits);
  AddMemoryOption(command, options->maxMemory, "half of the machine's memory");
  command.footer(
      "Prints the PSNR of every component (10 log10 of the squared largest sample value over the\n"
      "mean squared difference), the largest difference, the share of samples that differ, and\n"
      "the structural similarity. Exit codes: 0 identical, 1 different, 2 not comparable,\n"
      "5 memory or pixel limit, 6 time limit\n"
      "Example: kel compare photo.png photo.kel\n");
  command.callback([options, &run] {
    run = [options] {
      return RunCompare(options->files, options->jobs, options->limits, options->maxMemory);
    };
  });
}

}  // namespace kel::tool
