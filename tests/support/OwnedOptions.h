// Encoding options that release themselves.
#ifndef TESTS_SUPPORT_OWNED_OPTIONS_H
#define TESTS_SUPPORT_OWNED_OPTIONS_H

#include "kel/KelOptions.h"

namespace test {

struct OwnedOptions : KelEncOpt {
  OwnedOptions(KelLong width, KelLong height, KelLong components, KelLong depth) {
    InitToDefaults(width, height, width, height, components, depth);
    CodeBlockWidthExp = CodeBlockHeightExp = 3;
  }
  ~OwnedOptions() { Die(); }
};

}  // namespace test

#endif
