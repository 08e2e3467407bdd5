#include "platform/tova/internal/Heterogeneous.h"

#include <memory>

#include "platform/tova/COSNamespace.h"
#include "platform/tova/TovaFactoryClassInfo.h"

namespace tova::internal {
namespace {

class HeterogeneousClassInfo final : public factory::TovaFactoryClassInfo {
 public:
  HeterogeneousClassInfo()
      : TovaFactoryClassInfo("Heterogeneous", "Objects of different classes may stand together in one list") {}

  void initializeClass(COSClass* /*cls*/, const COSClient* /*client*/) override {}
  bool isHandle() const override { return true; }
  bool isAbstract() const override { return true; }
};

}  // namespace

void addHeterogeneous(COSNamespace* mixin) {
  mixin->addClass(std::make_unique<HeterogeneousClassInfo>(), nullptr, OnDuplicate::Refuse);
}

}  // namespace tova::internal
