// Structs of the test schema's types, with what an empty message of each decodes to.
#pragma once

#include <string>

#include "platform/protobufencoding/testing/hostLiterals.h"

namespace parallel::protobufencoding::testing {

inline std::string typeName(std::string_view name) {
  return "parallel.protobufencoding.testing." + std::string(name);
}

inline StructOf structOf(std::string_view name) {
  return StructOf(typeName(name));
}

inline StructOf point(std::int32_t x, std::int32_t y) {
  return structOf("Point").with("x", scalar<std::int32_t>(x)).with("y", scalar<std::int32_t>(y));
}

// An empty Scalars.
StructOf zeroScalars();
// An empty Repeateds, Unpackeds or Repeateds2.
StructOf emptyRepeateds(std::string_view name);
// An empty Maps.
StructOf emptyMaps();
// An empty WellKnown.
StructOf emptyWellKnown();

}  // namespace parallel::protobufencoding::testing
