#include "execution/AttemptMark.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace parallel::execution {
namespace {

std::string withOwner(const AttemptMark& mark, pid_t owner, const std::string& start) {
  const std::string& text = mark.text();
  return text.substr(0, text.find('.')) + "." + std::to_string(owner) + "." + start + ".1";
}

TEST(AttemptMark, IsAnotherOneEachTimeAndOurs) {
  const AttemptMark one = AttemptMark::make();
  const AttemptMark other = AttemptMark::make();
  EXPECT_NE(one, other);
  EXPECT_TRUE(one.isOurs());
  EXPECT_FALSE(one.isOfTheDead());
}

TEST(AttemptMark, ReadsBackWhatItWrote) {
  const AttemptMark mark = AttemptMark::make();
  const std::optional<AttemptMark> read = AttemptMark::parse(mark.text());
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, mark);
  EXPECT_TRUE(read->isOurs());
}

TEST(AttemptMark, TextThatIsNoneIsRefused) {
  for (const char* text : {"", "1", "1.2.3", "1.2.3.", "1.2.3.4.5", "1.2.3.x", "-1.2.3.4", " 1.2.3.4", "1.2.3.4 ",
                           "1.99999999999.3.4", "...."})
    EXPECT_FALSE(AttemptMark::parse(text)) << text;
}

TEST(AttemptMark, OwnerThatHasEndedIsDead) {
  const AttemptMark ours = AttemptMark::make();
  const pid_t ended = ::fork();
  if (ended == 0)
    ::_exit(0);
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(ended), &info, WEXITED | WNOWAIT), 0);
  EXPECT_TRUE(AttemptMark::parse(withOwner(ours, ended, "1"))->isOfTheDead()) << "a zombie";
  ASSERT_EQ(::waitpid(ended, nullptr, 0), ended);
  EXPECT_TRUE(AttemptMark::parse(withOwner(ours, ended, "1"))->isOfTheDead());
}

TEST(AttemptMark, OwnerWhoseNumberWasGivenAnewIsDead) {
  const std::optional<AttemptMark> mark = AttemptMark::parse(withOwner(AttemptMark::make(), ::getpid(), "1"));
  EXPECT_TRUE(mark->isOfTheDead());
  EXPECT_FALSE(mark->isOurs());
}

TEST(AttemptMark, OwnerInAnotherNamespaceIsNotJudged) {
  EXPECT_FALSE(AttemptMark::parse("1." + std::to_string(::getpid()) + ".1.1")->isOfTheDead());
}

}  // namespace
}  // namespace parallel::execution
