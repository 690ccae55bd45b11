// Images as sources and sinks of rows.
#include "kel/host/row_streams.hpp"

#include <algorithm>
#include <memory>

#include "kel/host/errors.hpp"
#include "kel/host/limits.hpp"
#include "kel/host/rows.hpp"

namespace kel::host {
namespace {

/// Rows move in pieces of about this size, which stay in the caches.
constexpr std::size_t kPieceBytes = 256 * 1024;

/// Calls work with the addresses of row y of all planes.
template <class Planes, class Work>
void WithPlaneRows(Planes& planes, std::uint32_t y, Work&& work) {
  WithSampleType(planes[0].BytesPerSample(), [&](auto sample) {
    using Row = decltype(planes[0].template Row<decltype(sample)>(y));
    std::vector<Row> rows;
    for (auto& plane : planes) rows.push_back(plane.template Row<decltype(sample)>(y));
    work(rows, sample);
  });
}

[[noreturn]] void RefuseForm() {
  throw Error(Failure::kParameter, "planes of different sizes or depths cannot be taken by rows");
}

}  // namespace

bool HasPlainRows(const Image& description) {
  const auto& planes = description.planes;
  return !planes.empty() && std::ranges::all_of(planes, [&](const Plane& plane) {
    return plane.Depth() == planes[0].Depth() && plane.Width() == description.width &&
           plane.Height() == description.height;
  });
}

std::size_t RowBytes(const Image& description) {
  const auto& planes = description.planes;
  return planes.empty()
             ? 0
             : std::size_t{description.width} * planes.size() * planes[0].BytesPerSample();
}

ImageRowSource::ImageRowSource(const Image& image) : image_(image) {
  if (!HasPlainRows(image)) RefuseForm();
  CopyDescription(image, description_);
}

ImageRowSource::ImageRowSource(Image&& image) : owned_(std::move(image)), image_(owned_) {
  if (!HasPlainRows(image_)) RefuseForm();
  CopyDescription(image_, description_);
}

void ImageRowSource::Read(std::uint32_t count, std::uint8_t* to, std::size_t strideBytes) {
  for (; count > 0; --count, to += strideBytes) {
    WithPlaneRows(image_.planes, nextRow_++, [&](auto& rows, auto sample) {
      JoinSamples(rows.data(), rows.size(), image_.width, reinterpret_cast<decltype(sample)*>(to));
    });
  }
}

void ImageRowSink::Begin(const Image& description) {
  CopyDescription(description, image);
  nextRow_ = 0;
}

void ImageRowSink::Write(std::uint32_t count, const std::uint8_t* from, std::size_t strideBytes) {
  if (nextRow_ == 0) MakeSamples(image);
  for (; count > 0; --count, from += strideBytes) {
    WithPlaneRows(image.planes, nextRow_++, [&](auto& rows, auto sample) {
      SplitSamples(reinterpret_cast<const decltype(sample)*>(from), rows.size(), image.width,
                   rows.data());
    });
  }
}

void CopyRows(RowSource& source, RowSink& sink) {
  const Image& description = source.Description();
  sink.Begin(description);
  const std::size_t rowBytes = RowBytes(description);
  const auto rows = static_cast<std::uint32_t>(std::clamp<std::size_t>(
      kPieceBytes / std::max<std::size_t>(rowBytes, 1), 1, std::max(description.height, 1U)));
  const auto piece = std::make_unique_for_overwrite<std::uint8_t[]>(rowBytes * rows);
  for (std::uint32_t y = 0; y < description.height; y += rows) {
    const std::uint32_t count = std::min(rows, description.height - y);
    CheckTime();
    source.Read(count, piece.get(), rowBytes);
    sink.Write(count, piece.get(), rowBytes);
  }
  sink.Finish();
}

Image ReadImage(RowSource& source) {
  ImageRowSink sink;
  CopyRows(source, sink);
  return std::move(sink.image);
}

}  // namespace kel::host
