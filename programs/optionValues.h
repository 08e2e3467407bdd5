// The values that options of zks and zksd take, checked so that a refusal says what was given and what is wanted.
//
// The argument parser of a program calls the checks; nothing of it is included here.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace programs {

// Returns why the text is refused, or nothing when it fits. May put another text in its place.
using OptionCheck = std::function<std::string(std::string&)>;

// `isFit` takes the text, and may put another in its place. The refusal: "\"x\" is not " and what is wanted.
OptionCheck optionValue(std::function<bool(std::string&)> isFit, std::string wanted);

// A variable of the shell that is not set must not pass for an option that is not given.
OptionCheck notEmpty();
OptionCheck secondsFromZero();
OptionCheck secondsAboveZero();
OptionCheck wholeNumber(std::uint64_t least, std::uint64_t most);
// Puts the number of bytes in the place of 512M, 2G and the like.
OptionCheck sizeInBytes(std::uint64_t least = 0);

}  // namespace programs
