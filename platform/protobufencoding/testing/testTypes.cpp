#include "platform/protobufencoding/testing/testTypes.h"

namespace parallel::protobufencoding::testing {

StructOf zeroScalars() {
  return structOf("Scalars")
      .with("a_double", scalar(0.0))
      .with("a_float", scalar(0.0F))
      .with("a_int32", scalar<std::int32_t>(0))
      .with("a_int64", scalar<std::int64_t>(0))
      .with("a_uint32", scalar<std::uint32_t>(0))
      .with("a_uint64", scalar<std::uint64_t>(0))
      .with("a_sint32", scalar<std::int32_t>(0))
      .with("a_sint64", scalar<std::int64_t>(0))
      .with("a_fixed32", scalar<std::uint32_t>(0))
      .with("a_fixed64", scalar<std::uint64_t>(0))
      .with("a_sfixed32", scalar<std::int32_t>(0))
      .with("a_sfixed64", scalar<std::int64_t>(0))
      .with("a_bool", boolean(false))
      .with("a_string", text(""))
      .with("a_bytes", bytes(""))
      .with("a_colour", text("COLOUR_UNSPECIFIED"));
}

StructOf emptyRepeateds(std::string_view name) {
  StructOf result = structOf(name)
                        .with("a_double", columnOf<double>({}))
                        .with("a_float", columnOf<float>({}))
                        .with("a_int32", columnOf<std::int32_t>({}))
                        .with("a_int64", columnOf<std::int64_t>({}))
                        .with("a_uint32", columnOf<std::uint32_t>({}))
                        .with("a_uint64", columnOf<std::uint64_t>({}))
                        .with("a_sint32", columnOf<std::int32_t>({}))
                        .with("a_sint64", columnOf<std::int64_t>({}))
                        .with("a_fixed32", columnOf<std::uint32_t>({}))
                        .with("a_fixed64", columnOf<std::uint64_t>({}))
                        .with("a_sfixed32", columnOf<std::int32_t>({}))
                        .with("a_sfixed64", columnOf<std::int64_t>({}))
                        .with("a_bool", columnOf<bool>({}))
                        .with("a_string", list())
                        .with("a_bytes", list());
  if (name == "Repeateds2")
    return std::move(result).with("a_closed", list());
  return std::move(result).with("a_colour", list()).with("a_point", emptyStructColumn({"MessageType"}));
}

StructOf emptyMaps() {
  StructOf result = structOf("Maps");
  for (const char* key :
       {"int32", "int64", "uint32", "uint64", "sint32", "sint64", "fixed32", "fixed64", "sfixed32", "sfixed64", "bool"})
    result = std::move(result).with(std::string("by_") + key, emptyStructColumn({"key", "value"}));
  result = std::move(result).with("by_string", StructOf());
  for (const char* value : {"double", "float", "int32", "int64", "uint32", "uint64", "sint32", "sint64", "fixed32",
                            "fixed64", "sfixed32", "sfixed64", "bool", "string", "bytes", "colour", "point"})
    result = std::move(result).with(std::string("to_") + value, StructOf());
  return std::move(result)
      .with("to_maps", emptyStructColumn({"key", "value"}))
      .with("to_value", StructOf())
      .with("to_any", StructOf());
}

StructOf emptyWellKnown() {
  StructOf result = structOf("WellKnown");
  for (const char* name :
       {"any", "timestamp", "duration", "field_mask", "struct", "value", "list", "double_value", "float_value",
        "int64_value", "uint64_value", "int32_value", "uint32_value", "bool_value", "string_value", "bytes_value"})
    result = std::move(result).with(std::string("many_") + name, list());
  return std::move(result).with("many_empty", emptyStructColumn({"MessageType"})).with("null", text("NULL_VALUE"));
}

}  // namespace parallel::protobufencoding::testing
