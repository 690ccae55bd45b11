// Exported C functions of the library frame, and the out-of-line members of the frame's classes.
#include "api/KelApiGlue.h"

#include "KelBuildDate.h"
#include "KelVersion.h"
#include "base/KelMemFuncDefs.h"
#include "kel/KelMemory.h"
#include "kernels/KelKernels.h"

KelMemFuncs::~KelMemFuncs() = default;

void KelException::ClearErrState() {
  errCode = KelOK;
  lineNum = -1;
  srcFile = nullptr;
  errLevel = 0;
}

char* KelException::GetErrString() const {
  static char text[] = "Not Available Yet";
  return text;
}

void KelException::Clone(const KelException* source) {
  if (source != nullptr) *this = *source;
}

extern "C" {

KelLong KelLibInit(KelMemFuncs* memFuncs) {
  if (!kel::IsComplete(memFuncs)) return KelErrBadParam;
  kel::RegisterMemFuncs(memFuncs);
  kel::ChooseKernels();
  return KelOK;
}

KelLong KelLibShutDown(void) {
  kel::RegisterMemFuncs(nullptr);
  return KelOK;
}

KelMemFuncs* KelGetMemObj(void) {
  return kel::RegisteredMemFuncs();
}

const char* KelLibVersion(void) {
  return KEL_VERSION;
}

const char* KelLibBuildDate(void) {
  return KEL_BUILD_DATE;
}
}
