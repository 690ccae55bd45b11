// An image in memory, as applications hold it: planes of unsigned samples with what goes beside
// them. A value: copies are independent.
#ifndef KEL_HOST_IMAGE_HPP
#define KEL_HOST_IMAGE_HPP

#include "language.hpp"

#include <kel/KelFormat.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "streams.hpp"

namespace kel::host {

/// What the samples of a plane are.
enum class ChannelRole { kColour, kOpacity, kPremultipliedOpacity, kOther };

/// Colour spaces that a number stands for; the numbers are those of the file format.
enum class ColourSpace : std::uint32_t {
  kUnspecified = 0,
  kCmyk = format::kSpaceCMYK,
  kCieLab = format::kSpaceCIELab,
  kSrgb = format::kSpaceSRGB,
  kGrey = format::kSpaceGrey,
  kSycc = format::kSpaceSYCC,
  kCieJab = format::kSpaceCIEJab
};

/// Zeroed bytes with the copies of a value, for samples: large blocks that cost little to obtain.
class SampleBuffer {
 public:
  SampleBuffer() = default;
  explicit SampleBuffer(std::size_t bytes);  ///< throws std::bad_alloc
  SampleBuffer(const SampleBuffer& other);
  SampleBuffer(SampleBuffer&& other) noexcept { Swap(other); }
  SampleBuffer& operator=(SampleBuffer other) noexcept {
    Swap(other);
    return *this;
  }
  ~SampleBuffer();
  std::uint8_t* Data() { return start_; }
  const std::uint8_t* Data() const { return start_; }
  std::size_t Size() const { return size_; }

 private:
  void Swap(SampleBuffer& other) noexcept {
    std::swap(start_, other.start_);
    std::swap(size_, other.size_);
  }

  std::uint8_t* start_ = nullptr;
  std::size_t size_ = 0;
};

/// The samples of one channel, 1 to 32 bits deep. They stand row by row in one, two or four bytes
/// each (up to 8, up to 16, and more bits), in the byte order of the machine; a row begins every
/// StrideBytes() bytes, a multiple of 16, and the first at a multiple of 16.
class Plane {
 public:
  Plane() = default;
  /// All samples zero. Throws Error: kParameter for a depth outside 1 to 32, kMemory for more
  /// samples than the limit on pixels allows (LimitScope).
  Plane(std::uint32_t width, std::uint32_t height, unsigned depth);
  /// A plane that tells its size and depth and holds no samples, for descriptions of images whose
  /// rows come one after another. Throws as above.
  static Plane WithoutSamples(std::uint32_t width, std::uint32_t height, unsigned depth);

  std::uint32_t Width() const { return width_; }
  std::uint32_t Height() const { return height_; }
  unsigned Depth() const { return depth_; }
  std::uint32_t MaxValue() const { return UINT32_MAX >> (32 - depth_); }
  unsigned BytesPerSample() const { return depth_ <= 8 ? 1 : depth_ <= 16 ? 2 : 4; }
  std::size_t StrideBytes() const { return stride_; }

  /// The samples of a row as std::uint8_t, std::uint16_t or std::uint32_t, whichever
  /// BytesPerSample() says.
  template <class Sample>
  Sample* Row(std::uint32_t y) {
    return reinterpret_cast<Sample*>(bytes_.Data() + y * stride_);
  }
  template <class Sample>
  const Sample* Row(std::uint32_t y) const {
    return reinterpret_cast<const Sample*>(bytes_.Data() + y * stride_);
  }
  /// One sample; slow, for programs that look at few.
  std::uint32_t At(std::uint32_t x, std::uint32_t y) const;
  void Set(std::uint32_t x, std::uint32_t y, std::uint32_t value);

  ChannelRole role = ChannelRole::kColour;
  /// Which colour the plane holds or applies to, from 1 (red or grey) on; 0: the whole image.
  unsigned colour = 1;
  /// Distance of neighbouring samples on the image's grid; 2 and 2 for the chroma planes of 4:2:0.
  std::uint32_t xStep = 1, yStep = 1;

 private:
  struct Shape {};
  Plane(std::uint32_t width, std::uint32_t height, unsigned depth, Shape);

  std::uint32_t width_ = 0, height_ = 0;
  unsigned depth_ = 8;
  std::size_t stride_ = 0;
  SampleBuffer bytes_;
};

/// Calls work with a value of the type that holds one sample of so many bytes.
template <class Work>
decltype(auto) WithSampleType(unsigned bytesPerSample, Work&& work) {
  switch (bytesPerSample) {
    case 1:
      return work(std::uint8_t{});
    case 2:
      return work(std::uint16_t{});
    default:
      return work(std::uint32_t{});
  }
}

/// Channels looked up by the samples of plane 0.
struct Palette {
  struct Column {
    unsigned depth = 8;
    ChannelRole role = ChannelRole::kColour;
    std::vector<std::uint32_t> entries;
  };
  std::vector<Column> columns;
};

struct Resolution {
  double x = 0, y = 0;  ///< samples per inch
};

struct UuidPayload {
  std::array<std::uint8_t, 16> id{};
  Bytes data;
};

struct Image {
  std::uint32_t width = 0, height = 0;  ///< of the grid; a plane has ceil(width / xStep) columns
  std::vector<Plane> planes;
  ColourSpace colourSpace = ColourSpace::kUnspecified;
  Bytes iccProfile;  ///< empty when none
  std::optional<Palette> palette;
  std::optional<Resolution> resolution;
  std::string comment;
  std::vector<std::string> xml;  ///< contents of XML boxes
  std::vector<UuidPayload> uuids;
};

/// A grey (1 colour) or RGB (3 colours) image with all samples zero. Throws Error (kMemory) when
/// its samples would exceed the session's limit.
Image MakeImage(std::uint32_t width, std::uint32_t height, unsigned numColours, unsigned depth,
                bool withOpacity = false);

/// The same without samples; the limit on pixels holds for it too.
Image DescribeNewImage(std::uint32_t width, std::uint32_t height, unsigned numColours,
                       unsigned depth, bool withOpacity = false);

/// Everything of an image but its samples.
void CopyDescription(const Image& from, Image& to);
/// Gives every plane of a described image its samples, all zero. Throws as MakeImage.
void MakeSamples(Image& image);

/// Number of colour planes.
unsigned NumColours(const Image& image);
/// The plane whose opacity applies to the whole image; null when there is none.
const Plane* OpacityPlane(const Image& image);
/// Bytes that the samples of an image of this shape take.
std::uint64_t SampleBytes(std::uint32_t width, std::uint32_t height, unsigned numPlanes,
                          unsigned depth);

}  // namespace kel::host

#endif
