#include "platform/protobufencoding/countFields.h"

#include <google/protobuf/struct.pb.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace parallel::protobufencoding::testing {
namespace {

std::size_t countIn(std::string_view bytes, std::size_t most = std::numeric_limits<std::size_t>::max()) {
  return countFields(*google::protobuf::ListValue::descriptor(), bytes, most);
}

std::string withoutValues(std::size_t count) {
  std::string bytes;
  for (std::size_t i = 0; i < count; ++i)
    bytes.append("\x0A\x00", 2);
  return bytes;
}

TEST(CountFields, CountsFieldsInsideMessages) {
  google::protobuf::ListValue list;
  EXPECT_EQ(countIn(list.SerializeAsString()), 0U);
  list.add_values()->set_number_value(1);
  list.add_values()->mutable_list_value()->add_values();
  EXPECT_EQ(countIn(list.SerializeAsString()), 5U);  // two values, a number, a list, a value in it
}

TEST(CountFields, CountsFieldsThatAreNotKnownAndThoseInGroups) {
  EXPECT_EQ(countIn("\x50\x01\x50\x02"), 2U);
  EXPECT_EQ(countIn("\x53\x58\x01\x58\x02\x54"), 3U);
  EXPECT_EQ(countIn(std::string("\x0A\x04\x50\x01\x50\x01", 6)), 3U);
}

TEST(CountFields, GoesNoFurtherThanTheFirstPastTheMost) {
  EXPECT_EQ(countIn(withoutValues(100), 100), 100U);
  EXPECT_EQ(countIn(withoutValues(1000), 100), 101U);
}

TEST(CountFields, OfDamagedBytesCountsWhatTheParserReads) {
  const std::string whole = withoutValues(10);
  for (std::size_t nbytes = 0; nbytes <= whole.size(); ++nbytes) {
    google::protobuf::ListValue read;
    static_cast<void>(read.ParsePartialFromString(whole.substr(0, nbytes)));
    EXPECT_GE(countIn(whole.substr(0, nbytes)), static_cast<std::size_t>(read.values_size())) << nbytes;
  }
}

}  // namespace
}  // namespace parallel::protobufencoding::testing
