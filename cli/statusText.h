// Parts of a status line.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zks {

constexpr std::size_t kWidestBar = 27;  // with its frame, as below
constexpr std::size_t kNarrowestBar = 9;

// " [===>    ]" of so many columns, its brackets and the blank before it included; `part` is from 0 to 1.
std::string barText(double part, std::size_t columns);

// The last one, cut, when even that does not fit.
std::string firstThatFits(const std::vector<std::string>& texts, std::size_t columns);

}  // namespace zks
