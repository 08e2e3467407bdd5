// For tests: the library's classes as a host sees them, registered in a scope of the test's own, and calls in one line.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/tova/BindingRegistry.h"
#include "platform/tova/callMethod.h"
#include "platform/tova/handles.h"
#include "platform/tova/introspection.h"
#include "platform/tova/testing/Motor.h"
#include "transport/cos/hostClassNames.h"
#include "transport/data/testing/RecordingByteSink.h"
#include "transport/loadHooks.h"
#include "transport/streams/ByteVectorByteStream.h"
#include "transport/streams/getSerializedBytes.h"

namespace parallel::spf::transport::testing {

class HostClasses : public tova::testing::ScopedClasses {
 protected:
  static constexpr const char* kSerializable = "parallel.internal.cluster.SerializableData";
  static constexpr const char* kDeserializable = "parallel.internal.cluster.DeserializableData";

  HostClasses() { TSInitialize_libcvparallelspftransport(); }
  ~HostClasses() override { EXPECT_EQ(tova::factory::basic::BindingRegistry::size(), 0U); }

  template <class Item>
  static Bytes bytesWrittenBy(const Item& item) {
    return getSerializedBytes<Item, std::byte>(item);
  }

  // The handle of an incoming item with these bytes.
  static qxArrayPtr incoming(Bytes bytes) {
    auto stream = std::make_shared<ByteVectorByteStream>(std::move(bytes));
    return tova::factory::handleOf(std::make_shared<DeserializableData>(std::move(stream)));
  }

  static std::vector<qxArrayPtr> call(const qxArrayPtr& handle, const char* method, int wanted = 1,
                                      std::vector<const qxArray*> inputs = {}) {
    return tova::callMethod(handle.get(), method, wanted, inputs);
  }

  static std::vector<qxArrayPtr> callStatic(const char* method, int wanted, std::vector<const qxArray*> inputs) {
    return tova::callStaticMethod(kSerializable, method, wanted, inputs);
  }
};

}  // namespace parallel::spf::transport::testing
