// Handing out indices to threads.
#include "kel/host/parallel.hpp"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "kel/host/limits.hpp"
#include "kel/host/session.hpp"

namespace kel::host {

unsigned ThreadCount(unsigned asked) {
  return asked != 0 ? asked : std::max(1U, std::thread::hardware_concurrency());
}

void ForEachIndex(std::size_t count, unsigned threads,
                  const std::function<void(unsigned worker, std::size_t index)>& task) {
  std::atomic<std::size_t> next{0};
  std::mutex mutex;
  std::exception_ptr failure;
  Account* account = SessionScope::Current();
  const LimitScope::Work* limits = LimitScope::Current();
  const auto work = [&](unsigned worker) {
    const SessionScope scope(account);
    const LimitScope limited(limits);
    try {
      for (std::size_t index; (index = next.fetch_add(1)) < count;) {
        CheckTime();
        task(worker, index);
      }
    } catch (...) {
      const std::lock_guard lock(mutex);
      if (!failure) failure = std::current_exception();
      next = count;
    }
  };
  {
    const auto workers = static_cast<unsigned>(std::min<std::size_t>(std::max(threads, 1U), count));
    std::vector<std::thread> others;
    others.reserve(workers);
    try {
      for (unsigned worker = 1; worker < workers; ++worker) others.emplace_back(work, worker);
    } catch (const std::system_error&) {
      // There are no more threads to be had: those that are do the work.
    }
    work(0);
    for (std::thread& other : others) other.join();
  }
  if (failure) std::rethrow_exception(failure);
}

}  // namespace kel::host
