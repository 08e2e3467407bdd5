// Files that a task has left, by name or by pattern.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace parallel::worker {

// "*" stands for any characters but "/", "?" for one. A name that begins with a dot is matched by a pattern that does.
bool matchesPattern(std::string_view name, std::string_view pattern);
bool isPattern(std::string_view name);

// What in the directory a pattern such as "results/*.txt" matches: paths from the directory, in alphabetical order.
// Follows no link.
std::vector<std::string> matchFiles(const std::filesystem::path& directory, std::string_view pattern);

}  // namespace parallel::worker
