// Boxes of the reference grid, by hand and against a count over every point of small canvases.
#include "kel/KelGeometry.h"

#include <gtest/gtest.h>

#include <array>

#include "HostMemory.h"

namespace {

using test::HostMemory;
using Geometry = test::LibraryTest;

constexpr KelLong kOne[1] = {1};
constexpr KelLong kEight[1] = {8};

struct Edges {
  KelLong x0, x1, y0, y1;
  bool operator==(const Edges&) const = default;
};

KelLong CodeOf(KelLong XO, KelLong XT, KelLong XTO) {
  KelImageGeometry g;
  const KelException failure = test::RaisedBy(
      [&] { g.InitImageGeometry(100, 100, XO, 0, XT, 100, XTO, 0, kOne, kOne, 1, kEight); });
  if (failure.errCode != KelOK) {
    EXPECT_EQ(failure.errLevel, 1);
    EXPECT_STREQ(failure.srcFile, "common/src/KelGeometry");
  }
  g.Die();
  return failure.errCode;
}

// A tiling accepted that leaves out a part of the image, or refused for a sum beyond 31 bits.
TEST_F(Geometry, ConsistencyOfTheTiling) {
  for (const auto& [XO, XT, XTO] : {std::array{5, 10, 5}, {9, 10, 0}, {5, INT32_MAX, 5}}) {
    EXPECT_EQ(CodeOf(XO, XT, XTO), KelOK) << XO;
  }
  // Of the third, the first tile ends where the image begins.
  for (const auto& [XO, XT, XTO] : {std::array{5, 10, 6}, {5, 10, -1}, {10, 10, 0}, {0, 0, 0}}) {
    EXPECT_EQ(CodeOf(XO, XT, XTO), KelErrBadParam) << XO;
  }
  KelImageGeometry many(INT32_MAX, 1, 0, 0, 1, 1, 0, 0, kOne, kOne, 1, kEight);
  EXPECT_EQ(many.NumXTiles, INT32_MAX);
  many.Die();
}

// A tile-component's samples are the multiples of the subsampling factor inside the tile, and a
// resolution's are the multiples of 2^k among those.
TEST_F(Geometry, BoxesHoldTheGridPointsTheyShould) {
  for (KelLong size : {7, 16, 23}) {
    for (KelLong origin : {0, 1, 5}) {
      for (KelLong tile : {6, 7, 30}) {
        for (KelLong sub : {1, 2, 3}) {
          KelImageGeometry g(size, size, origin, origin, tile, tile, 0, 0, &sub, &sub, 1, kEight);
          EXPECT_GE(g.NumXTiles * tile, size);
          EXPECT_LT((g.NumXTiles - 1) * tile, size) << "an empty tile";
          for (KelLong p = 0; p < g.NumXTiles; ++p) {
            for (KelLong r = 0; r <= 2; ++r) {
              KelLong first = -1, last = -1, n = 0;
              for (KelLong x = std::max(origin, p * tile); x < std::min(size, (p + 1) * tile);
                   ++x) {
                if (x % (sub << (2 - r)) != 0) continue;
                if (n++ == 0) first = x;
                last = x;
              }
              Edges e{};
              g.GetTileCompResolutionBoundingBox(p, 0, 0, r, 2, &e.x0, &e.x1, &e.y0, &e.y1);
              EXPECT_EQ(e.x1 - e.x0, n);
              if (n > 0) {
                EXPECT_EQ(e.x0 * (sub << (2 - r)), first);
                EXPECT_EQ((e.x1 - 1) * (sub << (2 - r)), last);
              }
            }
          }
          Edges whole{};
          g.GetImageResolutionBoundingBox(2, 2, &whole.x0, &whole.x1, &whole.y0, &whole.y1);
          EXPECT_EQ(whole, (Edges{origin, size, origin, size}));
          g.Die();
        }
      }
    }
  }
}

TEST_F(Geometry, TileGeometryTakesItsComponentsValues) {
  const std::array<KelLong, 2> across = {1, 2};
  const std::array<KelLong, 2> down = {1, 1};
  const std::array<KelLong, 2> depths = {8, 12};
  KelImageGeometry g(10, 10, 1, 0, 6, 6, 0, 0, across.data(), down.data(), 2, depths.data());
  for (const KelTileGeometry& t : {KelTileGeometry(&g, 1, 3), KelTileGeometry(&g, 1, 1, 1)}) {
    EXPECT_TRUE(t.Owner == &g && t.TileNum == 3 && t.BitDepth == 12 && t.XRsiz == 2);
    EXPECT_EQ((Edges{t.X0, t.X1, t.Y0, t.Y1}), (Edges{3, 5, 6, 10}));
  }
  const KelTileGeometry stored(0, 0, 8, 1, 1, 3, 8, 0, 1);
  Edges e{};
  stored.GetResolutionCoords(1, 2, &e.x0, &e.x1, &e.y0, &e.y1);
  EXPECT_EQ(e, (Edges{2, 4, 0, 1}));
  g.Die();
}

TEST_F(Geometry, DeepCopyAndRefusals) {
  EXPECT_THROW(KelImageGeometry().InitImageGeometry(nullptr), KelException);
  EXPECT_THROW(KelImageGeometry(10, 10, 0, 0, 10, 10, 1, 0, kOne, kOne, 1, kEight), KelException)
      << "nobody could release its arrays";
  test::SweepRefusals(memory, [] {
    KelImageGeometry source(10, 10, 0, 0, 10, 10, 0, 0, kOne, kOne, 1, kEight);
    KelImageGeometry copy;
    try {
      copy.InitImageGeometry(&source);
    } catch (const KelException& failure) {
      EXPECT_STREQ(failure.srcFile, "common/src/KelGeometry");
      source.Die();
      throw;
    }
    EXPECT_NE(copy.BitDepths, source.BitDepths);
    source.Die();
    EXPECT_EQ(copy.BitDepths[0], 8);
    copy.Die();
    copy.Die();
    return KelOK;
  });
}

}  // namespace
