// A progress line on standard error, for people alone: nothing is shown unless it is a terminal.
#pragma once

#include <chrono>
#include <cstddef>

namespace qx::tools {

class Progress {
 public:
  // Inputs: total  how many there will be; 0 when nobody knows.
  explicit Progress(std::size_t total);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Removes the line.
  ~Progress();

  // Redraws the line at most ten times a second.
  void Update(std::size_t done);

 private:
  void DrawBar(std::size_t done) const;

  std::size_t total_;
  bool is_terminal_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace qx::tools
