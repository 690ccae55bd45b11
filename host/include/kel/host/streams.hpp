// Where bytes come from and go to: files, memory, or a program's own functions.
#ifndef KEL_HOST_STREAMS_HPP
#define KEL_HOST_STREAMS_HPP

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

/// A source of bytes, read once from front to back.
class Source {
 public:
  virtual ~Source() = default;
  /// Fills as much of `to` as it can and returns the number of bytes; 0 at the end only. Throws
  /// Error (kInput) when reading fails.
  virtual std::size_t Read(std::span<std::uint8_t> to) = 0;
  /// Everything that is left, when it stands in memory already and outlives the source.
  virtual std::optional<ByteView> View() { return std::nullopt; }
};

/// A destination of bytes, written once from front to back.
class Sink {
 public:
  virtual ~Sink() = default;
  /// Takes all bytes. Throws Error (kOutput) when it cannot.
  virtual void Write(ByteView bytes) = 0;
  /// Call when everything has been written: makes sure that it arrived. Throws as Write.
  virtual void Finish() {}
};

class FileSource : public Source {
 public:
  explicit FileSource(const std::string& path);  ///< throws Error (kInput)
  /// Reads an open file, which stays the caller's; name is for messages.
  FileSource(std::FILE* file, const std::string& name);
  std::size_t Read(std::span<std::uint8_t> to) override;

 private:
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> owned_;
  std::FILE* file_;
  std::string name_;
};

class MemorySource : public Source {
 public:
  explicit MemorySource(ByteView bytes) : left_(bytes) {}  ///< bytes outlive the source
  std::size_t Read(std::span<std::uint8_t> to) override;
  std::optional<ByteView> View() override;

 private:
  ByteView left_;
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
/// then holds. Throws Error (kInput) beyond 2^31 - 1 bytes, the most that the format can address.
ByteView ReadAll(Source& source, Bytes& storage);

}  // namespace kel::host

#endif
