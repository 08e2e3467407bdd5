#include "scheduler/JobsOfService.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/files/testing/TemporaryDirectory.h"

namespace parallel::scheduler {
namespace {

namespace fs = std::filesystem;

TEST(JobsOfService, StoreOfItsOwnIsMadeWhenItIsNeededAndGoesWithIt) {
  const files::testing::TemporaryDirectory place;
  {
    JobsOfService jobs({.temporary = place.path()});
    EXPECT_TRUE(fs::is_empty(place.path()));
    jobs.get();
    EXPECT_FALSE(fs::is_empty(place.path()));
    EXPECT_EQ(&jobs.get(), &jobs.get());
  }
  EXPECT_TRUE(fs::is_empty(place.path()));
}

TEST(JobsOfService, NamedStoreStaysAndIsOneServices) {
  const files::testing::TemporaryDirectory place;
  const fs::path store = place.file("state/zks/store");
  {
    JobsOfService jobs({.store = store});
    EXPECT_FALSE(fs::exists(store));
    jobs.get();
    EXPECT_THROW(JobsOfService({.store = store, .opensStoreAtOnce = true}), Exception<parallel::store::StoreInUse>);
  }
  EXPECT_TRUE(fs::exists(store / "store.db"));
  const JobsOfService again({.store = store, .opensStoreAtOnce = true});
}

}  // namespace
}  // namespace parallel::scheduler
