// What older standard libraries lack of C++20, and builds without threads.
//
// Included before everything else (compiler option -include) where the compiler's own library lacks
// it, so that no source of the library or the kit knows of it; public headers use none of it. What
// stands here has the meaning of the standard, for the uses of this project; where the library
// brings a thing itself, nothing is defined. Clang's library of version 14 and the WebAssembly
// toolchain's are such; the latter has neither mutexes nor threads without them.
#ifndef KEL_MISSING_STD_HPP
#define KEL_MISSING_STD_HPP

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <type_traits>

namespace std {

#ifndef __cpp_lib_bit_cast
template <class To, class From>
constexpr To bit_cast(const From& from) noexcept {
  static_assert(sizeof(To) == sizeof(From));
  return __builtin_bit_cast(To, from);
}
#endif

#ifndef __cpp_lib_smart_ptr_for_overwrite
template <class Array>
auto make_unique_for_overwrite(size_t count) {
  return unique_ptr<Array>(new remove_extent_t<Array>[count]);
}
#endif

#ifndef __cpp_lib_ranges
namespace ranges {

/// Compares what the projections of two elements give.
template <class Compare, class Projection>
auto KelProjected(Compare compare, Projection projection) {
  return [=](const auto& a, const auto& b) {
    return compare(std::invoke(projection, a), std::invoke(projection, b));
  };
}

struct KelSame {
  template <class T>
  constexpr T&& operator()(T&& value) const noexcept {
    return static_cast<T&&>(value);
  }
};

template <class Range, class Compare = std::less<>, class Projection = KelSame>
void sort(Range&& range, Compare compare = {}, Projection projection = {}) {
  std::sort(std::begin(range), std::end(range), KelProjected(compare, projection));
}
template <class Range, class Compare = std::less<>, class Projection = KelSame>
void stable_sort(Range&& range, Compare compare = {}, Projection projection = {}) {
  std::stable_sort(std::begin(range), std::end(range), KelProjected(compare, projection));
}
template <class Range, class Compare = std::less<>, class Projection = KelSame>
bool is_sorted(Range&& range, Compare compare = {}, Projection projection = {}) {
  return std::is_sorted(std::begin(range), std::end(range), KelProjected(compare, projection));
}
template <class Range, class Predicate, class Projection = KelSame>
auto find_if(Range&& range, Predicate predicate, Projection projection = {}) {
  return std::find_if(std::begin(range), std::end(range), [&](const auto& element) {
    return std::invoke(predicate, std::invoke(projection, element));
  });
}
template <class Range, class Value, class Projection = KelSame>
auto find(Range&& range, const Value& value, Projection projection = {}) {
  return ranges::find_if(
      range, [&](const auto& element) { return element == value; }, projection);
}
template <class Range, class Predicate, class Projection = KelSame>
bool any_of(Range&& range, Predicate predicate, Projection projection = {}) {
  return ranges::find_if(range, predicate, projection) != std::end(range);
}
template <class Range, class Predicate, class Projection = KelSame>
bool none_of(Range&& range, Predicate predicate, Projection projection = {}) {
  return !ranges::any_of(range, predicate, projection);
}
template <class Range, class Predicate, class Projection = KelSame>
bool all_of(Range&& range, Predicate predicate, Projection projection = {}) {
  return !ranges::any_of(
      range, [&](const auto& element) { return !std::invoke(predicate, element); }, projection);
}
template <class Range, class Value, class Projection = KelSame>
auto count(Range&& range, const Value& value, Projection projection = {}) {
  return std::count_if(std::begin(range), std::end(range), [&](const auto& element) {
    return std::invoke(projection, element) == value;
  });
}
template <class Range, class Value>
void fill(Range&& range, const Value& value) {
  std::fill(std::begin(range), std::end(range), value);
}
template <class Range, class Output>
auto copy(Range&& range, Output to) {
  return std::copy(std::begin(range), std::end(range), to);
}
template <class Range, class Output>
auto move(Range&& range, Output to) {
  return std::move(std::begin(range), std::end(range), to);
}
template <class Range, class Output, class Function>
auto transform(Range&& range, Output to, Function function) {
  return std::transform(std::begin(range), std::end(range), to, function);
}
template <class Range>
auto max(const Range& range) {
  return *std::max_element(std::begin(range), std::end(range));
}
template <class Range, class Value, class Compare = std::less<>, class Projection = KelSame>
auto lower_bound(Range&& range, const Value& value, Compare compare = {},
                 Projection projection = {}) {
  return std::lower_bound(std::begin(range), std::end(range), value,
                          [&](const auto& element, const Value& other) {
                            return std::invoke(compare, std::invoke(projection, element), other);
                          });
}
template <class Range, class Value, class Compare = std::less<>, class Projection = KelSame>
auto upper_bound(Range&& range, const Value& value, Compare compare = {},
                 Projection projection = {}) {
  return std::upper_bound(std::begin(range), std::end(range), value,
                          [&](const Value& other, const auto& element) {
                            return std::invoke(compare, other, std::invoke(projection, element));
                          });
}
template <class Range, class Output, class Predicate>
auto copy_if(Range&& range, Output to, Predicate predicate) {
  return std::copy_if(std::begin(range), std::end(range), to, predicate);
}
template <class First, class Second, class Predicate = std::equal_to<>, class OfFirst = KelSame,
          class OfSecond = KelSame>
bool equal(First&& first, Second&& second, Predicate predicate = {}, OfFirst ofFirst = {},
           OfSecond ofSecond = {}) {
  return std::equal(std::begin(first), std::end(first), std::begin(second), std::end(second),
                    [&](const auto& a, const auto& b) {
                      return std::invoke(predicate, std::invoke(ofFirst, a),
                                         std::invoke(ofSecond, b));
                    });
}

}  // namespace ranges
#endif

#ifdef _LIBCPP_HAS_NO_THREADS
// One thread locks nothing. A wait for another thread would never end, so it stops the program,
// and a thread cannot be had, which the kit allows for.
class mutex {
 public:
  void lock() {}
  void unlock() {}
  bool try_lock() { return true; }
};
template <class Mutex>
class lock_guard {
 public:
  explicit lock_guard(Mutex&) {}
  ~lock_guard() {}
};
template <class Mutex>
class unique_lock {
 public:
  unique_lock() = default;
  explicit unique_lock(Mutex&) {}
  ~unique_lock() {}
  void lock() {}
  void unlock() {}
};
class condition_variable {
 public:
  void notify_one() {}
  void notify_all() {}
  template <class Lock, class Predicate>
  void wait(Lock&, Predicate predicate) {
    if (!predicate()) std::abort();
  }
};
class thread {
 public:
  using id = int;
  thread() = default;
  template <class Work, class... Arguments>
  explicit thread(Work&&, Arguments&&...) {
    throw system_error(make_error_code(errc::resource_unavailable_try_again));
  }
  void join() {}
  static unsigned hardware_concurrency() { return 1; }
};
namespace this_thread {
inline thread::id get_id() {
  return 0;
}
}  // namespace this_thread
#endif

}  // namespace std

#endif
