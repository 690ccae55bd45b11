// The walk over boxes, main header and tile-parts.
//
// Box: length (4 bytes, 0 = to the end, 1 = 8 more bytes of length follow), type (4), contents.
// Marker segment: marker (2 bytes, the first the flavour's), length (2, itself included), contents.
// Tile-part: SOT segment of 12 bytes (marker, length 10, tile (2), length of the tile-part from
// the marker on (4, 0 = to the end), index (1), count (1)), further segments, SOD, packets.
// Markers 30 to 3F and 92 stand alone, without a length.
#include "StreamScan.hpp"

#include <algorithm>

namespace kel::host {
namespace {

constexpr std::uint32_t Type(const char (&text)[5]) {
  std::uint32_t type = 0;
  for (int i = 0; i < 4; ++i) type = type << 8 | static_cast<std::uint8_t>(text[i]);
  return type;
}

// Second bytes of the markers.
constexpr unsigned kSoc = 0x4F, kSiz = 0x51, kCod = 0x52, kCoc = 0x53, kCom = 0x64;
constexpr unsigned kSot = 0x90, kEph = 0x92, kSod = 0x93, kEoc = 0xD9;
constexpr std::uint64_t kSotBytes = 12;
constexpr std::uint64_t kSotWithSodBytes = 14;

/// Big-endian numbers at positions of the data; bytes beyond the end read as 0.
class Numbers {
 public:
  explicit Numbers(ByteView bytes) : bytes_(bytes) {}
  std::uint64_t Size() const { return bytes_.size(); }
  std::uint64_t At(std::uint64_t offset, unsigned count) const {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < count; ++i) {
      value = value << 8 | (offset + i < bytes_.size() ? bytes_[offset + i] : 0U);
    }
    return value;
  }
  unsigned U8(std::uint64_t offset) const { return static_cast<unsigned>(At(offset, 1)); }
  unsigned U16(std::uint64_t offset) const { return static_cast<unsigned>(At(offset, 2)); }
  std::uint32_t U32(std::uint64_t offset) const {
    return static_cast<std::uint32_t>(At(offset, 4));
  }

