#include "transport/loadHooks.h"

#include <mutex>

#include "platform/tova/omNamespaces.h"
#include "transport/cos/initCosDeserializableData.h"
#include "transport/cos/initCosSerializableData.h"

namespace {

void registerClasses() {
  tova::COSNamespace* const parallelNamespace = tova::omGetNamespace("parallel");
  tova::COSNamespace* const internalNamespace = tova::omGetInnerNamespace(parallelNamespace, "internal");
  tova::COSNamespace* const cluster = tova::omGetInnerNamespace(internalNamespace, "cluster");
  parallel::spf::transport::initCosDeserializableData(cluster);
  parallel::spf::transport::initCosSerializableData(cluster);
}

}  // namespace

void TSInitialize_libcvparallelspftransport() {
  if (omGetTovaUsingUSM()) {
    registerClasses();
    return;
  }
  static std::once_flag registered;
  std::call_once(registered, registerClasses);
}

void TSTerminate_libcvparallelspftransport() {}
