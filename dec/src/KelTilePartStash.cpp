// The stash of early tile-parts.
#include "KelTilePartStash.h"

#include <algorithm>
#include <limits>

#include "base/KelMemFuncDefs.h"

namespace kel {
namespace {

/// First step in which a tile-part is read; further steps double what is there.
constexpr std::uint64_t kFirstStep = std::uint64_t{1} << 16;

}  // namespace

void StashTilePart(StashedPart*& list, KelDecDataMgr& data) {
  auto stashed = OwnedRecord<StashedPart>::Make();
  stashed->part = static_cast<std::int32_t>(data.PeekSotTPsot());
  const std::uint64_t announced = data.PeekSotPsot();
  const std::uint64_t wanted =
      announced != 0 ? announced : std::numeric_limits<std::uint64_t>::max();

  OwnedArray<std::uint8_t> bytes;
  std::uint64_t room = 0;
  while (stashed->length == room && room < wanted) {
    room = std::min(wanted, room + std::max(room, kFirstStep));
    auto larger = OwnedArray<std::uint8_t>::Make(room);
    KelMemCopy(larger.Data(), bytes.Data(), stashed->length);
    bytes = std::move(larger);
    stashed->length += data.ReadBytes(bytes.Data() + stashed->length, room - stashed->length);
  }
  stashed->bytes = bytes.Release();
  stashed->next = list;
  list = stashed.Release();
}

StashedPart* TakeStashedPart(StashedPart*& list, std::int32_t part) noexcept {
  for (StashedPart** link = &list; *link != nullptr; link = &(*link)->next) {
    if ((*link)->part != part) continue;
    StashedPart* taken = *link;
    *link = taken->next;
    return taken;
  }
  return nullptr;
}

void DropStashedPart(StashedPart* part) noexcept {
  if (part == nullptr) return;
  KelFree(part->bytes);
  KelFree(part);
}

void ReleaseStash(StashedPart*& list) noexcept {
  while (list != nullptr) {
    StashedPart* next = list->next;
    DropStashedPart(list);
    list = next;
  }
}

}  // namespace kel