 private:
  ByteView bytes_;
};

/// The box at an offset; its length is 0 when no whole header stands there.
ScannedBox BoxAt(const Numbers& data, std::uint64_t offset, std::uint64_t end,
                 std::uint64_t& headerBytes) {
  if (offset + 8 > end) return {};
  ScannedBox box{data.U32(offset + 4), offset, data.U32(offset), true};
  headerBytes = 8;
  if (box.length == 1 && offset + 16 <= end) {
    box.length = data.At(offset + 8, 8);
    headerBytes = 16;
  } else if (box.length == 0) {
    box.length = end - offset;
    box.isWhole = false;
  }
  if (box.length < headerBytes) return {};
  box.isWhole = box.isWhole && box.length <= end - offset;
  box.length = std::min(box.length, end - offset);
  return box;
}

/// The image header box: height (4), width (4), components (2), depth byte of all components or
/// 255 when they vary and a box of depth bytes follows, and three bytes more.
constexpr std::uint64_t kImageHeaderBytes = 14;
constexpr unsigned kDepthsVary = 255;

void ScanHeaderBox(const Numbers& data, const ScannedBox& parent, StreamScan& scan) {
  const std::uint64_t end = parent.offset + parent.length;
  std::uint64_t headerBytes = 8;
  for (std::uint64_t at = parent.offset + 8; at < end;) {
    const ScannedBox box = BoxAt(data, at, end, headerBytes);
    if (box.length == 0) return;
    const std::uint64_t contents = at + headerBytes;
    if (box.type == Type("cmap")) {
      scan.numMappedChannels = static_cast<std::uint32_t>((box.length - headerBytes) / 4);
    } else if (box.type == Type("ihdr") && box.length == headerBytes + kImageHeaderBytes) {
      const auto depth = static_cast<std::uint8_t>(data.U8(contents + 10));
      scan.boxDepths.assign(depth == kDepthsVary ? 0 : data.U16(contents + 8), depth);
    } else if (box.type == Type("bpcc")) {
      scan.boxDepths.clear();
      for (std::uint64_t i = contents; i < at + box.length; ++i) {
        scan.boxDepths.push_back(static_cast<std::uint8_t>(data.U8(i)));
      }
    }
    at += box.length;
  }
}

/// False when the boxes lead to no code stream.
bool ScanBoxes(const Numbers& data, StreamScan& scan) {
  std::uint64_t headerBytes = 8;
  bool found = false;
  for (std::uint64_t at = 0; at < data.Size();) {
    const ScannedBox box = BoxAt(data, at, data.Size(), headerBytes);
    if (box.length == 0) break;
    scan.boxes.push_back(box);
    if (box.type == Type("vrmh") || box.type == Type("jp2h")) ScanHeaderBox(data, box, scan);
    if (!found && (box.type == Type("vrmc") || box.type == Type("jp2c"))) {
      found = true;
      scan.codeStreamOffset = at + headerBytes;
      scan.codeStreamEnd = at + box.length;
    }
    at += box.length;
  }
  return found;
}

void ScanSiz(const Numbers& data, std::uint64_t at, ScannedGrid& grid) {
  std::uint64_t* fields[] = {&grid.x1,        &grid.y1,         &grid.x0,     &grid.y0,
                             &grid.tileWidth, &grid.tileHeight, &grid.tileX0, &grid.tileY0};
  for (unsigned i = 0; i < 8; ++i) *fields[i] = data.U32(at + 6 + 4 * i);
}

/// What the segment's length field holds; 0 for a marker that stands alone.
std::uint64_t SegmentLength(const Numbers& data, std::uint64_t at) {
  const unsigned marker = data.U8(at + 1);
  return (marker >= 0x30 && marker <= 0x3F) || marker == kEph ? 0 : data.U16(at + 2);
}

/// Walks the segments up to the first tile-part.
void ScanMainHeader(const Numbers& data, ByteView bytes, StreamScan& scan) {
  std::uint64_t at = scan.codeStreamOffset;
  if (data.U8(at + 1) == kSoc) at += 2;  // in a file the library can do without it
  while (at + 4 <= scan.codeStreamEnd && data.U8(at) == scan.markerByte) {
    const unsigned marker = data.U8(at + 1);
    if (marker == kSot) {
      scan.hasMainHeader = scan.sizOffset != 0;
      scan.tilePartOffset = at;
      return;
    }
    const std::uint64_t length = SegmentLength(data, at);
    const std::uint64_t end = at + 2 + length;
    if (marker == kEoc || end > scan.codeStreamEnd) return;
    if (marker == kSiz) {
      scan.sizOffset = at;
      ScanSiz(data, at, scan.grid);
    } else if (marker == kCom && length > 4) {
      scan.comment.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at + 6),
                          bytes.begin() + static_cast<std::ptrdiff_t>(end));
    }
    at = end;
  }
}

bool HasOwnStyle(const Numbers& data, const StreamScan& scan, const ScannedTilePart& part) {
  const std::uint64_t end = part.offset + part.length;
  for (std::uint64_t at = part.offset + kSotBytes; at + 4 <= end;) {
    const unsigned marker = data.U8(at + 1);
    if (marker == kCod || marker == kCoc) return true;
    if (data.U8(at) != scan.markerByte || marker == kSod) return false;
    at += 2 + SegmentLength(data, at);
  }
  return false;
}

/// Where the packets of the data end when the last tile-part does not say so.
std::uint64_t EndOfPackets(const Numbers& data, const StreamScan& scan) {
  const std::uint64_t end = scan.codeStreamEnd;
  const bool marked = data.U8(end - 2) == scan.markerByte && data.U8(end - 1) == kEoc;
  return marked ? end - 2 : end;
}

