#include "transport/cos/DeserializableDataClassInfo.h"

#include "platform/tova/COSClass.h"
#include "platform/tova/dataTypes.h"
#include "platform/tova/makeMethod.h"

namespace parallel::spf::transport {

using tova::factory::makeMethod;
using tova::factory::MethodAttributes;

DeserializableDataClassInfo::DeserializableDataClassInfo()
    : StdShareableHandleClassInfo("DeserializableData", "Hold data for deserialization") {}

DeserializableDataClassInfo::~DeserializableDataClassInfo() = default;

void DeserializableDataClassInfo::initializeClass(tova::COSClass* cls, const tova::COSClient* /*client*/) {
  cls->addSuperclass(tova::COSString("tessel.mixin.Heterogeneous"), /*mustExist=*/true, /*hidden=*/false,
                     /*inheritsMethods=*/true);
  tova::factory::detail::initStringDataTypes();
  cls->addMethod(makeMethod("deserializeProtobuf", {}, "", &DeserializableData::deserializeProtobuf));
  cls->addMethod(makeMethod("deserializeQxArray", {}, "", &DeserializableData::deserializeQxArray));
  cls->addMethod(makeMethod("deserializeQxArray", {MethodAttributes::kInstance}, "", &deserializeQxArrayDefaultArgs));
  cls->addMethod(makeMethod("deserializePlain", {}, "", &DeserializableData::deserializePlain));
  cls->addMethod(makeMethod("deserializeToFile", {}, "", &DeserializableData::deserializeToFile));
}

tova::factory::qxArrayProxy DeserializableDataClassInfo::deserializeQxArrayDefaultArgs(DeserializableData* self) {
  return self->deserializeQxArray(tova::factory::qxArrayProxy());
}

}  // namespace parallel::spf::transport
