#include <memory>
#include <string>

#include "platform/logging/sinks.h"
#include "python/bridge/bindings.h"
#include "python/bridge/blockingCall.h"
#include "python/bridge/deferred.h"
#include "python/bridge/interpreterLock.h"

namespace zks::bridge {

namespace py = pybind11;
using namespace py::literals;

namespace {

// Ended by disconnect, while the logging core still lives.
std::unique_ptr<parallel::logging::SinkHandle>& sink() {
  static auto* const handle = new std::unique_ptr<parallel::logging::SinkHandle>;
  return *handle;
}

void connect(py::object receiver) {
  setLogReceiver(std::move(receiver));
  openDeferred();
  connectInterrupts();
  if (sink() == nullptr)
    sink() = std::make_unique<parallel::logging::SinkHandle>(logLater);
}

void disconnect() {
  {
    const Unlocked unlocked;  // a thread may be inside the sink
    awaitOtherThreads();
    sink().reset();
  }
  disconnectInterrupts();
  closeDeferred();
}

}  // namespace

void bindLogging(py::module_& module) {
  module.def(
      "connect_interpreter", &connect, "log"_a,
      "Makes the interpreter the receiver of log records, as log(logger, level, text), and the source of interrupts");
  module.def("end_other_threads", &endOtherThreads,
             "Before the interpreter ends: other threads leave what they wait for, and do not come back to Python");
  module.def("disconnect_interpreter", &disconnect, "After that: when the other threads have left");
  module.def(
      "set_log_level",
      [](const std::string& word) { parallel::logging::setEnabledLevels("", parallel::logging::levelsFromWord(word)); },
      "word"_a, "off, error, warning, info, detail or trace");
  module.def("run_deferred", &runDeferred, "Passes on what threads have left for the interpreter");
}

}  // namespace zks::bridge
