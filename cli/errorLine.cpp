#include "cli/errorLine.h"

#include <algorithm>
#include <new>

#include "platform/errors/visibleText.h"

namespace zks {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos)
    return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

std::string textOf(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::bad_alloc&) {
    return "out of memory";
  } catch (const std::exception& known) {
    return known.what();
  } catch (...) {
    return "an error of an unknown kind";
  }
}

}  // namespace

std::string joinedLines(std::string_view text) {
  std::string line;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view part = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (part.empty())
      continue;
    if (!line.empty()) {
      while (line.ends_with('.') || line.ends_with(':'))
        line.pop_back();
      line += ": ";
    }
    line += part;
  }
  return line;
}

std::string errorLine(const std::exception_ptr& error) {
  return errors::visibleText(joinedLines(textOf(error)));
}

}  // namespace zks
