// The descriptor set of testing/loaded.proto, whose message is not compiled into the tests.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

#include "platform/protobufencoding/protobufencoding.h"

namespace parallel::protobufencoding::testing {

inline constexpr const char* kLoadedType = "parallel.protobufencoding.testing.loaded.Loaded";

inline std::string loadedDescriptors() {
  std::ifstream file(ZKS_LOADED_DESCRIPTORS, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

// An empty message of the loaded type; loads the set first.
inline std::unique_ptr<google::protobuf::Message> newLoaded() {
  loadDescriptorSet(loadedDescriptors());
  return generateMessageByName(kLoadedType);
}

}  // namespace parallel::protobufencoding::testing
