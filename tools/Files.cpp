// What the commands on files share: reading inputs, naming them, and telling failures.
#include "Files.hpp"

#include <unistd.h>
#include <kel/host/decode.hpp>
#include <kel/host/image.hpp>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>

namespace kel::tool {
using host::Error;
using host::Failure;

namespace {
std::atomic<bool> detailsAreShown{false};
}

int WorseOf(int a, int b) {
  // Incomplete is better than nothing; what the machine or the disk lacks stops more than one file.
  constexpr int kByBadness[] = {kDone,      kIncompleteInput, kBadInput, kMemoryLimit,
                                kTimeLimit, kBadOutput,       kUsage};
  const auto badness = [&](int code) { return std::ranges::find(kByBadness, code); };
  return badness(a) < badness(b) ? b : a;
}

std::unique_ptr<host::Source> OpenInput(const std::string& path) {
  if (path == kStandardStream) return std::make_unique<host::FileSource>(stdin, NameOf(path));
  return std::make_unique<host::FileSource>(path);
}

InputRanges::InputRanges(const std::string& path) : path_(path) {
  if (path == kStandardStream) {
    bytes_ = ReadInput(path);
    ranges_ = std::make_unique<host::MemoryRanges>(bytes_);
  } else {
    ranges_ = std::make_unique<host::FileRanges>(path);
  }
}

std::unique_ptr<host::Source> InputRanges::MakeSource() const {
  if (path_ == kStandardStream) return std::make_unique<host::MemorySource>(bytes_);
  return OpenInput(path_);
}

host::Region ParseRegion(const std::string& text) {
  host::Region region;
  char behind = 0;
  const int fields = std::sscanf(text.c_str(), "%ux%u+%u+%u%c", &region.width, &region.height,
                                 &region.x, &region.y, &behind);
  if (fields != 4 || text.find('-') != std::string::npos) {
    throw UsageError("--region takes WIDTHxHEIGHT+X+Y, such as 640x480+1000+0, not " + text);
  }
  return region;
}

host::Bytes ReadInput(const std::string& path) {
  host::Bytes bytes;
  host::ReadAll(*OpenInput(path), bytes);
  return bytes;
}

bool IsEncodedName(const std::string& name) {
  constexpr std::string_view kEnding = ".kel";
  return name.size() > kEnding.size() &&
         std::ranges::equal(std::string_view(name).substr(name.size() - kEnding.size()), kEnding,
                            {}, [](unsigned char c) { return std::tolower(c); });
}

std::string NameOf(const std::string& path) {
  return path == kStandardStream ? "standard input" : path;
}

std::uint64_t BytesOf(const host::Image& image) {
  std::uint64_t bytes = 0;
  for (const host::Plane& plane : image.planes) {
    bytes += std::uint64_t{plane.Width()} * plane.Height() * plane.BytesPerSample();
  }
  return bytes;
}

std::string Speed(const host::Image& image, std::chrono::steady_clock::time_point since) {
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - since;
  char text[64];
  std::snprintf(text, sizeof text, "%.3f s, %.1f MB/s", seconds.count(),
                static_cast<double>(BytesOf(image)) / 1e6 / std::max(seconds.count(), 1e-9));
  return text;
}

int ExitCodeOf(const Error& error) {
  switch (error.Kind()) {
    case Failure::kInput:
      return kBadInput;
    case Failure::kIncomplete:
      return kIncompleteInput;
    case Failure::kOutput:
      return kBadOutput;
    case Failure::kMemory:
      return kMemoryLimit;
    case Failure::kTime:
      return kTimeLimit;
    default:
      return kUsage;
  }
}

void ThrowAbout(const std::string& path, const Error& error) {
  const std::string name = error.File().empty() ? NameOf(path) : error.File();
  if (dynamic_cast<const host::TooManyPixels*>(&error) != nullptr) {
    throw host::TooManyPixels(error.Kind(), name, error.Sentence());
  }
  throw Error(error.Kind(), name, error.Sentence());
}

void ShowDetails(bool shown) {
  detailsAreShown = shown;
}

std::string Describe(const Error& error) {
  const bool shown = detailsAreShown && !error.Details().empty();
  const bool isOfPixels = dynamic_cast<const host::TooManyPixels*>(&error) != nullptr;
  const char* advice = error.Kind() != Failure::kMemory ? ""
                       : isOfPixels                     ? "; --max-pixels COUNT raises the limit"
                                                        : "; --max-memory SIZE raises the limit";
  return error.what() + (shown ? " (" + error.Details() + ")" : std::string()) + advice;
}

namespace {

/// The least of the limits on memory of the process's control group and those above it, of either
/// version; 0 when there is none. A container sees its own group as the uppermost.
std::uint64_t GroupLimit() {
  std::uint64_t least = 0;
  const auto take = [&](const std::filesystem::path& file) {
    std::uint64_t limit = 0;  // without a limit the file has a word
    if (std::ifstream(file) >> limit && limit != 0) {
      least = least == 0 ? limit : std::min(least, limit);
    }
  };
  const auto takeAll = [&](const std::filesystem::path& root, std::filesystem::path group,
                           const char* file) {
    for (; group.has_relative_path(); group = group.parent_path()) {
      take(root / group.relative_path() / file);
    }
    take(root / file);
  };
  std::ifstream groups("/proc/self/cgroup");  // lines of NUMBER:CONTROLLERS:PATH
  for (std::string line; std::getline(groups, line);) {
    const std::size_t first = line.find(':'), second = line.find(':', first + 1);
    if (second == line.npos) continue;
    const std::string controllers = "," + line.substr(first + 1, second - first - 1) + ",";
    const std::string path = line.substr(second + 1);
    if (controllers == ",,") takeAll("/sys/fs/cgroup", path, "memory.max");
    if (controllers.find(",memory,") != controllers.npos) {
      takeAll("/sys/fs/cgroup/memory", path, "memory.limit_in_bytes");
    }
  }
  return least;
}

/// Half of the machine's memory, or of the group's where that is less.
std::uint64_t MeasureHalfOfMemory() {
  const long pages = sysconf(_SC_PHYS_PAGES), pageBytes = sysconf(_SC_PAGE_SIZE);
  const std::uint64_t bytes =
      pages <= 0 || pageBytes <= 0
          ? 0
          : static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageBytes);
  const std::uint64_t limit = GroupLimit();
  return (bytes == 0 || limit == 0 ? std::max(bytes, limit) : std::min(bytes, limit)) / 2;
}

}  // namespace

std::uint64_t HalfOfMemory() {
  static const std::uint64_t half = MeasureHalfOfMemory();
  return half;
}

}  // namespace kel::tool
