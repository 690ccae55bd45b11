// The library's time of use: a Session starts it with memory from the heap, counts what it holds,
// refuses what would exceed a limit, and stops it again.
//
// The library's memory callbacks have no argument that could name a session, so there is one
// session in a process at a time. Counters may be read from any thread.
#ifndef KEL_HOST_SESSION_HPP
#define KEL_HOST_SESSION_HPP

#include <cstdint>

namespace kel::host {

class Session {
 public:
  /// Starts the library. memoryLimit is in bytes, 0 for none. Throws Error (kParameter) while
  /// another session runs.
  explicit Session(std::uint64_t memoryLimit = 0);
  /// Stops it. Everything that uses the library must be gone.
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  static bool IsRunning();
  static std::uint64_t Limit();         ///< bytes, 0 for none
  static std::uint64_t CurrentBytes();  ///< held by the library now, and reserved
  static std::uint64_t PeakBytes();     ///< the most since the start or ResetPeak
  static void ResetPeak();
  /// Freed by the library and kept for its next request of that size, until another needs them.
  /// With what is held now these are no more than was held at some time.
  static std::uint64_t KeptBytes();
};

/// Counts bytes that do not come from the library, such as an image's samples, against the
/// session's limit for as long as it lives. Outside a session it does nothing.
class MemoryReservation {
 public:
  MemoryReservation() = default;
  /// Throws Error (kMemory) when the limit does not allow them; purpose completes the sentence
  /// "... for PURPOSE".
  MemoryReservation(std::uint64_t bytes, const char* purpose);
  ~MemoryReservation();
  MemoryReservation(MemoryReservation&& other) noexcept;
  MemoryReservation& operator=(MemoryReservation&& other) noexcept;

 private:
  std::uint64_t bytes_ = 0;
};

}  // namespace kel::host

#endif
