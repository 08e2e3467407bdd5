// Description of a handle class whose objects native code and host share through std::shared_ptr<T>.
#pragma once

#include <memory>

#include "platform/tova/BindingRegistry.h"
#include "platform/tova/HandleClassInfo.h"
#include "platform/tova/StdShareable.h"

namespace tova::factory {

template <class T>
class StdShareableHandleClassInfo : public HandleClassInfo<T, false> {
 public:
  // The share is let go only after the registry has forgotten the object: its address cannot be bound anew in between.
  void releaseBoundObject(basic::Binding& binding) noexcept override {
    std::shared_ptr<full::Wrappable> last;
    const basic::BindingState state = basic::BindingRegistry::state(binding);
    if (state == basic::BindingState::Shared || state == basic::BindingState::HostOnly)
      last = full::releaseReference(binding);
    basic::BindingRegistry::remove(binding);
  }

 protected:
  using HandleClassInfo<T, false>::HandleClassInfo;
};

}  // namespace tova::factory
