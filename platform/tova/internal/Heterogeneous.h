// "tessel.mixin.Heterogeneous", the platform's own class: a superclass for handles that may stand beside handles of
// other classes in one list. It has no methods and no objects of its own.
#pragma once

namespace tova {

class COSNamespace;

namespace internal {

void addHeterogeneous(COSNamespace* mixin);

}  // namespace internal
}  // namespace tova
