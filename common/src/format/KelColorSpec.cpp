// Default parameters of CIELab and CIEJab, and whether a colour description is one of those that
// the library's own colour spaces cover. Exported C functions, which obtain no memory and raise
// nothing: what cannot be filled in is refused with code 15, what is asked of nothing is 0.
#include <algorithm>
#include <array>

#include "kel/KelColor.h"
#include "kel/KelFormat.h"

namespace {

namespace format = kel::format;

constexpr KelULong kIlluminantD50 = 0x443530;  // "D50" in ASCII

/// 2^n; 0 beyond 32 bits.
KelULong PowerOfTwo(KelULong n) {
  return n < 32 ? KelULong{1} << n : 0;
}

}  // namespace

extern "C" {

KelLong InitDefaultCIEParams(KelULong kind, KelCIEParams* params, KelULong bitsA, KelULong bitsB) {
  if (params == nullptr || (kind != format::kKindCIELab && kind != format::kKindCIEJab))
    return KelErrBadParam;
  if (bitsA == 0 || bitsB < (kind == format::kKindCIELab ? 3U : 1U)) return KelErrBadParam;
  params->kind = kind;
  params->rangeL = 100;
  params->offsetL = 0;
  params->offsetA = PowerOfTwo(bitsA - 1);
  params->temperature = 0;
  if (kind == format::kKindCIELab) {
    params->rangeA = 170;
    params->rangeB = 200;
    params->offsetB = PowerOfTwo(bitsB - 2) + PowerOfTwo(bitsB - 3);
    params->illuminantKind = format::kIlluminantCode;
    params->illuminant = kIlluminantD50;
  } else {
    params->rangeA = 255;
    params->rangeB = 255;
    params->offsetB = PowerOfTwo(bitsB - 1);
    params->illuminantKind = 0;
    params->illuminant = 0;
  }
  return KelOK;
}

KelLong CIEParamsAreDefaults(const KelCIEParams* params, KelULong bitsA, KelULong bitsB) {
  KelCIEParams defaults{};
  if (params == nullptr || InitDefaultCIEParams(params->kind, &defaults, bitsA, bitsB) != KelOK) {
    return 0;
  }
  const auto values = [](const KelCIEParams& p) {
    return std::array{p.rangeL, p.offsetL, p.rangeA, p.offsetA, p.rangeB, p.offsetB};
  };
  if (values(*params) != values(defaults)) return 0;
  if (params->kind == format::kKindCIEJab) return 1;
  return params->illuminantKind == defaults.illuminantKind &&
                 params->illuminant == defaults.illuminant
             ? 1
             : 0;
}

KelLong ColorSpecIsKelCompatibile(const KelColorSpec* entry) {
  if (entry == nullptr) return 0;
  if (entry->method == 2) return 1;
  return entry->method == 1 && entry->enumeratedSpace >= format::kSpaceSRGB &&
                 entry->enumeratedSpace <= format::kSpaceSYCC
             ? 1
             : 0;
}
}
