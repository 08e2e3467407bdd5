#include "transport/client/expandSPFErrors.h"

#include <gtest/gtest.h>

#include <locale>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/RemoteException.h"
#include "platform/errors/catalogue.h"
#include "platform/interrupt/utInterruptState.h"
#include "platform/spf/core/errors.h"
#include "transport/data/testing/LogCapture.h"

namespace parallel::spf::transport {
namespace {

using agent::spf::FrameworkError;
using agent::spf::Terminated;
using agent::spf::Timeout;
using Corvane::System::InterruptException;
using testing::LogCapture;

// What a chain comes out as.
enum class Outcome { Framework, Runtime, Interrupt, Unchanged };

struct Expanded {
  Outcome outcome = Outcome::Unchanged;
  std::string text;
};

Expanded classify(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const InterruptException&) {
    return {Outcome::Interrupt, ""};
  } catch (const FrameworkError& caught) {
    return {typeid(caught) == typeid(FrameworkError) ? Outcome::Framework : Outcome::Unchanged, caught.what()};
  } catch (const std::runtime_error& caught) {
    return {typeid(caught) == typeid(std::runtime_error) ? Outcome::Runtime : Outcome::Unchanged, caught.what()};
  } catch (...) {
    return {Outcome::Unchanged, ""};
  }
}

Expanded expand(const std::exception_ptr& error) {
  return classify(expandSPFErrors(error));
}

// Throws `outer` with the chain that is being handled nested in it, or alone when there is none.
template <class Error>
[[noreturn]] void throwAround(const Error& outer, const std::exception_ptr& inner) {
  if (inner == nullptr)
    throw outer;
  try {
    std::rethrow_exception(inner);
  } catch (...) {
    std::throw_with_nested(outer);
  }
}

template <class Error>
std::exception_ptr wrap(const Error& outer, const std::exception_ptr& inner = nullptr) {
  try {
    throwAround(outer, inner);
  } catch (...) {
    return std::current_exception();
  }
}

// --- Single chains ---

TEST(ExpandSPFErrors, NullGivesNullAndThrowsNothing) {
  EXPECT_EQ(expandSPFErrors(nullptr), nullptr);
  EXPECT_NO_THROW(throwExpandedSPFErrors(nullptr));
}

TEST(ExpandSPFErrors, ThreeLevelsGiveThreeIndentedLinesAndThreeRecords) {
  const auto chain = wrap(FrameworkError("call failed"), wrap(RemoteException("parallel:cluster", "Busy", "Größe"),
                                                              wrap(std::runtime_error("disk full"))));
  const LogCapture log(256);
  const Expanded expanded = expand(chain);
  EXPECT_EQ(expanded.outcome, Outcome::Framework);
  EXPECT_EQ(expanded.text, "call failed\n Größe\n  disk full");
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"Error depth = 0 : SPF FrameworkError", "Error depth = 1 : Größe",
                                                   "Error depth = 2 : disk full"}));
  for (const auto& record : log.records())
    EXPECT_EQ(record.level, 256U);
}

TEST(ExpandSPFErrors, LoneTimeoutAndTerminatedHaveTheirFixedTexts) {
  EXPECT_EQ(expand(wrap(Timeout("after 5 s"))).text, "Timeout");
  EXPECT_EQ(expand(wrap(Timeout("after 5 s"))).outcome, Outcome::Runtime);
  EXPECT_EQ(expand(wrap(Terminated("socket closed"))).text, "Terminated");
  EXPECT_EQ(expand(wrap(Terminated("socket closed"))).outcome, Outcome::Runtime);
}

TEST(ExpandSPFErrors, TimeoutAndTerminatedEndTheWalk) {
  const auto inner = wrap(FrameworkError("never seen"));
  EXPECT_EQ(expand(wrap(Timeout(), inner)).text, "Timeout");
  EXPECT_EQ(expand(wrap(Timeout(), inner)).outcome, Outcome::Runtime);
  EXPECT_EQ(expand(wrap(Terminated(), inner)).text, "Terminated");
  EXPECT_EQ(expand(wrap(Terminated(), inner)).outcome, Outcome::Runtime);
}

TEST(ExpandSPFErrors, FrameworkErrorInsideAStandardOneMakesItAFrameworkError) {
  const Expanded expanded = expand(wrap(std::runtime_error("outer"), wrap(FrameworkError("inner"))));
  EXPECT_EQ(expanded.outcome, Outcome::Framework);
  EXPECT_EQ(expanded.text, "outer\n inner");
}

TEST(ExpandSPFErrors, UnknownOutermostPassesUnchangedAndIsLogged) {
  const LogCapture log(256);
  EXPECT_THROW(throwExpandedSPFErrors(std::make_exception_ptr(42)), int);
  const auto texts = log.texts();
  ASSERT_EQ(texts.size(), 1U);
  EXPECT_EQ(texts[0].rfind("Error depth = 0 : ", 0), 0U);
  EXPECT_GT(texts[0].size(), std::string("Error depth = 0 : ").size()) << "the diagnostic text is missing";
}

