// Description of a class whose objects are handles of native objects of type T.
//
// T derives from full::Wrappable and has a HostClassName. With HasConstructor the host may create objects by naming the
// class, without arguments; they are made by std::make_shared<T>().
#pragma once

#include <memory>
#include <typeinfo>

#include "platform/tova/BindingRegistry.h"
#include "platform/tova/HostClassName.h"
#include "platform/tova/TovaFactoryClassInfo.h"
#include "platform/tova/makeMethod.h"

namespace tova::factory {

template <class T, bool HasConstructor>
class HandleClassInfo : public TovaFactoryClassInfo {
 public:
  bool isHandle() const override { return true; }

  TovaMethod* createConstructor() const override {
    if constexpr (HasConstructor)
      return makeMethod(
                 name(), {}, "", +[] { return std::make_shared<T>(); })
          .release();
    else
      return nullptr;
  }

 protected:
  HandleClassInfo(const char* name, const char* description) : TovaFactoryClassInfo(name, description) {
    basic::BindingRegistry::nameType(typeid(T), HostClassName<T>::value);
  }
};

}  // namespace tova::factory
