// Where coded bytes come from: bytes of Python, files, and objects of Python that can seek and
// read.
#ifndef KEL_PYTHON_DATA_HPP
#define KEL_PYTHON_DATA_HPP

#include <kel/host/ranges.hpp>
#include <kel/host/streams.hpp>

#include <mutex>

#include "Work.hpp"

namespace kel::python {

/// The memory of an object with a buffer, for as long as this lives. Made and destroyed with the
/// interpreter's lock.
class HeldBytes {
 public:
  explicit HeldBytes(const py::handle& object);
  ~HeldBytes() { PyBuffer_Release(&buffer_); }
  HeldBytes(const HeldBytes&) = delete;
  HeldBytes& operator=(const HeldBytes&) = delete;
  host::ByteView View() const {
    return {static_cast<const std::uint8_t*>(buffer_.buf), static_cast<std::size_t>(buffer_.len)};
  }

 private:
  Py_buffer buffer_{};
};

/// Ranges of an object with seek and read, one at a time. What these raise is thrown on. Made and
/// destroyed with the lock.
class FileObjectRanges final : public host::RangeSource {
 public:
  explicit FileObjectRanges(py::object file);
  std::uint64_t Size() const override { return size_; }
  void Fetch(std::uint64_t from, std::span<std::uint8_t> to) override;

 private:
  py::object file_;
  std::uint64_t size_ = 0;
  std::mutex mutex_;
};

/// Data given as a name (str), an object with seek and read, or one with a buffer. Made and
/// destroyed with the lock; what it opens must not outlive it.
class Data {
 public:
  explicit Data(const py::object& given);
  /// The data from their beginning. Needs no lock.
  std::unique_ptr<host::Source> Open() const;
  std::unique_ptr<host::RangeSource> OpenRanges() const;

 private:
  std::string name_;
  std::unique_ptr<FileObjectRanges> object_;
  std::unique_ptr<HeldBytes> held_;
};

/// Ranges of another source, between which the interpreter's signals are seen.
class WatchedRanges final : public host::RangeSource {
 public:
  explicit WatchedRanges(std::unique_ptr<host::RangeSource> source) : source_(std::move(source)) {}
  std::uint64_t Size() const override { return source_->Size(); }
  void Fetch(std::uint64_t from, std::span<std::uint8_t> to) override {
    CheckSignals();
    source_->Fetch(from, to);
  }

 private:
  std::unique_ptr<host::RangeSource> source_;
};

}  // namespace kel::python

#endif
