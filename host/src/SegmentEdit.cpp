// Changing marker segments.
//
//   SIZ  6 canvas edges (4 + 4), 14 image area (4 + 4), 22 tile size (4 + 4),
//        30 tile origin (4 + 4)
//   COD  5 order, 9 levels, 14 precincts (1 per resolution, unless the segment ends before)
//   COC  4 component (1, or 2 with 257 components and more), then style (1), levels, and precincts
//        five bytes behind these
//   QCD  4 style: in its low five bits 0 for exponents of one byte per band, 1 for one step of two
//        bytes, 2 for steps of two bytes per band; then these, lowest band first
//   QCC  4 component, then as QCD
//   COM  4 Rcom, then, of checksums, the tag, one for each packet, and the segment's own
#include "SegmentEdit.hpp"

#include <algorithm>
#include <string>

#include "kel/host/errors.hpp"

namespace kel::host {
namespace {

constexpr std::size_t kBandsPerLevel = 3;

/// Where the tag of a segment of checksums stands.
constexpr std::size_t kTagAt = 6;

/// CRC-32 of few bytes.
std::uint32_t ChecksumOf(ByteView bytes) {
  std::uint32_t state = 0xFFFFFFFF;
  for (const std::uint8_t byte : bytes) {
    state ^= byte;
    for (int bit = 0; bit < 8; ++bit) state = state >> 1 ^ ((state & 1) != 0 ? 0xEDB88320 : 0);
  }
  return ~state;
}

void SetLength(Bytes& segment) {
  PutU16(segment, format::kMarkerBytes, segment.size() - format::kMarkerBytes);
}

}  // namespace

void PutU32(Bytes& bytes, std::size_t at, std::uint64_t value) {
  for (int shift = 24; shift >= 0; shift -= 8)
    bytes.at(at++) = static_cast<std::uint8_t>(value >> shift);
}

void PutU16(Bytes& bytes, std::size_t at, std::uint64_t value) {
  bytes.at(at) = static_cast<std::uint8_t>(value >> 8);
  bytes.at(at + 1) = static_cast<std::uint8_t>(value);
}

std::int64_t HalvedCoordinate(std::int64_t edge, unsigned times) {
  return (edge + (std::int64_t{1} << times) - 1) >> times;
}

void SetGrid(Bytes& siz, const GridFields& grid) {
  if (siz.size() < format::kSizGridBytes + 2)
    throw Error(Failure::kInput, "its SIZ segment is cut off");
  const std::int64_t fields[] = {grid.x1,        grid.y1,         grid.x0,     grid.y0,
                                 grid.tileWidth, grid.tileHeight, grid.tileX0, grid.tileY0};
  for (std::size_t i = 0; i < std::size(fields); ++i) {
    PutU32(siz, 6 + 4 * i, static_cast<std::uint64_t>(fields[i]));
  }
}

void LowerLevels(Bytes& segment, unsigned code, std::size_t componentBytes, unsigned reduce) {
  const std::size_t levelsAt = code == format::kCOD ? 9 : 5 + componentBytes;
  const unsigned levels = segment.at(levelsAt);
  if (levels < reduce) {
    throw Error(Failure::kParameter, "the picture can be halved " + std::to_string(levels) +
                                         " times, not " + std::to_string(reduce));
  }
  segment[levelsAt] = static_cast<std::uint8_t>(levels - reduce);
  const std::size_t precinctsAt = levelsAt + 5;
  if (segment.size() > precinctsAt) {
    segment.resize(segment.size() -
                   std::min<std::size_t>(reduce, segment.size() - precinctsAt - 1));
  }
  SetLength(segment);
}

void LowerSteps(Bytes& segment, unsigned code, std::size_t componentBytes, unsigned reduce) {
  const std::size_t styleAt = code == format::kQCD ? 4 : 4 + componentBytes;
  const unsigned style = segment.at(styleAt) & 0x1FU;
  if (style != 0 && style != 2) return;
  const std::size_t stepBytes = style == 0 ? 1 : 2;
  const std::size_t count = (segment.size() - styleAt - 1) / stepBytes;
  if (count <= kBandsPerLevel * reduce) return;
  segment.resize(styleAt + 1 + (count - kBandsPerLevel * reduce) * stepBytes);
  SetLength(segment);
}

bool IsListOfLengths(unsigned code) {
  return code == format::kTLM || code == format::kPLM || code == format::kPLT;
}

std::optional<std::vector<std::uint32_t>> ChecksumsIn(ByteView segment, unsigned code) {
  if (code != format::kCOM || segment.size() < format::kChecksumSegmentBytes) return std::nullopt;
  const auto number = [&](std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = at; i < at + 4; ++i) value = value << 8 | segment[i];
    return value;
  };
  // Behind marker and length: Rcom, 0, and the tag.
  if (segment[4] != 0 || segment[5] != 0 || number(kTagAt) != format::kChecksumTag) {
    return std::nullopt;
  }
  std::vector<std::uint32_t> checksums;
  for (std::size_t at = kTagAt + 4; at + 4 <= segment.size(); at += 4) {
    checksums.push_back(number(at));
  }
  return checksums;
}

