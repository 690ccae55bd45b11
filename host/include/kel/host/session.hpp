// The library's time of use: a Session starts it with memory from the heap, counts what it holds,
// refuses what would exceed a limit, and stops it again.
//
// Any number of sessions may live in a process at a time, each with an account of its own. The
// library's memory callbacks have no argument that could name a session: what is asked for on a
// thread goes to the session made last on that thread, and, on threads without one, to the oldest
// in the process. One made inside a SessionScope is its thread's until that ends, and then only of
// whom a scope leads to it. The kit's own threads work for their caller's. Where others started the
// library, with other callbacks, a session counts, and limits, what the kit itself holds.
#ifndef KEL_HOST_SESSION_HPP
#define KEL_HOST_SESSION_HPP

#include "language.hpp"

#include <cstdint>

namespace kel::host {

struct Account;

class Session {
 public:
  /// Starts the library unless it runs. memoryLimit is in bytes, 0 for none.
  explicit Session(std::uint64_t memoryLimit = 0);
  /// Stops it after its last user. Everything that was made in this session must be gone.
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Of the session that the calling thread works for; 0 or false without any.
  static bool IsRunning();
  static std::uint64_t Limit();         ///< bytes, 0 for none
  static std::uint64_t CurrentBytes();  ///< held by the library now, and reserved
  static std::uint64_t PeakBytes();     ///< the most since the start or ResetPeak
  static void ResetPeak();
  /// Freed by the library and kept for its next request of that size, until another needs them; of
  /// all sessions. With what is held now these are no more than was held at some time.
  static std::uint64_t KeptBytes();

 private:
  Account* account_;
};

/// Lets a thread work for the session of another one, for as long as the object lives.
class SessionScope {
 public:
  explicit SessionScope(Account* account);
  ~SessionScope();
  SessionScope(const SessionScope&) = delete;
  SessionScope& operator=(const SessionScope&) = delete;

  /// What the calling thread works for; may be null.
  static Account* Current();

 private:
  Account* before_;
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
  Account* account_ = nullptr;
  std::uint64_t bytes_ = 0;
};

}  // namespace kel::host

#endif
