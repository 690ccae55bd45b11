// Arrays of numpy as rows of samples and back, whatever their strides: what the kit asks for is
// gathered from the array's own memory, and what it delivers is put there.
#ifndef KEL_PYTHON_ARRAYS_HPP
#define KEL_PYTHON_ARRAYS_HPP

#include <pybind11/numpy.h>

#include <kel/host/row_streams.hpp>

#include "Work.hpp"

namespace kel::python {

/// The memory of an array of (rows, columns) or (rows, columns, channels), unsigned integers of
/// one, two or four bytes in the machine's order. The array outlives it.
struct Samples {
  std::uint8_t* start = nullptr;
  std::uint32_t rows = 0, columns = 0;
  unsigned channels = 1, bytesPerSample = 1;
  py::ssize_t rowStride = 0, columnStride = 0, channelStride = 0;

  /// Whether the samples of a row stand without gaps, so that rows can be copied.
  bool HasPlainRows() const {
    const auto bytes = static_cast<py::ssize_t>(bytesPerSample);
    return (channels == 1 || channelStride == bytes) &&
           (columns == 1 || columnStride == bytes * static_cast<py::ssize_t>(channels));
  }
  std::size_t RowBytes() const { return std::size_t{columns} * channels * bytesPerSample; }
};

/// Throws Error (kParameter) for arrays of other forms.
Samples SamplesOf(const py::array& array);

/// An array without content, for a picture of that description; two-dimensional with one plane.
py::array MakeArray(const host::Image& description);
/// The samples of `out` when it can be filled with the picture; throws Error (kParameter) else.
Samples SamplesFor(py::array& out, const host::Image& description);

/// Delivers an array's rows. The description's planes have the depth that is asked for, which the
/// samples must not exceed: Read throws Error (kParameter).
class ArrayRows final : public host::RowSource {
 public:
  ArrayRows(const Samples& samples, host::Image description);
  void Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) override;
  bool HoldsPicture() const override { return true; }

 private:
  const Samples samples_;
  std::uint32_t nextRow_ = 0;
};

/// Puts rows into an array of their shape.
class ArraySink final : public host::RowSink {
 public:
  explicit ArraySink(const Samples& samples) : samples_(samples) {}
  void Begin(const host::Image&) override { nextRow_ = 0; }
  void Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) override;
  void Finish() override {}

 private:
  const Samples samples_;
  std::uint32_t nextRow_ = 0;
};

}  // namespace kel::python

#endif
