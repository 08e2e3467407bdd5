// What the declarations of zks's commands share.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "programs/optionValues.h"

namespace zks {

inline CLI::Validator asValidator(const programs::OptionCheck& check) {
  return {check, ""};
}

// One value each time the option is given.
inline CLI::Option* addRepeated(CLI::App& app, const char* name, std::vector<std::string>& values, const char* type,
                                const char* help) {
  return app.add_option(name, values, help)
      ->type_name(type)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->allow_extra_args(false);
}

}  // namespace zks
