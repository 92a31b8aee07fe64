// What the cost volume is measured against.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qx_utils/image/kernels/cost_volume.h"

namespace qx::bench {

// The loop as an ordinary implementer writes it: for every row, disparity and column a dot product
// of 32 bytes per step, into one float per element; then a second pass that quantises. Rows, and
// in the second pass elements, are shared among the OpenMP threads.
void ElementByElement(const utils::image::CostVolumeJob& job, std::size_t rows);

// The parts of the above for one thread.
void ElementRows(const utils::image::CostVolumeJob& job, std::size_t first_row, std::size_t end_row,
                 float* costs);
void QuantiseElements(const float* costs, std::size_t count, std::int8_t* to);

// Products alone, no quantisation: for every row and every strip of `strip` left pixels the
// oneDNN matrix product of the strip with the right pixels of its band, int8 x int8 -> int32.
// Rows are shared among the OpenMP threads, each running single-threaded products.
class OnednnBands {
 public:
  // Whether this build has oneDNN.
  static bool Available();
  explicit OnednnBands(std::size_t strip) : strip_(strip) {}
  std::size_t strip() const { return strip_; }
  void Run(const utils::image::CostVolumeJob& job, std::size_t rows);

 private:
  std::size_t strip_;
  std::vector<std::vector<std::int32_t>> results_;  // per thread
};

// One thread's best 8-bit instruction on registers alone, and how many multiply-adds that is; 0
// when the processor has none, and then RunPeak() must not be called.
void RunPeak();
double PeakMacs();

}  // namespace qx::bench
