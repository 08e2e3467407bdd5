// Walks the catalogue: each entry can be filled and is used by the code of the tree.
#include "platform/errors/catalogue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/errors/Exception.h"

namespace {

namespace fs = std::filesystem;

// What the code of the modules says; tests do not count as a use.
std::string readSources() {
  const fs::path root = ZKS_SOURCE_DIR;
  std::ostringstream all;
  for (const char* module : {"platform", "transport", "toolbox", "execution", "scheduler", "worker", "cli", "python"}) {
    if (!fs::exists(root / module))
      continue;
    for (const auto& file : fs::recursive_directory_iterator(root / module)) {
      const std::string name = file.path().filename().string();
      const bool isCode = name.ends_with(".h") || name.ends_with(".cpp");
      if (!isCode || name.find("_test") != std::string::npos)
        continue;
      all << std::ifstream(file.path(), std::ios::binary).rdbuf() << '\n';
    }
  }
  return all.str();
}

bool isInName(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

// Every name of the sources with what stands before it: "<Name" as a template's argument, "scope::Name" in a scope.
std::set<std::string, std::less<>> qualifiedNames(std::string_view sources) {
  std::set<std::string, std::less<>> names;
  std::string_view before;  // the name before this one
  for (std::size_t at = 0; at < sources.size();) {
    if (!isInName(sources[at])) {
      ++at;
      continue;
    }
    const std::size_t begin = at;
    at = static_cast<std::size_t>(
        std::find_if_not(sources.begin() + static_cast<std::ptrdiff_t>(begin), sources.end(), isInName) -
        sources.begin());
    const std::string_view name = sources.substr(begin, at - begin);
    const std::string_view upTo = sources.substr(0, begin);
    if (upTo.ends_with('<'))
      names.emplace("<" + std::string(name));
    else if (upTo.ends_with("::"))
      names.emplace(std::string(before) + "::" + std::string(name));
    before = name;
  }
  return names;
}

// "cluster::ZKSUnreachable" in whatever namespace, or "<ZKSUnreachable" as code inside the component's own writes it.
bool isUsed(const errors::CatalogueEntry& entry, const std::set<std::string, std::less<>>& names) {
  const std::string_view scope = entry.component.substr(entry.component.rfind(':') + 1);  // npos + 1 is 0
  const std::string name(entry.name);
  return names.contains("<" + name) || names.contains(std::string(scope) + "::" + name);
}

TEST(Catalogue, EveryHoleIsFilled) {
  const std::regex hole(R"(\{[0-9]*\})");
  for (const auto& entry : errors::kCatalogue) {
    std::vector<std::string> arguments;
    for (std::size_t index = 0; index < entry.argumentCount; ++index)
      arguments.push_back("<argument " + std::to_string(index) + ">");
    const std::string text = errors_detail::fillTemplate(entry.text, arguments);
    EXPECT_FALSE(std::regex_search(text, hole)) << entry.name << ": " << text;
    for (const auto& argument : arguments)
      EXPECT_NE(text.find(argument), std::string::npos) << entry.name;
  }
}

TEST(Catalogue, IdentifiersAreUnique) {
  std::set<std::string> identifiers;
  for (const auto& entry : errors::kCatalogue)
    EXPECT_TRUE(identifiers.insert(std::string(entry.component) + ":" + std::string(entry.name)).second) << entry.name;
  EXPECT_FALSE(identifiers.empty());
}

TEST(Catalogue, EveryEntryIsUsed) {
  const auto names = qualifiedNames(readSources());
  ASSERT_FALSE(names.empty());
  EXPECT_FALSE(names.contains("cluster::NoSuchEntry"));
  for (const auto& entry : errors::kCatalogue)
    EXPECT_TRUE(isUsed(entry, names)) << "nothing throws " << entry.component << ":" << entry.name;
}

TEST(Catalogue, TagsCarryWhatTheTableSays) {
  using Tag = host::array::WrongClass;
  static_assert(Tag::component == "host:array");
  static_assert(Tag::name == "WrongClass");
  static_assert(Tag::argumentCount == 2);
  bool found = false;
  for (const auto& entry : errors::kCatalogue)
    found = found || (entry.component == Tag::component && entry.name == Tag::name && entry.text == Tag::text);
  EXPECT_TRUE(found);
}

}  // namespace
