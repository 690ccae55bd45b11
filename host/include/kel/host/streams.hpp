// Where bytes come from and go to: files, memory, or a program's own functions.
#ifndef KEL_HOST_STREAMS_HPP
#define KEL_HOST_STREAMS_HPP

#include "language.hpp"

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kel::host {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

/// A source of bytes, read once from front to back; some can be read anywhere too.
class Source {
 public:
  virtual ~Source() = default;
  /// Fills as much of `to` as it can and returns the number of bytes; 0 at the end only. Throws
  /// Error (kInput) when reading fails.
  virtual std::size_t Read(std::span<std::uint8_t> to) = 0;
  /// Everything that is left, when it stands in memory already and outlives the source.
  virtual std::optional<ByteView> View() { return std::nullopt; }
  /// How many bytes there are from the beginning on, where ReadAt can be used; nothing where bytes
  /// can be read once only.
  virtual std::optional<std::uint64_t> Size() const { return std::nullopt; }
  /// Reads at a place of its own, counted from the beginning, whatever was read before; on any
  /// thread. Returns the number of bytes, less than asked for at the end only. Throws as Read.
  virtual std::size_t ReadAt(std::uint64_t, std::span<std::uint8_t>) const { return 0; }
};

/// A destination of bytes, written once from front to back; some can be changed afterwards.
class Sink {
 public:
  virtual ~Sink() = default;
  /// Takes all bytes. Throws Error (kOutput) when it cannot.
  virtual void Write(ByteView bytes) = 0;
  /// Replaces bytes that were written, where that is possible; else false. With no bytes it only
  /// tells. Throws as Write.
  virtual bool Rewrite(std::uint64_t, ByteView) { return false; }
  /// Call when everything has been written: makes sure that it arrived. Throws as Write.
  virtual void Finish() {}
};

/// What it reads at places of its own in small pieces it takes from the system by the page, so that
/// a walk from header to header costs few calls: the file should not change meanwhile.
class FileSource : public Source {
 public:
  explicit FileSource(const std::string& path);  ///< throws Error (kInput)
  /// Reads an open file, which stays the caller's; name is for messages.
  FileSource(std::FILE* file, const std::string& name);
  FileSource(FileSource&&) noexcept;
  ~FileSource() override;
  std::size_t Read(std::span<std::uint8_t> to) override;
  std::optional<std::uint64_t> Size() const override { return size_; }
  std::size_t ReadAt(std::uint64_t offset, std::span<std::uint8_t> to) const override;

 private:
  struct Window;

  void Measure();
  std::size_t ReadFrom(std::uint64_t offset, std::span<std::uint8_t> to) const;

  std::unique_ptr<std::FILE, int (*)(std::FILE*)> owned_;
  std::FILE* file_;
  std::string name_;
  std::uint64_t start_ = 0;  ///< where it stood when it was given
  std::optional<std::uint64_t> size_;
  std::unique_ptr<Window> window_;  ///< null where ReadAt cannot be used
};

class MemorySource : public Source {
 public:
  explicit MemorySource(ByteView bytes) : all_(bytes), left_(bytes) {}  ///< they outlive the source
  std::size_t Read(std::span<std::uint8_t> to) override;
  std::optional<ByteView> View() override;
  std::optional<std::uint64_t> Size() const override { return all_.size(); }
  std::size_t ReadAt(std::uint64_t offset, std::span<std::uint8_t> to) const override;

 private:
  ByteView all_;
  ByteView left_;
};

/// Looks ahead in another source, and takes from it in large pieces what is read in small ones.
class BufferedSource : public Source {
 public:
  static constexpr std::size_t kMostAhead = 65536;

  /// source outlives this one, and is no longer read directly.
  explicit BufferedSource(Source& source);
  /// The next bytes, which stay to be read: `count` of them, at most kMostAhead; fewer at the end.
  ByteView Peek(std::size_t count);
  /// The next byte, or -1 at the end.
  int PeekByte() { return window_.empty() && Peek(1).empty() ? -1 : window_.front(); }
  int NextByte() {
    const int byte = PeekByte();
    if (byte >= 0) window_ = window_.subspan(1);
    return byte;
  }
  std::size_t Read(std::span<std::uint8_t> to) override;
  /// Fills all of `to`; false when the source ends before.
  bool ReadExactly(std::span<std::uint8_t> to) { return Read(to) == to.size(); }
  std::optional<ByteView> View() override;
  std::optional<std::uint64_t> Size() const override { return source_.Size(); }
  std::size_t ReadAt(std::uint64_t offset, std::span<std::uint8_t> to) const override {
    return source_.ReadAt(offset, to);
  }
  /// Bytes that are left, where that is known.
  std::optional<std::uint64_t> NumLeft() const;

 private:
  Source& source_;
  bool isWhole_ = false;        ///< the window is all that is left
  std::uint64_t numTaken_ = 0;  ///< from the source
  Bytes buffer_;
  ByteView window_;  ///< read, but not handed out
};

class CallbackSource : public Source {
 public:
  using Function = std::function<std::size_t(std::span<std::uint8_t>)>;
  explicit CallbackSource(Function read) : read_(std::move(read)) {}
  std::size_t Read(std::span<std::uint8_t> to) override { return read_(to); }

 private:
  Function read_;
};

/// Creates the file, or empties it when it exists.
class FileSink : public Sink {
 public:
  explicit FileSink(const std::string& path);  ///< throws Error (kOutput)
  /// Writes to an open file, which stays the caller's; name is for messages.
  FileSink(std::FILE* file, const std::string& name);
  void Write(ByteView bytes) override;
  void Finish() override;

 private:
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> owned_;
  std::FILE* file_;
  std::string name_;
};

class MemorySink : public Sink {
 public:
  void Write(ByteView bytes) override;
  Bytes bytes;  ///< everything written so far
};

class CallbackSink : public Sink {
 public:
  using Function = std::function<void(ByteView)>;
  explicit CallbackSink(Function write) : write_(std::move(write)) {}
  void Write(ByteView bytes) override { write_(bytes); }

 private:
  Function write_;
};

/// The whole of a source: a view of it where it stands in memory, else a copy, which `storage`
/// then holds. Throws Error (kInput) beyond 2^31 - 1 bytes, the most that the library takes as one
/// block.
ByteView ReadAll(Source& source, Bytes& storage);

}  // namespace kel::host

#endif
