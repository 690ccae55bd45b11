// The room of the process, and the kit's failures as exceptions of Python.
#include "Work.hpp"

#include <atomic>
#include <chrono>

namespace kel::python {
namespace {

/// Never destroyed: objects of the module may outlive every other part of it.
std::shared_ptr<Room>& TheRoom() {
  static auto* room = new std::shared_ptr<Room>(std::make_shared<Room>(0));
  return *room;
}

struct Kind {
  const char* name;
  const char* says;
  PyObject* also;  ///< what Python calls such failures, if it has a name for them
};

/// By host::Failure.
PyObject* classes[6] = {};

PyObject* MakeClass(const py::module_& module, const Kind& kind, const py::object& base) {
  const std::string name = std::string("kel.") + kind.name;
  py::object bases = kind.also == nullptr ? base : py::make_tuple(base, py::handle(kind.also));
  PyObject* made = PyErr_NewExceptionWithDoc(name.c_str(), kind.says, bases.ptr(), nullptr);
  if (made == nullptr) throw py::error_already_set();
  module.attr(kind.name) = py::handle(made);
  return made;  // kept for the life of the process
}

void Raise(const host::Error& error) {
  const py::handle type = classes[static_cast<int>(error.Kind())];
  py::object raised = type(error.what());
  raised.attr("sentence") = error.Sentence();
  raised.attr("file") = error.File().empty() ? py::object(py::none()) : py::str(error.File());
  raised.attr("code") = error.Code();
  raised.attr("details") = error.Details();
  PyErr_SetObject(type.ptr(), raised.ptr());
}

/// The call whose main thread met an exception: its other threads learn of it here.
std::atomic<const host::LimitScope::Work*> stoppedCall{nullptr};

bool StopIsAsked() {
  const host::LimitScope::Work* mine = host::LimitScope::Current();
  if (stoppedCall == mine) return true;
  try {
    CheckSignals();
  } catch (const Interrupted&) {
    stoppedCall = mine;
    return true;
  }
  return false;
}

}  // namespace

std::shared_ptr<Room> CurrentRoom() {
  return TheRoom();
}

void SetMemoryLimit(std::uint64_t bytes) {
  TheRoom() = std::make_shared<Room>(bytes);
}

void CheckSignals() {
  static const unsigned long mainThread = [] {
    const py::gil_scoped_acquire lock;
    const py::object thread = py::module_::import("threading").attr("main_thread")();
    return thread.attr("ident").cast<unsigned long>();
  }();
  if (PyThread_get_thread_ident() != mainThread) return;
  static std::chrono::steady_clock::time_point last;
  const auto now = std::chrono::steady_clock::now();
  if (now - last < std::chrono::milliseconds(20)) return;
  last = now;
  const py::gil_scoped_acquire lock;
  if (PyErr_CheckSignals() != 0) throw Interrupted();
}

CallScope::CallScope() : limits_({.maxPixels = 0, .stop = StopIsAsked}) {
  const host::LimitScope::Work* mine = host::LimitScope::Current();
  stoppedCall.compare_exchange_strong(mine, nullptr);  // an earlier one at this place
}

void AddErrors(py::module_& module) {
  const py::object base = py::reinterpret_borrow<py::object>(MakeClass(
      module,
      {"Error",
       "A failure, told in a sentence. Attributes: sentence, file (or None), code and details of "
       "the library (0 and empty when it did not fail).",
       nullptr},
      py::reinterpret_borrow<py::object>(PyExc_Exception)));
  // In the order of host::Failure.
  const Kind kinds[] = {
      {"InputError", "Data that cannot be read or decoded.", nullptr},
      {"IncompleteError", "Data that end early, where strict was not given up.", nullptr},
      {"OutputError", "A destination that cannot be written, or that cannot hold the picture.",
       nullptr},
      {"MemoryLimitError", "Out of memory, or beyond the limit of set_memory_limit.",
       PyExc_MemoryError},
      {"ParameterError", "Parameters, or a picture, that are not allowed.", PyExc_ValueError}};
  for (int i = 0; i < 5; ++i) classes[i] = MakeClass(module, kinds[i], base);
  classes[5] = base.inc_ref().ptr();  // calls have no limit on time
  py::register_exception_translator([](std::exception_ptr failure) {
    try {
      if (failure) std::rethrow_exception(failure);
    } catch (const host::Error& error) {
      Raise(error);
    }
  });
}

}  // namespace kel::python
