// Raising failures, and the names of the modules that raise them.
//
// A raise site is one line: the condition, then Raise with the code and the module's name. Line
// and file are taken from the call by themselves. Caught is at the public boundary, in the two
// helpers below, and where a frame ends (a host's Seek may throw there).
#ifndef KEL_RAISE_H
#define KEL_RAISE_H

#include "kel/KelMemory.h"

namespace kel {

// Module names as failure records carry them.
inline constexpr char kModuleApiGlue[] = "common/src/KelApiGlue";
inline constexpr char kModuleImage[] = "common/src/KelImage";
inline constexpr char kModuleImageMap[] = "common/src/KelImageMap";
inline constexpr char kModuleMemFuncDefs[] = "common/src/KelMemFuncDefs";
inline constexpr char kModuleOpt[] = "common/src/KelOpt";
inline constexpr char kModuleGeometry[] = "common/src/KelGeometry";
inline constexpr char kModuleHeaders[] = "common/src/KelHeaders";
inline constexpr char kModuleFileFormat[] = "common/src/KelFileFormat";
inline constexpr char kModuleFileFormatOld[] = "common/src/KelFileFormat_Old";
inline constexpr char kModuleCompTransform[] = "common/src/KelCompTransform";
inline constexpr char kModulePreview[] = "common/src/KelPreview";
inline constexpr char kModuleDecDataMgr[] = "dec/src/KelDecDataMgr";

/// Level of the geometry's parameter checks, and of every other raise site.
inline constexpr KelLong kLevelParameters = 1;
inline constexpr KelLong kLevelFailure = 3;

/// A place in the sources. As a default argument it is the caller's.
struct SourcePlace {
  const char* file;  ///< as the compiler was given it
  int line;

  static SourcePlace Here(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    return {file, line};
  }
};

/// What is raised inside: the public record, and the file that its line is of. The record names
/// modules by fixed paths, where the sources may be arranged otherwise. Hosts' handlers for
/// KelExceptions catch it like any other.
struct Failure : KelException {
  const char* file = nullptr;  ///< path from the top of the sources; null when clear

  Failure() { ClearErrState(); }
  void Clear() { *this = Failure(); }
};

/// The record of a failure, at the caller's place unless given.
Failure MakeFailure(KelLong code, const char* module, SourcePlace place = SourcePlace::Here(),
                    KelLong level = kLevelFailure);

/// Throws the record of a failure.
[[noreturn]] void Raise(KelLong code, const char* module, SourcePlace place = SourcePlace::Here(),
                        KelLong level = kLevelFailure);

/// Runs a step that obtains memory, and lets its want of memory be reported in the name of the
/// module that needed it instead of the memory layer's: names are part of what hosts see. Only the
/// name of the failure in flight changes; place and code stay. Other failures pass unchanged.
template <class Step>
auto NamingModule(const char* module, Step step) {
  try {
    return step();
  } catch (Failure& failure) {
    if (failure.errCode == KelErrNoMemory) failure.srcFile = module;
    throw;
  }
}

/// Runs a step that reads data, for a caller to whom it is an outcome that these are refused: the
/// refusal, or a clear record. Want of memory is none, and passes on.
template <class Step>
[[nodiscard]] Failure RefusalBy(Step step) {
  try {
    step();
    return {};
  } catch (const Failure& failure) {
    if (failure.errCode == KelErrNoMemory) throw;
    return failure;
  }
}

}  // namespace kel

#endif