TEST(ExpandSPFErrors, UnknownOutermostIsTheVeryObject) {
  struct Unknown {
    int value = 0;
  };
  const std::exception_ptr error = std::make_exception_ptr(Unknown{7});
  EXPECT_EQ(expandSPFErrors(error), error);
}

TEST(ExpandSPFErrors, UnknownInsideIsDropped) {
  const auto chain = wrap(std::runtime_error("outer"), std::make_exception_ptr(42));
  const LogCapture log(256);
  const Expanded expanded = expand(chain);
  EXPECT_EQ(expanded.outcome, Outcome::Runtime);
  EXPECT_EQ(expanded.text, "outer");
  ASSERT_EQ(log.texts().size(), 2U);
  EXPECT_EQ(log.texts()[1].rfind("Error depth = 1 : ", 0), 0U);
}

TEST(ExpandSPFErrors, InterruptAtAnyDepthEscapesAsItself) {
  const auto interrupt = wrap(InterruptException());
  EXPECT_EQ(expandSPFErrors(interrupt), interrupt);
  auto chain = interrupt;
  for (int depth = 1; depth <= 4; ++depth) {
    chain = wrap(FrameworkError("level"), chain);
    EXPECT_EQ(expandSPFErrors(chain), interrupt) << "at depth " << depth;
  }
}

TEST(ExpandSPFErrors, ThrownStringIsItsOwnText) {
  EXPECT_EQ(expand(wrap(std::string("plain words"))).text, "plain words");
  EXPECT_EQ(expand(wrap(std::runtime_error("outer"), wrap(std::string("plain words")))).text, "outer\n plain words");
}

TEST(ExpandSPFErrors, FirstMatchingKindCounts) {
  struct IdentifiedFrameworkError : FrameworkError, RemoteException {
    IdentifiedFrameworkError() : FrameworkError("as framework"), RemoteException("a", "b", "as identified") {}
    const char* what() const noexcept override { return FrameworkError::what(); }
  };
  const Expanded expanded = expand(std::make_exception_ptr(IdentifiedFrameworkError()));
  EXPECT_EQ(expanded.outcome, Outcome::Framework);
  EXPECT_EQ(expanded.text, "as framework");
}

TEST(ExpandSPFErrors, NestingWithoutAnythingNestedEndsTheWalk) {
  // Made outside a handler, std::nested_exception holds nothing.
  struct Hollow : std::runtime_error, std::nested_exception {
    Hollow() : std::runtime_error("hollow") {}
  };
  EXPECT_EQ(expand(std::make_exception_ptr(Hollow())).text, "hollow");
}

TEST(ExpandSPFErrors, LinesInsideAMessageStayAsTheyAre) {
  const auto chain = wrap(std::runtime_error("a\nb"), wrap(std::runtime_error("")));
  EXPECT_EQ(expand(chain).text, "a\nb\n ");
}

TEST(ExpandSPFErrors, ChainOfAThousandLevelsIsWalked) {
  std::exception_ptr chain = wrap(FrameworkError("last"));
  for (int i = 0; i < 999; ++i)
    chain = wrap(std::runtime_error("x"), chain);
  const Expanded expanded = expand(chain);
  EXPECT_EQ(expanded.outcome, Outcome::Framework);
  EXPECT_EQ(expanded.text.substr(expanded.text.rfind('\n')), "\n" + std::string(999, ' ') + "last");
}

TEST(ExpandSPFErrors, InsideAHandlerTheExceptionInHandIsExpanded) {
  try {
    try {
      throw FrameworkError("in hand");
    } catch (...) {
      throwExpandedSPFErrors();
    }
  } catch (const FrameworkError& error) {
    EXPECT_STREQ(error.what(), "in hand");
  }
}

// A host may set a global locale that groups digits: 10 would be written 1.0.
class GroupingLocale {
 public:
  GroupingLocale() : before_(std::locale::global(std::locale(std::locale::classic(), new Grouping))) {}
  ~GroupingLocale() { std::locale::global(before_); }
  GroupingLocale(const GroupingLocale&) = delete;
  GroupingLocale& operator=(const GroupingLocale&) = delete;

 private:
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\1"; }
  };

  std::locale before_;
};

TEST(ExpandSPFErrors, DepthIsADecimalNumberWhateverTheGlobalLocale) {
  std::exception_ptr chain = std::make_exception_ptr(42);
  for (int depth = 0; depth < 11; ++depth)
    chain = wrap(std::runtime_error("x"), chain);
  std::vector<std::string> texts;
  // On a thread of its own, for which the logging library makes its streams anew.
  std::thread([&] {
    const GroupingLocale grouping;
    const LogCapture log(256);
    expand(chain);
    texts = log.texts();
  }).join();
  ASSERT_EQ(texts.size(), 12U);
  EXPECT_EQ(texts[10], "Error depth = 10 : x");
  EXPECT_EQ(texts[11].rfind("Error depth = 11 : ", 0), 0U) << texts[11];
}

