// Reading from Python.
#include "Data.hpp"

#include <kel/host/errors.hpp>

#include <cstring>

namespace kel::python {

HeldBytes::HeldBytes(const py::handle& object) {
  if (PyObject_GetBuffer(object.ptr(), &buffer_, PyBUF_SIMPLE) != 0) throw py::error_already_set();
}

Data::Data(const py::object& given) {
  if (py::isinstance<py::str>(given)) {
    name_ = given.cast<std::string>();
  } else {
    held_ = std::make_unique<HeldBytes>(given);
  }
}

std::unique_ptr<host::Source> Data::Open() const {
  if (held_) return std::make_unique<host::MemorySource>(held_->View());
  return std::make_unique<host::FileSource>(name_);
}

std::unique_ptr<host::RangeSource> Data::OpenRanges() const {
  if (held_) return std::make_unique<host::MemoryRanges>(held_->View());
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
