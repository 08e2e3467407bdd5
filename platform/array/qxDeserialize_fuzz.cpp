// Fuzz target: any bytes give no array, or one that comes back equal from its own bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "platform/array/qxArray.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t nbytes) {
  const qxArrayPtr array(qxDeserialize(data, nbytes));
  if (array == nullptr)
    return 0;
  const qxArrayPtr bytes(qxSerializeEx(array.get(), qxSerializeDefaults));
  const qxArrayPtr again(qxDeserialize(qxGetData(bytes.get()), qxGetDataBytes(bytes.get())));
  if (again == nullptr || !qxEqual(array.get(), again.get()))
    std::abort();
  return 0;
}
