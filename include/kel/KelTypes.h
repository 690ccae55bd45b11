// The integer types, the export macro and the result codes that every public header uses.
//
// Relies on the standard integer types alone. Integers of the interface are 32 bits wide on
// every machine; pointers and callbacks have the machine's own width; one word, the host's
// reference in a buffer identifier, is wide enough to hold an address.
#ifndef KEL_TYPES_H
#define KEL_TYPES_H

#include <cstdint>

#if defined(KEL_STATIC) && defined(_WIN32)
#define KEL_API
#elif defined(KEL_BUILDING) && defined(_WIN32)
#define KEL_API __declspec(dllexport)
#elif defined(_WIN32)
#define KEL_API __declspec(dllimport)
#else
/// Marks what the shared library exports; everything else in it is hidden.
#define KEL_API __attribute__((visibility("default")))
#endif

/// Signed 32-bit integer of the interface.
using KelLong = std::int32_t;
/// Unsigned 32-bit integer of the interface.
using KelULong = std::uint32_t;

/// Result codes. Every exported operation that returns a code returns one of these.
enum KelResult : KelLong {
  KelOK = 0,                   ///< success
  KelErrNothingRead = 3,       ///< a stream delivered not a byte
  KelErrNoMemory = 8,          ///< a memory callback returned null, or a size cannot be held
  KelErrBadMarker = 10,        ///< a marker segment is malformed or carries a value out of range
  KelErrBadParam = 15,         ///< an argument or a combination of parameters is not allowed
  KelErrPoolEmpty = 16,        ///< part of the interface, not used: no operation returns it
  KelErrUnknownFormat = 17,    ///< the data begin with no known signature
  KelErrBadSegmentValue = 18,  ///< a reserved bit or a wrong length in a marker segment
  KelErrBoxSignature = 21,     ///< a box is malformed, or one that must be present is missing
  KelErrBoxRange = 22,         ///< fewer bytes than a box announces could be read
  KelErrBoxStructure = 23,     ///< the code-stream box was reached (never returned to the host)
  KelErrBoxHeader = 25,        ///< a box header cannot be read in full
  KelErrBoxTruncated = 26,     ///< a box extends past the available data
  KelErrAborted = 28,          ///< the host's abort callback asked for the work to stop
  KelErrUnsupported = 29,      ///< the data use a feature that the library does not support
  KelErrNotImplemented = 30,   ///< the operation is not implemented
  KelErrUnexpected = 31,       ///< a failure other than a KelException reached the boundary
  KelErrWriteFailed = 32       ///< the host's stream did not take what was written
};

static_assert(sizeof(KelLong) == 4 && sizeof(KelULong) == 4 && sizeof(bool) == 1,
              "the records of the interface assume 32-bit integers and one-byte flags");

#endif
