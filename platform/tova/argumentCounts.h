// The errors that name a method and how many inputs or outputs it takes.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace tova::factory {

// `TooManyInputs` when more were given than any of the accepted counts (one per overload), else `NotEnoughInputs`.
[[noreturn]] void throwWrongInputCount(std::string_view method, std::vector<std::size_t> accepted, std::size_t given);

[[noreturn]] void throwTooManyOutputs(std::string_view method, std::size_t made, std::size_t wanted);

}  // namespace tova::factory
