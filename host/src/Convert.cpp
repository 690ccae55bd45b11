// Palettes, chroma, order, depth, orientation and comparison of images.
#include "kel/host/convert.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>

#include "kel/host/errors.hpp"
#include "kel/host/session.hpp"

namespace kel::host {
namespace {

/// A plane of another size or depth for the same channel.
Plane MakeLike(const Plane& model, std::uint32_t width, std::uint32_t height, unsigned depth) {
  Plane plane(width, height, depth);
  plane.role = model.role;
  plane.colour = model.colour;
  plane.xStep = model.xStep;
  plane.yStep = model.yStep;
  return plane;
}

/// Adds to a sum that stops at the largest number.
void AddUpTo(std::uint64_t& sum, std::uint64_t more) {
  sum = more > UINT64_MAX - sum ? UINT64_MAX : sum + more;
}

/// Calls work with pointers to row y of both planes, in their own types.
template <class Work>
void WithRows(const Plane& from, Plane& to, std::uint32_t fromY, std::uint32_t toY, Work&& work) {
  WithSampleType(from.BytesPerSample(), [&](auto fromSample) {
    WithSampleType(to.BytesPerSample(), [&](auto toSample) {
      work(from.Row<decltype(fromSample)>(fromY), to.Row<decltype(toSample)>(toY));
    });
  });
}

/// Fills `to` with lookup(sample) of the samples at the same place.
template <class Lookup>
void MapSamples(const Plane& from, Plane& to, Lookup&& lookup) {
  for (std::uint32_t y = 0; y < from.Height(); ++y) {
    WithRows(from, to, y, y, [&](const auto* source, auto* destination) {
      using Sample = std::remove_pointer_t<decltype(destination)>;
      for (std::uint32_t x = 0; x < from.Width(); ++x) {
        destination[x] = static_cast<Sample>(lookup(source[x]));
      }
    });
  }
}

/// Fills a row of full width: sample k stands at k * step, and what lies in between is on the line
/// to the next one, the last one going on. The samples come multiplied by `scale`.
template <class Sum, class Sample>
void SpreadRow(const std::vector<Sum>& from, std::uint32_t step, Sum scale, Sample* to,
               std::uint32_t width) {
  const Sum divisor = scale * step, half = divisor / 2;
  std::uint32_t x = 0;
  for (std::size_t k = 0; x < width; ++k) {
    const Sum here = from[std::min(k, from.size() - 1)];
    const Sum next = from[std::min(k + 1, from.size() - 1)];
    for (std::uint32_t j = 0; j < step && x < width; ++j, ++x) {
      to[x] = static_cast<Sample>(((step - j) * here + j * next + half) / divisor);
    }
  }
}

/// A plane in full size: its samples where the grid has them, straight lines between neighbours.
/// Sums are of a type that holds samples times both steps.
template <class Sum>
Plane Interpolated(const Plane& plane, std::uint32_t width, std::uint32_t height) {
  Plane full = MakeLike(plane, width, height, plane.Depth());
  full.xStep = full.yStep = 1;
  if (plane.Width() == 0 || plane.Height() == 0) return full;  // narrower than its step
  std::vector<Sum> row(plane.Width());
  for (std::uint32_t y = 0; y < height; ++y) {
    const std::uint32_t top = std::min(y / plane.yStep, plane.Height() - 1);
    const std::uint32_t bottom = std::min(top + 1, plane.Height() - 1);
    const Sum weight = y % plane.yStep;
    WithSampleType(plane.BytesPerSample(), [&](auto sample) {
      using Sample = decltype(sample);
      const Sample *above = plane.Row<Sample>(top), *below = plane.Row<Sample>(bottom);
      for (std::size_t x = 0; x < row.size(); ++x) {
        row[x] = (plane.yStep - weight) * above[x] + weight * below[x];
      }
      SpreadRow<Sum>(row, plane.xStep, plane.yStep, full.Row<Sample>(y), width);
    });
  }
  return full;
}

Plane FullSize(const Plane& plane, std::uint32_t width, std::uint32_t height) {
  // Steps are below 256, so that 16 bits of depth leave no more than 32.
  return plane.Depth() <= 16 ? Interpolated<std::uint32_t>(plane, width, height)
                             : Interpolated<std::uint64_t>(plane, width, height);
}

std::uint32_t Clamped(double value, std::uint32_t most) {
  return static_cast<std::uint32_t>(std::clamp(std::nearbyint(value), 0.0, double{1.0} * most));
}

/// Row y of `to` is column y of `from`, from the bottom up (clockwise) or the top down.
template <class Sample>
void QuarterTurn(const Plane& from, Plane& to, bool clockwise) {
  for (std::uint32_t y = 0; y < from.Height(); ++y) {
    const auto* source = from.Row<Sample>(y);
    const std::uint32_t x = clockwise ? from.Height() - 1 - y : y;
    for (std::uint32_t i = 0; i < from.Width(); ++i) {
      to.Row<Sample>(clockwise ? i : from.Width() - 1 - i)[x] = source[i];
    }
  }
}

Plane Turned(const Plane& plane, int degrees) {
  const bool quarter = degrees != 180;
  Plane turned = MakeLike(plane, quarter ? plane.Height() : plane.Width(),
                          quarter ? plane.Width() : plane.Height(), plane.Depth());
  WithSampleType(plane.BytesPerSample(), [&](auto sample) {
    using Sample = decltype(sample);
    if (quarter) {
      QuarterTurn<Sample>(plane, turned, degrees == 90);
      std::swap(turned.xStep, turned.yStep);
      return;
    }
    for (std::uint32_t y = 0; y < plane.Height(); ++y) {
      const auto* source = plane.Row<Sample>(y);
      std::reverse_copy(source, source + plane.Width(), turned.Row<Sample>(plane.Height() - 1 - y));
    }
  });
  return turned;
}

/// Decibels below full scale; infinite for no error.
double Psnr(double squaredError, double samples, double peak) {
  return squaredError == 0 ? std::numeric_limits<double>::infinity()
                           : 10 * std::log10(peak * peak * samples / squaredError);
}

/// Fills all but psnr; returns the sum of the squared differences.
double ComparePlanes(const Plane& a, const Plane& b, Difference::PlaneDifference& result) {
  double sum = 0;
  for (std::uint32_t y = 0; y < a.Height(); ++y) {
    WithSampleType(a.BytesPerSample(), [&](auto sample) {
      const auto* p = a.Row<decltype(sample)>(y);
      const auto* q = b.Row<decltype(sample)>(y);
      for (std::uint32_t x = 0; x < a.Width(); ++x) {
        const std::uint32_t apart = p[x] < q[x] ? q[x] - p[x] : p[x] - q[x];
        result.largest = std::max(result.largest, apart);
        result.count += apart != 0;
        sum += double{1.0} * apart * apart;
      }
    });
  }
  return sum;
}

/// Colours first, then the opacity of the whole image, then the rest.
std::tuple<int, unsigned> RankOf(const Plane& plane) {
  const bool colour = plane.role == ChannelRole::kColour;
  const bool opacity = plane.role != ChannelRole::kOther && !colour && plane.colour == 0;
  return {colour ? 0 : opacity ? 1 : 2, colour ? plane.colour : 0U};
}

}  // namespace

void ExpandPalette(Image& image) {
  if (!image.palette || image.planes.empty()) return;
  const Palette palette = std::move(*image.palette);
  const Plane indices = std::move(image.planes[0]);
  image.palette.reset();
  image.planes.clear();
  std::uint64_t bytes = 0;
  for (const Palette::Column& column : palette.columns) {
    AddUpTo(bytes, SampleBytes(indices.Width(), indices.Height(), 1, column.depth));
  }
  const MemoryReservation room(bytes, "the colours of a palette");
  unsigned colours = 0;
  for (const Palette::Column& column : palette.columns) {
    Plane& plane = image.planes.emplace_back(indices.Width(), indices.Height(), column.depth);
    plane.role = column.role;
    plane.colour = column.role == ChannelRole::kColour ? ++colours : 0;
    plane.xStep = indices.xStep;
    plane.yStep = indices.yStep;
    if (column.entries.empty()) continue;
    MapSamples(indices, plane, [&](std::uint32_t index) {
      return column.entries[std::min<std::size_t>(index, column.entries.size() - 1)];
    });
  }
}

void UndoSubsampling(Image& image) {
  std::uint64_t bytes = 0;
  for (const Plane& plane : image.planes) {
    if (plane.xStep == 1 && plane.yStep == 1) continue;
    AddUpTo(bytes, SampleBytes(image.width, image.height, 1, plane.Depth()));
  }
  const MemoryReservation room(bytes, "channels in full size");
  for (Plane& plane : image.planes) {
    if (plane.xStep != 1 || plane.yStep != 1) plane = FullSize(plane, image.width, image.height);
  }
}

void ConvertYccToRgb(Image& image) {
  if (image.colourSpace != ColourSpace::kSycc || NumColours(image) < 3) return;
  OrderPlanes(image);
  Plane &first = image.planes[0], &second = image.planes[1], &third = image.planes[2];
  if (first.Depth() != second.Depth() || first.Depth() != third.Depth()) return;
  const std::uint32_t most = first.MaxValue();
  const double middle = (most + 1.0) / 2;
  for (std::uint32_t y = 0; y < image.height; ++y) {
    for (std::uint32_t x = 0; x < image.width; ++x) {
      const double luma = first.At(x, y);
      const double blue = second.At(x, y) - middle, red = third.At(x, y) - middle;
      first.Set(x, y, Clamped(luma + 1.402 * red, most));
      second.Set(x, y, Clamped(luma - 0.344136 * blue - 0.714136 * red, most));
      third.Set(x, y, Clamped(luma + 1.772 * blue, most));
    }
  }
  image.colourSpace = ColourSpace::kSrgb;
}

namespace {

/// Rows of the two chroma planes in full size, without an offset.
struct ChromaRows {
  std::vector<float> blue, red;
};

/// Reads a row of colours, and puts its luminance.
template <class Sample>
void TakeColours(const Image& image, std::uint32_t y, Plane& luminance, ChromaRows& chroma) {
  const Sample* const from[] = {image.planes[0].Row<Sample>(y), image.planes[1].Row<Sample>(y),
                                image.planes[2].Row<Sample>(y)};
  Sample* const to = luminance.Row<Sample>(y);
  for (std::uint32_t x = 0; x < image.width; ++x) {
    const auto r = static_cast<float>(from[0][x]), g = static_cast<float>(from[1][x]),
               b = static_cast<float>(from[2][x]);
    const float luma = 0.299F * r + 0.587F * g + 0.114F * b;
    to[x] = static_cast<Sample>(luma + 0.5F);
    chroma.blue[x] = (b - luma) / 1.772F;
    chroma.red[x] = (r - luma) / 1.402F;
  }
}

/// Puts a row of half size: each sample stands for one at an even place, and has a quarter of each
/// neighbour, across and down; edges are repeated.
void PutHalf(const std::vector<float>* const (&rows)[3], std::uint32_t y, Plane& half) {
  const std::size_t last = rows[0]->size() - 1;
  const auto column = [&](std::size_t x) {
    return (*rows[0])[x] + 2 * (*rows[1])[x] + (*rows[2])[x];
  };
  const std::uint32_t most = half.MaxValue();
  const double middle = (most + 1.0) / 2;
  WithSampleType(half.BytesPerSample(), [&](auto sample) {
    auto* const to = half.Row<decltype(sample)>(y);
    for (std::size_t k = 0; k < half.Width(); ++k) {
      const std::size_t x = 2 * k;
      const float sum = column(x == 0 ? 0 : x - 1) + 2 * column(x) + column(std::min(x + 1, last));
      to[k] = static_cast<decltype(sample)>(Clamped(middle + static_cast<double>(sum) / 16, most));
    }
  });
}

}  // namespace

Image WithHalfChroma(const Image& image) {
  Image halved;
  CopyDescription(image, halved);
  halved.colourSpace = ColourSpace::kSycc;
  const unsigned depth = image.planes[0].Depth();
  const std::uint32_t width = (image.width + 1) / 2, height = (image.height + 1) / 2;
  for (std::size_t c = 0; c < image.planes.size(); ++c) {
    Plane& plane = halved.planes[c];
    if (c > 2) {
      plane = image.planes[c];
      continue;
    }
    plane = c == 0 ? Plane(image.width, image.height, depth) : Plane(width, height, depth);
    plane.colour = static_cast<unsigned>(c + 1);
    plane.xStep = plane.yStep = c == 0 ? 1 : 2;
  }
  ChromaRows rows[3];
  for (ChromaRows& row : rows) row.blue = row.red = std::vector<float>(image.width);
  const std::uint32_t last = image.height - 1;
  WithSampleType(image.planes[0].BytesPerSample(), [&](auto sample) {
    std::uint32_t next = 0;
    for (std::uint32_t y = 0; y < height; ++y) {
      for (; next <= std::min(2 * y + 1, last); ++next) {
        TakeColours<decltype(sample)>(image, next, halved.planes[0], rows[next % 3]);
      }
      const ChromaRows& above = rows[(y == 0 ? 0 : 2 * y - 1) % 3];
      const ChromaRows& here = rows[2 * y % 3];
      const ChromaRows& below = rows[std::min(2 * y + 1, last) % 3];
      PutHalf({&above.blue, &here.blue, &below.blue}, y, halved.planes[1]);
      PutHalf({&above.red, &here.red, &below.red}, y, halved.planes[2]);
    }
  });
  return halved;
}

void OrderPlanes(Image& image) {
  std::ranges::stable_sort(image.planes, {}, RankOf);
}

bool IsOrdinary(const Image& image) {
  const bool full = std::ranges::all_of(
      image.planes, [](const Plane& plane) { return plane.xStep == 1 && plane.yStep == 1; });
  const bool ycc = image.colourSpace == ColourSpace::kSycc && NumColours(image) >= 3;
  return full && !ycc && !image.palette && std::ranges::is_sorted(image.planes, {}, RankOf);
}

void MakeOrdinary(Image& image) {
  ExpandPalette(image);
  OrderPlanes(image);
  UndoSubsampling(image);
  ConvertYccToRgb(image);
}

void ChangeDepth(Image& image, unsigned depth) {
  if (image.palette) throw Error(Failure::kParameter, "the depth of palette indices cannot change");
  for (Plane& plane : image.planes) {
    if (plane.Depth() == depth) continue;
    Plane changed = MakeLike(plane, plane.Width(), plane.Height(), depth);
    const std::uint64_t from = plane.MaxValue(), to = changed.MaxValue();
    MapSamples(plane, changed, [&](std::uint64_t value) { return (value * to + from / 2) / from; });
    plane = std::move(changed);
  }
}

void Rotate(Image& image, int degrees) {
  if (degrees == 0) return;
  if (degrees != 90 && degrees != 180 && degrees != 270) {
    throw Error(Failure::kParameter, "images turn by 90, 180 or 270 degrees");
  }
  for (Plane& plane : image.planes) plane = Turned(plane, degrees);
  if (degrees == 180) return;
  std::swap(image.width, image.height);
  if (image.resolution) std::swap(image.resolution->x, image.resolution->y);
}

void Orient(Image& image, unsigned orientation) {
  if (orientation < 1 || orientation > 8) {
    throw Error(Failure::kParameter, "orientations are numbers from 1 to 8");
  }
  // Every orientation is one of four turns, of the picture or of its mirror image.
  constexpr bool kMirrored[] = {false, true, false, true, true, false, true, false};
  constexpr int kDegrees[] = {0, 0, 180, 180, 270, 90, 90, 270};
  for (Plane& plane : image.planes) {
    if (!kMirrored[orientation - 1]) break;
    for (std::uint32_t y = 0; y < plane.Height(); ++y) {
      WithSampleType(plane.BytesPerSample(), [&](auto sample) {
        auto* row = plane.Row<decltype(sample)>(y);
        std::reverse(row, row + plane.Width());
      });
    }
  }
  Rotate(image, kDegrees[orientation - 1]);
}

Difference Compare(const Image& a, const Image& b) {
  if (a.planes.size() != b.planes.size()) {
    throw Error(Failure::kParameter, "the images have " + std::to_string(a.planes.size()) +
                                         " and " + std::to_string(b.planes.size()) + " channels");
  }
  Difference difference;
  double relativeSum = 0, samples = 0;
  for (std::size_t i = 0; i < a.planes.size(); ++i) {
    const Plane &left = a.planes[i], &right = b.planes[i];
    if (left.Width() != right.Width() || left.Height() != right.Height()) {
      throw Error(Failure::kParameter, "the images differ in size");
    }
    if (left.Depth() != right.Depth()) {
      throw Error(Failure::kParameter, "the images differ in depth");
    }
    Difference::PlaneDifference& plane = difference.planes.emplace_back();
    const double squaredError = ComparePlanes(left, right, plane);
    const double peak = left.MaxValue();
    const double count = double{1.0} * left.Width() * left.Height();
    plane.psnr = Psnr(squaredError, count, peak);
    relativeSum += squaredError / (peak * peak);
    samples += count;
  }
  difference.psnr = Psnr(relativeSum, samples, 1);
  difference.identical = relativeSum == 0;
  return difference;
}

}  // namespace kel::host
