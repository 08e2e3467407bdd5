// What a file that replaces another takes over from it, so that whoever could not read the old one cannot read the new
// one.
#pragma once

#include <string>

namespace parallel::toolbox {

// Gives the open file the permissions, the access list and the user's attributes of the one at the path; owner and
// group too, where the user may give them away. If the group cannot be kept, it gets no more than others have. What the
// file system does not keep is left out.
void takeOverAttributes(const std::string& from, int file) noexcept;

}  // namespace parallel::toolbox