TEST(ExpandSPFErrors, NothingIsFormattedWhenTheLevelIsOff) {
  const LogCapture log(~256U);
  expand(wrap(FrameworkError("a"), wrap(Timeout())));
  EXPECT_TRUE(log.records().empty());
}

// --- All mixes of kinds to depth 4 ---

enum class Kind { Framework, Terminated, Timeout, Identified, Remote, Standard, String, Unknown, Interrupt };
constexpr int kKinds = 9;

std::exception_ptr wrapKind(Kind kind, const std::exception_ptr& inner) {
  switch (kind) {
    case Kind::Framework:
      return wrap(FrameworkError("framework"), inner);
    case Kind::Terminated:
      return wrap(Terminated("gone"), inner);
    case Kind::Timeout:
      return wrap(Timeout("late"), inner);
    case Kind::Identified:
      return wrap(Exception<host::builtins::TooManyInputs>(), inner);
    case Kind::Remote:
      return wrap(RemoteException("a", "b", "remote"), inner);
    case Kind::Standard:
      return wrap(std::logic_error("standard"), inner);
    case Kind::String:
      return wrap(std::string("string"), inner);
    case Kind::Unknown:
      return wrap(42, inner);
    case Kind::Interrupt:
      return wrap(InterruptException(), inner);
  }
  return nullptr;
}

// What each kind shows of itself, and whether the walk goes on behind it.
struct Shown {
  const char* text;
  const char* logged;
  bool goesOn;
};

Shown shownOf(Kind kind) {
  switch (kind) {
    case Kind::Framework:
      return {"framework", "SPF FrameworkError", true};
    case Kind::Terminated:
      return {"Terminated", "SPF Terminated", false};
    case Kind::Timeout:
      return {"Timeout", "SPF Timeout", false};
    case Kind::Identified:
      return {"Too many inputs were given.", "Too many inputs were given.", true};
    case Kind::Remote:
      return {"remote", "remote", true};
    case Kind::Standard:
      return {"standard", "standard", true};
    case Kind::String:
      return {"string", "string", false};
    case Kind::Unknown:
    case Kind::Interrupt:
      break;
  }
  return {nullptr, nullptr, false};
}

struct Expectation {
  Expanded expanded;
  std::vector<std::string> logged;  // of an unknown level only the beginning
};

Expectation expectationOf(const std::vector<Kind>& kinds) {
  Expectation expected{{Outcome::Runtime, ""}, {}};
  for (std::size_t depth = 0; depth < kinds.size(); ++depth) {
    if (kinds[depth] == Kind::Interrupt)
      return {{Outcome::Interrupt, ""}, expected.logged};
    const Shown shown = shownOf(kinds[depth]);
    expected.logged.push_back("Error depth = " + std::to_string(depth) + " : " +
                              (shown.logged == nullptr ? "" : shown.logged));
    if (shown.text == nullptr)
      return depth == 0 ? Expectation{{Outcome::Unchanged, ""}, expected.logged} : expected;
    if (kinds[depth] == Kind::Framework)
      expected.expanded.outcome = Outcome::Framework;
    expected.expanded.text += (depth == 0 ? "" : "\n" + std::string(depth, ' ')) + shown.text;
    if (!shown.goesOn)
      return expected;
  }
  return expected;
}

void expectMix(const std::vector<Kind>& kinds) {
  std::string trace = "kinds";
  for (const Kind kind : kinds)
    trace += " " + std::to_string(static_cast<int>(kind));
  SCOPED_TRACE(trace);

  std::exception_ptr chain;
  for (auto kind = kinds.rbegin(); kind != kinds.rend(); ++kind)
    chain = wrapKind(*kind, chain);
  const Expectation expected = expectationOf(kinds);
  const LogCapture log(256);
  const Expanded expanded = expand(chain);
  EXPECT_EQ(expanded.outcome, expected.expanded.outcome);
  EXPECT_EQ(expanded.text, expected.expanded.text);
  const auto logged = log.texts();
  ASSERT_EQ(logged.size(), expected.logged.size());
  for (std::size_t i = 0; i < logged.size(); ++i)
    EXPECT_EQ(logged[i].substr(0, expected.logged[i].size()), expected.logged[i]);
}

TEST(ExpandSPFErrors, EveryMixOfKindsToDepthFourGivesItsTextTypeAndRecords) {
  std::vector<std::vector<Kind>> mixes{{}};
  for (int depth = 1; depth <= 4; ++depth) {
    std::vector<std::vector<Kind>> deeper;
    for (const auto& mix : mixes) {
      for (int kind = 0; kind < kKinds; ++kind) {
        deeper.push_back(mix);
        deeper.back().push_back(static_cast<Kind>(kind));
        expectMix(deeper.back());
      }
    }
    mixes = std::move(deeper);
  }
}

}  // namespace
}  // namespace parallel::spf::transport
