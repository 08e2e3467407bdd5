// The C++ client of python_bench: echoes arrays through a service and prints the seconds of each call.
//
//     echo_client ADDRESS
//
// Reads lines "ELEMENTS CALLS" and answers each with one line; python/bench/bench_python.py speaks the same.
#include <cstddef>
#include <iomanip>
#include <iostream>
#include <stdexcept>
#include <utility>

#include "bench/measure.h"
#include "platform/array/qxArray.h"
#include "toolbox/SchedulerClient.h"

namespace {

namespace toolbox = parallel::toolbox;

qxArrayPtr arrayOf(std::size_t elements) {
  const std::size_t shape[] = {elements, 1};
  qxArrayPtr array = qxCreateNumericArray(shape, qxClass::Float64);
  double value = 0;
  for (double& element : qxGetWritableElements<double>(array.get()))
    element = value += 0.5;
  return array;
}

void echoOnce(const toolbox::SchedulerClient& client, const qxArray* array) {
  const auto back = client.echo({toolbox::arrayItem(array)}).takeArray();
  if (qxGetNumberOfElements(back.get()) != qxGetNumberOfElements(array))
    throw std::runtime_error("echo returned another array");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: echo_client ADDRESS\n";
    return 2;
  }
  const auto connection = toolbox::Connection::connect(argv[1]);
  const toolbox::SchedulerClient client(connection);
  qxArrayPtr array;
  std::cout << std::setprecision(9);
  for (std::size_t elements = 0, calls = 0; std::cin >> elements >> calls;) {
    if (array == nullptr || qxGetNumberOfElements(array.get()) != elements)
      array = arrayOf(elements);
    for (std::size_t call = 0; call < calls; ++call)
      std::cout << bench::secondsOf([&] { echoOnce(client, array.get()); }) << ' ';
    std::cout << std::endl;
  }
}
