// Parts of pictures out of arbitrary data: a region at a resolution by Decode and by Picture, the
// whole by rows, and smaller files made by copying bytes. Where the data hold everything, and
// every length in them is right, all of them show the same samples. An input begins with seven
// bytes that say which part.
#include "HostSupport.hpp"

namespace {

using namespace kel::host;
using fuzz::Require;
using fuzz::Try;

constexpr std::size_t kSettingBytes = 7;

struct Part {
  Region region;
  unsigned reduce;
};

/// An image that was decoded, or none, and whether all of its data were there.
struct Found {
  std::optional<Image> image;
  bool isWhole = false;
};

Found DecodePart(ByteView bytes, const Part& part, bool asFits = false) {
  DecodeParams params;
  params.acceptIncomplete = true;
  params.threads = 1;
  params.region = part.region;
  params.reduce = part.reduce;
  if (asFits) params.fitWidth = params.fitHeight = 9;
  MemorySource source(bytes);
  DecodeReport report;
  Found found;
  found.image = Try([&] { return Decode(source, params, &report); });
  found.isWhole = found.image && report.complete && report.problem.empty();
  return found;
}

/// Requires what holds of sound data. Where lengths are wrong each way finds packets in a way of
/// its own: by the lengths, or by reading on from the packet before.
void RequireOfSound(bool holds, ByteView bytes) {
  if (holds) return;
  MemoryRanges memory(bytes);
  const auto checked = Try([&] { return Check(memory, {.mostEntries = 1}); });
  Require(!checked || !checked->IsSound());
}

void CompareWithPicture(ByteView bytes, const Part& part, const Found& expected) {
  MemoryRanges memory(bytes);
  RangeCache cache(memory, 4096, 64);
  Try([&] {
    Picture picture(cache);
    DecodeReport report;
    const Image image = picture.Decode(part.region, part.reduce, 1, &report);
    RequireOfSound(!expected.isWhole || !report.complete || fuzz::AreEqual(image, *expected.image),
                   bytes);
    return true;
  });
}

void CompareRows(ByteView bytes, const Found& expected) {
  MemorySource memory(bytes);
  CallbackSource pipe = fuzz::PipeOf(memory, 97);
  DecodeParams params;
  params.acceptIncomplete = true;
  params.threads = 1;
  Try([&] {
    RowDecoder decoder(pipe, params);
    DecodeReport report;
    if (!HasPlainRows(decoder.Description())) return false;
    ImageRowSink rows;
    report = decoder.Decode(rows);
    RequireOfSound(
        !expected.isWhole || !report.complete || fuzz::AreEqual(rows.image, *expected.image),
        bytes);
    return true;
  });
}

void CompareTrimmed(ByteView bytes, const Part& part, const Found& expected) {
  MemoryRanges memory(bytes);
  MemorySink sink;
  if (!Try([&] { return Trim(memory, {part.reduce, part.region}, sink), true; })) return;
  const Found trimmed = DecodePart(sink.bytes, {{0, 0, UINT32_MAX, UINT32_MAX}, 0});
  // Tiles stay whole, so only what shows the whole picture must show the same.
  const bool isComparable = expected.isWhole && part.region.x == 0 && part.region.y == 0 &&
                            part.region.width == UINT32_MAX && part.region.height == UINT32_MAX;
  RequireOfSound(
      !isComparable || (trimmed.isWhole && fuzz::AreEqual(*trimmed.image, *expected.image)), bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kSettingBytes) return 0;
  static const Session session(std::uint64_t{24} << 20);
  const LimitScope limits({.maxPixels = 1 << 18, .seconds = 0});
  const ByteView bytes = ByteView(data, size).subspan(kSettingBytes);
  const bool isAll = (data[0] & 1) != 0;
  const auto side = [&](std::size_t i) -> std::uint32_t { return data[i] * (data[5] + 1U); };
  const Part all{{0, 0, UINT32_MAX, UINT32_MAX}, data[6] & 3U};
  const Part part = isAll ? all : Part{{side(1), side(2), side(3), side(4)}, data[6] & 3U};
  const Found found = DecodePart(bytes, part);
  CompareWithPicture(bytes, part, found);
  CompareTrimmed(bytes, part, found);
  if (isAll && part.reduce == 0) CompareRows(bytes, found);
  if ((data[0] & 2) != 0) DecodePart(bytes, part, true);
  Require(Session::CurrentBytes() == 0);
  return 0;
}
