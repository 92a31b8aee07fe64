// Semi-global matching of a volume of correlations: neighbours agree on a disparity unless the
// pictures say otherwise.
//
// Every disparity of a pixel gets the sum of the costs of the cheapest paths that lead to it from 8
// (or 4) directions. A path pays for poor matches on its way and for changes of disparity; a large
// change is cheaper where the left picture has an edge. semi_global_rows.h has the formula.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "qx_utils/stereo/grey_view.h"
#include "qx_utils/stereo/kernels/semi_global_rows.h"

namespace qx::utils::stereo {

// Defaults, in units of a cost; a perfect match is about 62 better than an unrelated one.
constexpr int kDefaultSlant = 20;
constexpr int kDefaultJump = 150;

// Larger penalties count as these: the rest of a byte is left for costs.
constexpr int kMaxSlant = 95;
constexpr int kMaxPenalties = 191;  // slant + jump

// A volume, the picture that guides its paths, and how they are weighed; all borrowed.
struct SemiGlobalJob {
  const std::int8_t* correlation;  // height x width x disparities; larger is better
  GreyView guide;                  // the left picture, width x height
  std::size_t width;               // at least 1
  std::size_t height;              // at least 1
  std::size_t disparities;         // at least 1; first_disparity + disparities <= 256
  std::size_t first_disparity;     // of the volume; those that lead out of the picture are unknown
  int slant;                       // price of a change by 1; 0 .. jump
  int jump;                        // price of a larger change, down to a fifth at edges
  int paths;                       // 8 or 4
};

// A volume that is computed on the way: called with rows first .. end - 1 before they are read,
// once for each row, on any of the OpenMP threads and by several at a time, but for different rows.
// `thread` is below omp_get_max_threads() and tells them apart. It must not throw.
struct CorrelationRows {
  void (*compute)(void* context, std::size_t first, std::size_t end, std::size_t thread) = nullptr;
  void* context = nullptr;
};

// Memory that is kept from call to call. One call at a time may use it.
class SemiGlobalScratch {
 public:
  // Returns: `bytes` bytes of any contents, aligned to kSemiGlobalAlignment. Allocates only if it
  // has never been asked for as many. Errors: std::bad_alloc.
  std::uint8_t* Take(std::size_t bytes);

 private:
  std::unique_ptr<std::uint8_t[]> block_;
  std::size_t size_ = 0;
};

struct SemiGlobalVariant {
  const char* name;
  std::uint32_t required;  // processor features, see cpu_features.h
  const SemiGlobalKernel* kernel;
};

// All variants of this build, best first, `scalar` last.
const SemiGlobalVariant* SemiGlobalVariants(std::size_t* count);

// Aggregates and selects at once, on the OpenMP threads of the caller.
//
// Outputs: disparity   height x width: disparity x 256, rounded to nearest, or kNoMatch
//          confidence  null, or height x width: 0 where the disparity is missing, else 1 .. 255, by
//                      how much better its sum is than the best of those that are not its
//                      neighbours
// Exact:   the same for any number of threads and every variant, and as AggregateCosts() followed
//          by SelectDisparities().
// Errors:  std::bad_alloc, before any thread has started.
void MatchVolume(const SemiGlobalKernel& kernel, const SemiGlobalJob& job,
                 const CorrelationRows& rows, SemiGlobalScratch& scratch, std::uint16_t* disparity,
                 std::uint8_t* confidence);

// Output: sums  height x width x disparities; smaller is better; 0 .. 255.
void AggregateCosts(const SemiGlobalKernel& kernel, const SemiGlobalJob& job,
                    SemiGlobalScratch& scratch, std::uint16_t* sums);

// Chooses and refines each pixel's disparity; outputs as those of MatchVolume().
// Input: sums  height x width x disparities; those above 255 count as 255.
void SelectDisparities(const SemiGlobalKernel& kernel, const std::uint16_t* sums, std::size_t width,
                       std::size_t height, std::size_t disparities, std::size_t first_disparity,
                       SemiGlobalScratch& scratch, std::uint16_t* disparity,
                       std::uint8_t* confidence);

}  // namespace qx::utils::stereo
