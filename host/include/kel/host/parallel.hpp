// Doing independent pieces of work on several threads.
#ifndef KEL_HOST_PARALLEL_HPP
#define KEL_HOST_PARALLEL_HPP

#include "language.hpp"

#include <cstddef>
#include <functional>

namespace kel::host {

/// Reports of work done: how many of how many pieces. Called on any thread, one call at a time.
using Progress = std::function<void(std::size_t done, std::size_t total)>;

/// Threads to use when 0 are asked for: as many as the machine has processors.
unsigned ThreadCount(unsigned asked);

/// Calls task(worker, index) for every index below count, on `threads` threads at most, of which
/// the caller's is one. Indices are handed out in increasing order; worker, below `threads`, tells
/// which thread it is. After an exception no further task starts; when all have ended the first
/// exception is thrown again.
void ForEachIndex(std::size_t count, unsigned threads,
                  const std::function<void(unsigned worker, std::size_t index)>& task);

}  // namespace kel::host

#endif
