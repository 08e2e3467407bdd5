#include "transport/streams/reserveBytes.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "transport/streams/testing/streamTools.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZKS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZKS_SANITIZED 1
#endif
#endif

namespace parallel::spf::transport {
namespace {

using namespace transport::testing;

bool hasHugePages() {
  return std::filesystem::exists("/sys/kernel/mm/transparent_hugepage/enabled");
}

// Whether the mapping that holds the address has been advised to use huge pages.
bool isAdvised(const void* address) {
  const auto wanted = reinterpret_cast<std::uintptr_t>(address);
  std::ifstream smaps("/proc/self/smaps");
  bool inside = false;
  for (std::string line; std::getline(smaps, line);) {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    char dash = 0;
    std::istringstream range(line);
    if (range >> std::hex >> begin >> dash >> end && dash == '-')
      inside = begin <= wanted && wanted < end;
    if (inside && line.starts_with("VmFlags:"))
      return line.find(" hg") != std::string::npos;
  }
  return false;
}

template <class Byte>
class ReserveBytes : public ::testing::Test {};
using ByteTypes = ::testing::Types<std::byte, char>;
TYPED_TEST_SUITE(ReserveBytes, ByteTypes);

TYPED_TEST(ReserveBytes, RoomIsMadeAndContentStays) {
  std::vector<TypeParam> bytes(100, TypeParam{7});
  reserveBytes(bytes, 9U << 20);
  EXPECT_EQ(bytes.capacity(), 9U << 20);
  EXPECT_EQ(bytes, std::vector<TypeParam>(100, TypeParam{7}));
}

TYPED_TEST(ReserveBytes, LargeReservationAsksForHugePages) {
  if (!hasHugePages())
    GTEST_SKIP() << "this kernel has no transparent huge pages";
  std::vector<TypeParam> large;
  reserveBytes(large, 64U << 20);
  EXPECT_TRUE(isAdvised(large.data() + (32U << 20)));
}

TYPED_TEST(ReserveBytes, NothingChangesWhenThereIsRoom) {
  std::vector<TypeParam> bytes;
  bytes.reserve(1000);
  reserveBytes(bytes, 999);
  reserveBytes(bytes, 0);
  EXPECT_EQ(bytes.capacity(), 1000U);
}

#ifndef ZKS_SANITIZED  // the sanitizers end the program where malloc would fail
TYPED_TEST(ReserveBytes, MissingMemoryIsNotAnError) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
  const rlimit tight{std::size_t{1} << 30, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
  std::vector<TypeParam> bytes(10, TypeParam{7});
  reserveBytes(bytes, std::size_t{1} << 60);
  ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
  EXPECT_EQ(bytes, std::vector<TypeParam>(10, TypeParam{7}));
  EXPECT_EQ(bytes.capacity(), 10U);
}
#endif

TEST(AdviseHugePages, OnlyWholePagesAreAdvised) {
  if (!hasHugePages())
    GTEST_SKIP() << "this kernel has no transparent huge pages";
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t nbytes = 8 * page;
  void* const memory = mmap(nullptr, nbytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  auto* const bytes = static_cast<char*>(memory);
  std::memset(bytes, 1, nbytes);
  internal::adviseHugePages(bytes + 1, nbytes - 2);
  EXPECT_FALSE(isAdvised(bytes));
  EXPECT_TRUE(isAdvised(bytes + page));
  EXPECT_TRUE(isAdvised(bytes + 6 * page));
  EXPECT_FALSE(isAdvised(bytes + 7 * page));
  munmap(memory, nbytes);
}

TEST(AdviseHugePages, RangeWithoutAWholePageIsLeftAlone) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* const memory = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  auto* const bytes = static_cast<char*>(memory);
  internal::adviseHugePages(bytes, 0);
  internal::adviseHugePages(bytes + 1, page);
  internal::adviseHugePages(bytes + 1, 2 * page - 2);
  EXPECT_FALSE(isAdvised(bytes));
  EXPECT_FALSE(isAdvised(bytes + page));
  munmap(memory, 2 * page);
}

}  // namespace
}  // namespace parallel::spf::transport
