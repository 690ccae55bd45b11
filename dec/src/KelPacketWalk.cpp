// The walk over the packets of one tile. The loops of an order run as digits of a counter, so that
// a walk can stop and resume at any packet.
#include "KelPacketWalk.h"

#include <algorithm>
#include <array>
#include <tuple>

#include "KelTileLayout.h"
#include "base/KelMemFuncDefs.h"

namespace kel {
namespace {

/// Loop variables of the orders. A slot stands for a component among those that have precincts.
enum class Digit : std::uint8_t { kLayer, kResolution, kComponent, kSlot, kPrecinct };

using Digits = std::array<Digit, 4>;

constexpr Digits kOrderDigits[5] = {
    {Digit::kLayer, Digit::kResolution, Digit::kSlot, Digit::kPrecinct},      // LRCP
    {Digit::kResolution, Digit::kLayer, Digit::kSlot, Digit::kPrecinct},      // RLCP
    {Digit::kResolution, Digit::kPrecinct, Digit::kSlot, Digit::kLayer},      // RPCL
    {},                                                                       // PCRL: by position
    {Digit::kComponent, Digit::kResolution, Digit::kPrecinct, Digit::kLayer}  // CPRL
};

const ProgressionEntry& Entry(const PacketWalk& walk) {
  return walk.entries[walk.entry];
}

/// The record of a resolution; null while no packet of the component needed one.
const ResolutionRecord* ResolutionOf(const PacketWalk& walk, std::int32_t component,
                                     std::int32_t resolution) {
  const ResolutionRecord* all = walk.tile->comps[component].dec->resolutions;
  return all != nullptr ? &all[resolution] : nullptr;
}

std::int64_t PrecinctCount(const PacketWalk& walk, std::int32_t component,
                           std::int32_t resolution) {
  if (resolution > walk.tile->comps[component].dec->numLevels) return 0;
  return PrecinctsOf(walk.tile->comps[component], resolution).Count();
}

/// The least number of layers handled of a resolution's precincts.
std::int32_t LeastHandled(const PacketWalk& walk, std::int32_t component, std::int32_t resolution) {
  const ResolutionRecord* record = ResolutionOf(walk, component, resolution);
  return record != nullptr ? record->leastHandled : 0;
}

// ---- Packets handled, per precinct ----

std::int32_t LayersHandled(const ResolutionRecord* resolution, std::int64_t precinct) {
  if (resolution == nullptr || resolution->pages == nullptr) return 0;
  const std::uint16_t* page = resolution->pages[precinct / kCounterPage];
  return page != nullptr ? page[precinct % kCounterPage] : 0;
}

void CountHandled(const PacketWalk& walk, const PacketId& at) {
  TileCompRecord& component = walk.tile->comps[at.component];
  EnsureResolutions(component);
  ResolutionRecord& resolution = component.dec->resolutions[at.resolution];
  const std::int64_t precinct = at.precinct;
  const std::int64_t count = resolution.precincts.Count();
  if (resolution.pages == nullptr) {
    resolution.pages =
        OwnedArray<std::uint16_t*>::Make(AsCount(CeilDiv(count, kCounterPage))).Release();
  }
  std::uint16_t*& page = resolution.pages[precinct / kCounterPage];
  if (page == nullptr) {
    const std::int64_t inPage =
        std::min(count - precinct / kCounterPage * kCounterPage, kCounterPage);
    page = OwnedArray<std::uint16_t>::Make(AsCount(inPage)).Release();
  }
  std::uint16_t& handled = page[precinct % kCounterPage];
  ++handled;
  if (handled - 1 != resolution.leastHandled || --resolution.numAtLeast != 0) return;
  ++resolution.leastHandled;
  for (std::int64_t p = 0; p < count; ++p) {
    resolution.numAtLeast += LayersHandled(&resolution, p) == resolution.leastHandled ? 1 : 0;
  }
}

/// The first layer of a precinct that may still have to be handled.
std::int32_t FirstLayer(const PacketWalk& walk, const PacketId& at) {
  if (!walk.keepsCounters) return 0;
  return LayersHandled(ResolutionOf(walk, at.component, at.resolution), at.precinct);
}

// ---- Walking by digits ----

std::int64_t FirstSlot(const PacketWalk& walk, std::int32_t resolution) {
  const std::int32_t* begin = walk.active + walk.activeStart[resolution];
  const std::int32_t* end = walk.active + walk.activeStart[resolution + 1];
  return std::lower_bound(begin, end, Entry(walk).componentStart) - walk.active;
}

/// Least number of layers handled among the components in range of one resolution.
std::int32_t LeastHandled(const PacketWalk& walk, std::int32_t resolution) {
  std::int32_t least = Entry(walk).layerEnd;
  for (std::int64_t s = FirstSlot(walk, resolution);
       s < walk.activeStart[resolution + 1] && walk.active[s] < Entry(walk).componentEnd; ++s) {
    least = std::min(least, LeastHandled(walk, walk.active[s], resolution));
  }
  return least;
}

/// The first layer in which an entry may have a packet left; its layer end when it has none: not
/// one component in range has a precinct in a resolution in range, or all were handled.
std::int32_t FirstLayerOfEntry(const PacketWalk& walk) {
  const ProgressionEntry& entry = Entry(walk);
  std::int32_t least = entry.layerEnd;
  for (std::int32_t r = entry.resolutionStart; r < entry.resolutionEnd; ++r) {
    least = std::min(least, LeastHandled(walk, r));
  }
  return least;
}

/// Where a loop over layers starts, given the digits outside it. Where there is nothing to handle
/// it starts at its end: thousands of layers without a packet are not run through.
std::int32_t StartOfLayers(const PacketWalk& walk) {
  switch (Entry(walk).order) {
    case KelLRCP:
      return FirstLayerOfEntry(walk);
    case KelRLCP:
      return LeastHandled(walk, walk.at.resolution);
    default: {
      const bool exists =
          walk.at.precinct < PrecinctCount(walk, walk.at.component, walk.at.resolution);
      return exists ? FirstLayer(walk, walk.at) : Entry(walk).layerEnd;
    }
  }
}

/// Up to where RPCL looks for precincts of a resolution: component 0 sets the count, but behind
/// the last precinct of the components in range there is nothing to find.
std::int64_t EndOfSharedPrecincts(const PacketWalk& walk, std::int32_t resolution) {
  if (LeastHandled(walk, resolution) >= Entry(walk).layerEnd) return 0;
  std::int64_t most = 0;
  for (std::int64_t s = FirstSlot(walk, resolution);
       s < walk.activeStart[resolution + 1] && walk.active[s] < Entry(walk).componentEnd; ++s) {
    most = std::max(most, PrecinctCount(walk, walk.active[s], resolution));
  }
  return std::min(most, PrecinctCount(walk, 0, resolution));
}

/// The first precinct of a component's resolution that may have a packet below a layer: progression
/// changes that come back to a resolution do not look at what is done again and again.
std::int64_t FirstPrecinct(const PacketWalk& walk, std::int32_t component, std::int32_t resolution,
                           std::int32_t layerEnd) {
  const ResolutionRecord* record = ResolutionOf(walk, component, resolution);
  return record != nullptr && record->doneLayers >= layerEnd ? record->doneUpTo : 0;
}

void NoteDone(const PacketWalk& walk, std::int32_t component, std::int32_t resolution,
              std::int64_t upTo, std::int32_t layers) {
  ResolutionRecord* all = walk.tile->comps[component].dec->resolutions;
  if (all == nullptr || upTo == 0) return;
  ResolutionRecord& record = all[resolution];
  if (record.doneUpTo >= upTo && record.doneLayers >= layers) return;
  record.doneUpTo = upTo;
  record.doneLayers = layers;
}

/// Where a loop over precincts starts, given the digits outside it.
std::int64_t StartOfPrecincts(const PacketWalk& walk) {
  const std::int32_t r = walk.at.resolution;
  const ProgressionEntry& entry = Entry(walk);
  if (!walk.keepsCounters || entry.order == KelCPRL) return 0;
  if (entry.order != KelRPCL) {
    return FirstPrecinct(walk, walk.at.component, r, walk.at.layer + 1);
  }
  std::int64_t first = INT64_MAX;
  for (std::int64_t s = FirstSlot(walk, r);
       s < walk.activeStart[r + 1] && walk.active[s] < entry.componentEnd; ++s) {
    first = std::min(first, FirstPrecinct(walk, walk.active[s], r, entry.layerEnd));
  }
  return first;
}

/// The first packet of an entry has been found: what stands before it is done.
void NoteDoneBefore(const PacketWalk& walk) {
  if (!walk.keepsCounters) return;
  const ProgressionEntry& entry = Entry(walk);
  const PacketId& at = walk.at;
  if (entry.order == KelPCRL) {
    NoteDone(walk, at.component, at.resolution, at.precinct, entry.layerEnd);
  } else if (entry.order == KelLRCP || entry.order == KelRLCP) {
    NoteDone(walk, at.component, at.resolution, at.precinct, at.layer + 1);
  } else if (entry.order == KelRPCL) {
    for (std::int64_t s = FirstSlot(walk, at.resolution);
         s < walk.activeStart[at.resolution + 1] && walk.active[s] < entry.componentEnd; ++s) {
      NoteDone(walk, walk.active[s], at.resolution, at.precinct, entry.layerEnd);
    }
  }
}

/// An entry has found nothing although not all was handled: what it runs over in RPCL, which is
/// less than the components have, is done.
void NoteNothingFound(const PacketWalk& walk) {
  const ProgressionEntry& entry = Entry(walk);
  if (!walk.keepsCounters || entry.order != KelRPCL) return;
  for (std::int32_t r = entry.resolutionStart; r < entry.resolutionEnd; ++r) {
    const std::int64_t end = EndOfSharedPrecincts(walk, r);
    for (std::int64_t s = FirstSlot(walk, r);
         s < walk.activeStart[r + 1] && walk.active[s] < entry.componentEnd; ++s) {
      NoteDone(walk, walk.active[s], r, end, entry.layerEnd);
    }
  }
}

/// How many precincts a loop over them visits, given the digits outside it.
std::int64_t EndOfPrecincts(const PacketWalk& walk) {
  const std::int32_t r = walk.at.resolution;
  switch (Entry(walk).order) {
    case KelRPCL:
      return EndOfSharedPrecincts(walk, r);
    case KelCPRL:
      return std::min<std::int64_t>(PrecinctCount(walk, walk.at.component, r), 1);
    default: {
      const bool allHandled =
          walk.keepsCounters && LeastHandled(walk, walk.at.component, r) > walk.at.layer;
      return allHandled ? 0 : PrecinctCount(walk, walk.at.component, r);
    }
  }
}

void StartDigit(PacketWalk& walk, Digit digit) {
  const ProgressionEntry& entry = Entry(walk);
  switch (digit) {
    case Digit::kLayer:
      walk.at.layer = StartOfLayers(walk);
      break;
    case Digit::kResolution:
      walk.at.resolution = entry.resolutionStart;
      break;
    case Digit::kComponent:
      walk.at.component = entry.componentStart;
      break;
    case Digit::kSlot:
      walk.slot = FirstSlot(walk, walk.at.resolution);
      break;
    case Digit::kPrecinct:
      walk.at.precinct = StartOfPrecincts(walk);
      walk.precinctEnd = EndOfPrecincts(walk);
      break;
  }
}

void StepDigit(PacketWalk& walk, Digit digit) {
  switch (digit) {
    case Digit::kLayer:
      ++walk.at.layer;
      break;
    case Digit::kResolution:
      ++walk.at.resolution;
      break;
    case Digit::kComponent:
      ++walk.at.component;
      break;
    case Digit::kSlot:
      ++walk.slot;
      break;
    case Digit::kPrecinct:
      ++walk.at.precinct;
      break;
  }
}

/// Whether a digit's value is still in its loop. A slot in its loop sets the component.
bool DigitIsInLoop(PacketWalk& walk, Digit digit) {
  const ProgressionEntry& entry = Entry(walk);
  switch (digit) {
    case Digit::kLayer:
      return walk.at.layer < entry.layerEnd;
    case Digit::kResolution:
      return walk.at.resolution < entry.resolutionEnd;
    case Digit::kComponent:
      return walk.at.component < entry.componentEnd;
    case Digit::kSlot:
      if (walk.slot >= walk.activeStart[walk.at.resolution + 1]) return false;
      walk.at.component = walk.active[walk.slot];
      return walk.at.component < entry.componentEnd;
    case Digit::kPrecinct:
      return walk.at.precinct < walk.precinctEnd;
  }
  return false;
}

/// Whether the place where all digits are in their loops is a packet still to be handled.
bool IsPacket(const PacketWalk& walk) {
  const PacketId& at = walk.at;
  return at.precinct < PrecinctCount(walk, at.component, at.resolution) &&
         (!walk.keepsCounters || FirstLayer(walk, at) <= at.layer);
}

/// Advances to the next packet of the entry: from digit `k` on, which has been started or stepped.
/// False when the outermost loop has ended.
bool FindByDigits(PacketWalk& walk, const Digits& digits, std::size_t k) {
  for (;;) {
    if (k == digits.size()) {
      if (IsPacket(walk)) return true;
      StepDigit(walk, digits[--k]);
    }
    if (DigitIsInLoop(walk, digits[k])) {
      if (++k < digits.size()) StartDigit(walk, digits[k]);
    } else if (k == 0) {
      return false;
    } else {
      StepDigit(walk, digits[--k]);
    }
  }
}

// ---- Walking by position ----

bool ComesLater(const PositionItem& a, const PositionItem& b) {
  return std::tie(a.y, a.x, a.component, a.resolution) >
         std::tie(b.y, b.x, b.component, b.resolution);
}

/// Where a precinct begins on the canvas, along one axis. The first one begins with the tile.
std::int64_t CornerOnCanvas(std::int64_t index, std::int64_t first, int exponent,
                            std::int64_t tileEdge, std::int32_t subsampling, int levelsBelow) {
  if (index == 0) return tileEdge;
  return (((first + index) << exponent) * subsampling) << levelsBelow;
}

void PlaceItem(const PacketWalk& walk, PositionItem& item) {
  const TileCompRecord& record = walk.tile->comps[item.component];
  const GridPartition grid = PrecinctsOf(record, item.resolution);
  const int levelsBelow = record.dec->numLevels - item.resolution;
  item.x = CornerOnCanvas(item.precinct % grid.across, grid.firstColumn, grid.widthExp,
                          walk.tile->box.x0, record.tileGeom.XRsiz, levelsBelow);
  item.y = CornerOnCanvas(item.precinct / grid.across, grid.firstRow, grid.heightExp,
                          walk.tile->box.y0, record.tileGeom.YRsiz, levelsBelow);
}

/// Gathers the first precincts of every component and resolution in range.
void StartHeap(PacketWalk& walk) {
  const ProgressionEntry& entry = Entry(walk);
  if (walk.heap == nullptr) {
    const std::int64_t most = walk.activeStart[walk.maxLevel + 1];
    walk.heap = OwnedArray<PositionItem>::Make(AsCount(most)).Release();
  }
  walk.heapCount = 0;
  for (std::int32_t r = entry.resolutionStart; r < entry.resolutionEnd; ++r) {
    for (std::int64_t s = FirstSlot(walk, r);
         s < walk.activeStart[r + 1] && walk.active[s] < entry.componentEnd; ++s) {
      if (LeastHandled(walk, walk.active[s], r) >= entry.layerEnd) continue;
      PositionItem& item = walk.heap[walk.heapCount++];
      item = {0, 0, walk.active[s], r, FirstPrecinct(walk, walk.active[s], r, entry.layerEnd)};
      PlaceItem(walk, item);
    }
  }
  std::make_heap(walk.heap, walk.heap + walk.heapCount, ComesLater);
}

/// Puts the precinct after the least one in its place.
void StepHeap(PacketWalk& walk) {
  std::pop_heap(walk.heap, walk.heap + walk.heapCount, ComesLater);
  PositionItem& item = walk.heap[walk.heapCount - 1];
  if (++item.precinct < PrecinctCount(walk, item.component, item.resolution)) {
    PlaceItem(walk, item);
    std::push_heap(walk.heap, walk.heap + walk.heapCount, ComesLater);
  } else {
    --walk.heapCount;
  }
}

bool FindByPosition(PacketWalk& walk) {
  for (; walk.heapCount > 0; StepHeap(walk)) {
    const PositionItem& item = walk.heap[0];
    walk.at = {0, item.resolution, item.component, item.precinct};
    walk.at.layer = FirstLayer(walk, walk.at);
    if (walk.at.layer < Entry(walk).layerEnd) return true;
  }
  return false;
}

// ---- Entries ----

bool FindFirst(PacketWalk& walk) {
  if (Entry(walk).order == KelPCRL) {
    StartHeap(walk);
    return FindByPosition(walk);
  }
  const Digits& digits = kOrderDigits[Entry(walk).order];
  walk.at = {};
  StartDigit(walk, digits[0]);
  return FindByDigits(walk, digits, 0);
}

bool BeginEntry(PacketWalk& walk) {
  if (Entry(walk).layerEnd <= 0) return false;
  if (FirstLayerOfEntry(walk) >= Entry(walk).layerEnd) return false;
  if (!FindFirst(walk)) {
    NoteNothingFound(walk);
    return false;
  }
  NoteDoneBefore(walk);
  return true;
}

bool NextInEntry(PacketWalk& walk) {
  if (Entry(walk).order == KelPCRL) {
    if (++walk.at.layer < Entry(walk).layerEnd) return true;
    StepHeap(walk);
    return FindByPosition(walk);
  }
  const Digits& digits = kOrderDigits[Entry(walk).order];
  StepDigit(walk, digits.back());
  return FindByDigits(walk, digits, digits.size() - 1);
}

/// Puts the walk on the next packet of this entry or of those after it.
void FindPacket(PacketWalk& walk) {
  while (!walk.isOnPacket && walk.entry < walk.numEntries) {
    walk.isOnPacket = walk.entryIsBegun ? NextInEntry(walk) : BeginEntry(walk);
    walk.entryIsBegun = walk.isOnPacket;
    if (!walk.isOnPacket) ++walk.entry;
  }
}

bool HasChanges(const PacketWalk& walk) {
  const KelProgressionChanges* changes = walk.tile->dec->params.changes;
  return changes != nullptr && changes->present != 0 && changes->count != 0;
}

/// The entries of the tile's progression changes, or the one of its coding style.
OwnedArray<ProgressionEntry> MakeEntries(const PacketWalk& walk) {
  const KelCodingStyle& style = *walk.tile->dec->params.style;
  const KelProgressionChanges* changes = walk.tile->dec->params.changes;
  const std::int32_t resolutions = walk.maxLevel + 1;
  if (!HasChanges(walk)) {
    auto entries = OwnedArray<ProgressionEntry>::Make(1);
    entries[0] = {style.progressionOrder, style.numLayers, 0, resolutions, 0, walk.numComps};
    return entries;
  }
  auto entries = OwnedArray<ProgressionEntry>::Make(AsCount(changes->count));
  for (std::int32_t i = 0; i < changes->count; ++i) {
    const std::int32_t componentEnd = changes->componentEnd[i];
    entries[AsIndex(i)] = {
        changes->order[i],
        std::min<std::int32_t>(changes->layerEnd[i], style.numLayers),
        changes->resolutionStart[i],
        std::min<std::int32_t>(changes->resolutionEnd[i], resolutions),
        changes->componentStart[i],
        componentEnd == 0 ? walk.numComps : std::min(componentEnd, walk.numComps)};
  }
  return entries;
}

void SetEntries(PacketWalk& walk, OwnedArray<ProgressionEntry> entries) {
  walk.numEntries = static_cast<std::int32_t>(entries.Size());
  if (walk.entries != nullptr) KelFree(walk.entries);
  walk.entries = entries.Release();
  walk.entry = 0;
  walk.entryIsBegun = false;
  walk.isOnPacket = false;
}

/// Lists, per resolution, the components that have precincts there.
void ListActive(PacketWalk& walk) {
  walk.activeStart = OwnedArray<std::int64_t>::Make(AsCount(walk.maxLevel + 2)).Release();
  for (std::int32_t r = 0; r <= walk.maxLevel; ++r) {
    std::int64_t n = 0;
    for (std::int32_t c = 0; c < walk.numComps; ++c) n += PrecinctCount(walk, c, r) > 0 ? 1 : 0;
    walk.activeStart[r + 1] = walk.activeStart[r] + n;
  }
  walk.active =
      OwnedArray<std::int32_t>::Make(AsCount(walk.activeStart[walk.maxLevel + 1])).Release();
  std::int64_t next = 0;
  for (std::int32_t r = 0; r <= walk.maxLevel; ++r) {
    for (std::int32_t c = 0; c < walk.numComps; ++c) {
      if (PrecinctCount(walk, c, r) > 0) walk.active[next++] = c;
    }
  }
}

}  // namespace

PacketWalk* MakePacketWalk(TileRecord& tile, std::int32_t numComps) {
  PacketWalk* walk = OwnedRecord<PacketWalk>::Make().Release();
  ScopeGuard release([&] { ReleasePacketWalk(walk); });
  walk->tile = &tile;
  walk->numComps = numComps;
  walk->maxLevel = tile.comps[0].dec->numLevels;
  ListActive(*walk);
  SetEntries(*walk, MakeEntries(*walk));
  walk->keepsCounters = HasChanges(*walk);
  release.Disarm();
  return walk;
}

void ReleasePacketWalk(PacketWalk*& walk) noexcept {
  if (walk == nullptr) return;
  KelFree(walk->entries);
  KelFree(walk->active);
  KelFree(walk->activeStart);
  KelFree(walk->heap);
  KelFree(walk);
  walk = nullptr;
}

const PacketId* CurrentPacket(PacketWalk& walk) {
  FindPacket(walk);
  return walk.isOnPacket ? &walk.at : nullptr;
}

void PacketHandled(PacketWalk& walk) {
  if (walk.keepsCounters) {
    CountHandled(walk, walk.at);
  }
  walk.turn = walk.at.component;
  walk.isOnPacket = false;
  const PacketId* next = CurrentPacket(walk);
  if (next == nullptr || next->component != walk.turn) ++walk.turn;
}

void ReplaceProgression(PacketWalk& walk) {
  // Without counters so far, what was handled is the walk from its start up to here.
  if (!walk.keepsCounters) {
    const bool isOver = CurrentPacket(walk) == nullptr;
    const PacketId stop = walk.at;
    walk.entry = 0;
    walk.entryIsBegun = walk.isOnPacket = false;
    for (const PacketId* at = CurrentPacket(walk); at != nullptr; at = CurrentPacket(walk)) {
      const bool isStop = at->layer == stop.layer && at->resolution == stop.resolution &&
                          at->component == stop.component && at->precinct == stop.precinct;
      if (isStop && !isOver) break;
      CountHandled(walk, *at);
      walk.isOnPacket = false;
    }
    walk.keepsCounters = true;
  }
  SetEntries(walk, MakeEntries(walk));
}

bool WalkIsComplete(PacketWalk& walk) {
  if (CurrentPacket(walk) != nullptr) return false;
  if (!walk.keepsCounters) return true;
  const std::int32_t numLayers = walk.tile->dec->params.style->numLayers;
  for (std::int32_t r = 0; r <= walk.maxLevel; ++r) {
    for (std::int64_t s = walk.activeStart[r]; s < walk.activeStart[r + 1]; ++s) {
      if (LeastHandled(walk, walk.active[s], r) < numLayers) return false;
    }
  }
  return true;
}

bool IsPastResolution(const PacketWalk& walk, std::int32_t highest) {
  if (!walk.isOnPacket || walk.keepsCounters || walk.at.resolution <= highest) return false;
  const ProgressionEntry& entry = Entry(walk);
  return entry.order == KelRLCP || entry.order == KelRPCL ||
         (entry.order == KelLRCP && walk.at.layer + 1 >= entry.layerEnd);
}

bool PassLostTilePart(PacketWalk& walk) {
  const PacketId* at = CurrentPacket(walk);
  if (at == nullptr || Entry(walk).order != KelCPRL) return false;
  walk.turn = at->component;
  PassEmptyTilePart(walk);
  return true;
}

void PassEmptyTilePart(PacketWalk& walk) {
  const PacketId* at = CurrentPacket(walk);
  if (at == nullptr || Entry(walk).order != KelCPRL) return;
  ++walk.turn;
  while (walk.isOnPacket && Entry(walk).order == KelCPRL && walk.at.component < walk.turn) {
    // On to the next component at once, however many packets this one has.
    walk.at.component = walk.turn;
    walk.isOnPacket = walk.entryIsBegun = FindByDigits(walk, kOrderDigits[KelCPRL], 0);
    if (!walk.isOnPacket) ++walk.entry;
    FindPacket(walk);
  }
}

}  // namespace kel
