// The walk over packets against all packets sorted by the keys of each order, for random tiles with
// subsampling, precincts and several levels.
#include "KelPacketWalk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <random>
#include <tuple>
#include <vector>

#include "HostMemory.h"

namespace {

using namespace kel;
using test::HostMemory;
using PacketWalks = test::LibraryTest;

using Packet = std::tuple<int, int, int, std::int64_t>;  // layer, resolution, component, precinct
using Packets = std::vector<Packet>;

ResolutionRecord ResolutionOf(const Box& box, int widthExp, int heightExp) {
  ResolutionRecord resolution{};
  resolution.precincts = PartitionBox(box, widthExp, heightExp);
  resolution.numAtLeast = resolution.precincts.Count();
  return resolution;
}

/// A tile with hand-made records, as laying it out would leave them.
struct Tile {
  TileRecord record{};
  DecTile decTile{};
  std::vector<TileCompRecord> comps;
  std::vector<DecTileComp> decComps;
  std::vector<std::vector<ResolutionRecord>> resolutions;
  KelCodingStyle style{};
  KelProgressionChanges changes{};
  std::vector<std::uint8_t> rs, re, order;
  std::vector<std::uint16_t> cs, ce, ly;

  explicit Tile(std::mt19937& random) {
    const auto pick = [&](int least, int most) {
      return std::uniform_int_distribution<int>(least, most)(random);
    };
    const auto exponent = [&] { return pick(0, 3) == 0 ? format::kWholePrecinct : pick(1, 4); };
    record.box = {pick(0, 9), pick(10, 40), pick(0, 9), pick(10, 40)};
    comps.resize(std::size_t(pick(1, 4)));
    decComps.resize(comps.size());
    resolutions.resize(comps.size());
    const int numLevels = pick(0, 3);
    for (std::size_t c = 0; c < comps.size(); ++c) {
      const int across = c == 0 ? 1 : pick(1, 3), down = c == 0 ? 1 : pick(1, 3);
      comps[c].dec = &decComps[c];
      comps[c].tileGeom.XRsiz = across;
      comps[c].tileGeom.YRsiz = down;
      const Box box = {CeilDiv(record.box.x0, across), CeilDiv(record.box.x1, across),
                       CeilDiv(record.box.y0, down), CeilDiv(record.box.y1, down)};
      std::vector<ResolutionRecord> all;
      for (int r = numLevels; r >= 0; --r) {
        all.push_back(ResolutionOf(ReduceBox(box, r), exponent(), exponent()));
      }
      SetResolutions(c, all);
    }
    style.numLayers = pick(1, 3);
    style.progressionOrder = pick(0, 4);
    record.comps = comps.data();
    record.dec = &decTile;
    record.dec->params.style = &style;
    record.dec->params.changes = &changes;
  }
  void SetResolutions(std::size_t c, const std::vector<ResolutionRecord>& all) {
    resolutions[c] = all;
    comps[c].dec->numLevels = static_cast<int>(all.size()) - 1;
    comps[c].dec->resolutions = resolutions[c].data();
  }
  int NumComps() const { return static_cast<int>(comps.size()); }
  const auto& Grid(int c, int r) const {
    return resolutions[std::size_t(c)][std::size_t(r)].precincts;
  }
  /// Where a precinct begins on the canvas, inside the tile.
  std::pair<std::int64_t, std::int64_t> Corner(int c, int r, std::int64_t p) const {
    const TileCompRecord& comp = comps[std::size_t(c)];
    const auto& grid = Grid(c, r);
    const std::int64_t column = p % grid.across, row = p / grid.across;
    const auto edge = [&](std::int64_t i, int exponent, int sub) {
      return (i << (comp.dec->numLevels - r + exponent)) * sub;
    };
    return {
        column == 0 ? record.box.x0
                    : edge(grid.firstColumn + column, grid.widthExp, comp.tileGeom.XRsiz),
        row == 0 ? record.box.y0 : edge(grid.firstRow + row, grid.heightExp, comp.tileGeom.YRsiz)};
  }
  void SetChanges(std::mt19937& random, int count) {
    const auto fill = [&](auto& values, unsigned most) {
      values.resize(std::size_t(count));
      for (auto& value : values) value = static_cast<std::uint8_t>(random() % (most + 1));
    };
    fill(rs, 2);
    fill(re, 5);
    fill(order, 4);
    fill(cs, 1);
    fill(ce, 4);
    fill(ly, 4);
    changes = {count, rs.data(), cs.data(), ly.data(), re.data(), ce.data(), order.data(), 1};
  }
  ~Tile() {
    ReleasePacketWalk(record.dec->walk);
    for (auto& comp : resolutions) {
      for (ResolutionRecord& resolution : comp) {
        if (resolution.pages == nullptr) continue;
        for (std::int64_t p = 0; p * kCounterPage < resolution.precincts.Count(); ++p) {
          KelFree(resolution.pages[p]);
        }
        KelFree(resolution.pages);
      }
    }
  }
};

/// One entry's packets: all that there are within its bounds, sorted by the keys of its order. RPCL
/// goes by the precincts of component 0, CPRL knows one precinct only.
Packets ExpectedOfEntry(const Tile& tile, const ProgressionEntry& e) {
  std::vector<std::pair<std::array<std::int64_t, 5>, Packet>> keyed;
  for (int r = e.resolutionStart; r < e.resolutionEnd; ++r) {
    for (int c = e.componentStart; c < e.componentEnd; ++c) {
      std::int64_t count = tile.Grid(c, r).Count();
      if (e.order == KelRPCL) count = std::min(count, tile.Grid(0, r).Count());
      if (e.order == KelCPRL) count = std::min<std::int64_t>(count, 1);
      for (std::int64_t p = 0; p < count; ++p) {
        const auto [x, y] = tile.Corner(c, r, p);
        for (int l = 0; l < e.layerEnd; ++l) {
          const std::array<std::int64_t, 5> keys[] = {
              {l, r, c, p}, {r, l, c, p}, {r, p, c, l}, {y, x, c, r, l}, {c, r, l}};
          keyed.push_back({keys[e.order], {l, r, c, p}});
        }
      }
    }
  }
  std::sort(keyed.begin(), keyed.end());
  Packets packets;
  for (const auto& [key, packet] : keyed) packets.push_back(packet);
  return packets;
}

/// The entries that a tile's changes mean, and their packets without those met before.
Packets Expected(const Tile& tile, const Packets& handled = {}) {
  std::vector<ProgressionEntry> entries;
  const int resolutions = tile.comps[0].dec->numLevels + 1;
  for (int i = 0; i < tile.changes.count; ++i) {
    const auto k = std::size_t(i);
    const int ce = tile.ce[k] == 0 ? tile.NumComps() : tile.ce[k];
    entries.push_back({tile.order[k], std::min<int>(tile.ly[k], tile.style.numLayers), tile.rs[k],
                       std::min<int>(tile.re[k], resolutions), tile.cs[k],
                       std::min(ce, tile.NumComps())});
  }
  if (entries.empty()) {
    entries.push_back(
        {tile.style.progressionOrder, tile.style.numLayers, 0, resolutions, 0, tile.NumComps()});
  }
  std::map<Packet, bool> met;
  for (const Packet& packet : handled) met[packet] = true;
  Packets packets;
  for (const ProgressionEntry& entry : entries) {
    for (const Packet& packet : ExpectedOfEntry(tile, entry)) {
      if (!std::exchange(met[packet], true)) packets.push_back(packet);
    }
  }
  return packets;
}

Packets Walk(PacketWalk& walk, std::size_t most = SIZE_MAX) {
  Packets packets;
  while (packets.size() < most) {
    const PacketId* at = CurrentPacket(walk);
    if (at == nullptr) break;
    packets.emplace_back(at->layer, at->resolution, at->component, at->precinct);
    PacketHandled(walk);
  }
  return packets;
}

// A wrong order or bound in any progression; packets repeated or lost by several changes, or by a
// change in the header of a later tile-part.
TEST_F(PacketWalks, EveryOrderAndChange) {
  std::mt19937 random(1);
  for (int round = 0; round < 1500; ++round) {
    Tile tile(random);
    if (round % 3 != 0) tile.SetChanges(random, round % 4);
    tile.record.dec->walk = MakePacketWalk(tile.record, tile.NumComps());
    const Packets expected = Expected(tile);
    if (round % 2 == 0) {
      ASSERT_EQ(Walk(*tile.record.dec->walk), expected)
          << "order " << tile.style.progressionOrder << " round " << round;
      continue;
    }
    const Packets handled = Walk(*tile.record.dec->walk, random() % 40);
    tile.SetChanges(random, 1 + round % 3);
    ReplaceProgression(*tile.record.dec->walk);
    ASSERT_EQ(Walk(*tile.record.dec->walk), Expected(tile, handled)) << "round " << round;
  }
}

// A turn that skips a component, or stays on one.
TEST_F(PacketWalks, AnEmptyTilePartIsAComponentsTurn) {
  std::mt19937 random(4);
  std::optional<Tile> made;
  while (!made || made->NumComps() < 3) made.emplace(random);
  Tile& tile = *made;
  tile.style.progressionOrder = KelCPRL;
  tile.record.dec->walk = MakePacketWalk(tile.record, tile.NumComps());
  PassEmptyTilePart(*tile.record.dec->walk);
  EXPECT_EQ(CurrentPacket(*tile.record.dec->walk)->component, 1);
  while (CurrentPacket(*tile.record.dec->walk)->component == 1)
    PacketHandled(*tile.record.dec->walk);
  EXPECT_EQ(CurrentPacket(*tile.record.dec->walk)->component, 2);
  PassEmptyTilePart(*tile.record.dec->walk);
  const PacketId* at = CurrentPacket(*tile.record.dec->walk);
  EXPECT_TRUE(at == nullptr || at->component == 3);
}

// Loops whose length a small header sets, over packets that do not exist: a change to RPCL that
// leaves out a component 0 of 2^40 precincts, tiles without samples in thousands of layers, and a
// component's empty turn. Each took minutes, or no end, when it was run through.
TEST_F(PacketWalks, LoopsWithoutPacketsAreNotRunThrough) {
  std::mt19937 random(6);
  Tile tile(random);
  for (const Box& box : {Box{0, 1, 0, 1}, Box{1, 1, 0, 1}}) {
    // Only the highest resolution of each component has samples, if any.
    std::vector<ResolutionRecord> all(33);
    all.back() = ResolutionOf(box, 1, 1);
    for (std::size_t c = 0; c < tile.comps.size(); ++c) tile.SetResolutions(c, all);
    tile.style.numLayers = 65535;
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 200; ++round) {
      tile.style.progressionOrder = round % 5;
      tile.record.dec->walk = MakePacketWalk(tile.record, tile.NumComps());
      const PacketId* at = CurrentPacket(*tile.record.dec->walk);
      ASSERT_EQ(at != nullptr, !box.IsEmpty());
      for (int c = 0; at != nullptr && round % 5 == KelCPRL && c < tile.NumComps(); ++c) {
        PassEmptyTilePart(*tile.record.dec->walk);
      }
      ReleasePacketWalk(tile.record.dec->walk);
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    EXPECT_LT(seconds.count(), 1.0) << (box.IsEmpty() ? "no samples" : "one resolution");
  }
  tile.comps.resize(2);
  tile.resolutions.resize(2);
  tile.record.comps = tile.comps.data();
  tile.SetResolutions(0, {ResolutionOf({0, 1 << 21, 0, 1 << 21}, 1, 1)});
  tile.SetResolutions(1,
                      {ResolutionOf({0, 8, 0, 8}, format::kWholePrecinct, format::kWholePrecinct)});
  tile.SetChanges(random, 2);
  tile.rs = {0, 0}, tile.re = {1, 1}, tile.cs = {1, 1}, tile.ce = {2, 2}, tile.ly = {1, 1};
  tile.order = {KelRPCL, KelRPCL};
  tile.record.dec->walk = MakePacketWalk(tile.record, 2);
  EXPECT_EQ(Walk(*tile.record.dec->walk), (Packets{{0, 0, 1, 0}}));
}

}  // namespace
