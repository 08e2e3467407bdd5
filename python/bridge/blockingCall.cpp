#include "python/bridge/blockingCall.h"

#include <chrono>

#include "platform/interrupt/utInterruptState.h"
#include "python/bridge/deferred.h"

namespace zks::bridge {

namespace py = pybind11;

namespace {

using Clock = std::chrono::steady_clock;

// Streams ask between any two pieces; the interpreter's lock is too dear for that.
constexpr std::chrono::milliseconds kCheckInterval{20};

bool isMainThread() {
  const py::module_ threading = py::module_::import("threading");
  return threading.attr("main_thread")().attr("ident").cast<unsigned long>() == PyThread_get_thread_ident();
}

// What ended the operation, until raiseInterrupt.
thread_local py::handle raised;
thread_local bool cancelled = false;

bool signalHandlerRaised() {
  const py::gil_scoped_acquire lock;
  if (PyErr_CheckSignals() == 0)
    return false;
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* trace = nullptr;
  PyErr_Fetch(&type, &value, &trace);
  PyErr_NormalizeException(&type, &value, &trace);
  if (trace != nullptr)
    PyException_SetTraceback(value, trace);
  Py_XDECREF(type);
  Py_XDECREF(trace);
  py::object earlier = py::reinterpret_steal<py::object>(raised);
  raised = value;
  return true;
}

}  // namespace

struct BlockingCall::State {
  std::shared_ptr<const CallControl> control;
  std::shared_ptr<const CallControl> second;
  bool onMainThread;
  Clock::time_point nextCheck;
  State* outer;
};

namespace {

thread_local BlockingCall::State* current = nullptr;

bool isCancelled(const std::shared_ptr<const CallControl>& control) {
  return control != nullptr && control->isCancelled();
}

bool isInterrupted() {
  BlockingCall::State* const call = current;
  if (call == nullptr)
    return false;
  if (isCancelled(call->control) || isCancelled(call->second)) {
    cancelled = true;
    return true;
  }
  if (!call->onMainThread || Clock::now() < call->nextCheck)
    return false;
  call->nextCheck = Clock::now() + kCheckInterval;
  return signalHandlerRaised();
}

}  // namespace

BlockingCall::BlockingCall(std::shared_ptr<const CallControl> control, std::shared_ptr<const CallControl> second)
    : state_(std::make_unique<State>(
          State{std::move(control), std::move(second), isMainThread(), Clock::time_point{}, current})) {
  current = state_.get();
  cancelled = false;
  released_ = PyEval_SaveThread();
}

BlockingCall::~BlockingCall() {
  PyEval_RestoreThread(released_);
  current = state_->outer;
  runDeferred();
}

void connectInterrupts() {
  utInterruptState::setSource(isInterrupted);
}

void disconnectInterrupts() {
  utInterruptState::setSource({});
}

void raiseInterrupt() {
  const bool wasCancelled = std::exchange(cancelled, false);
  const py::object exception = py::reinterpret_steal<py::object>(std::exchange(raised, py::handle()));
  if (exception)
    PyErr_SetObject(py::type::handle_of(exception).ptr(), exception.ptr());
  else if (wasCancelled)
    PyErr_SetNone(py::module_::import("concurrent.futures").attr("CancelledError").ptr());
  else
    PyErr_SetNone(PyExc_KeyboardInterrupt);
}

}  // namespace zks::bridge
