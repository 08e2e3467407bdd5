#include "transport/cos/SerializableDataClassInfo.h"

#include "platform/tova/COSClass.h"
#include "platform/tova/dataTypes.h"
#include "platform/tova/makeMethod.h"

namespace parallel::spf::transport {

using tova::factory::makeMethod;

SerializableDataClassInfo::SerializableDataClassInfo()
    : StdShareableHandleClassInfo("SerializableData", "Hold data for serialization") {}

SerializableDataClassInfo::~SerializableDataClassInfo() = default;

void SerializableDataClassInfo::initializeClass(tova::COSClass* cls, const tova::COSClient* /*client*/) {
  tova::factory::detail::initStringDataTypes();
  cls->addMethod(makeMethod("createProtobuf", {}, "", &SerializableData::createProtobuf));
  cls->addMethod(makeMethod("createQxArray", {}, "", &SerializableData::createQxArray));
  cls->addMethod(makeMethod("createPlain", {}, "", &SerializableData::createPlain));
  cls->addMethod(makeMethod("createFile", {}, "", &SerializableData::createFile));
}

}  // namespace parallel::spf::transport
