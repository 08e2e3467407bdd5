// Host class "parallel.internal.cluster.SerializableData": host code makes outgoing items by its four static methods,
// one for each kind of item, and passes the handles on as arguments of a remote call.
//
// Ownership: handles and payloads share the items.
// Errors:    the methods look at nothing; what is wrong with a value shows when the item is serialised.
#pragma once

#include "platform/tova/StdShareableHandleClassInfo.h"
#include "transport/cos/hostClassNames.h"

namespace parallel::spf::transport {

class SerializableDataClassInfo final : public tova::factory::StdShareableHandleClassInfo<SerializableData> {
 public:
  SerializableDataClassInfo();
  ~SerializableDataClassInfo() override;

  void initializeClass(tova::COSClass* cls, const tova::COSClient* client) override;
};

}  // namespace parallel::spf::transport
