#include "platform/errors/Exception.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <vector>

#include "platform/errors/RemoteException.h"
#include "platform/errors/argumentErrors.h"
#include "platform/errors/catalogue.h"

namespace {

struct TwoHoles {
  static constexpr std::string_view component = "test:errors";
  static constexpr std::string_view name = "TwoHoles";
  static constexpr std::string_view text = "{1} before {0}, and {1} again";
  static constexpr std::size_t argumentCount = 2;
};

std::string fill(std::string_view text, const std::vector<std::string>& arguments) {
  return errors_detail::fillTemplate(text, arguments);
}

TEST(FillTemplate, HolesAreReplacedByPosition) {
  EXPECT_EQ(fill("{1}-{0}-{1}", {"a", "b"}), "b-a-b");
}

TEST(FillTemplate, TextWithoutHolesStaysAsItIs) {
  EXPECT_EQ(fill("nothing here", {}), "nothing here");
}

TEST(FillTemplate, BracesInsideAnArgumentAreText) {
  EXPECT_EQ(fill("{0}{1}", {"{1}", "x"}), "{1}x");
}

TEST(FillTemplate, HoleNumberTenIsNotHoleOne) {
  EXPECT_EQ(fill("{10}{1}", {"0", "one", "2", "3", "4", "5", "6", "7", "8", "9", "ten"}), "tenone");
}

TEST(FillTemplate, TextThatIsNotAHoleStays) {
  EXPECT_EQ(fill("{ {} {x} {7} {0", {"a"}), "{ {} {x} {7} {0");
}

TEST(Exception, CarriesComponentNameIdentifierAndText) {
  const Exception<TwoHoles> error("first", 2);
  EXPECT_EQ(error.component(), "test:errors");
  EXPECT_EQ(error.name(), "TwoHoles");
  EXPECT_EQ(error.identifier(), "test:errors:TwoHoles");
  EXPECT_STREQ(error.what(), "2 before first, and 2 again");
  EXPECT_EQ(error.ToUstring(), u"2 before first, and 2 again");
}

TEST(Exception, TextOutsideAsciiIsTheSameInBothForms) {
  const Exception<TwoHoles> error("\xC3\xA9", "\xF0\x9F\x98\x80");
  EXPECT_EQ(error.ToUstring(), u"\U0001F600 before \u00E9, and \U0001F600 again");
  EXPECT_EQ(fl::i18n::to_string(error.ToUstring()), error.what());
}

TEST(Exception, IsCaughtAsItsStandardBaseAndAsIException) {
  using Error = Exception<host::array::WrongClass, std::runtime_error>;
  const auto thrower = [] { throw Exception<host::array::WrongClass>("single", "double"); };
  EXPECT_THROW(thrower(), std::exception);
  EXPECT_THROW(thrower(), IException);
  static_assert(!std::is_base_of_v<std::runtime_error, Exception<host::array::WrongClass>>);
  static_assert(std::is_base_of_v<std::exception, Error>);
}

std::string identifierThrownBy(const std::function<void()>& body) {
  try {
    body();
  } catch (const IException& error) {
    return error.identifier();
  }
  return "nothing";
}

TEST(ArgumentErrors, EachThrowsItsIdentifiedError) {
  EXPECT_EQ(identifierThrownBy([] { error_maxlhs(); }), "host:builtins:TooManyOutputs");
  EXPECT_EQ(identifierThrownBy([] { error_maxrhs(); }), "host:builtins:TooManyInputs");
  EXPECT_EQ(identifierThrownBy([] { error_minrhs(); }), "host:builtins:NotEnoughInputs");
}

TEST(RemoteException, CarriesWhatItWasGiven) {
  const RemoteException error("a:b", "C", "d\xC3\xA9");
  EXPECT_EQ(error.identifier(), "a:b:C");
  EXPECT_STREQ(error.what(), "d\xC3\xA9");
  EXPECT_EQ(error.ToUstring(), u"d\u00E9");
}

}  // namespace
