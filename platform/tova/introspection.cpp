#include "platform/tova/introspection.h"

#include <memory>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/tova/BindingRegistry.h"
#include "platform/tova/COSClass.h"
#include "platform/tova/handles.h"
#include "platform/tova/internal/ClassTree.h"

namespace tova {
namespace {

using factory::TovaMethod;
using factory::basic::BindingRegistry;

MethodDescription describe(const TovaMethod& method) {
  MethodDescription description;
  description.name = method.name();
  description.description = method.description();
  description.owner = method.fullName().substr(0, method.fullName().size() - method.name().size() - 1);
  description.flags = method.flags();
  description.isStatic = method.isStatic();
  description.inputs = method.signature().inputs;
  description.outputs = method.signature().outputs;
  description.outputCount = method.signature().outputCount();
  description.signature = signatureText(method);
  return description;
}

ClassDescription describe(const COSClass& cls) {
  const COSClassInfo& info = cls.info();
  ClassDescription description;
  description.name = info.name();
  description.fullName = cls.fullName();
  description.description = info.description();
  description.detailedDescription = info.detailedDescription();
  description.client = cls.clientName();
  description.registration = cls.registration();
  description.version = info.version();
  description.isHandle = info.isHandle();
  description.isAbstract = info.isAbstract();
  description.isSealed = info.isSealed();
  description.isHidden = info.isHidden();
  description.hasConstructor = cls.constructor() != nullptr;
  for (const Superclass& superclass : cls.superclasses()) {
    description.superclasses.push_back(
        {superclass.name, superclass.hidden, superclass.inheritsMethods, superclass.cls != nullptr});
  }
  for (const auto& method : cls.methods())
    description.methods.push_back(describe(*method));
  for (const TovaMethod* method : cls.allMethods()) {
    MethodDescription candidate = describe(*method);
    if (candidate.owner != cls.fullName())
      description.inheritedMethods.push_back(std::move(candidate));
  }
  return description;
}

}  // namespace

std::vector<std::string> listNamespaces() {
  return internal::currentTree()->namespaceNames();
}

std::vector<std::string> listClasses(std::string_view namespaceName, Listing listing) {
  bool found = false;
  const auto classes = internal::currentTree()->classesOf(namespaceName, found);
  if (!found)
    throw Exception<host::classes::NoSuchNamespace>(namespaceName);
  std::vector<std::string> names;
  for (const auto& cls : classes) {
    if (listing == Listing::All || !cls->info().isHidden())
      names.push_back(cls->fullName());
  }
  return names;
}

bool hasClass(std::string_view fullName) {
  return internal::currentTree()->findClass(fullName) != nullptr;
}

ClassDescription describeClass(std::string_view fullName) {
  return describe(*internal::requireClass(fullName));
}

ClassDescription describeClassOf(const qxArray* handle) {
  const auto cls = BindingRegistry::classOf(handle);
  if (!cls)
    factory::detail::throwInvalidHandle(handle);
  return describe(*cls);
}

bool isSubclass(std::string_view fullName, std::string_view ancestor) {
  return internal::requireClass(fullName)->isA(ancestor);
}

bool isValidHandle(const qxArray* array) {
  return BindingRegistry::isValid(array);
}

}  // namespace tova
