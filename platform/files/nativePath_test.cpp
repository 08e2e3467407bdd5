#include "platform/files/nativePath.h"

#include <gtest/gtest.h>

#include "platform/errors/IException.h"

namespace {

std::string refusalOf(std::u16string_view path) {
  try {
    return "accepted as " + files::nativePath(path);
  } catch (const IException& error) {
    return error.identifier() + ": " + fl::i18n::to_string(error.ToUstring());
  }
}

TEST(NativePath, NameBecomesItsUtf8Bytes) {
  EXPECT_EQ(files::nativePath(u"/tmp/a b"), "/tmp/a b");
  EXPECT_EQ(files::nativePath(u"\u00E9\U0001F600"), "\xC3\xA9\xF0\x9F\x98\x80");
}

TEST(NativePath, HostPathIsItsInverse) {
  EXPECT_EQ(files::hostPath(files::nativePath(u"d/\u00E9\U0001F600")), u"d/\u00E9\U0001F600");
  EXPECT_EQ(files::hostPath(""), u"");
}

TEST(NativePath, BytesThatAreNotUtf8BecomeReplacementCharactersInTheHost) {
  EXPECT_EQ(files::hostPath("d/\xE9!"), u"d/\uFFFD!");
}

TEST(NativePath, EmptyNameIsRefused) {
  EXPECT_EQ(refusalOf(u""), "host:files:PathNotConvertible: The file name cannot be used: it is empty.");
}

TEST(NativePath, NameWithNulIsRefusedAndNotShown) {
  EXPECT_EQ(refusalOf(std::u16string_view(u"a\0b", 3)),
            "host:files:PathNotConvertible: The file name cannot be used: it holds a NUL character.");
}

TEST(NativePath, UnpairedSurrogateIsRefusedAndTheNameNotShown) {
  EXPECT_EQ(refusalOf(std::u16string{u'a', 0xD800}),
            "host:files:PathNotConvertible: The file name cannot be used: it holds half of a surrogate pair.");
}

}  // namespace
