// Every function is run with its first, second, ... allocation failing, until it runs through. Each time it throws
// std::bad_alloc and leaves things as they were. A leak would be reported by the leak sanitizer.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/array/testing/goldenArrays.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "tests/allocation/allocationHooks.h"

using allocation_testing::failEachAllocation;
using allocation_testing::FailingAllocation;
using Dimensions = std::vector<std::size_t>;
using OutOfMemory = Exception<host::memory::OutOfMemory, std::bad_alloc>;

namespace {

qxArrayPtr sampleStruct() {
  qxArrayPtr array = qxCreateStructArray(Dimensions{2}, {});
  for (int i = 0; i < 18; ++i) {
    qxSetField(array.get(), 1, "a field with a rather long name " + std::to_string(i), qxCreateScalar(i));
  }
  return array;
}

qxArrayPtr sampleList() {
  qxArrayPtr list = qxCreateListArray(Dimensions{3});
  qxSetListElement(list.get(), 0, qxCreateScalar(1));
  qxSetListElement(list.get(), 1, sampleStruct());
  return list;
}

}  // namespace

TEST(OutOfMemory, CreationThrows) {
  const Dimensions solid{2, 3, 4};
  const Dimensions large{std::size_t{8} << 20, 1};
  const std::vector<std::string> names{"a field with a rather long name", "another field with a long name"};
  EXPECT_GT(failEachAllocation([&] { qxCreateNumericArray(solid, qxClass::Float64); }), 2);
  EXPECT_GT(failEachAllocation([&] { qxCreateUninitializedArray(large, qxClass::Uint8); }), 2);
  EXPECT_EQ(failEachAllocation([&] { qxCreateScalar(1.5); }), 1);
  EXPECT_EQ(failEachAllocation([&] { qxCreateString(u"text"); }), 1);
  EXPECT_EQ(failEachAllocation([&] { qxCreateString(u"a text of middling length"); }), 2);
  EXPECT_GT(failEachAllocation([&] { qxCreateString(std::u16string(1000, u'x')); }), 2);
  EXPECT_GT(failEachAllocation([&] { qxCreateListArray(solid); }), 2);
  EXPECT_GT(failEachAllocation([&] { qxCreateStructArray(solid, names); }), 4);
  EXPECT_GT(failEachAllocation([&] { qxMakeFieldNames(names); }), 2);
  const qxFieldNamesPtr made = qxMakeFieldNames(names);
  EXPECT_EQ(failEachAllocation([&] { qxCreateStructWithNames({}, made); }), 3);
  EXPECT_EQ(failEachAllocation([&] { qxCreateStructWithNames({}, made, std::vector<qxArrayPtr>(2)); }), 3);
  EXPECT_GT(failEachAllocation([&] { qxCreateObject("class", nullptr); }), 1);
}

TEST(OutOfMemory, ElementMemoryThrowsTheIdentifiedError) {
  const Dimensions bytes{std::numeric_limits<std::ptrdiff_t>::max() / 2, 1};
  EXPECT_THROW(qxCreateNumericArray(bytes, qxClass::Uint8), OutOfMemory);
  const Dimensions elements{1000, 1};
  const FailingAllocation failing(0);
  EXPECT_THROW(qxCreateListArray(elements), OutOfMemory);
}

TEST(OutOfMemory, FailedAdoptionDoesNotRelease) {
  int released = 0;
  std::array<double, 24> memory{};
  const Dimensions solid{2, 3, 4};
  const auto adopt = [&](std::function<void()> release) {
    return qxAdoptArray(solid, qxClass::Float64, false, memory.data(), true, std::move(release));
  };
  failEachAllocation([&] { adopt([&released] { ++released; }); }, [&] { return released == 0; });
  EXPECT_EQ(released, 1);
}

TEST(OutOfMemory, CopyOnWriteChangesNothing) {
  const qxArrayPtr array = qxCreateNumericArray(Dimensions{100}, qxClass::Float64);
  const qxArrayPtr share = qxCreateSharedCopy(array.get());
  const auto stillShared = [&] { return qxGetData(array.get()) == qxGetData(share.get()); };
  EXPECT_GT(failEachAllocation([&] { qxGetWritableData(share.get()); }, stillShared), 1);
}

TEST(OutOfMemory, SettingListElementsChangesNothing) {
  const qxArrayPtr list = sampleList();
  const qxArrayPtr share = qxCreateSharedCopy(list.get());
  const qxArrayPtr before = sampleList();
  const auto unchanged = [&] { return qxEqual(share.get(), before.get()); };
  EXPECT_GT(failEachAllocation([&] { qxSetListElement(share.get(), 2, qxCreateScalar(2)); }, unchanged), 4);
}

TEST(OutOfMemory, AddingAndSettingFieldsChangesNothing) {
  const qxArrayPtr before = sampleStruct();
  const std::string name = "one more field with a rather long name";
  const auto addTo = [&](const qxArrayPtr& array) {
    failEachAllocation([&] { qxAddField(array.get(), name); },
                       [&] { return !qxHasField(array.get(), name) && qxEqual(array.get(), before.get()); });
    EXPECT_TRUE(qxHasField(array.get(), name));
  };
  const qxArrayPtr alone = sampleStruct();
  addTo(alone);
  const qxArrayPtr original = sampleStruct();
  const qxArrayPtr share = qxCreateSharedCopy(original.get());
  addTo(share);
}

TEST(OutOfMemory, SettingAnExistingFieldOfAShareChangesNothing) {
  const qxArrayPtr original = sampleStruct();
  const qxArrayPtr share = qxCreateSharedCopy(original.get());
  const std::string name(qxGetFieldNames(share.get())[3]);
  EXPECT_GT(failEachAllocation([&] { qxSetField(share.get(), 0, name, qxCreateScalar(2)); },
                               [&] { return qxEqual(share.get(), original.get()); }),
            10);
  EXPECT_NE(qxGetField(share.get(), 0, name), nullptr);
}

TEST(OutOfMemory, ReshapeChangesNothing) {
  const qxArrayPtr array = qxCreateNumericArray(Dimensions{2, 3, 4}, qxClass::Uint8);
  const Dimensions other{4, 3, 2};
  failEachAllocation([&] { qxReshape(array.get(), other); }, [&] { return qxGetDimensions(array.get())[0] == 2; });
  EXPECT_EQ(qxGetDimensions(array.get())[0], 4U);
}

TEST(OutOfMemory, SerialisingThrows) {
  const qxArrayPtr list = sampleList();
  EXPECT_GT(failEachAllocation([&] { qxArrayPtr(qxSerializeEx(list.get(), qxSerializeDefaults)); }), 2);
}

TEST(OutOfMemory, DeserialisingThrowsAndDoesNotBlameTheBytes) {
  const qxArrayPtr list = sampleList();
  const qxArrayPtr bytes(qxSerializeEx(list.get(), qxSerializeDefaults));
  const auto read = [&] { return qxArrayPtr(qxDeserialize(qxGetData(bytes.get()), qxGetDataBytes(bytes.get()))); };
  EXPECT_GT(failEachAllocation([&] { read(); }), 50);
  EXPECT_TRUE(qxEqual(read().get(), list.get()));
}
