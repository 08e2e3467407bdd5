#include "worker/WorkerResources.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "platform/files/testing/TemporaryDirectory.h"

namespace parallel::worker {
namespace {

class WorkerResourcesTest : public testing::Test {
 protected:
  WorkerResourcesTest() { write("own", "1:name=systemd:/old\n0::/a/b\n"); }
  void write(const std::string& name, const std::string& text) const {
    std::filesystem::create_directories(files_.file(name).parent_path());
    std::ofstream(files_.file(name)) << text;
  }

  files::testing::TemporaryDirectory files_;
  SystemFiles system_{files_.file("groups"), files_.file("own")};
};

TEST_F(WorkerResourcesTest, WithoutGroupsThereIsAll) {
  EXPECT_EQ(coresWithinQuota(system_, 8), 8U);
  EXPECT_EQ(memoryWithinGroups(system_, 1000), 1000U);
}

TEST_F(WorkerResourcesTest, TheTightestGroupCounts) {
  write("groups/cpu.max", "max 100000\n");
  write("groups/a/cpu.max", "250000 100000\n");
  write("groups/a/b/cpu.max", "600000 100000\n");
  EXPECT_EQ(coresWithinQuota(system_, 8), 3U);
  EXPECT_EQ(coresWithinQuota(system_, 2), 2U);
  write("groups/a/memory.max", "max\n");
  write("groups/a/b/memory.max", "700\n");
  EXPECT_EQ(memoryWithinGroups(system_, 1000), 700U);
  EXPECT_EQ(memoryWithinGroups(system_, 600), 600U);
}

TEST_F(WorkerResourcesTest, ASmallQuotaIsOneCore) {
  write("groups/a/cpu.max", "20000 100000\n");
  EXPECT_EQ(coresWithinQuota(system_, 8), 1U);
}

TEST_F(WorkerResourcesTest, ThisProcessHasSome) {
  const auto own = ownResources();
  EXPECT_GE(own.cores(), 1U);
  EXPECT_LE(own.cores(), ownCores().size());
  EXPECT_GT(own.memory_bytes(), 1U << 20U);
}

}  // namespace
}  // namespace parallel::worker
