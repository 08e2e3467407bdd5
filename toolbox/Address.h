// The addresses of services as users type them.
#pragma once

#include <string>
#include <string_view>

namespace parallel::toolbox {

// The address in the form that the service framework connects to: "unix:/absolute/path" or "HOST:PORT".
// A relative socket path is taken from the current directory; "unix:" alone is the socket file at which zksd listens
// when it is not told another, refused where others could have put it. `BadAddress` says what is wrong with the text;
// no name is looked up here, so a good address may still lead nowhere.
std::string resolveAddress(std::string_view text);

}  // namespace parallel::toolbox
