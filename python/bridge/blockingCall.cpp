#include "python/bridge/blockingCall.h"

#include <pthread.h>

#include <chrono>
#include <thread>

#include "platform/interrupt/utInterruptState.h"
#include "python/bridge/deferred.h"
#include "python/bridge/interpreterLock.h"

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

// The threads that are in an operation, and whether those other than the main one are to end.
std::atomic<int> threadsInside{0};
std::atomic<bool> interpreterEnds{false};

// The interpreter's lock, taken again while an operation goes on.
class LockedAgain {
 public:
  explicit LockedAgain(PyThreadState*& released) : released_(released) {
    callPython([this] { PyEval_RestoreThread(released_); });
  }
  ~LockedAgain() { released_ = PyEval_SaveThread(); }
  LockedAgain(const LockedAgain&) = delete;
  LockedAgain& operator=(const LockedAgain&) = delete;

 private:
  PyThreadState*& released_;
};

bool signalHandlerRaised(PyThreadState*& released) {
  const LockedAgain lock(released);
  if (callPython(PyErr_CheckSignals) == 0)
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
  const py::object earlier = py::reinterpret_steal<py::object>(raised);
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
  PyThreadState* released = nullptr;

  bool isToEnd() const noexcept { return !onMainThread && interpreterEnds.load(); }
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
  if (!call->onMainThread)
    return call->isToEnd();
  if (Clock::now() < call->nextCheck)
    return false;
  call->nextCheck = Clock::now() + kCheckInterval;
  return signalHandlerRaised(call->released);
}

}  // namespace

BlockingCall::BlockingCall(std::shared_ptr<const CallControl> control, std::shared_ptr<const CallControl> second)
    : state_(std::make_unique<State>(
          State{std::move(control), std::move(second), isMainThread(), Clock::time_point{}, current})) {
  current = state_.get();
  cancelled = false;
  state_->released = PyEval_SaveThread();
  ++threadsInside;
}

BlockingCall::~BlockingCall() {
  --threadsInside;
  if (state_->isToEnd())
    stopForEver();
  callPython([this] { PyEval_RestoreThread(state_->released); });
  current = state_->outer;
  runDeferred();
}

void withLockAgain(const std::function<void()>& action) {
  utInterruptState::ThrowIfInterruptPending();  // as at the interpreter's end, when nobody gets the lock any more
  const LockedAgain lock(current->released);
  callPython(action);
}

void endOtherThreads() noexcept {
  interpreterEnds.store(true);
}

void awaitOtherThreads() {
  constexpr std::chrono::seconds kLongest{5};
  constexpr std::chrono::milliseconds kPollInterval{1};
  const auto end = Clock::now() + kLongest;
  while (threadsInside.load() > 0 && Clock::now() < end)
    std::this_thread::sleep_for(kPollInterval);
}

bool wasCancelled() noexcept {
  return cancelled;
}

void connectInterrupts() {
  static const int registered = ::pthread_atfork(nullptr, nullptr, [] { threadsInside = 0; });
  static_cast<void>(registered);
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
