// The option sets: defaults, clones that share nothing, refusals.
#include "kel/KelOptions.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "HostMemory.h"
#include "base/KelMemFuncDefs.h"

namespace {

using test::HostMemory;
using Options = test::LibraryTest;

KelLong* Longs(std::initializer_list<KelLong> values) {
  auto* array = static_cast<KelLong*>(kel::KelMalloc(values.size() * sizeof(KelLong)));
  std::copy(values.begin(), values.end(), array);
  return array;
}

// What hosts rely on without setting it; the tests' own host sets its own.
TEST_F(Options, Defaults) {
  KelEncOpt o;
  o.InitToDefaults(640, 480, 640, 480, 3, 8);
  EXPECT_TRUE(o.NumLevels == 5 && o.NumLayers == 1 && o.Irreversible == 1);
  EXPECT_TRUE(o.ProgressionOrder == KelRLCP && o.PrecinctWidthExp == 15 && o.RateLimit == -1);
  EXPECT_TRUE(o.TargetQuality == 40.0F && o.NumColorChannels == 3);
  EXPECT_TRUE(o.RoiMaskComponent == -1 && o.TransparencyComponent == -1);
  o.Die();
  o.Die();
}

TEST_F(Options, CloneIsIndependentAndLeavesOutWhatItShould) {
  KelEncOpt source;
  source.InitToDefaults(64, 64, 32, 32, 1, 8);
  source.NumLayers = 3;
  source.LayerTargets = Longs({10, 20, 30});
  source.RateTableCount = 4;
  source.RateTable = Longs({1, 2, 3, 4});
  source.QualityScale = 50;
  source.UseSOP = source.UseEPH = true;
  source.NumLevels = 2;
  KelComment comment{};
  source.Comment = &comment;
  KelEncOpt copy;
  copy.Clone(&source);
  EXPECT_TRUE(std::equal(copy.LayerTargets, copy.LayerTargets + 3, source.LayerTargets));
  EXPECT_TRUE(std::equal(copy.RateTable, copy.RateTable + 4, source.RateTable));
  EXPECT_EQ(copy.NumLevels, 2);
  EXPECT_TRUE(copy.UseSOP);
  EXPECT_EQ(copy.QualityScale, 100);
  EXPECT_FALSE(copy.UseEPH);
  EXPECT_EQ(copy.Comment, nullptr);
  copy.Die();
  EXPECT_EQ(source.LayerTargets[2], 30);
  source.Die();
}

// A set that is refused, released twice, or left half-built without its memory.
TEST_F(Options, RefusedRequestsLeakNothingAndNameTheModule) {
  EXPECT_THROW(KelEncOpt().InitToDefaults(nullptr), KelException);
  EXPECT_THROW(KelEncOpt().InitToDefaults(10, 10, 0, 10, 1, 8), KelException);
  test::SweepRefusals(memory, []() -> KelLong {
    KelEncOpt source;
    KelDecOpt decoder;
    KelDecOpt copy;
    kel::ScopeGuard release([&] {
      source.Die();
      decoder.Die();
      copy.Die();
    });
    try {
      source.InitToDefaults(64, 64, 32, 32, 3, 8);
      decoder.InitToDefaults();
      decoder.EncOpt->Clone(&source);
      copy.Clone(&decoder);
    } catch (const KelException& failure) {
      EXPECT_STREQ(failure.srcFile, "common/src/KelOpt");
      throw;
    }
    copy.Die();
    EXPECT_EQ(copy.EncOpt, nullptr);
    EXPECT_EQ(decoder.EncOpt->NumComponents, 3);
    return KelOK;
  });
}

}  // namespace
