// The names of the streams with expected samples, for tests that run once for each.
#ifndef TESTS_SUPPORT_VECTOR_NAMES_H
#define TESTS_SUPPORT_VECTOR_NAMES_H

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "Places.h"

namespace test {

inline std::vector<std::string> VectorNames() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(KEL_VECTORS)) {
    if (entry.path().extension() == ".json") names.push_back(entry.path().stem());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace test

#endif
