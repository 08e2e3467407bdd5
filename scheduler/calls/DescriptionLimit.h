// A bound on the description of a call: each field of it takes two bytes in the request, and many times that in memory.
#pragma once

#include <cstddef>
#include <string>

namespace parallel::scheduler {

struct DescriptionLimit {
  // Arguments, variables, names of files, items of an echo, and what is in them.
  std::size_t fields = 1'000'000;
  // What its user can change, for the error.
  std::string option = "SchedulerOptions::descriptionLimit";
};

}  // namespace parallel::scheduler
