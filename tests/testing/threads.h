// The number of OpenMP threads, put back at the end of the scope.
#pragma once

#include <omp.h>

namespace qx::testing {

class Threads {
 public:
  explicit Threads(int number) { omp_set_num_threads(number); }
  ~Threads() { omp_set_num_threads(before_); }
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

 private:
  const int before_ = omp_get_max_threads();
};

}  // namespace qx::testing
