#include "cli/jsonType.h"

#include <algorithm>
#include <optional>

#include "cli/CliError.h"

namespace zks {
namespace {

constexpr std::string_view kJsonBlanks = " \t\r\n";

[[noreturn]] void refuseJson(const std::string& reason) {
  throw UsageError(reason);
}

// Walks over the members of the outermost object. What is inside values is left to the JSON parser proper.
class MemberScanner {
 public:
  explicit MemberScanner(std::string_view json) : json_(json) {}

  TypedJson split() {
    skipBlanks();
    if (!take('{'))
      refuseJson("the text is not a JSON object");
    skipBlanks();
    while (at_ < json_.size() && json_[at_] != '}') {
      scanMember();
      skipBlanks();
      if (!take(','))
        break;
      skipBlanks();
    }
    if (!begin_)
      refuseJson("the object has no member \"@type\", which names the message");
    return {typeName_, bodyWithoutMember()};
  }

 private:
  void scanMember() {
    const std::size_t begin = at_;
    const std::string_view key = scanString();
    skipBlanks();
    if (!take(':'))
      refuseJson("the text is not a JSON object: a ':' is missing");
    skipBlanks();
    const std::size_t valueBegin = at_;
    scanValue();
    if (key != "@type")
      return;
    if (begin_)
      refuseJson("the member \"@type\" is there twice");
    begin_ = begin;
    end_ = at_;
    setTypeName(json_.substr(valueBegin, at_ - valueBegin));
  }

  void setTypeName(std::string_view value) {
    value = value.substr(0, value.find_last_not_of(kJsonBlanks) + 1);
    if (value.size() < 3 || value.front() != '"' || value.back() != '"')
      refuseJson("the member \"@type\" is not the name of a message");
    value = value.substr(1, value.size() - 2);
    typeName_ = value.substr(value.rfind('/') + 1);
  }

  // Without the member there is one comma too many: the one after it, or else the one before it.
  std::string bodyWithoutMember() const {
    std::size_t begin = *begin_;
    std::size_t end = end_;
    const std::size_t after = json_.find_first_not_of(kJsonBlanks, end);
    if (after != std::string_view::npos && json_[after] == ',') {
      end = after + 1;
    } else {
      const std::size_t before = json_.find_last_not_of(kJsonBlanks, begin - 1);
      if (json_[before] == ',')
        begin = before;
    }
    return std::string(json_.substr(0, begin)) + std::string(json_.substr(end));
  }

  // The characters between the quotes, escapes as they are.
  std::string_view scanString() {
    if (!take('"'))
      refuseJson("the text is not a JSON object: a name in quotes is missing");
    const std::size_t begin = at_;
    while (at_ < json_.size() && json_[at_] != '"')
      at_ += json_[at_] == '\\' ? 2 : 1;
    if (at_ >= json_.size())
      refuseJson("the text is not a JSON object: a string does not end");
    return json_.substr(begin, at_++ - begin);
  }

  // To the comma or brace that ends the value.
  void scanValue() {
    std::size_t depth = 0;
    while (at_ < json_.size()) {
      const char c = json_[at_];
      if (c == '"') {
        scanString();
        continue;
      }
      if (depth == 0 && (c == ',' || c == '}'))
        return;
      if (c == '{' || c == '[')
        ++depth;
      if ((c == '}' || c == ']') && depth > 0)
        --depth;
      ++at_;
    }
  }

  void skipBlanks() { at_ = std::min(json_.find_first_not_of(kJsonBlanks, at_), json_.size()); }

  bool take(char wanted) {
    if (at_ >= json_.size() || json_[at_] != wanted)
      return false;
    ++at_;
    return true;
  }

  std::string_view json_;
  std::size_t at_ = 0;
  std::optional<std::size_t> begin_;
  std::size_t end_ = 0;
  std::string typeName_;
};

}  // namespace

TypedJson splitJsonType(std::string_view json) {
  return MemberScanner(json).split();
}

}  // namespace zks
