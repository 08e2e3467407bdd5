#include "platform/spf/core/errorChain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "platform/errors/RemoteException.h"
#include "platform/spf/core/errors.h"

namespace agent::spf::core {
namespace {

using Kind = ErrorLevel::Kind;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

std::exception_ptr caught(const std::function<void()>& action) {
  try {
    action();
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

ErrorLevel levelOfKind(Kind kind) {
  ErrorLevel level{kind, "", "", "text " + std::to_string(static_cast<int>(kind))};
  if (kind == Kind::identified) {
    level.component = "component";
    level.name = "Name";
  }
  return level;
}

const Kind kKinds[] = {Kind::unknown,   Kind::standard, Kind::identified,
                       Kind::framework, Kind::timeout,  Kind::terminated};

TEST(ErrorChain, NullPointerHasNoLevels) {
  EXPECT_THAT(flattenErrorChain(nullptr), IsEmpty());
}

TEST(ErrorChain, EmptyChainBecomesAFrameworkErrorThatSaysSo) {
  const ErrorChain chain = flattenErrorChain(rebuildErrorChain({}));
  ASSERT_THAT(chain, SizeIs(1));
  EXPECT_EQ(chain[0].kind, Kind::framework);
  EXPECT_THAT(chain[0].text, HasSubstr("without saying which"));
}

// Every chain of up to three levels of every kind survives the way there and back.
TEST(ErrorChain, AllMixesToDepthThreeComeBackAsTheyWent) {
  for (const Kind first : kKinds) {
    ErrorChain one{levelOfKind(first)};
    EXPECT_EQ(flattenErrorChain(rebuildErrorChain(one)), one);
    for (const Kind second : kKinds) {
      ErrorChain two{levelOfKind(first), levelOfKind(second)};
      EXPECT_EQ(flattenErrorChain(rebuildErrorChain(two)), two);
      for (const Kind third : kKinds) {
        ErrorChain three{levelOfKind(first), levelOfKind(second), levelOfKind(third)};
        EXPECT_EQ(flattenErrorChain(rebuildErrorChain(three)), three);
      }
    }
  }
}

TEST(ErrorChain, RebuiltLevelsAreOfTheirTypes) {
  const auto rebuilt = [](Kind kind) { return rebuildErrorChain(ErrorChain{levelOfKind(kind)}); };
  EXPECT_THROW(std::rethrow_exception(rebuilt(Kind::framework)), FrameworkError);
  EXPECT_THROW(std::rethrow_exception(rebuilt(Kind::timeout)), Timeout);
  EXPECT_THROW(std::rethrow_exception(rebuilt(Kind::terminated)), Terminated);
  EXPECT_THROW(std::rethrow_exception(rebuilt(Kind::identified)), RemoteException);
  EXPECT_THROW(std::rethrow_exception(rebuilt(Kind::unknown)), UnknownRemoteError);
  EXPECT_THROW(std::rethrow_exception(rebuilt(Kind::standard)), std::runtime_error);
}

TEST(ErrorChain, LevelsThatAreNotStandardErrorsAreUnknownAndSayWhatTheyWere) {
  struct Odd {};
  EXPECT_THAT(flattenErrorChain(caught([] { throw std::string("a text"); })),
              ElementsAre(ErrorLevel{Kind::unknown, "", "", "a text"}));
  EXPECT_THAT(flattenErrorChain(caught([] { throw 1; })),
              ElementsAre(ErrorLevel{Kind::unknown, "", "", "an object of type int"}));
  EXPECT_THAT(flattenErrorChain(caught([] { throw Odd(); })).at(0).text, HasSubstr("Odd"));
}

TEST(ErrorChain, WhatIsNestedInAnUnknownLevelIsKept) {
  struct Odd {};
  const auto error = caught([] {
    try {
      throw Timeout("inner");
    } catch (...) {
      std::throw_with_nested(Odd());
    }
  });
  const ErrorChain chain = flattenErrorChain(error);
  ASSERT_THAT(chain, SizeIs(2));
  EXPECT_EQ(chain[0].kind, Kind::unknown);
  EXPECT_EQ(chain[1], (ErrorLevel{Kind::timeout, "", "", "inner"}));
}

TEST(ErrorChain, BytesThatAreNotUtf8StayAsTheyAre) {
  const ErrorChain chain{{Kind::standard, "", "", "\xFF\xC0 text"}};
  EXPECT_EQ(flattenErrorChain(rebuildErrorChain(chain)), chain);
}

TEST(ErrorChain, LongTextsAreCutWithAMark) {
  const std::string text(kMaxErrorBytes + 1000, 'x');
  const ErrorChain chain = flattenErrorChain(caught([&] { throw std::runtime_error(text); }));
  ASSERT_THAT(chain, SizeIs(1));
  EXPECT_LT(chain[0].text.size(), kMaxErrorBytes + 100);
  EXPECT_THAT(chain[0].text.substr(kMaxErrorBytes), HasSubstr("1000 more bytes were left out"));
}

TEST(ErrorChain, DeepChainsAreCutWithAMark) {
  ErrorChain chain(kMaxErrorLevels, levelOfKind(Kind::standard));
  EXPECT_EQ(flattenErrorChain(rebuildErrorChain(chain)), chain);
  chain.resize(kMaxErrorLevels + 7, levelOfKind(Kind::standard));
  const ErrorChain cut = flattenErrorChain(rebuildErrorChain(chain));
  ASSERT_THAT(cut, SizeIs(kMaxErrorLevels + 1));
  EXPECT_THAT(cut.back().text, HasSubstr("7 more levels were left out"));
}

TEST(ErrorChain, MarkOfAChainThatWasCutTravelsOn) {
  const ErrorChain chain(kMaxErrorLevels + 7, levelOfKind(Kind::standard));
  const ErrorChain cut = flattenErrorChain(rebuildErrorChain(chain));
  EXPECT_EQ(flattenErrorChain(rebuildErrorChain(cut)), cut);
}

// A peer may send as many as fit into a frame; as nested exceptions they would end by recursion.
TEST(ErrorChain, MillionsOfLevelsAreLeftOutBeforeTheyAreNested) {
  const ErrorChain cut = flattenErrorChain(rebuildErrorChain(ErrorChain(2'000'000)));
  ASSERT_THAT(cut, SizeIs(kMaxErrorLevels + 1));
  EXPECT_THAT(cut.back().text, HasSubstr("[1999000 more levels were left out]"));
}

TEST(ErrorChain, NulInATextIsShownAndEndsNothing) {
  for (const Kind kind : kKinds) {
    ErrorLevel level = levelOfKind(kind);
    level.text = std::string("a\0b", 3);
    EXPECT_EQ(flattenErrorChain(rebuildErrorChain(ErrorChain{level})).at(0).text,
              "a\xE2\x90\x80"
              "b");
  }
}

TEST(ErrorChain, SummaryHasTheTextsOnLinesAndMarksACut) {
  const ErrorChain chain{levelOfKind(Kind::framework), levelOfKind(Kind::identified)};
  EXPECT_EQ(summaryOf(chain, 1000), "text 3\ncomponent:Name: text 2");
  EXPECT_EQ(summaryOf(chain, 14), "text 3\nc [...]");
  EXPECT_THAT(summaryOf(chain, 3), SizeIs(::testing::Le(6)));
}

}  // namespace
}  // namespace agent::spf::core
