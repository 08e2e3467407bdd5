// For tests: an array as a NumPy file.
#pragma once

#include <string>

#include "cli/npy.h"
#include "toolbox/AtomicFile.h"

namespace zks {

inline void saveNpy(const std::string& path, const qxArray* array) {
  parallel::toolbox::writeFile(path, [&](parallel::spf::transport::ByteSink& file) { writeNpy(array, file); });
}

}  // namespace zks
