#include "programs/siblingProgram.h"

#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace programs {

namespace fs = std::filesystem;

std::string siblingProgram(const std::string& name, const std::string& folderInBuild) {
  std::error_code unknown;
  const fs::path own = fs::read_symlink("/proc/self/exe", unknown).parent_path();
  if (!unknown) {
    for (const fs::path& place : {own / name, own.parent_path() / folderInBuild / name}) {
      if (::access(place.c_str(), X_OK) == 0)
        return place.string();
    }
  }
  return name;
}

}  // namespace programs
