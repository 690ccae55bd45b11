// How a call from Python becomes work of the kit: on the account of the process's memory limit,
// without the interpreter's lock, and ended by the signals that the interpreter has noted.
//
// Everything here is called with the lock held unless it says otherwise.
#ifndef KEL_PYTHON_WORK_HPP
#define KEL_PYTHON_WORK_HPP

#include <pybind11/pybind11.h>

#include <kel/host/errors.hpp>
#include <kel/host/limits.hpp>
#include <kel/host/parallel.hpp>
#include <kel/host/session.hpp>

#include <memory>
#include <utility>

namespace kel::python {

namespace py = pybind11;

/// The library's time of use under one memory limit. What works on its account holds it.
struct Room {
  explicit Room(std::uint64_t limit)
      : session(limit), account(host::SessionScope::Current()), bytes(limit) {}
  host::Session session;
  host::Account* account;
  std::uint64_t bytes;
};

/// The room of calls that begin now. The last one stays until the process ends.
std::shared_ptr<Room> CurrentRoom();
void SetMemoryLimit(std::uint64_t bytes);

/// A signal handler of the interpreter raised an exception, which is set on the calling thread.
struct Interrupted {};

/// Lets the interpreter's signal handlers run and throws Interrupted when one of them raised an
/// exception. Does something on the interpreter's main thread only, and there not more often than
/// every 20 milliseconds. To be called without the lock.
void CheckSignals();
/// The same whenever some of the work is done.
inline host::Progress WatchProgress() {
  return [](std::size_t, std::size_t) { CheckSignals(); };
}

/// Limits of a call on the calling thread: arrays have that of memory alone, and the interpreter's
/// signals are seen by the kit too, within tiles, on all threads of the call.
class CallScope {
 public:
  CallScope();

 private:
  host::LimitScope limits_;
};

/// Calls work() without the lock. What a signal handler raised meanwhile is thrown on.
template <class Work>
decltype(auto) WithoutLock(Work&& work) {
  try {
    const py::gil_scoped_release unlocked;
    const CallScope limits;
    return work();
  } catch (const Interrupted&) {
    throw py::error_already_set();
  } catch (const host::Error& error) {
    if (error.Kind() == host::Failure::kTime && PyErr_Occurred() != nullptr) {
      throw py::error_already_set();
    }
    throw;
  }
}

/// The same on the account of a room.
template <class Work>
decltype(auto) Run(const Room& room, Work&& work) {
  return WithoutLock([&]() -> decltype(auto) {
    const host::SessionScope scope(room.account);
    return work();
  });
}

/// Kinds of kel.Error, thrown as such from now on by every function of the module.
void AddErrors(py::module_& module);

}  // namespace kel::python

#endif
