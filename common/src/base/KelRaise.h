// Raising failures, and the names of the modules that raise them.
//
// A raise site is one line: the condition, then Raise with the code and the module's name. The
// line number is taken from the call by itself. What is raised is a KelException by value; only
// the public boundary catches it.
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

/// The record of a failure. The line is that of the caller unless given.
inline KelException MakeFailure(KelLong code, const char* module, int line = __builtin_LINE(),
                                KelLong level = kLevelFailure) {
  KelException failure;
  failure.errCode = code;
  failure.lineNum = line;
  failure.srcFile = module;
  failure.errLevel = level;
  return failure;
}

/// Throws the record of a failure.
[[noreturn]] inline void Raise(KelLong code, const char* module, int line = __builtin_LINE(),
                               KelLong level = kLevelFailure) {
  throw MakeFailure(code, module, line, level);
}

/// Runs a step that obtains memory, and lets its want of memory be reported in the name of the
/// module that needed it instead of the memory layer's. Other failures pass unchanged.
template <class Step>
auto NamingModule(const char* module, Step step, int line = __builtin_LINE()) {
  try {
    return step();
  } catch (const KelException& failure) {
    if (failure.errCode == KelErrNoMemory) Raise(KelErrNoMemory, module, line);
    throw;
  }
}

}  // namespace kel

#endif
