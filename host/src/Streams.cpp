// Sources and sinks over files and memory.
#include "kel/host/streams.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "kel/host/errors.hpp"

namespace kel::host {
namespace {

/// Positions of the format are signed 32-bit numbers.
constexpr std::size_t kMostBytes = INT32_MAX;
constexpr std::size_t kFirstRead = 65536;

int KeepOpen(std::FILE*) {
  return 0;
}

std::string Reason() {
  return std::strerror(errno);
}

}  // namespace

FileSource::FileSource(const std::string& path)
    : owned_(std::fopen(path.c_str(), "rb"), std::fclose), file_(owned_.get()), name_(path) {
  if (file_ == nullptr) throw Error(Failure::kInput, path, "cannot be opened: " + Reason());
}

FileSource::FileSource(std::FILE* file, const std::string& name)
    : owned_(nullptr, KeepOpen), file_(file), name_(name) {}

std::size_t FileSource::Read(std::span<std::uint8_t> to) {
  const std::size_t count = std::fread(to.data(), 1, to.size(), file_);
  if (count < to.size() && std::ferror(file_) != 0) {
    throw Error(Failure::kInput, name_, "cannot be read: " + Reason());
  }
  return count;
}

std::size_t MemorySource::Read(std::span<std::uint8_t> to) {
  const std::size_t count = std::min(to.size(), left_.size());
  std::copy_n(left_.begin(), count, to.begin());
  left_ = left_.subspan(count);
  return count;
}

std::optional<ByteView> MemorySource::View() {
  return std::exchange(left_, ByteView());
}

FileSink::FileSink(const std::string& path)
    : owned_(std::fopen(path.c_str(), "wb"), std::fclose), file_(owned_.get()), name_(path) {
  if (file_ == nullptr) throw Error(Failure::kOutput, path, "cannot be created: " + Reason());
}

FileSink::FileSink(std::FILE* file, const std::string& name)
    : owned_(nullptr, KeepOpen), file_(file), name_(name) {}

void FileSink::Write(ByteView bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) {
    throw Error(Failure::kOutput, name_, "cannot be written: " + Reason());
  }
}

void FileSink::Finish() {
  if (std::fflush(file_) != 0) {
    throw Error(Failure::kOutput, name_, "cannot be written: " + Reason());
  }
}

void MemorySink::Write(ByteView more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

ByteView ReadAll(Source& source, Bytes& storage) {
  const auto checked = [](ByteView all) {
    if (all.size() > kMostBytes) {
      throw Error(Failure::kInput, "is larger than 2 GiB, the most that the format can address");
    }
    return all;
  };
  if (const auto view = source.View()) return checked(*view);
  storage.resize(kFirstRead);
  std::size_t filled = 0;
  while (const std::size_t count = source.Read(std::span(storage).subspan(filled))) {
    filled += count;
    if (filled == storage.size()) {
      checked(storage);
      storage.resize(2 * storage.size());
    }
  }
  storage.resize(filled);
  return checked(storage);
}

}  // namespace kel::host
