#include "worker/matchFiles.h"

#include <algorithm>
#include <system_error>

namespace parallel::worker {

namespace fs = std::filesystem;

namespace {

// Without regard to dots.
bool matchesRest(std::string_view name, std::string_view pattern) {
  std::size_t at = 0;
  std::size_t next = 0;
  std::size_t star = std::string_view::npos;  // the last one, and where what it stands for ends
  std::size_t starEnd = 0;
  while (at < name.size()) {
    if (next < pattern.size() && pattern[next] == '*') {
      star = next++;
      starEnd = at;
    } else if (next < pattern.size() && (pattern[next] == '?' || pattern[next] == name[at])) {
      ++next;
      ++at;
    } else if (star != std::string_view::npos) {
      next = star + 1;
      at = ++starEnd;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', next) == std::string_view::npos;
}

std::vector<std::string> namesIn(const fs::path& folder, std::string_view pattern) {
  std::vector<std::string> names;
  std::error_code error;
  if (!fs::is_directory(fs::symlink_status(folder, error)))
    return names;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    std::string name = entry->path().filename().string();
    if (matchesPattern(name, pattern))
      names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

bool isPattern(std::string_view name) {
  return name.find_first_of("*?") != std::string_view::npos;
}

bool matchesPattern(std::string_view name, std::string_view pattern) {
  return (!name.starts_with('.') || pattern.starts_with('.')) && matchesRest(name, pattern);
}

std::vector<std::string> matchFiles(const fs::path& directory, std::string_view pattern) {
  std::vector<std::string> found{""};  // what the parts so far match; at first the directory itself
  for (bool isLast = false; !isLast;) {
    const std::size_t slash = pattern.find('/');
    isLast = slash == std::string_view::npos;
    std::vector<std::string> deeper;
    for (const std::string& folder : found) {
      // A path that ended with a slash would follow a link.
      for (const std::string& name : namesIn(folder.empty() ? directory : directory / folder, pattern.substr(0, slash)))
        deeper.push_back(folder.empty() ? name : (fs::path(folder) / name).string());
    }
    found = std::move(deeper);
    pattern.remove_prefix(isLast ? pattern.size() : slash + 1);
  }
  return found;
}

}  // namespace parallel::worker
