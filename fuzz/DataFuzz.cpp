// Runs a script of reads, moves and tile-part queries over arbitrary data, once from memory and
// once by a stream with a small window: the two must agree on everything.
#include <string>

#include "FuzzSupport.h"
#include "KelTilePartIndex.h"

namespace {

constexpr std::size_t kScriptBytes = 24;

/// What a step delivers, and where it leaves the position.
std::string Step(kel::KelDecDataMgr& data, std::uint32_t step, std::int64_t size) {
  const std::uint32_t n = step & 31;
  std::uint8_t bytes[32] = {};
  std::int64_t delivered = 0;
  switch (step >> 5) {
    case 0:
      delivered = data.ReadUInt(static_cast<int>(n & 7));
      break;
    case 1:
      delivered = data.ReadBits(static_cast<int>(n) + 1);
      break;
    case 2:
      delivered = static_cast<std::int64_t>(data.ReadBytes(bytes, n));
      break;
    case 3:
      delivered = static_cast<std::int64_t>(data.SkipForward(std::uint64_t{1} << n));
      break;
    case 4:
      delivered = data.MoveTo(size * n / 31);
      break;
    case 5:
      if (const auto* part = data.FindTilePart(static_cast<std::int32_t>(n >> 2), n & 3)) {
        delivered = part->position + data.MoveTo(part->position);
      }
      break;
    case 6:
      delivered = data.SearchSOT(data.GetPosition() + n).position;
      break;
    default:
      if ((n & 1) != 0) data.SavePositionB();
      if ((n & 2) != 0) data.FreeTilePartIndex();
      if ((n & 8) != 0) delivered += 4 * data.ReadEOC();
      if ((n & 16) != 0) data.AlignToByte();
  }
  const std::int64_t state = data.IsSOT() + 2 * data.IsEOCOrEnd() + 8 * data.AtEnd();
  return test::List({delivered, data.GetPosition(), data.UnreadBits(), state}) +
         test::List(bytes, 32) + '\n';
}

std::string Transcript(fuzz::Input input, const fuzz::Setting& setting, bool inMemory) {
  std::uint32_t script[kScriptBytes];
  for (std::uint32_t& step : script) step = input.U8();
  test::Delivery how = setting.how;
  how.memory = inMemory;
  how.seekable = true;
  test::DataSource source(input.Rest(), setting.flavour, how);
  source->SetTileGrid(3, 2);
  std::string text;
  for (const std::uint32_t step : script) {
    text += Step(*source, step, static_cast<std::int64_t>(source.bytes.size()));
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input{data, size};
  const std::uint32_t capacity = 64 + input.U8();
  const fuzz::Setting setting(input, capacity);
  fuzz::Run(setting.refused, 4 * size + 5000, [&] {
    const std::string block = Transcript(input, setting, true);
    fuzz::Require(Transcript(input, setting, false) == block);
  });
  return 0;
}
