#include "cli/Json.h"

#include <cstdio>

namespace zks {

std::string jsonText(std::string_view text) {
  std::string json = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      json += '\\';
      json += c;
    } else if (c == '\n') {
      json += "\\n";
    } else if (byte < 0x20 || byte == 0x7F) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", byte);
      json += escape;
    } else {
      json += c;
    }
  }
  return json + "\"";
}

JsonObject& JsonObject::add(std::string_view name, double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", number);
  return addRaw(name, text);
}

JsonObject& JsonObject::addRaw(std::string_view name, std::string_view json) {
  if (!members_.empty())
    members_ += ", ";
  members_ += jsonText(name);
  members_ += ": ";
  members_ += json;
  return *this;
}

std::string jsonList(const std::vector<std::string>& entries) {
  std::string text = "[";
  for (const std::string& entry : entries) {
    text += text.size() == 1 ? "\n  " : ",\n  ";
    text += entry;
  }
  return text + (entries.empty() ? "]\n" : "\n]\n");
}

}  // namespace zks
