// Registers the host class SerializableData in a namespace, in place of one that is there already.
//
// Errors: `OutOfMemory`, and what the class system refuses; nothing is registered then.
#pragma once

namespace tova {
class COSNamespace;
}  // namespace tova

namespace parallel::spf::transport {

void initCosSerializableData(tova::COSNamespace* ns);

}  // namespace parallel::spf::transport
