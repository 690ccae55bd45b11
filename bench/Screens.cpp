// kel_bench_Screens FILE.kel: what screens of 1920 x 1080 of a picture cost, at random places of
// every resolution, one thread, each with a Picture opened anew and with one that stays open; the
// bytes and requests that they take of a source that is far away; the thumbnail's share of the
// file; and data fed to a ProgressiveDecoder in pieces. The file should be in the system's cache.
#include <sys/resource.h>
#include <kel/host.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>

namespace {

using namespace kel::host;
using Clock = std::chrono::steady_clock;

double ProcessorMs() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  const auto ms = [](const timeval& t) {
    return 1e3 * static_cast<double>(t.tv_sec) + 1e-3 * static_cast<double>(t.tv_usec);
  };
  return ms(used.ru_utime) + ms(used.ru_stime);
}

/// A file as something far away: everything fetched is counted.
struct FarFile {
  explicit FarFile(const std::string& path)
      : file(path), ranges(file.Size(), [this](std::uint64_t from, std::span<std::uint8_t> to) {
          ++requests;
          bytes += to.size();
          file.Fetch(from, to);
        }) {}
  FileRanges file;
  std::uint64_t requests = 0, bytes = 0;
  CallbackRanges ranges;
};

Region SomeScreen(const Picture& picture, unsigned reduce, std::mt19937& random) {
  const auto place = [&](std::uint32_t whole, std::uint32_t side) {
    const std::uint32_t span = std::min<std::uint64_t>(whole, std::uint64_t{side} << reduce);
    return std::pair(static_cast<std::uint32_t>(random() % (whole - span + 1)), span);
  };
  const auto [x, width] = place(picture.Width(), 1920);
  const auto [y, height] = place(picture.Height(), 1080);
  return {x, y, width, height};
}

double Median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

void MeasureNear(const std::string& path, unsigned reduce, int rounds) {
  std::mt19937 random(reduce + 1);
  FileRanges file(path);
  Picture open(file, {.cacheBytes = 0});
  open.Decode({0, 0, 1, 1}, open.Levels());
  std::vector<double> anew, opened;
  for (int i = 0; i < rounds; ++i) {
    const Region screen = SomeScreen(open, reduce, random);
    double start = ProcessorMs();
    Picture(file).Decode(screen, reduce);
    anew.push_back(ProcessorMs() - start);
    start = ProcessorMs();
    open.Decode(screen, reduce);
    opened.push_back(ProcessorMs() - start);
  }
  std::printf("reduced %2u: %6.1f ms opened anew, %6.1f ms (most %.1f) when open", reduce,
              Median(anew), Median(opened), *std::ranges::max_element(opened));
}

void MeasureFar(const std::string& path, unsigned reduce, int rounds) {
  std::mt19937 random(reduce + 1);
  std::uint64_t requests = 0, bytes = 0, openRequests = 0, openBytes = 0;
  for (int i = 0; i < rounds; ++i) {
    FarFile file(path);
    Picture picture(file.ranges);
    picture.PlacesOf(0);
    openRequests += file.requests;
    openBytes += file.bytes;
    picture.Decode(SomeScreen(picture, reduce, random), reduce);
    requests += file.requests;
    bytes += file.bytes;
  }
  const auto mean = [&](std::uint64_t sum) { return static_cast<double>(sum) / rounds; };
  std::printf("; far away %5.0f requests %8.0f KB, and to find the tiles %5.0f and %6.0f KB\n",
              mean(requests - openRequests), mean(bytes - openBytes) / 1e3, mean(openRequests),
              mean(openBytes) / 1e3);
}

void MeasureThumbnail(const std::string& path) {
  FarFile file(path);
  Picture picture(file.ranges, {.blockBytes = 0});
  picture.Decode({0, 0, picture.Width(), picture.Height()}, picture.Levels());
  std::printf("thumbnail: %llu of %llu bytes, %.2f %%\n",
              static_cast<unsigned long long>(file.bytes),
              static_cast<unsigned long long>(file.ranges.Size()),
              100.0 * static_cast<double>(file.bytes) / static_cast<double>(file.ranges.Size()));
}

void MeasureFeeding(const std::string& path) {
  FileSource source(path);
  Bytes storage;
  const ByteView all = ReadAll(source, storage);
  for (const std::size_t piece : {all.size(), std::size_t{4096}, all.size(), std::size_t{4096}}) {
    const double start = ProcessorMs();
    ProgressiveDecoder decoder;
    std::size_t looks = 0;
    for (std::size_t at = 0; at < all.size(); at += piece) {
      looks +=
          !decoder.Feed(all.subspan(at, std::min(piece, all.size() - at))).improvedTiles.empty();
    }
    std::printf("fed in pieces of %zu: %.0f ms, %zu looks\n", piece, ProcessorMs() - start, looks);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return std::puts("usage: kel_bench_Screens FILE.kel [rounds | feed]"), 1;
  try {
    const Session session;
    if (argc > 2 && std::string(argv[2]) == "feed") return MeasureFeeding(argv[1]), 0;
    const int rounds = argc > 2 ? std::stoi(argv[2]) : 15;
    FileRanges file(argv[1]);
    const unsigned levels = Picture(file).Levels();
    for (unsigned reduce = 0; reduce <= levels; ++reduce) {
      MeasureNear(argv[1], reduce, rounds);
      MeasureFar(argv[1], reduce, 3);
    }
    MeasureThumbnail(argv[1]);
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    std::printf("memory at most: %ld MB\n", used.ru_maxrss / 1000);
    return 0;
  } catch (const Error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}
