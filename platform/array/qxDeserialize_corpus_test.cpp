// Runs the fuzz target over the kept inputs, so that it is built and right in every build.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t nbytes);

TEST(DeserializeCorpus, EveryKeptInputPasses) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(ZKS_SOURCE_DIR "/platform/array/testing/corpus")) {
    std::ifstream file(entry.path(), std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    const std::string bytes = content.str();
    SCOPED_TRACE(entry.path());
    EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), 0);
    ++count;
  }
  EXPECT_GE(count, 12);
}
