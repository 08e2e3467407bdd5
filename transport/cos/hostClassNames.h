// The names under which host code knows the library's two classes.
#pragma once

#include "platform/tova/HostClassName.h"
#include "transport/data/DeserializableData.h"
#include "transport/data/SerializableData.h"

template <>
struct tova::factory::HostClassName<parallel::spf::transport::SerializableData> {
  static constexpr const char* value = "parallel.internal.cluster.SerializableData";
};

template <>
struct tova::factory::HostClassName<parallel::spf::transport::DeserializableData> {
  static constexpr const char* value = "parallel.internal.cluster.DeserializableData";
};
