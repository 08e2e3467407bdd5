// Registers the host class DeserializableData in a namespace, in place of one that is there already.
//
// Errors: `OutOfMemory`, and what the class system refuses; nothing is registered then.
#pragma once

namespace tova {
class COSNamespace;
}  // namespace tova

namespace parallel::spf::transport {

void initCosDeserializableData(tova::COSNamespace* ns);

}  // namespace parallel::spf::transport
