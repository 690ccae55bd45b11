// The later pictures of an animated PNG. Of each frame an ordinary PNG file is put together, which
// the reader of such files reads: signature, header with the frame's size, what stands in front of
// the samples, the frame's data, what stands behind.
//
//   acTL: number of frames, number of plays
//   fcTL: number in sequence, width, height, x, y, delay (2 + 2 bytes), afterwards, over (1 each)
//   fdAT: number in sequence, data as in IDAT
#include <zlib.h>
#include <kel/host/convert.hpp>
#include <kel/host/errors.hpp>
#include <kel/host/session.hpp>

#include <algorithm>
#include <string_view>

#include "Animation.hpp"
#include "PngFile.hpp"

namespace kel::tool {
namespace {

using host::Bytes;
using host::ByteView;
using host::Error;
using host::Failure;

constexpr std::size_t kSignatureBytes = 8, kAroundChunk = 12, kNumberBytes = 4, kControlBytes = 26;

[[noreturn]] void RefuseDamaged(const std::string& what) {
  throw Error(Failure::kInput, "damaged PNG file: " + what);
}

struct Frame {
  ByteView control;            ///< the data of its fcTL; empty for a picture beside the animation
  std::vector<ByteView> data;  ///< of its IDAT, or fdAT behind the number
};

/// An animated file taken apart.
struct Parts {
  ByteView header;       ///< the data of IHDR
  Bytes before, behind;  ///< other chunks, as they stand, in front of the samples and behind
  std::vector<Frame> frames;
};

void AppendNumber(Bytes& to, std::size_t number) {
  for (const int shift : {24, 16, 8, 0}) to.push_back(static_cast<std::uint8_t>(number >> shift));
}

std::uint32_t ChecksumOf(ByteView bytes) {
  return static_cast<std::uint32_t>(crc32(0, bytes.data(), static_cast<uInt>(bytes.size())));
}

void AppendChunk(Bytes& to, std::string_view type, ByteView data) {
  AppendNumber(to, data.size());
  const std::size_t start = to.size();
  to.insert(to.end(), type.begin(), type.end());
  to.insert(to.end(), data.begin(), data.end());
  AppendNumber(to, ChecksumOf(ByteView(to).subspan(start)));
}

void TakeChunk(std::string_view type, ByteView data, ByteView whole, Parts& parts) {
  if (type == "fdAT" || type == "fcTL") {  // nobody else will look at their checksums
    const std::size_t end = whole.size() - 4;
    if (png_get_uint_32(whole.data() + end) != ChecksumOf(whole.first(end).subspan(4)))
      RefuseDamaged(std::string(type) + ": CRC error");
  }
  if (type == "IHDR") {
    parts.header = data;
  } else if (type == "fcTL") {
    if (data.size() != kControlBytes) RefuseDamaged("fcTL: invalid length");
    parts.frames.push_back({data, {}});
  } else if (type == "IDAT") {
    if (parts.frames.empty()) parts.frames.emplace_back();
    parts.frames.back().data.push_back(data);
  } else if (type == "fdAT") {
    if (parts.frames.empty() || data.size() < kNumberBytes) RefuseDamaged("fdAT: out of place");
    parts.frames.back().data.push_back(data.subspan(kNumberBytes));
  } else if (type != "acTL" && type != "sBIT" && type != "IEND") {
    // Depths that are noted would not be the same for all frames.
    const bool isBefore = parts.frames.empty() || parts.frames[0].data.empty();
    Bytes& to = isBefore ? parts.before : parts.behind;
    to.insert(to.end(), whole.begin(), whole.end());
  }
}

Parts TakeApart(ByteView file) {
  Parts parts;
  for (ByteView left = file.subspan(std::min(file.size(), kSignatureBytes)); !left.empty();) {
    if (left.size() < kAroundChunk) break;
    const std::size_t size = png_get_uint_32(left.data());
    if (size > left.size() - kAroundChunk) RefuseDamaged("the file is cut off");
    const std::string_view type(reinterpret_cast<const char*>(left.data()) + 4, 4);
    TakeChunk(type, left.subspan(8, size), left.first(size + kAroundChunk), parts);
    if (type == "IEND") break;
    left = left.subspan(size + kAroundChunk);
  }
  if (parts.header.size() < 8) RefuseDamaged("no header");
  return parts;
}

AnimationFrame ReadFrame(const Parts& parts, const Frame& frame, const ReadSettings& settings) {
  Bytes header(parts.header.begin(), parts.header.end());
  std::copy_n(frame.control.begin() + 4, 8, header.begin());
  constexpr std::uint8_t kSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  Bytes file(std::begin(kSignature), std::end(kSignature));
  AppendChunk(file, "IHDR", header);
  file.insert(file.end(), parts.before.begin(), parts.before.end());
  for (const ByteView data : frame.data) AppendChunk(file, "IDAT", data);
  file.insert(file.end(), parts.behind.begin(), parts.behind.end());
  AppendChunk(file, "IEND", {});
  ReadSettings single;
  single.warn = settings.warn;
  AnimationFrame read;
  read.image = ReadImage(ByteView(file), single);
  host::ExpandPalette(read.image);
  read.x = png_get_uint_32(frame.control.data() + 12);
  read.y = png_get_uint_32(frame.control.data() + 16);
  using Afterwards = AnimationFrame::Afterwards;
  read.afterwards = frame.control[24] == 1   ? Afterwards::kIsCleared
                    : frame.control[24] == 2 ? Afterwards::kIsTakenBack
                                             : Afterwards::kStays;
  read.over = frame.control[25] == 1;
  return read;
}

}  // namespace

std::unique_ptr<host::RowSource> OpenPngPage(host::BufferedSource& source,
                                             const ReadSettings& settings) {
  Bytes storage;
  const ByteView file = host::ReadAll(source, storage);
  const host::MemoryReservation room(2 * std::uint64_t{file.size()}, "an animated PNG file");
  const Parts parts = TakeApart(file);
  if (settings.page > parts.frames.size()) return nullptr;
  AnimationCanvas canvas(png_get_uint_32(parts.header.data()),
                         png_get_uint_32(parts.header.data() + 4));
  for (unsigned page = 0; page < settings.page; ++page) {
    const Frame& frame = parts.frames[page];
    if (!frame.control.empty()) canvas.Put(ReadFrame(parts, frame, settings));
  }
  return std::make_unique<host::ImageRowSource>(canvas.Take());
}

}  // namespace kel::tool
