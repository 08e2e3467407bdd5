// Writing and reading the serialised form, beside copying the same bytes into fresh memory of the same kind.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstring>

#include "platform/array/qxArray.h"

namespace {

// A float64 column of so many bytes, every page touched.
qxArrayPtr filledColumn(std::size_t nbytes) {
  const std::array<std::size_t, 2> dimensions{nbytes / sizeof(double), 1};
  qxArrayPtr array = qxCreateUninitializedArray(dimensions, qxClass::Float64);
  double next = 0;
  for (double& element : qxGetWritableElements<double>(array.get()))
    element = next++;
  return array;
}

void reportBytes(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void Memory_Copy_FreshArray(benchmark::State& state) {
  const auto nbytes = static_cast<std::size_t>(state.range(0));
  const qxArrayPtr array = filledColumn(nbytes);
  const std::array<std::size_t, 2> dimensions{nbytes, 1};
  for (auto _ : state) {
    const qxArrayPtr copy = qxCreateUninitializedArray(dimensions, qxClass::Uint8);
    std::memcpy(qxGetWritableData(copy.get()), qxGetData(array.get()), nbytes);
    benchmark::ClobberMemory();
  }
  reportBytes(state);
}

void Array_Serialize_Float64(benchmark::State& state) {
  const qxArrayPtr array = filledColumn(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    const qxArrayPtr bytes(qxSerializeEx(array.get(), qxSerializeDefaults));
    benchmark::ClobberMemory();
  }
  reportBytes(state);
}

void Array_Deserialize_Float64(benchmark::State& state) {
  const qxArrayPtr array = filledColumn(static_cast<std::size_t>(state.range(0)));
  const qxArrayPtr bytes(qxSerializeEx(array.get(), qxSerializeDefaults));
  for (auto _ : state) {
    const qxArrayPtr back(qxDeserialize(qxGetData(bytes.get()), qxGetDataBytes(bytes.get())));
    benchmark::ClobberMemory();
  }
  reportBytes(state);
}

qxArrayPtr listOfScalars(std::size_t count) {
  const std::array<std::size_t, 2> dimensions{count, 1};
  qxArrayPtr list = qxCreateListArray(dimensions);
  for (std::size_t i = 0; i < count; ++i)
    qxSetListElement(list.get(), i, qxCreateScalar(static_cast<double>(i)));
  return list;
}

void List_Serialize_Scalars(benchmark::State& state) {
  const qxArrayPtr list = listOfScalars(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    const qxArrayPtr bytes(qxSerializeEx(list.get(), qxSerializeDefaults));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void List_Deserialize_Scalars(benchmark::State& state) {
  const qxArrayPtr list = listOfScalars(static_cast<std::size_t>(state.range(0)));
  const qxArrayPtr bytes(qxSerializeEx(list.get(), qxSerializeDefaults));
  for (auto _ : state) {
    const qxArrayPtr back(qxDeserialize(qxGetData(bytes.get()), qxGetDataBytes(bytes.get())));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

constexpr std::int64_t kKibi = 1024;

void sizes(benchmark::internal::Benchmark* bench) {
  for (const std::int64_t nbytes : {kKibi, kKibi * kKibi, 256 * kKibi * kKibi})
    bench->Arg(nbytes);
}

BENCHMARK(Memory_Copy_FreshArray)->Apply(sizes);
BENCHMARK(Array_Serialize_Float64)->Apply(sizes);
BENCHMARK(Array_Deserialize_Float64)->Apply(sizes);
BENCHMARK(List_Serialize_Scalars)->Arg(100000);
BENCHMARK(List_Deserialize_Scalars)->Arg(100000);

}  // namespace
