// Rows by way of small images, to which the kit's operations apply.
#include "DecodedRows.hpp"

#include <kel/host/convert.hpp>

namespace kel::tool {
namespace {

/// The description with so many rows of another depth, unless that is 0.
host::Image Described(const host::Image& like, std::uint32_t height, unsigned depth) {
  host::Image image;
  host::CopyDescription(like, image);
  image.height = height;
  for (host::Plane& plane : image.planes) {
    const host::Plane before = plane;
    plane =
        host::Plane::WithoutSamples(before.Width(), height, depth == 0 ? before.Depth() : depth);
    plane.role = before.role;
    plane.colour = before.colour;
    plane.xStep = before.xStep;
    plane.yStep = before.yStep;
  }
  return image;
}

}  // namespace

DecodedRows::DecodedRows(unsigned bits, RawPlanes* raw, host::RowSink* next)
    : bits_(bits), raw_(raw), next_(next) {}

void DecodedRows::Begin(const host::Image& description) {
  host::CopyDescription(description, description_);
  const host::Image changed = Described(description, description.height, bits_);
  if (raw_ != nullptr) raw_->Begin(changed);
  if (next_ != nullptr) next_->Begin(changed);
}

void DecodedRows::Write(std::uint32_t count, const std::uint8_t* rows, std::size_t strideBytes) {
  if (bits_ == 0 && raw_ == nullptr) return next_->Write(count, rows, strideBytes);
  host::ImageRowSink piece;
  piece.Begin(Described(description_, count, 0));
  piece.Write(count, rows, strideBytes);
  if (bits_ != 0) host::ChangeDepth(piece.image, bits_);
  if (raw_ != nullptr) raw_->Append(piece.image);
  if (next_ == nullptr) return;
  const std::size_t rowBytes = host::RowBytes(piece.image);
  host::Bytes changed(rowBytes * count);
  host::ImageRowSource(piece.image).Read(count, changed.data(), rowBytes);
  next_->Write(count, changed.data(), rowBytes);
}

void DecodedRows::Finish() {
  if (next_ != nullptr) next_->Finish();
  if (raw_ != nullptr) raw_->Finish();
}

}  // namespace kel::tool
