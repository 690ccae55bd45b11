// CIE defaults and the compatibility test.
#include "kel/KelColor.h"

#include <gtest/gtest.h>

#include <array>

namespace {

// Fields exchanged, ranges of the wrong depth, a comparison that takes one field more or less.
TEST(ColorSpec, DefaultsAndTheirRecognition) {
  KelCIEParams p{};
  EXPECT_EQ(InitDefaultCIEParams(1, &p, 8, 8), 0);
  EXPECT_TRUE(p.rangeA == 170 && p.offsetA == 128 && p.rangeB == 200 && p.offsetB == 96);
  EXPECT_EQ(p.illuminant, 0x443530U);
  EXPECT_EQ(CIEParamsAreDefaults(&p, 8, 8), 1);
  EXPECT_EQ(CIEParamsAreDefaults(&p, 8, 9), 0);
  p.temperature = 6500;
  EXPECT_EQ(CIEParamsAreDefaults(&p, 8, 8), 1) << "the temperature is not compared";
  p.illuminant = 0x443635;
  EXPECT_EQ(CIEParamsAreDefaults(&p, 8, 8), 0);
  EXPECT_EQ(InitDefaultCIEParams(2, &p, 8, 1), 0);
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
  for (const auto& [method, space, compatible] : {std::array{1U, 16U, 1U},
                                                  {1, 17, 1},
                                                  {1, 18, 1},
                                                  {1, 14, 0},
                                                  {1, 12, 0},
                                                  {2, 0, 1},
                                                  {3, 16, 0}}) {
    entry.method = method;
    entry.enumeratedSpace = space;
    EXPECT_EQ(ColorSpecIsKelCompatibile(&entry), compatible) << method << ' ' << space;
  }
  EXPECT_EQ(ColorSpecIsKelCompatibile(nullptr), 0);
}

}  // namespace
