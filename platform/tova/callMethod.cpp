#include "platform/tova/callMethod.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/tova/BindingRegistry.h"
#include "platform/tova/COSClass.h"
#include "platform/tova/argumentCounts.h"
#include "platform/tova/handles.h"
#include "platform/tova/internal/ClassTree.h"
#include "platform/tova/validateSelfPointer.h"

namespace tova {
namespace {

using factory::TovaMethod;

[[noreturn]] void throwNoMethod(const COSClass& cls, std::string_view name, MethodKind kind) {
  const bool wantsStatic = kind == MethodKind::Static;
  if (cls.methodsNamed(name, wantsStatic ? MethodKind::Instance : MethodKind::Static).empty())
    throw Exception<host::classes::NoSuchMethod>(cls.fullName(), name);
  throw Exception<host::classes::WrongMethodKind>(cls.fullName() + "." + std::string(name),
                                                  wantsStatic ? "an instance method" : "a static method",
                                                  wantsStatic ? "an object" : "the class");
}

// The overload that takes this many inputs.
const TovaMethod& chooseMethod(const COSClass& cls, std::string_view name, MethodKind kind, std::size_t inputCount) {
  const auto candidates = cls.methodsNamed(name, kind);
  if (candidates.empty())
    throwNoMethod(cls, name, kind);
  const auto fits = [&](const TovaMethod* method) { return method->signature().inputs.size() == inputCount; };
  const auto chosen = std::find_if(candidates.begin(), candidates.end(), fits);
  if (chosen != candidates.end())
    return **chosen;
  std::vector<std::size_t> accepted;
  accepted.reserve(candidates.size());
  for (const TovaMethod* method : candidates)
    accepted.push_back(method->signature().inputs.size());
  factory::throwWrongInputCount(cls.fullName() + "." + std::string(name), std::move(accepted), inputCount);
}

std::vector<qxArrayPtr> run(const TovaMethod& method, int wantedOutputs, std::vector<const qxArray*> inputs) {
  const std::size_t made = method.signature().outputCount();
  std::vector<qxArrayPtr> outputs;
  outputs.reserve(made);
  std::vector<qxArray*> slots(std::max<std::size_t>(made, 1), nullptr);
  method.call(wantedOutputs, slots.data(), static_cast<int>(inputs.size()), inputs.data());
  for (std::size_t index = 0; index < made; ++index)
    outputs.emplace_back(slots[index]);
  return outputs;
}

}  // namespace

std::vector<qxArrayPtr> callStaticMethod(std::string_view className, std::string_view method, int wantedOutputs,
                                         Inputs inputs) {
  const auto cls = internal::requireClass(className);
  return run(chooseMethod(*cls, method, MethodKind::Static, inputs.size()), wantedOutputs,
             {inputs.begin(), inputs.end()});
}

std::vector<qxArrayPtr> callMethod(const qxArray* handle, std::string_view method, int wantedOutputs, Inputs inputs) {
  factory::impl::validateSelfPointer(handle);
  const auto cls = factory::basic::BindingRegistry::classOf(handle);
  if (!cls)
    factory::detail::throwInvalidHandle(handle);
  std::vector<const qxArray*> all{handle};
  all.insert(all.end(), inputs.begin(), inputs.end());
  return run(chooseMethod(*cls, method, MethodKind::Instance, inputs.size()), wantedOutputs, std::move(all));
}

qxArrayPtr callConstructor(std::string_view className, Inputs inputs) {
  const auto cls = internal::requireClass(className);
  if (cls->info().isAbstract())
    throw Exception<host::classes::AbstractClass>(className);
  if (cls->constructor() == nullptr)
    throw Exception<host::classes::NoConstructor>(className);
  return std::move(run(*cls->constructor(), 1, {inputs.begin(), inputs.end()}).front());
}

}  // namespace tova
