// Sources and sinks over files and memory.
#include "kel/host/streams.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include "WholeData.hpp"
#include "kel/host/errors.hpp"

namespace kel::host {
namespace {

constexpr std::size_t kFirstRead = 65536;
/// Less than this is not worth a call of the source.
constexpr std::size_t kSmallRead = BufferedSource::kMostAhead / 4;

int KeepOpen(std::FILE*) {
  return 0;
}

std::string Reason() {
  return std::strerror(errno);
}

}  // namespace

/// Bytes of the file that were read last in small pieces. One that lies elsewhere begins with few;
/// whoever goes on from there gets many.
struct FileSource::Window {
  static constexpr std::size_t kSmallPiece = 512, kFew = 1024;

  std::mutex mutex;
  std::uint64_t start = 0;
  std::size_t count = 0;
  std::array<std::uint8_t, 4096> bytes;

  bool Holds(std::uint64_t offset, std::size_t length) const {
    return offset >= start && offset - start <= count && length <= count - (offset - start);
  }
  bool IsNear(std::uint64_t offset) const {
    return offset >= start && offset - start <= bytes.size() - kSmallPiece && count != 0;
  }
};

FileSource::FileSource(FileSource&&) noexcept = default;
FileSource::~FileSource() = default;

FileSource::FileSource(const std::string& path)
    : owned_(std::fopen(path.c_str(), "rb"), std::fclose), file_(owned_.get()), name_(path) {
  if (file_ == nullptr) throw Error(Failure::kInput, path, "cannot be opened: " + Reason());
  Measure();
}

FileSource::FileSource(std::FILE* file, const std::string& name)
    : owned_(nullptr, KeepOpen), file_(file), name_(name) {
  Measure();
}

/// Pipes and devices have no size.
void FileSource::Measure() {
  struct stat status {};
  const off_t position = ftello(file_);
  if (fstat(fileno(file_), &status) != 0 || !S_ISREG(status.st_mode) || position < 0) return;
  start_ = static_cast<std::uint64_t>(position);
  const auto end = static_cast<std::uint64_t>(status.st_size);
  if (end <= start_) return;  // files of a system's state say 0 and have bytes
  size_ = end - start_;
  window_ = std::make_unique<Window>();
}

std::size_t FileSource::ReadAt(std::uint64_t offset, std::span<std::uint8_t> to) const {
  if (!window_) return ReadFrom(offset, to);
  Window& window = *window_;
  std::unique_lock lock(window.mutex);
  if (!window.Holds(offset, to.size())) {
    if (to.size() > Window::kSmallPiece) {
      lock.unlock();
      return ReadFrom(offset, to);
    }
    const bool goesOn = window.IsNear(offset);
    if (!goesOn) window.start = offset;
    window.count = 0;  // should the reading fail
    window.count = ReadFrom(
        window.start, std::span(window.bytes).first(goesOn ? window.bytes.size() : Window::kFew));
  }
  const auto skipped = static_cast<std::size_t>(offset - window.start);
  const std::size_t left = window.count - std::min(window.count, skipped);
  const std::size_t taken = std::min(to.size(), left);
  std::copy_n(window.bytes.begin() + static_cast<std::ptrdiff_t>(skipped), taken, to.begin());
  return taken;
}

std::size_t FileSource::ReadFrom(std::uint64_t offset, std::span<std::uint8_t> to) const {
  std::size_t filled = 0;
  while (filled < to.size()) {
    const ssize_t count = pread(fileno(file_), to.data() + filled, to.size() - filled,
                                static_cast<off_t>(start_ + offset + filled));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Error(Failure::kInput, name_, "cannot be read: " + Reason());
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  return filled;
}

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

std::size_t MemorySource::ReadAt(std::uint64_t offset, std::span<std::uint8_t> to) const {
  if (offset >= all_.size()) return 0;
  const ByteView from = all_.subspan(static_cast<std::size_t>(offset));
  const std::size_t count = std::min(to.size(), from.size());
  std::copy_n(from.begin(), count, to.begin());
  return count;
}

std::optional<ByteView> MemorySource::View() {
  return std::exchange(left_, ByteView());
}

BufferedSource::BufferedSource(Source& source) : source_(source) {
  if (const auto view = source.View()) {
    window_ = *view;
    isWhole_ = true;
  }
}

ByteView BufferedSource::Peek(std::size_t count) {
  if (window_.size() >= count || isWhole_) return window_.first(std::min(count, window_.size()));
  buffer_.resize(kMostAhead);
  std::copy(window_.begin(), window_.end(), buffer_.begin());
  std::size_t filled = window_.size();
  while (filled < count) {
    const std::size_t more = source_.Read(std::span(buffer_).subspan(filled));
    if (more == 0) break;
    filled += more;
    numTaken_ += more;
  }
  window_ = ByteView(buffer_).first(filled);
  return window_.first(std::min(count, filled));
}

std::size_t BufferedSource::Read(std::span<std::uint8_t> to) {
  std::size_t filled = 0;
  const auto takeAhead = [&] {
    const std::size_t ahead = std::min(to.size() - filled, window_.size());
    std::copy_n(window_.begin(), ahead, to.begin() + static_cast<std::ptrdiff_t>(filled));
    window_ = window_.subspan(ahead);
    filled += ahead;
  };
  takeAhead();
  while (filled < to.size() && !isWhole_) {
    if (to.size() - filled < kSmallRead) {
      if (Peek(1).empty()) break;
      takeAhead();
      continue;
    }
    const std::size_t more = source_.Read(to.subspan(filled));
    if (more == 0) break;
    filled += more;
    numTaken_ += more;
  }
  return filled;
}

std::optional<ByteView> BufferedSource::View() {
  if (!isWhole_) return std::nullopt;
  return std::exchange(window_, ByteView());
}

std::optional<std::uint64_t> BufferedSource::NumLeft() const {
  if (isWhole_) return window_.size();
  const auto size = source_.Size();
  return size ? std::optional(*size - std::min(*size, numTaken_) + window_.size()) : std::nullopt;
}

FileSink::FileSink(const std::string& path)
    : owned_(std::fopen(path.c_str(), "wb"), std::fclose), file_(owned_.get()), name_(path) {
  if (file_ == nullptr) throw Error(Failure::kOutput, path, "cannot be created: " + Reason());
}

FileSink::FileSink(std::FILE* file, const std::string& name)
    : owned_(nullptr, KeepOpen), file_(file), name_(name) {}

void FileSink::Write(ByteView bytes) {
  if (bytes.empty()) return;  // of which there may be no address
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
  if (const auto view = source.View()) return AsOneBlock(*view);
  storage.resize(kFirstRead);
  std::size_t filled = 0;
  while (const std::size_t count = source.Read(std::span(storage).subspan(filled))) {
    filled += count;
    if (filled == storage.size()) {
      AsOneBlock(storage);
      storage.resize(2 * storage.size());
    }
  }
  storage.resize(filled);
  return AsOneBlock(storage);
}

}  // namespace kel::host
