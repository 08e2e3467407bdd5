// Where another program of this project is.
#pragma once

#include <string>

namespace programs {

// The program of that name beside this one, or where the tree's own build puts it: in the folder `folderInBuild` beside
// that of this program. Where it is in neither, the bare name.
std::string siblingProgram(const std::string& name, const std::string& folderInBuild);

}  // namespace programs
