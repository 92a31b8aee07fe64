// Measures how long stages take.
#pragma once

#include <chrono>

namespace qx::tools {

// Adds the time from its construction to its destruction to a number of seconds.
class Stopwatch {
 public:
  explicit Stopwatch(double& seconds) : seconds_(seconds) {}
  ~Stopwatch() {
    seconds_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  double& seconds_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace qx::tools
