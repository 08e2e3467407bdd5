#include "platform/tova/BindingRegistry.h"
#include "platform/tova/introspection.h"
#include "python/bridge/Handle.h"
#include "python/bridge/bindings.h"
#include "python/bridge/counters.h"
#include "python/bridge/errors.h"
#include "python/bridge/fromPython.h"
#include "python/bridge/messageToPython.h"
#include "python/bridge/toPython.h"

namespace zks::bridge {

namespace py = pybind11;
using namespace py::literals;

namespace {

py::dict liveObjects() {
  const Counters& count = counters();
  py::dict live;
  live["borrowed"] = count.borrowed.load();
  live["exported"] = count.exported.load();
  live["handles"] = count.handles.load();
  live["sessions"] = count.sessions.load();
  live["replies"] = count.replies.load();
  live["bindings"] = tova::factory::basic::BindingRegistry::size();
  return live;
}

bool areSame(const Handle& left, const Handle& right) {
  return qxEqual(left.array(), right.array());
}

}  // namespace

void bindValues(py::module_& module) {
  py::class_<Handle, std::shared_ptr<Handle>>(module, "Handle", "A handle of an object of the host")
      .def_property_readonly("class_name", &Handle::className)
      .def_property_readonly("is_valid", [](const Handle& handle) { return tova::isValidHandle(handle.array()); })
      .def("is_same", &areSame, "other"_a);
  module.def(
      "roundtrip",
      [](py::handle value, bool scalars) {
        return toPython(fromPython(value, Memory::Borrow), scalars ? Scalars::AsScalars : Scalars::AsArrays);
      },
      "value"_a, "scalars"_a = false, "The value as it comes back from the host's arrays");
  module.def("live_objects", &liveObjects, "How many native things that belong to Python objects are alive");
  module.def("set_handle_factory", &setHandleFactory, "factory"_a);
  module.def("set_message_factory", &setMessageFactory, "factory"_a);
  module.def("set_error_factory", &setErrorFactory, "factory"_a);
}

}  // namespace zks::bridge
