// Reading EXIF data: a TIFF header, and the first directory behind it. Nothing in them is trusted.
//
//   0 byte order, II or MM   2 the number 42 (2)   4 place of the first directory (4)
//   directory: number of entries (2), then entries of 12: tag (2), type (2), count (4), value (4)
#include "kel/host/exif.hpp"

#include <algorithm>
#include <optional>

namespace kel::host {
namespace {

constexpr unsigned kOrientationTag = 0x0112, kShortType = 3;
constexpr std::size_t kEntryBytes = 12;

/// Numbers of a TIFF file, in its byte order; none behind its end.
struct TiffNumbers {
  ByteView bytes;
  bool isBigEndian;

  std::optional<std::uint32_t> At(std::size_t place, std::size_t count) const {
    if (place > bytes.size() || count > bytes.size() - place) return std::nullopt;
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < count; ++i) {
      value = value << 8 | bytes[place + (isBigEndian ? i : count - 1 - i)];
    }
    return value;
  }
};

}  // namespace

ByteView FindExif(const Image& image) {
  const auto found = std::ranges::find(image.uuids, kExifId, &UuidPayload::id);
  return found == image.uuids.end() ? ByteView() : ByteView(found->data);
}

unsigned OrientationOf(const Image& image) {
  const ByteView exif = FindExif(image);
  if (exif.size() < 8 || exif[0] != exif[1] || (exif[0] != 'I' && exif[0] != 'M')) return 1;
  const TiffNumbers numbers{exif, exif[0] == 'M'};
  const std::size_t directory = *numbers.At(4, 4);
  const std::uint32_t count = numbers.At(directory, 2).value_or(0);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::size_t entry = directory + 2 + i * kEntryBytes;
    const auto tag = numbers.At(entry, 2);
    if (!tag) break;
    if (*tag != kOrientationTag || numbers.At(entry + 2, 2) != kShortType) continue;
    const unsigned value = numbers.At(entry + 8, 2).value_or(1);
    return value >= 1 && value <= 8 ? value : 1;
  }
  return 1;
}

}  // namespace kel::host
