// Removes a directory with all that is in it.
#pragma once

#include <filesystem>
#include <system_error>

namespace parallel::execution {

// Also where directories inside have been made unreadable, where they nest without bound, or where a dying process still
// adds files. Opens two descriptors at most. Follows no symbolic link. A path that is not there is no error.
std::error_code removeTree(const std::filesystem::path& path) noexcept;

}  // namespace parallel::execution
