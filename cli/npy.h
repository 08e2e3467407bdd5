// NumPy's .npy files, versions 1 to 3, of the classes that host arrays share with NumPy: numbers, complex numbers and
// booleans. Either byte order and either element order is read; little-endian Fortran order is written.
//
// Shape:   one of n elements becomes n-by-1, one without dimensions 1-by-1; what is written has at least 2 dimensions.
// Errors:  CliError names the file and what is wrong with it.
#pragma once

#include <string>

#include "platform/array/qxArray.h"
#include "transport/streams/ByteSink.h"

namespace zks {

qxArrayPtr readNpy(const std::string& path);

bool canWriteNpy(const qxArray* array) noexcept;

// Writes a whole file. The array must be one that can be written.
void writeNpy(const qxArray* array, parallel::spf::transport::ByteSink& file);

}  // namespace zks
