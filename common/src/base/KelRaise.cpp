// Records of failures, and throwing them.
#include "base/KelRaise.h"

#include <cstring>
#include <initializer_list>

namespace kel {
namespace {

/// A file's path from the top of the sources: from the last "common/src", "dec/src" or "enc/src".
const char* FromTop(const char* path) noexcept {
  const char* found = path;
  for (const char* at = path; *at != '\0'; ++at) {
    if (at != path && at[-1] != '/') continue;
    for (const char* top : {"common/src/", "dec/src/", "enc/src/"}) {
      if (std::strncmp(at, top, std::strlen(top)) == 0) found = at;
    }
  }
  return found;
}

}  // namespace

Failure MakeFailure(KelLong code, const char* module, SourcePlace place, KelLong level) {
  Failure failure;
  failure.errCode = code;
  failure.lineNum = place.line;
  failure.srcFile = module;
  failure.errLevel = level;
  failure.file = FromTop(place.file);
  return failure;
}

void Raise(KelLong code, const char* module, SourcePlace place, KelLong level) {
  throw MakeFailure(code, module, place, level);
}

}  // namespace kel
