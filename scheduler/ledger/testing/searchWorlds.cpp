#include "scheduler/ledger/testing/searchWorlds.h"

#include <unordered_set>
#include <utility>

#include "scheduler/ledger/testing/SmallWorld.h"

namespace parallel::scheduler::ledger::testing {
namespace {

class Search {
 public:
  Found explore(const SmallWorld& begin) {
    visit(begin, 0, "the beginning");
    while (!open_.empty() && found_.violation.empty()) {
      const auto [world, place] = std::move(open_.back());
      open_.pop_back();
      for (const SmallWorld::Event& event : world.events())
        follow(world, place, event);
    }
    found_.states = visits_.size();
    return found_;
  }

 private:
  // How a state was come to first.
  struct Visit {
    std::size_t from = 0;
    std::string event;
  };

  void follow(const SmallWorld& world, std::size_t place, const SmallWorld::Event& event) {
    ++found_.events;
    try {
      visit(world.after(event), place, event.name);
    } catch (const Violation& violation) {
      found_.violation = violation.what() + std::string(" after, backwards:\n  ") + event.name + storyOf(place);
    }
  }

  void visit(SmallWorld world, std::size_t from, const std::string& event) {
    if (!seen_.insert(std::hash<std::string>()(world.signature())).second)
      return;
    constexpr std::size_t kEach = 16;
    if (seen_.size() % kEach == 0)
      world.requireThatAllCanEnd();
    open_.emplace_back(std::move(world), visits_.size());
    visits_.push_back({from, event});
  }

  std::string storyOf(std::size_t place) const {
    std::string story;
    for (; place != 0; place = visits_[place].from)
      story += "\n  " + visits_[place].event;
    return story;
  }

  std::unordered_set<std::size_t> seen_;  // by the hash of the signature
  std::vector<Visit> visits_;
  std::vector<std::pair<SmallWorld, std::size_t>> open_;
  Found found_;
};

}  // namespace

Found searchWorlds(const std::vector<SubmitJob>& jobs, int troubles) {
  return Search().explore(SmallWorld(jobs, troubles));
}

}  // namespace parallel::scheduler::ledger::testing
