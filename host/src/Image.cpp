// Planes and what can be asked about an image.
#include "kel/host/image.hpp"

#include <algorithm>
#include <new>
#include <utility>

#include "Pages.hpp"
#include "kel/host/errors.hpp"
#include "kel/host/limits.hpp"
#include "kel/host/session.hpp"

namespace kel::host {
namespace {

/// Rows begin at multiples of this, which lets the decoder write into them with whole vectors.
constexpr std::uint64_t kRowAlignment = 16;

std::uint64_t RowBytes(std::uint32_t width, unsigned depth) {
  const std::uint64_t bytes = std::uint64_t{width} * (depth <= 8 ? 1 : depth <= 16 ? 2 : 4);
  return (bytes + kRowAlignment - 1) / kRowAlignment * kRowAlignment;
}

/// a * b, or the largest number when the product is beyond it.
std::uint64_t Product(std::uint64_t a, std::uint64_t b) {
  return a != 0 && b > UINT64_MAX / a ? UINT64_MAX : a * b;
}

/// What a plane holds and where its samples lie.
void CopyMeaning(const Plane& from, Plane& to) {
  to.role = from.role;
  to.colour = from.colour;
  to.xStep = from.xStep;
  to.yStep = from.yStep;
}

}  // namespace

SampleBuffer::SampleBuffer(std::size_t bytes) : size_(bytes) {
  if (bytes == 0) return;
  start_ = static_cast<std::uint8_t*>(TakePages(bytes));
  if (start_ == nullptr) throw std::bad_alloc();
}

SampleBuffer::SampleBuffer(const SampleBuffer& other) : SampleBuffer(other.size_) {
  std::copy_n(other.start_, size_, start_);
}

SampleBuffer::~SampleBuffer() {
  GivePages(start_, size_);
}

Plane::Plane(std::uint32_t width, std::uint32_t height, unsigned depth, Shape)
    : width_(width), height_(height), depth_(depth) {
  if (depth < 1 || depth > 32) {
    throw Error(Failure::kParameter,
                "samples of " + std::to_string(depth) + " bits; 1 to 32 are possible");
  }
  stride_ = static_cast<std::size_t>(RowBytes(width, depth));
}

Plane Plane::WithoutSamples(std::uint32_t width, std::uint32_t height, unsigned depth) {
  return {width, height, depth, Shape()};
}

Plane::Plane(std::uint32_t width, std::uint32_t height, unsigned depth)
    : Plane(width, height, depth, Shape()) {
  CheckPixels(width, height);
  const std::uint64_t size = Product(stride_, height);
  const auto refuse = [&] {
    throw Error(Failure::kMemory, "there is no memory for " + FormatBytes(size) + " of samples");
  };
  if (size > PTRDIFF_MAX) refuse();
  try {
    bytes_ = SampleBuffer(static_cast<std::size_t>(size));
  } catch (const std::bad_alloc&) {
    refuse();
  }
}

std::uint32_t Plane::At(std::uint32_t x, std::uint32_t y) const {
  return WithSampleType(BytesPerSample(),
                        [&](auto sample) -> std::uint32_t { return Row<decltype(sample)>(y)[x]; });
}

void Plane::Set(std::uint32_t x, std::uint32_t y, std::uint32_t value) {
  WithSampleType(BytesPerSample(), [&](auto sample) {
    Row<decltype(sample)>(y)[x] = static_cast<decltype(sample)>(value);
  });
}

Image DescribeNewImage(std::uint32_t width, std::uint32_t height, unsigned numColours,
                       unsigned depth, bool withOpacity) {
  CheckPixels(width, height);
  Image image;
  image.width = width;
  image.height = height;
  image.colourSpace = numColours == 1   ? ColourSpace::kGrey
                      : numColours == 3 ? ColourSpace::kSrgb
                                        : ColourSpace::kUnspecified;
  for (unsigned i = 0; i < numColours + (withOpacity ? 1 : 0); ++i) {
    Plane& plane = image.planes.emplace_back(Plane::WithoutSamples(width, height, depth));
    plane.role = i < numColours ? ChannelRole::kColour : ChannelRole::kOpacity;
    plane.colour = i < numColours ? i + 1 : 0;
  }
  return image;
}

Image MakeImage(std::uint32_t width, std::uint32_t height, unsigned numColours, unsigned depth,
                bool withOpacity) {
  Image image = DescribeNewImage(width, height, numColours, depth, withOpacity);
  MakeSamples(image);
  return image;
}

void CopyDescription(const Image& from, Image& to) {
  to.width = from.width;
  to.height = from.height;
  to.planes.clear();
  for (const Plane& plane : from.planes) {
    to.planes.push_back(Plane::WithoutSamples(plane.Width(), plane.Height(), plane.Depth()));
    CopyMeaning(plane, to.planes.back());
  }
  to.colourSpace = from.colourSpace;
  to.iccProfile = from.iccProfile;
  to.palette = from.palette;
  to.resolution = from.resolution;
  to.comment = from.comment;
  to.xml = from.xml;
  to.uuids = from.uuids;
}

void MakeSamples(Image& image) {
  std::uint64_t bytes = 0;
  for (const Plane& plane : image.planes) {
    const std::uint64_t more = SampleBytes(plane.Width(), plane.Height(), 1, plane.Depth());
    bytes = more > UINT64_MAX - bytes ? UINT64_MAX : bytes + more;
  }
  // Held only while the planes are made: from then on they are the caller's to account for.
  const MemoryReservation room(bytes, "the samples");
  for (Plane& plane : image.planes) {
    const Plane shape = std::exchange(plane, Plane(plane.Width(), plane.Height(), plane.Depth()));
    CopyMeaning(shape, plane);
  }
}

unsigned NumColours(const Image& image) {
  return static_cast<unsigned>(
      std::ranges::count(image.planes, ChannelRole::kColour, &Plane::role));
}

const Plane* OpacityPlane(const Image& image) {
  for (const Plane& plane : image.planes) {
    const bool opacity =
        plane.role == ChannelRole::kOpacity || plane.role == ChannelRole::kPremultipliedOpacity;
    if (opacity && plane.colour == 0) return &plane;
  }
  return nullptr;
}

std::uint64_t SampleBytes(std::uint32_t width, std::uint32_t height, unsigned numPlanes,
                          unsigned depth) {
  return Product(Product(RowBytes(width, depth), height), numPlanes);
}

}  // namespace kel::host
