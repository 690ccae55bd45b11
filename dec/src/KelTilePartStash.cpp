// The stash of early tile-parts.
#include "KelTilePartStash.h"

#include <algorithm>

#include "base/KelMemFuncDefs.h"

namespace kel {
void StashTilePart(StashedPart*& list, KelDecDataMgr& data, std::int32_t part,
                   std::uint64_t length) {
  for (const StashedPart* other = list; other != nullptr; other = other->next) {
    if (other->part == part) return;
  }
  auto stashed = OwnedRecord<StashedPart>::Make();
  stashed->part = part;
  stashed->position = data.GetPosition();
  // A tile-part that has been measured stands in the window.
  auto bytes = OwnedArray<std::uint8_t>::Make(std::min(length, data.Available()));
  stashed->length = data.ReadBytes(bytes.Data(), bytes.Size());
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