/// The next place from `at` on where an SOT segment with sensible values stands; the end of the
/// code stream when there is none.
std::uint64_t FindSot(const Numbers& data, const StreamScan& scan, std::uint64_t at,
                      std::uint64_t numTiles) {
  for (; at + kSotBytes <= scan.codeStreamEnd; ++at) {
    if (data.U8(at) != scan.markerByte || data.U8(at + 1) != kSot) continue;
    const std::uint32_t length = data.U32(at + 6);
    const bool sensible = data.U16(at + 2) == kSotBytes - 2 && data.U16(at + 4) < numTiles &&
                          (length == 0 || length >= kSotWithSodBytes);
    if (sensible) return at;
  }
  return scan.codeStreamEnd;
}

/// The length of the tile-part at a position, and whether it is the one that the header gives or,
/// of the last tile-part, may leave out.
std::uint64_t TilePartLength(const Numbers& data, const StreamScan& scan, std::uint64_t at,
                             std::uint64_t numTiles, bool& isRight) {
  const std::uint64_t announced = data.U32(at + 6), left = scan.codeStreamEnd - at;
  if (announced >= kSotWithSodBytes && announced <= left) {
    const std::uint64_t next = at + announced;
    const unsigned marker = data.U8(next) == scan.markerByte ? data.U8(next + 1) : 0;
    isRight = next + 2 > scan.codeStreamEnd || marker == kSot || marker == kEoc;
    if (isRight) return announced;
  }
  const std::uint64_t next = FindSot(data, scan, at + kSotBytes, numTiles);
  isRight = announced == 0 && next == scan.codeStreamEnd;
  return std::min(next, std::max(EndOfPackets(data, scan), at + kSotWithSodBytes)) - at;
}

void ScanTileParts(const Numbers& data, StreamScan& scan) {
  const std::uint64_t numTiles = scan.grid.TilesAcross() * scan.grid.TilesDown();
  const std::uint64_t end = scan.codeStreamEnd;
  std::uint64_t at = scan.tilePartOffset;
  const auto markerAt = [&](std::uint64_t offset) {
    return data.U8(offset) == scan.markerByte ? data.U8(offset + 1) : 0U;
  };
  bool allRight = true;
  while (at + kSotWithSodBytes <= end && markerAt(at) == kSot) {
    ScannedTilePart part{data.U16(at + 4), data.U8(at + 10), at, 0};
    if (part.tile >= numTiles) return;
    bool isRight = false;
    part.length = TilePartLength(data, scan, at, numTiles, isRight);
    allRight = allRight && isRight;
    scan.tilesHaveOwnStyle = scan.tilesHaveOwnStyle || HasOwnStyle(data, scan, part);
    scan.tileParts.push_back(part);
    at += part.length;
  }
  scan.tilePartsRegular = allRight && (at == end || (at + 2 <= end && markerAt(at) == kEoc));
}

}  // namespace

std::uint64_t ScannedGrid::TilesAcross() const {
  return tileWidth == 0 || x1 <= tileX0 ? 0 : (x1 - tileX0 + tileWidth - 1) / tileWidth;
}

std::uint64_t ScannedGrid::TilesDown() const {
  return tileHeight == 0 || y1 <= tileY0 ? 0 : (y1 - tileY0 + tileHeight - 1) / tileHeight;
}

StreamScan ScanStream(ByteView bytes) {
  const Numbers data(bytes);
  StreamScan scan;
  scan.boxed = data.U8(1) != kSoc;
  scan.codeStreamEnd = bytes.size();
  if (scan.boxed && !ScanBoxes(data, scan)) return scan;
  scan.markerByte = static_cast<std::uint8_t>(data.U8(scan.codeStreamOffset));
  ScanMainHeader(data, bytes, scan);
  if (scan.hasMainHeader) ScanTileParts(data, scan);
  return scan;
}

unsigned BoxDepth(const StreamScan& scan, std::size_t component) {
  return component < scan.boxDepths.size() ? (scan.boxDepths[component] & 0x7FU) + 1 : 0;
}

}  // namespace kel::host
