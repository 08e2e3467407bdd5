#include "platform/tova/StdShareable.h"

namespace tova::factory::full {

void retract(const Wrappable* /*object*/) noexcept {}

}  // namespace tova::factory::full
