// Exported C functions of the library frame, and the out-of-line members of the frame's classes.
#include "api/KelApiGlue.h"

#include <atomic>

#include "KelBuildDate.h"
#include "KelVersion.h"
#include "base/KelMemFuncDefs.h"
#include "kel/KelMemory.h"
#include "kernels/KelKernels.h"

KelMemFuncs::~KelMemFuncs() = default;

namespace {

/// Who uses the library together. Guarded by a spin lock, held for a few instructions; joining the
/// first also chooses the kernels.
struct Users {
  std::atomic_flag isLocked;
  KelULong count;
  KelMemFuncs* joined;  ///< what the first to join has registered; else null
};

Users users;

class UsersLock {
 public:
  UsersLock() noexcept {
    while (users.isLocked.test_and_set(std::memory_order_acquire)) {
    }
  }
  ~UsersLock() { users.isLocked.clear(std::memory_order_release); }
  UsersLock(const UsersLock&) = delete;
  UsersLock& operator=(const UsersLock&) = delete;
};

}  // namespace

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

KelMemFuncs* KelLibJoin(KelMemFuncs* memFuncs) {
  const UsersLock lock;
  if (KelGetMemObj() == nullptr) {
    if (KelLibInit(memFuncs) != KelOK) return nullptr;
    users.joined = memFuncs;
  }
  ++users.count;
  return KelGetMemObj();
}

KelULong KelLibLeave(void) {
  const UsersLock lock;
  if (users.count == 0 || --users.count != 0) return users.count;
  if (users.joined != nullptr && users.joined == KelGetMemObj()) KelLibShutDown();
  users.joined = nullptr;
  return 0;
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
