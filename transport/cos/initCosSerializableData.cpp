#include "transport/cos/initCosSerializableData.h"

#include <memory>

#include "platform/tova/COSNamespace.h"
#include "transport/cos/SerializableDataClassInfo.h"

namespace parallel::spf::transport {

void initCosSerializableData(tova::COSNamespace* ns) {
  ns->addClass(std::make_unique<SerializableDataClassInfo>(), nullptr, tova::OnDuplicate::Replace);
}

}  // namespace parallel::spf::transport
