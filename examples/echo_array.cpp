// Sends an array to a running service and prints what comes back: example_echo_array unix:/run/user/1000/zks/zksd.sock
#include <exception>
#include <iostream>

#include "toolbox/SchedulerClient.h"

int main(int argc, char** argv) try {
  const auto connection = parallel::toolbox::Connection::connect(argc > 1 ? argv[1] : "");
  const std::size_t shape[] = {2, 3};
  const qxArrayPtr array = qxCreateNumericArray(shape, qxClass::Float64);
  for (double next = 0; double& element : qxGetWritableElements<double>(array.get()))
    element = next += 1.5;
  auto reply = parallel::toolbox::SchedulerClient(connection).echo({parallel::toolbox::arrayItem(array.get())});
  const auto back = reply.takeArray();
  for (const double element : qxGetElements<double>(back.get()))
    std::cout << element << '\n';
} catch (const std::exception& error) {
  std::cerr << error.what() << '\n';
  return 1;
}
