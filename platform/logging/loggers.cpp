// The process's loggers by name, and their masks.
#include <map>
#include <memory>
#include <string>

#include "platform/logging/createQLVLogger.h"
#include "platform/logging/sinks.h"
#include "platform/threads/Mutex.h"

namespace parallel::logging {
namespace {

using Logger = foundation::log::basic_diagnostic_logger<char>;
using foundation::log::level_t;

struct Registry {
  threads::Mutex mutex;
  std::map<std::string, std::unique_ptr<Logger>, std::less<>> loggers ZKS_GUARDED_BY(mutex);
  // Set for a name since the last mask for all.
  std::map<std::string, level_t, std::less<>> masks ZKS_GUARDED_BY(mutex);
  level_t maskForAll ZKS_GUARDED_BY(mutex) = 0;
};

// Never destroyed: threads of a framework and destructors of other static objects may log until the process is gone.
Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

}  // namespace

Logger& createQLVLogger(std::string_view name) {
  Registry& all = registry();
  const threads::MutexLock lock(all.mutex);
  if (const auto found = all.loggers.find(name); found != all.loggers.end())
    return *found->second;
  auto logger = std::make_unique<Logger>(std::string(name));
  const auto mask = all.masks.find(name);
  logger->setEnabledLevels(mask == all.masks.end() ? all.maskForAll : mask->second);
  return *all.loggers.emplace(name, std::move(logger)).first->second;
}

void setEnabledLevels(std::string_view loggerName, level_t mask) {
  Registry& all = registry();
  const threads::MutexLock lock(all.mutex);
  if (loggerName.empty()) {
    all.maskForAll = mask;
    all.masks.clear();
    for (const auto& [name, logger] : all.loggers)
      logger->setEnabledLevels(mask);
    return;
  }
  all.masks.insert_or_assign(std::string(loggerName), mask);
  if (const auto found = all.loggers.find(loggerName); found != all.loggers.end())
    found->second->setEnabledLevels(mask);
}

}  // namespace parallel::logging
