#include "python/bridge/deferred.h"

#include <pthread.h>

#include <utility>
#include <vector>

#include "platform/errors/visibleText.h"
#include "platform/threads/Mutex.h"
#include "python/bridge/interpreterLock.h"

namespace zks::bridge {

namespace py = pybind11;

namespace {

using parallel::logging::LogRecord;
using parallel::threads::Mutex;
using parallel::threads::MutexLock;

struct Deferred {
  Mutex mutex;
  bool open ZKS_GUARDED_BY(mutex) = false;
  bool scheduled ZKS_GUARDED_BY(mutex) = false;  // the interpreter has been asked to call runDeferred
  std::vector<PyObject*> references ZKS_GUARDED_BY(mutex);
  std::vector<LogRecord> records ZKS_GUARDED_BY(mutex);
  PyObject* receiver = nullptr;  // guarded by the interpreter's lock
  bool running = false;          // guarded by the interpreter's lock
};

// Never destroyed: threads of the framework may outlive static objects.
Deferred& deferred() {
  static auto* const instance = new Deferred;
  return *instance;
}

// Records that nobody has taken are dropped past this; the interpreter's main thread may be busy for long.
constexpr std::size_t kMostRecords = 10'000;

// Asks the interpreter's main thread to call runDeferred when it next can. A full queue is no loss: every call of the
// bridge runs what is left as well.
void schedule(Deferred& work) ZKS_REQUIRES(work.mutex) {
  if (work.scheduled)
    return;
  const auto run = [](void*) {
    runDeferred();
    return 0;
  };
  work.scheduled = Py_AddPendingCall(run, nullptr) == 0;
}

class KeptErrorIndicator {
 public:
  KeptErrorIndicator() { PyErr_Fetch(&type_, &value_, &trace_); }
  ~KeptErrorIndicator() { PyErr_Restore(type_, value_, trace_); }
  KeptErrorIndicator(const KeptErrorIndicator&) = delete;
  KeptErrorIndicator& operator=(const KeptErrorIndicator&) = delete;

 private:
  PyObject* type_ = nullptr;
  PyObject* value_ = nullptr;
  PyObject* trace_ = nullptr;
};

void passOn(PyObject* receiver, const LogRecord& record) {
  PyObject* const text =
      PyUnicode_DecodeUTF8(record.text.data(), static_cast<Py_ssize_t>(record.text.size()), "replace");
  PyObject* const result = text == nullptr ? nullptr
                                           : PyObject_CallFunction(receiver, "skO", record.logger.c_str(),
                                                                   static_cast<unsigned long>(record.level), text);
  if (result == nullptr)
    PyErr_WriteUnraisable(receiver);
  Py_XDECREF(result);
  Py_XDECREF(text);
}

}  // namespace

void releaseLater(PyObject* reference) noexcept {
  Deferred& work = deferred();
  const bool holdsLock = Py_IsInitialized() != 0 && PyGILState_Check() != 0;
  {
    const MutexLock lock(work.mutex);
    if (!work.open)
      return;
    if (!holdsLock) {
      try {
        work.references.push_back(reference);
        schedule(work);
      } catch (const std::bad_alloc&) {  // the reference is lost, not the process
      }
      return;
    }
  }
  callPython([&] { Py_DECREF(reference); });
}

void logLater(const LogRecord& record) {
  Deferred& work = deferred();
  const MutexLock lock(work.mutex);
  if (!work.open || work.records.size() >= kMostRecords)
    return;
  work.records.push_back(record);
  work.records.back().text = errors::visibleText(record.text);
  schedule(work);
}

void setLogReceiver(py::object receiver) {
  PyObject* const earlier = std::exchange(deferred().receiver, receiver.release().ptr());
  Py_XDECREF(earlier);
}

namespace {

// False when there is nothing left.
bool runBatch(Deferred& work) {
  std::vector<PyObject*> references;
  std::vector<LogRecord> records;
  {
    const MutexLock lock(work.mutex);
    work.scheduled = false;
    if (!work.open || (work.references.empty() && work.records.empty()))
      return false;
    references.swap(work.references);
    records.swap(work.records);
  }
  for (PyObject* const reference : references)
    Py_DECREF(reference);
  PyObject* const receiver = work.receiver;
  if (receiver == nullptr)
    return true;
  Py_INCREF(receiver);  // which the receiver itself may take away
  for (const LogRecord& record : records)
    passOn(receiver, record);
  Py_DECREF(receiver);
  return true;
}

}  // namespace

// A receiver may call the library, which comes back here: what that leaves behind is left to the loop further out, so
// that records keep their order and receivers do not nest.
void runDeferred() noexcept {
  Deferred& work = deferred();
  if (work.running)
    return;
  work.running = true;
  const KeptErrorIndicator kept;
  constexpr int kMostBatches = 100;  // of a receiver that logs by its own calls, for ever
  callPython([&] {
    for (int batch = 0; batch < kMostBatches && runBatch(work); ++batch) {
    }
  });
  work.running = false;
}

namespace {

// One takes what the other gives back, which no analysis of a single function follows.
void lockForFork() ZKS_NO_THREAD_SAFETY_ANALYSIS {
  deferred().mutex.lock();
}

void unlockAfterFork() ZKS_NO_THREAD_SAFETY_ANALYSIS {
  deferred().mutex.unlock();
}

}  // namespace

void openDeferred() {
  Deferred& work = deferred();
  {
    const MutexLock lock(work.mutex);
    work.open = true;
  }
  // A thread may be inside the lock when another forks.
  static const int registered = ::pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork);
  static_cast<void>(registered);
}

void closeDeferred() noexcept {
  runDeferred();
  Deferred& work = deferred();
  {
    const MutexLock lock(work.mutex);
    work.open = false;
  }
  Py_XDECREF(std::exchange(work.receiver, nullptr));
}

}  // namespace zks::bridge
