#include "platform/tova/argumentCounts.h"

#include <algorithm>
#include <string>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace tova::factory {
namespace {

// "0", "0 or 1", "0, 1 or 3".
std::string listCounts(const std::vector<std::size_t>& counts) {
  std::string text;
  for (std::size_t index = 0; index < counts.size(); ++index) {
    if (index > 0)
      text += index + 1 == counts.size() ? " or " : ", ";
    text += std::to_string(counts[index]);
  }
  return text;
}

}  // namespace

void throwWrongInputCount(std::string_view method, std::vector<std::size_t> accepted, std::size_t given) {
  std::sort(accepted.begin(), accepted.end());
  const std::string counts = listCounts(accepted);
  if (accepted.empty() || given > accepted.back())
    throw Exception<host::classes::TooManyInputs>(method, counts, given);
  throw Exception<host::classes::NotEnoughInputs>(method, counts, given);
}

void throwTooManyOutputs(std::string_view method, std::size_t made, std::size_t wanted) {
  throw Exception<host::classes::TooManyOutputs>(method, made, wanted);
}

}  // namespace tova::factory
