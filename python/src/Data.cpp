// Reading from Python.
#include "Data.hpp"

#include <kel/host/errors.hpp>

#include <algorithm>
#include <cstring>

namespace kel::python {

HeldBytes::HeldBytes(const py::handle& object) {
  if (PyObject_GetBuffer(object.ptr(), &buffer_, PyBUF_SIMPLE) != 0) throw py::error_already_set();
}

namespace {

/// The bytes of ranges from the beginning on, between which the interpreter's signals are seen.
class RangesAsSource final : public host::Source {
 public:
  explicit RangesAsSource(host::RangeSource& ranges) : ranges_(ranges) {}
  std::size_t Read(std::span<std::uint8_t> to) override {
    const std::size_t count = ReadAt(at_, to);
    at_ += count;
    return count;
  }
  std::optional<std::uint64_t> Size() const override { return ranges_.Size(); }
  std::size_t ReadAt(std::uint64_t from, std::span<std::uint8_t> to) const override {
    CheckSignals();
    if (from >= ranges_.Size()) return 0;
    to = to.first(
        static_cast<std::size_t>(std::min<std::uint64_t>(to.size(), ranges_.Size() - from)));
    if (!to.empty()) ranges_.Fetch(from, to);
    return to.size();
  }

 private:
  host::RangeSource& ranges_;
  std::uint64_t at_ = 0;
};

}  // namespace

Data::Data(const py::object& given) {
  if (py::isinstance<py::str>(given)) {
    name_ = given.cast<std::string>();
  } else if (py::hasattr(given, "seek") && py::hasattr(given, "read")) {
    object_ = std::make_unique<FileObjectRanges>(given);
  } else {
    held_ = std::make_unique<HeldBytes>(given);
  }
}

std::unique_ptr<host::Source> Data::Open() const {
  if (held_) return std::make_unique<host::MemorySource>(held_->View());
  if (object_) return std::make_unique<RangesAsSource>(*object_);
  return std::make_unique<host::FileSource>(name_);
}

std::unique_ptr<host::RangeSource> Data::OpenRanges() const {
  if (held_) return std::make_unique<host::MemoryRanges>(held_->View());
  if (object_) {
    const auto fetch = [this](std::uint64_t from, std::span<std::uint8_t> to) {
      object_->Fetch(from, to);
    };
    return std::make_unique<host::CallbackRanges>(object_->Size(), fetch);
  }
  return std::make_unique<host::FileRanges>(name_);
}

FileObjectRanges::FileObjectRanges(py::object file) : file_(std::move(file)) {
  size_ = file_.attr("seek")(0, 2).cast<std::uint64_t>();
}

void FileObjectRanges::Fetch(std::uint64_t from, std::span<std::uint8_t> to) {
  // Whoever waits for this object never has the interpreter's lock, so that its owner can get it.
  const std::lock_guard mine(mutex_);
  const py::gil_scoped_acquire lock;
  file_.attr("seek")(from);
  while (!to.empty()) {
    const py::object piece = file_.attr("read")(to.size());
    const HeldBytes held(piece);
    const host::ByteView bytes = held.View();
    if (bytes.empty() || bytes.size() > to.size()) {
      throw host::Error(host::Failure::kInput, "the file object does not deliver what it has");
    }
    std::memcpy(to.data(), bytes.data(), bytes.size());
    to = to.subspan(bytes.size());
  }
}

}  // namespace kel::python
