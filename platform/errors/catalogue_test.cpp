// Walks the catalogue: each entry can be filled and is used by the code of the tree.
#include "platform/errors/catalogue.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/errors/Exception.h"

namespace {

namespace fs = std::filesystem;

// What the code of the modules says; tests do not count as a use.
std::string readSources() {
  const fs::path root = ZKS_SOURCE_DIR;
  std::ostringstream all;
  for (const char* module : {"platform", "transport", "toolbox", "scheduler", "worker", "cli", "python"}) {
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

// "cluster::ZKSUnreachable" in whatever namespace, or "<ZKSUnreachable" as code inside the component's own writes it.
std::regex useOf(const errors::CatalogueEntry& entry) {
  const std::size_t colon = entry.component.rfind(':');
  const auto last = colon == std::string_view::npos ? entry.component : entry.component.substr(colon + 1);
  return std::regex("(\\b" + std::string(last) + "::|<)" + std::string(entry.name) + "\\b");
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
  const std::string sources = readSources();
  ASSERT_FALSE(sources.empty());
  for (const auto& entry : errors::kCatalogue) {
    EXPECT_TRUE(std::regex_search(sources, useOf(entry))) << "nothing throws " << entry.component << ":" << entry.name;
  }
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
