#include "transport/cos/initCosDeserializableData.h"

#include <memory>

#include "platform/tova/COSNamespace.h"
#include "transport/cos/DeserializableDataClassInfo.h"

namespace parallel::spf::transport {

void initCosDeserializableData(tova::COSNamespace* ns) {
  ns->addClass(std::make_unique<DeserializableDataClassInfo>(), nullptr, tova::OnDuplicate::Replace);
}

}  // namespace parallel::spf::transport
