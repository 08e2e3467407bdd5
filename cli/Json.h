// JSON as it is written for programs: objects and lists from their parts, in the order in which these are given.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zks {

// A text with its quotes.
std::string jsonText(std::string_view text);

class JsonObject {
 public:
  JsonObject& add(std::string_view name, std::string_view text) { return addRaw(name, jsonText(text)); }
  JsonObject& add(std::string_view name, const char* text) { return add(name, std::string_view(text)); }
  JsonObject& add(std::string_view name, const std::string& text) { return add(name, std::string_view(text)); }
  JsonObject& add(std::string_view name, std::uint64_t number) { return addRaw(name, std::to_string(number)); }
  JsonObject& add(std::string_view name, std::uint32_t number) { return addRaw(name, std::to_string(number)); }
  JsonObject& add(std::string_view name, std::int64_t number) { return addRaw(name, std::to_string(number)); }
  JsonObject& add(std::string_view name, std::int32_t number) { return addRaw(name, std::to_string(number)); }
  JsonObject& add(std::string_view name, bool value) { return addRaw(name, value ? "true" : "false"); }
  JsonObject& add(std::string_view name, double number);
  template <class Value>
  JsonObject& add(std::string_view name, const std::optional<Value>& value) {
    return value ? add(name, *value) : addRaw(name, "null");
  }
  // JSON already.
  JsonObject& addRaw(std::string_view name, std::string_view json);

  std::string text() const { return "{" + members_ + "}"; }

 private:
  std::string members_;
};

// One entry a line.
std::string jsonList(const std::vector<std::string>& entries);

}  // namespace zks
