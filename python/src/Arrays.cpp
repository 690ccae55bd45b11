// Moving samples between arrays of any strides and plain rows.
#include "Arrays.hpp"

#include <kel/host/errors.hpp>
#include <kel/host/rows.hpp>

#include <cstring>
#include <limits>

namespace kel::python {
namespace {

using host::Error;
using host::Failure;

/// Calls move(place in the array, place in the plain row) for every sample of a row. Samples of
/// arrays need not be aligned.
template <class Move>
void EachSample(const Samples& samples, std::uint32_t row, const Move& move) {
  std::uint8_t* pixel = samples.start + static_cast<py::ssize_t>(row) * samples.rowStride;
  std::size_t at = 0;
  for (std::uint32_t x = 0; x < samples.columns; ++x, pixel += samples.columnStride) {
    std::uint8_t* sample = pixel;
    for (unsigned c = 0; c < samples.channels; ++c, sample += samples.channelStride) {
      move(sample, at);
      at += samples.bytesPerSample;
    }
  }
}

/// Calls move(count) with the number of bytes of a sample as a constant.
template <class Move>
void WithSampleBytes(unsigned bytes, const Move& move) {
  host::WithSampleType(
      bytes, [&](auto sample) { move(std::integral_constant<std::size_t, sizeof sample>()); });
}

std::uint32_t Extent(py::ssize_t count) {
  if (count < 1 || count > std::numeric_limits<std::int32_t>::max()) {
    throw Error(
        Failure::kParameter,
        "a picture has 1 to 2147483647 rows and columns, and the array " + std::to_string(count));
  }
  return static_cast<std::uint32_t>(count);
}

std::string ShapeText(const std::vector<py::ssize_t>& shape) {
  std::string text;
  for (const py::ssize_t extent : shape) {
    text += (text.empty() ? "(" : ", ") + std::to_string(extent);
  }
  return text + ")";
}

std::vector<py::ssize_t> ShapeOf(const host::Image& image) {
  std::vector<py::ssize_t> shape{image.height, image.width};
  if (image.planes.size() > 1) shape.push_back(static_cast<py::ssize_t>(image.planes.size()));
  return shape;
}

std::string NameOf(const py::dtype& type) {
  return type.attr("name").cast<std::string>();
}

py::dtype TypeOf(const host::Image& image) {
  return py::dtype("u" + std::to_string(image.planes[0].BytesPerSample()));
}

}  // namespace

Samples SamplesOf(const py::array& array) {
  if (array.ndim() != 2 && array.ndim() != 3) {
    throw Error(Failure::kParameter,
                "pictures are arrays of (rows, columns) or (rows, columns, channels), and not of " +
                    std::to_string(array.ndim()) + " dimensions");
  }
  const py::ssize_t bytes = array.itemsize();
  const bool isNative = array.dtype().attr("isnative").cast<bool>();
  if (array.dtype().kind() != 'u' || (bytes != 1 && bytes != 2 && bytes != 4) || !isNative) {
    throw Error(Failure::kParameter,
                "samples are of type uint8, uint16 or uint32, and not " + NameOf(array.dtype()));
  }
  Samples samples;
  samples.start = static_cast<std::uint8_t*>(const_cast<void*>(array.data()));
  samples.rows = Extent(array.shape(0));
  samples.columns = Extent(array.shape(1));
  samples.bytesPerSample = static_cast<unsigned>(bytes);
  samples.rowStride = array.strides(0);
  samples.columnStride = array.strides(1);
  if (array.ndim() == 3) {
    if (array.shape(2) < 1 || array.shape(2) > 16384) {
      throw Error(Failure::kParameter, "a picture has 1 to 16384 channels, and the array " +
                                           std::to_string(array.shape(2)));
    }
    samples.channels = static_cast<unsigned>(array.shape(2));
    samples.channelStride = array.strides(2);
  }
  return samples;
}

py::array MakeArray(const host::Image& description) {
  return py::array(TypeOf(description), ShapeOf(description));
}

Samples SamplesFor(py::array& out, const host::Image& description) {
  const std::vector<py::ssize_t> shape = ShapeOf(description);
  const std::vector<py::ssize_t> found(out.shape(), out.shape() + out.ndim());
  const py::dtype type = TypeOf(description);
  if (found != shape || !out.dtype().equal(type)) {
    throw Error(Failure::kParameter, "out is " + ShapeText(found) + " of " + NameOf(out.dtype()) +
                                         ", and the picture " + ShapeText(shape) + " of " +
                                         NameOf(type));
  }
  if (!out.writeable()) throw Error(Failure::kParameter, "out cannot be written to");
  return SamplesOf(out);
}

ArrayRows::ArrayRows(const Samples& samples, host::Image description) : samples_(samples) {
  description_ = std::move(description);
}

void ArrayRows::Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) {
  const std::uint32_t most = description_.planes[0].MaxValue();
  for (; count > 0; --count, to += strideBytes, ++nextRow_) {
    CheckSignals();
    if (samples_.HasPlainRows()) {
      const auto offset = static_cast<py::ssize_t>(nextRow_) * samples_.rowStride;
      std::memcpy(to, samples_.start + offset, samples_.RowBytes());
    } else {
      WithSampleBytes(samples_.bytesPerSample, [&](auto bytes) {
        EachSample(samples_, nextRow_, [&](const std::uint8_t* sample, std::size_t at) {
          std::memcpy(to + at, sample, bytes);
        });
      });
    }
    host::WithSampleType(samples_.bytesPerSample, [&](auto sample) {
      using Sample = decltype(sample);
      if (most == std::numeric_limits<Sample>::max()) return;
      const std::size_t number = std::size_t{samples_.columns} * samples_.channels;
      const Sample largest = host::Largest(reinterpret_cast<const Sample*>(to), number);
      if (largest > most) {
        throw Error(Failure::kParameter, "the sample " + std::to_string(largest) +
                                             " does not fit the depth, which allows 0 to " +
                                             std::to_string(most));
      }
    });
  }
}

void ArraySink::Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) {
  for (; count > 0; --count, rows += strideBytes, ++nextRow_) {
    CheckSignals();
    if (samples_.HasPlainRows()) {
      const auto offset = static_cast<py::ssize_t>(nextRow_) * samples_.rowStride;
      std::memcpy(samples_.start + offset, rows, samples_.RowBytes());
      continue;
    }
    WithSampleBytes(samples_.bytesPerSample, [&](auto bytes) {
      EachSample(samples_, nextRow_, [&](std::uint8_t* sample, std::size_t at) {
        std::memcpy(sample, rows + at, bytes);
      });
    });
  }
}

}  // namespace kel::python
