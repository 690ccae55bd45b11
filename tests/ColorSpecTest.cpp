// CIE defaults and the compatibility test.
#include "kel/KelColor.h"

#include <gtest/gtest.h>

namespace {

TEST(ColorSpec, DefaultsAndTheirRecognition) {
  KelCIEParams p{};
  EXPECT_EQ(InitDefaultCIEParams(1, &p, 8, 8), 0);
  EXPECT_EQ(p.rangeA, 170U);
  EXPECT_EQ(p.offsetA, 128U);
  EXPECT_EQ(p.rangeB, 200U);
  EXPECT_EQ(p.offsetB, 96U);
  EXPECT_EQ(p.illuminant, 0x443530U);
  EXPECT_EQ(CIEParamsAreDefaults(&p, 8, 8), 1);
  EXPECT_EQ(CIEParamsAreDefaults(&p, 8, 9), 0);
  p.temperature = 6500;
  EXPECT_EQ(CIEParamsAreDefaults(&p, 8, 8), 1) << "the temperature is not compared";
  p.illuminant = 0x443635;
  EXPECT_EQ(CIEParamsAreDefaults(&p, 8, 8), 0);

  EXPECT_EQ(InitDefaultCIEParams(2, &p, 8, 1), 0);
  EXPECT_EQ(p.offsetB, 1U);
  EXPECT_EQ(CIEParamsAreDefaults(&p, 8, 1), 1);
  p.rangeL = 99;
  EXPECT_EQ(CIEParamsAreDefaults(&p, 8, 1), 0);
  EXPECT_EQ(CIEParamsAreDefaults(nullptr, 8, 8), 0);

  for (const auto& [kind, a, b] :
       {std::tuple{1, 8, 2}, {1, 0, 8}, {2, 8, 0}, {0, 8, 8}, {3, 8, 8}}) {
    EXPECT_EQ(InitDefaultCIEParams(KelULong(kind), &p, KelULong(a), KelULong(b)), 15);
  }
  EXPECT_EQ(InitDefaultCIEParams(1, nullptr, 8, 8), 15);
  EXPECT_EQ(InitDefaultCIEParams(2, &p, 200, 200), 0) << "absurd depths must not shift too far";
}

TEST(ColorSpec, Compatibility) {
  KelColorSpec entry{};
  const auto compatible = [&](KelULong method, KelULong space) {
    entry.method = method;
    entry.enumeratedSpace = space;
    return ColorSpecIsKelCompatibile(&entry);
  };
  EXPECT_EQ(compatible(1, 16), 1);
  EXPECT_EQ(compatible(1, 17), 1);
  EXPECT_EQ(compatible(1, 18), 1);
  EXPECT_EQ(compatible(1, 14), 0);
  EXPECT_EQ(compatible(1, 12), 0);
  EXPECT_EQ(compatible(2, 0), 1);
  EXPECT_EQ(compatible(3, 16), 0);
  EXPECT_EQ(ColorSpecIsKelCompatibile(nullptr), 0);
}

}  // namespace
