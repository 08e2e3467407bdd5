#include "cli/arrayText.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <vector>

#include "cli/CliError.h"
#include "cli/RowMajorWalk.h"

namespace zks {
namespace {

constexpr std::size_t kDeepest = 32;

[[noreturn]] void refuseArrayText(const std::string& reason) {
  throw UsageError("--array: " + reason);
}

// The leaves of nested lists in the order of the text, and the shape that they make.
class ListParser {
 public:
  explicit ListParser(std::string_view text) : text_(text) {}

  void parse() {
    parseValue(0);
    skipBlanks();
    if (at_ != text_.size())
      refuseHere("there is more after the end of the array");
  }

  const std::vector<std::string_view>& leaves() const noexcept { return leaves_; }

  std::vector<std::size_t> shape() const {
    std::vector<std::size_t> shape;
    for (const auto& length : lengths_)
      shape.push_back(length.value_or(0));
    return shape;
  }

 private:
  void parseValue(std::size_t depth) {
    skipBlanks();
    if (at_ < text_.size() && text_[at_] == '[')
      parseList(depth);
    else
      parseLeaf(depth);
  }

  void parseList(std::size_t depth) {
    if (depth == kDeepest)
      refuseHere("lists nest deeper than " + std::to_string(kDeepest));
    if (leafDepth_ && depth >= *leafDepth_)
      refuseHere("a list stands where a number is expected");
    if (lengths_.size() == depth)
      lengths_.emplace_back();
    ++at_;
    std::size_t length = 0;
    while (!take(']')) {
      if (length > 0 && !take(','))
        refuseHere("a comma or ] is missing");
      parseValue(depth + 1);
      ++length;
    }
    if (lengths_[depth] && *lengths_[depth] != length)
      refuseHere("lists of one level have different lengths, " + std::to_string(*lengths_[depth]) + " and " +
                 std::to_string(length));
    lengths_[depth] = length;
  }

  void parseLeaf(std::size_t depth) {
    const std::size_t end = std::min(text_.find_first_of(",[] \t\n", at_), text_.size());
    if (end == at_)
      refuseHere("a number is missing");
    if (depth != lengths_.size())
      refuseHere("a number stands where a list is expected");
    leafDepth_ = depth;
    leaves_.push_back(text_.substr(at_, end - at_));
    at_ = end;
  }

  void skipBlanks() { at_ = std::min(text_.find_first_not_of(" \t\n", at_), text_.size()); }

  bool take(char wanted) {
    skipBlanks();
    if (at_ == text_.size() || text_[at_] != wanted)
      return false;
    ++at_;
    return true;
  }

  [[noreturn]] void refuseHere(const std::string& reason) const {
    refuseArrayText(reason + " (at character " + std::to_string(at_ + 1) + " of the lists)");
  }

  std::string_view text_;
  std::size_t at_ = 0;
  std::vector<std::string_view> leaves_;
  std::vector<std::optional<std::size_t>> lengths_;  // of the lists of each level; unknown until one has ended
  std::optional<std::size_t> leafDepth_;
};

template <class T>
T parseNumber(std::string_view word) {
  T value{};
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  const bool whole = end == word.data() + word.size();
  if (error == std::errc::result_out_of_range && whole)
    refuseArrayText("\"" + std::string(word) + "\" does not fit the class " + std::string(qxClassName(qxClassOf<T>())));
  if (error != std::errc{} || !whole)
    refuseArrayText("\"" + std::string(word) + "\" is not a number of class " +
                    std::string(qxClassName(qxClassOf<T>())));
  return value;
}

template <>
bool parseNumber<bool>(std::string_view word) {
  if (word != "true" && word != "false")
    refuseArrayText("\"" + std::string(word) + "\" is neither true nor false");
  return word == "true";
}

template <class T>
qxArrayPtr numericArray(const ListParser& lists) {
  std::vector<std::size_t> shape = lists.shape();
  while (shape.size() < 2)
    shape.push_back(1);
  qxArrayPtr array = qxCreateNumericArray(shape, qxClassOf<T>());
  if (lists.leaves().empty())
    return array;
  const auto elements = qxGetWritableElements<T>(array.get());
  RowMajorWalk walk(lists.shape());
  for (const std::string_view leaf : lists.leaves())
    elements[walk.next()] = parseNumber<T>(leaf);
  return array;
}

qxArrayPtr numericArray(std::string_view cls, const ListParser& lists) {
  const struct {
    std::string_view name;
    qxArrayPtr (*make)(const ListParser&);
  } classes[] = {
      {"float64", numericArray<double>},     {"float32", numericArray<float>},
      {"int8", numericArray<std::int8_t>},   {"uint8", numericArray<std::uint8_t>},
      {"int16", numericArray<std::int16_t>}, {"uint16", numericArray<std::uint16_t>},
      {"int32", numericArray<std::int32_t>}, {"uint32", numericArray<std::uint32_t>},
      {"int64", numericArray<std::int64_t>}, {"uint64", numericArray<std::uint64_t>},
      {"boolean", numericArray<bool>},
  };
  for (const auto& [name, make] : classes) {
    if (name == cls)
      return make(lists);
  }
  refuseArrayText("\"" + std::string(cls) +
                  "\" is not a class; the classes are float64, float32, int8 to uint64 and boolean");
}

// The class when none is written.
std::string_view classOf(const ListParser& lists) {
  const bool booleans = !lists.leaves().empty() && (lists.leaves()[0] == "true" || lists.leaves()[0] == "false");
  return booleans ? "boolean" : "float64";
}

}  // namespace

qxArrayPtr parseArrayText(std::string_view text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
    return qxCreateStringUtf8(text.substr(1, text.size() - 2));
  const std::size_t colon = text.find(':');
  std::string_view cls;
  if (colon != std::string_view::npos) {
    cls = text.substr(0, colon);
    text.remove_prefix(colon + 1);
  }
  ListParser lists(text);
  lists.parse();
  return numericArray(colon == std::string_view::npos ? classOf(lists) : cls, lists);
}

}  // namespace zks
