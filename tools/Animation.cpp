// Laying pictures over each other, sample by sample.
#include "Animation.hpp"

#include <kel/host/errors.hpp>
#include <kel/host/limits.hpp>

#include <algorithm>
#include <utility>

namespace kel::tool {
namespace {

using host::Image;
using host::Plane;

/// Rows of a part of one plane into a part of another of the same depth.
void CopyPart(const Plane& from, std::uint32_t fromX, std::uint32_t fromY, Plane& to,
              std::uint32_t toX, std::uint32_t toY, std::uint32_t width, std::uint32_t height) {
  host::WithSampleType(from.BytesPerSample(), [&](auto sample) {
    using Sample = decltype(sample);
    for (std::uint32_t y = 0; y < height; ++y) {
      std::copy_n(from.Row<Sample>(fromY + y) + fromX, width, to.Row<Sample>(toY + y) + toX);
    }
  });
}

void Fill(Plane& plane, std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint32_t height,
          std::uint32_t value) {
  host::WithSampleType(plane.BytesPerSample(), [&](auto sample) {
    using Sample = decltype(sample);
    for (std::uint32_t row = y; row < y + height; ++row) {
      std::fill_n(plane.Row<Sample>(row) + x, width, static_cast<Sample>(value));
    }
  });
}

/// With opacities s above d (of most), the sum is s + d (most - s) / most, and a colour is the mean
/// of both, weighted by what each adds to that sum.
template <class Sample>
void LayRow(const std::vector<const Sample*>& above, const std::vector<Sample*>& below,
            std::uint32_t width, std::uint64_t most) {
  const std::size_t last = below.size() - 1;
  for (std::uint32_t x = 0; x < width; ++x) {
    const std::uint64_t s = above[last][x], d = below[last][x];
    const std::uint64_t sum = s * most + d * (most - s);
    if (s == 0 || sum == 0) continue;
    for (std::size_t c = 0; c < last; ++c) {
      const std::uint64_t mixed = above[c][x] * s * most + below[c][x] * d * (most - s);
      below[c][x] = static_cast<Sample>((mixed + sum / 2) / sum);
    }
    below[last][x] = static_cast<Sample>((sum + most / 2) / most);
  }
}

void LayOver(const AnimationFrame& frame, Image& canvas) {
  const Image& image = frame.image;
  host::WithSampleType(canvas.planes[0].BytesPerSample(), [&](auto sample) {
    using Sample = decltype(sample);
    std::vector<const Sample*> above(canvas.planes.size());
    std::vector<Sample*> below(canvas.planes.size());
    for (std::uint32_t y = 0; y < image.height; ++y) {
      for (std::size_t c = 0; c < below.size(); ++c) {
        above[c] = image.planes[c].Row<Sample>(y);
        below[c] = canvas.planes[c].Row<Sample>(frame.y + y) + frame.x;
      }
      LayRow(above, below, image.width, canvas.planes[0].MaxValue());
    }
  });
}

bool IsOpaque(const Plane& opacity) {
  return host::WithSampleType(opacity.BytesPerSample(), [&](auto sample) {
    using Sample = decltype(sample);
    for (std::uint32_t y = 0; y < opacity.Height(); ++y) {
      const Sample* row = opacity.Row<Sample>(y);
      const auto isFull = [&](Sample value) { return value == opacity.MaxValue(); };
      if (!std::all_of(row, row + opacity.Width(), isFull)) return false;
    }
    return true;
  });
}

}  // namespace

/// What becomes of the last frame's place before the next one is laid.
void AnimationCanvas::FinishLast() {
  const Image& image = last_.image;
  for (std::size_t c = 0; c < canvas_.planes.size(); ++c) {
    Plane& plane = canvas_.planes[c];
    if (last_.afterwards == AnimationFrame::Afterwards::kIsCleared) {
      Fill(plane, last_.x, last_.y, image.width, image.height, 0);
    } else if (last_.afterwards == AnimationFrame::Afterwards::kIsTakenBack) {
      CopyPart(before_.planes[c], 0, 0, plane, last_.x, last_.y, image.width, image.height);
    }
  }
}

void AnimationCanvas::Put(AnimationFrame frame) {
  host::CheckTime();
  const Image& image = frame.image;
  const unsigned colours = host::NumColours(image);
  const bool opacity = host::OpacityPlane(image) != nullptr;
  const unsigned depth = image.planes.empty() ? 0 : image.planes[0].Depth();
  if (canvas_.planes.empty() && depth != 0) {
    canvas_ = host::MakeImage(width_, height_, colours, depth, true);
  }
  const bool fits = image.planes.size() == colours + (opacity ? 1U : 0U) && depth != 0 &&
                    canvas_.planes.size() == colours + 1 && canvas_.planes[0].Depth() == depth &&
                    image.width <= width_ && frame.x <= width_ - image.width &&
                    image.height <= height_ && frame.y <= height_ - image.height;
  if (!fits) throw host::Error(host::Failure::kInput, "a damaged animation");
  FinishLast();
  if (frame.afterwards == AnimationFrame::Afterwards::kIsTakenBack) {
    before_ = host::MakeImage(image.width, image.height, colours, depth, true);
    for (std::size_t c = 0; c < canvas_.planes.size(); ++c) {
      CopyPart(canvas_.planes[c], frame.x, frame.y, before_.planes[c], 0, 0, image.width,
               image.height);
    }
  }
  if (opacity && frame.over) {
    LayOver(frame, canvas_);
  } else {
    for (std::size_t c = 0; c < image.planes.size(); ++c) {
      CopyPart(image.planes[c], 0, 0, canvas_.planes[c], frame.x, frame.y, image.width,
               image.height);
    }
    Plane& last = canvas_.planes.back();
    if (!opacity) Fill(last, frame.x, frame.y, image.width, image.height, last.MaxValue());
  }
  hasOpacity_ = hasOpacity_ || opacity;
  last_ = std::move(frame);
}

Image AnimationCanvas::Take() {
  Image seen;
  host::CopyDescription(last_.image, seen);
  if (!hasOpacity_ && IsOpaque(canvas_.planes.back())) canvas_.planes.pop_back();
  seen.width = width_;
  seen.height = height_;
  seen.planes = std::exchange(canvas_.planes, {});
  return seen;
}

}  // namespace kel::tool