void InsertChecksums(Bytes& header, std::span<const std::uint32_t> checksums) {
  const std::size_t end = header.size() - format::kMarkerBytes;
  Bytes segments;
  while (!checksums.empty()) {
    const std::size_t count =
        std::min<std::size_t>(checksums.size(), format::kMostChecksumsOfSegment);
    const std::size_t at = segments.size();
    segments.resize(at + static_cast<std::size_t>(format::ChecksumSegmentsBytes(count)));
    segments[at] = header[end];
    segments[at + 1] = format::kCOM;
    PutU16(segments, at + 2, segments.size() - at - format::kMarkerBytes);
    PutU32(segments, at + kTagAt, format::kChecksumTag);
    for (std::size_t i = 0; i < count; ++i) {
      PutU32(segments, at + kTagAt + 4 + 4 * i, checksums[i]);
    }
    const std::size_t own = segments.size() - format::kChecksumBytes;
    PutU32(segments, own, ChecksumOf(std::span(segments).subspan(at + kTagAt, own - at - kTagAt)));
    checksums = checksums.subspan(count);
  }
  header.insert(header.begin() + static_cast<std::ptrdiff_t>(end), segments.begin(),
                segments.end());
}

const KelIndexBox& BoxOfCodeStream(const KelIndexFacts& facts) {
  const std::span boxes(facts.boxes, facts.numBoxes);
  const auto found = std::ranges::find_if(boxes, [&](const KelIndexBox& box) {
    return box.offset + box.headerBytes == facts.codeStreamOffset;
  });
  if (found == boxes.end()) throw Error(Failure::kInput, "its code stream stands in no box");
  return *found;
}

std::uint64_t ClaimedBoxBytes(ByteView header) {
  const auto number = [&](std::size_t at) {
    std::uint64_t value = 0;
    for (std::size_t i = at; i < at + 4 && i < header.size(); ++i) value = value << 8 | header[i];
    return value;
  };
  const bool isLong = header.size() == 16 && number(0) == 1;
  return isLong ? number(8) << 32 | number(12) : number(0);
}

void AppendBoxHeader(Bytes& to, std::uint32_t type, std::uint64_t contentBytes) {
  constexpr std::uint64_t kShort = 8, kLong = 16;
  const std::size_t at = to.size();
  const bool isLong = contentBytes + kShort > UINT32_MAX;
  to.resize(at + (isLong ? kLong : kShort));
  PutU32(to, at, isLong ? 1 : contentBytes + kShort);
  PutU32(to, at + 4, type);
  if (!isLong) return;
  PutU32(to, at + 8, (contentBytes + kLong) >> 32);
  PutU32(to, at + 12, contentBytes + kLong);
}

}  // namespace kel::host
