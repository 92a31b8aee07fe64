// Stereo matching of any pictures, maps and volumes with any options.
#include <omp.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/require.h"
#include "qx_utils/image/kernels/cpu_features.h"
#include "qx_utils/stereo/kernels/semi_global.h"
#include "qxtools/cost_volume.h"
#include "qxtools/stereo_matcher.h"

namespace qx::utils::stereo {
namespace {

using fuzzing::Require;
using velkar::vision::ImageFrame;
using velkar::vision::ImageFrameImpl;
using FramePtr = std::shared_ptr<ImageFrame>;

struct Input {
  FramePtr Frame(QXPixelFormat format, std::size_t channels, std::size_t from) const {
    const auto bytes = std::make_shared<std::vector<std::uint8_t>>(width * height * channels);
    for (std::size_t i = 0; i < bytes->size(); ++i) (*bytes)[i] = values[(from + i) % count];
    return ImageFrameImpl::Create(format, bytes->data(), static_cast<std::uint32_t>(height),
                                  static_cast<std::uint32_t>(width),
                                  static_cast<std::uint32_t>(channels), bytes);
  }

  std::size_t width, height, shift;
  const std::uint8_t* values;
  std::size_t count;
};

const std::uint16_t* DisparitiesOf(const FramePtr& frame) {
  return reinterpret_cast<const std::uint16_t*>(frame->Data());
}

bool Equal(const FramePtr& a, const FramePtr& b) {
  return a->DataSize() == b->DataSize() && std::memcmp(a->Data(), b->Data(), a->DataSize()) == 0;
}

void CheckResult(const StereoResult& result, const StereoOptions& options) {
  const std::uint16_t* const disparity = DisparitiesOf(result.disparity);
  const std::uint16_t* const filled = DisparitiesOf(result.filled);
  const int last = options.first_disparity + options.disparities - 1;
  for (std::size_t i = 0; i < result.confidence->DataSize(); ++i) {
    Require(filled[i] <= kDisparityUnits * last);
    Require((result.confidence->Data()[i] == 0) == (disparity[i] == kMissingDisparity));
    if (disparity[i] == kMissingDisparity) continue;
    Require(disparity[i] == filled[i] && disparity[i] >= kDisparityUnits * options.first_disparity);
  }
}

void CheckSteps(const Input& input, const StereoOptions& options, const FramePtr& left,
                const FramePtr& right, const StereoResult& expected) {
  const auto disparities = static_cast<std::size_t>(options.disparities);
  const FramePtr volume = input.Frame(kQXPixelFormatUint8, disparities, 0);
  image::CostVolume(ComputeFeatures(left).get(),
                    ComputeFeatures(right, options.first_disparity).get(), volume.get());
  const StereoResult result = SelectDisparities(AggregateCosts(volume, left, options), options);
  Require(Equal(result.disparity, expected.disparity));
  Require(Equal(result.confidence, expected.confidence));
  Require(Equal(FillDisparities(result.disparity), expected.filled));
}

// Correlations that no feature maps of ours lead to.
void CheckVariants(const Input& input, const StereoOptions& options) {
  const auto disparities = static_cast<std::size_t>(options.disparities);
  const FramePtr volume = input.Frame(kQXPixelFormatUint8, disparities, 0);
  const FramePtr guide = input.Frame(kQXPixelFormatGray8, 1, 1);
  const SemiGlobalJob job{reinterpret_cast<const std::int8_t*>(volume->Data()),
                          {guide->Data(), input.width, input.width, input.height},
                          input.width,
                          input.height,
                          disparities,
                          static_cast<std::size_t>(options.first_disparity),
                          options.slant_penalty,
                          options.jump_penalty,
                          options.paths};
  std::vector<std::uint16_t> expected(input.width * input.height), actual(expected.size());
  SemiGlobalScratch scratch;
  MatchVolume(kSemiGlobalScalar, job, {}, scratch, expected.data(), nullptr);
  std::size_t count = 0;
  const SemiGlobalVariant* const table = SemiGlobalVariants(&count);
  for (std::size_t i = 0; i < count; ++i) {
    if ((table[i].required & ~internal::SupportedFeatures()) != 0) continue;
    MatchVolume(*table[i].kernel, job, {}, scratch, actual.data(), nullptr);
    Require(actual == expected);
  }
}

// Input: the size, the options, where the right picture begins and the threads, then the values of
// all pictures, maps and volumes over and over.
void Run(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeader = 8;
  if (size <= kHeader) return;
  const Input input{1U + data[0] % 48U, 1U + data[1] % 12U, data[7], data + kHeader,
                    size - kHeader};
  StereoOptions options;
  options.first_disparity = data[2];
  options.disparities = 1 + data[3] % (kMaxDisparities - data[2]);
  options.slant_penalty = data[4] % (kMaxSlant + 1);
  options.jump_penalty =
      options.slant_penalty + data[5] % (kMaxPenalties + 1 - 2 * options.slant_penalty);
  options.paths = data[6] % 2 == 0 ? 8 : 4;
  options.confidence = true;

  const FramePtr left = input.Frame(kQXPixelFormatGray8, 1, 0);
  const FramePtr right = input.Frame(kQXPixelFormatGray8, 1, input.shift);
  StereoMatcher matcher(options);
  omp_set_num_threads(1);
  const StereoResult result = matcher.Match(left, right);
  CheckResult(result, options);
  omp_set_num_threads(1 + data[6] / 2 % 3);
  CheckSteps(input, options, left, right, result);
  CheckVariants(input, options);
  CheckResult(matcher.MatchFeatures(input.Frame(kQXPixelFormatUint8, 64, 0),
                                    input.Frame(kQXPixelFormatUint8, 64, input.shift), left),
              options);
}

}  // namespace
}  // namespace qx::utils::stereo

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qx::utils::stereo::Run(data, size);
  return 0;
}
