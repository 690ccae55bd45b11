// The walk over packets against the orders written out as plain loops, for random tiles with
// subsampling, precincts and several levels.
#include "KelPacketWalk.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "HostMemory.h"

namespace {

using namespace kel;
using test::HostMemory;

using Packet = std::tuple<int, int, int, std::int64_t>;  // layer, resolution, component, precinct
using Packets = std::vector<Packet>;

/// A tile with hand-made records, as laying it out would leave them.
struct Tile {
  TileRecord record{};
  std::vector<TileCompRecord> comps;
  std::vector<std::vector<ResolutionRecord>> resolutions;
  KelCodingStyle style{};
  KelProgressionChanges changes{};
  std::vector<std::uint8_t> rs, re, order;
  std::vector<std::uint16_t> cs, ce, ly;

  explicit Tile(std::mt19937& random) {
    const auto pick = [&](int least, int most) {
      return std::uniform_int_distribution<int>(least, most)(random);
    };
    record.box = {pick(0, 9), pick(10, 40), pick(0, 9), pick(10, 40)};
    const int numComps = pick(1, 4);
    const int numLevels = pick(0, 3);
    comps.resize(std::size_t(numComps));
    resolutions.resize(std::size_t(numComps));
    for (std::size_t c = 0; c < comps.size(); ++c) {
      TileCompRecord& comp = comps[c];
      comp = {};
      comp.tileGeom.XRsiz = c == 0 ? 1 : pick(1, 3);
      comp.tileGeom.YRsiz = c == 0 ? 1 : pick(1, 3);
      comp.numLevels = numLevels;
      const Box box = {
          CeilDiv(record.box.x0, comp.tileGeom.XRsiz), CeilDiv(record.box.x1, comp.tileGeom.XRsiz),
          CeilDiv(record.box.y0, comp.tileGeom.YRsiz), CeilDiv(record.box.y1, comp.tileGeom.YRsiz)};
      for (int r = 0; r <= numLevels; ++r) {
        ResolutionRecord resolution{};
        const auto exponent = [&] { return pick(0, 3) == 0 ? kWholePrecinct : pick(1, 4); };
        resolution.precincts = PartitionBox(ReduceBox(box, numLevels - r), exponent(), exponent());
        resolution.numAtLeast = resolution.precincts.Count();
        resolutions[c].push_back(resolution);
      }
      comp.resolutions = resolutions[c].data();
    }
    style.numLayers = pick(1, 3);
    style.progressionOrder = pick(0, 4);
    record.comps = comps.data();
    record.params.style = &style;
    record.params.changes = &changes;
  }

