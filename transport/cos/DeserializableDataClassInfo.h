// Host class "parallel.internal.cluster.DeserializableData": host code calls the one method of a reply's item that fits
// what the item is. An item is read once; a second call finds it empty.
//
// Ownership: handles and the reply's item list share the items.
// Threads:   as DeserializableData: one item of a reply at a time, in their order.
// Errors:    the identified errors of DeserializableData pass through.
#pragma once

#include "platform/tova/StdShareableHandleClassInfo.h"
#include "platform/tova/qxArrayProxy.h"
#include "transport/cos/hostClassNames.h"

namespace parallel::spf::transport {

class DeserializableDataClassInfo final : public tova::factory::StdShareableHandleClassInfo<DeserializableData> {
 public:
  DeserializableDataClassInfo();
  ~DeserializableDataClassInfo() override;

  void initializeClass(tova::COSClass* cls, const tova::COSClient* client) override;

  // deserializeQxArray without a default value.
  static tova::factory::qxArrayProxy deserializeQxArrayDefaultArgs(DeserializableData* self);
};

}  // namespace parallel::spf::transport
