#include "platform/interrupt/XExceptionTester.h"

#include <map>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

#include "platform/interrupt/utInterruptState.h"
#include "platform/threads/Mutex.h"

namespace xtester {
namespace {

// What tests have armed, with the number of times, and which points the code has named so far.
struct Registry {
  struct Armed {
    explicit Armed(const std::string& name) : tester(name) {}
    XExceptionTester tester;
    int count = 0;
  };

  parallel::threads::Mutex mutex;
  std::set<std::string, std::less<>> points ZKS_GUARDED_BY(mutex);
  std::map<std::string, Armed, std::less<>> armed ZKS_GUARDED_BY(mutex);
};

Registry& registry() {
  static Registry instance;
  return instance;
}

}  // namespace

std::atomic<int> XExceptionTester::staticTesterMode{-1};

// Not a member of the tester's state: a fault that looks like Ctrl-C must take Ctrl-C's own way.
void XExceptionTester::emulateCtrlC() {
  utInterruptState::request();
}

void CreateTesterByName(const char* /*group*/, const char* /*component*/, const char* name) {
  Registry& all = registry();
  const parallel::threads::MutexLock lock(all.mutex);
  all.points.emplace(name);
}

XExceptionTester* GetTesterByName(const char* /*group*/, const char* /*component*/, const char* name) {
  Registry& all = registry();
  const parallel::threads::MutexLock lock(all.mutex);
  const auto found = all.armed.find(std::string_view(name));
  if (found == all.armed.end() || !all.points.contains(std::string_view(name)))
    return nullptr;
  return &found->second.tester;
}

ArmedTester::ArmedTester(std::string name) : name_(std::move(name)) {
  Registry& all = registry();
  const parallel::threads::MutexLock lock(all.mutex);
  ++all.armed.try_emplace(name_, name_).first->second.count;
  XExceptionTester::staticTesterMode = 0;
}

ArmedTester::~ArmedTester() {
  Registry& all = registry();
  const parallel::threads::MutexLock lock(all.mutex);
  const auto found = all.armed.find(name_);
  if (--found->second.count == 0)
    all.armed.erase(found);
  if (all.armed.empty())
    XExceptionTester::staticTesterMode = -1;
}

}  // namespace xtester
