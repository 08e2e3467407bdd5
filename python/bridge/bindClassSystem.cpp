#include <pybind11/stl.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/tova/callMethod.h"
#include "platform/tova/introspection.h"
#include "python/bridge/Handle.h"
#include "python/bridge/HostLibrary.h"
#include "python/bridge/bindings.h"
#include "python/bridge/blockingCall.h"
#include "python/bridge/fromPython.h"
#include "python/bridge/messageToPython.h"
#include "python/bridge/toPython.h"

namespace zks::bridge {

namespace py = pybind11;
using namespace py::literals;

namespace {

// The inputs of one call. What they make may keep them, so they are copies.
class Inputs {
 public:
  explicit Inputs(const py::args& values) {
    for (const py::handle value : values) {
      owned_.push_back(fromPython(value, Memory::Copy));
      borrowed_.push_back(owned_.back().get());
    }
  }

  const std::vector<const qxArray*>& arrays() const noexcept { return borrowed_; }

 private:
  std::vector<qxArrayPtr> owned_;
  std::vector<const qxArray*> borrowed_;
};

// None, the one output, or a tuple of them.
py::object pythonOutputs(std::vector<qxArrayPtr> outputs) {
  const auto convert = [](qxArrayPtr& output) {
    return output == nullptr ? py::object(py::none()) : toPython(std::move(output), Scalars::AsScalars);
  };
  if (outputs.empty())
    return py::none();
  if (outputs.size() == 1)
    return convert(outputs.front());
  py::tuple values(outputs.size());
  for (std::size_t index = 0; index < outputs.size(); ++index)
    values[index] = convert(outputs[index]);
  return values;
}

py::object callStatic(const std::string& className, const std::string& method, int outputs, const py::args& values) {
  const Inputs inputs(values);
  return pythonOutputs(
      withoutLock([&] { return tova::callStaticMethod(className, method, outputs, inputs.arrays()); }));
}

py::object callInstance(const Handle& handle, const std::string& method, int outputs, const py::args& values) {
  const Inputs inputs(values);
  return pythonOutputs(withoutLock([&] { return tova::callMethod(handle.array(), method, outputs, inputs.arrays()); }));
}

std::shared_ptr<Handle> construct(const std::string& className, const py::args& values) {
  const Inputs inputs(values);
  return std::make_shared<Handle>(withoutLock([&] { return tova::callConstructor(className, inputs.arrays()); }));
}

py::object callBuiltin(const std::string& qualifiedName, const py::args& values) {
  const tova::Builtin builtin = HostLibrary::builtin(qualifiedName);
  const Inputs inputs(values);
  std::vector<const qxArray*> arrays = inputs.arrays();
  std::vector<qxArrayPtr> outputs(1);
  withoutLock([&] {
    qxArray* output = nullptr;
    builtin(1, &output, static_cast<int>(arrays.size()), arrays.data());
    outputs[0].reset(output);
  });
  return outputs[0] != nullptr && isMessage(outputs[0].get()) ? messageToPython(std::move(outputs[0]))
                                                              : pythonOutputs(std::move(outputs));
}

py::dict pythonMethod(const tova::MethodDescription& method) {
  return py::dict("name"_a = method.name, "description"_a = method.description, "owner"_a = method.owner,
                  "is_static"_a = method.isStatic, "inputs"_a = method.inputs, "outputs"_a = method.outputs,
                  "output_count"_a = method.outputCount, "signature"_a = method.signature);
}

py::list pythonMethods(const std::vector<tova::MethodDescription>& methods) {
  py::list list;
  for (const auto& method : methods)
    list.append(pythonMethod(method));
  return list;
}

py::dict pythonClass(const tova::ClassDescription& cls) {
  py::list superclasses;
  for (const auto& superclass : cls.superclasses)
    if (superclass.isRegistered && !superclass.isHidden)
      superclasses.append(superclass.name);
  return py::dict("name"_a = cls.name, "full_name"_a = cls.fullName, "description"_a = cls.description,
                  "detailed_description"_a = cls.detailedDescription, "registration"_a = cls.registration,
                  "is_abstract"_a = cls.isAbstract, "has_constructor"_a = cls.hasConstructor,
                  "superclasses"_a = superclasses, "methods"_a = pythonMethods(cls.methods),
                  "inherited_methods"_a = pythonMethods(cls.inheritedMethods));
}

}  // namespace

void bindClassSystem(py::module_& module) {
  module.def("load_library", &HostLibrary::load, "Loads the library and calls its load hook");
  module.def("list_namespaces", &tova::listNamespaces);
  module.def(
      "list_classes", [](const std::string& name) { return tova::listClasses(name); }, "namespace"_a);
  module.def(
      "has_class", [](const std::string& name) { return tova::hasClass(name); }, "name"_a);
  module.def(
      "describe_class", [](const std::string& name) { return pythonClass(tova::describeClass(name)); }, "name"_a);
  module.def("call_static", &callStatic, "class_name"_a, "method"_a, "outputs"_a);
  module.def("call_method", &callInstance, "handle"_a, "method"_a, "outputs"_a);
  module.def("construct", &construct, "class_name"_a);
  module.def("call_builtin", &callBuiltin, "name"_a);
  module.def(
      "find_builtin", [](const std::string& name) { static_cast<void>(HostLibrary::builtin(name)); }, "name"_a,
      "An error when the library has none of the name");
}

}  // namespace zks::bridge