  int NumComps() const { return static_cast<int>(comps.size()); }
  std::int64_t Count(int c, int r) const {
    return resolutions[std::size_t(c)][std::size_t(r)].precincts.Count();
  }
  void SetChanges(std::mt19937& random, int count) {
    const auto pick = [&](int most) { return std::uniform_int_distribution<int>(0, most)(random); };
    rs.clear(), re.clear(), order.clear(), cs.clear(), ce.clear(), ly.clear();
    for (int i = 0; i < count; ++i) {
      rs.push_back(static_cast<std::uint8_t>(pick(2)));
      re.push_back(static_cast<std::uint8_t>(pick(5)));
      order.push_back(static_cast<std::uint8_t>(pick(4)));
      cs.push_back(static_cast<std::uint16_t>(pick(1)));
      ce.push_back(static_cast<std::uint16_t>(pick(4)));
      ly.push_back(static_cast<std::uint16_t>(pick(4)));
    }
    changes = {1, count, rs.data(), cs.data(), ly.data(), re.data(), ce.data(), order.data(), 1};
  }
  ~Tile() {
    ReleasePacketWalk(record.walk);
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

/// One entry's packets by plain loops.
Packets ExpectedOfEntry(const Tile& tile, const ProgressionEntry& e) {
  Packets packets;
  const auto add = [&](int l, int r, int c, std::int64_t p) {
    if (p < tile.Count(c, r)) packets.emplace_back(l, r, c, p);
  };
  const auto layers = [&](auto body) {
    for (int l = 0; l < e.layerEnd; ++l) body(l);
  };
  const auto res = [&](auto body) {
    for (int r = e.resolutionStart; r < e.resolutionEnd; ++r) body(r);
  };
  const auto comps = [&](auto body) {
    for (int c = e.componentStart; c < e.componentEnd; ++c) body(c);
  };
  const auto precincts = [&](std::int64_t n, auto body) {
    for (std::int64_t p = 0; p < n; ++p) body(p);
  };
  switch (e.order) {
    case KelLRCP:
      layers([&](int l) {
        res([&](int r) {
          comps([&](int c) { precincts(tile.Count(c, r), [&](auto p) { add(l, r, c, p); }); });
        });
      });
      break;
    case KelRLCP:
      res([&](int r) {
        layers([&](int l) {
          comps([&](int c) { precincts(tile.Count(c, r), [&](auto p) { add(l, r, c, p); }); });
        });
      });
      break;
    case KelRPCL:
      res([&](int r) {
        precincts(tile.Count(0, r),
                  [&](auto p) { comps([&](int c) { layers([&](int l) { add(l, r, c, p); }); }); });
      });
      break;
    case KelPCRL:
      for (std::int64_t y = tile.record.box.y0; y < tile.record.box.y1; ++y) {
        for (std::int64_t x = tile.record.box.x0; x < tile.record.box.x1; ++x) {
          comps([&](int c) {
            res([&](int r) {
              // The precinct whose upper left corner on the canvas is (x, y), if there is one.
              const auto& grid = tile.resolutions[std::size_t(c)][std::size_t(r)].precincts;
              if (grid.Count() == 0) return;
              const TileCompRecord& comp = tile.comps[std::size_t(c)];
              const int below = comp.numLevels - r;
              const auto index = [&](std::int64_t v, std::int64_t edge, int sub, int exponent,
                                     std::int64_t first) -> std::int64_t {
                if (v == edge) return 0;
                if (exponent >= kWholePrecinct) return -1;
                const std::int64_t size = std::int64_t{sub} << (below + exponent);
                return v % size == 0 && v / size > first ? v / size - first : -1;
              };
              const std::int64_t column = index(x, tile.record.box.x0, comp.tileGeom.XRsiz,
                                                grid.widthExp, grid.firstColumn);
              const std::int64_t row =
                  index(y, tile.record.box.y0, comp.tileGeom.YRsiz, grid.heightExp, grid.firstRow);
              if (column < 0 || row < 0 || column >= grid.across || row >= grid.down) return;
              layers([&](int l) { add(l, r, c, row * grid.across + column); });
            });
          });
        }
      }
      break;
    default:
      comps([&](int c) { res([&](int r) { layers([&](int l) { add(l, r, c, 0); }); }); });
  }
  return packets;
}

/// The entries that a tile's changes mean, and their packets without those met before.
Packets Expected(const Tile& tile, const Packets& handled = {}) {
  std::vector<ProgressionEntry> entries;
  const int resolutions = tile.comps[0].numLevels + 1;
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

TEST(PacketWalk, EveryOrderAsPlainLoops) {
  HostMemory memory;
  std::mt19937 random(1);
  for (int round = 0; round < 400; ++round) {
    Tile tile(random);
    tile.record.walk = MakePacketWalk(tile.record, tile.NumComps());
    const Packets expected = Expected(tile);
    ASSERT_EQ(Walk(*tile.record.walk), expected)
        << "order " << tile.style.progressionOrder << " round " << round;
  }
}

TEST(PacketWalk, ProgressionChangesPassOverWhatWasHandled) {
  HostMemory memory;
  std::mt19937 random(2);
  for (int round = 0; round < 600; ++round) {
    Tile tile(random);
    tile.SetChanges(random, 1 + round % 4);
    tile.record.walk = MakePacketWalk(tile.record, tile.NumComps());
    ASSERT_EQ(Walk(*tile.record.walk), Expected(tile)) << "round " << round;
  }
}

// A change in the header of a later tile-part must neither repeat nor lose packets.
TEST(PacketWalk, ChangesInTheMiddleOfATile) {
  HostMemory memory;
  std::mt19937 random(3);
  for (int round = 0; round < 600; ++round) {
    Tile tile(random);
    if (round % 2 == 0) tile.SetChanges(random, 1 + round % 3);
    tile.record.walk = MakePacketWalk(tile.record, tile.NumComps());
    const std::size_t most = random() % 40;
    const Packets handled = Walk(*tile.record.walk, most);
    tile.SetChanges(random, 1 + round % 3);
    ReplaceProgression(*tile.record.walk);
    ASSERT_EQ(Walk(*tile.record.walk), Expected(tile, handled)) << "round " << round;
  }
}

TEST(PacketWalk, AnEmptyTilePartIsAComponentsTurn) {
  HostMemory memory;
  std::mt19937 random(4);
  Tile tile(random);
  while (tile.NumComps() < 3) {
    tile.~Tile();
    new (&tile) Tile(random);
  }
  tile.style.progressionOrder = KelCPRL;
  tile.record.walk = MakePacketWalk(tile.record, tile.NumComps());
  PassEmptyTilePart(*tile.record.walk);
  EXPECT_EQ(CurrentPacket(*tile.record.walk)->component, 1);
  while (CurrentPacket(*tile.record.walk)->component == 1) PacketHandled(*tile.record.walk);
  EXPECT_EQ(CurrentPacket(*tile.record.walk)->component, 2);
  PassEmptyTilePart(*tile.record.walk);
  const PacketId* at = CurrentPacket(*tile.record.walk);
  EXPECT_TRUE(at == nullptr || at->component == 3);
}

// Loops whose length a small header sets, over packets that do not exist: a change to RPCL that
// leaves out a component 0 of 2^40 precincts, tiles without samples in thousands of layers, and a
// component's empty turn. Each took minutes, or no end, when it was run through.
TEST(PacketWalk, LoopsWithoutPacketsAreNotRunThrough) {
  HostMemory memory;
  std::mt19937 random(6);
  Tile tile(random);
  const int levels = 32;
  for (const Box& box : {Box{0, 1, 0, 1}, Box{1, 1, 0, 1}}) {
    for (std::size_t c = 0; c < tile.comps.size(); ++c) {
      ResolutionRecord record{};
      record.precincts = PartitionBox(box, 1, 1);
      record.numAtLeast = record.precincts.Count();
      tile.resolutions[c].assign(levels + 1, record);
      // Only the highest resolution of each component has samples, if any.
      for (int r = 0; r < levels; ++r) tile.resolutions[c][std::size_t(r)] = {};
      tile.comps[c].numLevels = levels;
      tile.comps[c].resolutions = tile.resolutions[c].data();
    }
    tile.style.numLayers = 65535;
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 200; ++round) {
      tile.style.progressionOrder = round % 5;
      tile.record.walk = MakePacketWalk(tile.record, tile.NumComps());
      const PacketId* at = CurrentPacket(*tile.record.walk);
      ASSERT_EQ(at != nullptr, !box.IsEmpty());
      for (int c = 0; at != nullptr && round % 5 == KelCPRL && c < tile.NumComps(); ++c) {
        PassEmptyTilePart(*tile.record.walk);
      }
      ReleasePacketWalk(tile.record.walk);
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    EXPECT_LT(seconds.count(), 1.0) << (box.IsEmpty() ? "no samples" : "one resolution");
  }
  ResolutionRecord huge{}, small{};
  huge.precincts = PartitionBox({0, 1 << 21, 0, 1 << 21}, 1, 1);
  small.precincts = PartitionBox({0, 8, 0, 8}, kWholePrecinct, kWholePrecinct);
  huge.numAtLeast = huge.precincts.Count();
  small.numAtLeast = 1;
  tile.comps.resize(2);
  tile.resolutions.resize(2);
  tile.record.comps = tile.comps.data();
  for (std::size_t c = 0; c < 2; ++c) {
    tile.comps[c].numLevels = 0;
    tile.resolutions[c] = {c == 0 ? huge : small};
    tile.comps[c].resolutions = tile.resolutions[c].data();
  }
  tile.SetChanges(random, 2);
  tile.rs = {0, 0}, tile.re = {1, 1}, tile.cs = {1, 1}, tile.ce = {2, 2}, tile.ly = {1, 1};
  tile.order = {KelRPCL, KelRPCL};
  tile.changes = {1,
                  2,
                  tile.rs.data(),
                  tile.cs.data(),
                  tile.ly.data(),
                  tile.re.data(),
                  tile.ce.data(),
                  tile.order.data(),
                  1};
  tile.record.walk = MakePacketWalk(tile.record, 2);
  EXPECT_EQ(Walk(*tile.record.walk), (Packets{{0, 0, 1, 0}}));
}

TEST(PacketWalk, RefusedMemoryLeavesNothingBehind) {
  HostMemory memory;
  test::SweepRefusals(memory, [&] {
    std::mt19937 random(5);
    Tile tile(random);
    tile.style.progressionOrder = KelPCRL;
    tile.SetChanges(random, 3);
    tile.record.walk = MakePacketWalk(tile.record, tile.NumComps());
    Walk(*tile.record.walk);
    return KelOK;
  });
}

}  // namespace
