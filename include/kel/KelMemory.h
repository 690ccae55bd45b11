// Starting and stopping the library, the host's memory callbacks, and the failure record.
//
// The library owns no memory manager: every byte comes from the eleven callbacks of the
// KelMemFuncs that the host registers with KelLibInit. The one thing outside them is the
// language run-time's storage for an exception in flight, which is never larger than one
// KelException and is returned before an operation returns.
//
// Calling order: KelLibInit first; then any number of image objects, option sets and
// code-stream objects; KelLibShutDown last, after every image object was torn down with Die.
#ifndef KEL_MEMORY_H
#define KEL_MEMORY_H

#include "KelTypes.h"

/// The identifier of a sample buffer, created and destroyed by the host inside its buffer
/// callbacks. The library only holds pointers to identifiers.
class KEL_API KelBufID_I {
 public:
  KelBufID_I& operator=(const KelBufID_I& source) = default;
  KelBufID_I(const KelBufID_I& source) = default;
  KelBufID_I() = default;

  /// How the buffer was obtained. The library stores 1 into every identifier that AllocBuf or
  /// AllocAlignedBuf returns and never locks, unlocks or frees an identifier holding another
  /// value; 0 means no buffer.
  std::uint8_t bufType = 0;
  /// The host's own word, typically its handle or the data address; never read or written here.
  std::uintptr_t clientRef = 0;
};

/// The host's memory callbacks. The object is registered by address, not copied: it must
/// outlive the library's use. All eleven fields must be set before KelLibInit. Sizes and counts
/// are in bytes. Callbacks may run on any thread that calls into the library.
///
/// Null is how the host refuses a request. AllocBuf, AllocAlignedBuf, LockBuf, Malloc and
/// AlignedMalloc may throw instead, which ends the operation like any other failure. The others run
/// while the library gives back what it holds: throwing there ends the program (std::terminate). No
/// callback of the library, these or others, may call an operation of the object on whose behalf it
/// runs.
class KEL_API KelMemFuncs {
 public:
  KelMemFuncs() {}  ///< All fields null, for the host to fill.
  KelMemFuncs(const KelMemFuncs& source) = default;
  KelMemFuncs& operator=(const KelMemFuncs& source) = default;
  virtual ~KelMemFuncs();

  /// Obtains a sample buffer; null when out of memory. A null for size 0 is not a failure.
  KelBufID_I* (*AllocBuf)(KelULong sizeBytes) = nullptr;
  /// As AllocBuf, with the data aligned to the given boundary (the library asks for 16).
  KelBufID_I* (*AllocAlignedBuf)(KelULong sizeBytes, KelULong alignmentBytes) = nullptr;
  /// The address of a buffer's bytes, valid until the matching UnlockBuf.
  void* (*LockBuf)(KelBufID_I* buffer) = nullptr;
  /// Ends an access begun by LockBuf. May also come for a buffer that is not locked.
  void (*UnlockBuf)(KelBufID_I* buffer) = nullptr;
  /// Releases a buffer and its identifier.
  void (*FreeBuf)(KelBufID_I* buffer) = nullptr;
  /// Plain allocation, contents undefined; null when out of memory.
  void* (*Malloc)(KelULong sizeBytes) = nullptr;
  /// Releases what Malloc gave; must accept null.
  void (*Free)(void* address) = nullptr;
  /// Aligned allocation (the library asks for 16); null when out of memory.
  void* (*AlignedMalloc)(KelULong sizeBytes, KelULong alignmentBytes) = nullptr;
  /// Releases what AlignedMalloc gave; must accept null.
  void (*AlignedFree)(void* address) = nullptr;
  /// Copies bytes between areas that do not overlap.
  void (*MemCopy)(void* destination, const void* source, KelULong countBytes) = nullptr;
  /// Fills bytes with a value from 0 to 255.
  void (*MemSet)(void* destination, KelLong value, KelULong countBytes) = nullptr;
};

/// The failure record, and the one class that the library throws. Guarded operations return its
/// code and keep a copy for KelImage::GetErrorDetails; operations documented as raising let it
/// pass to the host, which may catch it by value or by reference.
class KEL_API KelException {
 public:
  KelException() { ClearErrState(); }
  KelException(const KelException& source) = default;
  KelException& operator=(const KelException& source) = default;

  /// Sets code 0, line -1, no module, level 0.
  void ClearErrState();
  /// Always the constant text "Not Available Yet"; not to be modified or released.
  char* GetErrString() const;
  /// Copies the four fields of *source; a null source changes nothing.
  void Clone(const KelException* source);

  KelLong errCode;      ///< a KelResult
  KelLong lineNum;      ///< the raise site within its module; -1 when clear
  const char* srcFile;  ///< relative path of the module that raised it; null when clear
  KelLong errLevel;     ///< 1 for parameter checks of the geometry, 3 otherwise; 0 when clear
};

/// Where a failure was noticed: a source file of the library, by its path from the top of the
/// sources, and a line of it. Modules are named by fixed paths; this is the file as it stands.
struct KelErrorPlace {
  const char* file;  ///< constant text; null when nothing failed, or a host's callback threw
  KelLong line;      ///< lineNum of the failure record
};

extern "C" {

/// Registers the host's memory callbacks (by address) and chooses the kernels for this machine.
/// A second call replaces the registration. Must not run while any other operation runs.
/// Returns 0; 15, with the registration as it was, for null or when a callback is missing.
KEL_API KelLong KelLibInit(KelMemFuncs* memFuncs);

/// Clears the registration. Every image object must have been torn down before. Returns 0.
KEL_API KelLong KelLibShutDown(void);

/// Uses the library beside others in the process: registers the callbacks as KelLibInit does when
/// none are registered, and else leaves those in force. Returns the callbacks in force, which must
/// stay valid until the last user has left; null where KelLibInit refuses. May be called while
/// other operations run, but not beside KelLibInit and KelLibShutDown.
KEL_API KelMemFuncs* KelLibJoin(KelMemFuncs* memFuncs);

/// Ends one use that KelLibJoin began. The last one to leave clears a registration that KelLibJoin
/// made; one that KelLibInit made stays. Returns the number of users left.
KEL_API KelULong KelLibLeave(void);

/// The registered callbacks, or null when the library is not started.
KEL_API KelMemFuncs* KelGetMemObj(void);

/// The version, such as "1.0.30866". May be asked at any time.
KEL_API const char* KelLibVersion(void);

/// When the library was built, such as "Sun, 22 Nov 2026 10:00:00 +0000"; constant for one
/// build. May be asked at any time.
KEL_API const char* KelLibBuildDate(void);
}

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(KelBufID_I) == 8 && sizeof(KelException) == 16 &&
                  sizeof(KelMemFuncs) == 4 + 11 * 4,
              "field widths on 32-bit hosts");
#endif

#endif
