// Named fault-injection points.
//
// Code that wants to be tested under a fault names a point; a test arms the name. Nothing is looked up while no test
// has switched the facility on.
#pragma once

#include <atomic>
#include <string>

namespace xtester {

class XExceptionTester {
 public:
  // -1: no tester is active, and points cost one atomic read.
  static std::atomic<int> staticTesterMode;

  explicit XExceptionTester(std::string name) : name_(std::move(name)) {}
  const std::string& name() const noexcept { return name_; }

  // Makes the host behave as if the user had pressed Ctrl-C.
  void emulateCtrlC();

 private:
  std::string name_;
};

// Registers the point. The first two arguments are kept for hosts that group their points; null here.
void CreateTesterByName(const char* group, const char* component, const char* name);
// The tester of a registered point that a test has armed, else null. Valid while it stays armed.
XExceptionTester* GetTesterByName(const char* group, const char* component, const char* name);

// For tests: switches the facility on and arms one point while it lives.
class ArmedTester {
 public:
  explicit ArmedTester(std::string name);
  ~ArmedTester();
  ArmedTester(const ArmedTester&) = delete;
  ArmedTester& operator=(const ArmedTester&) = delete;

 private:
  std::string name_;
};

}  // namespace xtester
